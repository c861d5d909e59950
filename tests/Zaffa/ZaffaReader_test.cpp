// The lock-free reader on a table that its writer changes between and during
// reads: growth, bucket splits and joins, compaction, overwrites under the
// lookaside slot, walks with and without their hint, and the faults that must
// be reported as corruption rather than retried forever.

#include "Zaffa/ZaffaReader.h"
#include "tests/Zaffa/ZaffaTestTypes.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <poll.h>
#include <sys/wait.h>

using namespace ZaffaTest;

namespace {

using Reader = Zaffa::ZaffaReader<TestKey, TestValue>;

// The reader finds exactly the model, by lookup and by a walk that meets
// every key once.
void expectReaderMatches(Reader& r, std::map<U64, TestValue> const& model, U64 keySpace) {
   for (U64 id = 0; id < keySpace; ++id) {
      TestValue v;
      bool found = r.lookup(TestKey::of(id), v);
      auto it = model.find(id);
      ASSERT_EQ(found, it != model.end()) << "key " << id;
      if (found) {
         ASSERT_EQ(std::memcmp(&v, &it->second, sizeof v), 0) << "value of " << id;
      }
   }
   std::set<U64> seen;
   TestValue v;
   Zaffa::IterHint hint;
   for (bool more = r.first(v, hint); more; more = r.next(v.key, v, hint)) {
      ASSERT_TRUE(v.consistent());
      ASSERT_TRUE(model.count(v.key.id)) << "walk met unknown key " << v.key.id;
      ASSERT_TRUE(seen.insert(v.key.id).second) << "walk met key " << v.key.id << " twice";
   }
   ASSERT_EQ(seen.size(), model.size());
   EXPECT_EQ(r.members(), model.size());
}

} // namespace

TEST(ZaffaReader, FollowsGrowthSplitsShrinkAndCompaction) {
   TempDir dir;
   Writer w(config(dir.path(), 16, 64));
   w.attach();
   Reader r{Mem::RootPath(dir.path())};
   std::string message;
   ASSERT_TRUE(r.attach(message)) << message;
   EXPECT_EQ(r.members(), 0u);
   TestValue v;
   Zaffa::IterHint hint;
   EXPECT_FALSE(r.first(v, hint)) << "an empty table has no first entry";

   std::map<U64, TestValue> model;
   std::mt19937_64 rng(7);
   U64 stamp = 0;
   // Grow well past the initial slots and buckets, then drain to force
   // compaction and bucket joins, then grow again; the reader is attached
   // once and must follow every step.
   for (int phase = 0; phase < 3; ++phase) {
      U64 const target = phase == 1 ? 20 : 400;
      while (model.size() != target) {
         U64 id = rng() % 1000;
         if (model.size() < target) {
            auto value = TestValue::of(id, ++stamp);
            w.write(value, true);
            model[id] = value;
         } else if (model.count(id)) {
            TestValue old;
            ASSERT_TRUE(w.remove(TestKey::of(id), old));
            model.erase(id);
         }
      }
      expectReaderMatches(r, model, 1000);
      if (HasFatalFailure()) return;
   }
   EXPECT_GT(w.counters().slotShrinks, 0u);
   EXPECT_GT(w.counters().bucketGrows, 1u);
   EXPECT_GT(w.counters().bucketShrinks, 0u);
   EXPECT_EQ(r.capacity(), w.capacity());
   EXPECT_EQ(r.buckets().numBuckets(), w.numBuckets());
   EXPECT_GT(r.counters().resizes, 0u);
}

