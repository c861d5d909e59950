// The attribute generator: what every declared attribute gives its entity,
// notification only on change above all. The entities built on it rely on
// this one test instead of one notification test each.

#include "framework/VorAttribute.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "framework/VorHashMap2018.h"
#include "framework/VorReactor.h"
#include "framework/VorSet.h"

namespace {

using Vor::Ptr;
using Vor::U16;
using Vor::U32;

// Counts the live members, to see that a member being deleted is still alive
// while its deletion is told.
class Member : public Vor::Entity {
 public:
   explicit Member(int key) : key_(key) { ++alive; }
   ~Member() override { --alive; }
   int key() const { return key_; }
   static int alive;

 private:
   int key_;
};
int Member::alive = 0;

Ptr<Member> memberFactory(int key) { return Ptr<Member>(new Member(key)); }

struct Key {
   U32 value = 0;
   bool operator==(Key const&) const = default;
   bool operator<(Key const& o) const { return value < o.value; }
   U32 hash(U32 seed = 0) const { return Vor::hashMix(seed, value); }
};

enum class Mode : std::uint8_t { off = 0, on = 1 };

class Sample : public Vor::Entity {
   VOR_ENTITY(Sample, "Test::Sample")
   VOR_SCALAR(bool, enabled, 1)
   VOR_SCALAR(U32, limit, 2, 128)
   VOR_SCALAR(Vor::String, label, 3)
   VOR_SCALAR(Mode, mode, 4, Mode::on)
   VOR_COLLECTION(int, U16, vlan, 5)
   VOR_ENTITY_COLLECTION(int, Member, member, 6, memberFactory)
   VOR_SET(int, flag, 7)
   VOR_COLLECTION(Key, int, hashed, 8, Vor::HashMap2018)
   VOR_SET(Key, hashedFlag, 9, Vor::HashSet)
};

// Records each notification as "<attribute id>:<key or ->" and, for the
// member collection, whether the member was still there and still alive.
struct Recorder {
   Ptr<Sample> sample;
   std::vector<std::string> seen;
   void onScalar(Vor::AttributeId id) { seen.push_back(std::to_string(id) + ":-"); }
   void onEnabled() { onScalar(Sample::enabledId); }
   void onLimit() { onScalar(Sample::limitId); }
   void onLabel() { onScalar(Sample::labelId); }
   void onMode() { onScalar(Sample::modeId); }
   void onVlan(int const& k) { seen.push_back("5:" + std::to_string(k)); }
   void onMember(int const& k) {
      seen.push_back("6:" + std::to_string(k) + (sample->memberHas(k) ? "+" : "-") +
                     std::to_string(Member::alive));
   }
   void onFlag(int const& k) { seen.push_back("7:" + std::to_string(k)); }
   void onHashed(Key const& k) { seen.push_back("8:" + std::to_string(k.value)); }
   void onHashedFlag(Key const& k) { seen.push_back("9:" + std::to_string(k.value)); }
};

struct SampleReactor : Vor::Reactor<Sample, Recorder> {
   static Bindings const& table() {
      static Bindings const b{onScalar<&Recorder::onEnabled>(Sample::enabledId),
                              onScalar<&Recorder::onLimit>(Sample::limitId),
                              onScalar<&Recorder::onLabel>(Sample::labelId),
                              onScalar<&Recorder::onMode>(Sample::modeId),
                              onKey<&Recorder::onVlan>(Sample::vlanId),
                              onKey<&Recorder::onMember>(Sample::memberId),
                              onKey<&Recorder::onFlag>(Sample::flagId),
                              onKey<&Recorder::onHashed>(Sample::hashedId),
                              onKey<&Recorder::onHashedFlag>(Sample::hashedFlagId)};
      return b;
   }
   explicit SampleReactor(Recorder* r) : Reactor(r, table()) {}
};

class AttributeGenerator : public ::testing::Test {
 protected:
   void SetUp() override {
      rec.sample = s;
      reactor.notifierIs(s);
   }
   std::vector<std::string> take() {
      auto out = rec.seen;
      rec.seen.clear();
      return out;
   }
   Ptr<Sample> s{new Sample};
   Recorder rec;
   SampleReactor reactor{&rec};
};

TEST_F(AttributeGenerator, ScalarsNotifyOnlyOnChange) {
   EXPECT_FALSE(s->enabled());
   EXPECT_EQ(s->limit(), 128u) << "initial value";
   EXPECT_EQ(s->mode(), Mode::on);
   s->enabledIs(false);
   s->limitIs(128);
   s->modeIs(Mode::on);
   EXPECT_TRUE(take().empty());
   s->enabledIs(true);
   s->enabledIs(true);
   s->limitIs(7);
   s->labelIs("x");
   s->labelIs("x");
   s->modeIs(Mode::off);
   EXPECT_EQ(take(), (std::vector<std::string>{"1:-", "2:-", "3:-", "4:-"}));
   EXPECT_TRUE(s->enabled());
   EXPECT_EQ(s->limit(), 7u);
   EXPECT_EQ(s->label(), Vor::String("x"));
}

TEST_F(AttributeGenerator, ValueCollectionsNotifyPerMemberChanged) {
   s->vlanIs(1, 10);
   s->vlanIs(1, 10);   // same value
   s->vlanIs(1, 11);   // changed value
   s->vlanIs(2, 20);
   s->vlanDel(3);      // absent
   EXPECT_EQ(take(), (std::vector<std::string>{"5:1", "5:1", "5:2"}));
   EXPECT_EQ(s->vlan(1), 11);
   EXPECT_EQ(s->vlan(3), 0) << "absent reads as the default";
   EXPECT_TRUE(s->vlanHas(2));
   EXPECT_FALSE(s->vlanHas(3));
   EXPECT_EQ(s->vlans(), 2u);
   EXPECT_EQ(s->vlan().size(), 2u);
   s->vlanDelAll();
   EXPECT_EQ(take(), (std::vector<std::string>{"5:1", "5:2"}));
   EXPECT_EQ(s->vlans(), 0u);
   s->vlanDelAll();
   EXPECT_TRUE(take().empty());

   s->flagIs(4);
   s->flagIs(4);
   s->flagDel(5);
   s->flagDel(4);
   s->flagDel(4);
   EXPECT_EQ(take(), (std::vector<std::string>{"7:4", "7:4"}));
}

TEST_F(AttributeGenerator, EntityMembersAreMadeOnceAndAliveWhileTheirDeletionIsTold) {
   Ptr<Member> m = s->memberIs(3);
   EXPECT_EQ(s->memberIs(3), m) << "instantiation is idempotent";
   EXPECT_EQ(s->member(3), m);
   EXPECT_FALSE(s->member(4));
   m = Ptr<Member>();
   EXPECT_EQ(Member::alive, 1);
   s->memberIs(4);
   s->memberDel(3);
   s->memberDel(3);
   // Present and one alive at the add; at the delete, gone from the
   // collection but still alive while told.
   EXPECT_EQ(take(), (std::vector<std::string>{"6:3+1", "6:4+2", "6:3-2"}));
   EXPECT_EQ(Member::alive, 1);
   s->memberDelAll();
   EXPECT_EQ(take(), (std::vector<std::string>{"6:4-1"}));
   EXPECT_EQ(Member::alive, 0);
}

TEST_F(AttributeGenerator, HashContainersBehaveAlike) {
   for (U32 v : {1u, 2u, 3u}) s->hashedIs(Key{v}, static_cast<int>(v));
   s->hashedIs(Key{2}, 2);
   s->hashedFlagIs(Key{9});
   s->hashedFlagIs(Key{9});
   EXPECT_EQ(take(), (std::vector<std::string>{"8:1", "8:2", "8:3", "9:9"}));
   EXPECT_EQ(s->hashed(Key{3}), 3);
   EXPECT_EQ(s->hashed(Key{4}), 0);
   EXPECT_TRUE(s->hashedFlagHas(Key{9}));
   s->hashedDelAll();
   s->hashedFlagDelAll();
   auto seen = take();
   std::sort(seen.begin(), seen.end());
   EXPECT_EQ(seen, (std::vector<std::string>{"8:1", "8:2", "8:3", "9:9"}));
   EXPECT_EQ(s->hasheds(), 0u);
   EXPECT_EQ(s->hashedFlags(), 0u);
}

TEST_F(AttributeGenerator, TypeDescriptionListsEveryAttributeInOrder) {
   Vor::TypeDescription const* type = s->fwkType();
   ASSERT_NE(type, nullptr);
   EXPECT_EQ(type->name(), "Test::Sample");
   std::vector<std::string> names;
   for (auto const& a : type->attributes()) names.push_back(a.name + "=" + std::to_string(a.id));
   EXPECT_EQ(names, (std::vector<std::string>{"enabled=1", "limit=2", "label=3", "mode=4", "vlan=5",
                                              "member=6", "flag=7", "hashed=8", "hashedFlag=9"}));

   // Set by name goes through the mutator: it notifies, once.
   EXPECT_FALSE(s->setByName("enabled", "1").has_value());
   EXPECT_FALSE(s->setByName("enabled", "true").has_value());
   EXPECT_FALSE(s->setByName("limit", "42").has_value());
   EXPECT_EQ(take(), (std::vector<std::string>{"1:-", "2:-"}));
   EXPECT_EQ(s->getByName("enabled"), "true");
   EXPECT_EQ(s->getByName("limit"), "42");
   EXPECT_EQ(s->getByName("label"), "");
   EXPECT_EQ(s->getByName("mode"), "1");
   s->vlanIs(1, 2);
   EXPECT_EQ(s->getByName("vlan"), "1") << "a collection reads as its count";

   // Bad input: a message naming the attribute and the value, nothing set.
   auto error = s->setByName("limit", "12x");
   ASSERT_TRUE(error.has_value());
   EXPECT_NE(error->find("limit"), std::string::npos);
   EXPECT_NE(error->find("12x"), std::string::npos);
   EXPECT_EQ(s->limit(), 42u);
   EXPECT_TRUE(s->setByName("limit", "-1").has_value()) << "out of range for U32";
   EXPECT_TRUE(s->setByName("label", "y").has_value()) << "not settable from text";
   EXPECT_TRUE(s->setByName("vlan", "3").has_value()) << "collections are not set by name";
   EXPECT_TRUE(s->setByName("nothing", "3").has_value());
}

} // namespace
