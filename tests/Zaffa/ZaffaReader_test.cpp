// The lock-free reader on a table that its writer changes between and during
// reads: growth, bucket splits and joins, compaction, overwrites under the
// lookaside slot, walks with and without their hint, and the faults that must
// be reported as corruption rather than retried forever.

#include "Zaffa/ZaffaReader.h"
#include "tests/Zaffa/ZaffaTestTypes.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

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

TEST(ZaffaReader, OverwriteInProgressIsReadFromTheLookasideSlot) {
   TempDir dir;
   Writer w(config(dir.path()));
   w.attach();
   w.write(TestValue::of(5, 1), true);
   Reader r{Mem::RootPath(dir.path())};
   std::string message;
   ASSERT_TRUE(r.attach(message)) << message;

   // Stop an overwrite half way, as the writer leaves it between raising
   // LOOKASIDE and finishing the copy: new value in the lookaside slot, the
   // slot itself half written.
   auto place = w.hashMap().find(TestKey::of(5), Writer::Map::hashOf(TestKey::of(5), w.slotTable().header()->hashSeed));
   ASSERT_TRUE(place.hit);
   Zaffa::RawSlot slot = w.slotTable().slot(place.slot);
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
   expectCorruption(3, "corrupt key detected. key:");
   std::memcpy(s3.value(), &saved, sizeof saved);

   // A chain that points back at itself.
   Zaffa::SlotLink own = Zaffa::loadLink(s3.link());
   Zaffa::storeLink(s3.link(), Zaffa::SlotLink{own.seq, p.slot});
   U64 const missing = 999999;
   // Some key that hashes into the looping chain and sorts after key 3.
   U64 id = 1000;
   for (;; ++id) {
      U32 h = Writer::Map::hashOf(TestKey::of(id), seed);
      if ((h & (w.numBuckets() - 1)) == p.bucket && Jorro::Util::reverse(h) > s3.rhash()) break;
   }
   (void)missing;
   expectCorruption(id, "hash chain cycle detected");
   Zaffa::storeLink(s3.link(), own);

   // A chain that leads to a free slot.
   U32 const freeSlot = w.slotTable().header()->freeSlots;
   ASSERT_NE(freeSlot, Zaffa::noSlot);
   Zaffa::storeLink(s3.link(), Zaffa::SlotLink{own.seq, freeSlot});
   expectCorruption(id, "not marked as occupied");
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
