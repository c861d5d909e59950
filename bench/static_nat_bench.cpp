// Static NAT from configuration to hardware status, on the simulated chip.
//
// 100,000 static rules with two filter addresses each, spread over 100
// interfaces, written into Ip::Nat::IntfStatus and carried by the engine to
// the helper and into Ip::Nat::HwStatus; in immediate and in batch mode.
//
// Baseline, measured in the same run: the same helper calls alone (the
// composite addStaticIpTranslations on the simulated chip), without any
// configuration entity, engine or status. The ratio engine/baseline is the
// engine's overhead, printed at the end with the rules per second.
//
// Memory is measured once, before any timed run, in the fresh process: the
// configuration of all rules is written first, then the engine is started
// and replays it to hardware. The resident-set growth across that start,
// divided by the rules, is the engine's cost per rule together with the
// hardware status it writes and the simulated chip's table; the heap in use
// of a helper that holds the same rules alone is subtracted to give the
// engine's own state per rule.
//
// Twice NAT: 50,000 twice groups, one complete rule each, over the same 100
// interfaces, carried to the chip as forward and reverse pairs. Baseline in
// the same run: the two addTwiceNatTranslation calls per pair alone.
//
//   build-rel/bench/static_nat_bench

#include <benchmark/benchmark.h>

#include <malloc.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "sim/SimSystem.h"