TEST(ZaffaReader, NextFromAKeyThatIsGoneTakesTheSlowPath) {
   TempDir dir;
   Writer w(config(dir.path(), 64, 256));
   w.attach();
   for (U64 id = 0; id < 50; ++id) w.write(TestValue::of(id, 1), true);
   Reader r{Mem::RootPath(dir.path())};
   std::string message;
   ASSERT_TRUE(r.attach(message)) << message;
   // Walk half way, remove the key we stand on and the next few, and go on:
   // every key still present after our place must still come.
   TestValue v;
   Zaffa::IterHint hint;
   std::vector<U64> order;
   for (bool more = r.first(v, hint); more; more = r.next(v.key, v, hint)) order.push_back(v.key.id);
   ASSERT_EQ(order.size(), 50u);
   U64 const slowBefore = r.counters().slowPaths;

   ASSERT_TRUE(r.first(v, hint));
   for (int i = 0; i < 20; ++i) ASSERT_TRUE(r.next(v.key, v, hint));
   EXPECT_EQ(r.counters().slowPaths, slowBefore) << "a quiet table is walked on the fast path";
   ASSERT_EQ(v.key.id, order[20]);
   TestValue old;
   for (int i = 20; i < 24; ++i) ASSERT_TRUE(w.remove(TestKey::of(order[i]), old));
   std::vector<U64> rest;
   for (bool more = r.next(v.key, v, hint); more; more = r.next(v.key, v, hint)) rest.push_back(v.key.id);
   EXPECT_EQ(rest, std::vector<U64>(order.begin() + 24, order.end()));
   EXPECT_GT(r.counters().slowPaths, slowBefore);
   EXPECT_EQ(hint.toString().rfind("IterHint{ version ", 0), 0u) << hint.toString();
}

// A table holding key 5 with stamp 1, a reader attached to it, and where
// the writer keeps the key: for tests that play the writer by hand.
struct OneKeyTable {
   TempDir dir;
   Writer w{config(dir.path())};
   Reader r{Mem::RootPath(dir.path())};
   Writer::Map::Place place;

   OneKeyTable() {
      w.attach();
      w.write(TestValue::of(5, 1), true);
      std::string message;
      if (!r.attach(message)) throw std::runtime_error("reader attach: " + message);
      U32 const seed = w.slotTable().header()->hashSeed;
      place = w.hashMap().find(TestKey::of(5), Writer::Map::hashOf(TestKey::of(5), seed));
      if (!place.hit) throw std::runtime_error("key 5 not found by the writer");
   }
};

TEST(ZaffaReader, OverwriteInProgressIsReadFromTheLookasideSlot) {
   OneKeyTable t;
   Writer& w = t.w;
   Reader& r = t.r;

   // Stop an overwrite half way, as the writer leaves it between raising
   // LOOKASIDE and finishing the copy: new value in the lookaside slot, the
   // slot itself half written.
   Zaffa::RawSlot slot = w.slotTable().slot(t.place.slot);
   Zaffa::RawSlot look = w.slotTable().lookaside();
   TestValue newer = TestValue::of(5, 2);
   look.rhashIs(slot.rhash());
   std::memcpy(look.value(), &newer, sizeof newer);
   U32 const seq = slot.seq();
   slot.seqIs(seq + 2);
   std::memset(slot.value() + 100, 0xAB, 300);

   TestValue v;
   ASSERT_TRUE(r.lookup(TestKey::of(5), v));
   EXPECT_TRUE(v.consistent());
   EXPECT_EQ(v.stamp, 2u);
   EXPECT_EQ(r.counters().lookasideReads, 1u);

   // Finish the write; the slot is read again.
   std::memcpy(slot.value(), &newer, sizeof newer);
   slot.seqIs((seq + 4) | Zaffa::seqOccupied);
   ASSERT_TRUE(r.lookup(TestKey::of(5), v));
   EXPECT_EQ(v.stamp, 2u);
   EXPECT_EQ(r.counters().lookasideReads, 1u);
}

