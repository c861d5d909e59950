// The verify command over 100,000 static rules (two filter addresses each)
// on 100 interfaces, programmed on the simulated chip. Goal: the whole
// command under one second.
//
// Baseline, measured in the same run on the same system: the least any
// verification must do, a walk of every interface's configuration with one
// lookup of each rule in hardware status. The ratio verify/baseline is the
// cost of the rest (helper calls per filter address, index and reference
// checks, the per-VRF count comparison).
//
//   build-rel/bench/verify_bench

#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>

#include "sim/SimSystem.h"

namespace {

constexpr int kInterfaces = 100;
constexpr int kRules = 100000;

std::unique_ptr<Sim::SimSystem> buildSystem() {
   Sim::SimOptions options;
   options.capacity = 4 * kRules;
   auto sys = std::make_unique<Sim::SimSystem>(options);
   sys->vrfIs("default", 0);
   for (int i = 0; i < kInterfaces; ++i) {
      auto const intf = Lumet::IntfId::make(Lumet::IntfId::ethernet, static_cast<Vor::U32>(i + 1));
      sys->intfIs(intf, "default", intf.stringValue(), {{intf, static_cast<Vor::U16>(i + 1)}});
   }
   sys->start();
   for (int i = 0; i < kRules; ++i) {
      int const intf = i % kInterfaces;
      Lumet::IpAndPort const local(Lumet::IpAddr(10u << 24 | static_cast<Vor::U32>(i)), 0);
      Lumet::IpAndPort const global(Lumet::IpAddr(100u << 24 | static_cast<Vor::U32>(i)), 0);
      Ip::Nat::NatStaticConnection conn(Ip::Nat::StaticKey(local), global, Ip::Nat::source_, 0,
                                        static_cast<Vor::U16>(intf + 1), true);
      conn.filterAddressIs(Lumet::IpAddrWithFullMask(Lumet::IpAddr(198, 51, 100, 0), 0xffffff00u), true);
      conn.filterAddressIs(Lumet::IpAddrWithFullMask(Lumet::IpAddr(203, 0, 113, 0), 0xffffff00u), true);
      sys->staticIs(Lumet::IntfId::make(Lumet::IntfId::ethernet, static_cast<Vor::U32>(intf + 1)), conn);
   }
   sys->runUntilIdle();
   return sys;
}

Sim::SimSystem& system() {
   static std::unique_ptr<Sim::SimSystem> const sys = buildSystem();
   return *sys;
}

double verifySeconds = 0.0;
double baselineSeconds = 0.0;

void BM_Verify(benchmark::State& state) {
   auto& sys = system();
   if (sys.hwStaticCount() != static_cast<std::size_t>(kRules)) {
      state.SkipWithError("not every rule is in hardware status");
      return;
   }
   std::size_t findings = 0;
   for (auto _ : state) findings += sys.verify().size();
   if (findings != 0) state.SkipWithError("verify found something on a correct system");
   state.counters["ns_per_rule"] = benchmark::Counter(
      static_cast<double>(kRules), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_Baseline(benchmark::State& state) {
   auto& sys = system();
   for (auto _ : state) {
      std::size_t found = 0;
      for (auto const& [intf, is] : sys.status()->intfStatus()) {
         auto const hw = sys.hwStatus()->intfStatus(intf);
         for (auto const& [key, conn] : is->staticConnection()) found += hw->staticConnectionHw(key) ? 1 : 0;
      }
      benchmark::DoNotOptimize(found);
   }
}

class RatioReporter : public benchmark::ConsoleReporter {
 public:
   void ReportRuns(std::vector<Run> const& runs) override {
      for (auto const& run : runs) {
         double const seconds = run.GetAdjustedRealTime() / 1e9;   // time unit ns
         if (run.benchmark_name().find("BM_Verify") == 0) verifySeconds = seconds;
         if (run.benchmark_name().find("BM_Baseline") == 0) baselineSeconds = seconds;
      }
      ConsoleReporter::ReportRuns(runs);
   }
};

} // namespace

BENCHMARK(BM_Verify)->Unit(benchmark::kNanosecond)->Iterations(3);
BENCHMARK(BM_Baseline)->Unit(benchmark::kNanosecond)->Iterations(3);

int main(int argc, char** argv) {
   benchmark::Initialize(&argc, argv);
   RatioReporter reporter;
   benchmark::RunSpecifiedBenchmarks(&reporter);
   if (verifySeconds > 0 && baselineSeconds > 0) {
      std::printf("verify of %d static rules on %d interfaces: %.3f s (%.0f ns per rule); "
                  "baseline walk %.3f s; ratio verify/baseline %.1f\n",
                  kRules, kInterfaces, verifySeconds, verifySeconds * 1e9 / kRules, baselineSeconds,
                  verifySeconds / baselineSeconds);
   }
   benchmark::Shutdown();
   return 0;
}
