// Readers and shadows that start before their writer, attach by themselves
// when its files appear, follow it by wake-ups, and resynchronise with a new
// generation; all driven by scheduler tasks on virtual time.

#include "Zaffa/ZaffaMap.h"
#include "tests/Zaffa/ZaffaTestTypes.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

using namespace ZaffaTest;

namespace {

using Map = Zaffa::ZaffaMap<TestKey, TestValue>;
using Zaffa::ImplType;
using Zaffa::MapDescriptor;
using Zaffa::MountStatus;

MapDescriptor writerIn(TempDir const& dir) { return MapDescriptor::sharedWriter(dir.path(), 16, 64); }

Vor::Ptr<Dov::TaskScheduler> virtualScheduler() {
   Vor::Ptr<Dov::TaskScheduler> s(new Dov::TaskScheduler());
   s->virtualTimeIs(true);
   return s;
}

// Keys a map reported, in order.
struct Reported {
   std::vector<U64> keys;
   std::set<U64> taken() {
      std::set<U64> s(keys.begin(), keys.end());
      keys.clear();
      return s;
   }
};

Map::Callbacks reportInto(Reported& r) {
   Map::Callbacks c;
   c.key = [&r](TestKey const& k) { r.keys.push_back(k.id); };
   return c;
}

std::set<U64> range(U64 from, U64 to) {
   std::set<U64> s;
   for (U64 i = from; i < to; ++i) s.insert(i);
   return s;
}

U64 stampOf(Map const& m, U64 id) {
   TestValue v;
   return m.lookup(TestKey::of(id), v) ? v.stamp : ~0ull;
}

Jolt::ReaderJoltSm& joltOf(Map& m) {
   return dynamic_cast<Zaffa::ZaffaShadowState<TestKey, TestValue>&>(m.impl()).shadow().jolt();
}

} // namespace

// The whole life of a shadow beside its writers: waiting, attaching on the
// sentry, following wake-ups, muted, losing the writer, and resynchronising
// with a re-formatted generation.
TEST(ZaffaMapReader, AShadowStartedFirstAttachesFollowsAndResynchronises) {
   TempDir dir;
   auto sched = virtualScheduler();
   Reported reported;
   Map shadow("hw");
   shadow.taskSchedulerIs(sched);
   shadow.callbacksIs(reportInto(reported));
   shadow.init(MapDescriptor::sharedReader(dir.path(), true));

   // No writer yet: an empty table behind a dummy, watching the root.
   EXPECT_EQ(shadow.type(), ImplType::dummy);
   EXPECT_EQ(shadow.mountStatus(), MountStatus::waiting);
   EXPECT_EQ(shadow.members(), 0u);
   EXPECT_FALSE(shadow.connected());
   ASSERT_NE(shadow.sentry(), nullptr);
   EXPECT_TRUE(shadow.sentry()->watching());
   EXPECT_FALSE(shadow.getCacheVersionAnchor().valid());
   try {
      shadow.validateVersionAnchor();
      ADD_FAILURE() << "a waiting map has no generation to validate";
   } catch (Jorro::AssertException const& e) {
      EXPECT_STREQ(e.what(), "should not be called on a default-constructed VersionAnchor");
   }
   sched->runFor(0.5);
   EXPECT_EQ(shadow.type(), ImplType::dummy);

   Map writer("hw");
   writer.taskSchedulerIs(sched);
   writer.init(writerIn(dir));
   EXPECT_TRUE(writer.connected()) << "a shared writer listens for its shadows";
   for (U64 i = 0; i < 10; ++i) writer.safeWrite(TestValue::of(i, i));
   sched->runFor(0.2);
   EXPECT_EQ(shadow.type(), ImplType::shadow);
   EXPECT_EQ(shadow.mountStatus(), MountStatus::mounted);
   EXPECT_TRUE(shadow.connected()) << "wake-ups connected to the writer";
   EXPECT_EQ(shadow.members(), 10u);
   EXPECT_EQ(reported.taken(), range(0, 10));
   Mem::CacheVersionAnchor const firstGeneration = shadow.getCacheVersionAnchor();
   EXPECT_EQ(firstGeneration.fenixId, writer.fenixId());
   EXPECT_EQ(writer.getCacheVersionAnchor(), firstGeneration);
   EXPECT_NO_THROW(shadow.validateVersionAnchor());
   EXPECT_NO_THROW(writer.validateVersionAnchor());

   // Changes reach the shadow by wake-ups alone: nobody calls poll().
   U64 const wakeupsBefore = joltOf(shadow).counters().wakeups;
   TestValue old;
   ASSERT_TRUE(writer.safeRemove(TestKey::of(3), old));
   writer.safeWrite(TestValue::of(4, 44));
   writer.safeWrite(TestValue::of(20, 20));
   sched->runFor(0.2);
   EXPECT_EQ(reported.taken(), (std::set<U64>{3, 4, 20}));
   EXPECT_EQ(stampOf(shadow, 4), 44u);
   EXPECT_EQ(stampOf(shadow, 3), ~0ull);
   EXPECT_GT(joltOf(shadow).counters().wakeups, wakeupsBefore);
   EXPECT_GT(shadow.readerCounters().slotReads, 0u);

   // Muted: no drain and no report however long we wait; unmuted, what
   // piled up arrives.
   shadow.notifyingIs(false);
   U64 const drains = joltOf(shadow).counters().drains;
   writer.safeWrite(TestValue::of(50, 50));
   writer.safeWrite(TestValue::of(5, 55));
   sched->runFor(2.0);
   EXPECT_TRUE(reported.keys.empty());
   EXPECT_EQ(stampOf(shadow, 50), ~0ull);
   EXPECT_EQ(joltOf(shadow).counters().drains, drains);
   shadow.notifyingIs(true);
   sched->runFor(0.2);
   EXPECT_EQ(reported.taken(), (std::set<U64>{5, 50}));
   EXPECT_EQ(stampOf(shadow, 5), 55u);

   // The writer goes: the shadow notices and keeps its copy.
   writer.detach(false);
   sched->runFor(0.2);
   EXPECT_EQ(shadow.mountStatus(), MountStatus::waiting);
   EXPECT_FALSE(shadow.connected());
   EXPECT_EQ(shadow.members(), 11u);
   EXPECT_EQ(stampOf(shadow, 50), 50u);

   // A new writer re-formats (a new generation) with other entries.
   ASSERT_TRUE(Zaffa::Util::writeCorruptionMarker(Mem::RootPath(dir.path() + "/hw"), "test"));
   Map writer2("hw");
   writer2.taskSchedulerIs(sched);
   writer2.init(writerIn(dir));
   ASSERT_NE(writer2.fenixId().generation(), firstGeneration.fenixId.generation());
   for (U64 i = 0; i < 5; ++i) writer2.safeWrite(TestValue::of(i, i + 1000));
   writer2.safeWrite(TestValue::of(200, 200));
   EXPECT_THROW(shadow.validateVersionAnchor(), Mem::VersionMismatchException)
      << "the copy is of the generation that was re-formatted";
   sched->runFor(0.2);
   EXPECT_EQ(shadow.mountStatus(), MountStatus::mounted);
   EXPECT_TRUE(shadow.connected());
   EXPECT_NO_THROW(shadow.validateVersionAnchor());
   EXPECT_NE(shadow.getCacheVersionAnchor(), firstGeneration);
   EXPECT_EQ(shadow.members(), 6u);
   // Exactly the keys that differ: 0..4 changed (3 came back), 200 is new,
   // 5..9, 20 and 50 went.
   std::set<U64> expected = range(0, 10);
   expected.insert({20, 50, 200});
   EXPECT_EQ(reported.taken(), expected);
   EXPECT_EQ(stampOf(shadow, 2), 1002u);
   EXPECT_EQ(stampOf(shadow, 50), ~0ull);

   // And it follows the new writer by wake-ups.
   writer2.safeWrite(TestValue::of(201, 201));
   sched->runFor(0.2);
   EXPECT_EQ(reported.taken(), (std::set<U64>{201}));
}

