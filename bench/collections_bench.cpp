// Benchmarks of the collections against the standard containers they stand
// in for, each pair in the same run and on the same keys:
//   Vor::HashMap, Vor::HashMap2018  vs std::unordered_map
//   Vor::RbTreeMapGeneric           vs std::map
// for lookup, insertion, erase and a full walk, at 1K and 1M members.
//
// After the usual table, a summary prints for every operation and size the
// CPU time per operation of each collection and its ratio to the std
// baseline; the goal checked here is HashMap lookup within 1.5x of
// std::unordered_map.
//
//    build/bench/collections_bench [--benchmark_filter=...]

#include "framework/VorHashMap.h"
#include "framework/VorHashMap2018.h"
#include "framework/VorRbTreeMap.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using Key = Vor::U32;
using Value = Vor::U64;

// N distinct random keys, and the same keys in another random order for the
// lookups and erases, so that neither follows insertion order.
struct KeySet {
   std::vector<Key> insertOrder;
   std::vector<Key> probeOrder;
};

KeySet const& keysFor(std::size_t n) {
   static std::map<std::size_t, KeySet> cache;
   auto [it, added] = cache.try_emplace(n);
   if (added) {
      std::mt19937_64 rng(n);
      std::unordered_map<Key, bool> seen;
      seen.reserve(n);
      while (it->second.insertOrder.size() < n) {
         Key const k = static_cast<Key>(rng());
         if (seen.emplace(k, true).second) it->second.insertOrder.push_back(k);
      }
      it->second.probeOrder = it->second.insertOrder;
      std::shuffle(it->second.probeOrder.begin(), it->second.probeOrder.end(), rng);
   }
   return it->second;
}

// One interface over the four containers, so each benchmark body is written
// once.
template <typename Map, char const* kLabel>
struct StdAdapter {
   static constexpr char const* kName = kLabel;
   Map m;
   void insert(Key k, Value v) { m.emplace(k, v); }
   Value const* find(Key k) const {
      auto it = m.find(k);
      return it == m.end() ? nullptr : &it->second;
   }
   bool erase(Key k) { return m.erase(k) == 1; }
   Value sum() const {
      Value s = 0;
      for (auto const& [k, v] : m) s += v + k;
      return s;
   }
};

template <typename Map, char const* kLabel>
struct VorAdapter {
   static constexpr char const* kName = kLabel;
   Map m;
   void insert(Key k, Value v) { m.insert(k, v); }
   Value const* find(Key k) const { return m.find(k); }
   bool erase(Key k) { return m.erase(k); }
   Value sum() const {
      Value s = 0;
      for (auto const& e : m) s += e.value() + e.key();
      return s;
   }
};

constexpr char kStdUnordered[] = "std::unordered_map";
constexpr char kStdOrdered[] = "std::map";
constexpr char kHashMap[] = "Vor::HashMap";
constexpr char kHashMap2018[] = "Vor::HashMap2018";
constexpr char kRbTree[] = "Vor::RbTreeMapGeneric";
using StdUnordered = StdAdapter<std::unordered_map<Key, Value>, kStdUnordered>;
using StdOrdered = StdAdapter<std::map<Key, Value>, kStdOrdered>;
using VorHash = VorAdapter<Vor::HashMap<Key, Value>, kHashMap>;
using VorHash2018 = VorAdapter<Vor::HashMap2018<Key, Value>, kHashMap2018>;
using VorRbTree = VorAdapter<Vor::RbTreeMapGeneric<Key, Value>, kRbTree>;

template <typename C>
void fill(C& c, KeySet const& keys) {
   for (Key k : keys.insertOrder) c.insert(k, k);
}

// Each iteration does one operation per member; items are operations.
template <typename C>
void lookup(benchmark::State& state) {
   KeySet const& keys = keysFor(static_cast<std::size_t>(state.range(0)));
   C c;
   fill(c, keys);
   for (auto _ : state) {
      Value s = 0;
      for (Key k : keys.probeOrder) s += *c.find(k);
      benchmark::DoNotOptimize(s);
   }
   state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(keys.probeOrder.size()));
}

template <typename C>
void insert(benchmark::State& state) {
   KeySet const& keys = keysFor(static_cast<std::size_t>(state.range(0)));
   for (auto _ : state) {
      C c;
      fill(c, keys);
      benchmark::DoNotOptimize(c.find(keys.insertOrder[0]));
      // The destruction is part of the cost of having inserted.
   }
   state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(keys.insertOrder.size()));
}

template <typename C>
void erase(benchmark::State& state) {
   KeySet const& keys = keysFor(static_cast<std::size_t>(state.range(0)));
   for (auto _ : state) {
      state.PauseTiming();
      auto* c = new C;
      fill(*c, keys);
      state.ResumeTiming();
      for (Key k : keys.probeOrder) benchmark::DoNotOptimize(c->erase(k));
      state.PauseTiming();
      delete c;
      state.ResumeTiming();
   }
   state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(keys.probeOrder.size()));
}

