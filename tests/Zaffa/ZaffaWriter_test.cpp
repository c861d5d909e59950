// The writer's operations: growth by the soft maximum, slot compaction,
// direct mode and its misuse, and a randomized run against a std::map model.

#include "tests/Zaffa/ZaffaTestTypes.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <random>

#include <sys/mount.h>
#include <sys/stat.h>

using namespace ZaffaTest;

namespace {

// Every key of the model is found with its value, no other key is, and the
// walk meets each entry once.
void expectMatchesModel(Writer& w, std::map<U64, TestValue> const& model, U64 keySpace) {
   ASSERT_EQ(w.members(), model.size());
   for (U64 id = 0; id < keySpace; ++id) {
      auto const* v = w.lookup(TestKey::of(id));
      auto it = model.find(id);
      if (it == model.end()) {
         ASSERT_EQ(v, nullptr) << "unexpected key " << id;
      } else {
         ASSERT_NE(v, nullptr) << "missing key " << id;
         ASSERT_EQ(std::memcmp(v, &it->second, sizeof(TestValue)), 0) << "wrong value for " << id;
      }
   }
   std::size_t walked = 0;
   for (auto const* v = w.first(); v; v = w.next(v->key)) {
      ASSERT_TRUE(model.count(v->key.id));
      ASSERT_LE(++walked, model.size());
   }
   ASSERT_EQ(walked, model.size());
}

} // namespace

TEST(ZaffaWriter, SoftMaximumGrowsByTenPercent) {
   TempDir dir;
   Writer w(config(dir.path(), 50, 100));
   w.attach();
   EXPECT_EQ(w.capacity(), 50u);
   EXPECT_EQ(w.slotTable().header()->freeSlots, 0u) << "an empty table gives slot 0 first";
   for (U64 i = 0; i < 50; ++i) w.write(TestValue::of(i, 0), true);
   EXPECT_EQ(w.slotTable().header()->freeSlots, Zaffa::noSlot) << "all slots taken";
   w.write(TestValue::of(50, 0), true);
   EXPECT_EQ(w.capacity(), 100u);
   for (U64 i = 51; i <= 100; ++i) w.write(TestValue::of(i, 0), true);
   EXPECT_EQ(w.capacity(), 110u);
   for (U64 i = 101; i <= 110; ++i) w.write(TestValue::of(i, 0), true);
   EXPECT_EQ(w.capacity(), 121u);
   EXPECT_EQ(w.slotTable().header()->mostSlots, 121u);
   EXPECT_TRUE(w.validate()) << w.lastValidationMessage();
}

TEST(ZaffaWriter, WriteWithoutOverwriteKeepsTheStoredValue) {
   Writer w(config(""));
   w.attach();
   w.write(TestValue::of(7, 1), true);
   auto const* v = w.write(TestValue::of(7, 2), false);
   EXPECT_EQ(v->stamp, 1u);
   EXPECT_EQ(w.lookup(TestKey::of(7))->stamp, 1u);
   v = w.write(TestValue::of(7, 3), true);
   EXPECT_EQ(v->stamp, 3u);
   EXPECT_EQ(w.members(), 1u);
   TestValue old;
   EXPECT_TRUE(w.remove(TestKey::of(7), old));
   EXPECT_EQ(old.stamp, 3u);
   EXPECT_FALSE(w.remove(TestKey::of(7), old));
}

TEST(ZaffaWriter, FixedTableFullLeavesTheTableAsItWas) {
   TempDir dir;
   auto c = config(dir.path(), 16, 16);
   c.fixed = true;
   Writer w(c);
   w.attach();
   for (U64 i = 0; i < 16; ++i) w.write(TestValue::of(i, 0), true);
   try {
      w.write(TestValue::of(99, 0), true);
      FAIL() << "a full fixed table must refuse";
   } catch (Zaffa::TableFullException const& e) {
      EXPECT_EQ(std::string(e.what()), "Zaffa table full (occupancy:16 tableSize:16) fixed-size table");
   }
   // The exception passed through the operation: it is marked as interrupted.
   EXPECT_EQ(w.slotTable().header()->runtimeFlags & 1, 1);
   EXPECT_EQ(w.members(), 16u);
   EXPECT_EQ(w.lookup(TestKey::of(99)), nullptr);
   EXPECT_TRUE(w.validate()) << w.lastValidationMessage();
   // An overwrite needs no slot.
   w.write(TestValue::of(3, 5), true);
   EXPECT_EQ(w.slotTable().header()->runtimeFlags & 1, 0);
}

