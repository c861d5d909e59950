// Shadows that follow a writer through the notification queue: both stores,
// convergence under growth, compaction and bucket changes, the report of
// every changed key, a shadow that starts before its writer, a writer that is
// replaced by a new generation, a notification beyond the shared table, and
// keys whose order does not tell them all apart.

#include "Zaffa/ZaffaShadow.h"
#include "tests/Zaffa/ZaffaTestTypes.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

using namespace ZaffaTest;

namespace {

template <typename Store>
struct ShadowFixture {
   using Shadow = Zaffa::ZaffaShadow<TestKey, TestValue, Store>;
   std::set<U64> reported;
   Shadow shadow;
   explicit ShadowFixture(std::string const& root)
       : shadow(Mem::RootPath(root),
                Mem::Notify<TestKey, TestValue>{[this](TestKey const& k) { reported.insert(k.id); }, {}, {}, {}}) {}
};

// The shadow holds exactly `model`, by lookup and by walk.
template <typename Shadow>
void expectShadowMatches(Shadow& s, std::map<U64, TestValue> const& model, U64 keySpace) {
   ASSERT_EQ(s.members(), model.size());
   for (U64 id = 0; id < keySpace; ++id) {
      TestValue v;
      bool found = s.lookup(TestKey::of(id), v);
      auto it = model.find(id);
      ASSERT_EQ(found, it != model.end()) << "key " << id;
      if (found) {
         ASSERT_EQ(std::memcmp(&v, &it->second, sizeof v), 0) << "value of " << id;
      }
   }
   std::set<U64> walked;
   TestValue v;
   Zaffa::IterHint hint;
   for (bool more = s.first(v, hint); more; more = s.next(v.key, v, hint)) {
      ASSERT_TRUE(walked.insert(v.key.id).second) << "walk met " << v.key.id << " twice";
   }
   ASSERT_EQ(walked.size(), model.size());
}

template <typename Store>
class ZaffaShadowStores : public ::testing::Test {};
using Stores = ::testing::Types<Zaffa::ShadowStore<TestKey, TestValue>, Zaffa::KeyShadowStore<TestKey, TestValue>>;
TYPED_TEST_SUITE(ZaffaShadowStores, Stores);

} // namespace

TYPED_TEST(ZaffaShadowStores, ConvergesAndReportsEveryChangedKey) {
   TempDir dir;
   Writer w(config(dir.path(), 16, 64));
   w.attach();
   std::map<U64, TestValue> model;
   for (U64 id = 0; id < 30; ++id) model[id] = *w.write(TestValue::of(id, 1), true);
   ShadowFixture<TypeParam> f(dir.path());
   ASSERT_TRUE(f.shadow.initialize("test"));
   EXPECT_TRUE(f.shadow.synchronised());
   EXPECT_EQ(f.reported.size(), 30u) << "a shadow that starts empty learns of every key";
   expectShadowMatches(f.shadow, model, 1000);

   std::mt19937_64 rng(3);
   U64 stamp = 1;
   for (int round = 0; round < 12; ++round) {
      f.reported.clear();
      std::map<U64, TestValue> before = model;
      // Alternate filling and draining so that the table grows, splits
      // buckets, compacts and joins them between two polls.
      U64 const target = round % 3 == 2 ? 5 : 300;
      for (int op = 0; op < 600; ++op) {
         U64 id = rng() % 1000;
         if (model.size() < target || (rng() % 4 == 0 && model.count(id))) {
            model[id] = *w.write(TestValue::of(id, ++stamp), true);
         } else if (model.count(id)) {
            TestValue old;
            w.remove(TestKey::of(id), old);
            model.erase(id);
         }
      }
      while (model.size() > target) {
         TestValue old;
         auto it = model.begin();
         std::advance(it, static_cast<long>(rng() % model.size()));
         w.remove(it->second.key, old);
         model.erase(it);
      }
      ASSERT_TRUE(f.shadow.poll());
      expectShadowMatches(f.shadow, model, 1000);
      if (this->HasFatalFailure()) return;
      std::set<U64> changed;
      for (auto const& [id, v] : model) {
         auto it = before.find(id);
         if (it == before.end() || std::memcmp(&it->second, &v, sizeof v) != 0) changed.insert(id);
      }
      for (auto const& [id, v] : before) {
         if (!model.count(id)) changed.insert(id);
      }
      for (U64 id : changed) EXPECT_TRUE(f.reported.count(id)) << "round " << round << ": key " << id << " not reported";
      if constexpr (TypeParam::holdsValues) {
         // A shadow with values reports nothing that did not change.
         for (U64 id : f.reported) EXPECT_TRUE(changed.count(id)) << "round " << round << ": key " << id << " reported";
      }
   }
   EXPECT_GT(w.counters().slotShrinks, 0u);
   EXPECT_GT(w.counters().bucketShrinks, 0u);
}