TEST(ZaffaReader, FaultsThatSurviveTheRecheckAreCorruption) {
   TempDir dir;
   Writer w(config(dir.path(), 64, 256));
   w.attach();
   for (U64 id = 0; id < 40; ++id) w.write(TestValue::of(id, 1), true);
   Reader r{Mem::RootPath(dir.path())};
   std::string message;
   ASSERT_TRUE(r.attach(message)) << message;
   U32 const seed = w.slotTable().header()->hashSeed;
   auto placeOf = [&](U64 id) { return w.hashMap().find(TestKey::of(id), Writer::Map::hashOf(TestKey::of(id), seed)); };

   auto expectCorruption = [&](U64 id, std::string const& text) {
      TestValue v;
      try {
         r.lookup(TestKey::of(id), v);
         ADD_FAILURE() << "no corruption reported for key " << id << ", wanted: " << text;
      } catch (Jorro::CorruptionDetectedException const& e) {
         EXPECT_NE(std::string(e.what()).find(text), std::string::npos) << e.what();
      }
   };

   // A walk meets the same faults with its own texts: it names the key it
   // walks on from, and its bucket without the colon.
   auto expectWalkCorruption = [&](std::string const& text) {
      TestValue v;
      Zaffa::IterHint hint;
      try {
         U64 entries = 0;
         for (bool more = r.first(v, hint); more && ++entries < 1000; more = r.next(v.key, v, hint)) {
         }
         ADD_FAILURE() << "no corruption reported by a walk, wanted: " << text;
      } catch (Jorro::CorruptionDetectedException const& e) {
         EXPECT_NE(std::string(e.what()).find(text), std::string::npos) << e.what();
      }
   };

   // A key whose stored bytes changed (so its hash no longer fits its chain),
   // with its sequence untouched, as a stray store would leave it. The seed
   // is random, and the reader accepts a key in its bucket under numBuckets
   // and under numBuckets / 2 (one join behind): pick a damage whose hash fits
   // neither, or the stray store would be indistinguishable from a resize.
   auto p = placeOf(3);
   ASSERT_TRUE(p.hit);
   Zaffa::RawSlot s3 = w.slotTable().slot(p.slot);
   TestValue saved;
   std::memcpy(&saved, s3.value(), sizeof saved);
   U32 const half = r.buckets().numBuckets() / 2;
   ASSERT_GE(half, 2u);
   U64 damage = 0x5555;
   for (;; ++damage) {
      TestKey k = saved.key;
      k.pad[1] ^= damage;
      if ((k.hash(seed) & (half - 1)) != (p.bucket & (half - 1))) break;
   }
   reinterpret_cast<TestValue*>(s3.value())->key.pad[1] ^= damage;
   expectCorruption(3, fmt::format("corrupt key detected. key:TestKey(3) bucketIndex:{}", p.bucket));
   expectWalkCorruption(fmt::format("corrupt key detected. key:TestKey(3) bucketIndex {}", p.bucket));
   std::memcpy(s3.value(), &saved, sizeof saved);

   // A chain that points back at itself.
   Zaffa::SlotLink own = Zaffa::loadLink(s3.link());
   Zaffa::storeLink(s3.link(), Zaffa::SlotLink{own.seq, p.slot});
   // Some key that hashes into the looping chain and sorts after key 3.
   U64 id = 1000;
   for (;; ++id) {
      U32 h = Writer::Map::hashOf(TestKey::of(id), seed);
      if ((h & (w.numBuckets() - 1)) == p.bucket && Jorro::Util::reverse(h) > s3.rhash()) break;
   }
   expectCorruption(id, "hash chain cycle detected, slotCount:");
   expectWalkCorruption("hash chain cycle detected, slotCount:");
   Zaffa::storeLink(s3.link(), own);

   // A chain that leads to a free slot.
   U32 const freeSlot = w.slotTable().header()->freeSlots;
   ASSERT_NE(freeSlot, Zaffa::noSlot);
   Zaffa::storeLink(s3.link(), Zaffa::SlotLink{own.seq, freeSlot});
   expectCorruption(id, fmt::format("slow-path slot:{} not marked as occupied key:TestKey({}) slotCount:", freeSlot, id));
   expectWalkCorruption(fmt::format("slow-path slot:{} not marked as occupied key:TestKey(3) slotCount:", freeSlot));
   Zaffa::storeLink(s3.link(), own);
   TestValue v;
   EXPECT_TRUE(r.lookup(TestKey::of(3), v));
}