TEST(ZaffaWriter, RemovingCompactsSlotsAndKeepsEveryKey) {
   TempDir dir;
   Writer w(config(dir.path(), 16, 64));
   w.attach();
   for (U64 i = 0; i < 1000; ++i) w.write(TestValue::of(i, i), true);
   U32 grown = w.capacity();
   U32 most = w.slotTable().header()->mostSlots;
   EXPECT_GE(grown, 1000u);
   EXPECT_GE(w.numBuckets(), 1000u);
   U32 threshold = w.slotTable().shrinkThreshold();
   ASSERT_GT(threshold, 0u);
   std::map<U64, TestValue> model;
   for (U64 i = 0; i < 1000; ++i) model[i] = TestValue::of(i, i);
   // Remove from the bottom, so that the survivors sit in high slots and
   // must be moved.
   U64 i = 0;
   while (w.capacity() == grown) {
      TestValue old;
      ASSERT_TRUE(w.remove(TestKey::of(i), old));
      model.erase(i++);
   }
   EXPECT_EQ(model.size(), threshold / 2 - 1) << "shrinks just below half the threshold";
   U32 n = static_cast<U32>(model.size());
   U32 target = 1u << ((31 - __builtin_clz(n)) + 2);
   EXPECT_EQ(w.capacity(), target);
   EXPECT_EQ(w.slotTable().header()->mostSlots, most) << "mostSlots never goes down";
   EXPECT_EQ(w.counters().slotShrinks, 1u);
   expectMatchesModel(w, model, 1000);
   EXPECT_TRUE(w.validate()) << w.lastValidationMessage();
   // Growing again after the shrink reuses the slots above the target.
   for (U64 k = 0; k < 300; ++k) {
      w.write(TestValue::of(k, 7), true);
      model[k] = TestValue::of(k, 7);
   }
   expectMatchesModel(w, model, 1000);
   EXPECT_TRUE(w.validate()) << w.lastValidationMessage();
}

TEST(ZaffaWriter, DirectModeWritesInPlace) {
   TempDir dir;
   Writer w(config(dir.path()));
   w.attach();
   TestValue* v = w.directWrite(TestKey::of(5));
   EXPECT_EQ(v->key, TestKey::of(5));
   EXPECT_EQ(v->stamp, 0u) << "a default value with the key";
   EXPECT_EQ(w.slotTable().header()->runtimeFlags & 1, 1) << "held until the commit";
   EXPECT_EQ(w.lookup(TestKey::of(5)), nullptr) << "not visible before the commit";
   *v = TestValue::of(5, 11);
   auto const* stored = w.directCommit();
   EXPECT_EQ(stored->stamp, 11u);
   EXPECT_EQ(w.slotTable().header()->runtimeFlags & 1, 0);

   // An existing key is written in the lookaside slot; the old value stays
   // in place until the commit.
   v = w.directWrite(TestKey::of(5));
   *v = TestValue::of(5, 12);
   EXPECT_EQ(w.lookup(TestKey::of(5))->stamp, 11u);
   EXPECT_EQ(w.directCommit()->stamp, 12u);

   v = w.directUpdate(TestKey::of(5));
   ASSERT_NE(v, nullptr);
   EXPECT_EQ(w.slotTable().header()->runtimeFlags & 1, 0) << "directUpdate does not hold the flag";
   *v = TestValue::of(5, 13);
   EXPECT_EQ(w.directCommit()->stamp, 13u);
   EXPECT_EQ(w.members(), 1u);
   EXPECT_TRUE(w.validate()) << w.lastValidationMessage();

   // A missing key leaves no trace in the header.
   Zaffa::SlotTableHeader before = *w.slotTable().header();
   EXPECT_EQ(w.directUpdate(TestKey::of(6)), nullptr);
   EXPECT_EQ(std::memcmp(&before, w.slotTable().header(), sizeof before), 0);
}

