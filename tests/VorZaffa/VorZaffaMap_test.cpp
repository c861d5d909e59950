// NatHwShadow on the shared-memory table: reactors told per key, the
// counters, restarts against the same files, parents and orphans, and the
// entity kept by its control after its last outside reference.

#include "UloNat/UloNatAsyncEntities.h"
#include "VorZaffa/VorZaffaMap.h"
#include "framework/VorReactor.h"
#include "tests/Zaffa/ZaffaTestTypes.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace Ulo;
using ZaffaTest::TempDir;
using ZaffaTest::TraceCapture;

NatHwKey key(U32 filterAddrId) {
   NatHwKey k;
   k.keyTypeIs(NatHwKey::staticSnat);
   k.filterAddrIdIs(filterAddrId);
   return k;
}

NatHwShadowEntry shadowEntry(U32 filterAddrId, U64 nextHop,
                             NatHwShadowEntry::Dirty dirty = NatHwShadowEntry::setting) {
   NatHwData data;
   data.nextHopIdIs(nextHop);
   return NatHwShadowEntry(key(filterAddrId), data, dirty);
}

Zaffa::MapDescriptor writerIn(TempDir const& dir) { return Zaffa::MapDescriptor::sharedWriter(dir.path(), 16, 64); }

struct Watcher {
   NatHwShadow const* shadow = nullptr;
   std::vector<std::pair<U32, bool>> events;   // filterAddrId, present at the time
   void onEntry(NatHwKey const& k) { events.emplace_back(k.filterAddrId(), shadow->entryHas(k)); }
};

struct VorEntry : Vor::Reactor<NatHwShadow, Watcher> {
   static Bindings const& table() {
      static Bindings const b{onKey<&Watcher::onEntry>(NatHwShadow::entryId)};
      return b;
   }
   explicit VorEntry(Watcher* w) : Reactor(w, table()) {}
};

} // namespace

TEST(NatHwShadowOnZaffa, NotifiesItsReactorsPerKeyAndCounts) {
   TempDir dir;
   auto shadow = natHwShadowFactory("natHwShadow", writerIn(dir));
   EXPECT_EQ(shadow->entryMap().map().impl().rootPath(), dir.path() + "/natHwShadow/entry");
   Watcher w;
   w.shadow = shadow.ptr();
   VorEntry reactor(&w);
   reactor.notifierIs(shadow);

   shadow->entryIs(shadowEntry(0, 5));
   shadow->entryIs(shadowEntry(0, 5));   // no change: nobody is told
   shadow->entryIs(shadowEntry(1, 5));
   shadow->entryIs(shadowEntry(0, 6));
   shadow->entryDel(key(1));
   shadow->entryDel(key(1));             // absent: nobody is told
   NatHwShadowEntry* direct = shadow->entryDirectWrite(key(2));
   direct->dirtyIs(NatHwShadowEntry::clearing);
   shadow->entryCommit(direct);

   std::vector<std::pair<U32, bool>> const expected{{0, true}, {1, true}, {0, true}, {1, false}, {2, true}};
   EXPECT_EQ(w.events, expected);
   EXPECT_EQ(shadow->entry(key(0)).data().nextHopId(), 6u);
   EXPECT_EQ(shadow->entry(key(2)).dirty(), NatHwShadowEntry::clearing);
   EXPECT_EQ(shadow->entry(key(9)), NatHwShadowEntry());
   EXPECT_EQ(shadow->counter("entryIs"), 5u);
   EXPECT_EQ(shadow->counter("entryDel"), 2u);
   EXPECT_EQ(shadow->counter("entryNotify"), 5u);

   // A reader's shadow reports the writer's changes through entryNotify.
   shadow->entryNotify(key(7));
   EXPECT_EQ(w.events.back(), std::make_pair(7u, false));
   EXPECT_EQ(shadow->counter("entryNotify"), 6u);

   shadow->entryDelAll();
   EXPECT_EQ(shadow->entrys(), 0u);
   EXPECT_EQ(w.events.size(), expected.size() + 1 + 2);
}

