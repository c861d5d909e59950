// Dynamic connections on the interface engine, end to end through the
// simulated chip: the collapsing backlog state by state, its yield in virtual
// time, refusal and review paced by the review's timer, watched-address
// references across re-adds, and duplicates across interfaces.

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "sim/SimSystem.h"

namespace {

using E = Ulo::DeferredDynamicNatEvent;
using Sim::SimOptions;
using Sim::SimSystem;
template <typename T>
using Ptr = Vor::Ptr<T>;

Lumet::IpAndPort ipp(char const* text) { return *Sim::parseIpAndPort(text); }
Lumet::IpAddr ip(char const* text) { return *Lumet::IpAddr::parse(text); }

Lumet::IntfId const eth1("Ethernet1");
Lumet::IntfId const eth2("Ethernet2");

Lumet::ConnTuple tuple(char const* src, char const* dst, Vor::U8 proto = 6) {
   return Lumet::ConnTuple(ipp(src), ipp(dst), proto);
}

Ip::Nat::DynamicConnection conn(Lumet::IntfId const& intf, Lumet::ConnTuple const& t, char const* global) {
   return Ip::Nat::DynamicConnection(Ip::Nat::DynamicConnectionKey(intf, t), ipp(global));
}

class DynamicTest : public ::testing::Test {
 protected:
   void start(SimOptions options = SimOptions(), bool withEth2 = false) {
      options.dynamicNatSupported = true;
      sys_ = std::make_unique<SimSystem>(options);
      sys().vrfIs("default", 0);
      sys().intfIs(eth1, "default", "Ethernet1", {{eth1, 10}});
      if (withEth2) sys().intfIs(eth2, "default", "Ethernet2", {{eth2, 20}});
      sys().start();
   }
   SimSystem& sys() { return *sys_; }
   Ptr<Ulo::NatIntfStatusSm> engine(Lumet::IntfId const& intf = eth1) {
      return sys().root()->natIntfStatusSm(intf);
   }
   std::optional<E> pending(Lumet::ConnTuple const& t, Lumet::IntfId const& intf = eth1) {
      E const* e = engine(intf)->deferredDynamicNat().entry(t);
      return e ? std::optional<E>(*e) : std::nullopt;
   }
   bool inHw(Lumet::IntfId const& intf, Lumet::ConnTuple const& t) {
      return sys().dynamicConnectionHwStatus()->dynamicConnectionHwHas(Ip::Nat::DynamicConnectionKey(intf, t));
   }
   void add(Lumet::IntfId const& intf, Lumet::ConnTuple const& t, char const* global) {
      sys().dynamicConnectionStatus()->dynamicConnectionIs(conn(intf, t, global));
   }
   void del(Lumet::IntfId const& intf, Lumet::ConnTuple const& t) {
      sys().dynamicConnectionStatus()->dynamicConnectionDel(Ip::Nat::DynamicConnectionKey(intf, t));
   }
   Vor::U32 refs(char const* addr, Lumet::IntfId const& intf = eth1) {
      auto vrf = sys().root()->natSmStatus()->natSmStatusVrf(0);
      auto info = vrf ? vrf->ipAddrIntfInfo(ip(addr)) : Ptr<Ulo::NatIntfInfo>();
      return info ? info->intf(intf) : 0;
   }
   // A route request is written only on a chip whose destination
   // translations need next hops (destinationNatNextHopNeeded).
   bool routeRequested(char const* addr) {
      return sys().nhMapConfig()->routeResolverRequestHas(Ulo::VrfAndIpAddr(0, ip(addr)));
   }
   std::size_t unprogrammed() {
      auto ue = sys().root()->natSmStatus()->unprogrammedEntries(eth1);
      return ue ? ue->dynamicEntries().size() : 0;
   }
   std::unique_ptr<SimSystem> sys_;
};

TEST_F(DynamicTest, AddAndDeleteGoThroughTheBacklogAndLeaveNoResidue) {
   SimOptions options;
   options.destinationNatNextHopNeeded = true;
   start(options);
   auto const t = tuple("10.0.0.1:1000", "198.51.100.1:80");
   add(eth1, t, "192.0.2.1:2000");
   // The handler only records the event; the chip is untouched until the
   // backlog runs.
   EXPECT_EQ(pending(t), E::addDyn);
   EXPECT_EQ(sys().helper()->dynamicEntries().size(), 0u);
   sys().runUntilIdle();
   EXPECT_FALSE(pending(t));
   ASSERT_TRUE(inHw(eth1, t));
   auto const& chip = sys().helper()->dynamicEntries();
   ASSERT_EQ(chip.size(), 2u);
   EXPECT_EQ(chip.at(Sim::DynamicChipKey{false, 0, t}).newIpAndPort, ipp("192.0.2.1:2000"));
   EXPECT_EQ(chip.at(Sim::DynamicChipKey{true, 0, t}).newIpAndPort, ipp("10.0.0.1:1000"));
   EXPECT_EQ(refs("10.0.0.1"), 1u);
   EXPECT_TRUE(routeRequested("10.0.0.1"));

   // A second add of the live tuple (its NAT port changed) replaces the
   // entry and still holds one reference to its address.
   add(eth1, t, "192.0.2.1:2001");
   EXPECT_EQ(pending(t), E::deleteAndAddDyn);
   sys().runUntilIdle();
   EXPECT_TRUE(inHw(eth1, t));
   EXPECT_EQ(chip.size(), 2u);
   EXPECT_EQ(refs("10.0.0.1"), 1u);

   del(eth1, t);
   EXPECT_EQ(pending(t), E::deleteDyn);
   sys().runUntilIdle();
   EXPECT_FALSE(inHw(eth1, t));
   EXPECT_EQ(chip.size(), 0u);
   EXPECT_EQ(refs("10.0.0.1"), 0u);
   EXPECT_FALSE(routeRequested("10.0.0.1"));
   EXPECT_TRUE(engine()->dynamicWatchedAddr().keyWatchedAddr().empty());
}

// The collapsing table, row by row. Nothing runs the task between requests,
// so each assertion sees exactly the state one request left.
TEST_F(DynamicTest, BacklogCollapsesEventsPerTupleStateByState) {
   start();
   auto const live = tuple("10.0.0.1:1000", "198.51.100.1:80");
   auto const fresh = tuple("10.0.0.2:1000", "198.51.100.1:80");
   add(eth1, live, "192.0.2.1:2000");
   sys().runUntilIdle();
   ASSERT_TRUE(inHw(eth1, live));
   auto sm = engine();
   Ip::Nat::DynamicConnectionKey const liveKey(eth1, live);
   Ip::Nat::DynamicConnectionKey const freshKey(eth1, fresh);

   // Not in hardware: add, then delete, cancel out; an update of nothing
   // pending is recorded as it is.
   sm->addDeferredDynamicNatRequest(freshKey, E::addDyn);
   EXPECT_EQ(pending(fresh), E::addDyn);
   sm->addDeferredDynamicNatRequest(freshKey, E::updateDyn);
   EXPECT_EQ(pending(fresh), E::addDyn);
   sm->addDeferredDynamicNatRequest(freshKey, E::deleteDyn);
   EXPECT_FALSE(pending(fresh));

   // In hardware: an add must first take the old entry out; a delete then
   // wins; a later add brings back the delete-and-add.
   sm->addDeferredDynamicNatRequest(liveKey, E::addDyn);
   EXPECT_EQ(pending(live), E::deleteAndAddDyn);
   sm->addDeferredDynamicNatRequest(liveKey, E::deleteDyn);
   EXPECT_EQ(pending(live), E::deleteDyn);
   sm->addDeferredDynamicNatRequest(liveKey, E::updateDyn);
   EXPECT_EQ(pending(live), E::deleteDyn);
   sm->addDeferredDynamicNatRequest(liveKey, E::addDyn);
   EXPECT_EQ(pending(live), E::deleteAndAddDyn);
   EXPECT_EQ(sm->deferredDynamicNat().size(), 1u);
   // Eight requests (the first add of `live` included), five of which met
   // a pending event.
   EXPECT_EQ(sm->dynamicRequestsCollapsed(), 5u);
   EXPECT_EQ(sm->dynamicRequests(), 8u);
}

TEST_F(DynamicTest, BacklogYieldsAfterItsBudgetAndDrainsOnLaterRuns) {
   start();
   sys().scheduler()->yieldBudgetIs(5);
   for (int i = 0; i < 12; ++i) {
      std::string const src = "10.0.1." + std::to_string(i + 1) + ":1000";
      add(eth1, tuple(src.c_str(), "198.51.100.1:80"), "192.0.2.1:3000");
   }
   ASSERT_EQ(engine()->deferredDynamicNat().size(), 12u);
   // One run of the task: five requests, then it gives way and reschedules.
   auto task = engine()->dynamicBacklogTask();
   ASSERT_TRUE(task->taskScheduled());
   sys().scheduler()->runOne();
   EXPECT_EQ(engine()->deferredDynamicNat().size(), 7u);
   EXPECT_EQ(sys().dynamicConnectionHwStatus()->dynamicConnectionHws(), 5u);
   EXPECT_TRUE(task->taskScheduled());
   sys().runUntilIdle();
   EXPECT_EQ(engine()->deferredDynamicNat().size(), 0u);
   EXPECT_EQ(sys().helper()->dynamicEntries().size(), 24u);
}

// A refused add waits for the review's timer: it is neither retried at once
// nor lost, and once room is made the review programs it.
TEST_F(DynamicTest, RefusedAddIsRetriedOnTheReviewsCadenceUntilRoomIsMade) {
   SimOptions options;
   options.capacity = 2;
   start(options);
   auto const a = tuple("10.0.0.1:1000", "198.51.100.1:80");
   auto const b = tuple("10.0.0.2:1000", "198.51.100.1:80");
   add(eth1, a, "192.0.2.1:2000");
   add(eth1, b, "192.0.2.1:2001");
   sys().runUntilIdle();
   EXPECT_TRUE(inHw(eth1, a));
   EXPECT_FALSE(inHw(eth1, b));
   EXPECT_EQ(unprogrammed(), 1u);
   EXPECT_TRUE(sys().root()->natSmStatus()->fullTable());
   // Nothing of the refused tuple stays on the chip, and its address is not
   // watched.
   EXPECT_EQ(sys().helper()->dynamicEntries().size(), 2u);
   EXPECT_EQ(refs("10.0.0.2"), 0u);

   Vor::U64 const before = sys().helper()->counts().dynamicRefused;
   sys().runFor(20.0);
   Vor::U64 const retries = sys().helper()->counts().dynamicRefused - before;
   // Retried on the review's five-second cadence, not in a spin.
   EXPECT_GE(retries, 3u);
   EXPECT_LE(retries, 5u);
   EXPECT_EQ(unprogrammed(), 1u);

   del(eth1, a);
   sys().runFor(6.0);
   EXPECT_TRUE(inHw(eth1, b));
   EXPECT_EQ(unprogrammed(), 0u);
   EXPECT_FALSE(sys().root()->natSmStatus()->fullTable());
   EXPECT_EQ(refs("10.0.0.2"), 1u);

   // A refused tuple whose connection goes away leaves the review for good.
   add(eth1, a, "192.0.2.1:2002");
   sys().runUntilIdle();
   EXPECT_EQ(unprogrammed(), 1u);
   del(eth1, a);
   sys().runFor(6.0);
   EXPECT_EQ(unprogrammed(), 0u);
   EXPECT_EQ(refs("10.0.0.1"), 0u);
}

// With global dynamic entries a flow lives once per VRF: the same tuple on a
// second interface takes the first one's place, and the first engine's
// watch is given back when its own connection goes.
TEST_F(DynamicTest, SameFlowOnTwoInterfacesKeepsOnlyTheNewcomer) {
   start(SimOptions(), true);
   sys().helper()->globalHwDynamicEntriesIs(true);
   auto const t = tuple("10.0.0.1:1000", "198.51.100.1:80");
   add(eth1, t, "192.0.2.1:2000");
   sys().runUntilIdle();
   ASSERT_TRUE(inHw(eth1, t));
   add(eth2, t, "192.0.2.2:2000");
   sys().runUntilIdle();
   EXPECT_FALSE(inHw(eth1, t));
   EXPECT_TRUE(inHw(eth2, t));
   EXPECT_EQ(sys().helper()->dynamicEntries().size(), 2u);
   EXPECT_EQ(sys().helper()->dynamicEntries().at(Sim::DynamicChipKey{false, 0, t}).newIpAndPort,
             ipp("192.0.2.2:2000"));
   del(eth1, t);
   del(eth2, t);
   sys().runUntilIdle();
   EXPECT_EQ(sys().helper()->dynamicEntries().size(), 0u);
   EXPECT_EQ(refs("10.0.0.1", eth1), 0u);
   EXPECT_EQ(refs("10.0.0.1", eth2), 0u);
   auto vrf = sys().root()->natSmStatus()->natSmStatusVrf(0);
   EXPECT_EQ(vrf->dynamicFwdHwEntries().size(), 0u);
   EXPECT_EQ(vrf->dynamicRvsHwEntries().size(), 0u);
}

} // namespace

