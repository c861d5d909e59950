// The states of a map: dummy before init, writer after, a reader waiting for
// its writer, orphans, and the recording of a corruption found at run time.

#include "Zaffa/ZaffaMap.h"
#include "tests/Zaffa/ZaffaTestTypes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sys/wait.h>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

using namespace ZaffaTest;

namespace {

using Map = Zaffa::ZaffaMap<TestKey, TestValue>;
using Zaffa::MapDescriptor;

MapDescriptor writerIn(TempDir const& dir) { return MapDescriptor::sharedWriter(dir.path(), 16, 64); }

template <typename F>
std::string thrownText(F&& f) {
   try {
      f();
   } catch (std::exception const& e) {
      return e.what();
   }
   return "(nothing thrown)";
}

} // namespace

TEST(ZaffaMap, DummyBeforeInitFindsNothingRefusesWritesAndTraces) {
   TraceCapture trace;
   Map map("shadow/entry");
   EXPECT_EQ(map.type(), Zaffa::ImplType::dummy);
   EXPECT_EQ(map.mountStatus(), Zaffa::MountStatus::unmounted);
   EXPECT_EQ(map.members(), 0u);
   TestValue v;
   EXPECT_FALSE(map.lookup(TestKey::of(1), v));
   EXPECT_FALSE(map.first(v));
   EXPECT_TRUE(trace.contains("ZaffaDummy::lookup shadow/entry rootPath: event:created TestKey(1)"))
      << trace.all();
   EXPECT_EQ(thrownText([&] { map.safeWrite(TestValue::of(1, 1)); }), "write to read-only Zaffa table");
   EXPECT_EQ(thrownText([&] { map.safeRemove(TestKey::of(1), v); }), "remove to read-only Zaffa table");
   EXPECT_EQ(thrownText([&] { map.directWrite(TestKey::of(1)); }), "write to read-only Zaffa table");
   trace.clear();
   map.cleanup();
   EXPECT_TRUE(trace.contains("shadow/entry trying to cleanup uninitialized zaffa.")) << trace.all();
}

TEST(ZaffaMap, SecondInitWithAnEqualDescriptorIsANoOpAndWithADifferentOneFails) {
   TempDir dir;
   TraceCapture trace;
   Map map("hw");
   map.init(writerIn(dir));
   ASSERT_EQ(map.type(), Zaffa::ImplType::writer);
   EXPECT_EQ(map.impl().rootPath(), dir.path() + "/hw");
   for (U64 i = 0; i < 20; ++i) map.safeWrite(TestValue::of(i, i));

   map.init(writerIn(dir));
   EXPECT_TRUE(trace.contains("name:hw already initialized, new mode:writer root:" + dir.path())) << trace.all();
   EXPECT_EQ(map.members(), 20u);

   MapDescriptor bigger = writerIn(dir);
   bigger.maxSlots = 128;
   std::string const text = thrownText([&] { map.init(bigger); });
   EXPECT_EQ(text.rfind("name:hw already initialized, old mode:writer", 0), 0u) << text;
   EXPECT_NE(text.find("maxSlots:64"), std::string::npos) << text;
   EXPECT_NE(text.find("new mode:writer root:" + dir.path() + " minSlots:16 maxSlots:128"), std::string::npos) << text;
   // The refused descriptor changed nothing.
   EXPECT_EQ(*map.descriptor(), writerIn(dir));
   TestValue v;
   ASSERT_TRUE(map.lookup(TestKey::of(7), v));
   EXPECT_EQ(v.stamp, 7u);
}

TEST(ZaffaMap, BadDescriptorsAreRefusedAndLeaveTheMapInitialisable) {
   TempDir dir;
   Map map("hw");
   MapDescriptor zero = writerIn(dir);
   zero.maxSlots = 0;
   EXPECT_EQ(thrownText([&] { map.init(zero); }),
             "0 is not a valid initialization size for collection hw in writer mode");
   MapDescriptor heap = writerIn(dir);
   heap.heapAllocation = true;
   EXPECT_EQ(thrownText([&] { map.init(heap); }),
             "cannot initialize collection hw heap allocation in non-local mode not allowed");
   MapDescriptor bogus = writerIn(dir);
   bogus.mode = static_cast<MapDescriptor::Mode>(9);
   EXPECT_EQ(thrownText([&] { map.init(bogus); }), "not a valid reader type:9");
   MapDescriptor async = MapDescriptor::sharedReader(dir.path(), true);
   async.asynchronous = true;
   map.notifyingIs(false);
   EXPECT_EQ(thrownText([&] { map.init(async); }),
             "notifications unexpectedly disabled prior to initialization with asynchronous mode");
   map.notifyingIs(true);
   // A root that cannot be made fails the attach, not the process.
   EXPECT_EQ(thrownText([&] { map.init(MapDescriptor::sharedWriter("/proc/no-such/root")); }),
             "failed to initialize collection hw");
   EXPECT_FALSE(map.descriptor().has_value());
   EXPECT_EQ(map.type(), Zaffa::ImplType::dummy);

   map.init(writerIn(dir));
   EXPECT_EQ(map.type(), Zaffa::ImplType::writer);
   // A heap table is allowed where it makes sense.
   Map local("local");
   MapDescriptor localHeap = MapDescriptor::localWriter(16, 64);
   localHeap.heapAllocation = true;
   local.init(localHeap);
   local.safeWrite(TestValue::of(3, 4));
   EXPECT_EQ(local.members(), 1u);
   EXPECT_EQ(local.impl().rootPath(), "");
}

