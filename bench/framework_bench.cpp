// Cost of delivering an attribute change to reactors, against an empty
// virtual call measured in the same run.

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "framework/UloBaseSm.h"
#include "framework/VorEntity.h"
#include "framework/VorReactor.h"

namespace {

using Vor::Ptr;

class Counter : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId valueId = 1;
   void valueIs(int v) { scalarIs(value_, v, valueId); }
   int value() const { return value_; }

 private:
   int value_ = 0;
};

class Sm : public Ulo::UloBaseSm {
 public:
   struct VorCounter : Vor::Reactor<Counter, Sm> {
      static Bindings const& table() {
         static Bindings const b{onScalar<&Sm::handleValue>(Counter::valueId)};
         return b;
      }
      explicit VorCounter(Sm* sm) : Reactor(sm, table()) {}
   };
   Sm() : Ulo::UloBaseSm(Ptr<Ulo::UloCommonSmData const>()) {}
   void handleValue() { ++seen; }
   void counterIs(Ptr<Counter const> const& c) { counter_.notifierIs(c); }
   long seen = 0;
   Vor::ReactorSlot<VorCounter> counter_{this, [this] { return std::make_unique<VorCounter>(this); }};
};

struct Base {
   virtual ~Base() = default;
   virtual void call() = 0;
};
// Out of line and not inlinable, as a reactor's handler is: the baseline is
// a real indirect call, not one the compiler devirtualised and inlined.
struct Impl : Base {
   long seen = 0;
   __attribute__((noinline)) void call() override { benchmark::DoNotOptimize(++seen); }
};

void BM_EmptyVirtualCall(benchmark::State& state) {
   std::unique_ptr<Base> b(new Impl);
   Base* p = b.get();
   for (auto _ : state) {
      benchmark::DoNotOptimize(p);
      p->call();
   }
}
BENCHMARK(BM_EmptyVirtualCall);

void BM_NotifyReactors(benchmark::State& state) {
   Ptr<Counter> c(new Counter);
   std::vector<Ptr<Sm>> sms;
   for (int i = 0; i < state.range(0); ++i) {
      sms.emplace_back(new Sm);
      sms.back()->counterIs(c);
   }
   int v = 0;
   for (auto _ : state) c->valueIs(++v);
   state.counters["reactors"] = static_cast<double>(state.range(0));
   state.counters["perReactor_ns"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * static_cast<double>(state.range(0)),
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_NotifyReactors)->Arg(1)->Arg(10);

} // namespace

// Prints the ratio of one delivered notification to an empty virtual call.
int main(int argc, char** argv) {
   benchmark::Initialize(&argc, argv);
   struct Collect : benchmark::ConsoleReporter {
      std::vector<Run> runs;
      void ReportRuns(std::vector<Run> const& r) override {
         ConsoleReporter::ReportRuns(r);
         runs.insert(runs.end(), r.begin(), r.end());
      }
   } reporter;
   benchmark::RunSpecifiedBenchmarks(&reporter);
   double call = 0, one = 0, ten = 0;
   for (auto const& r : reporter.runs) {
      double ns = r.GetAdjustedRealTime();
      std::string name = r.benchmark_name();
      if (name == "BM_EmptyVirtualCall") call = ns;
      if (name == "BM_NotifyReactors/1") one = ns;
      if (name == "BM_NotifyReactors/10") ten = ns;
   }
   if (call > 0) {
      std::printf("RATIO notification to 1 reactor / empty virtual call: %.2f\n", one / call);
      std::printf("RATIO notification per reactor (10 reactors) / empty virtual call: %.2f\n",
                  ten / 10.0 / call);
   }
   benchmark::Shutdown();
   return 0;
}
