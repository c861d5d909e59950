#include "UloNat/UloNatTypes.h"

#include <gtest/gtest.h>

#include "framework/VorException.h"
#include "framework/VorReactor.h"

namespace {

using namespace Ulo;
using Lumet::ConnTuple;
using Lumet::IntfId;
using Lumet::IpAddr;
using Lumet::IpAndPort;

IntfId const eth1("Ethernet1");
IntfId const eth2("Ethernet2");
IpAddr const addr(10, 0, 0, 1);

TEST(NatSmStatusVrf, AddressReferencesAreCountedPerInterfaceAndNeverGoBelowZero) {
   auto vrf = natSmStatusVrfFactory(VrfId(5));
   vrf->addAddress(eth1, addr);
   vrf->addAddress(eth1, addr);
   vrf->addAddress(eth2, addr);
   ASSERT_TRUE(vrf->ipAddrIntfInfo(addr));
   EXPECT_EQ(vrf->ipAddrIntfInfo(addr)->intf(eth1), 2u);
   EXPECT_EQ(vrf->ipAddrIntfInfo(addr)->intf(eth2), 1u);

   // Releasing a reference of an interface that holds none is harmless.
   vrf->delAddress(IntfId("Ethernet9"), addr);
   EXPECT_EQ(vrf->ipAddrIntfInfo(addr)->intfs(), 2u);

   vrf->delAddress(eth2, addr);
   EXPECT_FALSE(vrf->ipAddrIntfInfo(addr)->intfHas(eth2));
   EXPECT_EQ(vrf->ipAddrIntfInfo(addr)->intf(eth1), 2u);
   vrf->delAddress(eth1, addr);
   EXPECT_EQ(vrf->ipAddrIntfInfo(addr)->intf(eth1), 1u);
   vrf->delAddress(eth1, addr);
   EXPECT_FALSE(vrf->ipAddrIntfInfo(addr));   // the record goes with its last reference
   vrf->delAddress(eth1, addr);                // and a further release does nothing
   EXPECT_EQ(vrf->ipAddrIntfInfos(), 0u);

   // removeIntf on its own: a count of 1 or an unknown interface leaves no
   // member, never a wrapped-around count.
   NatIntfInfo info(addr);
   info.removeIntf(eth1);
   EXPECT_EQ(info.intfs(), 0u);
   info.addIntf(eth1);
   info.removeIntf(eth1);
   info.removeIntf(eth1);
   EXPECT_EQ(info.intf(eth1), 0u);
   EXPECT_EQ(info.intfs(), 0u);
}

TEST(NatSmStatus, RouteWatchWritesOneRequestPerAddressAndVrf) {
   Vor::Ptr<NextHopMapConfig> config(new NextHopMapConfig());
   Vor::Ptr<NextHopMapStatus> answers(new NextHopMapStatus());
   auto status = natSmStatusFactory(config, answers);
   auto vrf5 = status->natSmStatusVrfIs(VrfId(5));
   EXPECT_EQ(status->natSmStatusVrfIs(VrfId(5)).ptr(), vrf5.ptr());
   status->natSmStatusVrfIs(VrfId(0));

   // Off: nothing is written, counted or answered.
   status->addRouteConfigWatchedAddr(addr, VrfId(5));
   EXPECT_EQ(config->routeResolverRequests(), 0u);
   EXPECT_EQ(vrf5->routeResolverRefCount(addr), 0u);
   answers->resolvedAddrIs(VrfAndIpAddr(5, addr), natNextHopIdFactory(VrfAndIpAddr(5, addr)));
   EXPECT_FALSE(status->getNextHopInfo(VrfId(5), addr));

   status->destinationNatNextHopNeededIs(true);
   EXPECT_TRUE(status->getNextHopInfo(VrfId(5), addr));
   status->addRouteConfigWatchedAddr(addr, VrfId(5));
   status->addRouteConfigWatchedAddr(addr, VrfId(5));
   status->addRouteConfigWatchedAddr(addr, VrfId(0));
   EXPECT_EQ(config->routeResolverRequests(), 2u);
   EXPECT_EQ(vrf5->routeResolverRefCount(addr), 2u);

   status->removeRouteConfigWatchedAddr(addr, VrfId(5));
   EXPECT_TRUE(config->routeResolverRequestHas(VrfAndIpAddr(5, addr)));
   status->removeRouteConfigWatchedAddr(addr, VrfId(5));
   EXPECT_FALSE(config->routeResolverRequestHas(VrfAndIpAddr(5, addr)));
   EXPECT_EQ(vrf5->routeResolverRefCount().count(addr), 0u);
   EXPECT_TRUE(config->routeResolverRequestHas(VrfAndIpAddr(0, addr)));
}

TEST(NatSmStatusDeathTest, RouteWatchInvariants) {
   Vor::Ptr<NextHopMapConfig> config(new NextHopMapConfig());
   auto status = natSmStatusFactory(config, Vor::Ptr<NextHopMapStatus const>());
   status->destinationNatNextHopNeededIs(true);
   EXPECT_DEATH(status->addRouteConfigWatchedAddr(addr, VrfId(7)), "vrfStatus");
   status->natSmStatusVrfIs(VrfId(7));
   EXPECT_DEATH(status->removeRouteConfigWatchedAddr(addr, VrfId(7)), "refCount");
}

TEST(NatSmStatusVrf, DynamicEntriesRefuseReinstantiationWithOtherValues) {
   auto vrf = natSmStatusVrfFactory(VrfId(1));
   ConnTuple const conn(IpAndPort(IpAddr(10, 0, 0, 2), 1000), IpAndPort(IpAddr(8, 8, 8, 8), 53), 17);
   IpAndPort const nat(IpAddr(1, 1, 1, 1), 2000);
   auto fwd = vrf->dynamicFwdHwEntriesIs(conn, nat, eth1);
   EXPECT_EQ(vrf->dynamicFwdHwEntriesIs(conn, nat, eth1).ptr(), fwd.ptr());
   EXPECT_THROW(vrf->dynamicFwdHwEntriesIs(conn, nat, eth2), Vor::ReinstantiationException);
   EXPECT_THROW(vrf->dynamicFwdHwEntriesIs(conn, IpAndPort(), eth1), Vor::ReinstantiationException);
   // The reverse index is a map of its own.
   EXPECT_FALSE(vrf->dynamicRvsHwEntries(conn));
   vrf->dynamicRvsHwEntriesIs(conn, nat, eth2);
   vrf->dynamicFwdHwEntriesDel(conn);
   EXPECT_FALSE(vrf->dynamicFwdHwEntries(conn));
   EXPECT_TRUE(vrf->dynamicRvsHwEntries(conn));

   auto cone = vrf->dynamicFullConeHwEntriesIs(nat);
   EXPECT_TRUE(cone->srcAddr() == IpAndPort());
   EXPECT_EQ(cone->natIntf(), IntfId());
   cone->srcAddrIs(conn.srcAddr());
   cone->natIntfIs(eth1);
   cone->dstAddrIs(conn.dstAddr());
   EXPECT_EQ(vrf->dynamicFullConeHwEntriesIs(nat).ptr(), cone.ptr());
   EXPECT_EQ(cone->dstAddrs(), 1u);
}

struct KickCounter {
   int kicks = 0;
   int full = 0;
   void onKick() { ++kicks; }
   void onFull() { ++full; }
};

struct NotifReactor : Vor::Reactor<NatSmStatusNotif, KickCounter> {
   static Bindings const& table() {
      static Bindings const b{onScalar<&KickCounter::onKick>(NatSmStatusNotif::kickUnprogrammedReviewId),
                              onScalar<&KickCounter::onFull>(NatSmStatusNotif::logsFullId)};
      return b;
   }
   explicit NotifReactor(KickCounter* c) : Reactor(c, table()) {}
};

TEST(NatSmStatusNotif, NotifiesOnlyOnChange) {
   auto notif = natSmStatusNotifFactory();
   KickCounter c;
   NotifReactor reactor(&c);
   reactor.notifierIs(notif);
   notif->kickUnprogrammedReviewIs(0);   // the present value
   EXPECT_EQ(c.kicks, 0);
   notif->kickUnprogrammedReviewInc(1);
   notif->kickUnprogrammedReviewIs(1);
   notif->kickUnprogrammedReviewInc(0);
   EXPECT_EQ(c.kicks, 1);
   notif->logsFullInc(2);
   notif->logsNormalInc(1);
   EXPECT_EQ(c.full, 1);
   EXPECT_EQ(notif->logsFull(), 2u);
   EXPECT_EQ(notif->logsNormal(), 1u);
}

TEST(TwiceNatKey, OrdersByGroupFirstAndPrints) {
   ConnTuple const high(IpAndPort(IpAddr(255, 255, 255, 255), 65535), IpAndPort(IpAddr(255, 0, 0, 0), 1), 255);
   ConnTuple const low;
   EXPECT_TRUE(TwiceNatKey(1, high) < TwiceNatKey(2, low));
   EXPECT_FALSE(TwiceNatKey(2, low) < TwiceNatKey(1, high));
   EXPECT_TRUE(TwiceNatKey(1, low) < TwiceNatKey(1, high));
   EXPECT_EQ(TwiceNatKey(1, low), TwiceNatKey(1, low));
   EXPECT_NE(TwiceNatKey(1, low).hash(7), TwiceNatKey(2, low).hash(7));
   EXPECT_EQ(TwiceNatKey(3, low).stringValue(), " group: 3 addr: " + low.stringValue());

   auto entries = natUnprogrammedEntriesFactory(eth1);
   entries->twiceEntriesIs(TwiceNatKey(1, low));
   entries->twiceEntriesIs(TwiceNatKey(1, low));
   EXPECT_EQ(entries->twiceEntries().size(), 1u);
   EXPECT_FALSE(entries->empty());
   entries->twiceEntriesDelAll();
   EXPECT_TRUE(entries->empty());
}

// Operators and their tools match these texts; every file that emits one
// builds its handle from the same function, so one check covers them all.
TEST(NatLogHandles, MessagesCarryTheirExactTexts) {
   struct Want {
      Vor::LogHandle handle;
      char const* name;
      int severity;
      char const* format;
      char const* explanation;
      char const* recommendedAction;
   };
   Want const wants[] = {
      {natHwResourceNormalLogHandle(), "NAT_HW_RESOURCE_NORMAL", 6, "All NAT rules are programmed in hardware",
       "The switch was able to program all the NAT rules in the NAT table", "No action is required."},
      {natHwResourceFullLogHandle(), "NAT_HW_RESOURCE_FULL", 3,
       "Hardware resources are insufficient to program all NAT rules",
       "The switch is unable to program all NAT rules due to insufficient hardware resources.",
       "Reconfigure your NAT rules to reduce the size and/or complexity of the NAT rules."},
      {natRuleIfMaxLogHandle(), "NAT_RULE_IF_MAX", 3,
       "The active number of interfaces associated with the NAT rule: '%s', has exceeded the maximum. "
       "Cannot add VLAN %d. Interface count: %d, Maximum interfaces: %d.",
       "The maximum number of active interfaces associated with the NAT rule has been reached.",
       "Remove the NAT rule from any interface not currently in use."},
   };
   for (Want const& w : wants) {
      SCOPED_TRACE(w.name);
      EXPECT_STREQ(w.handle.name(), w.name);
      EXPECT_EQ(w.handle.severity(), w.severity);
      EXPECT_STREQ(w.handle.format(), w.format);
      EXPECT_STREQ(w.handle.explanation(), w.explanation);
      EXPECT_STREQ(w.handle.recommendedAction(), w.recommendedAction);
      EXPECT_EQ(w.handle.facility(), 0);
   }
   // No rate limit: the same handle admits back-to-back emissions.
   Vor::LogHandle full = natHwResourceFullLogHandle();
   EXPECT_TRUE(full.admit(1.0));
   EXPECT_TRUE(full.admit(1.0));
   EXPECT_EQ(full.emitted(), 2u);
}

} // namespace