namespace {

constexpr int kInterfaces = 100;
constexpr int kRules = 100000;

struct Rule {
   Lumet::IntfId intf;
   Ip::Nat::NatStaticConnection conn;
};

std::vector<Rule> makeRules() {
   std::vector<Rule> rules;
   rules.reserve(kRules);
   for (int i = 0; i < kRules; ++i) {
      int const intf = i % kInterfaces;
      Lumet::IpAndPort const local(Lumet::IpAddr(10u << 24 | static_cast<Vor::U32>(i)), 0);
      Lumet::IpAndPort const global(Lumet::IpAddr(100u << 24 | static_cast<Vor::U32>(i)), 0);
      Ip::Nat::NatStaticConnection conn(Ip::Nat::StaticKey(local), global, Ip::Nat::source_, 0,
                                        static_cast<Vor::U16>(intf + 1), true);
      conn.filterAddressIs(Lumet::IpAddrWithFullMask(Lumet::IpAddr(198, 51, 100, 0), 0xffffff00u), true);
      conn.filterAddressIs(Lumet::IpAddrWithFullMask(Lumet::IpAddr(203, 0, 113, 0), 0xffffff00u), true);
      rules.push_back(Rule{Lumet::IntfId::make(Lumet::IntfId::ethernet, static_cast<Vor::U32>(intf + 1)),
                           conn});
   }
   return rules;
}

std::vector<Rule> const& rules() {
   static std::vector<Rule> const r = makeRules();
   return r;
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

std::unique_ptr<Sim::SimSystem> makeSystem(bool immediate) {
   Sim::SimOptions options;
   options.capacity = 4 * kRules;
   options.immediate = immediate;
   auto sys = std::make_unique<Sim::SimSystem>(options);
   sys->vrfIs("default", 0);
   for (int i = 0; i < kInterfaces; ++i) {
      Lumet::IntfId const intf = rules()[static_cast<std::size_t>(i)].intf;
      sys->intfIs(intf, "default", intf.stringValue(), {{intf, static_cast<Vor::U16>(i + 1)}});
   }
   return sys;
}

void addAll(Sim::SimSystem& sys) {
   for (auto const& r : rules()) sys.staticIs(r.intf, r.conn);
}

void runEngine(benchmark::State& state, bool immediate) {
   for (auto _ : state) {
      state.PauseTiming();
      auto sys = makeSystem(immediate);
      sys->start();
      state.ResumeTiming();

      addAll(*sys);
      sys->runUntilIdle();

      state.PauseTiming();
      if (sys->hwStaticCount() != static_cast<std::size_t>(kRules) ||
          sys->helper()->entries().size() != static_cast<std::size_t>(4 * kRules)) {
         state.SkipWithError("not every rule reached hardware status and the chip");
      }
      sys.reset();
      state.ResumeTiming();
   }
   state.SetItemsProcessed(state.iterations() * kRules);
}

void runBaseline(benchmark::State& state, bool immediate) {
   for (auto _ : state) {
      state.PauseTiming();
      auto helper = Sim::simNatHelperFactory("baseline", 4 * kRules, immediate);
      state.ResumeTiming();
      for (auto const& r : rules()) {
         helper->addStaticIpTranslations(r.conn, r.conn.vlanId(), r.conn.key(), nullptr,
                                         Ulo::defaultMulticastData(), 0, false);
      }
      if (!immediate) helper->commitHwTranslations();
      state.PauseTiming();
      if (helper->entries().size() != static_cast<std::size_t>(4 * kRules)) {
         state.SkipWithError("the helper did not take every rule");
      }
      helper = nullptr;
      state.ResumeTiming();
   }
   state.SetItemsProcessed(state.iterations() * kRules);
}

constexpr int kTwiceGroups = 50000;

struct TwiceRule {
   Lumet::IntfId intf;
   Ip::Nat::NatTwiceConnection conn;
};

std::vector<TwiceRule> makeTwiceRules() {
   std::vector<TwiceRule> out;
   out.reserve(kTwiceGroups);
   for (int i = 0; i < kTwiceGroups; ++i) {
      int const intf = i % kInterfaces;
      auto const group = static_cast<Vor::U16>(1 + i / kInterfaces);
      auto const n = static_cast<Vor::U32>(i);
      out.push_back(TwiceRule{
         Lumet::IntfId::make(Lumet::IntfId::ethernet, static_cast<Vor::U32>(intf + 1)),
         Ip::Nat::NatTwiceConnection(group, Lumet::IpAndPort(Lumet::IpAddr(10u << 24 | n), 1000),
                                     Lumet::IpAndPort(Lumet::IpAddr(20u << 24 | n), 80),
                                     Lumet::IpAndPort(Lumet::IpAddr(100u << 24 | n), 2000),
                                     Lumet::IpAndPort(Lumet::IpAddr(110u << 24 | n), 8080), 6,
                                     static_cast<Vor::U16>(intf + 1))});
   }
   return out;
}

std::vector<TwiceRule> const& twiceRules() {
   static std::vector<TwiceRule> const r = makeTwiceRules();
   return r;
}

void BM_TwiceEngineImmediate(benchmark::State& state) {
   for (auto _ : state) {
      state.PauseTiming();
      auto sys = makeSystem(true);
      sys->start();
      state.ResumeTiming();

      for (auto const& r : twiceRules()) sys->twiceIs(r.intf, r.conn);
      sys->runUntilIdle();

      state.PauseTiming();
      if (sys->hwTwiceCount() != static_cast<std::size_t>(kTwiceGroups) ||
          sys->helper()->twiceEntries() != static_cast<std::size_t>(2 * kTwiceGroups)) {
         state.SkipWithError("not every twice pair reached hardware status and the chip");
      }
      sys.reset();
      state.ResumeTiming();
   }
   state.SetItemsProcessed(state.iterations() * kTwiceGroups);
}

void BM_TwiceHelperOnlyImmediate(benchmark::State& state) {
   for (auto _ : state) {
      state.PauseTiming();
      auto helper = Sim::simNatHelperFactory("baseline", 4 * kRules, true);
      state.ResumeTiming();
      for (auto const& r : twiceRules()) {
         auto const& c = r.conn;
         helper->addTwiceNatTranslation(c.srcOld(), c.srcNew(), c.dstOld(), c.dstNew(), c.protocol(), c.vlanId(),
                                        nullptr, Ulo::defaultMulticastData(), true, c.group(), 0, false);
         helper->addTwiceNatTranslation(c.dstNew(), c.dstOld(), c.srcNew(), c.srcOld(), c.protocol(), c.vlanId(),
                                        nullptr, Ulo::defaultMulticastData(), false, c.group(), 0, false);
      }
      state.PauseTiming();
      if (helper->twiceEntries() != static_cast<std::size_t>(2 * kTwiceGroups)) {
         state.SkipWithError("the helper did not take every pair");
      }
      helper = nullptr;
      state.ResumeTiming();
   }
   state.SetItemsProcessed(state.iterations() * kTwiceGroups);
}

BENCHMARK(BM_TwiceHelperOnlyImmediate)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_TwiceEngineImmediate)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_EngineImmediate(benchmark::State& state) { runEngine(state, true); }
void BM_HelperOnlyImmediate(benchmark::State& state) { runBaseline(state, true); }
void BM_EngineBatch(benchmark::State& state) { runEngine(state, false); }
void BM_HelperOnlyBatch(benchmark::State& state) { runBaseline(state, false); }

BENCHMARK(BM_HelperOnlyImmediate)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_EngineImmediate)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_HelperOnlyBatch)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_EngineBatch)->Unit(benchmark::kMillisecond)->Iterations(3);