TEST(ZaffaShadow, StartsBeforeItsWriterAndFollowsANewGeneration) {
   TempDir dir;
   ShadowFixture<Zaffa::ShadowStore<TestKey, TestValue>> f(dir.path());
   EXPECT_FALSE(f.shadow.initialize("sentry")) << "no writer yet";
   EXPECT_EQ(f.shadow.members(), 0u);
   TestValue v;
   EXPECT_FALSE(f.shadow.lookup(TestKey::of(1), v));

   std::map<U64, TestValue> model;
   {
      Writer w(config(dir.path()));
      w.attach();
      for (U64 id = 0; id < 20; ++id) model[id] = *w.write(TestValue::of(id, 1), true);
      ASSERT_TRUE(f.shadow.initialize("sentry"));
      expectShadowMatches(f.shadow, model, 100);
      // The writer goes and its files with it.
      w.cleanup();
   }
   f.shadow.handleDisconnect();
   EXPECT_FALSE(f.shadow.attached());
   EXPECT_EQ(f.shadow.members(), 20u) << "the copy is kept while the writer is away";

   // A new writer with a new generation and other contents: the shadow
   // resynchronises and reports exactly the keys that differ.
   Writer w2(config(dir.path()));
   w2.attach();
   std::map<U64, TestValue> model2;
   for (U64 id = 10; id < 40; ++id) model2[id] = *w2.write(TestValue::of(id, id < 15 ? 1 : 2), true);
   f.reported.clear();
   ASSERT_TRUE(f.shadow.initialize("sentry"));
   expectShadowMatches(f.shadow, model2, 100);
   std::set<U64> expected;
   for (U64 id = 0; id < 10; ++id) expected.insert(id);
   for (U64 id = 15; id < 40; ++id) expected.insert(id);
   EXPECT_EQ(f.reported, expected);
}

TEST(ZaffaShadow, NotificationBeyondTheSharedTableIsDiscarded) {
   TempDir dir;
   Writer w(config(dir.path()));
   w.attach();
   w.write(TestValue::of(1, 1), true);
   ShadowFixture<Zaffa::ShadowStore<TestKey, TestValue>> f(dir.path());
   ASSERT_TRUE(f.shadow.initialize("test"));
   U32 const beyond = w.capacity() + 100;
   EXPECT_NO_THROW(f.shadow.doSlot(beyond, 0, false));
   EXPECT_EQ(f.shadow.counters().discarded, 1u);
   EXPECT_EQ(f.shadow.capacity(), w.capacity());
   EXPECT_EQ(f.shadow.members(), 1u);
}

