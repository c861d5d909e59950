// Static and twice counters of one interface: the machine alone against a
// scripted helper (cadence, deltas, walks the helper disturbs), then the
// root making and dropping the machines and the simulated chip's packets
// reaching hardware status.

#include <gtest/gtest.h>

#include <functional>
#include <map>

#include "UloNat/UloNatIntfCounterSm.h"
#include "framework/DovTask.h"
#include "framework/VorSystem.h"
#include "sim/SimSystem.h"

namespace {

using Ip::Nat::NatCounter;
using Ip::Nat::StaticKey;
using Vor::Ptr;
using Vor::U16;
using Vor::U64;
using Vor::U8;

Lumet::IpAndPort ipp(char const* text) { return *Sim::parseIpAndPort(text); }
StaticKey skey(char const* local) { return StaticKey(ipp(local), Vor::String(), StaticKey::ingress); }
Lumet::IntfId const eth1("Ethernet1");
Lumet::IntfId const eth2("Ethernet2");

// Answers each poll from a table of deltas per static key or twice tuple
// (pktCount forward, pktCount of the reply getter), and runs `onPoll`
// inside each source getter so that a test can change hardware status
// mid-walk.
class ScriptedCounterHelper : public UloHelper::UloHelperNat {
 public:
   ScriptedCounterHelper() : UloHelper::UloHelperNat("scripted") {}
   std::map<StaticKey, std::pair<U64, U64>> staticDelta;
   std::map<Lumet::ConnTuple, std::pair<U64, U64>> twiceDelta;
   std::vector<std::string> polled;
   std::function<void(std::string const&)> onPoll;

