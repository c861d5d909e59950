// The table against LMDB and std::unordered_map, with 40-byte keys and
// 736-byte values, at 100,000 and 1,000,000 entries: insert, overwrite,
// random lookup, remove. All three run in this binary, one after the other,
// and the ratios are printed at the end.
//
// LMDB runs with MDB_NOSYNC | MDB_WRITEMAP in a tmpfs directory, like the
// table (so neither pays for a disk); its inserts are measured with one put
// per transaction and batched 1000 per transaction. The table's inserts are
// measured with write() and, on a second table, with direct mode, which fills
// the value in place.
//
// Each benchmark runs five times, the runs of all three shuffled together
// (--benchmark_repetitions=N and --benchmark_enable_random_interleaving=false
// to change), and the tables give the median of each phase. Besides the CPU time per
// operation they give the part of it spent in the kernel (sampled by the
// kernel's accounting, so approximate): for inserts into fresh memory that
// is mostly the cost of providing pages, which no user-space change avoids.
//
// ZAFFA_BENCH_DIR=<dir> puts the files of the table and of LMDB on another
// file system (default /dev/shm).

#include "Zaffa/ZaffaWriter.h"

#include <benchmark/benchmark.h>
#include <lmdb.h>
#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <cstdio>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using Vor::U32;
using Vor::U64;

struct BenchKey {
   U64 id = 0;
   U64 pad[4] = {};
   static BenchKey of(U64 id) {
      BenchKey k;
      k.id = id;
      k.pad[1] = id * 0x9e3779b97f4a7c15ull;
      return k;
   }
   // Word by word, as the hardware key hashes its fields.
   U32 hash(U32 seed) const {
      U32 h = Vor::hashMix64(seed, id);
      for (U64 p : pad) h = Vor::hashMix64(h, p);
      return Vor::hashFinish(h);
   }
   bool operator==(BenchKey const&) const = default;
   bool operator<(BenchKey const& o) const { return id < o.id; }
};
static_assert(sizeof(BenchKey) == 40);

struct BenchValue {
   BenchKey key;
   U64 stamp = 0;
   unsigned char payload[688] = {};
};
static_assert(sizeof(BenchValue) == 736);

struct KeyHash {
   std::size_t operator()(BenchKey const& k) const { return k.hash(0x1234); }
};

// CPU time per operation of one run of a phase, and the kernel's part of it.
struct Sample {
   double ns = 0;
   double kernelNs = 0;
};

// Every run of each phase, by system/phase and size.
std::map<std::string, std::map<U64, std::vector<Sample>>> results;

std::string tempDir(char const* tag) {
   std::string base = std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp";
   if (char const* d = std::getenv("ZAFFA_BENCH_DIR")) base = d;
   std::string p = base + "/zaffa-bench-" + tag + "-" + std::to_string(::getpid());
   std::filesystem::remove_all(p);
   std::filesystem::create_directories(p);
   return p;
}

struct Workload {
   std::vector<U64> insertOrder;   // a permutation of 0..n-1
   std::vector<U64> lookups;       // uniform random ids
   explicit Workload(U64 n) {
      std::mt19937_64 rng(n);
      insertOrder.resize(n);
      for (U64 i = 0; i < n; ++i) insertOrder[i] = i;
      std::shuffle(insertOrder.begin(), insertOrder.end(), rng);
      lookups.resize(std::min<U64>(n, 1000000));
      for (auto& l : lookups) l = rng() % n;
   }
};

// The caller's record that each operation stores: one buffer, refilled with
// the key and stamp of each operation, as an agent fills one from its own
// state. Building a fresh 736-byte value for every operation would add the
// same cost to all three systems and measure the harness, not the table.
class ValueSource {
 public:
   BenchValue const& of(U64 id, U64 stamp) {
      v_.key = BenchKey::of(id);
      v_.stamp = stamp;
      v_.payload[0] = static_cast<unsigned char>(stamp);
      v_.payload[sizeof v_.payload - 1] = static_cast<unsigned char>(id);
      return v_;
   }

 private:
   BenchValue v_;
};