TEST(ZaffaWriter, UnbalancedDirectModeIsAnAssertion) {
   Writer w(config(""));
   w.attach();
   try {
      w.directCommit();
      FAIL();
   } catch (Jorro::AssertException const& e) {
      EXPECT_STREQ(e.what(), "not in direct mode! Make sure the DirectIs/Commit are properly paired!");
   }
   w.directWrite(TestKey::of(1));
   try {
      w.write(TestValue::of(2, 0), true);
      FAIL();
   } catch (Jorro::AssertException const& e) {
      std::string text = e.what();
      EXPECT_EQ(text.rfind("unbalanced directSlot:0 containing value:", 0), 0u) << text;
      EXPECT_NE(text.find("when writing value:TestValue(2, 0) - Make sure the DirectIs/Commit are properly paired!"),
                std::string::npos) << text;
   }
   TestValue old;
   EXPECT_THROW(w.remove(TestKey::of(1), old), Jorro::AssertException);
   EXPECT_THROW(w.directWrite(TestKey::of(3)), Jorro::AssertException);
   w.directCommit();
   EXPECT_EQ(w.members(), 1u);
}

TEST(ZaffaWriter, RandomOperationsMatchAModel) {
   TempDir dir;
   auto c = config(dir.path(), 16, 64);
   Writer w(c);
   w.attach();
   std::map<U64, TestValue> model;
   std::mt19937_64 rng(12345);
   U64 const keySpace = 700;
   U64 stamp = 0;
   auto deadline = std::chrono::steady_clock::now() +
                   std::chrono::duration<double>(testBudgetSeconds(2.0, 60.0));
   std::size_t steps = 0;
   // Phases alternate between filling and draining, so that the run crosses
   // slot growth, bucket splits, slot compaction and bucket shrinks.
   for (int phase = 0; std::chrono::steady_clock::now() < deadline || phase < 4; ++phase) {
      bool filling = phase % 2 == 0;
      for (int k = 0; k < 3000; ++k, ++steps) {
         U64 id = rng() % keySpace;
         // Cumulative shares of write, write without overwrite, remove,
         // directWrite; the rest is directUpdate.
         static constexpr int fill[4] = {40, 50, 70, 85};
         static constexpr int drain[4] = {5, 10, 90, 95};
         int const* share = filling ? fill : drain;
         int op = static_cast<int>(rng() % 100);
         TestValue v = TestValue::of(id, ++stamp);
         bool present = model.count(id) != 0;
         if (op < share[0]) {
            w.write(v, true);
            model[id] = v;
         } else if (op < share[1]) {
            auto const* got = w.write(v, false);
            if (!present) model[id] = v;
            ASSERT_EQ(std::memcmp(got, &model[id], sizeof v), 0);
         } else if (op < share[2]) {
            TestValue old;
            ASSERT_EQ(w.remove(v.key, old), present);
            if (present) {
               ASSERT_EQ(std::memcmp(&old, &model[id], sizeof v), 0);
               model.erase(id);
            }
         } else if (op < share[3]) {
            TestValue* buffer = w.directWrite(v.key);
            *buffer = v;
            w.directCommit();
            model[id] = v;
         } else {
            TestValue* buffer = w.directUpdate(v.key);
            ASSERT_EQ(buffer != nullptr, present);
            if (buffer) {
               *buffer = v;
               w.directCommit();
               model[id] = v;
            }
         }
         auto const* now = w.lookup(v.key);
         auto it = model.find(id);
         ASSERT_EQ(now != nullptr, it != model.end()) << "step " << steps;
         if (now) {
            ASSERT_EQ(std::memcmp(now, &it->second, sizeof v), 0);
         }
         ASSERT_EQ(w.members(), model.size());
         if (steps % 97 == 0) expectMatchesModel(w, model, keySpace);
      }
      expectMatchesModel(w, model, keySpace);
      ASSERT_TRUE(w.validate()) << w.lastValidationMessage();
   }
   auto const& k = w.counters();
   EXPECT_GT(k.slotGrows, 0u);
   EXPECT_GT(k.slotShrinks, 0u);
   EXPECT_GT(k.bucketGrows, 0u);
   EXPECT_GT(k.bucketShrinks, 0u);
   // The files survive the writer: a new one finds the same entries.
   w.detach(false);
   Writer again(c);
   again.attach();
   expectMatchesModel(again, model, keySpace);
}

