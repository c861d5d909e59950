// The deferred list's walk across call-outs that change the list under it.

#include "UloNat/UloNatDeferredHwList.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

struct Work : Vor::PtrInterface {
   explicit Work(int k) : key(k) {}
   int key;
   int done = 0;
};

using EntityList = Ulo::DeferredHwList<int, Vor::Ptr<Work>>;
using ValueList = Ulo::DeferredHwList<int, char>;

TEST(DeferredHwList, EntriesAreMadeOnceFromTheirKey) {
   EntityList list;
   auto const first = list.entryIs(4);
   ASSERT_TRUE(first);
   EXPECT_EQ(first->key, 4);
   EXPECT_EQ(list.entryIs(4), first);
   EXPECT_EQ(list.entity(4), first);
   EXPECT_FALSE(list.entity(5));
   EXPECT_EQ(list.size(), 1u);
   list.delAll();
   EXPECT_TRUE(list.empty());
}

// The guarantees of the header, as a backlog's operations exercise them:
// the visitor removes entries, inserts above and below its place, and
// removes the entry it is visiting.
TEST(DeferredHwList, TheWalkReFindsItsPlaceAfterEveryChange) {
   ValueList list;
   for (int k : {10, 20, 30, 40, 50}) list.entryIs(k, 'a');
   std::vector<int> seen;
   std::size_t const visited = list.walk([&](int key, char value) {
      seen.push_back(key);
      EXPECT_EQ(value, 'a');
      if (key == 10) {
         list.del(10);            // the current entry
         list.del(30);            // one ahead: never visited
         list.entryIs(25, 'a');   // above: visited by this walk
         list.entryIs(5, 'a');    // below: left for the next walk
      }
      if (key == 40) list.entryIs(40, 'b');   // rewritten: not visited again
      return true;
   });
   EXPECT_EQ(seen, (std::vector<int>{10, 20, 25, 40, 50}));
   EXPECT_EQ(visited, 5u);
   EXPECT_EQ(list.keys(), (std::vector<int>{5, 20, 25, 40, 50}));
   EXPECT_EQ(*list.entry(40), 'b');
}

TEST(DeferredHwList, AWalkStopsWhereItsVisitorSaysAndTheNextGoesOnFromTheStart) {
   EntityList list;
   for (int k : {1, 2, 3}) list.entryIs(k);
   EXPECT_EQ(list.walk([](int key, Vor::Ptr<Work> const& work) {
      ++work->done;
      return key < 2;
   }), 2u);
   EXPECT_EQ(list.entity(1)->done, 1);
   EXPECT_EQ(list.entity(2)->done, 1);
   EXPECT_EQ(list.entity(3)->done, 0);

   // The visitor's entity outlives its removal from the list.
   list.walk([&](int key, Vor::Ptr<Work> const& work) {
      list.del(key);
      ++work->done;
      return true;
   });
   EXPECT_TRUE(list.empty());
}

} // namespace
