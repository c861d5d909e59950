// Dynamic connections on the interface engine, end to end through the
// simulated chip: the collapsing backlog state by state, its yield in virtual
// time, refusal and review paced by the review's timer, watched-address
// references across re-adds, and duplicates across interfaces.

#include <optional>

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
   std::size_t unprogrammed() {
      auto ue = sys().root()->natSmStatus()->unprogrammedEntries(eth1);
      return ue ? ue->dynamicEntries().size() : 0;
   }
   std::unique_ptr<SimSystem> sys_;
};

TEST_F(DynamicTest, AddAndDeleteGoThroughTheBacklogAndLeaveNoResidue) {
   start();
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
