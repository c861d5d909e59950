// xIs(key, args...) semantics: idempotent for equal arguments, an exception
// for different ones or a null argument, and notification only when a member
// was made.

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "framework/VorEntity.h"
#include "framework/VorInstantiate.h"

namespace {

using Vor::Ptr;

class Scheduler : public Vor::PtrInterface {};

class Engine : public Vor::Entity {
 public:
   Engine(int intf, std::string vrf, Ptr<Scheduler> scheduler)
       : intf_(intf), vrf_(std::move(vrf)), scheduler_(std::move(scheduler)) {}
   auto constructorArgs() const { return std::tuple(vrf_, scheduler_); }
   int intf() const { return intf_; }

 private:
   int intf_;
   std::string vrf_;
   Ptr<Scheduler> scheduler_;
};

class Root : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId engineId = 1;
   Ptr<Engine> engineIs(int intf, std::string const& vrf, Ptr<Scheduler> const& scheduler) {
      auto [engine, made] = Vor::instantiateMember<Engine>(engines_, intf, "engine", vrf, scheduler);
      if (made) memberChanged(engineId, intf);
      return engine;
   }
   std::size_t engines() const { return engines_.size(); }

 private:
   std::map<int, Ptr<Engine>> engines_;
};

struct Count : Vor::PtrInterface::NotifieeConst {
   int n = 0;
   void onAttribute(Vor::AttributeId, void const*) override { ++n; }
};

TEST(MemberInstantiation, IdempotentForEqualArgumentsAndStrictOtherwise) {
   Ptr<Root> root(new Root);
   Count count;
   count.notifierIs(Ptr<Vor::PtrInterface const>(root));
   Ptr<Scheduler> s(new Scheduler);
   Ptr<Engine> a = root->engineIs(3, "red", s);
   Ptr<Engine> b = root->engineIs(3, "red", s);
   EXPECT_EQ(a, b);
   EXPECT_EQ(count.n, 1) << "the second xIs made nothing and notified nothing";
   EXPECT_THROW(root->engineIs(3, "blue", s), Vor::ReinstantiationException);
   EXPECT_THROW(root->engineIs(3, "red", Ptr<Scheduler>(new Scheduler)),
                Vor::ReinstantiationException);
   EXPECT_THROW(root->engineIs(4, "red", Ptr<Scheduler>()), Vor::NullPointerException);
   EXPECT_EQ(root->engines(), 1u) << "a refused xIs changes nothing";
   EXPECT_EQ(count.n, 1);
   count.notifierIs(Ptr<Vor::PtrInterface const>());
}

} // namespace
