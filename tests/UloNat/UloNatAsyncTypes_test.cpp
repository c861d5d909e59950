#include "UloNat/UloNatAsyncTypes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <unordered_set>

#include "framework/VorException.h"

using namespace Ulo;
using Lumet::IntfId;
using Lumet::IpAddr;
using Lumet::IpAddrWithFullMask;
using Lumet::IpAndPort;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

namespace {

IpAndPort ap(char const* text) { return *IpAndPort::parse(text); }

NatHwKey staticKey(U32 filterAddrId = 0) {
   return NatHwKey(NatHwKey::staticSnat, ap("10.0.0.1:0"), ap("1.1.1.1:0"), IpAndPort(), IpAndPort(),
                   NatAclId(3), false, 0, 0, filterAddrId);
}

} // namespace

TEST(NatHwKey, FilterPositionSeparatesEqualityAndHashButNotOrder) {
   NatHwKey first = staticKey(0);
   NatHwKey second = staticKey(1);
   EXPECT_FALSE(first == second);
   EXPECT_FALSE(first < second);
   EXPECT_FALSE(second < first);
   EXPECT_NE(first.hash(0), second.hash(0));
   EXPECT_NE(first.hash(17), second.hash(17));
   // So an ordered set keeps only one filter position of a connection while a
   // hash set keeps both: the reason the order must not key such tables.
   EXPECT_EQ((std::set<NatHwKey>{first, second}).size(), 1u);
   EXPECT_EQ((std::unordered_set<NatHwKey>{first, second}).size(), 2u);
}

TEST(NatHwKey, HashDependsOnSeedAndOnEveryField) {
   // Ports chosen so that no two addresses share their address-and-port hash
   // (which XORs port into address: 10.0.0.1:1 and 10.0.0.2:2 would).
   NatHwKey base(NatHwKey::twiceNatForward, ap("10.0.0.1:100"), ap("10.0.0.2:200"), ap("10.0.0.3:300"),
                 ap("10.0.0.4:400"), NatAclId(5), false, 6, 7, 0);
   EXPECT_EQ(base.hash(99), NatHwKey(base).hash(99));
   EXPECT_NE(base.hash(1), base.hash(2));
   std::vector<NatHwKey> variants(10, base);
   variants[0].keyTypeIs(NatHwKey::twiceNatReverse);
   variants[1].srcIpAndPortOldIs(ap("10.0.0.1:9"));
   variants[2].srcIpAndPortNewIs(ap("10.0.0.9:200"));
   variants[3].dstIpAndPortOldIs(ap("10.0.0.3:9"));
   variants[4].dstIpAndPortNewIs(ap("10.0.0.9:400"));
   variants[5].aclIdIs(NatAclId(6));
   variants[6].reverseIs(true);
   variants[7].dynProtoIs(17);
   variants[8].groupIdIs(8);
   variants[9].filterAddrIdIs(1);
   // Swapping two addresses must change the hash too: the mix is ordered.
   NatHwKey swapped = base;
   swapped.srcIpAndPortOldIs(base.srcIpAndPortNew());
   swapped.srcIpAndPortNewIs(base.srcIpAndPortOld());
   variants.push_back(swapped);
   std::set<U32> hashes{base.hash(0)};
   for (auto const& v : variants) {
      EXPECT_FALSE(v == base);
      hashes.insert(v.hash(0));
   }
   EXPECT_EQ(hashes.size(), variants.size() + 1);
}

TEST(NatHwKey, OrderTakesFieldsInDeclaredOrderAndAddressesNumerically) {
   NatHwKey a = staticKey();
   NatHwKey b = staticKey();
   b.keyTypeIs(NatHwKey::staticDnat);
   b.srcIpAndPortOldIs(ap("0.0.0.1:0"));   // smaller address, but type decides first
   EXPECT_LT(a, b);
   NatHwKey c = staticKey();
   c.srcIpAndPortOldIs(ap("9.255.255.255:65535"));
   EXPECT_LT(c, a);   // 9.x < 10.x as numbers, whatever the port
   NatHwKey d = staticKey();
   d.srcIpAndPortOldIs(ap("10.0.0.1:1"));
   EXPECT_LT(a, d);
   NatHwKey e = staticKey();
   e.groupIdIs(1);
   NatHwKey f = staticKey();
   f.aclIdIs(NatAclId(2));
   f.groupIdIs(9);
   EXPECT_LT(f, e);   // aclId before groupId
}

