#include "framework/IpNatStatus.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/VorReactor.h"

namespace {

using namespace Ip::Nat;
using Lumet::IntfId;
using Lumet::IpAddr;
using Lumet::IpAndPort;

NatStaticConnection staticConn(IpAndPort local, IpAndPort global, U16 vlan = 10) {
   return NatStaticConnection(StaticKey(local), global, source_, 6, vlan, true);
}

// The notification behaviour of these entities is the attribute generator's
// (tests/framework/VorAttribute_test.cpp); here, what is their own.

TEST(IpNatIntfStatus, ConnectionsAreKeyedByTheirOwnKeyOrGroup) {
   Vor::Ptr<IntfStatus> intf(new IntfStatus(IntfId("Ethernet1")));
   NatStaticConnection conn = staticConn(IpAndPort(IpAddr(10, 0, 0, 1), 0), IpAndPort(IpAddr(1, 1, 1, 1), 0));
   intf->staticConnectionIs(conn);
   conn.filterAddressIs(Lumet::IpAddrWithFullMask(IpAddr(20, 0, 0, 0), 0xff000000), true);
   intf->staticConnectionIs(conn);   // the add replaces
   EXPECT_EQ(intf->staticConnections(), 1u);
   EXPECT_EQ(intf->staticConnection(conn.key()), conn);
   intf->twiceNatConnectionIs(NatTwiceConnection());
   EXPECT_TRUE(intf->twiceNatConnectionHas(0));
   // A lookup of an absent member is the empty record, not an error.
   intf->staticConnectionDel(conn.key());
   EXPECT_EQ(intf->staticConnection(conn.key()), NatStaticConnection());
   EXPECT_FALSE(intf->trapRule(DynamicKey("acl1", 3)));
   EXPECT_EQ(intf->trapRuleIs(DynamicKey("acl1", 3))->key(), DynamicKey("acl1", 3));

   Vor::Ptr<VrfStatus> vrf(new VrfStatus(L3::VrfName("blue")));
   NatVrfStaticConnection vconn;
   vconn.srcAddressOld = IpAddr(10, 0, 0, 9);
   vconn.srcAddressNew = IpAddr(1, 1, 1, 9);
   vrf->staticNatIs(vconn);
   EXPECT_EQ(vrf->staticNat(IpAddr(10, 0, 0, 9)), vconn);
   EXPECT_EQ(vrf->vrfName(), L3::VrfName("blue"));
}

TEST(IpNatIntfStatus, ProfileOrVlanId) {
   Vor::Ptr<IntfStatus> plain(new IntfStatus(IntfId("Ethernet1")));
   EXPECT_EQ(plain->profileOrVlanId(), 0);
   plain->validIntfIs(IntfId("Vlan42"), 42);
   EXPECT_EQ(plain->profileOrVlanId(), 42);

   // A profile answers its profile number whatever its members are.
   Vor::Ptr<IntfStatus> profile(new IntfStatus(Lumet::NatIntfId::natProfileIntfId(7)));
   profile->validIntfIs(IntfId("Vlan1"), 1);
   profile->validIntfIs(IntfId("Vlan2"), 2);
   EXPECT_EQ(profile->profileOrVlanId(), 7);
}

TEST(IpNatIntfStatusDeathTest, PlainInterfaceWithTwoMembersHasNoSingleVlan) {
   Vor::Ptr<IntfStatus> plain(new IntfStatus(IntfId("Ethernet1")));
   plain->validIntfIs(IntfId("Vlan1"), 1);
   plain->validIntfIs(IntfId("Vlan2"), 2);
   EXPECT_DEATH(plain->profileOrVlanId(), "validIntfs\\(\\) == 1");
}

TEST(IpNatStatus, MembersAreMadeFromTheirKey) {
   Vor::Ptr<Status> status(new Status());
   Vor::Ptr<IntfStatus> eth1 = status->intfStatusIs(IntfId("Ethernet1"));
   EXPECT_EQ(status->intfStatusIs(IntfId("Ethernet1")).ptr(), eth1.ptr());
   EXPECT_EQ(status->vrfStatusIs(L3::VrfName("blue"))->vrfName(), L3::VrfName("blue"));
   status->intfStatusDel(IntfId("Ethernet1"));
   // Whoever still holds the member keeps it whole.
   EXPECT_EQ(eth1->intfId(), IntfId("Ethernet1"));
   EXPECT_EQ(status->intfConfigKey(IntfId("Ethernet1")), Vor::String());
   EXPECT_EQ(status->natGroupInfo(5).group, 0);
}

TEST(IpNatDynamicTrapRule, FiltersWalkInSequenceOrderAndEveryChangeBumpsTheVersion) {
   Vor::Ptr<NatDynamicTrapRule> rule(new NatDynamicTrapRule(DynamicKey("acl", 1)));
   Lumet::IpAddrWithFullMask const any;
   auto const v0 = rule->trapFilterVersion();
   rule->trapFilterIs(NatTrapFilter(3, any, any));
   rule->trapFilterIs(NatTrapFilter(1, any, any));
   rule->trapFilterIs(NatTrapFilter(1, any, any));   // already there
   EXPECT_EQ(rule->trapFilterVersion(), v0 + 2);
   ASSERT_EQ(rule->trapFilters(), 2u);
   EXPECT_EQ(rule->trapFilter().begin()->seqNum(), 1u);
   rule->trapFilterIs(NatTrapFilter(1, any, any), false);
   EXPECT_EQ(rule->trapFilterVersion(), v0 + 3);
   EXPECT_FALSE(rule->initialized());
   // The rule's scalars are in its type description, each under its own id.
   EXPECT_FALSE(rule->setByName("vlanId", "10").has_value());
   EXPECT_FALSE(rule->setByName("initialized", "true").has_value());
   EXPECT_EQ(rule->vlanId(), 10);
   EXPECT_TRUE(rule->initialized());
   EXPECT_FALSE(rule->fullCone());
   EXPECT_EQ(rule->target(), NatTarget::source_);
}

} // namespace
