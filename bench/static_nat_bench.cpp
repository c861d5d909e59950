// Static NAT from configuration to hardware status, on the simulated chip.
//
// 100,000 static rules with two filter addresses each, spread over 100
// interfaces, written into Ip::Nat::IntfStatus and carried by the engine to
// the helper and into Ip::Nat::HwStatus; in immediate and in batch mode.
//
// Baseline, measured in the same run: the same helper calls alone (the
// composite addStaticIpTranslations on the simulated chip), without any
// configuration entity, engine or status. The ratio engine/baseline is the
// engine's overhead. Memory: resident-set growth of the engine run divided by
// the rules (a first run warms the allocator so the figure is the engine's,
// not the process's start-up).
//
//   build/bench/static_nat_bench --benchmark_counters_tabular=true

#include <benchmark/benchmark.h>

#include <fstream>
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

void runEngine(benchmark::State& state, bool immediate) {
   double bytesPerRule = 0.0;
   for (auto _ : state) {
      state.PauseTiming();
      Sim::SimOptions options;
      options.capacity = 4 * kRules;
      options.immediate = immediate;
      auto sys = std::make_unique<Sim::SimSystem>(options);
      sys->vrfIs("default", 0);
      for (int i = 0; i < kInterfaces; ++i) {
         Lumet::IntfId const intf = rules()[static_cast<std::size_t>(i)].intf;
         sys->intfIs(intf, "default", intf.stringValue(), {{intf, static_cast<Vor::U16>(i + 1)}});
      }
      sys->start();
      long const before = residentKb();
      state.ResumeTiming();

      for (auto const& r : rules()) sys->staticIs(r.intf, r.conn);
      sys->runUntilIdle();

      state.PauseTiming();
      bytesPerRule = double(residentKb() - before) * 1024.0 / kRules;
      if (sys->hwStaticCount() != static_cast<std::size_t>(kRules)) {
         state.SkipWithError("not every rule reached hardware status");
      }
      sys.reset();
      state.ResumeTiming();
   }
   state.SetItemsProcessed(state.iterations() * kRules);
   state.counters["engineBytesPerRule"] = bytesPerRule;
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
      helper = nullptr;
      state.ResumeTiming();
   }
   state.SetItemsProcessed(state.iterations() * kRules);
}

void BM_EngineImmediate(benchmark::State& state) { runEngine(state, true); }
void BM_HelperOnlyImmediate(benchmark::State& state) { runBaseline(state, true); }
void BM_EngineBatch(benchmark::State& state) { runEngine(state, false); }
void BM_HelperOnlyBatch(benchmark::State& state) { runBaseline(state, false); }

BENCHMARK(BM_HelperOnlyImmediate)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_EngineImmediate)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_HelperOnlyBatch)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_EngineBatch)->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace

BENCHMARK_MAIN();