TEST(NatHwKey, TextForms) {
   NatHwKey key = staticKey(2);
   key.reverseIs(true);
   key.dynProtoIs(6);
   EXPECT_EQ(key.stringValue(),
             "type: staticSnat, old sip: 10.0.0.1:0, new sip: 1.1.1.1:0, aclId: 3 reverse: 1 proto: 6 faId: 2");
   EXPECT_EQ(NatHwKey().stringValue(), "type: unknown,");
   EXPECT_EQ(key.stringLogValue(), "type: Static SNAT, old SIP: 10.0.0.1:0, new SIP: 1.1.1.1:0, new DIP: 0.0.0.0:0");
   EXPECT_EQ(NatHwKey().stringLogValue(), "type: Unknown, new DIP: 0.0.0.0:0");
   NatHwKey twice(NatHwKey::twiceNatReverse, ap("1.0.0.1:1"), IpAndPort(), ap("2.0.0.2:2"),
                  ap("3.0.0.3:3"));
   EXPECT_EQ(twice.stringLogValue(), "type: Twice NAT, old SIP: 1.0.0.1:1, old DIP: 2.0.0.2:2, new DIP: 3.0.0.3:3");
   EXPECT_EQ(key.genericText(),
             "Value('Ulo::NatHwKey', ** {'keyType': staticSnat, 'srcIpAndPortOld': 10.0.0.1:0, "
             "'srcIpAndPortNew': 1.1.1.1:0, 'dstIpAndPortOld': 0.0.0.0:0, 'dstIpAndPortNew': 0.0.0.0:0, "
             "'aclId': 3, 'reverse': True, 'dynProto': 6, 'groupId': 0, 'filterAddrId': 2})");
}

TEST(NatHwKey, PredicatesAndTruth) {
   EXPECT_FALSE(static_cast<bool>(NatHwKey()));
   NatHwKey onlyFaId;
   onlyFaId.filterAddrIdIs(1);
   EXPECT_TRUE(static_cast<bool>(onlyFaId));
   NatHwKey dnat(NatHwKey::dynamicDnat, IpAndPort(), IpAndPort(), ap("1.1.1.1:80"), ap("10.0.0.1:8080"));
   EXPECT_TRUE(dnat.isDynamicNat() && dnat.isDynamicDstNat() && dnat.isDestinationNat());
   EXPECT_FALSE(dnat.isSourceNat() || dnat.isStaticNat() || dnat.isTwiceNat() || dnat.isAddrOnlyNat());
   EXPECT_TRUE(dnat.isDynamicNapt());
   NatHwKey snat = staticKey();
   EXPECT_TRUE(snat.isStaticSrcNat() && snat.isSourceNat() && snat.isAddrOnlyNat());
   EXPECT_FALSE(snat.isStaticNapt() || snat.isStaticDestNat());
   NatHwKey reverse(NatHwKey::twiceNatReverse, ap("1.0.0.1:1"), {}, {}, {});
   EXPECT_TRUE(reverse.isTwiceNat() && reverse.isTwiceNatReverse() && reverse.isTwiceNapt());
   EXPECT_FALSE(reverse.isTwiceNatForward() || reverse.isSourceNat() || reverse.isDestinationNat());
   EXPECT_FALSE(NatHwKey().isAddrOnlyNat());
}

TEST(NatHwIndices, OutOfRangeTexts) {
   EXPECT_EQ(NatVlanIdIndex(63).value(), 63u);
   EXPECT_THAT([] { NatVlanIdIndex(64); },
               ThrowsMessage<Vor::RangeException>(
                  StrEq("NatVlanIdIndex::value < NatVlanIdIndex::min or > NatVlanIdIndex::max not allowed")));
   EXPECT_THAT([] { NatEgressIntfIndex(64); },
               ThrowsMessage<Vor::RangeException>(StrEq(
                  "NatEgressIntfIndex::value < NatEgressIntfIndex::min or > NatEgressIntfIndex::max not allowed")));
   NatHwData data;
   EXPECT_THROW(data.vlanIdIs(64, 1), Vor::RangeException);
   EXPECT_THROW(data.egressIntfIs(64, IntfId("Ethernet1")), Vor::RangeException);
   EXPECT_EQ(data.vlanIds(), 0u);
}