template <typename C>
void iterate(benchmark::State& state) {
   KeySet const& keys = keysFor(static_cast<std::size_t>(state.range(0)));
   C c;
   fill(c, keys);
   for (auto _ : state) benchmark::DoNotOptimize(c.sum());
   state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(keys.insertOrder.size()));
}

// Keeps every run so that main() can print the ratios to the baselines.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
   RatioReporter() : ConsoleReporter(OO_Tabular) {}
   struct Result {
      std::string op;
      std::string container;
      std::int64_t size;
      double nsPerItem;
   };
   void ReportRuns(std::vector<Run> const& runs) override {
      for (Run const& run : runs) {
         if (run.error_occurred || run.run_type != Run::RT_Iteration || run.iterations == 0) continue;
         // Name: op/container/size[/min_time:...]
         std::vector<std::string> parts;
         std::string const name = run.benchmark_name();
         for (std::size_t from = 0, to; from <= name.size(); from = to + 1) {
            to = name.find('/', from);
            if (to == std::string::npos) to = name.size();
            parts.push_back(name.substr(from, to - from));
         }
         auto const items = run.counters.find("items_per_second");
         if (parts.size() < 3 || items == run.counters.end()) continue;
         results_.push_back({parts[0], parts[1], std::stoll(parts[2]), 1e9 / items->second.value});
      }
      ConsoleReporter::ReportRuns(runs);
   }
   std::vector<Result> const& results() const { return results_; }

 private:
   std::vector<Result> results_;
};

template <template <typename> class Body, typename C>
void registerOne(std::string const& op, std::int64_t size) {
   auto* b = benchmark::RegisterBenchmark((op + "/" + C::kName).c_str(),
                                          [](benchmark::State& s) { Body<C>::run(s); });
   b->Arg(size)->Unit(size >= 1000000 ? benchmark::kMillisecond : benchmark::kMicrosecond);
   if (size >= 1000000) b->MinTime(0.5);
}

template <typename C> struct Lookup { static void run(benchmark::State& s) { lookup<C>(s); } };
template <typename C> struct Insert { static void run(benchmark::State& s) { insert<C>(s); } };
template <typename C> struct Erase { static void run(benchmark::State& s) { erase<C>(s); } };
template <typename C> struct Iterate { static void run(benchmark::State& s) { iterate<C>(s); } };

template <template <typename> class Body>
void registerOp(std::string const& op) {
   // Baseline first, then the collections that stand in for it, size by
   // size, so that each comparison runs close together in time.
   for (std::int64_t size : {std::int64_t{1} << 10, std::int64_t{1} << 20}) {
      registerOne<Body, StdUnordered>("hash." + op, size);
      registerOne<Body, VorHash>("hash." + op, size);
      registerOne<Body, VorHash2018>("hash." + op, size);
      registerOne<Body, StdOrdered>("ordered." + op, size);
      registerOne<Body, VorRbTree>("ordered." + op, size);
   }
}

} // namespace

int main(int argc, char** argv) {
   registerOp<Lookup>("lookup");
   registerOp<Insert>("insert");
   registerOp<Erase>("erase");
   registerOp<Iterate>("iterate");
   benchmark::Initialize(&argc, argv);
   if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
   RatioReporter reporter;
   benchmark::RunSpecifiedBenchmarks(&reporter);
   benchmark::Shutdown();

   // Ratio of each collection to the std container it stands in for.
   std::printf("\n%-16s %-24s %9s %12s %8s\n", "operation", "container", "members", "ns/op", "ratio");
   bool lookupGoalMet = true;
   bool lookupMeasured = false;
   for (auto const& r : reporter.results()) {
      std::string const baseline = r.op.rfind("hash.", 0) == 0 ? "std::unordered_map" : "std::map";
      double ratio = 0.0;
      for (auto const& b : reporter.results()) {
         if (b.op == r.op && b.size == r.size && b.container == baseline) ratio = r.nsPerItem / b.nsPerItem;
      }
      std::printf("%-16s %-24s %9lld %12.2f %8.2f\n", r.op.c_str(), r.container.c_str(),
                  static_cast<long long>(r.size), r.nsPerItem, ratio);
      if (r.op == "hash.lookup" && r.container == "Vor::HashMap" && ratio > 0.0) {
         lookupMeasured = true;
         lookupGoalMet = lookupGoalMet && ratio <= 1.5;
      }
   }
   if (lookupMeasured) {
      std::printf("\nVor::HashMap lookup within 1.5x of std::unordered_map: %s\n", lookupGoalMet ? "yes" : "NO");
   }
   return 0;
}