double threadCpuNs() {
   timespec ts;
   ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
   return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

double threadKernelNs() {
   rusage ru;
   ::getrusage(RUSAGE_THREAD, &ru);
   return static_cast<double>(ru.ru_stime.tv_sec) * 1e9 + static_cast<double>(ru.ru_stime.tv_usec) * 1e3;
}

// CPU time of this thread (user and kernel, page faults included) per
// operation: on a shared machine the wall clock measures the neighbours.
template <typename F>
Sample nsPerOp(std::size_t ops, F&& f) {
   double k0 = threadKernelNs();
   double t0 = threadCpuNs();
   f();
   double t1 = threadCpuNs();
   double k1 = threadKernelNs();
   double n = static_cast<double>(ops);
   return Sample{(t1 - t0) / n, (k1 - k0) / n};
}

void record(benchmark::State& state, std::string const& system, std::string const& phase, U64 n, Sample s) {
   results[system + "/" + phase][n].push_back(s);
   state.counters[phase + "_ns"] = s.ns;
}

void BM_Zaffa(benchmark::State& state) {
   U64 const n = static_cast<U64>(state.range(0));
   Workload w(n);
   ValueSource src;
   for (auto _ : state) {
      std::string dir = tempDir("zaffa");
      Zaffa::WriterConfig c;
      c.rootPath = dir;
      c.minSlots = 1024;
      c.maxSlots = static_cast<U32>(n);
      c.initialBuckets = 1024;
      Zaffa::ZaffaWriter<BenchKey, BenchValue> t(c);
      t.attach();
      record(state, "zaffa", "insert", n, nsPerOp(n, [&] {
         for (U64 id : w.insertOrder) t.write(src.of(id, 1), true);
      }));
      record(state, "zaffa", "overwrite", n, nsPerOp(n, [&] {
         for (U64 id : w.insertOrder) t.write(src.of(id, 2), true);
      }));
      U64 sum = 0;
      record(state, "zaffa", "lookup", n, nsPerOp(w.lookups.size(), [&] {
         for (U64 id : w.lookups) sum += t.lookup(BenchKey::of(id))->stamp;
      }));
      benchmark::DoNotOptimize(sum);
      BenchValue old;
      record(state, "zaffa", "remove", n, nsPerOp(n, [&] {
         for (U64 id : w.insertOrder) t.remove(BenchKey::of(id), old);
      }));
      t.detach(true);
      std::filesystem::remove_all(dir);

      // Inserts in direct mode, into a second fresh table: the value is
      // filled in its slot, where write() copies it from the caller's.
      dir = tempDir("zaffa-direct");
      c.rootPath = dir;
      Zaffa::ZaffaWriter<BenchKey, BenchValue> d(c);
      d.attach();
      record(state, "zaffa", "insert_direct", n, nsPerOp(n, [&] {
         for (U64 id : w.insertOrder) {
            BenchValue* v = d.directWrite(BenchKey::of(id));
            v->stamp = 1;
            v->payload[0] = 1;
            d.directCommit();
         }
      }));
      if (d.lookup(BenchKey::of(w.insertOrder.back()))->stamp != 1) std::abort();
      d.detach(true);
      std::filesystem::remove_all(dir);
   }
}

void BM_UnorderedMap(benchmark::State& state) {
   U64 const n = static_cast<U64>(state.range(0));
   Workload w(n);
   ValueSource src;
   for (auto _ : state) {
      // Start from a heap that holds no freed memory, as the other two start
      // from new files: with the runs shuffled, the map would otherwise
      // sometimes refill pages that an earlier run of it left behind and
      // skip the page faults that the others pay.
      ::malloc_trim(0);
      std::unordered_map<BenchKey, BenchValue, KeyHash> m;
      record(state, "umap", "insert", n, nsPerOp(n, [&] {
         for (U64 id : w.insertOrder) m.insert_or_assign(BenchKey::of(id), src.of(id, 1));
      }));
      record(state, "umap", "overwrite", n, nsPerOp(n, [&] {
         for (U64 id : w.insertOrder) m.insert_or_assign(BenchKey::of(id), src.of(id, 2));
      }));
      U64 sum = 0;
      record(state, "umap", "lookup", n, nsPerOp(w.lookups.size(), [&] {
         for (U64 id : w.lookups) sum += m.find(BenchKey::of(id))->second.stamp;
      }));
      benchmark::DoNotOptimize(sum);
      record(state, "umap", "remove", n, nsPerOp(n, [&] {
         for (U64 id : w.insertOrder) m.erase(BenchKey::of(id));
      }));
   }
}

#define CHECK_MDB(call)                                                              \
   do {                                                                              \
      int rc_ = (call);                                                              \
      if (rc_ != 0) {                                                                \
         std::fprintf(stderr, "%s: %s\n", #call, mdb_strerror(rc_));                 \
         std::abort();                                                               \
      }                                                                              \
   } while (0)

void BM_Lmdb(benchmark::State& state) {
   U64 const n = static_cast<U64>(state.range(0));
   Workload w(n);
   ValueSource src;
   for (auto _ : state) {
      std::string dir = tempDir("lmdb");
      MDB_env* env;
      CHECK_MDB(mdb_env_create(&env));
      CHECK_MDB(mdb_env_set_mapsize(env, static_cast<std::size_t>(n) * 2048 + (64u << 20)));
      CHECK_MDB(mdb_env_open(env, dir.c_str(), MDB_NOSYNC | MDB_WRITEMAP, 0644));
      MDB_dbi dbi;
      MDB_txn* txn;
      CHECK_MDB(mdb_txn_begin(env, nullptr, 0, &txn));
      CHECK_MDB(mdb_dbi_open(txn, nullptr, 0, &dbi));
      CHECK_MDB(mdb_txn_commit(txn));
      auto put = [&](MDB_txn* t, U64 id, U64 stamp) {
         BenchKey k = BenchKey::of(id);
         BenchValue const& v = src.of(id, stamp);
         MDB_val key{sizeof k, &k}, val{sizeof v, const_cast<BenchValue*>(&v)};
         CHECK_MDB(mdb_put(t, dbi, &key, &val, 0));
      };
      auto single = [&](U64 id, U64 stamp) {
         MDB_txn* t;
         CHECK_MDB(mdb_txn_begin(env, nullptr, 0, &t));
         put(t, id, stamp);
         CHECK_MDB(mdb_txn_commit(t));
      };
      record(state, "lmdb", "insert", n, nsPerOp(n, [&] {
         for (U64 id : w.insertOrder) single(id, 1);
      }));
      record(state, "lmdb", "overwrite", n, nsPerOp(n, [&] {
         for (U64 id : w.insertOrder) single(id, 2);
      }));
      record(state, "lmdb", "overwrite_batched", n, nsPerOp(n, [&] {
         for (U64 i = 0; i < n; i += 1000) {
            MDB_txn* t;
            CHECK_MDB(mdb_txn_begin(env, nullptr, 0, &t));
            for (U64 j = i; j < std::min(n, i + 1000); ++j) put(t, w.insertOrder[j], 3);
            CHECK_MDB(mdb_txn_commit(t));
         }
      }));
      U64 sum = 0;
      record(state, "lmdb", "lookup", n, nsPerOp(w.lookups.size(), [&] {
         MDB_txn* t;
         CHECK_MDB(mdb_txn_begin(env, nullptr, MDB_RDONLY, &t));
         for (U64 id : w.lookups) {
            BenchKey k = BenchKey::of(id);
            MDB_val key{sizeof k, &k}, val;
            CHECK_MDB(mdb_get(t, dbi, &key, &val));
            sum += static_cast<BenchValue const*>(val.mv_data)->stamp;
         }
         mdb_txn_abort(t);
      }));
      benchmark::DoNotOptimize(sum);
      record(state, "lmdb", "remove", n, nsPerOp(n, [&] {
         for (U64 id : w.insertOrder) {
            MDB_txn* t;
            CHECK_MDB(mdb_txn_begin(env, nullptr, 0, &t));
            BenchKey k = BenchKey::of(id);
            MDB_val key{sizeof k, &k};
            CHECK_MDB(mdb_del(t, dbi, &key, nullptr));
            CHECK_MDB(mdb_txn_commit(t));
         }
      }));
      // Batched inserts into the emptied database.
      record(state, "lmdb", "insert_batched", n, nsPerOp(n, [&] {
         for (U64 i = 0; i < n; i += 1000) {
            MDB_txn* t;
            CHECK_MDB(mdb_txn_begin(env, nullptr, 0, &t));
            for (U64 j = i; j < std::min(n, i + 1000); ++j) put(t, w.insertOrder[j], 4);
            CHECK_MDB(mdb_txn_commit(t));
         }
      }));
      mdb_env_close(env);
      std::filesystem::remove_all(dir);
   }
}

BENCHMARK(BM_Zaffa)->Arg(100000)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Lmdb)->Arg(100000)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UnorderedMap)->Arg(100000)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);