namespace {

// A value whose default is not all zero bytes, so that a table of it must
// write the default into every new slot.
struct MarkedValue {
   TestKey key;
   U64 marker = 0x5a5a5a5a5a5a5a5aull;
   unsigned char payload[688] = {};
};
static_assert(sizeof(MarkedValue) == 736);

// Every slot on the free list is a new slot: not occupied, rhash 0, and the
// default value byte for byte. Right after a growth the free list holds just
// the slots that the growth added.
template <typename W, typename V>
void expectFreeSlotsAreNew(W& w, char const* when) {
   auto& slots = w.slotTable();
   V const fresh{};
   U32 seen = 0;
   for (U32 i = slots.header()->freeSlots; i != Zaffa::noSlot; i = Zaffa::loadLink(slots.slot(i).link()).next) {
      ASSERT_LT(i, slots.numSlots()) << when;
      ASSERT_LE(++seen, slots.numSlots()) << when << ": free list does not end";
      Zaffa::RawSlot s = slots.slot(i);
      ASSERT_FALSE(s.seq() & Zaffa::seqOccupied) << when << ": free slot " << i;
      ASSERT_EQ(s.rhash(), 0u) << when << ": free slot " << i;
      ASSERT_EQ(std::memcmp(s.value(), &fresh, sizeof(V)), 0) << when << ": free slot " << i << " holds an old value";
   }
   ASSERT_EQ(seen + w.members(), slots.numSlots()) << when;
}

template <typename V>
V valueFor(U64 id) {
   V v{};
   v.key = TestKey::of(id);
   std::memset(v.payload, static_cast<int>(0x80 | (id & 0x7F)), sizeof v.payload);
   return v;
}

// Grows, compacts and grows again within the length the file kept, and
// checks after each growth that no free slot shows what an earlier entry
// left there. Files that were just extended read as zeros, and a table whose
// default is zero skips writing them; anything else must be written.
template <typename V>
void checkGrownSlotsHoldTheDefault(std::string const& root) {
   Zaffa::WriterConfig c = config(root, 16, 64);
   Zaffa::ZaffaWriter<TestKey, V> w(c);
   w.attach();
   expectFreeSlotsAreNew<decltype(w), V>(w, "new table");
   U64 id = 0;
   for (; id < 200; ++id) {
      U32 before = w.capacity();
      w.write(valueFor<V>(id), true);
      if (w.capacity() != before) expectFreeSlotsAreNew<decltype(w), V>(w, "first growth");
   }
   U32 grown = w.capacity();
   V old;
   U64 low = 0;
   while (w.capacity() == grown) ASSERT_TRUE(w.remove(TestKey::of(low++), old));
   ASSERT_LT(w.capacity(), grown) << "the table compacted";
   for (; w.capacity() < grown; ++id) {
      U32 before = w.capacity();
      w.write(valueFor<V>(id), true);
      // These slots lie below the file's length, which a shrink keeps.
      if (w.capacity() != before) expectFreeSlotsAreNew<decltype(w), V>(w, "growth after compaction");
   }
   EXPECT_TRUE(w.validate()) << w.lastValidationMessage();
}

} // namespace

TEST(ZaffaWriter, GrownSlotsHoldTheDefaultValue) {
   {
      TempDir dir;
      checkGrownSlotsHoldTheDefault<TestValue>(dir.path());
   }
   {
      TempDir dir;
      checkGrownSlotsHoldTheDefault<MarkedValue>(dir.path());
   }
   // Process-local tables live in anonymous memory: a compaction gives back
   // whole pages only, and the rest keeps what it held.
   checkGrownSlotsHoldTheDefault<TestValue>("");
   checkGrownSlotsHoldTheDefault<MarkedValue>("");
}