TEST(NatHwData, ArrayCountRules) {
   NatHwData data;
   data.vlanIdIs(5, 100);
   EXPECT_EQ(data.vlanIds(), 6u);
   for (U32 i = 0; i < 5; ++i) EXPECT_EQ(data.vlanId(i), 0);
   data.vlanIdIs(2, 20);
   data.vlanIdIs(3, 30);
   data.vlanIdDel(2);   // middle: stays as a hole
   EXPECT_EQ(data.vlanIds(), 6u);
   EXPECT_EQ(data.vlanId(2), 0);
   data.vlanIdDel(5);   // last: count falls past the zero cell 4 to the 30 at 3
   EXPECT_EQ(data.vlanIds(), 4u);
   data.vlanIdDel(3);   // last again: falls past the hole at 2 to nothing
   EXPECT_EQ(data.vlanIds(), 0u);
   data.vlanIdDel(10);   // past the count: nothing
   EXPECT_EQ(data.vlanIds(), 0u);
   data.vlanIdIs(63, 1);
   EXPECT_EQ(data.vlanIds(), 64u);
   data.vlanIdIs(0, 2);
   data.vlanIdDelAll();
   EXPECT_EQ(data.vlanIds(), 0u);
   EXPECT_EQ(data, NatHwData());   // and every cell is zero again

   data.egressIntfIs(1, IntfId("Ethernet2"));
   EXPECT_EQ(data.egressIntfs(), 2u);
   data.egressIntfDel(1);
   EXPECT_EQ(data.egressIntfs(), 0u);
}

TEST(NatHwData, EqualityComparesCellsUpToTheCountInOrder) {
   NatHwData a(6, IpAddrWithFullMask(IpAddr(0x0a000000u), 0xff000000u), 2, 7, false, 0, false);
   NatHwData b = a;
   a.vlanIdIs(0, 10);
   a.vlanIdIs(1, 20);
   b.vlanIdIs(0, 20);
   b.vlanIdIs(1, 10);
   EXPECT_FALSE(a == b);   // VLAN order is part of the data
   b.vlanIdIs(0, 10);
   b.vlanIdIs(1, 20);
   EXPECT_EQ(a, b);
   b.vlanIdIs(2, 0);   // a written zero raises the count: different data
   EXPECT_FALSE(a == b);
   NatHwData c = a;
   c.nextHopIdIs(8);
   EXPECT_FALSE(a == c);
   c = a;
   c.egressIntfIs(0, IntfId("Ethernet1"));
   EXPECT_FALSE(a == c);
}

TEST(NatHwData, TextForms) {
   EXPECT_EQ(NatHwData().stringValue(), "vlan: [ ]");
   NatHwData data(6, IpAddrWithFullMask(IpAddr(0x0a000000u), 0xff000000u), 2, 7, true, 9, true);
   data.vlanIdIs(0, 10);
   data.vlanIdIs(1, 20);
   data.egressIntfIs(0, IntfId("Ethernet1"));
   data.egressIntfIs(1, IntfId("Vlan5"));
   EXPECT_EQ(data.stringValue(),
             "vlan: [ 10 20 ] proto: 6 faddr: 10.0.0.0/8 #faddrs: 2 nhid: 7 mcastGroupId: 9 "
             "staticAclSharing: 1 multicast: 1 egressIntf: [ Ethernet1, Vlan5 ] ");
   data.multicastIs(false);   // egress interfaces print only on a multicast entry
   EXPECT_EQ(data.stringValue(),
             "vlan: [ 10 20 ] proto: 6 faddr: 10.0.0.0/8 #faddrs: 2 nhid: 7 mcastGroupId: 9 staticAclSharing: 1");
   EXPECT_EQ(data.genericText(),
             "Value('Ulo::NatHwData', ** {'protocol': 6, 'filterAddr': 10.0.0.0/8, 'numFilterAddrs': 2, "
             "'nextHopId': 7, 'vlanId': [10, 20], 'staticAclSharing': True, 'mcastGroupId': 9, "
             "'multicast': False, 'egressIntf': [Ethernet1, Vlan5]})");
   EXPECT_DEATH(NatHwData::fromGenericText("x"), "!\"No String constructor for NatHwData - has collection\"");
}