TEST(ZaffaMap, AReaderWaitsBehindADummyThatRefusesWrites) {
   TempDir dir;
   Map reader("hw");
   reader.init(MapDescriptor::sharedReader(dir.path()));
   EXPECT_EQ(reader.type(), Zaffa::ImplType::dummy);
   EXPECT_EQ(reader.mountStatus(), Zaffa::MountStatus::waiting);
   EXPECT_EQ(reader.members(), 0u);
   EXPECT_EQ(thrownText([&] { reader.safeWrite(TestValue::of(1, 1)); }), "write to read-only Zaffa table");
   TestValue old;
   EXPECT_EQ(thrownText([&] { reader.safeRemove(TestKey::of(1), old); }), "remove to read-only Zaffa table");
   // The writer's files are not there: the dummy stays for the next try.
   EXPECT_FALSE(reader.tryAttach());
   EXPECT_EQ(reader.type(), Zaffa::ImplType::dummy);
   Map writer("hw");
   writer.init(writerIn(dir));
   EXPECT_EQ(thrownText([&] { writer.attach("test"); }), "invoked for a writer");
}

TEST(ZaffaMap, AnOrphanFindsNothingAndADetachedWriterRefuses) {
   TempDir dir;
   Map map("hw");
   map.init(writerIn(dir));
   map.safeWrite(TestValue::of(1, 1));
   map.orphanIs();
   EXPECT_EQ(map.type(), Zaffa::ImplType::dummy);
   EXPECT_EQ(map.mountStatus(), Zaffa::MountStatus::orphan);
   TestValue v;
   EXPECT_FALSE(map.lookup(TestKey::of(1), v));

   Map detached("hw2");
   detached.init(writerIn(dir));
   detached.detach(false);
   EXPECT_EQ(thrownText([&] { detached.safeWrite(TestValue::of(1, 1)); }), "not attached");
   // controlDetach goes back to a dummy that takes a new descriptor.
   detached.controlDetach();
   EXPECT_EQ(detached.type(), Zaffa::ImplType::dummy);
   detached.init(writerIn(dir));
   EXPECT_EQ(detached.members(), 0u);
}

TEST(ZaffaMapDeathTest, StrictOrphanAccessEndsTheProcess) {
   TempDir dir;
   MapDescriptor strict = writerIn(dir);
   strict.assertOnOrphanAccess = true;
   Map map("hw");
   map.init(strict);
   map.orphanIs();
   EXPECT_EQ(map.type(), Zaffa::ImplType::strictDummy);
   EXPECT_DEATH(map.members(),
                "hw::members\\(\\)\\. If you're seeing this, you're trying to operate on an orphan zaffa entity");
   TestValue v;
   EXPECT_DEATH(map.lookup(TestKey::of(1), v), "hw::lookup\\(\\)\\. If you're seeing this");
   EXPECT_DEATH(map.init(strict),
                "Re-initializing a collection that has already become an orphan and has assertOnOrphanAccess set");
}