   NatCounter getStaticSrcCountersSinceLastPoll(Ptr<Ip::Nat::HwNatStaticConnection const> conn, NatCounter const&,
                                                Ulo::VrfId) override {
      polled.push_back(conn->key().stringValue());
      if (onPoll) onPoll(conn->key().stringValue());
      return NatCounter(Vor::memberValue(staticDelta, conn->key()).first, 0);
   }
   NatCounter getStaticDstCountersSinceLastPoll(Ptr<Ip::Nat::HwNatStaticConnection const> conn, NatCounter const&,
                                                Ulo::VrfId) override {
      return NatCounter(Vor::memberValue(staticDelta, conn->key()).second, 0);
   }
   NatCounter getTwiceNatSrcCountersSinceLastPoll(U16, U8, U16 group, IpAndPort src, IpAndPort dst,
                                                  Ulo::VrfId) override {
      std::string const what = std::to_string(group) + " " + src.stringValue();
      polled.push_back(what);
      if (onPoll) onPoll(what);
      return NatCounter(Vor::memberValue(twiceDelta, Lumet::ConnTuple(src, dst, 6)).first, 0);
   }
   NatCounter getTwiceNatDstCountersSinceLastPoll(U16, U8, U16, IpAndPort src, IpAndPort dst,
                                                  Ulo::VrfId) override {
      return NatCounter(Vor::memberValue(twiceDelta, Lumet::ConnTuple(src, dst, 6)).second, 0);
   }
};

class NatIntfCounterSmTest : public ::testing::Test {
 protected:
   void SetUp() override {
      scheduler_ = Ptr<Dov::TaskScheduler>(new Dov::TaskScheduler());
      scheduler_->virtualTimeIs(true, 100.0);
      Dov::TaskSchedulerRoot::schedulerIs(scheduler_);
      helper_ = Ptr<ScriptedCounterHelper>(new ScriptedCounterHelper);
      hw_ = Ptr<Ip::Nat::HwIntfStatus>(new Ip::Nat::HwIntfStatus("Ethernet1", eth1));
   }
   void TearDown() override {
      sm_ = nullptr;
      Dov::TaskSchedulerRoot::schedulerIs(nullptr);
   }
   void startMachine() {
      sm_ = Ptr<Ulo::NatIntfCounterSm>(new Ulo::NatIntfCounterSm(
         Ptr<Ulo::UloCommonSmData const>(), eth1, Vor::activityManager()->clock(),
         Ptr<Ip::Nat::IntfStatus const>(), hw_, helper_, nullptr, Ulo::VrfId(0)));
      sm_->initializedIs(true);
   }
   void staticIs(char const* local) {
      hw_->staticConnectionHwIs(skey(local), ipp("192.0.2.1"), Ip::Nat::source_, 0, 10, true);
   }
   Ptr<Dov::TaskScheduler> scheduler_;
   Ptr<ScriptedCounterHelper> helper_;
   Ptr<Ip::Nat::HwIntfStatus> hw_;
   Ptr<Ulo::NatIntfCounterSm> sm_;
};

TEST_F(NatIntfCounterSmTest, TicksAtTheIntervalTheHelperAdvertises) {
   // 0.0 from the helper leaves the machine's 5 seconds; an empty interface
   // still renews its tick.
   startMachine();
   EXPECT_EQ(sm_->counterPollingInterval(), 5.0);
   EXPECT_EQ(sm_->nextTick(), 105.0);
   staticIs("10.0.0.1");
   scheduler_->runUntil(104.9);
   EXPECT_TRUE(helper_->polled.empty());
   scheduler_->runUntil(105.0);
   EXPECT_EQ(helper_->polled.size(), 1u);
   EXPECT_EQ(sm_->nextTick(), 110.0);
   hw_->staticConnectionHwDelAll();
   scheduler_->runUntil(120.0);
   EXPECT_EQ(helper_->polled.size(), 1u);
   EXPECT_TRUE(sm_->tickPending());
   EXPECT_EQ(sm_->nextTick(), 125.0);

   // 1.0 replaces it, from the first tick on.
   helper_->counterPollingIntervalIs(1.0);
   startMachine();
   staticIs("10.0.0.1");
   EXPECT_EQ(sm_->counterPollingInterval(), 1.0);
   scheduler_->runFor(3.0);
   EXPECT_EQ(helper_->polled.size(), 4u);   // one from before, 121, 122, 123
   EXPECT_EQ(sm_->nextTick(), 124.0);

   // A dropped machine is not called back.
   sm_ = nullptr;
   scheduler_->runFor(10.0);
   EXPECT_EQ(helper_->polled.size(), 4u);
}

TEST_F(NatIntfCounterSmTest, StaticDeltasAddUpAndZeroWritesNothing) {
   staticIs("10.0.0.1");
   staticIs("10.0.0.2");
   staticIs("10.0.0.3");
   helper_->staticDelta[skey("10.0.0.1")] = {7, 3};
   helper_->staticDelta[skey("10.0.0.3")] = {0, 4};   // replies alone
   startMachine();
   scheduler_->runFor(5.0);
   EXPECT_EQ(hw_->staticConnectionHwCount(skey("10.0.0.1")), NatCounter(7, 3));
   EXPECT_FALSE(hw_->staticConnectionHwCountHas(skey("10.0.0.2")));
   EXPECT_EQ(hw_->staticConnectionHwCount(skey("10.0.0.3")), NatCounter(0, 4));
   scheduler_->runFor(5.0);
   EXPECT_EQ(hw_->staticConnectionHwCount(skey("10.0.0.1")), NatCounter(14, 6));
   EXPECT_FALSE(hw_->staticConnectionHwCountHas(skey("10.0.0.2")));
}

TEST_F(NatIntfCounterSmTest, StaticWalkSurvivesTheHelperChangingTheMap) {
   for (auto a : {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"}) staticIs(a);
   for (auto a : {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"}) helper_->staticDelta[skey(a)] = {1, 0};
   // Polling .2 deletes .2 itself and .3, and adds .0 behind the walk.
   helper_->onPoll = [&](std::string const& what) {
      if (what != skey("10.0.0.2").stringValue()) return;
      hw_->staticConnectionHwDel(skey("10.0.0.2"));
      hw_->staticConnectionHwDel(skey("10.0.0.3"));
      staticIs("10.0.0.0");
   };
   startMachine();
   scheduler_->runFor(5.0);
   std::vector<std::string> const expected{skey("10.0.0.1").stringValue(), skey("10.0.0.2").stringValue(),
                                           skey("10.0.0.4").stringValue()};
   EXPECT_EQ(helper_->polled, expected);
   EXPECT_EQ(hw_->staticConnectionHwCount(skey("10.0.0.4")), NatCounter(1, 0));
   EXPECT_FALSE(hw_->staticConnectionHwCountHas(skey("10.0.0.3")));
}

TEST_F(NatIntfCounterSmTest, TwiceDeltasPerTupleAndGroupsGoneMidWalk) {
   Lumet::ConnTuple const a(ipp("10.0.0.1"), ipp("198.51.100.1"), 6);
   Lumet::ConnTuple const b(ipp("10.0.0.2"), ipp("198.51.100.2"), 6);
   Lumet::ConnTuple const c(ipp("10.0.0.3"), ipp("198.51.100.3"), 6);
   hw_->twiceNatConnectionHwIs(1, 6, 10, false)->entryIs(a, Ip::Nat::HwNatTwiceAddr());
   hw_->twiceNatConnectionHw(1)->entryIs(b, Ip::Nat::HwNatTwiceAddr());
   hw_->twiceNatConnectionHwIs(2, 6, 10, false)->entryIs(c, Ip::Nat::HwNatTwiceAddr());
   hw_->twiceNatConnectionHwIs(3, 6, 10, false)->entryIs(c, Ip::Nat::HwNatTwiceAddr());
   helper_->twiceDelta[a] = {5, 0};
   helper_->twiceDelta[b] = {0, 2};
   helper_->twiceDelta[c] = {1, 1};
   // The first poll of group 1 removes group 2 from under the walk.
   helper_->onPoll = [&](std::string const& what) {
      if (what == "1 " + a.srcAddr().stringValue()) hw_->twiceNatConnectionHwDel(2);
   };
   startMachine();
   scheduler_->runFor(5.0);
   EXPECT_EQ(helper_->polled, (std::vector<std::string>{"1 " + a.srcAddr().stringValue(),
                                                        "1 " + b.srcAddr().stringValue(),
                                                        "3 " + c.srcAddr().stringValue()}));
   EXPECT_EQ(hw_->twiceNatConnectionHwCount(1)->count(a), NatCounter(5, 0));
   EXPECT_EQ(hw_->twiceNatConnectionHwCount(1)->count(b), NatCounter(0, 2));
   EXPECT_EQ(hw_->twiceNatConnectionHwCount(3)->count(c), NatCounter(1, 1));
   EXPECT_FALSE(hw_->twiceNatConnectionHwCount(2));
}

// ---- through the root and the simulated chip ----

Ip::Nat::NatStaticConnection rule(char const* local, char const* global) {
   Ip::Nat::NatStaticConnection conn(skey(local), ipp(global), Ip::Nat::source_, 0, 10, true);
   conn.filterAddressIs(*Sim::parseFilter("198.51.100.0/24"), true);
   conn.filterAddressIs(*Sim::parseFilter("203.0.113.0/24"), true);
   return conn;
}

TEST(NatIntfCounterSmRootTest, CounterStatusMakesAndDropsTheMachines) {
   Sim::SimOptions options;
   options.counterPollingInterval = 2.0;
   Sim::SimSystem sys(options);
   sys.vrfIs("default", 0);
   sys.vrfIs("red", 4);
   sys.intfIs(eth1, "default", "Ethernet1", {{eth1, 10}});
   sys.start();
   EXPECT_EQ(sys.root()->natIntfCounterSms().size(), 0u);

   sys.counterStatusIs(true);
   auto const counter = sys.root()->natIntfCounterSm(eth1);
   ASSERT_TRUE(counter);
   EXPECT_TRUE(counter->initialized());
   EXPECT_EQ(counter->counterPollingInterval(), 2.0);
   EXPECT_EQ(counter->hwIntfStatus(), sys.hwStatus()->intfStatus(eth1));
   // A second notification keeps the machine that exists.
   sys.counterStatusIs(false);
   EXPECT_EQ(sys.root()->natIntfCounterSms().size(), 0u);
   sys.counterStatusIs(true);
   ASSERT_TRUE(sys.root()->natIntfCounterSm(eth1));

   // An interface that gets its engine while counters are on gets a counter
   // machine with the engine's VRF; its removal drops both.
   sys.intfIs(eth2, "red", "Ethernet2", {{eth2, 20}});
   auto const red = sys.root()->natIntfCounterSm(eth2);
   ASSERT_TRUE(red);
   EXPECT_EQ(red->vrfId(), Ulo::VrfId(4));
   sys.intfDel(eth2);
   EXPECT_FALSE(sys.root()->natIntfCounterSm(eth2));
   EXPECT_EQ(sys.root()->natIntfCounterSms().size(), 1u);
}

TEST(NatIntfCounterSmRootTest, ChipPacketsReachHardwareStatusOnTheTick) {
   Sim::SimSystem sys{Sim::SimOptions()};
   sys.vrfIs("default", 0);
   sys.intfIs(eth1, "default", "Ethernet1", {{eth1, 10}});
   sys.counterStatusIs(true);
   sys.start();
   ASSERT_TRUE(sys.root()->natIntfCounterSm(eth1));
   sys.staticIs(eth1, rule("10.0.0.1", "192.0.2.1"));
   sys.staticIs(eth1, rule("10.0.0.2", "192.0.2.2"));
   auto const& helper = sys.helper();
   ASSERT_TRUE(helper->staticTrafficIs(skey("10.0.0.1"), 0, 10, false, 40));
   ASSERT_TRUE(helper->staticTrafficIs(skey("10.0.0.1"), 0, 10, true, 12));
   EXPECT_FALSE(helper->staticTrafficIs(skey("10.9.9.9"), 0, 10, false, 1));

   Ip::Nat::NatTwiceConnection twice(1, ipp("10.1.0.1"), ipp("198.51.100.1"), ipp("192.0.2.9"),
                                     ipp("203.0.113.9"), 0, 10);
   sys.twiceIs(eth1, twice);
   Lumet::ConnTuple const tuple(twice.srcOld(), twice.dstOld(), twice.protocol());
   ASSERT_TRUE(helper->twiceTrafficIs(0, 10, 1, tuple, false, 9));
   ASSERT_TRUE(helper->twiceTrafficIs(0, 10, 1, tuple, true, 2));

   auto const hw = sys.hwStatus()->intfStatus(eth1);
   sys.runUntil(4.9);
   EXPECT_FALSE(hw->staticConnectionHwCountHas(skey("10.0.0.1")));
   sys.runUntil(5.0);
   EXPECT_EQ(hw->staticConnectionHwCount(skey("10.0.0.1")), NatCounter(40, 12));
   EXPECT_FALSE(hw->staticConnectionHwCountHas(skey("10.0.0.2")));
   ASSERT_TRUE(hw->twiceNatConnectionHwCount(1));
   EXPECT_EQ(hw->twiceNatConnectionHwCount(1)->count(tuple), NatCounter(9, 2));
   EXPECT_EQ(helper->pendingPackets(), 0u);

   // Counters off: the chip keeps counting, nobody polls.
   sys.counterStatusIs(false);
   ASSERT_TRUE(helper->staticTrafficIs(skey("10.0.0.1"), 0, 10, false, 5));
   sys.runFor(20.0);
   EXPECT_EQ(hw->staticConnectionHwCount(skey("10.0.0.1")), NatCounter(40, 12));
   EXPECT_EQ(helper->pendingPackets(), 5u);
}

} // namespace

// ---- the root's dynamic polling task ----

namespace {

Ip::Nat::DynamicConnectionHw flowRecord(Lumet::IntfId const& intf, char const* src, double lastChanged) {
   return Ip::Nat::DynamicConnectionHw(
      Ip::Nat::DynamicConnectionKey(intf, Lumet::ConnTuple(ipp(src), ipp("198.51.100.1:80"), 6)),
      ipp("192.0.2.1:5000"), lastChanged);
}

TEST(DynamicCountersPollingTest, TrafficStampsRecordsAndCountsOnlyWithCounterSupport) {
   for (bool supported : {false, true}) {
      Sim::SimOptions options;
      options.dynamicNatSupported = true;
      options.natCountersSupported = supported;
      Sim::SimSystem sys(options);
      sys.vrfIs("default", 0);
      sys.intfIs(eth1, "default", "Ethernet1", {{eth1, 10}});
      sys.start();
      auto const task = sys.root()->dynamicCountersPollingTask();
      ASSERT_TRUE(task);
      // An empty table: the task still comes back every 5 seconds.
      sys.runUntil(11.0);
      auto const& table = sys.dynamicConnectionHwStatus();
      auto const busy = flowRecord(eth1, "10.0.0.1:1000", 1.0);
      auto const idle = flowRecord(eth1, "10.0.0.2:1000", 1.0);
      auto const orphan = flowRecord(eth2, "10.0.0.3:1000", 1.0);   // no engine
      for (auto const& r : {busy, idle, orphan}) table->dynamicConnectionHwIs(r);
      sys.helper()->dynamicTrafficIs(busy.key().connTuple(), false, 10);
      sys.helper()->dynamicTrafficIs(busy.key().connTuple(), true, 4);
      sys.helper()->dynamicTrafficIs(orphan.key().connTuple(), false, 3);

      sys.runUntil(14.9);
      EXPECT_EQ(table->dynamicConnectionHw(busy.key()).record.lastChangedTime(), 1.0);
      sys.runUntil(15.0);
      EXPECT_EQ(table->dynamicConnectionHw(busy.key()).record.lastChangedTime(), 15.0) << supported;
      EXPECT_EQ(table->dynamicConnectionHw(idle.key()).record.lastChangedTime(), 1.0);
      EXPECT_EQ(table->dynamicConnectionHw(orphan.key()).record.lastChangedTime(), 1.0);
      auto const hw = sys.hwStatus()->intfStatus(eth1);
      if (supported) {
         EXPECT_EQ(hw->dynamicConnectionHwCount(busy.key().connTuple()), NatCounter(10, 4));
      } else {
         EXPECT_FALSE(hw->dynamicConnectionHwCountHas(busy.key().connTuple()));
      }
      EXPECT_FALSE(hw->dynamicConnectionHwCountHas(idle.key().connTuple()));
      // Two records reviewed per run with an engine; none before them.
      EXPECT_EQ(task->taskWorkCount(), 2u);
      // The orphan's packets were never asked for.
      EXPECT_EQ(sys.helper()->pendingPackets(), 3u);
      // Twice NAT without dynamic twice support asks nothing.
      EXPECT_EQ(sys.helper()->dynamicTwiceActiveCalls, 0u);
   }
}

TEST(DynamicCountersPollingTest, DynamicTwiceWalkAsksOnlyDynamicGroups) {
   Sim::SimOptions options;
   options.dynamicNatSupported = true;
   options.counterPollingInterval = 2.0;
   Sim::SimSystem sys(options);
   sys.hwCapabilities()->dynamicTwiceNatSupportedIs(true);
   sys.vrfIs("default", 0);
   sys.intfIs(eth1, "default", "Ethernet1", {{eth1, 10}});
   sys.start();
   EXPECT_EQ(sys.root()->dynamicCountersPollingInterval(), 2.0);
   auto const hw = sys.hwStatus()->intfStatus(eth1);
   Lumet::ConnTuple const a(ipp("10.0.0.1:1"), ipp("198.51.100.1:80"), 6);
   hw->twiceNatConnectionHwIs(7, 6, 10, true)->entryIs(a, Ip::Nat::HwNatTwiceAddr());
   hw->twiceNatConnectionHwIs(8, 6, 10, false)->entryIs(a, Ip::Nat::HwNatTwiceAddr());
   sys.helper()->dynamicTwiceActiveAnswer = true;
   sys.runUntil(2.0);
   EXPECT_EQ(sys.helper()->dynamicTwiceActiveCalls, 1u);
   EXPECT_EQ(hw->twiceNatConnectionHw(7)->lastChangedTime(a), 2.0);
   EXPECT_FALSE(hw->twiceNatConnectionHw(8)->lastChangedTimeHas(a));
   sys.helper()->dynamicTwiceActiveAnswer = false;
   sys.runUntil(4.0);
   EXPECT_EQ(sys.helper()->dynamicTwiceActiveCalls, 2u);
   EXPECT_EQ(hw->twiceNatConnectionHw(7)->lastChangedTime(a), 2.0);
}

} // namespace