// ---- dynamic twice: completing half a twice group ----

namespace {

class DynamicTwiceTest : public DynamicTest {
 protected:
   // Group `group` under connection mark 37 + group (5 under 42).
   void rule(char const* srcOld, char const* dstOld, char const* srcNew, char const* dstNew, Vor::U8 proto = 0,
             Vor::U16 group = 5) {
      sys().twiceIs(eth1, Ip::Nat::NatTwiceConnection(group, ipp(srcOld), ipp(dstOld), ipp(srcNew), ipp(dstNew),
                                                       proto, 10));
      Ip::Nat::NatGroupInfo info;
      info.group = group;
      sys().status()->natGroupInfoIs(static_cast<Vor::U16>(37 + group), info);
   }
   void addTwice(Lumet::ConnTuple const& t, char const* global, bool destination = false, Vor::U16 group = 5) {
      auto c = conn(eth1, t, global);
      c.twiceNatIs(true);
      c.connMarkIs(static_cast<Vor::U16>(37 + group));
      if (destination) c.targetIs(Ip::Nat::destination);
      sys().dynamicConnectionStatus()->dynamicConnectionIs(c);
   }
   Ptr<Ip::Nat::HwNatTwiceConnection const> hwGroup() {
      auto hw = sys().hwStatus()->intfStatus(eth1);
      return hw ? hw->twiceNatConnectionHw(5) : nullptr;
   }
};

// The dynamic side supplies exactly the half the rule leaves open; each way
// of not fitting refuses without touching hardware and leaves the tuple
// waiting, without the table-full state.
TEST_F(DynamicTwiceTest, ConnectionCompletesOnlyTheOpenHalfOfItsGroup) {
   start();
   // Source half open: connections from anywhere to 198.51.100.5, any port.
   rule("0.0.0.0", "198.51.100.5", "0.0.0.0", "203.0.113.5");
   auto const fits = tuple("10.0.0.5:3000", "198.51.100.5:80");
   addTwice(fits, "192.0.2.5:4000");
   // Handled inline: twice connections never wait in the backlog.
   EXPECT_FALSE(pending(fits));
   ASSERT_TRUE(hwGroup());
   EXPECT_TRUE(hwGroup()->dynamic());
   EXPECT_EQ(hwGroup()->entry(fits), Ip::Nat::HwNatTwiceAddr(ipp("192.0.2.5:4000"), ipp("203.0.113.5")));
   EXPECT_EQ(sys().helper()->twiceEntries(), 2u);
   EXPECT_EQ(sys().helper()->halfTwicePairs(), 0u);
   // Protocol 0 in the rule: UDP is as welcome as TCP.
   auto const udp = tuple("10.0.0.6:3000", "198.51.100.5:53", 17);
   addTwice(udp, "192.0.2.5:4001");
   EXPECT_TRUE(hwGroup()->entryHas(udp));

   std::size_t const chipBefore = sys().helper()->twiceEntries();
   // Wrong destination address; the destination half is the rule's, so a
   // connection claiming it is refused too.
   auto const otherDst = tuple("10.0.0.7:3000", "198.51.100.6:80");
   addTwice(otherDst, "192.0.2.5:4002");
   auto const claimsDst = tuple("10.0.0.8:3000", "198.51.100.5:80");
   addTwice(claimsDst, "192.0.2.5:4003", true);
   // The same pair already serves TCP in the group: UDP on it is refused.
   auto const sameAsTcp = tuple("10.0.0.5:3000", "198.51.100.5:80", 17);
   addTwice(sameAsTcp, "192.0.2.5:4004");
   EXPECT_EQ(sys().helper()->twiceEntries(), chipBefore);
   EXPECT_EQ(unprogrammed(), 3u);
   EXPECT_FALSE(sys().root()->natSmStatus()->fullTable());
   EXPECT_EQ(sys().logs().count("NAT_HW_RESOURCE_FULL"), 0u);

   // The connection's end takes its entry out of hardware; a refused one's
   // end forgets the tuple.
   del(eth1, fits);
   EXPECT_FALSE(hwGroup()->entryHas(fits));
   del(eth1, otherDst);
   del(eth1, claimsDst);
   del(eth1, sameAsTcp);
   EXPECT_EQ(unprogrammed(), 0u);
   del(eth1, udp);
   EXPECT_FALSE(hwGroup());
   EXPECT_EQ(sys().helper()->twiceEntries(), 0u);
   EXPECT_TRUE(engine()->dynamicTwice().empty());
}

TEST_F(DynamicTwiceTest, DestinationConnectionNeedsTheRulesSourceAndProtocol) {
   start();
   // Destination half open, source fixed to 10.0.0.5 port 3000, TCP only.
   rule("10.0.0.5:3000", "0.0.0.0", "192.0.2.9", "0.0.0.0", 6);
   addTwice(tuple("10.0.0.5:3001", "198.51.100.5:80"), "203.0.113.1:80", true);   // port differs
   addTwice(tuple("10.0.0.5:3000", "198.51.100.5:53", 17), "203.0.113.1:53", true);  // protocol differs
   addTwice(tuple("10.0.0.5:3000", "198.51.100.5:80"), "203.0.113.1:8080", false);  // claims the fixed source
   EXPECT_FALSE(hwGroup());
   EXPECT_EQ(unprogrammed(), 3u);
   auto const fits = tuple("10.0.0.5:3000", "198.51.100.6:80");
   addTwice(fits, "203.0.113.1:8080", true);
   ASSERT_TRUE(hwGroup());
   EXPECT_EQ(hwGroup()->entry(fits), Ip::Nat::HwNatTwiceAddr(ipp("192.0.2.9"), ipp("203.0.113.1:8080")));

   // A rule with both old sides configured is static: no dynamic
   // connection completes it, in either direction.
   rule("10.0.0.5:3000", "198.51.100.5:80", "192.0.2.9", "203.0.113.9", 0, 7);
   sys().runUntilIdle();
   std::size_t const before = unprogrammed();
   addTwice(tuple("10.0.0.5:3000", "198.51.100.7:80"), "203.0.113.1:8081", true, 7);
   addTwice(tuple("10.0.0.6:3000", "198.51.100.5:80"), "192.0.2.10:1", false, 7);
   EXPECT_EQ(unprogrammed(), before + 2);
   // The complete rule's own entry is all its group holds.
   auto const hw = sys().hwStatus()->intfStatus(eth1);
   ASSERT_TRUE(hw && hw->twiceNatConnectionHw(7));
   EXPECT_EQ(hw->twiceNatConnectionHw(7)->entrys(), 1u);
}

// A connection whose group is configured only later waits unprogrammed and
// is completed by the review once the rule is there.
TEST_F(DynamicTwiceTest, ReviewCompletesAGroupConfiguredAfterItsConnection) {
   start();
   Ip::Nat::NatGroupInfo info;
   info.group = 5;
   sys().status()->natGroupInfoIs(42, info);
   auto const t = tuple("10.0.0.5:3000", "198.51.100.5:80");
   addTwice(t, "192.0.2.5:4000");
   EXPECT_EQ(unprogrammed(), 1u);
   sys().twiceIs(eth1, Ip::Nat::NatTwiceConnection(5, ipp("0.0.0.0"), ipp("198.51.100.5"), ipp("0.0.0.0"),
                                                    ipp("203.0.113.5"), 0, 10));
   sys().runFor(6.0);
   ASSERT_TRUE(hwGroup());
   EXPECT_TRUE(hwGroup()->entryHas(t));
   EXPECT_EQ(unprogrammed(), 0u);
   // The rule's removal keeps the live connection as unprogrammed.
   sys().twiceDel(eth1, 5);
   EXPECT_FALSE(hwGroup());
   EXPECT_EQ(unprogrammed(), 1u);
   EXPECT_EQ(sys().helper()->twiceEntries(), 0u);
}

} // namespace