TEST(NatHwShadowEntry, SurvivesAByteCopyAndComparesAllThree) {
   NatHwData data(17, IpAddrWithFullMask(), 1, 0, false, 0, false);
   data.vlanIdIs(0, 4094);
   NatHwShadowEntry entry(staticKey(), data, NatHwShadowEntry::setting);
   // What the shared-memory table does: raw bytes in, raw bytes out.
   unsigned char raw[sizeof(NatHwShadowEntry)];
   std::memcpy(raw, &entry, sizeof raw);
   U32 dirty;
   std::memcpy(&dirty, raw + 728, sizeof dirty);
   EXPECT_EQ(dirty, 1u);
   U32 keyType;
   std::memcpy(&keyType, raw, sizeof keyType);
   EXPECT_EQ(keyType, 1u);
   EXPECT_EQ(raw[40], 17);   // data.protocol
   NatHwShadowEntry copy;
   std::memcpy(static_cast<void*>(&copy), raw, sizeof raw);
   EXPECT_EQ(copy, entry);
   copy.dirtyIs(NatHwShadowEntry::clean);
   EXPECT_FALSE(copy == entry);
   EXPECT_EQ(NatHwShadowEntry().genericText(),
             "Value('Ulo::NatHwShadowEntry', ** {'key': " + NatHwKey().genericText() +
                 ", 'data': " + NatHwData().genericText() + ", 'dirty': clean})");
}

TEST(NatHwEgress, PopulateAndCopy) {
   NatMrouteOifSet set;
   set.oifIs(IntfId("Ethernet2"));
   set.oifIs(IntfId("Ethernet1"));
   NatHwData data;
   data.egressIntfIs(5, IntfId("Vlan1"));   // stale content is cleared first
   doPopulateNatHwDataEgrIntfArray(set, data);
   EXPECT_EQ(data.egressIntfs(), 2u);
   EXPECT_EQ(data.egressIntf(0), IntfId("Ethernet1"));
   EXPECT_EQ(data.egressIntf(1), IntfId("Ethernet2"));
   NatHwData to;
   to.egressIntfIs(3, IntfId("Vlan9"));
   copyNatHwDataEgrIntfArray(data, to);
   EXPECT_EQ(to.egressIntfs(), 2u);
   EXPECT_EQ(to.egressIntf(1), IntfId("Ethernet2"));

   NatMrouteOifSet big;
   for (U32 i = 0; i < 65; ++i) big.oifIs(IntfId::make(IntfId::ethernet, i));
   EXPECT_THROW(doPopulateNatHwDataEgrIntfArray(big, data), Vor::RangeException);
}

TEST(NatHwNextHop, OnlyANextHopIdGivesAnId) {
   VrfAndIpAddr key(0, IpAddr(0x0a000001u));
   auto id = natNextHopIdFactory(key);
   id->nextHopIdIs(42);
   EXPECT_EQ(natHwNextHopId(id), 42u);
   EXPECT_EQ(natHwNextHopId(nullptr), 0u);
   Vor::Ptr<NatNextHopInfo const> other(new NatNextHopInfo(key));
   EXPECT_EQ(natHwNextHopId(other), 0u);

   auto mcast = NatMulticastDataIs();
   EXPECT_EQ(mcast->stringValue(), "NatMulticastData { multicast=0, groupId=0, oifSet=NatMrouteOifSet {} }");
   NatMrouteOifSet set;
   set.oifIs(IntfId("Ethernet1"));
   mcast->oifSetIs(set);
   mcast->multicastIs(true);
   mcast->groupIdIs(7);
   EXPECT_EQ(mcast->stringValue(),
             "NatMulticastData { multicast=1, groupId=7, oifSet=NatMrouteOifSet {Ethernet1, } }");
}
