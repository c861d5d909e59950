// Tests of Vor::RbTreeMapGeneric and Vor::RbTreeSet.

#include "framework/VorRbTreeMap.h"
#include "framework/VorSet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/framework/CollectionTestValues.h"

namespace {

std::vector<int> keysOf(Vor::RbTreeMapGeneric<int, int> const& m) {
   std::vector<int> out;
   for (auto const& e : m) out.push_back(e.key());
   return out;
}

TEST(RbTreeMap, RandomOperationsMatchStdMap) {
   Vor::RbTreeMapGeneric<int, int> m;
   std::map<int, int> ref;
   std::mt19937 rng(11);
   for (int i = 0; i < 100000; ++i) {
      int const k = static_cast<int>(rng() % 5000);
      int const op = static_cast<int>(rng() % 10);
      auto const before = m.version();
      if (op < 4) {
         bool const erased = m.erase(k);
         EXPECT_EQ(erased, ref.erase(k) == 1);
         EXPECT_EQ(m.version() != before, erased);
      } else if (op == 9) {
         m.insertOrAssign(k, i);
         ref[k] = i;
         EXPECT_NE(m.version(), before);
      } else {
         bool const added = m.insert(k, i).second;
         EXPECT_EQ(added, ref.emplace(k, i).second);
         EXPECT_EQ(m.version() != before, added);
      }
      if (i % 5000 == 0) {
         ASSERT_TRUE(m.checkInvariants()) << "after step " << i;
      }
   }
   ASSERT_TRUE(m.checkInvariants());
   ASSERT_EQ(m.size(), ref.size());
   auto it = m.first();
   for (auto const& [k, v] : ref) {
      ASSERT_FALSE(it.done());
      EXPECT_EQ(it.key(), k);
      EXPECT_EQ(it.value(), v);
      ++it;
   }
   EXPECT_TRUE(it.done());
   // The same members walking down from the largest.
   auto back = m.last();
   for (auto r = ref.rbegin(); r != ref.rend(); ++r) {
      ASSERT_FALSE(back.done());
      EXPECT_EQ(back.key(), r->first);
      --back;
   }
   EXPECT_TRUE(back.done());
   // Bounds against std::map's.
   for (int k = -1; k <= 5001; k += 13) {
      auto lb = m.lowerBound(k);
      auto rlb = ref.lower_bound(k);
      ASSERT_EQ(lb.done(), rlb == ref.end());
      if (!lb.done()) {
         EXPECT_EQ(lb.key(), rlb->first);
      }
      auto ub = m.upperBound(k);
      auto rub = ref.upper_bound(k);
      ASSERT_EQ(ub.done(), rub == ref.end());
      if (!ub.done()) {
         EXPECT_EQ(ub.key(), rub->first);
      }
   }
   EXPECT_EQ(m.last().key(), ref.rbegin()->first);
   // Erase everything in a shuffled order, checking the tree as it shrinks.
   std::vector<int> keys;
   for (auto const& [k, v] : ref) keys.push_back(k);
   std::shuffle(keys.begin(), keys.end(), rng);
   for (std::size_t i = 0; i < keys.size(); ++i) {
      ASSERT_TRUE(m.erase(keys[i]));
      if (i % 97 == 0) {
         ASSERT_TRUE(m.checkInvariants());
      }
   }
   EXPECT_TRUE(m.empty());
   EXPECT_TRUE(m.checkInvariants());
}

TEST(RbTreeMap, CallOutThatErasesTheNextMemberSkipsIt) {
   Vor::RbTreeMapGeneric<int, int> m;
   for (int k = 0; k < 10; ++k) m.insert(k, k);
   std::vector<int> visited;
   for (auto it = m.first(); it; ++it) {
      visited.push_back(it.key());
      m.erase(it.key() + 1); // the call-out erases the next member
   }
   EXPECT_EQ(visited, (std::vector<int>{0, 2, 4, 6, 8}));
}

TEST(RbTreeMap, CallOutThatErasesTheCurrentMemberCarriesOn) {
   Vor::RbTreeMapGeneric<int, int> m;
   for (int k = 0; k < 100; ++k) m.insert(k, k);
   std::vector<int> visited;
   for (auto it = m.first(); it; ++it) {
      EXPECT_TRUE(it.isLive());
      m.erase(it.key());
      EXPECT_TRUE(it.isStale());
      visited.push_back(it.key());
   }
   EXPECT_EQ(visited.size(), 100u);
   EXPECT_TRUE(m.empty());
}

TEST(RbTreeMap, CallOutThatErasesEverythingEndsTheWalk) {
   Vor::RbTreeMapGeneric<int, int> m;
   for (int k = 0; k < 10; ++k) m.insert(k, k);
   int steps = 0;
   for (auto it = m.first(); it; ++it) {
      ++steps;
      m.clear();
      EXPECT_EQ(it.key(), 0);
      EXPECT_TRUE(it.isStale());
   }
   EXPECT_EQ(steps, 1);
}

TEST(RbTreeMap, CallOutThatAddsMembersVisitsThoseAboveOnly) {
   Vor::RbTreeMapGeneric<int, int> m;
   for (int k = 0; k < 100; k += 10) m.insert(k, k);
   std::vector<int> visited;
   for (auto it = m.first(); it; ++it) {
      visited.push_back(it.key());
      if (it.key() == 30) {
         m.insert(25, 0); // below: not visited
         m.insert(35, 0); // above: visited
         m.insert(95, 0);
      }
   }
   EXPECT_EQ(visited, (std::vector<int>{0, 10, 20, 30, 35, 40, 50, 60, 70, 80, 90, 95}));
   EXPECT_EQ(keysOf(m).size(), 13u);
}

// Walks whose call-outs make random changes: keys come in strictly
// ascending order (so none twice), each was in the map when reached, and
// every key present from start to end is visited.
TEST(RbTreeMap, RandomCallOutsNeverRepeatOrMissSurvivors) {
   std::mt19937 rng(5);
   for (int round = 0; round < 40; ++round) {
      Vor::RbTreeMapGeneric<int, int> m;
      int const range = 20 + round * 50;
      for (int k = 0; k < range; k += 3) m.insert(k, k);
      std::set<int> untouched;
      for (auto const& e : m) untouched.insert(e.key());
      std::vector<int> visited;
      bool const backwards = round % 4 == 3;
      for (auto it = backwards ? m.last() : m.first(); it; backwards ? --it : ++it) {
         ASSERT_TRUE(it.isLive());
         if (!visited.empty()) {
            ASSERT_TRUE(backwards ? it.key() < visited.back() : visited.back() < it.key());
         }
         visited.push_back(it.key());
         for (int i = 0; i < 3; ++i) {
            int const k = static_cast<int>(rng() % range);
            switch (rng() % 4) {
               case 0:
                  m.insert(k, k);
                  break;
               case 1:
                  if (m.erase(k)) untouched.erase(k);
                  break;
               case 2:
                  if (it.isLive()) {
                     untouched.erase(it.key());
                     m.erase(it.key());
                     EXPECT_TRUE(it.isStale());
                  }
                  break;
               default: // the next member, as a call-out might
                  if (auto after = m.upperBound(it.key()); after) {
                     untouched.erase(after.key());
                     m.erase(after.key());
                  }
            }
         }
      }
      ASSERT_TRUE(m.checkInvariants());
      for (int k : untouched) {
         EXPECT_TRUE(std::find(visited.begin(), visited.end(), k) != visited.end()) << "missed " << k;
      }
   }
}

TEST(RbTreeMap, StaleValueAccessIsFatal) {
   Vor::RbTreeMapGeneric<int, int> m;
   m.insert(1, 1);
   auto it = m.first();
   m.erase(1);
   EXPECT_DEATH(it.value(), "live");
}

TEST(RbTreeMap, VersionCountsEveryChangeAndOnlyChanges) {
   Vor::RbTreeMapGeneric<int, std::string> m;
   auto v = m.version();
   auto bumped = [&] {
      bool const changed = m.version() != v;
      v = m.version();
      return changed;
   };
   m.insert(1, "a");
   EXPECT_TRUE(bumped());
   m.insert(1, "b");
   EXPECT_FALSE(bumped());
   EXPECT_EQ(*m.find(1), "a");
   m.insertOrAssign(1, "c");
   EXPECT_TRUE(bumped());
   m.emplace(2, 3, 'x');
   EXPECT_TRUE(bumped());
   EXPECT_EQ(*m.find(2), "xxx");
   EXPECT_FALSE(m.erase(7));
   EXPECT_FALSE(bumped());
   EXPECT_TRUE(m.erase(1));
   EXPECT_TRUE(bumped());
   m.clear();
   EXPECT_TRUE(bumped());
   m.clear();
   EXPECT_FALSE(bumped());
   // A member erased and added again under the same key is found again.
   m.insert(5, "x");
   auto it = m.first();
   m.erase(5);
   EXPECT_TRUE(it.isStale());
   m.insert(5, "y");
   EXPECT_TRUE(it.isLive());
   EXPECT_EQ(it.value(), "y");
}

TEST(RbTreeMap, CopyMoveAndValueDestructorsThatChangeTheMap) {
   Vor::RbTreeMapGeneric<int, CollectionTest::Cascade<Vor::RbTreeMapGeneric>> m;
   CollectionTest::addCascadeChain(m, 100);
   EXPECT_TRUE(m.erase(0));
   EXPECT_TRUE(m.empty());
   EXPECT_TRUE(m.checkInvariants());

   Vor::RbTreeMapGeneric<int, int> a;
   for (int k = 0; k < 1000; ++k) a.insert(k, -k);
   Vor::RbTreeMapGeneric<int, int> b(a);
   b.erase(3);
   EXPECT_TRUE(a.contains(3));
   EXPECT_TRUE(b.checkInvariants());
   auto walking = a.lowerBound(500);
   Vor::RbTreeMapGeneric<int, int> c(std::move(a));
   EXPECT_TRUE(a.empty());
   EXPECT_EQ(c.size(), 1000u);
   // An iterator of the moved-from map finds it changed and empty.
   EXPECT_TRUE(walking.isStale());
   walking.next();
   EXPECT_TRUE(walking.done());
   a = c;
   EXPECT_EQ(keysOf(a), keysOf(c));
}

TEST(RbTreeSet, OrderedSetWalk) {
   Vor::RbTreeSet<int> s;
   for (int k : {5, 1, 3, 9, 7}) EXPECT_TRUE(s.insert(k));
   EXPECT_FALSE(s.insert(3));
   std::vector<int> visited;
   for (auto const& e : s) visited.push_back(e.key());
   EXPECT_EQ(visited, (std::vector<int>{1, 3, 5, 7, 9}));
   EXPECT_TRUE(s.checkInvariants());

   visited.clear();
   for (auto it = s.last(); it; --it) visited.push_back(it.key());
   EXPECT_EQ(visited, (std::vector<int>{9, 7, 5, 3, 1}));
   EXPECT_EQ(s.lowerBound(5).key(), 5);
   EXPECT_EQ(s.upperBound(5).key(), 7);
   EXPECT_TRUE(s.upperBound(9).done());

   // Erasing the member stood on leaves its key readable and the walk goes
   // on downwards from it.
   auto it = s.lowerBound(5);
   EXPECT_TRUE(it.isLive());
   EXPECT_TRUE(s.erase(5));
   EXPECT_TRUE(it.isStale());
   EXPECT_EQ(it.key(), 5);
   it.prev();
   EXPECT_EQ(it.key(), 3);
   it.next();
   EXPECT_EQ(it.key(), 7);
   EXPECT_EQ(s.size(), 4u);
}

} // namespace
