#include "UloNat/UloNatAclTypes.h"

#include <gtest/gtest.h>

#include <vector>

using namespace Ulo;
using Acl::PortSpec;
using Lumet::IpAddr;
using Lumet::IpAddrWithFullMask;

namespace {

using Pairs = std::vector<NatPortValueMask>;
NatPortValueMask vm(U16 value, U16 end, U16 mask) { return {value, end, mask}; }

} // namespace

TEST(NatPortValueMask, KnownRanges) {
   EXPECT_EQ(Lumet::RangeMaskGen<U16>::pairs(1024, 65535),
             (Pairs{vm(1024, 2047, 0xFC00), vm(2048, 4095, 0xF800), vm(4096, 8191, 0xF000),
                    vm(8192, 16383, 0xE000), vm(16384, 32767, 0xC000), vm(32768, 65535, 0x8000)}));
   EXPECT_EQ(Lumet::RangeMaskGen<U16>::pairs(80, 80), (Pairs{vm(80, 80, 0xFFFF)}));
   EXPECT_EQ(Lumet::RangeMaskGen<U16>::pairs(0, 65535), (Pairs{vm(0, 65535, 0)}));
   EXPECT_EQ(Lumet::RangeMaskGen<U16>::pairs(65535, 65535), (Pairs{vm(65535, 65535, 0xFFFF)}));
   EXPECT_EQ(Lumet::RangeMaskGen<U16>::pairs(1, 6), (Pairs{vm(1, 1, 0xFFFF), vm(2, 3, 0xFFFE), vm(4, 5, 0xFFFE),
                                                          vm(6, 6, 0xFFFF)}));
   EXPECT_TRUE(Lumet::RangeMaskGen<U16>::pairs(9, 8).empty());
}

TEST(NatPortValueMask, PairsCoverExactlyTheRange) {
   // Each pair is an aligned block described by its mask, the blocks follow
   // each other without gap or overlap, and together they are the range.
   std::vector<std::pair<U16, U16>> cases = {{0, 0},     {0, 1},       {1, 65534},   {3, 17},   {1000, 1023},
                                             {1023, 1025}, {32767, 32768}, {100, 65535}, {0, 65534}, {12345, 54321}};
   for (auto [low, high] : cases) {
      Pairs pairs = Lumet::RangeMaskGen<U16>::pairs(low, high);
      ASSERT_FALSE(pairs.empty());
      Vor::U32 next = low;
      for (auto const& p : pairs) {
         EXPECT_EQ(p.value, next) << low << ".." << high;
         Vor::U32 size = 0x10000u - p.mask;
         EXPECT_EQ(p.value % size, 0u);
         EXPECT_EQ(Vor::U32(p.end), Vor::U32(p.value) + size - 1);
         EXPECT_EQ(p.value & p.mask, p.value);
         next = Vor::U32(p.end) + 1;
      }
      EXPECT_EQ(next, Vor::U32(high) + 1) << low << ".." << high;
   }
}

TEST(NatTrapPortMatches, CombinationsInSourceMajorOrder) {
   // Source: 80 and 82..84, three pairs over two ranges; destination: 443.
   std::vector<NatTrapPortMatch> out;
   EXPECT_EQ(natTrapPortMatches(PortSpec::eqPorts({80, 82, 83, 84}), PortSpec::eqPorts({443}), out), 3);
   EXPECT_EQ(out, (std::vector<NatTrapPortMatch>{{80, 0xFFFF, 443, 0xFFFF},
                                                 {82, 0xFFFE, 443, 0xFFFF},
                                                 {84, 0xFFFF, 443, 0xFFFF}}));
   // Any port on both sides: one match with everything zero.
   EXPECT_EQ(natTrapPortMatches(PortSpec(), PortSpec(), out), 1);
   EXPECT_EQ(out, (std::vector<NatTrapPortMatch>{{0, 0, 0, 0}}));
   // Destination varies fastest.
   EXPECT_EQ(natTrapPortMatches(PortSpec::eqPorts({1, 3}), PortSpec::eqPorts({5, 7}), out), 4);
   EXPECT_EQ(out, (std::vector<NatTrapPortMatch>{{1, 0xFFFF, 5, 0xFFFF},
                                                 {1, 0xFFFF, 7, 0xFFFF},
                                                 {3, 0xFFFF, 5, 0xFFFF},
                                                 {3, 0xFFFF, 7, 0xFFFF}}));
   // gt 1023 is the 1024..65535 range: six pairs.
   EXPECT_EQ(natTrapPortMatches(PortSpec::gtPort(1023), PortSpec(), out), 6);
}