// ---- randomized: the chip after the backlog drains ----

namespace {

// Random connection events on three interfaces (each with its own sources, so
// that no tuple is shared), with random refusals, scheduler runs of random
// length and random yield budgets. Once refusals stop and the review has had
// its turn, hardware status, the chip and the watched addresses hold exactly
// the connections of the table.
TEST(NatDynamicRandom, HardwareFollowsTheTableOnceTheBacklogDrains) {
   unsigned const seed = std::getenv("ULONAT_SEED") ? static_cast<unsigned>(std::atoi(std::getenv("ULONAT_SEED")))
                                                    : std::random_device{}();
   int const steps = std::getenv("ULONAT_LONG") ? 50000 : 1500;
   std::cout << "NatDynamicRandom seed " << seed << " steps " << steps << std::endl;
   std::mt19937 rng(seed);
   auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };

   SimOptions options;
   options.dynamicNatSupported = true;
   options.capacity = 4096;
   SimSystem sys(options);
   sys.vrfIs("default", 0);
   Lumet::IntfId const intfs[] = {Lumet::IntfId("Ethernet1"), Lumet::IntfId("Ethernet2"), Lumet::IntfId("Ethernet3")};
   for (int i = 0; i < 3; ++i) {
      sys.intfIs(intfs[i], "default", intfs[i].stringValue(), {{intfs[i], static_cast<Vor::U16>(10 + i)}});
   }
   sys.start();
   auto const& table = sys.dynamicConnectionStatus();

