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

// What an interface engine sees of its IntfStatus: one line per delivery,
// with the member's presence at the moment of delivery.
struct IntfWatcher {
   IntfStatus const* intf = nullptr;
   std::vector<std::string> log;
   void onVrfName() { log.push_back("vrfName " + intf->vrfName().stringValue()); }
   void onValidIntf(IntfId const& k) {
      log.push_back("validIntf " + k.stringValue() + (intf->validIntfHas(k) ? " +" : " -"));
   }
   void onStatic(StaticKey const& k) {
      log.push_back("static " + k.stringValue() + (intf->staticConnectionHas(k) ? " +" : " -"));
   }
   void onTwice(U16 const& g) {
      log.push_back("twice " + std::to_string(g) + (intf->twiceNatConnectionHas(g) ? " +" : " -"));
   }
   void onTrapRule(DynamicKey const& k) {
      log.push_back("trapRule " + k.stringValue() + (intf->trapRuleHas(k) ? " +" : " -"));
   }
};

struct IntfReactor : Vor::Reactor<IntfStatus, IntfWatcher> {
   static Bindings const& table() {
      static Bindings const b{
         onScalar<&IntfWatcher::onVrfName>(IntfStatus::vrfNameId),
         onKey<&IntfWatcher::onValidIntf>(IntfStatus::validIntfId),
         onKey<&IntfWatcher::onStatic>(IntfStatus::staticConnectionId),
         onKey<&IntfWatcher::onTwice>(IntfStatus::twiceNatConnectionId),
         onKey<&IntfWatcher::onTrapRule>(IntfStatus::trapRuleId)};
      return b;
   }
   explicit IntfReactor(IntfWatcher* w) : Reactor(w, table()) {}
};

TEST(IpNatIntfStatus, NotifiesPerMemberOnAddChangeAndRemoveButNotOnNoChange) {
   Vor::Ptr<IntfStatus> intf(new IntfStatus(IntfId("Ethernet1")));
   IntfWatcher w;
   w.intf = intf.ptr();
   IntfReactor reactor(&w);
   reactor.notifierIs(intf);

   intf->vrfNameIs(L3::VrfName("red"));
   intf->vrfNameIs(L3::VrfName("red"));
   intf->validIntfIs(IntfId("Vlan10"), 10);
   intf->validIntfIs(IntfId("Vlan10"), 10);
   NatStaticConnection conn = staticConn(IpAndPort(IpAddr(10, 0, 0, 1), 0), IpAndPort(IpAddr(1, 1, 1, 1), 0));
   intf->staticConnectionIs(conn);
   intf->staticConnectionIs(conn);                       // equal value: nothing
   conn.filterAddressIs(Lumet::IpAddrWithFullMask(IpAddr(20, 0, 0, 0), 0xff000000), true);
   intf->staticConnectionIs(conn);                       // changed value: delivered
   intf->twiceNatConnectionIs(NatTwiceConnection());     // group 0
   intf->trapRuleIs(DynamicKey("acl1", 3));
   intf->trapRuleIs(DynamicKey("acl1", 3));              // existing rule: nothing
   intf->staticConnectionDel(conn.key());
   intf->staticConnectionDel(conn.key());                // absent: nothing
   intf->validIntfDel(IntfId("Vlan10"));
   intf->trapRuleDelAll();
   intf->twiceNatConnectionDelAll();

   std::string const key = conn.key().stringValue();
   std::vector<std::string> const expected{
      "vrfName red",
      "validIntf Vlan10 +",
      "static " + key + " +",
      "static " + key + " +",
      "twice 0 +",
      "trapRule " + DynamicKey("acl1", 3).stringValue() + " +",
      "static " + key + " -",
      "validIntf Vlan10 -",
      "trapRule " + DynamicKey("acl1", 3).stringValue() + " -",
      "twice 0 -",
   };
   EXPECT_EQ(w.log, expected);
   // A lookup of an absent member is the empty record, not an error.
   EXPECT_EQ(intf->staticConnection(conn.key()), NatStaticConnection());
   EXPECT_FALSE(intf->trapRule(DynamicKey("acl1", 3)));
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

struct StatusWatcher {
   Status const* status = nullptr;
   std::vector<std::string> log;
   void onIntf(IntfId const& k) {
      // A removed member is already gone from the map when the reactor
      // hears of it.
      log.push_back("intf " + k.stringValue() + (status->intfStatus(k) ? " +" : " -"));
   }
   void onCounter() { log.push_back(std::string("counter ") + (status->counterStatus() ? "on" : "off")); }
   void onVrf(L3::VrfName const& k) { log.push_back("vrf " + k.stringValue() + (status->vrfStatusHas(k) ? " +" : " -")); }
};

struct StatusReactor : Vor::Reactor<Status, StatusWatcher> {
   static Bindings const& table() {
      static Bindings const b{onKey<&StatusWatcher::onIntf>(Status::intfStatusId),
                              onScalar<&StatusWatcher::onCounter>(Status::counterStatusId),
                              onKey<&StatusWatcher::onVrf>(Status::vrfStatusId)};
      return b;
   }
   explicit StatusReactor(StatusWatcher* w) : Reactor(w, table()) {}
};

TEST(IpNatStatus, MembersComeAndGoWithOneDeliveryEach) {
   Vor::Ptr<Status> status(new Status());
   StatusWatcher w;
   w.status = status.ptr();
   StatusReactor reactor(&w);
   reactor.notifierIs(status);

   Vor::Ptr<IntfStatus> eth1 = status->intfStatusIs(IntfId("Ethernet1"));
   EXPECT_EQ(status->intfStatusIs(IntfId("Ethernet1")).ptr(), eth1.ptr());
   status->counterStatusIs(true);
   status->counterStatusIs(true);
   status->vrfStatusIs(L3::VrfName("blue"))->policerIs(VrfPolicer{100, 10});
   status->intfStatusDel(IntfId("Ethernet1"));
   status->vrfStatusDel(L3::VrfName("blue"));

   std::vector<std::string> const expected{"intf Ethernet1 +", "counter on", "vrf blue +",
                                           "intf Ethernet1 -", "vrf blue -"};
   EXPECT_EQ(w.log, expected);
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
}

} // namespace