TEST(ZaffaReader, AttachNeedsTheWritersFilesOfOneGenerationAndType) {
   TempDir dir;
   Reader r{Mem::RootPath(dir.path())};
   std::string message;
   EXPECT_FALSE(r.attach(message));
   EXPECT_EQ(message, "failed to read fenix file");
   EXPECT_THROW(r.members(), Jorro::AssertException);

   {
      Writer w(config(dir.path()));
      w.attach();
      w.write(TestValue::of(1, 1), true);
   }
   ASSERT_TRUE(r.attach(message)) << message;
   EXPECT_NO_THROW(r.validateVersionAnchor());
   r.detach();

   // Another value type in the same files.
   struct OtherValue {
      TestKey key;
      unsigned char rest[696];
   };
   static_assert(sizeof(OtherValue) == sizeof(TestValue));
   Zaffa::ZaffaReader<TestKey, OtherValue> other{Mem::RootPath(dir.path())};
   EXPECT_FALSE(other.attach(message));
   EXPECT_NE(message.find("failed to validate slots"), std::string::npos) << message;

   // A new generation in the root directory makes an attached reader stale.
   ASSERT_TRUE(r.attach(message)) << message;
   SharedMem::FenixFile(dir.file(Zaffa::FileNames::fenix)).write(r.fenixId().nextGeneration());
   EXPECT_THROW(r.validateVersionAnchor(), Mem::VersionMismatchException);
}

// The slot read decides from the key and copies the value in the same window
// between two equal sequence words. The decision callback runs exactly inside
// that window, so a test can act as the writer there: whatever the writer
// does between the key and the value must send the read round again, and
// what comes back (decision, key, value) must be one version of the slot.
TEST(ZaffaReader, SlotReadDecidesAndCopiesWithinOneVersionOfTheSlot) {
   OneKeyTable t;
   Writer& w = t.w;
   Reader& r = t.r;
   auto const& place = t.place;
   Zaffa::RawSlot slot = w.slotTable().slot(place.slot);
   Zaffa::SlotReaderTable& slots = r.slots();
   auto const keyOffset = offsetof(TestValue, key);

   // The writer replaces the value (stamp 1 -> 2) after the reader has taken
   // the key and decided. The copy that follows sees stamp 2 under the old
   // sequence, which must not be handed out as it stands: the read goes
   // round and returns the new version whole, with its own sequence.
   {
      TestKey k;
      TestValue v;
      int calls = 0;
      U64 const retries = slots.counters().retries;
      auto got = slots.read(place.slot, keyOffset, sizeof k, &k, &v, [&](U32, U32) {
         if (calls++ == 0) w.write(TestValue::of(5, 2), true);
         return k == TestKey::of(5);
      });
      EXPECT_EQ(calls, 2);
      EXPECT_EQ(slots.counters().retries, retries + 1);
      ASSERT_TRUE(got.copied);
      EXPECT_EQ(got.seq, slot.seq());
      EXPECT_EQ(got.rhash, slot.rhash());
      EXPECT_TRUE(v.consistent());
      EXPECT_EQ(v.stamp, 2u);
   }

   // The slot is freed and given to another key between the decision on
   // key 5 and the copy: the value copied would be key 6's. The read goes
   // round, sees key 6, and this time nothing is wanted.
   {
      TestKey k;
      TestValue v = TestValue::of(77, 77);
      TestValue const untouched = v;
      int calls = 0;
      auto got = slots.read(place.slot, keyOffset, sizeof k, &k, &v, [&](U32, U32) {
         if (calls++ == 0) {
            TestValue old;
            EXPECT_TRUE(w.remove(TestKey::of(5), old));
            w.write(TestValue::of(6, 3), true);
         }
         return k == TestKey::of(5);
      });
      ASSERT_EQ(w.hashMap().find(TestKey::of(6), Writer::Map::hashOf(TestKey::of(6), w.slotTable().header()->hashSeed)).slot, place.slot)
         << "the freed slot was expected to be the next one given out";
      EXPECT_EQ(calls, 2);
      EXPECT_FALSE(got.copied);
      EXPECT_EQ(k, TestKey::of(6)) << "the key returned is that of the read that counts";
      EXPECT_EQ(got.seq, slot.seq());
      // The copy made under the spoiled decision may stay in the buffer (the
      // caller ignores it), but the read that returned wanted nothing.
      (void)untouched;
   }

   // An overwrite is caught half way after the decision: LOOKASIDE is up, the
   // new value stands in the lookaside slot, the slot itself is half
   // rewritten. The copy that follows the decision reads the half-written
   // slot; the read must go round and take the value from the lookaside slot.
   {
      TestKey k;
      TestValue v;
      int calls = 0;
      TestValue const newer = TestValue::of(6, 4);
      U32 const seq = slot.seq();
      U64 const lookaside = slots.counters().lookasideReads;
      auto got = slots.read(place.slot, keyOffset, sizeof k, &k, &v, [&](U32, U32) {
         if (calls++ == 0) {
            Zaffa::RawSlot look = w.slotTable().lookaside();
            look.rhashIs(slot.rhash());
            std::memcpy(look.value(), &newer, sizeof newer);
            slot.seqIs(seq + 2);
            std::memset(slot.value() + 100, 0xAB, 300);
         }
         return k == TestKey::of(6);
      });
      EXPECT_EQ(calls, 2);
      ASSERT_TRUE(got.copied);
      EXPECT_EQ(got.seq, seq + 2);
      EXPECT_EQ(slots.counters().lookasideReads, lookaside + 1);
      EXPECT_TRUE(v.consistent());
      EXPECT_EQ(v.stamp, 4u);
      // Finish the write as the writer would, so that the table is whole.
      std::memcpy(slot.value(), &newer, sizeof newer);
      slot.seqIs((seq + 4) | Zaffa::seqOccupied);
   }
   TestValue v;
   ASSERT_TRUE(r.lookup(TestKey::of(6), v));
   EXPECT_EQ(v.stamp, 4u);
   EXPECT_FALSE(r.lookup(TestKey::of(5), v));
}

