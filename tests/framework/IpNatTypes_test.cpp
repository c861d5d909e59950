#include "framework/IpNatTypes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "framework/BridgingVlanId.h"
#include "framework/L3VrfName.h"
#include "framework/MrouteLibTypes.h"
#include "framework/UloVrfId.h"
#include "framework/VorException.h"

using namespace Ip::Nat;
using Lumet::IpAddr;
using Lumet::IpAddrWithFullMask;
using Lumet::IpAndPort;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

namespace {

IpAndPort ap(char const* text) { return *IpAndPort::parse(text); }

} // namespace

TEST(RangeCheckedValues, VrfNameAndVlanIdLimitsAndTexts) {
   std::string hundred(100, 'v');
   EXPECT_EQ(L3::VrfName(hundred).value().size(), 100u);
   EXPECT_THAT([&] { L3::VrfName(hundred + "v"); },
               ThrowsMessage<Vor::RangeException>(StrEq("VrfName::value::bytes > VrfName::maxLength not allowed")));
   EXPECT_TRUE(L3::VrfName("default").isDefault());
   EXPECT_FALSE(L3::VrfName("red").isDefault());

   EXPECT_EQ(Bridging::VlanId(1).value(), 1);
   EXPECT_EQ(Bridging::VlanId(4094).value(), 4094);
   for (Vor::U32 bad : {0u, 4095u, 65536u + 10u}) {
      EXPECT_THAT([&] { Bridging::VlanId v(bad); },
                  ThrowsMessage<Vor::RangeException>(StrEq("VlanId::value < 1 or > 4094 not allowed")))
         << bad;
   }
   MrouteLib::StaticNatIpInfo info;
   info.vlanIs(20, true);
   info.vlanIs(10, true);
   info.vlanIs(10, true);
   EXPECT_EQ(info.vlans(), 2u);
   EXPECT_EQ(info.stringValue(), "vlan: [ 10 20 ]");
   EXPECT_THROW(info.vlanIs(0, true), Vor::RangeException);
   info.vlanIs(20, false);
   EXPECT_EQ(info.stringValue(), "vlan: [ 10 ]");
}

TEST(StaticKey, OrderHashAndText) {
   StaticKey plain(ap("10.0.0.1:80"));
   StaticKey withAcl(ap("10.0.0.1:80"), "web");
   StaticKey egress(ap("10.0.0.1:80"), "web", StaticKey::egress);
   EXPECT_LT(plain, withAcl);   // empty ACL name first
   EXPECT_LT(withAcl, egress);
   EXPECT_LT(StaticKey(ap("9.0.0.1:80"), "zzz", StaticKey::egress), plain);   // address decides first
   EXPECT_NE(plain.hash(1), withAcl.hash(1));
   EXPECT_NE(withAcl.hash(1), egress.hash(1));
   EXPECT_EQ(plain.stringValue(), "10.0.0.1:80 ingress");
   EXPECT_EQ(egress.stringValue(), "10.0.0.1:80 acl web egress");
}

TEST(NatStaticConnection, DefaultIsTheAbsentValueAndFilterSetIsOrdered) {
   NatStaticConnection absent;
   EXPECT_EQ(absent.target(), source_);
   EXPECT_EQ(absent.protocol(), 0);
   EXPECT_EQ(absent.vlanId(), 0);
   EXPECT_EQ(absent.filterAddresss(), 0u);

   NatStaticConnection conn(StaticKey(ap("10.0.0.1:0")), ap("1.1.1.1:0"), destination, 6, 10, true);
   IpAddrWithFullMask b(IpAddr(0x14000000u), 0xff000000u);
   IpAddrWithFullMask a(IpAddr(0x0a000000u), 0xff000000u);
   conn.filterAddressIs(b, true);
   conn.filterAddressIs(a, true);
   conn.filterAddressIs(a, true);
   EXPECT_EQ(conn.filterAddresss(), 2u);
   EXPECT_EQ(*conn.filterAddress().begin(), a);   // positions follow address order
   NatStaticConnection copy = conn;
   EXPECT_EQ(copy, conn);
   copy.filterAddressIs(b, false);
   EXPECT_FALSE(copy == conn);
   EXPECT_EQ(conn.stringValue(),
             "10.0.0.1:0 ingress global 1.1.1.1:0 target destination proto 6 vlan 10 forward "
             "filter [ 10.0.0.0/8, 20.0.0.0/8 ]");
}