// A file system that fills up while the table grows: every failure is an
// exception from the operation that needed the memory, never a SIGBUS at a
// store into memory that was not there. The queue file provides its record
// array as it fills, so it is the part most likely to meet the full disk
// mid-operation.
TEST(ZaffaWriter, FullFileSystemIsAnExceptionNotASignal) {
   TempDir dir;
   std::string mnt = dir.file("small");
   ASSERT_EQ(::mkdir(mnt.c_str(), 0755), 0);
   if (::mount("ulonat-test", mnt.c_str(), "tmpfs", 0, "size=2m") != 0) {
      GTEST_SKIP() << "cannot mount a small tmpfs here: " << std::strerror(errno);
   }
   std::string failure;
   U64 written = 0;
   {
      Writer w(config(mnt, 16, 1u << 20));
      w.attach();
      try {
         for (;; ++written) w.write(TestValue::of(written, 1), true);
      } catch (Zaffa::TableFullException const& e) {
         failure = std::string("table full: ") + e.what();
      } catch (Jorro::CorruptionDetectedException const& e) {
         failure = std::string("corruption: ") + e.what();
      }
      EXPECT_NE(failure.find("No space left on device"), std::string::npos) << failure;
      // 2 MiB hold some 2,700 slots of 752 bytes at the most.
      EXPECT_GT(written, 500u) << failure;
      EXPECT_LT(written, 2800u) << failure;
      for (U64 id = 0; id + 1 < written; id += 97) {
         auto const* v = w.lookup(TestKey::of(id));
         ASSERT_NE(v, nullptr) << id;
         EXPECT_TRUE(v->consistent()) << id;
      }
   }
   ::umount2(mnt.c_str(), MNT_DETACH);
   // Now the queue: a table whose slots fit, on a file system that something
   // else fills, overwritten until its queue needs memory that is not there.
   ASSERT_EQ(::mount("ulonat-test", mnt.c_str(), "tmpfs", 0, "size=12m"), 0) << std::strerror(errno);
   {
      Writer w(config(mnt, 8192, 8192));
      w.attach();
      for (U64 id = 0; id < 100; ++id) w.write(TestValue::of(id, 1), true);
      {
         std::FILE* filler = std::fopen((mnt + "/filler").c_str(), "w");
         ASSERT_NE(filler, nullptr);
         std::vector<char> block(4096, 'x');
         while (std::fwrite(block.data(), 1, block.size(), filler) == block.size() && std::fflush(filler) == 0) {
         }
         std::fclose(filler);
      }
      failure.clear();
      U64 overwrites = 0;
      try {
         for (U64 round = 2; round < 2000; ++round) {
            for (U64 id = 0; id < 100; ++id, ++overwrites) w.write(TestValue::of(id, round), true);
         }
      } catch (Jorro::CorruptionDetectedException const& e) {
         failure = e.what();
      }
      EXPECT_NE(failure.find("No space left on device"), std::string::npos) << "after " << overwrites << ": " << failure;
   }
   ::umount2(mnt.c_str(), MNT_DETACH);
}

// The queue of a table sized for many entries provides its record array as
// records arrive, and a writer that restarts on such a file goes on from
// where the records end.
TEST(ZaffaWriter, QueueMemoryIsProvidedAsItFills) {
   TempDir dir;
   auto blocksOf = [&](char const* name) {
      struct stat st;
      EXPECT_EQ(::stat(dir.file(name).c_str(), &st), 0);
      return static_cast<std::size_t>(st.st_blocks) * 512;
   };
   auto sizeOf = [&](char const* name) { return std::filesystem::file_size(dir.file(name)); };
   {
      Writer w(config(dir.path(), 1u << 16, 1u << 16));
      w.attach();
      for (U64 id = 0; id < 1000; ++id) w.write(TestValue::of(id, 1), true);
      EXPECT_GT(sizeOf(Zaffa::FileNames::trevine), 3u << 20) << "room for 3 records a slot";
      EXPECT_LT(blocksOf(Zaffa::FileNames::trevine), 1u << 20) << "but only what is used is backed";
      w.detach(false);
   }
   Writer w(config(dir.path(), 1u << 16, 1u << 16));
   w.attach();
   ASSERT_EQ(w.members(), 1000u);
   std::map<U64, TestValue> model;
   for (U64 id = 0; id < 1000; ++id) model[id] = TestValue::of(id, 1);
   // Enough records to pass several steps of provided memory.
   for (U64 round = 2; round < 80; ++round) {
      for (U64 id = 0; id < 1000; ++id) {
         w.write(TestValue::of(id, round), true);
         model[id] = TestValue::of(id, round);
      }
   }
   expectMatchesModel(w, model, 1000);
   EXPECT_TRUE(w.validate()) << w.lastValidationMessage();
}
