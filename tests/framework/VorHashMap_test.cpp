// Tests of Vor::HashMap, Vor::HashMap2018 and Vor::HashSet.

#include "framework/VorHashMap.h"
#include "framework/VorHashMap2018.h"
#include "framework/VorPtr.h"
#include "framework/VorSet.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "tests/framework/CollectionTestValues.h"

namespace {

// A value type key with its own hash, as the NAT records have.
struct Endpoint {
   Vor::U32 addr;
   Vor::U16 port;
   bool operator==(Endpoint const&) const = default;
   Vor::U32 hash(Vor::U32 seed) const { return Vor::hashMix(Vor::hashMix(seed, addr), port); }
};

// A value that is neither default-constructible nor copyable.
struct Counted {
   static inline int alive = 0;
   explicit Counted(int value) : v(value) { ++alive; }
   Counted(Counted&& o) noexcept : v(o.v) { ++alive; }
   Counted& operator=(Counted&& o) noexcept {
      v = o.v;
      return *this;
   }
   Counted(Counted const&) = delete;
   ~Counted() { --alive; }
   int v;
};

class Shared : public Vor::PtrInterface {
 public:
   static inline int alive = 0;
   explicit Shared(int value) : v(value) { ++alive; }
   ~Shared() override { --alive; }
   int v;
};

template <typename Map>
std::map<int, int> contents(Map const& m) {
   std::map<int, int> out;
   for (auto const& e : m) {
      EXPECT_TRUE(out.emplace(e.key(), e.value()).second) << "key " << e.key() << " visited twice";
   }
   return out;
}

template <typename T>
class HashMapFamily : public ::testing::Test {};
using MapTypes = ::testing::Types<Vor::HashMap<int, int>, Vor::HashMap2018<int, int>>;
TYPED_TEST_SUITE(HashMapFamily, MapTypes);

TYPED_TEST(HashMapFamily, BasicOperationsKeepTheirContracts) {
   TypeParam m;
   EXPECT_TRUE(m.empty());
   EXPECT_EQ(m.find(1), nullptr);
   EXPECT_FALSE(m.erase(1));
   EXPECT_TRUE(m.begin().done());

   auto [v, added] = m.insert(1, 10);
   ASSERT_TRUE(added);
   EXPECT_EQ(*v, 10);
   auto [v2, added2] = m.insert(1, 11); // no overwrite
   EXPECT_FALSE(added2);
   EXPECT_EQ(v2, v);
   EXPECT_EQ(*m.find(1), 10);
   EXPECT_EQ(m.insertOrAssign(1, 12), 12);
   EXPECT_EQ(*m.find(1), 12);
   EXPECT_EQ(m.insertOrAssign(2, 20), 20);
   EXPECT_EQ(*m.emplace(3, 30).first, 30);
   EXPECT_EQ(m.size(), 3u);
   EXPECT_TRUE(m.contains(2));
   auto const before = m.version();
   EXPECT_TRUE(m.erase(2));
   EXPECT_GT(m.version(), before);
   EXPECT_FALSE(m.contains(2));
   EXPECT_EQ(contents(m), (std::map<int, int>{{1, 12}, {3, 30}}));
   m.clear();
   EXPECT_TRUE(m.empty());
   EXPECT_TRUE(m.begin().done());
   m.insert(4, 40); // usable after clear
   EXPECT_EQ(*m.find(4), 40);
}

TYPED_TEST(HashMapFamily, RandomOperationsMatchStdUnorderedMap) {
   TypeParam m;
   std::unordered_map<int, int> ref;
   std::mt19937 rng(7);
   // Phases grow to many members, then shrink to few, across resizes.
   for (int phase = 0; phase < 4; ++phase) {
      int const range = phase % 2 == 0 ? 20000 : 200;
      int const eraseBias = phase < 2 ? 3 : 7; // out of 10
      for (int i = 0; i < 60000; ++i) {
         int const k = static_cast<int>(rng() % range);
         int const op = static_cast<int>(rng() % 10);
         if (op < eraseBias) {
            EXPECT_EQ(m.erase(k), ref.erase(k) == 1);
         } else if (op == 9) {
            m.insertOrAssign(k, i);
            ref[k] = i;
         } else {
            EXPECT_EQ(m.insert(k, i).second, ref.emplace(k, i).second);
         }
         auto const* found = m.find(k);
         auto const it = ref.find(k);
         ASSERT_EQ(found != nullptr, it != ref.end());
         if (found) {
            ASSERT_EQ(*found, it->second);
         }
      }
      ASSERT_EQ(m.size(), ref.size());
      EXPECT_EQ(contents(m), (std::map<int, int>(ref.begin(), ref.end())));
   }
}

TYPED_TEST(HashMapFamily, ErasingOtherMembersDuringAWalkVisitsTheRestOnce) {
   TypeParam m;
   for (int k = 0; k < 1000; ++k) m.insert(k, k);
   std::set<int> visited, erased;
   for (auto it = m.begin(); it; ++it) {
      int const k = it.key();
      EXPECT_FALSE(erased.count(k)) << "visited erased member " << k;
      EXPECT_TRUE(visited.insert(k).second);
      // Erase a partner that the walk may or may not have reached.
      int const partner = (k * 7 + 3) % 1000;
      if (partner != k && m.erase(partner)) erased.insert(partner);
   }
   for (int k = 0; k < 1000; ++k) {
      EXPECT_TRUE(visited.count(k) || erased.count(k)) << k;
   }
}

TEST(HashMap, ValueTypeAndStringKeys) {
   Vor::HashMap<Endpoint, std::string> byEndpoint;
   Vor::HashMap<Vor::String, int> byName;
   Vor::HashMap<std::string, int> byStdName;
   for (Vor::U32 i = 0; i < 500; ++i) {
      byEndpoint.insert(Endpoint{i, static_cast<Vor::U16>(i % 7)}, std::to_string(i));
      byName.insert(Vor::format("eth%u", i), static_cast<int>(i));
      byStdName.insert("eth" + std::to_string(i), static_cast<int>(i));
   }
   EXPECT_EQ(*byEndpoint.find(Endpoint{42, 0}), "42");
   EXPECT_EQ(byEndpoint.find(Endpoint{42, 1}), nullptr);
   EXPECT_EQ(*byName.find("eth499"), 499);
   EXPECT_EQ(byName.find("eth500"), nullptr);
   EXPECT_EQ(*byStdName.find("eth7"), 7);

   enum class Kind : Vor::U8 { a, b, c };
   Vor::HashMap<Kind, int> byKind;
   byKind.insert(Kind::c, 3);
   EXPECT_EQ(byKind.find(Kind::a), nullptr);
   EXPECT_EQ(*byKind.find(Kind::c), 3);

   // Pointers key by identity.
   Vor::Ptr<Shared> one(new Shared(1)), other(new Shared(1));
   Vor::HashMap<Vor::Ptr<Shared>, int> byObject;
   byObject.insert(one, 1);
   EXPECT_TRUE(byObject.contains(one));
   EXPECT_FALSE(byObject.contains(other));
   byObject.clear();
}

TEST(HashMap, ValuesNeedNoDefaultConstructorAndAreDestroyedOnce) {
   {
      Vor::HashMap<int, Counted> m;
      for (int k = 0; k < 100; ++k) m.emplace(k, k);
      EXPECT_EQ(Counted::alive, 100);
      EXPECT_EQ(m.find(5)->v, 5);
      m.insertOrAssign(5, Counted(55));
      EXPECT_EQ(m.find(5)->v, 55);
      for (int k = 0; k < 50; ++k) m.erase(k);
      EXPECT_EQ(Counted::alive, 50);
      Vor::HashMap<int, Counted> moved(std::move(m));
      EXPECT_EQ(moved.size(), 50u);
      EXPECT_EQ(Counted::alive, 50);
   }
   EXPECT_EQ(Counted::alive, 0);
}

TEST(HashMap, PtrValueOutlivesItsMemberWhileHeld) {
   Vor::HashMap<int, Vor::Ptr<Shared>> m;
   m.insert(1, Vor::Ptr<Shared>(new Shared(1)));
   Vor::Ptr<Shared> held = *m.find(1);
   m.erase(1);
   EXPECT_EQ(Shared::alive, 1);
   EXPECT_EQ(held->v, 1);
   held = nullptr;
   EXPECT_EQ(Shared::alive, 0);
}

TEST(HashMap2018, DeletingTheCurrentMemberVisitsEachMemberOnce) {
   Vor::HashMap2018<int, Vor::Ptr<Shared>> m;
   for (int k = 0; k < 2000; ++k) m.insert(k, Vor::Ptr<Shared>(new Shared(k)));
   std::set<int> visited;
   for (auto it = m.begin(); it; ++it) {
      ASSERT_TRUE(it.isLive());
      int const k = it.key();
      EXPECT_EQ(it.value()->v, k);
      EXPECT_TRUE(visited.insert(k).second);
      EXPECT_TRUE(m.erase(k));
      // Stands on the erased member: stale, key still readable, value
      // already released.
      EXPECT_TRUE(it.isStale());
      EXPECT_FALSE(it.isLive());
      EXPECT_EQ(it.key(), k);
      EXPECT_FALSE(m.contains(k));
   }
   EXPECT_EQ(visited.size(), 2000u);
   EXPECT_TRUE(m.empty());
   EXPECT_EQ(Shared::alive, 0);
}

TEST(HashMap2018, StaleValueAccessIsFatal) {
   Vor::HashMap2018<int, int> m;
   m.insert(1, 1);
   auto it = m.begin();
   m.erase(1);
   EXPECT_DEATH(it.value(), "node_ != nullptr && !node_->dead");
}

TEST(HashMap2018, InsertingDuringAWalkNeverRepeatsAMember) {
   Vor::HashMap2018<int, int> m;
   for (int k = 0; k < 100; ++k) m.insert(k, k);
   std::set<int> visited;
   int next = 100;
   for (auto it = m.begin(); it; ++it) {
      EXPECT_TRUE(visited.insert(it.key()).second) << "repeated " << it.key();
      // Each step adds several members, far past the load that would
      // resize a table without iterators.
      for (int i = 0; i < 5 && next < 20000; ++i) m.insert(next++, 0);
      // and erases-and-reinserts the current key: a new member, same key.
      if (it.key() % 3 == 0) {
         m.erase(it.key());
         m.insert(it.key(), -1);
      }
   }
   for (int k = 0; k < 100; ++k) EXPECT_TRUE(visited.count(k)) << k;
   EXPECT_EQ(m.size(), static_cast<std::size_t>(next));
   // The deferred resize happened once the walk ended.
   EXPECT_GE(m.bucketCount(), m.size());
}

// A walk whose body makes random changes: no member is visited twice, each
// visited member was in the map when the walk reached it, and every member
// present from start to end is visited. Run under ASan this also checks that
// nothing freed is touched through a stale iterator.
TEST(HashMap2018, RandomChangesDuringWalksKeepTheGuarantees) {
   std::mt19937 rng(3);
   for (int round = 0; round < 30; ++round) {
      Vor::HashMap2018<int, int> m;
      int const range = 50 + round * 100;
      for (int k = 0; k < range; k += 2) m.insert(k, k);
      std::set<int> untouched; // present at the start, never erased
      for (auto const& e : m) untouched.insert(e.key());
      std::set<int> visited;
      for (auto it = m.begin(); it; ++it) {
         ASSERT_TRUE(it.isLive());
         ASSERT_TRUE(visited.insert(it.key()).second) << "repeated " << it.key();
         for (int i = 0; i < 3; ++i) {
            int const k = static_cast<int>(rng() % range);
            switch (rng() % 4) {
               case 0:
                  m.insert(k, k);
                  break;
               case 1:
                  if (m.erase(k)) untouched.erase(k);
                  break;
               case 2: // the current member
                  if (it.isLive()) {
                     untouched.erase(it.key());
                     m.erase(it.key());
                  }
                  break;
               default: // erase and add back under the same key
                  if (m.erase(k)) {
                     untouched.erase(k);
                     m.insert(k, -k);
                  }
            }
         }
      }
      for (int k : untouched) EXPECT_TRUE(visited.count(k)) << "round " << round << " missed " << k;
   }
}

TEST(HashMap2018, ErasingTheCurrentThenTheNextMemberSkipsTheNext) {
   Vor::HashMap2018<int, int> m;
   for (int k = 0; k < 3000; ++k) m.insert(k, k);
   std::set<int> visited, erased;
   for (auto it = m.begin(); it; ++it) {
      ASSERT_TRUE(it.isLive());
      ASSERT_FALSE(erased.count(it.key())) << "reached erased " << it.key();
      EXPECT_TRUE(visited.insert(it.key()).second);
      m.erase(it.key());
      // The member the walk would reach next, found from the erased one.
      auto peek = it;
      peek.next();
      if (peek) {
         erased.insert(peek.key());
         m.erase(peek.key());
      }
   }
   EXPECT_TRUE(m.empty());
   EXPECT_EQ(visited.size() + erased.size(), 3000u);
}

TEST(HashMap2018, ClearDuringAWalkEndsItAndIteratorCopiesStayUsable) {
   Vor::HashMap2018<int, Vor::Ptr<Shared>> m;
   for (int k = 0; k < 100; ++k) m.insert(k, Vor::Ptr<Shared>(new Shared(k)));
   auto it = m.begin();
   auto copy = it;
   int const first = it.key();
   m.clear();
   EXPECT_EQ(Shared::alive, 0); // values released at clear, not at the end of the walk
   EXPECT_TRUE(it.isStale());
   EXPECT_EQ(copy.key(), first);
   it.next();
   EXPECT_TRUE(it.done());
   EXPECT_FALSE(it.isStale());
   // Members added after the clear may still be reached by a walk that had
   // not ended; each at most once.
   for (int k = 0; k < 50; ++k) m.insert(k, Vor::Ptr<Shared>(new Shared(k)));
   std::set<int> seen;
   for (copy.next(); copy; ++copy) EXPECT_TRUE(seen.insert(copy.key()).second);
   EXPECT_EQ(m.size(), 50u);
}

TEST(HashMap2018, DestroyingTheMapUnderALiveIteratorIsFatal) {
   auto destroyUnderIterator = [] {
      auto* m = new Vor::HashMap2018<int, int>;
      m->insert(1, 1);
      auto it = m->begin();
      delete m;
   };
   EXPECT_DEATH(destroyUnderIterator(), "iterators_ == 0");
}

// A value whose destruction erases another member of the same map, as
// happens when releasing one entity releases others.
TEST(HashMap2018, ValueDestructorMayEraseFromTheSameMap) {
   Vor::HashMap2018<int, CollectionTest::Cascade<Vor::HashMap2018>> m;
   CollectionTest::addCascadeChain(m, 100);
   EXPECT_TRUE(m.erase(0)); // erases 1, which erases 2, ...
   EXPECT_TRUE(m.empty());
   for (int k = 0; k < 100; ++k) m.emplace(k, &m, k % 2 == 0 ? k + 1 : -1);
   int steps = 0;
   for (auto it = m.begin(); it; ++it) {
      ++steps;
      if (it.isLive()) m.erase(it.key());
   }
   EXPECT_TRUE(m.empty());
   EXPECT_LE(steps, 100);
   CollectionTest::addCascadeChain(m, 10);
   m.clear();
   EXPECT_TRUE(m.empty());
}

TEST(HashMap, TableGrowsAndShrinksWithItsMembers) {
   Vor::HashMap<int, int> plain;
   Vor::HashMap2018<int, int> stable;
   for (int k = 0; k < 100000; ++k) {
      plain.insert(k, k);
      stable.insert(k, k);
   }
   EXPECT_GE(plain.bucketCount(), 100000u);
   EXPECT_LE(plain.bucketCount(), 4 * 100000u);
   for (int k = 10; k < 100000; ++k) {
      plain.erase(k);
      stable.erase(k);
   }
   // Erasing never resizes; the next insertion shrinks.
   EXPECT_GE(plain.bucketCount(), 100000u);
   plain.insert(-1, -1);
   stable.insert(-1, -1);
   EXPECT_LE(plain.bucketCount(), 64u);
   EXPECT_LE(stable.bucketCount(), 64u);
   for (int k = 0; k < 10; ++k) {
      EXPECT_EQ(*plain.find(k), k);
      EXPECT_EQ(*stable.find(k), k);
   }
}

TEST(HashMap, CopiesAreDeepAndInstancesIterateInTheirOwnOrder) {
   Vor::HashMap<int, int> a;
   for (int k = 0; k < 1000; ++k) a.insert(k, k);
   Vor::HashMap<int, int> b(a);
   b.erase(5);
   EXPECT_TRUE(a.contains(5));
   EXPECT_EQ(b.size(), 999u);
   Vor::HashMap<int, int> c;
   c = a;
   EXPECT_EQ(contents(c), contents(a));
   // Each instance seeds its hash with a constant of its own, so the same
   // members come out in another order.
   std::vector<int> orderA, orderC;
   for (auto const& e : a) orderA.push_back(e.key());
   for (auto const& e : c) orderC.push_back(e.key());
   EXPECT_NE(a.collectionConstant(), c.collectionConstant());
   EXPECT_NE(orderA, orderC);
   // Const walks, and a mutable iterator converts to a const one.
   Vor::HashMap<int, int> const& constA = a;
   Vor::HashMap<int, int>::ConstIterator ci = a.begin();
   EXPECT_EQ(ci.key(), constA.begin().key());
}

TEST(HashSet, SetOperationsAndStaleIteration) {
   Vor::HashSet<Vor::String> s;
   EXPECT_TRUE(s.insert("a"));
   EXPECT_FALSE(s.insert("a"));
   EXPECT_TRUE(s.insert("b"));
   EXPECT_TRUE(s.insert("c"));
   std::set<std::string> seen;
   for (auto it = s.begin(); it; ++it) {
      seen.insert(it.key().stdString());
      s.erase(it.key());
      EXPECT_TRUE(it.isStale());
   }
   EXPECT_EQ(seen, (std::set<std::string>{"a", "b", "c"}));
   EXPECT_TRUE(s.empty());
}

} // namespace