namespace {

// Ids of keys whose hashes agree in their low 12 bits: under any number of
// buckets up to 4096 they share one chain.
std::vector<U64> collidingIds(U32 seed, std::size_t count) {
   std::vector<U64> ids;
   U32 const wanted = TestKey::of(0).hash(seed) & 0xFFF;
   for (U64 id = 0; ids.size() < count; ++id) {
      if ((TestKey::of(id).hash(seed) & 0xFFF) == wanted) ids.push_back(id);
   }
   return ids;
}

// Runs `body(fd)` as a writer in a child process, with the write end of a
// pipe on which it tells the parent how far it got; the parent keeps the read
// end in `fd`. The child exits with body's code, or 4 after an exception.
template <typename Body>
pid_t forkWriter(int& fd, Body&& body) {
   int p[2];
   if (::pipe(p) != 0) return -1;
   pid_t pid = ::fork();
   if (pid == 0) {
      ::close(p[0]);
      int code = 4;
      try {
         code = body(p[1]);
      } catch (std::exception const& e) {
         std::fprintf(stderr, "writer: %s\n", e.what());
      }
      _exit(code);
   }
   ::close(p[1]);
   fd = p[0];
   return pid;
}

struct ChainReport {
   U64 lookups = 0;
   U64 hits = 0;
   U64 misses = 0;
   U64 walks = 0;
   U64 failures = 0;
   char firstFailure[200] = {};
};

} // namespace

