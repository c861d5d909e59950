// Tests of Vor::RbTreeMapGeneric and Vor::RbTreeSet.

#include "framework/VorRbTreeMap.h"
#include "framework/VorSet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

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

TEST(RbTreeSet, OrderedSetWalk) {
   Vor::RbTreeSet<int> s;
   for (int k : {5, 1, 3, 9, 7}) EXPECT_TRUE(s.insert(k));
   EXPECT_FALSE(s.insert(3));
   std::vector<int> visited;
   for (auto const& e : s) visited.push_back(e.key());
   EXPECT_EQ(visited, (std::vector<int>{1, 3, 5, 7, 9}));
   EXPECT_TRUE(s.checkInvariants());
}

} // namespace