// A shadow that lags far behind a churning writer, across compactions of the
// table and of the queue, must still converge: a queue compaction once
// dropped the tombstones of finished shrinks that lagging readers had not
// reached, and keys moved by the shrink stayed in the shadow as ghosts.
TEST(ZaffaShadow, LaggingShadowConvergesAcrossShrinksAndQueueCompactions) {
   for (int seed = 1; seed <= 2; ++seed) {
   TempDir dir;
   auto c = config(dir.path(), 16, 256);
   Writer w(c);
   w.attach();
   U64 const keySpace = 3000;
   for (U64 id = 0; id < 200; ++id) w.write(TestValue::of(id, 1), true);
   Zaffa::ZaffaShadow<TestKey, TestValue> shadow(Mem::RootPath(dir.path()), Mem::Notify<TestKey, TestValue>{});
   ASSERT_TRUE(shadow.initialize("t"));
   std::mt19937_64 rng(99), lag(seed);
   U64 stamp = 1;
   U64 nextPoll = lag() % 5000;
   for (U64 n = 0; n < 120000; ++n) {
      bool const draining = ((n >> 14) & 1) != 0;
      U64 const id = rng() % (draining ? keySpace / 16 : keySpace);
      int const op = static_cast<int>(rng() % 10);
      if (draining && op < 7) {
         for (U64 k = id; k < keySpace; k += keySpace / 16) { TestValue old; w.remove(TestKey::of(k), old); }
      } else if (op < 6) {
         w.write(TestValue::of(id, ++stamp), true);
      } else if (op < 8) {
         TestValue old; w.remove(TestKey::of(id), old);
      } else {
         TestValue* v = w.directWrite(TestKey::of(id)); *v = TestValue::of(id, ++stamp); w.directCommit();
      }
      if (n == nextPoll) { shadow.trevine().poll([&](U32 s, U64 q, bool){ shadow.doSlot(s, q, false); }, lag() % 300); nextPoll = n + lag() % 5000; }
   }
   while (!shadow.poll()) {}
   U32 bad = 0;
   for (U64 id = 0; id < keySpace; ++id) {
      TestValue a;
      bool inS = shadow.lookup(TestKey::of(id), a);
      bool inW = w.lookup(TestKey::of(id)) != nullptr;
      if (inS != inW && bad++ < 3) ADD_FAILURE() << "seed " << seed << " key " << id << " shadow " << inS << " files " << inW;
   }
   if (bad) { ADD_FAILURE() << "seed " << seed << " bad " << bad << " members " << shadow.members() << " vs " << w.members(); break; }
   }
}

namespace {

// A key whose order ignores one of its fields, as some do (a connection's
// filter positions are equal in order but distinct in the table).
struct PositionedKey {
   U64 connection = 0;
   U32 position = 0;
   U32 pad = 0;
   U32 hash(U32 seed) const { return Vor::hashBytes(seed, this, sizeof *this); }
   bool operator==(PositionedKey const&) const = default;
   bool operator<(PositionedKey const& o) const { return connection < o.connection; }
   std::string stringValue() const { return fmt::format("PositionedKey({}, {})", connection, position); }
};

struct PositionedValue {
   PositionedKey key;
   U64 data = 0;
   static PositionedValue of(U32 position, U64 data) { return PositionedValue{PositionedKey{7, position, 0}, data}; }
};

} // namespace

TEST(ZaffaShadow, ReportsEveryRemovedKeyThatTheKeyOrderDoesNotTellApart) {
   using Shadow = Zaffa::ZaffaShadow<PositionedKey, PositionedValue>;
   using PWriter = Zaffa::ZaffaWriter<PositionedKey, PositionedValue>;
   TempDir dir;
   // Per report, what a lookup found at that moment: the owner's copy.
   std::map<U32, U64> mirror;
   Shadow* shadow = nullptr;
   Shadow s(Mem::RootPath(dir.path()),
            Mem::Notify<PositionedKey, PositionedValue>{[&](PositionedKey const& k) {
                                                           PositionedValue v;
                                                           if (shadow->lookup(k, v)) {
                                                              mirror[k.position] = v.data;
                                                           } else {
                                                              mirror.erase(k.position);
                                                           }
                                                        },
                                                        {}, {}, {}});
   shadow = &s;
   std::map<U32, U64> table;
   {
      PWriter w(config(dir.path()));
      w.attach();
      for (U32 p = 0; p < 12; ++p) {
         w.write(PositionedValue::of(p, 100 + p), true);
         table[p] = 100 + p;
      }
      ASSERT_TRUE(s.initialize("sentry"));
      EXPECT_EQ(mirror, table);

      // Several removals taken in one pass.
      for (U32 p = 8; p < 12; ++p) {
         PositionedValue old;
         ASSERT_TRUE(w.remove(PositionedValue::of(p, 0).key, old));
         table.erase(p);
      }
      ASSERT_TRUE(s.poll());
      EXPECT_EQ(mirror, table);
      w.cleanup();
   }
   s.handleDisconnect();

   // A new generation holding fewer of them, with other values.
   PWriter w2(config(dir.path()));
   w2.attach();
   table.clear();
   for (U32 p = 0; p < 3; ++p) {
      w2.write(PositionedValue::of(p, 1000 + p), true);
      table[p] = 1000 + p;
   }
   ASSERT_TRUE(s.initialize("sentry"));
   EXPECT_EQ(s.members(), 3u);
   EXPECT_EQ(mirror, table);
}