// One long chain: every lookup walks past many slots that hold other keys.
// Quiet, each key is found with its exact value, a key that sorts between
// them is missed without `value` being written, and the walk meets each key
// once. Then a writer in another process overwrites, removes and re-inserts
// the keys of the chain (so that freed slots go to other keys) while the
// reader looks up and walks: every value returned is whole, under the key
// asked for, and never older than one seen before for that key.
TEST(ZaffaReader, LongChainLookupsReturnOnlyWholeValuesWhileAWriterChurns) {
   TempDir dir;
   auto const c = config(dir.path(), 64, 256);
   U32 seed = 0;
   std::vector<U64> present, absent;
   {
      Writer w(c);
      w.attach();
      seed = w.slotTable().header()->hashSeed;
      std::vector<U64> ids = collidingIds(seed, 60);
      for (std::size_t i = 0; i < ids.size(); ++i) (i % 4 == 3 ? absent : present).push_back(ids[i]);
      for (U64 id : present) w.write(TestValue::of(id, 1), true);
      w.detach(false);
   }
   Reader r{Mem::RootPath(dir.path())};
   std::string message;
   ASSERT_TRUE(r.attach(message)) << message;

   U64 const slotReadsBefore = r.counters().slotReads;
   for (U64 id : present) {
      TestValue v;
      ASSERT_TRUE(r.lookup(TestKey::of(id), v)) << id;
      TestValue const expected = TestValue::of(id, 1);
      ASSERT_EQ(std::memcmp(&v, &expected, sizeof v), 0) << id;
   }
   for (U64 id : absent) {
      TestValue v = TestValue::of(123456, 9);
      TestValue const before = v;
      ASSERT_FALSE(r.lookup(TestKey::of(id), v)) << id;
      ASSERT_EQ(std::memcmp(&v, &before, sizeof v), 0) << "a miss on a quiet table wrote into the value";
   }
   // Each lookup walks its chain in order, so the lookups of all present
   // keys read about n^2/2 slots: this really is one chain.
   EXPECT_GT(r.counters().slotReads - slotReadsBefore, present.size() * present.size() / 2);
   {
      std::set<U64> seen;
      TestValue v;
      Zaffa::IterHint hint;
      for (bool more = r.first(v, hint); more; more = r.next(v.key, v, hint)) {
         ASSERT_TRUE(v.consistent());
         ASSERT_TRUE(seen.insert(v.key.id).second) << v.key.id;
      }
      EXPECT_EQ(seen, std::set<U64>(present.begin(), present.end()));
   }
   r.detach();

   double const seconds = testBudgetSeconds(1.5, 30.0);
   int ready = -1;
   pid_t writer = forkWriter(ready, [&](int fd) {
      Writer w(c);
      w.attach();
      char ok = 1;
      if (::write(fd, &ok, 1) != 1) return 3;
      std::mt19937_64 rng(5);
      auto const end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
      for (U64 n = 0, stamp = 1;; ++n) {
         if ((n & 255) == 0 && std::chrono::steady_clock::now() >= end) break;
         U64 const id = present[rng() % present.size()];
         if (rng() % 5 == 0) {
            // Out and back in: the freed slot goes to whichever key is
            // inserted next, and the key comes back in another slot.
            TestValue old;
            w.remove(TestKey::of(id), old);
            U64 const other = present[rng() % present.size()];
            w.write(TestValue::of(other, ++stamp), true);
         }
         w.write(TestValue::of(id, ++stamp), true);
      }
      return w.validate() ? 0 : 5;
   });
   ASSERT_GE(writer, 0);
   char ok = 0;
   ASSERT_EQ(::read(ready, &ok, 1), 1) << "writer failed to attach";
   ::close(ready);
   for (int i = 0; i < 1000 && !r.attach(message); ++i) ::usleep(1000);
   ASSERT_TRUE(r.attached()) << message;

   ChainReport report;
   auto fail = [&](std::string const& text) {
      if (report.failures++ == 0) std::snprintf(report.firstFailure, sizeof report.firstFailure, "%s", text.c_str());
   };
   std::map<U64, U64> newest;
   std::mt19937_64 rng(6);
   auto const end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
   try {
      for (U64 n = 0; report.failures == 0; ++n) {
         if ((n & 255) == 0 && std::chrono::steady_clock::now() >= end) break;
         if (n % 500 == 499) {
            TestValue v;
            Zaffa::IterHint hint;
            U64 entries = 0;
            for (bool more = r.first(v, hint); more; more = r.next(v.key, v, hint)) {
               if (!v.consistent()) fail(fmt::format("walk: torn value of key {}", v.key.id));
               if (++entries > 4 * present.size()) {
                  fail("walk does not end");
                  break;
               }
            }
            ++report.walks;
            continue;
         }
         bool const wantAbsent = n % 8 == 0;
         U64 const id = wantAbsent ? absent[rng() % absent.size()] : present[rng() % present.size()];
         // Asked by the key inside the value it fills, as callers may: a
         // copy thrown away during the walk must not change what it looks for.
         TestValue v;
         v.key = TestKey::of(id);
         bool const found = r.lookup(v.key, v);
         ++report.lookups;
         if (wantAbsent) {
            if (found) fail(fmt::format("found key {} that was never written", id));
            continue;
         }
         if (!found) {
            ++report.misses;   // between its removal and its return
            continue;
         }
         ++report.hits;
         if (!v.consistent()) fail(fmt::format("lookup of {}: torn value", id));
         if (!(v.key == TestKey::of(id))) fail(fmt::format("lookup of {} returned key {}", id, v.key.id));
         U64& last = newest[id];
         if (v.stamp < last) fail(fmt::format("lookup of {} went back from stamp {} to {}", id, last, v.stamp));
         last = v.stamp;
      }
   } catch (std::exception const& e) {
      fail(std::string("exception: ") + e.what());
   }
   if (report.failures != 0) ::kill(writer, SIGKILL);
   int status = 0;
   ::waitpid(writer, &status, 0);
   auto const& counters = r.counters();
   std::printf("chain of %zu: %llu lookups (%llu hits, %llu misses of removed keys), %llu walks; lookaside "
               "reads %llu, slot retries %llu, walk restarts %llu\n",
               present.size(), static_cast<unsigned long long>(report.lookups), static_cast<unsigned long long>(report.hits),
               static_cast<unsigned long long>(report.misses), static_cast<unsigned long long>(report.walks),
               static_cast<unsigned long long>(counters.lookasideReads), static_cast<unsigned long long>(counters.retries),
               static_cast<unsigned long long>(counters.walkRestarts));
   EXPECT_EQ(report.failures, 0u) << report.firstFailure;
   if (report.failures == 0) {
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "writer status " << status;
   }
   EXPECT_GT(report.hits, 1000u);
   EXPECT_GT(report.walks, 0u);
}