TEST(DynamicRecords, KeysFlagsAndTexts) {
   DynamicKey k1("acl1", 2);
   DynamicKey k2("acl1", 3);
   DynamicKey k3("acl2", 1);
   EXPECT_LT(k1, k2);
   EXPECT_LT(k2, k3);
   EXPECT_NE(k1.hash(0), k2.hash(0));
   EXPECT_EQ(k1.stringValue(), "acl acl1 group 2");

   auto tuple = *Lumet::ConnTuple::parse("10.0.0.1:1024 -> 20.0.0.1:80 proto 6");
   DynamicConnectionKey key(Lumet::IntfId("Ethernet1"), tuple);
   EXPECT_EQ(key.stringValue(), "Ethernet1 10.0.0.1:1024 -> 20.0.0.1:80 proto 6");
   EXPECT_LT(key, DynamicConnectionKey(Lumet::IntfId("Ethernet2"), Lumet::ConnTuple()));
   DynamicConnection conn(key, ap("1.1.1.1:5000"), 7);
   EXPECT_EQ(conn.target(), source_);
   conn.targetIs(destination);
   conn.fullConeIs(true);
   conn.twiceNatIs(true);
   EXPECT_EQ(conn.target(), destination);
   EXPECT_TRUE(conn.fullCone() && conn.twiceNat() && !conn.addrOnly());
   conn.fullConeIs(false);   // clearing one flag leaves the others
   EXPECT_TRUE(!conn.fullCone() && conn.twiceNat() && conn.target() == destination);
   EXPECT_EQ(conn.stringValue(),
             "Ethernet1 10.0.0.1:1024 -> 20.0.0.1:80 proto 6 global 1.1.1.1:5000 target destination "
             "connMark 7 twiceNat");
   // Records of the shared-memory connection tables survive a byte copy.
   DynamicConnection raw;
   std::memcpy(static_cast<void*>(&raw), &conn, sizeof conn);
   EXPECT_EQ(raw, conn);

   DynamicConnectionHw hw(key, ap("1.1.1.1:5000"), 12.5);
   hw.addrOnlyIs(true);
   EXPECT_EQ(hw.lastChangedTime(), 12.5);
   EXPECT_FALSE(hw == DynamicConnectionHw(key, ap("1.1.1.1:5000"), 12.5));

   NatCounter counter;
   counter.pktCountInc(5);
   counter.pktCountInc(2);
   counter.pktCountReplyInc(3);
   EXPECT_EQ(counter, NatCounter(7, 3));
   EXPECT_EQ(counter.stringValue(), "pktCount: 7 pktCountReply: 3");
}

TEST(NatTrapFilter, SetOrderIsSequenceOrderAndTraceText) {
   IpAddrWithFullMask net(IpAddr(0x0a000000u), 0xff000000u);
   std::set<NatTrapFilter> filters{NatTrapFilter(30, net, {}), NatTrapFilter(10, {}, net, true),
                                   NatTrapFilter(20, net, net, false, false, 0, 0, 6)};
   std::vector<Vor::U32> seq;
   for (auto const& f : filters) seq.push_back(f.seqNum());
   EXPECT_EQ(seq, (std::vector<Vor::U32>{10, 20, 30}));
   NatTrapFilter withPorts(20, net, net, false, false, 0, 0, 6, Acl::PortSpec::eqPorts({80}));
   EXPECT_FALSE(withPorts == NatTrapFilter(20, net, net, false, false, 0, 0, 6));
   EXPECT_EQ(withPorts.stringValue(), "SeqNum: 20, src: 10.0.0.0/8, dst: 10.0.0.0/8, proto: 6");
}

TEST(TwiceAndVrfRecords, TextsAndHashes) {
   NatTwiceConnection twice(3, ap("10.0.0.1:0"), ap("20.0.0.1:0"), ap("1.1.1.1:0"), ap("2.2.2.2:0"), 6, 10);
   EXPECT_EQ(twice.stringValue(), "group 3 src 10.0.0.1:0 -> 1.1.1.1:0 dst 20.0.0.1:0 -> 2.2.2.2:0 proto 6 vlan 10");
   EXPECT_EQ(HwNatTwiceAddr(ap("1.1.1.1:0"), ap("2.2.2.2:0")).stringValue(), "srcNew: 1.1.1.1:0 dstNew: 2.2.2.2:0");
   Ulo::VrfAndIpAddr a(0, IpAddr(0x0a000001u));
   Ulo::VrfAndIpAddr b(1, IpAddr(0x0a000001u));
   Ulo::VrfAndIpAddr c(0, IpAddr(0x0a000002u));
   EXPECT_NE(a.hash(0), b.hash(0));
   EXPECT_NE(a.hash(0), c.hash(0));
   EXPECT_LT(c, b);   // VRF first
   EXPECT_EQ(b.stringValue(), "1/10.0.0.1");
}
