// Trap rules on the interface engine, end to end through the simulated
// chip's ACLs: port ranges as value-and-mask entries, a rule that is filled
// in after it appears, refusals and failed commits retried by the review,
// replacement and removal, and the VLAN of a profile interface on a chip
// without profile support.

#include <set>
#include <string>

#include <gtest/gtest.h>

#include "sim/SimSystem.h"

namespace {

using Sim::SimOptions;
using Sim::SimSystem;
using Sim::TrapChipEntry;
template <typename T>
using Ptr = Vor::Ptr<T>;

Lumet::IpAddrWithFullMask filter(char const* text) { return *Sim::parseFilter(text); }

Lumet::IntfId const eth1("Ethernet1");
Ip::Nat::DynamicKey const acl1("pool1", 0);
Ip::Nat::DynamicKey const acl2("pool2", 3);

// A TCP filter from 10.0.0.0/8 to any destination port of `dstPorts`.
Ip::Nat::NatTrapFilter tcpFilter(Vor::U32 seqNum, Acl::PortSpec dstPorts, bool deny = false) {
   return Ip::Nat::NatTrapFilter(seqNum, filter("10.0.0.0/8"), filter("0.0.0.0/0"), deny, false, 0, 0, 6,
                                 Acl::PortSpec(), std::move(dstPorts));
}

// The (port, mask) pairs of the destination side of the chip entries.
std::set<std::pair<Vor::U16, Vor::U16>> dstPairs(std::set<TrapChipEntry> const& acl) {
   std::set<std::pair<Vor::U16, Vor::U16>> out;
   for (auto const& e : acl) {
      if (e.kind == TrapChipEntry::Kind::protocol) out.insert({e.dstPort, e.dstPortMask});
   }
   return out;
}

class TrapTest : public ::testing::Test {
 protected:
   void start(SimOptions options = SimOptions()) {
      options.dynamicNatSupported = true;
      sys_ = std::make_unique<SimSystem>(options);
      sys().vrfIs("default", 0);
      sys().intfIs(eth1, "default", "Ethernet1", {{eth1, 10}});
      sys().start();
      sys().runUntilIdle();
   }
   SimSystem& sys() { return *sys_; }
   Sim::SimNatHelper& chip() { return *sys().helper(); }
   std::set<TrapChipEntry> const* acl(Vor::U32 vlan, char const* name, bool slice = false) {
      return chip().trapAcl(vlan, name, slice);
   }
   SimSystem::TrapRuleSpec rangeRule(Vor::U16 vlan = 10) {
      SimSystem::TrapRuleSpec spec;
      spec.vlanId = vlan;
      spec.ruleId = 7;
      spec.filters.push_back(tcpFilter(1, Acl::PortSpec::rangePorts(1024, 65535)));
      return spec;
   }
   std::unique_ptr<SimSystem> sys_;
};

// A range of ports becomes the value-and-mask entries that cover exactly it,
// and a rule's removal takes all its entries off the chip.
TEST_F(TrapTest, PortRangesBecomeValueMaskEntriesAndLeaveWithTheRule) {
   start();
   SimSystem::TrapRuleSpec spec = rangeRule();
   // A single port beside the range, in a filter of its own; and a catch-all.
   spec.filters.push_back(tcpFilter(2, Acl::PortSpec::eqPorts({8080})));
   spec.trapAll = true;
   sys().trapRuleIs(eth1, acl1, spec);

   auto const* entries = acl(10, "pool1");
   ASSERT_NE(entries, nullptr);
   std::set<std::pair<Vor::U16, Vor::U16>> const expected{
      {1024, 0xFC00}, {2048, 0xF800}, {4096, 0xF000}, {8192, 0xE000},
      {16384, 0xC000}, {32768, 0x8000}, {8080, 0xFFFF}};
   EXPECT_EQ(dstPairs(*entries), expected);
   // The catch-all went in, and did not stop the filters.
   EXPECT_EQ(entries->size(), expected.size() + 1);
   EXPECT_EQ(entries->begin()->kind, TrapChipEntry::Kind::trapAll);
   // Every entry of one filter carries its sequence number.
   for (auto const& e : *entries) {
      if (e.kind == TrapChipEntry::Kind::protocol) {
         EXPECT_EQ(e.seqNum, e.dstPort == 8080 ? 2u : 1u);
      }
   }
   EXPECT_EQ(chip().trapEntryCount(), 8u);
   EXPECT_EQ(sys().unprogrammedTrapAclCount(), 0u);

   // A second rule on the same interface has an ACL of its own.
   sys().trapRuleIs(eth1, acl2, rangeRule());
   EXPECT_EQ(chip().trapEntryCount(), 14u);

   sys().trapRuleDel(eth1, acl1);
   EXPECT_EQ(acl(10, "pool1"), nullptr);
   EXPECT_EQ(chip().trapEntryCount(), 6u);
   EXPECT_FALSE(sys().root()->natIntfStatusSm(eth1)->trapRuleHas(acl1));
   EXPECT_TRUE(sys().root()->natIntfStatusSm(eth1)->trapRuleHas(acl2));
   EXPECT_EQ(sys().unprogrammedTrapAclCount(), 0u);
}

// The writer fills a rule in after it appears: nothing reaches the chip, not
// even a commit, until `initialized`; a replaced rule leaves none of the
// old filters behind.
TEST_F(TrapTest, RuleActsOnlyOnceInitializedAndReplacementDropsOldFilters) {
   start();
   sys().trapRuleIs(eth1, acl1, rangeRule(), false);
   EXPECT_EQ(chip().counts().trapAdds, 0u);
   EXPECT_EQ(chip().counts().sliceCommits, 0u);
   EXPECT_EQ(chip().counts().trapCommits, 0u);
   EXPECT_EQ(sys().root()->natIntfStatusSm(eth1)->trapRules(), 1u);

   ASSERT_TRUE(sys().trapRuleInitializedIs(eth1, acl1));
   ASSERT_NE(acl(10, "pool1"), nullptr);
   EXPECT_EQ(acl(10, "pool1")->size(), 6u);
   EXPECT_EQ(chip().counts().trapCommits, 1u);

   SimSystem::TrapRuleSpec narrower;
   narrower.vlanId = 10;
   narrower.filters.push_back(tcpFilter(1, Acl::PortSpec::eqPorts({443})));
   sys().trapRuleIs(eth1, acl1, narrower);
   ASSERT_NE(acl(10, "pool1"), nullptr);
   std::set<std::pair<Vor::U16, Vor::U16>> const only443{{443, 0xFFFF}};
   EXPECT_EQ(dstPairs(*acl(10, "pool1")), only443);
   EXPECT_EQ(chip().trapEntryCount(), 1u);
}

// A rule the chip has no room for leaves nothing half-programmed, raises the
// table-full state once, and is retried on the review's cadence until room
// is made.
TEST_F(TrapTest, RefusedRuleLeavesNothingOnTheChipAndIsRetriedUntilRoomIsMade) {
   SimOptions options;
   options.capacity = 4;
   start(options);
   sys().trapRuleIs(eth1, acl1, rangeRule());
   EXPECT_EQ(acl(10, "pool1"), nullptr);
   EXPECT_EQ(chip().trapEntryCount(), 0u);
   EXPECT_EQ(sys().unprogrammedTrapAclCount(eth1), 1u);
   EXPECT_TRUE(sys().root()->natSmStatus()->fullTable());
   EXPECT_EQ(sys().logs().count("NAT_HW_RESOURCE_FULL"), 1u);

   Vor::U64 const before = chip().counts().trapRefused;
   sys().runFor(20.0);
   Vor::U64 const retries = chip().counts().trapRefused - before;
   EXPECT_GE(retries, 3u);
   EXPECT_LE(retries, 5u);
   EXPECT_EQ(chip().trapEntryCount(), 0u);
   EXPECT_EQ(sys().logs().count("NAT_HW_RESOURCE_FULL"), 1u);

   chip().capacityIs(6);
   sys().runFor(6.0);
   ASSERT_NE(acl(10, "pool1"), nullptr);
   EXPECT_EQ(acl(10, "pool1")->size(), 6u);
   EXPECT_EQ(sys().unprogrammedTrapAclCount(), 0u);
   EXPECT_FALSE(sys().root()->natSmStatus()->fullTable());
   EXPECT_EQ(sys().logs().count("NAT_HW_RESOURCE_NORMAL"), 1u);
}

// A failed commit of the address-only slices skips the trap commit; either
// failure takes the rule out and records it; a removal whose commit fails is
// recorded too, and the review finishes it.
TEST_F(TrapTest, FailedCommitsRecordTheRuleAndTheReviewSettlesIt) {
   start();
   SimSystem::TrapRuleSpec spec = rangeRule();
   spec.addrOnly = true;
   spec.denyAll = true;
   chip().failNextSliceCommitIs(1);
   sys().trapRuleIs(eth1, acl1, spec);
   EXPECT_EQ(chip().counts().sliceCommits, 1u);
   EXPECT_EQ(chip().counts().trapCommits, 0u);
   EXPECT_EQ(acl(10, "pool1"), nullptr);
   EXPECT_EQ(acl(10, "pool1", true), nullptr);
   EXPECT_EQ(sys().unprogrammedTrapAclCount(eth1), 1u);

   sys().runFor(6.0);
   ASSERT_NE(acl(10, "pool1"), nullptr);
   // The deny-all of the address-only slice, and an address-only entry for
   // the filter that traps.
   ASSERT_NE(acl(10, "pool1", true), nullptr);
   EXPECT_EQ(acl(10, "pool1", true)->size(), 2u);
   EXPECT_EQ(sys().unprogrammedTrapAclCount(), 0u);

   chip().failNextTrapCommitIs(1);
   sys().trapRuleDel(eth1, acl1);
   EXPECT_EQ(acl(10, "pool1"), nullptr);
   EXPECT_EQ(sys().unprogrammedTrapAclCount(eth1), 1u);
   sys().runFor(6.0);
   EXPECT_EQ(sys().unprogrammedTrapAclCount(), 0u);
   EXPECT_EQ(chip().trapEntryCount(), 0u);
   EXPECT_FALSE(sys().root()->natSmStatus()->fullTable());
}

// A profile interface on a chip that cannot load profiles programs the
// engine's own calls (the catch-all, the deletes) on the VLAN its
// configuration key names, whatever the rule says; a key without it is a
// broken configuration.
TEST_F(TrapTest, ProfileWithoutChipSupportTakesTheVlanOfItsConfigurationKey) {
   SimOptions options;
   options.dynamicNatSupported = true;
   sys_ = std::make_unique<SimSystem>(options);
   Lumet::IntfId const profile = Lumet::NatIntfId::natProfileIntfId(5);
   sys().vrfIs("default", 0);
   sys().intfIs(profile, "default", "profile_Vlan0x1f", {{eth1, 31}});
   sys().start();
   SimSystem::TrapRuleSpec catchAll;
   catchAll.vlanId = 77;
   catchAll.trapAll = true;
   sys().trapRuleIs(profile, acl1, catchAll);
   EXPECT_EQ(acl(77, "pool1"), nullptr);
   ASSERT_NE(acl(31, "pool1"), nullptr);
   EXPECT_EQ(acl(31, "pool1")->size(), 1u);
   // Removal uses the same VLAN.
   sys().trapRuleDel(profile, acl1);
   EXPECT_EQ(chip().trapEntryCount(), 0u);

   Lumet::IntfId const badProfile = Lumet::NatIntfId::natProfileIntfId(6);
   sys().intfIs(badProfile, "default", "Vlan31", {{eth1, 31}});
   sys().runUntilIdle();
   EXPECT_DEATH(sys().trapRuleIs(badProfile, acl1, rangeRule()),
                "configKey.pos\\( \"profile_Vlan\" \\) != Vor::String::npos");
}

} // namespace