   auto tupleOf = [](int intf, int n) {
      std::string const src = "10." + std::to_string(intf + 1) + ".0." + std::to_string(n % 8 + 1) + ":" +
                              std::to_string(1000 + n / 8);
      return tuple(src.c_str(), "198.51.100.1:80", n % 5 == 0 ? 17 : 6);
   };
   for (int step = 0; step < steps; ++step) {
      int const intf = pick(3);
      Lumet::ConnTuple const t = tupleOf(intf, pick(40));
      Ip::Nat::DynamicConnectionKey const key(intfs[intf], t);
      switch (pick(10)) {
      case 0: case 1: case 2: case 3: {
         std::string const global = "192.0.2." + std::to_string(intf + 1) + ":" + std::to_string(2000 + pick(50));
         table->dynamicConnectionIs(Ip::Nat::DynamicConnection(key, ipp(global.c_str())));
         break;
      }
      case 4: case 5:
         table->dynamicConnectionDel(key);
         break;
      case 6:
         sys.helper()->refuseNextIs(static_cast<Vor::U32>(pick(4)));
         break;
      case 7:
         sys.scheduler()->yieldBudgetIs(static_cast<std::uint64_t>(1 + pick(8)));
         break;
      case 8:
         sys.scheduler()->runOne();
         break;
      default:
         sys.runFor(0.5 * pick(12));
         break;
      }
   }
   // Refusals stop; the review retries what waits on its own cadence, a few
   // entries per interface and run when the yield budget is small.
   sys.helper()->refuseNextIs(0);
   sys.scheduler()->yieldBudgetIs(100);
   sys.runUntilIdle();
   for (int review = 0; review < 10 && sys.root()->natSmStatus()->unprogrammedEntries().size(); ++review) {
      sys.runFor(5.0);
   }

