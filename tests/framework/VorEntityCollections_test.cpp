// Tests of the collection helpers of framework/VorEntityCollections.h, on a
// standard map and on a Vor map: they must behave alike on both.

#include "framework/VorEntityCollections.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "framework/VorHashMap.h"
#include "framework/VorRbTreeMap.h"

namespace {

// Stands for an entity: it records its own destruction.
struct Member {
   explicit Member(int k, std::vector<int>* log) : key(k), destroyed(log) {}
   ~Member() { destroyed->push_back(key); }
   int key;
   std::vector<int>* destroyed;
};
using MemberPtr = std::shared_ptr<Member>;

template <typename M>
class EntityCollections : public ::testing::Test {
 protected:
   // The first member's key; on a standard map by reference into the
   // member's node, as the entities' xDelAll pass it.
   static int const& firstKey(std::map<int, MemberPtr> const& m) { return m.begin()->first; }
   template <typename V>
   static int firstKey(V const& m) {
      return m.begin().key();
   }

   M map;
   std::vector<int> destroyed;
   std::vector<int> notified;
   int made = 0;

   MemberPtr is(int key) {
      return Vor::memberEntityIs(
         map, key,
         [this](int k) {
            ++made;
            return std::make_shared<Member>(k, &destroyed);
         },
         [this](int k) { notified.push_back(k); });
   }
};

using MapTypes = ::testing::Types<std::map<int, MemberPtr>, Vor::HashMap<int, MemberPtr>,
                                  Vor::RbTreeMapGeneric<int, MemberPtr>>;
TYPED_TEST_SUITE(EntityCollections, MapTypes);

TYPED_TEST(EntityCollections, MembersAreMadeOnceAndKeptAliveThroughTheirRemoval) {
   auto& m = this->map;
   EXPECT_EQ(Vor::memberValue(m, 1), nullptr);

   MemberPtr const one = this->is(1);
   EXPECT_EQ(one->key, 1);
   EXPECT_EQ(this->is(1), one);  // idempotent: not made again, no notification
   this->is(2);
   EXPECT_EQ(this->made, 2);
   EXPECT_EQ(this->notified, (std::vector<int>{1, 2}));
   EXPECT_EQ(Vor::memberValue(m, 1), one);
   EXPECT_EQ(Vor::memberValue(std::as_const(m), 2)->key, 2);

   // The removal is told while the member is alive but no longer in the map;
   // it dies once the notification is over and nobody else holds it.
   this->notified.clear();
   bool const removed = Vor::memberEntityDel(m, 2, [&](int k) {
      this->notified.push_back(k);
      EXPECT_EQ(Vor::memberValue(m, 2), nullptr);
      EXPECT_TRUE(this->destroyed.empty());
   });
   EXPECT_TRUE(removed);
   EXPECT_EQ(this->destroyed, (std::vector<int>{2}));
   EXPECT_EQ(this->notified, (std::vector<int>{2}));

   EXPECT_FALSE(Vor::memberEntityDel(m, 2, [&](int k) { this->notified.push_back(k); }));
   EXPECT_EQ(this->notified.size(), 1u);

   // A key that lives in the member's own node is still good to tell about
   // (a copy is what the notification sees; the sanitizer build checks it).
   this->notified.clear();
   EXPECT_TRUE(Vor::memberEntityDel(m, this->firstKey(m), [&](int const& k) {
      this->notified.push_back(k);
   }));
   EXPECT_EQ(this->notified, (std::vector<int>{1}));
   EXPECT_EQ(m.size(), 0u);
   // `one` still holds the first member.
   EXPECT_EQ(this->destroyed, (std::vector<int>{2}));
}

template <typename M>
class ValueCollections : public ::testing::Test {
 protected:
   M map;
};
using ValueMapTypes = ::testing::Types<std::map<int, int>, Vor::HashMap<int, int>, Vor::RbTreeMapGeneric<int, int>>;
TYPED_TEST_SUITE(ValueCollections, ValueMapTypes);

// memberValueIs reports a change exactly when the map changed, which is what
// an entity notifies on.
TYPED_TEST(ValueCollections, SettingAValueReportsOnlyChanges) {
   auto& m = this->map;
   EXPECT_EQ(Vor::memberValue(m, 1), 0);
   EXPECT_TRUE(Vor::memberValueIs(m, 1, 5));
   EXPECT_FALSE(Vor::memberValueIs(m, 1, 5));
   EXPECT_EQ(Vor::memberValue(m, 1), 5);
   EXPECT_TRUE(Vor::memberValueIs(m, 1, 6));
   EXPECT_EQ(Vor::memberValue(m, 1), 6);
   // A value equal to the default is a member all the same.
   EXPECT_TRUE(Vor::memberValueIs(m, 2, 0));
   EXPECT_FALSE(Vor::memberValueIs(m, 2, 0));
   EXPECT_EQ(m.size(), 2u);
   EXPECT_EQ(Vor::memberValue(m, 3), 0);
   EXPECT_EQ(m.size(), 2u);
}

} // namespace