TEST(ZaffaMapDeathTest, CorruptionIsRecordedAndTheNextAttachReformats) {
   TempDir dir;
   std::string const root = dir.path() + "/hw";
   SharedMem::FenixId before;
   {
      Map map("hw");
      map.init(writerIn(dir));
      for (U64 i = 0; i < 10; ++i) map.safeWrite(TestValue::of(i, i));
      before = map.impl().fenixId();
      // Slot 0 holds the first key; clearing its OCCUPIED bit while it is
      // linked is what a stray store would leave.
      int fd = ::open((root + "/" + Zaffa::FileNames::slots).c_str(), O_RDWR);
      ASSERT_GE(fd, 0);
      U32 seq = 0;
      // Header, then the lookaside slot, then slot 0, whose sequence is at 8.
      off_t const at = 944 + 8;
      ASSERT_EQ(::pread(fd, &seq, 4, at), 4);
      ASSERT_TRUE(seq & 1u);
      seq &= ~1u;
      ASSERT_EQ(::pwrite(fd, &seq, 4, at), 4);
      ::close(fd);
      EXPECT_DEATH(map.safeWrite(TestValue::of(0, 99)), "slot: 0 not marked as occupied");
      EXPECT_EQ(Zaffa::Util::readCorruptionMarker(Mem::RootPath(root)), "slot: 0 not marked as occupied");
   }
   TraceCapture trace;
   Map again("hw");
   again.init(writerIn(dir));
   EXPECT_TRUE(trace.contains("corruption-detected marker found: slot: 0 not marked as occupied")) << trace.all();
   EXPECT_TRUE(trace.contains("all entries from " + root + " will be lost")) << trace.all();
   EXPECT_EQ(again.members(), 0u);
   EXPECT_EQ(again.impl().fenixId().generation(), before.generation() + 1);
   EXPECT_EQ(Zaffa::Util::readCorruptionMarker(Mem::RootPath(root)), "");
   EXPECT_TRUE(again.validate());
}

namespace {

// Runs in the child: a reader-mode and a shadow-mode map on the parent's
// table. Returns 0 when all holds, else the number of the first failed check.
int readAsAnotherProcess(TempDir const& dir, int toParent, int fromParent) {
   Map reader("hw");
   reader.init(MapDescriptor::sharedReader(dir.path()));
   if (reader.type() != Zaffa::ImplType::reader) return 1;
   if (reader.members() != 30) return 2;
   TestValue v;
   if (!reader.lookup(TestKey::of(7), v) || v.stamp != 7 || !v.consistent()) return 3;
   try {
      reader.safeWrite(TestValue::of(1, 1));
      return 4;
   } catch (Jorro::AssertException const& e) {
      if (std::string(e.what()) != "write to read-only Zaffa table") return 5;
   }
   U32 walked = 0;
   for (bool more = reader.first(v); more; more = reader.next(v.key, v)) ++walked;
   if (walked != 30) return 6;

   Map shadow("hw");
   std::vector<U64> reported;
   Map::Callbacks callbacks;
   callbacks.key = [&](TestKey const& k) { reported.push_back(k.id); };
   shadow.callbacksIs(callbacks);
   shadow.init(MapDescriptor::sharedReader(dir.path(), true));
   if (shadow.type() != Zaffa::ImplType::shadow) return 7;
   if (shadow.members() != 30 || reported.size() != 30) return 8;

   char byte = 'r';
   if (::write(toParent, &byte, 1) != 1 || ::read(fromParent, &byte, 1) != 1) return 9;
   reported.clear();
   shadow.poll();
   if (shadow.lookup(TestKey::of(3), v)) return 10;
   if (!shadow.lookup(TestKey::of(100), v) || v.stamp != 100) return 11;
   if (!shadow.lookup(TestKey::of(4), v) || v.stamp != 44) return 12;
   std::sort(reported.begin(), reported.end());
   if (reported != std::vector<U64>{3, 4, 100}) return 13;
   // The direct reader sees the same, straight on the files.
   if (!reader.lookup(TestKey::of(100), v) || reader.members() != 30) return 14;
   return 0;
}

} // namespace

TEST(ZaffaMap, ReaderAndShadowInAnotherProcessSeeTheWritersEntries) {
   TempDir dir;
   Map writer("hw");
   writer.init(writerIn(dir));
   for (U64 i = 0; i < 30; ++i) writer.safeWrite(TestValue::of(i, i));
   int up[2], down[2];
   ASSERT_EQ(::pipe(up), 0);
   ASSERT_EQ(::pipe(down), 0);
   pid_t child = ::fork();
   ASSERT_GE(child, 0);
   if (child == 0) ::_exit(readAsAnotherProcess(dir, up[1], down[0]));
   char byte = 0;
   ASSERT_EQ(::read(up[0], &byte, 1), 1);
   TestValue old;
   ASSERT_TRUE(writer.safeRemove(TestKey::of(3), old));
   writer.safeWrite(TestValue::of(100, 100));
   writer.safeWrite(TestValue::of(4, 44));
   ASSERT_EQ(::write(down[1], &byte, 1), 1);
   int status = 0;
   ASSERT_EQ(::waitpid(child, &status, 0), child);
   ASSERT_TRUE(WIFEXITED(status));
   EXPECT_EQ(WEXITSTATUS(status), 0) << "first failed check in the child";
   for (int fd : {up[0], up[1], down[0], down[1]}) ::close(fd);
}
