// Reader lookups per second on a table of 10k entries, alone and while a
// writer in another process overwrites as fast as it can, and the same pair
// for a boost::interprocess hash map under a sharable mutex; lookups along
// one long chain against bare reads of the same slots; and the shadow's
// synchronisation rate. Rates are per second of the reading thread's CPU
// time (CLOCK_THREAD_CPUTIME_ID), so that time the reader spends descheduled
// on a shared 2-core machine does not count against it; the ratios
// loaded/alone are printed as counters.

#include "Zaffa/ZaffaShadow.h"
#include "tests/Zaffa/ZaffaTestTypes.h"

#include <benchmark/benchmark.h>
#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/sync/interprocess_sharable_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/interprocess/sync/sharable_lock.hpp>
#include <boost/unordered_map.hpp>

#include <csignal>
#include <ctime>
#include <map>
#include <random>
#include <sys/wait.h>

using namespace ZaffaTest;
namespace bip = boost::interprocess;

namespace {

constexpr U64 entries = 10000;
constexpr U64 lookupsPerPhase = 2000000;

double threadCpu() {
   timespec t;
   ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
   return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Runs `child` in a forked process until killed.
template <typename F>
pid_t spawn(F&& child) {
   pid_t pid = ::fork();
   if (pid == 0) {
      child();
      _exit(0);
   }
   return pid;
}
void stop(pid_t pid) {
   ::kill(pid, SIGKILL);
   ::waitpid(pid, nullptr, 0);
}

template <typename Lookup>
double lookupRate(Lookup&& lookup) {
   std::mt19937_64 rng(1);
   U64 hits = 0;
   double start = threadCpu();
   for (U64 i = 0; i < lookupsPerPhase; ++i) hits += lookup(rng() % entries);
   double cpu = threadCpu() - start;
   benchmark::DoNotOptimize(hits);
   return static_cast<double>(lookupsPerPhase) / cpu;
}

void BM_ZaffaReaderLookup(benchmark::State& state) {
   TempDir dir;
   auto c = config(dir.path(), 16384, 16384);
   Writer w(c);
   w.attach();
   for (U64 id = 0; id < entries; ++id) w.write(TestValue::of(id, 1), true);
   w.detach(false);
   Zaffa::ZaffaReader<TestKey, TestValue> reader{Mem::RootPath(dir.path())};
   double alone = 0, loaded = 0;
   for (auto _ : state) {
      std::string message;
      if (!reader.attach(message)) state.SkipWithError(message.c_str());
      TestValue v;
      auto lookup = [&](U64 id) { return reader.lookup(TestKey::of(id), v) ? 1 : 0; };
      alone = lookupRate(lookup);
      reader.detach();
      pid_t writer = spawn([&] {
         Writer w2(c);
         w2.attach();
         std::mt19937_64 rng(2);
         for (U64 stamp = 2;; ++stamp) w2.write(TestValue::of(rng() % entries, stamp), true);
      });
      // Attach after the writer has taken over the files.
      for (int i = 0; i < 1000 && !reader.attach(message); ++i) ::usleep(1000);
      ::usleep(100000);
      loaded = lookupRate(lookup);
      stop(writer);
   }
   state.counters["alone_per_s"] = alone;
   state.counters["loaded_per_s"] = loaded;
   state.counters["loaded_over_alone"] = loaded / alone;
   state.counters["lookaside_reads"] = static_cast<double>(reader.counters().lookasideReads);
   state.counters["slot_retries"] = static_cast<double>(reader.counters().retries);
}
BENCHMARK(BM_ZaffaReaderLookup)->Iterations(1)->Unit(benchmark::kMillisecond);

// Lookups along one long chain: every key of the table shares its bucket, so
// a lookup passes on average half the chain before its hit. The reader reads
// only the rhash and key of a slot it passes, and copies one value. The
// baseline, in the same run, reads the same slots of the same lookups whole
// (SlotReaderTable::getValue, 736 bytes each) and compares their keys, with
// none of the walk's checks. The ratio is what the walk's own work costs over
// bare copies of the slots it passes: chiefly hashing each passed key to
// check that it belongs to the chain, which a chain in cache makes the
// larger part.
void BM_ZaffaReaderLongChain(benchmark::State& state) {
   constexpr std::size_t chain = 64;
   TempDir dir;
   Writer w(config(dir.path(), 256, 256));
   w.attach();
   U32 const seed = w.slotTable().header()->hashSeed;
   U32 const bucketBits = TestKey::of(0).hash(seed) & 0xFFF;
   std::vector<U64> ids;
   for (U64 id = 0; ids.size() < chain; ++id) {
      if ((TestKey::of(id).hash(seed) & 0xFFF) == bucketBits) ids.push_back(id);
   }
   for (U64 id : ids) w.write(TestValue::of(id, 1), true);
   Zaffa::ZaffaReader<TestKey, TestValue> reader{Mem::RootPath(dir.path())};
   std::string message;
   if (!reader.attach(message)) state.SkipWithError(message.c_str());
   // The slots of the chain in walk order, and each key's place in it.
   std::vector<U32> slots;
   std::map<U64, std::size_t> place;
   TestValue v;
   Zaffa::IterHint hint;
   for (bool more = reader.first(v, hint); more; more = reader.next(v.key, v, hint)) {
      place[v.key.id] = slots.size();
      slots.push_back(hint.slot);
   }
   if (slots.size() != chain) state.SkipWithError("the keys are not on one chain");
   constexpr U64 lookups = 200000;
   double walk = 0, whole = 0;
   for (auto _ : state) {
      std::mt19937_64 rng(3);
      U64 hits = 0;
      double start = threadCpu();
      for (U64 i = 0; i < lookups; ++i) hits += reader.lookup(TestKey::of(ids[rng() % chain]), v) ? 1 : 0;
      walk = threadCpu() - start;
      rng.seed(3);
      start = threadCpu();
      for (U64 i = 0; i < lookups; ++i) {
         TestKey const k = TestKey::of(ids[rng() % chain]);
         for (std::size_t p = 0, end = place[k.id]; p <= end; ++p) {
            U32 r;
            reader.slots().getValue(slots[p], &v, r);
            hits += v.key == k ? 1 : 0;
         }
      }
      whole = threadCpu() - start;
      benchmark::DoNotOptimize(hits);
   }
   state.counters["chain_lookups_per_s"] = static_cast<double>(lookups) / walk;
   state.counters["whole_reads_per_s"] = static_cast<double>(lookups) / whole;
   state.counters["chain_over_whole_time"] = walk / whole;
}
BENCHMARK(BM_ZaffaReaderLongChain)->Iterations(1)->Unit(benchmark::kMillisecond);

using Segment = bip::managed_shared_memory;
using Alloc = bip::allocator<std::pair<U64 const, TestValue>, Segment::segment_manager>;
using BoostMap = boost::unordered_map<U64, TestValue, boost::hash<U64>, std::equal_to<U64>, Alloc>;
struct BoostTable {
   bip::interprocess_sharable_mutex mutex;
};

void BM_BoostInterprocessLookup(benchmark::State& state) {
   std::string name = fmt::format("zaffa-bench-{}", ::getpid());
   bip::shared_memory_object::remove(name.c_str());
   double alone = 0, loaded = 0;
   {
      Segment segment(bip::create_only, name.c_str(), 64u << 20);
      auto* table = segment.construct<BoostTable>("table")();
      auto* map = segment.construct<BoostMap>("map")(entries, boost::hash<U64>(), std::equal_to<U64>(),
                                                     Alloc(segment.get_segment_manager()));
      for (U64 id = 0; id < entries; ++id) map->emplace(id, TestValue::of(id, 1));
      for (auto _ : state) {
         TestValue v;
         // The same work as the table's reader: find, and copy the value out.
         auto lookup = [&](U64 id) {
            bip::sharable_lock<bip::interprocess_sharable_mutex> lock(table->mutex);
            auto it = map->find(id);
            if (it == map->end()) return 0;
            v = it->second;
            return 1;
         };
         alone = lookupRate(lookup);
         pid_t writer = spawn([&] {
            Segment s(bip::open_only, name.c_str());
            auto* t = s.find<BoostTable>("table").first;
            auto* m = s.find<BoostMap>("map").first;
            std::mt19937_64 rng(2);
            for (U64 stamp = 2;; ++stamp) {
               U64 id = rng() % entries;
               TestValue nv = TestValue::of(id, stamp);
               bip::scoped_lock<bip::interprocess_sharable_mutex> lock(t->mutex);
               (*m)[id] = nv;
            }
         });
         ::usleep(100000);
         loaded = lookupRate(lookup);
         stop(writer);
      }
   }
   bip::shared_memory_object::remove(name.c_str());
   state.counters["alone_per_s"] = alone;
   state.counters["loaded_per_s"] = loaded;
   state.counters["loaded_over_alone"] = loaded / alone;
}
BENCHMARK(BM_BoostInterprocessLookup)->Iterations(1)->Unit(benchmark::kMillisecond);

// Notifications per second of the shadow's reading thread: the writer
// overwrites 5000 keys, then the shadow takes the records.
void BM_ShadowSync(benchmark::State& state) {
   TempDir dir;
   Writer w(config(dir.path(), 16384, 16384));
   w.attach();
   for (U64 id = 0; id < entries; ++id) w.write(TestValue::of(id, 1), true);
   Zaffa::ZaffaShadow<TestKey, TestValue> shadow(Mem::RootPath(dir.path()), Mem::Notify<TestKey, TestValue>{});
   if (!shadow.initialize("bench")) state.SkipWithError("shadow initialize failed");
   U64 stamp = 1;
   double cpu = 0;
   U64 notifications = 0;
   for (auto _ : state) {
      state.PauseTiming();
      ++stamp;
      for (U64 id = 0; id < 5000; ++id) w.write(TestValue::of(id * 2, stamp), true);
      state.ResumeTiming();
      U64 before = shadow.counters().notifications;
      double start = threadCpu();
      shadow.poll();
      cpu += threadCpu() - start;
      notifications += shadow.counters().notifications - before;
   }
   state.counters["notifications_per_s"] = static_cast<double>(notifications) / cpu;
}
BENCHMARK(BM_ShadowSync)->Iterations(50)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