// A plain reader attaches on the sentry too, goes back to waiting when the
// writer's files are removed, and attaches again to the next writer.
TEST(ZaffaMapReader, AReaderWaitsAttachesAndFollowsTheFilesAway) {
   TempDir dir;
   auto sched = virtualScheduler();
   Map reader("hw");
   reader.taskSchedulerIs(sched);
   reader.init(MapDescriptor::sharedReader(dir.path(), false));
   EXPECT_EQ(reader.type(), ImplType::dummy);
   EXPECT_EQ(reader.members(), 0u);

   {
      Map writer("hw");
      writer.taskSchedulerIs(sched);
      writer.init(writerIn(dir));
      for (U64 i = 0; i < 7; ++i) writer.safeWrite(TestValue::of(i, i));
      sched->runFor(0.2);
      EXPECT_EQ(reader.type(), ImplType::reader);
      EXPECT_EQ(reader.members(), 7u);
      EXPECT_EQ(stampOf(reader, 6), 6u);
      EXPECT_GT(reader.readerCounters().lookups, 0u);
      EXPECT_NO_THROW(reader.validateVersionAnchor());
      writer.cleanupAndDetach();
      sched->runFor(0.2);
      EXPECT_EQ(reader.type(), ImplType::dummy);
      EXPECT_EQ(reader.mountStatus(), MountStatus::waiting);
      EXPECT_EQ(reader.members(), 0u);
   }

   Map writer("hw");
   writer.taskSchedulerIs(sched);
   writer.init(writerIn(dir));
   writer.safeWrite(TestValue::of(9, 99));
   sched->runFor(0.2);
   EXPECT_EQ(reader.type(), ImplType::reader);
   EXPECT_EQ(stampOf(reader, 9), 99u);

   // An orphan stops watching for good.
   reader.orphanIs();
   EXPECT_EQ(reader.sentry(), nullptr);
   writer.cleanupAndDetach();
   sched->runFor(0.2);
   EXPECT_EQ(reader.mountStatus(), MountStatus::orphan);
}