TEST(NatTrapPortMatches, ErrorsAndBrokenInput) {
   std::vector<NatTrapPortMatch> out{{1, 1, 1, 1}};
   EXPECT_EQ(natTrapPortMatches(PortSpec::ltPort(0), PortSpec(), out), Acl::portSpecMatchesNothing);
   EXPECT_TRUE(out.empty());
   std::vector<Vor::U16> twelve;
   for (Vor::U16 p = 0; p < 12; ++p) twelve.push_back(p * 10);
   EXPECT_EQ(natTrapPortMatches(PortSpec(), PortSpec(PortSpec::eq, twelve), out), Acl::portSpecTooManyRanges);

   std::vector<Acl::U16FieldRange> ranges{{1, 1}};
   std::vector<std::vector<NatPortValueMask>> pairs{{vm(1, 1, 1)}};
   EXPECT_EQ(natPortSpecValueMasks(PortSpec::gtPort(65535), ranges, pairs), Acl::portSpecMatchesNothing);
   EXPECT_TRUE(ranges.empty() && pairs.empty());

   std::vector<std::vector<NatPortValueMask>> one{{vm(0, 0, 0)}};
   std::vector<std::vector<NatPortValueMask>> holeInSrc{{vm(0, 0, 0)}, {}};
   EXPECT_DEATH(natTrapPortMatches({}, one), "srcSize");
   EXPECT_DEATH(natTrapPortMatches(one, {}), "dstSize");
   EXPECT_DEATH(natTrapPortMatches(holeInSrc, one), "srcVect\\[ iSrc \\]\\.size\\(\\)");
}

TEST(NatAclNameIdTable, IdsAreStableNonZeroAndReversible) {
   NatAclNameIdTable table;
   EXPECT_EQ(table.getAclId("web"), NatAclId());
   NatAclId web = table.allocateAclId("web");
   NatAclId mail = table.allocateAclId("mail");
   EXPECT_TRUE(web && mail);
   EXPECT_FALSE(web == mail);
   EXPECT_EQ(table.allocateAclId("web"), web);
   EXPECT_EQ(table.getAclId("web"), web);
   EXPECT_EQ(table.getAclName(mail), "mail");
   EXPECT_EQ(table.getAclName(NatAclId()), "");
   EXPECT_EQ(table.getAclName(NatAclId(99)), "");
   EXPECT_EQ(table.aclIds(), 2u);
   EXPECT_DEATH(table.allocateAclId(""), "!aclName.empty\\(\\)");

   NatAclIdFilterTable filters;
   EXPECT_EQ(filters.entry(web), nullptr);
   IpAddrWithFullMask net(IpAddr(0x0a000000u), 0xff000000u);
   filters.entryIs(web).filterAddrTableIs(net);
   filters.entryIs(web).filterAddrTableIs(net);
   ASSERT_NE(filters.entry(web), nullptr);
   EXPECT_EQ(filters.entry(web)->filterAddrTables(), 1u);
   EXPECT_FALSE(filters.entryHas(mail));
}

TEST(NatTrapConfig, AclFromFiltersKeepsOrderBehindTheCatchAll) {
   IpAddrWithFullMask net(IpAddr(0x0a000000u), 0xff000000u);
   Ip::Nat::NatTrapFilter service(0, net, {}, false, false, 0, 21, 6);
   Ip::Nat::NatTrapFilter denied(1, {}, net, true, false, 0, 0, 17, PortSpec(), PortSpec::rangePorts(1, 9));
   NatTrapAcl acl(NatTrapKey("dyn1"));
   acl.ruleBySequenceIs(natTrapCatchAllSequence, NatTrapRule());
   for (auto const& f : {service, denied}) acl.ruleBySequenceIs(natTrapFilterSequence(f.seqNum()), NatTrapRule::fromFilter(f));
   std::vector<Vor::U32> sequences;
   for (auto const& [seq, rule] : acl.ruleBySequence()) sequences.push_back(seq);
   EXPECT_EQ(sequences, (std::vector<Vor::U32>{1, 2, 3}));
   EXPECT_EQ(acl.ruleBySequence(2)->dstPortSpec(), PortSpec::eqPorts({21}));   // service port as eq
   EXPECT_EQ(acl.ruleBySequence(2)->action(), NatTrapRule::permit);
   EXPECT_EQ(acl.ruleBySequence(3)->action(), NatTrapRule::deny);
   EXPECT_EQ(acl.stringValue(),
             "acl dyn1\n"
             "  1 permit src 0.0.0.0/0 any dst 0.0.0.0/0 any proto 0\n"
             "  2 permit src 10.0.0.0/8 any dst 0.0.0.0/0 eq 21 proto 6\n"
             "  3 deny src 0.0.0.0/0 any dst 10.0.0.0/8 range 1 9 proto 17");

   NatTrapConfig config;
   config.trapAclIs(acl);
   NatTrapAcl smaller(NatTrapKey("dyn1"));
   smaller.ruleBySequenceIs(1, NatTrapRule());
   config.trapAclIs(smaller);   // same name: replaces
   EXPECT_EQ(config.trapAcls(), 1u);
   EXPECT_EQ(config.trapAcl(NatTrapKey("dyn1"))->ruleBySequences(), 1u);
   config.trapAclDel(NatTrapKey("dyn1"));
   EXPECT_FALSE(config.trapAclHas(NatTrapKey("dyn1")));
   EXPECT_EQ(config.trapAcl(NatTrapKey("dyn1")), nullptr);
}