TEST(NatHwShadowOnZaffa, ALocalTableByDefaultAndTheSharedOneSurvivesARestart) {
   TempDir dir;
   {
      auto local = natHwShadowFactory("natHwShadow");
      EXPECT_EQ(local->entryMap().map().type(), Zaffa::ImplType::writer);
      EXPECT_EQ(local->entryMap().map().impl().rootPath(), "");
      local->entryIs(shadowEntry(0, 1));
      EXPECT_TRUE(local->entryHas(key(0)));
   }
   {
      auto shadow = natHwShadowFactory("natHwShadow", writerIn(dir));
      for (U32 i = 0; i < 100; ++i) shadow->entryIs(shadowEntry(i, 1000 + i));
      shadow->entryDel(key(50));
   }
   // A new life of the agent: the same files, the same entries.
   auto shadow = natHwShadowFactory("natHwShadow", writerIn(dir));
   EXPECT_EQ(shadow->entrys(), 99u);
   EXPECT_FALSE(shadow->entryHas(key(50)));
   EXPECT_EQ(shadow->entry(key(99)).data().nextHopId(), 1099u);
   U32 seen = 0;
   shadow->entryForEach([&](NatHwShadowEntry const& e) {
      EXPECT_EQ(e.data().nextHopId(), 1000u + e.key().filterAddrId());
      return ++seen < 1000;
   });
   EXPECT_EQ(seen, 99u);
   // A second live writer on the same files is refused.
   Zaffa::ZaffaMap<NatHwKey, NatHwShadowEntry> second("natHwShadow/entry");
   EXPECT_THROW(second.init(writerIn(dir)), Jorro::InvalidInitializeException);
}

TEST(VorZaffaMap, FollowsItsParentAndBecomesAnOrphanWhenItGoes) {
   TempDir dir;
   TraceCapture trace;
   Vor::traceEnable("VorZaffaMap", 15);
   auto shadow = natHwShadowFactory("natHwShadow");
   auto control = shadow->entryControl();
   Vor::Ptr<Vor::Entity const> parent(new Vor::Entity("agent"));
   control->parentIs(parent);
   EXPECT_EQ(shadow->entryMap().map().name(), "agent/entry");
   control->parentIs(parent);   // the same parent again: nothing to do
   control->initIs(writerIn(dir));
   EXPECT_EQ(shadow->entryMap().map().impl().rootPath(), dir.path() + "/agent/entry");
   shadow->entryIs(shadowEntry(0, 1));
   EXPECT_EQ(control->mountStatus(), Zaffa::MountStatus::mounted);

   Vor::Ptr<Vor::Entity const> other(new Vor::Entity("other"));
   EXPECT_THROW(
      {
         try {
            control->parentIs(other);
         } catch (Jorro::InvalidInitializeException const& e) {
            EXPECT_STREQ(e.what(), "Entity agent/entry already initialized");
            throw;
         }
      },
      Jorro::InvalidInitializeException);

   control->parentIs(nullptr);
   EXPECT_TRUE(trace.contains("is now an orphan")) << trace.all();
   EXPECT_EQ(shadow->entryMap().map().mountStatus(), Zaffa::MountStatus::orphan);
   EXPECT_FALSE(shadow->entryHas(key(0)));
   EXPECT_THROW(shadow->entryIs(shadowEntry(0, 2)), Jorro::AssertException);
}

TEST(VorZaffaMapDeathTest, AStrictOrphanEndsTheProcessOnAccess) {
   TempDir dir;
   auto shadow = natHwShadowFactory("natHwShadow");
   Zaffa::MapDescriptor strict = writerIn(dir);
   strict.assertOnOrphanAccess = true;
   Vor::Ptr<Vor::Entity const> parent(new Vor::Entity("agent"));
   shadow->entryControl()->parentIs(parent);
   shadow->entryControl()->initIs(strict);
   shadow->entryControl()->parentIs(nullptr);
   EXPECT_DEATH(shadow->entryHas(key(0)),
                "agent/entry::lookup\\(\\)\\. If you're seeing this, you're trying to operate on an orphan zaffa entity");
}

TEST(NatHwShadowOnZaffa, TheControlKeepsTheEntityAfterItsLastOutsideReference) {
   TempDir dir;
   TraceCapture trace;
   Vor::traceEnable("VorZaffaMap", 15);
   auto shadow = natHwShadowFactory("natHwShadow", writerIn(dir));
   shadow->entryIs(shadowEntry(3, 3));
   Vor::Ptr<VorZaffa::CollectionControl> control = shadow->entryControl();
   shadow = nullptr;
   // The entity handed itself to the control instead of dying.
   ASSERT_TRUE(control->entityRef());
   EXPECT_FALSE(trace.contains("VorZaffaMap::~VorZaffaMap() deleting state")) << trace.all();
   EXPECT_TRUE(control->hasTarget());
   control->detach();   // the collection is still there to be told
   control->entityRefIs(nullptr);
   EXPECT_TRUE(trace.contains("VorZaffaMap::~VorZaffaMap() deleting state")) << trace.all();
   EXPECT_FALSE(control->hasTarget());
   EXPECT_THROW(control->initIs(writerIn(dir)), Jorro::AssertException);
}