struct MemoryFigures {
   double rssBytesPerRule = 0.0;      // resident growth across the engine's start
   double heapBytesPerRule = 0.0;     // heap in use across the same start
   double chipHeapBytesPerRule = 0.0; // heap of a helper holding the rules alone
};

// Runs first, in the fresh process, so that resident growth is not hidden by
// memory that earlier runs gave back to the allocator.
MemoryFigures measureMemory() {
   MemoryFigures m;
   {
      auto helper = Sim::simNatHelperFactory("chip", 4 * kRules, true);
      double const heapBefore = heapInUse();
      for (auto const& r : rules()) {
         helper->addStaticIpTranslations(r.conn, r.conn.vlanId(), r.conn.key(), nullptr,
                                         Ulo::defaultMulticastData(), 0, false);
      }
      m.chipHeapBytesPerRule = (heapInUse() - heapBefore) / kRules;
   }
   malloc_trim(0);
   auto sys = makeSystem(true);
   addAll(*sys);   // configuration only: no engine yet
   long const rssBefore = residentKb();
   double const heapBefore = heapInUse();
   sys->start();   // the engine replays every rule to hardware
   sys->runUntilIdle();
   m.rssBytesPerRule = double(residentKb() - rssBefore) * 1024.0 / kRules;
   m.heapBytesPerRule = (heapInUse() - heapBefore) / kRules;
   if (sys->hwStaticCount() != static_cast<std::size_t>(kRules)) {
      std::fprintf(stderr, "memory run: only %zu of %d rules reached hardware status\n",
                   sys->hwStaticCount(), kRules);
   }
   return m;
}

// Keeps the CPU seconds per iteration of each benchmark for the summary: on
// a machine shared with other work, CPU time is the steadier of the two.
class CollectingReporter : public benchmark::ConsoleReporter {
 public:
   void ReportRuns(std::vector<Run> const& runs) override {
      for (auto const& r : runs) {
         if (r.run_type == Run::RT_Iteration && r.iterations > 0 && !r.error_occurred) {
            secondsPerIteration[r.benchmark_name()] = r.cpu_accumulated_time / double(r.iterations);
         }
      }
      benchmark::ConsoleReporter::ReportRuns(runs);
   }
   std::map<std::string, double> secondsPerIteration;
};

} // namespace

int main(int argc, char** argv) {
   benchmark::Initialize(&argc, argv);
   if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
   rules();   // built before any measurement
   twiceRules();
   MemoryFigures const mem = measureMemory();
   CollectingReporter reporter;
   benchmark::RunSpecifiedBenchmarks(&reporter);

   auto const& t = reporter.secondsPerIteration;
   std::printf("\nStatic NAT, %d rules x 2 filter addresses on %d interfaces:\n", kRules, kInterfaces);
   for (char const* mode : {"Immediate", "Batch"}) {
      auto const engine = t.find(std::string("BM_Engine") + mode + "/iterations:3");
      auto const base = t.find(std::string("BM_HelperOnly") + mode + "/iterations:3");
      if (engine == t.end() || base == t.end()) {
         std::printf("  %-9s  (not run or failed)\n", mode);
         continue;
      }
      std::printf("  %-9s  engine end to end %10.0f rules/s   helper calls alone %10.0f rules/s"
                  "   ratio engine/baseline %.2f\n",
                  mode, kRules / engine->second, kRules / base->second, engine->second / base->second);
   }
   {
      auto const engine = t.find("BM_TwiceEngineImmediate/iterations:3");
      auto const base = t.find("BM_TwiceHelperOnlyImmediate/iterations:3");
      if (engine == t.end() || base == t.end()) {
         std::printf("  Twice      (not run or failed)\n");
      } else {
         std::printf("  Twice      %d groups: engine end to end %10.0f pairs/s   helper calls alone %10.0f pairs/s"
                     "   ratio engine/baseline %.2f\n",
                     kTwiceGroups, kTwiceGroups / engine->second, kTwiceGroups / base->second,
                     engine->second / base->second);
      }
   }
   std::printf("  Memory     resident growth across the engine's start %.0f bytes/rule"
               " (heap in use %.0f bytes/rule, of which the chip's table %.0f);"
               " engine state %.0f bytes/rule\n",
               mem.rssBytesPerRule, mem.heapBytesPerRule, mem.chipHeapBytesPerRule,
               mem.heapBytesPerRule - mem.chipHeapBytesPerRule);
   benchmark::Shutdown();
   return 0;
}
