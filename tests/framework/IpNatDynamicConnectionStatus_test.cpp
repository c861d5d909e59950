#include "framework/IpNatDynamicConnectionStatus.h"

#include <gtest/gtest.h>

#include <vector>

#include "framework/MrouteLibStaticNatInfo.h"
#include "framework/RoutingHwRouteStatus.h"
#include "framework/VorReactor.h"

namespace {

using namespace Ip::Nat;
using Lumet::ConnTuple;
using Lumet::IntfId;
using Lumet::IpAddr;
using Lumet::IpAndPort;

DynamicConnectionKey key(U16 port) {
   return DynamicConnectionKey(IntfId("Ethernet1"),
                               ConnTuple(IpAndPort(IpAddr(10, 0, 0, 1), port), IpAndPort(IpAddr(8, 8, 8, 8), 53), 17));
}

TEST(IpNatDynamicConnectionStatus, SafeLookupAndResumableWalk) {
   Vor::Ptr<DynamicConnectionStatus> table(new DynamicConnectionStatus());
   auto absent = table->dynamicConnection(key(1));
   EXPECT_FALSE(absent.present);
   EXPECT_EQ(absent.record, DynamicConnection());

   for (U16 port : {1, 2, 3, 4, 5}) table->dynamicConnectionIs(DynamicConnection(key(port), IpAndPort(), port));
   auto found = table->dynamicConnection(key(3));
   ASSERT_TRUE(found.present);
   EXPECT_EQ(found.record.connMark(), 3);

   // A walk that gives way after two records resumes after the last one;
   // the visitor deletes the record behind the present one, which is then
   // not visited.
   std::vector<U16> seen;
   DynamicConnectionKey last;
   table->dynamicConnectionWalk(DynamicConnectionKey(), [&](DynamicConnection const& c) {
      seen.push_back(c.connMark());
      last = c.key();
      return seen.size() < 2;
   });
   table->dynamicConnectionWalk(key(3), [&](DynamicConnection const& c) {
      seen.push_back(c.connMark());
      if (c.connMark() == 3) table->dynamicConnectionDel(key(4));
      return true;
   });
   EXPECT_EQ(seen, (std::vector<U16>{1, 2, 3, 5}));
   EXPECT_EQ(last, key(2));
}

struct HwWatcher {
   DynamicConnectionHwStatus const* table = nullptr;
   std::vector<bool> presence;
   void onHw(DynamicConnectionKey const& k) { presence.push_back(table->dynamicConnectionHwHas(k)); }
};

struct HwReactor : Vor::Reactor<DynamicConnectionHwStatus, HwWatcher> {
   static Bindings const& table() {
      static Bindings const b{
         onKey<&HwWatcher::onHw>(DynamicConnectionHwStatus::dynamicConnectionHwId)};
      return b;
   }
   explicit HwReactor(HwWatcher* w) : Reactor(w, table()) {}
};

TEST(IpNatDynamicConnectionHwStatus, NotifiesPerMemberAndEmptiesCompletely) {
   Vor::Ptr<DynamicConnectionHwStatus> table(new DynamicConnectionHwStatus());
   HwWatcher w;
   w.table = table.ptr();
   HwReactor reactor(&w);
   reactor.notifierIs(table);
   DynamicConnectionHw hw(key(1), IpAndPort(IpAddr(1, 1, 1, 1), 100), 2.0);
   table->dynamicConnectionHwIs(hw);
   table->dynamicConnectionHwIs(hw);
   table->dynamicConnectionHwIs(DynamicConnectionHw(key(2), IpAndPort(), 3.0));
   table->dynamicConnectionHwDelAll();
   EXPECT_EQ(w.presence, (std::vector<bool>{true, true, false, false}));
   EXPECT_EQ(table->dynamicConnectionHws(), 0u);
}

TEST(RoutingHwRouteStatus, VrfIdNotifiesOnChangeAndMembersLiveThroughRemoval) {
   Vor::Ptr<Routing::Hardware::RouteStatus> routes(new Routing::Hardware::RouteStatus());
   auto red = routes->vrfStatusIs(L3::VrfName("red"));
   EXPECT_EQ(routes->vrfStatusIs(L3::VrfName("red")).ptr(), red.ptr());
   EXPECT_EQ(red->vrfId(), Ulo::VrfId(0));
   red->vrfIdIs(5);
   routes->vrfStatusDel(L3::VrfName("red"));
   EXPECT_FALSE(routes->vrfStatus(L3::VrfName("red")));
   EXPECT_EQ(red->vrfId(), Ulo::VrfId(5));

   Vor::Ptr<MrouteLib::StaticNatInfo> info(new MrouteLib::StaticNatInfo());
   MrouteLib::StaticNatIpInfo vlans;
   vlans.vlanIs(Bridging::VlanId(10), true);
   Lumet::IpGenAddr const group(IpAddr(239, 1, 1, 1));
   info->ipInfoIs(group, vlans);
   EXPECT_EQ(info->ipInfo(group).vlans(), 1u);
   info->ipInfoDel(group);
   EXPECT_EQ(info->ipInfo(group).vlans(), 0u);
}

} // namespace