// The median over the runs of a phase (0 when it did not run).
double median(std::string const& key, U64 n, double Sample::*field) {
   auto it = results.find(key);
   if (it == results.end() || !it->second.count(n)) return 0;
   std::vector<double> v;
   for (Sample const& s : it->second[n]) v.push_back(s.*field);
   std::sort(v.begin(), v.end());
   return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}
double get(std::string const& key, U64 n) { return median(key, n, &Sample::ns); }
double kernel(std::string const& key, U64 n) { return median(key, n, &Sample::kernelNs); }
std::size_t runs(std::string const& key, U64 n) {
   auto it = results.find(key);
   return it == results.end() || !it->second.count(n) ? 0 : it->second[n].size();
}

void printRatios() {
   std::printf("\nmedian of %zu runs; CPU ns per operation (of which kernel)\n", runs("zaffa/insert", 100000));
   std::printf("%-10s %-14s %18s %18s %18s %14s\n", "entries", "phase", "zaffa ns", "lmdb ns",
               "umap ns", "lmdb batch ns");
   auto cell = [](std::string const& key, U64 n) {
      char buf[64];
      if (get(key, n) == 0) return std::string("-");
      std::snprintf(buf, sizeof buf, "%.1f (%.0f)", get(key, n), kernel(key, n));
      return std::string(buf);
   };
   for (U64 n : {100000ull, 1000000ull}) {
      for (char const* phase : {"insert", "insert_direct", "overwrite", "lookup", "remove"}) {
         std::string batched = std::string("lmdb/") + phase + "_batched";
         std::printf("%-10llu %-14s %18s %18s %18s %14s\n", static_cast<unsigned long long>(n), phase,
                     cell(std::string("zaffa/") + phase, n).c_str(), cell(std::string("lmdb/") + phase, n).c_str(),
                     cell(std::string("umap/") + phase, n).c_str(), cell(batched, n).c_str());
      }
   }
   std::printf("\nratios (goal in brackets):\n");
   for (U64 n : {100000ull, 1000000ull}) {
      double zi = get("zaffa/insert", n), zl = get("zaffa/lookup", n);
      if (zi == 0 || zl == 0) continue;
      double zd = get("zaffa/insert_direct", n);
      std::printf("%llu entries: insert vs LMDB single put %.2fx [>= 3] (direct mode %.2fx), vs LMDB batched %.2fx; "
                  "lookup vs LMDB %.2fx [>= 4]; lookup / unordered_map %.2f [<= 1.5]; "
                  "insert / unordered_map %.2f [<= 2]\n",
                  static_cast<unsigned long long>(n), get("lmdb/insert", n) / zi,
                  zd > 0 ? get("lmdb/insert", n) / zd : 0.0,
                  get("lmdb/insert_batched", n) / zi, get("lmdb/lookup", n) / zl,
                  zl / get("umap/lookup", n), zi / get("umap/insert", n));
      std::printf("   insert without its kernel time: zaffa %.1f ns, LMDB %.1f ns, ratio %.2fx\n",
                  zi - kernel("zaffa/insert", n), get("lmdb/insert", n) - kernel("lmdb/insert", n),
                  (get("lmdb/insert", n) - kernel("lmdb/insert", n)) / (zi - kernel("zaffa/insert", n)));
   }
}

} // namespace

int main(int argc, char** argv) {
   // Five runs of each benchmark, in a shuffled order, unless asked
   // otherwise: the ratios come from medians, and shuffling spreads a slow
   // spell of a shared machine over all three systems instead of over
   // whichever one happened to be running.
   std::vector<char*> args(argv, argv + argc);
   auto given = [&](char const* flag) {
      return std::any_of(args.begin(), args.end(), [&](char* a) { return std::string(a).rfind(flag, 0) == 0; });
   };
   std::string runs = "--benchmark_repetitions=5";
   std::string shuffled = "--benchmark_enable_random_interleaving=true";
   if (!given("--benchmark_repetitions")) args.push_back(runs.data());
   if (!given("--benchmark_enable_random_interleaving")) args.push_back(shuffled.data());
   int n = static_cast<int>(args.size());
   args.push_back(nullptr);
   argc = n;
   argv = args.data();
   benchmark::Initialize(&argc, argv);
   if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();
   printRatios();
   return 0;
}