// A reader may attach at any moment of the writer's life, also while the
// writer grows the slot and bucket files and publishes their new sizes: a
// file size taken before the header's count was read must not make the files
// look too short for their count. Files only get longer the first time a
// table reaches a size, so the writer grows a fresh table in each of a series
// of directories, and the reader attaches to the newest one over and over.
TEST(ZaffaReader, AttachesWhileTheWriterGrowsItsFiles) {
   TempDir dir;
   int const tables = 40;
   auto rootOf = [&](int i) { return dir.path() + "/" + std::to_string(i); };
   int ready = -1;
   pid_t writer = forkWriter(ready, [&](int fd) {
      for (int i = 0; i < tables; ++i) {
         auto c = config(rootOf(i), 16, 16);
         c.initialBuckets = 2;
         Writer w(c);
         w.attach();
         char const n = static_cast<char>(i);
         if (::write(fd, &n, 1) != 1) return 3;
         // About 45 grows of the slot file by a tenth, and the buckets
         // doubling from 2 to 1024.
         for (U64 id = 0; id < 1000; ++id) w.write(TestValue::of(id, 1), true);
         w.detach(false);
      }
      return 0;
   });
   ASSERT_GE(writer, 0);
   U64 attaches = 0, failures = 0;
   std::string firstFailure;
   int current = -1;
   for (;;) {
      // The newest table the writer has attached; wait for the first.
      pollfd p{ready, POLLIN, 0};
      bool ended = false;
      while (::poll(&p, 1, current < 0 ? 10000 : 0) > 0) {
         char n;
         if (::read(ready, &n, 1) != 1) {
            ended = true;
            break;
         }
         current = n;
      }
      if (ended || current < 0) break;
      Reader r{Mem::RootPath(rootOf(current))};
      std::string message;
      if (r.attach(message)) {
         ++attaches;
      } else if (failures++ == 0) {
         firstFailure = message;
      }
   }
   ::close(ready);
   int status = 0;
   ::waitpid(writer, &status, 0);
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "writer status " << status;
   EXPECT_EQ(current, tables - 1);
   EXPECT_EQ(failures, 0u) << "of " << attaches + failures << " attaches, first: " << firstFailure;
   EXPECT_GT(attaches, static_cast<U64>(tables));
}
