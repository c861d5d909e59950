// One million dynamic connection events through the engine's backlog to the
// simulated chip.
//
// Events: 200,000 adds, then four rounds over the same 200,000 tuples
// (delete all, add all again with another NAT port, delete, add), fed to the
// connection table in batches of 1,000, the scheduler run until idle after
// each batch so that the backlog drains in its own yielding slices. The
// baseline, in the same run, is the chip's helper calls alone for the same
// events (two adds per add, two deletes per delete) on a fresh chip;
// "vsHelperCalls" is the ratio of the two. Memory: heap in use and resident
// set per live tuple at 200,000 live tuples, measured from before the first
// add, and what is left once every connection is gone (after malloc_trim).
// The connection table (connection tracking's input) is part of what is
// measured: it holds one record per live tuple too.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "sim/SimSystem.h"

namespace {

constexpr int kTuples = 200000;
constexpr int kRounds = 5;   // adds, deletes, adds, deletes, adds: 1,000,000 events
constexpr int kBatch = 1000;

Lumet::ConnTuple nthTuple(int i) {
   auto const n = static_cast<Vor::U32>(i);
   return Lumet::ConnTuple(Lumet::IpAndPort(Lumet::IpAddr(10, static_cast<Vor::U8>(n >> 16),
                                                          static_cast<Vor::U8>(n >> 8), static_cast<Vor::U8>(n)),
                                            1024),
                           Lumet::IpAndPort(Lumet::IpAddr(198, 51, 100, 1), 443), 6);
}

Lumet::IpAndPort natAddr(int i, int round) {
   return Lumet::IpAndPort(Lumet::IpAddr(192, 0, 2, static_cast<Vor::U8>(1 + i % 200)),
                           static_cast<Vor::U16>(1024 + (i / 200 + round) % 60000));
}

long residentKb() {
   std::ifstream in("/proc/self/status");
   std::string line;
   while (std::getline(in, line)) {
      if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
   }
   return 0;
}

double heapInUse() { return static_cast<double>(mallinfo2().uordblks); }

double seconds(std::chrono::steady_clock::time_point from) {
   return std::chrono::duration<double>(std::chrono::steady_clock::now() - from).count();
}

std::unique_ptr<Sim::SimSystem> makeSystem() {
   Sim::SimOptions options;
   options.dynamicNatSupported = true;
   options.capacity = 4 * kTuples;
   auto sys = std::make_unique<Sim::SimSystem>(options);
   sys->vrfIs("default", 0);
   sys->intfIs(Lumet::IntfId("Ethernet1"), "default", "Ethernet1", {{Lumet::IntfId("Ethernet1"), 10}});
   sys->start();
   sys->runUntilIdle();
   return sys;
}

// Plays one round of kTuples events (adds on even rounds, deletes on odd).
void playRound(Sim::SimSystem& sys, int round) {
   auto const& table = sys.dynamicConnectionStatus();
   Lumet::IntfId const intf("Ethernet1");
   for (int i = 0; i < kTuples; ++i) {
      Ip::Nat::DynamicConnectionKey const key(intf, nthTuple(i));
      if (round % 2 == 0) {
         table->dynamicConnectionIs(Ip::Nat::DynamicConnection(key, natAddr(i, round)));
      } else {
         table->dynamicConnectionDel(key);
      }
      if ((i + 1) % kBatch == 0) sys.runUntilIdle();
   }
   sys.runUntilIdle();
}

// The same round as helper calls alone.
void playRoundOnChip(Sim::SimNatHelper& chip, int round) {
   for (int i = 0; i < kTuples; ++i) {
      Lumet::ConnTuple const t = nthTuple(i);
      Lumet::IpAndPort const nat = natAddr(i, round);
      if (round % 2 == 0) {
         chip.addDynamicSrcIpTranslation(t, t.srcAddr(), t.dstAddr(), nat, 10, 0);
         chip.addDynamicDstIpTranslation(t, t.dstAddr(), nat, t.srcAddr(), nullptr, 10, false, 0);
      } else {
         chip.deleteDynamicSrcIpTranslation(t, t.srcAddr(), t.dstAddr(), nat, 10, 0);
         chip.deleteDynamicDstIpTranslation(t, t.dstAddr(), nat, t.srcAddr(), 10, false, 0);
      }
   }
}

void MillionEvents(benchmark::State& state) {
   double engine = 0.0, calls = 0.0;
   bool complete = true;
   for (auto _ : state) {
      auto sys = makeSystem();
      auto t0 = std::chrono::steady_clock::now();
      for (int round = 0; round < kRounds; ++round) playRound(*sys, round);
      engine += seconds(t0);
      if (sys->dynamicConnectionHwStatus()->dynamicConnectionHws() != static_cast<std::size_t>(kTuples) ||
          sys->helper()->dynamicEntries().size() != 2u * kTuples) {
         complete = false;
      }
      auto chip = Sim::simNatHelperFactory("chip", 4 * kTuples, true);
      t0 = std::chrono::steady_clock::now();
      for (int round = 0; round < kRounds; ++round) playRoundOnChip(*chip, round);
      calls += seconds(t0);
   }
   if (!complete) state.SkipWithError("hardware did not end with every live tuple programmed");
   double const events = static_cast<double>(kTuples) * kRounds * static_cast<double>(state.iterations());
   state.SetItemsProcessed(static_cast<int64_t>(events));
   state.counters["eventsPerSec"] = events / engine;
   state.counters["helperEventsPerSec"] = events / calls;
   state.counters["vsHelperCalls"] = engine / calls;
}
BENCHMARK(MillionEvents)->Unit(benchmark::kMillisecond)->Iterations(1);

void MemoryPerLiveTuple(benchmark::State& state) {
   double heapPerTuple = 0, rssPerTuple = 0, heapLeftKb = 0, rssLeftKb = 0;
   for (auto _ : state) {
      malloc_trim(0);
      auto sys = makeSystem();
      malloc_trim(0);
      long const rssBefore = residentKb();
      double const heapBefore = heapInUse();
      playRound(*sys, 0);
      heapPerTuple = (heapInUse() - heapBefore) / kTuples;
      rssPerTuple = double(residentKb() - rssBefore) * 1024.0 / kTuples;
      playRound(*sys, 1);
      malloc_trim(0);
      heapLeftKb = (heapInUse() - heapBefore) / 1024.0;
      rssLeftKb = double(residentKb() - rssBefore);
   }
   state.counters["heapBytesPerLiveTuple"] = heapPerTuple;
   state.counters["rssBytesPerLiveTuple"] = rssPerTuple;
   state.counters["heapKbLeftWhenEmpty"] = heapLeftKb;
   state.counters["rssKbLeftWhenEmpty"] = rssLeftKb;
}
BENCHMARK(MemoryPerLiveTuple)->Unit(benchmark::kMillisecond)->Iterations(1);

} // namespace

BENCHMARK_MAIN();
