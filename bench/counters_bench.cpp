// Counter polling and status aggregation at 100,000 connections.
//
// StaticTick: one tick of Ulo::NatIntfCounterSm over 100,000 static
// connections against a helper that reports one packet each way, so every
// counter is written. Its baseline, timed inside each iteration, is the same
// 200,000 helper calls alone; "vsHelperCalls" is the ratio of the two.
// DynamicTick: one run of the root's "dynamicCountersNat" task over 100,000
// dynamic flows with traffic, against the same two helper calls per flow
// walked alone. Aggregate: 100,000 local static adds copied into the global
// status, against the same local adds with no aggregation machine.

#include <benchmark/benchmark.h>

#include <chrono>

#include "UloNat/UloNatHwStatusAggregateSm.h"
#include "UloNat/UloNatIntfCounterSm.h"
#include "sim/SimSystem.h"

namespace {

using Ip::Nat::NatCounter;
using Vor::Ptr;
using Vor::U16;
using Vor::U64;
using Vor::U8;
constexpr int kConnections = 100000;

class OnePacketHelper : public UloHelper::UloHelperNat {
 public:
   OnePacketHelper() : UloHelper::UloHelperNat("onePacket") {}
   NatCounter getStaticSrcCountersSinceLastPoll(Ptr<Ip::Nat::HwNatStaticConnection const>, NatCounter const&,
                                                Ulo::VrfId) override {
      return NatCounter(1, 0);
   }
   NatCounter getStaticDstCountersSinceLastPoll(Ptr<Ip::Nat::HwNatStaticConnection const>, NatCounter const&,
                                                Ulo::VrfId) override {
      return NatCounter(1, 0);
   }
   NatCounter getDynamicSrcCountersSinceLastPoll(U16, Lumet::ConnTuple const&, Ulo::VrfId) override {
      return NatCounter(1, 0);
   }
   NatCounter getDynamicDstCountersSinceLastPoll(U16, Lumet::ConnTuple const&, bool, IpAndPort const&,
                                                 Ulo::VrfId) override {
      return NatCounter(1, 0);
   }
};

Lumet::IpAndPort nthAddr(int i, Vor::U8 top) {
   auto const n = static_cast<Vor::U32>(i);
   return Lumet::IpAndPort(Lumet::IpAddr(top, static_cast<Vor::U8>(n >> 16), static_cast<Vor::U8>(n >> 8),
                                         static_cast<Vor::U8>(n)),
                           0);
}

double seconds(std::chrono::steady_clock::time_point from) {
   return std::chrono::duration<double>(std::chrono::steady_clock::now() - from).count();
}

void StaticTick(benchmark::State& state) {
   Ptr<Dov::TaskScheduler> scheduler(new Dov::TaskScheduler());
   scheduler->virtualTimeIs(true, 0.0);
   Dov::TaskSchedulerRoot::schedulerIs(scheduler);
   Ptr<OnePacketHelper> helper(new OnePacketHelper);
   Ptr<Ip::Nat::HwIntfStatus> hw(new Ip::Nat::HwIntfStatus("Ethernet1", Lumet::IntfId("Ethernet1")));
   for (int i = 0; i < kConnections; ++i) {
      hw->staticConnectionHwIs(Ip::Nat::StaticKey(nthAddr(i, 10)), nthAddr(i, 100), Ip::Nat::source_, 0, 10, true);
   }
   Ptr<Ulo::NatIntfCounterSm> sm(new Ulo::NatIntfCounterSm(Ptr<Ulo::UloCommonSmData const>(),
                                                           Lumet::IntfId("Ethernet1"),
                                                           Vor::activityManager()->clock(),
                                                           Ptr<Ip::Nat::IntfStatus const>(), hw, helper, nullptr, 0));
   double tick = 0, calls = 0;
   for (auto _ : state) {
      auto t0 = std::chrono::steady_clock::now();
      sm->handleStaticConnCounters();
      tick += seconds(t0);
      t0 = std::chrono::steady_clock::now();
      U64 sum = 0;
      for (auto const& [key, conn] : hw->staticConnectionHw()) {
         sum += helper->getStaticSrcCountersSinceLastPoll(conn, NatCounter(), 0).pktCount();
         sum += helper->getStaticDstCountersSinceLastPoll(conn, NatCounter(), 0).pktCount();
      }
      benchmark::DoNotOptimize(sum);
      calls += seconds(t0);
   }
   state.SetItemsProcessed(state.iterations() * kConnections);
   state.counters["tickMs"] = tick * 1000.0 / static_cast<double>(state.iterations());
   state.counters["vsHelperCalls"] = tick / calls;
   sm = nullptr;
   Dov::TaskSchedulerRoot::schedulerIs(nullptr);
}
BENCHMARK(StaticTick)->Unit(benchmark::kMillisecond)->Iterations(5);

void DynamicTick(benchmark::State& state) {
   Sim::SimOptions options;
   options.dynamicNatSupported = true;
   options.natCountersSupported = true;
   Sim::SimSystem sys(options);
   sys.vrfIs("default", 0);
   sys.intfIs(Lumet::IntfId("Ethernet1"), "default", "Ethernet1", {{Lumet::IntfId("Ethernet1"), 10}});
   sys.start();
   Ptr<OnePacketHelper> helper(new OnePacketHelper);
   auto const& table = sys.dynamicConnectionHwStatus();
   for (int i = 0; i < kConnections; ++i) {
      table->dynamicConnectionHwIs(Ip::Nat::DynamicConnectionHw(
         Ip::Nat::DynamicConnectionKey(Lumet::IntfId("Ethernet1"),
                                       Lumet::ConnTuple(nthAddr(i, 10), nthAddr(1, 198), 6)),
         nthAddr(i, 100), 0.0));
   }
   // The simulated chip counts no dynamic traffic unless told: tell it
   // before every run, outside the timing, so that every flow is written.
   double tick = 0, calls = 0;
   for (auto _ : state) {
      state.PauseTiming();
      table->dynamicConnectionHwWalk(Ip::Nat::DynamicConnectionKey(), [&](Ip::Nat::DynamicConnectionHw const& r) {
         sys.helper()->dynamicTrafficIs(r.key().connTuple(), false, 1);
         sys.helper()->dynamicTrafficIs(r.key().connTuple(), true, 1);
         return true;
      });
      state.ResumeTiming();
      auto t0 = std::chrono::steady_clock::now();
      sys.runFor(5.0);
      tick += seconds(t0);
      t0 = std::chrono::steady_clock::now();
      U64 sum = 0;
      table->dynamicConnectionHwWalk(Ip::Nat::DynamicConnectionKey(), [&](Ip::Nat::DynamicConnectionHw const& r) {
         sum += helper->getDynamicSrcCountersSinceLastPoll(10, r.key().connTuple(), 0).pktCount();
         sum += helper->getDynamicDstCountersSinceLastPoll(10, r.key().connTuple(), false, r.globalAddress(), 0)
                   .pktCount();
         return true;
      });
      benchmark::DoNotOptimize(sum);
      calls += seconds(t0);
   }
   state.SetItemsProcessed(state.iterations() * kConnections);
   state.counters["tickMs"] = tick * 1000.0 / static_cast<double>(state.iterations());
   state.counters["vsHelperCalls"] = tick / calls;
}
BENCHMARK(DynamicTick)->Unit(benchmark::kMillisecond)->Iterations(3);

void Aggregate(benchmark::State& state) {
   double withMachine = 0, alone = 0;
   for (auto _ : state) {
      for (bool aggregate : {true, false}) {
         Ptr<Ip::Nat::HwStatus> local(new Ip::Nat::HwStatus("local"));
         Ptr<Ip::Nat::HwStatus> global(new Ip::Nat::HwStatus("global"));
         Ptr<Ulo::NatFailedHwKeyStatus> failed(new Ulo::NatFailedHwKeyStatus("failed"));
         Ptr<Ulo::NatHwStatusAggregateSm> sm;
         if (aggregate) {
            sm = Ulo::natHwStatusAggregateSmFactory(local, Ptr<Ip::Nat::DynamicConnectionHwStatus>(), failed, global,
                                                     Ptr<Ip::Nat::DynamicConnectionHwStatus>(),
                                                     Ptr<Ulo::NatAclNameIdTable>());
         }
         auto intf = local->intfStatusIs("Ethernet1", Lumet::IntfId("Ethernet1"));
         auto const filter = *Sim::parseFilter("198.51.100.0/24");
         auto const t0 = std::chrono::steady_clock::now();
         for (int i = 0; i < kConnections; ++i) {
            intf->staticConnectionHwIs(Ip::Nat::StaticKey(nthAddr(i, 10)), nthAddr(i, 100), Ip::Nat::source_, 0, 10,
                                       true)
               ->filterAddressIs(filter, true);
         }
         (aggregate ? withMachine : alone) += seconds(t0);
         if (aggregate && global->intfStatus(Lumet::IntfId("Ethernet1"))->staticConnectionHws() != kConnections) {
            state.SkipWithError("the global status missed connections");
         }
      }
   }
   state.SetItemsProcessed(state.iterations() * kConnections);
   state.counters["changesPerSec"] = static_cast<double>(kConnections) * static_cast<double>(state.iterations()) /
                                     withMachine;
   state.counters["vsLocalWritesAlone"] = withMachine / alone;
}
BENCHMARK(Aggregate)->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace

BENCHMARK_MAIN();