   std::size_t live = 0;
   std::map<std::pair<Lumet::IntfId, Lumet::IpAddr>, Vor::U32> watched;
   std::map<Lumet::IntfId, std::size_t> perIntf;
   table->dynamicConnectionWalk(Ip::Nat::DynamicConnectionKey(), [&](Ip::Nat::DynamicConnection const& conn) {
      ++live;
      auto const hw = sys.dynamicConnectionHwStatus()->dynamicConnectionHw(conn.key());
      EXPECT_TRUE(hw.present) << conn.key().stringValue();
      if (hw.present) {
         EXPECT_EQ(hw.record.globalAddress(), conn.globalAddress()) << conn.key().stringValue();
      }
      auto const& chip = sys.helper()->dynamicEntries();
      auto const src = chip.find(Sim::DynamicChipKey{false, 0, conn.key().connTuple()});
      EXPECT_TRUE(src != chip.end() && src->second.newIpAndPort == conn.globalAddress())
         << conn.key().stringValue();
      ++watched[{conn.key().intfId(), conn.key().connTuple().srcAddr().ip()}];
      ++perIntf[conn.key().intfId()];
      return true;
   });
   EXPECT_EQ(sys.dynamicConnectionHwStatus()->dynamicConnectionHws(), live);
   EXPECT_EQ(sys.helper()->dynamicEntries().size(), 2 * live);
   EXPECT_EQ(sys.root()->natSmStatus()->unprogrammedEntries().size(), 0u);
   EXPECT_FALSE(sys.root()->natSmStatus()->fullTable());
   auto const vrf = sys.root()->natSmStatus()->natSmStatusVrf(0);
   for (auto const& intf : intfs) {
      auto const engine = sys.root()->natIntfStatusSm(intf);
      EXPECT_EQ(engine->deferredDynamicNat().size(), 0u);
      EXPECT_EQ(engine->dynamicWatchedAddr().keyWatchedAddr().size(), perIntf[intf]) << intf.stringValue();
   }
   // Each interface holds one reference per connection watching an address.
   for (auto const& [intfAndAddr, n] : watched) {
      auto const info = vrf->ipAddrIntfInfo(intfAndAddr.second);
      ASSERT_TRUE(info) << intfAndAddr.second.stringValue();
      EXPECT_EQ(info->intf(intfAndAddr.first), n)
         << intfAndAddr.first.stringValue() << " " << intfAndAddr.second.stringValue();
   }
   if (::testing::Test::HasFailure()) std::cout << "NatDynamicRandom failed with seed " << seed << std::endl;
}

} // namespace
