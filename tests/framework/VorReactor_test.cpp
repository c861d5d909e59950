// Delivery semantics of entities and reactors: what runs, in which order, and
// what does not run.

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "framework/UloBaseSm.h"
#include "framework/VorEntity.h"
#include "framework/VorReactor.h"

namespace {

using Vor::Ptr;

// A member entity of the test notifier's collection.
class Rule : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId enabledId = 1;
   explicit Rule(int key) : Vor::Entity(std::to_string(key)), key_(key) {}
   int key() const { return key_; }
   bool enabled() const { return enabled_; }
   void enabledIs(bool v) { scalarIs(enabled_, v, enabledId); }

 private:
   int key_;
   bool enabled_ = false;
};

// An entity with two scalars and a collection of member entities.
class Config : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId nameId = 1;
   static constexpr Vor::AttributeId countId = 2;
   static constexpr Vor::AttributeId ruleId = 3;

   std::string const& label() const { return label_; }
   void labelIs(std::string const& v) { scalarIs(label_, v, nameId); }
   int count() const { return count_; }
   void countIs(int v) { scalarIs(count_, v, countId); }

   Ptr<Rule> rule(int key) const {
      auto it = rules_.find(key);
      return it == rules_.end() ? Ptr<Rule>() : it->second;
   }
   Ptr<Rule> ruleIs(int key) {
      auto& slot = rules_[key];
      if (!slot) {
         slot = Ptr<Rule>(new Rule(key));
         memberChanged(ruleId, key);
      }
      return slot;
   }
   void ruleDel(int key) {
      if (rules_.erase(key)) memberChanged(ruleId, key);
   }
   std::map<int, Ptr<Rule>> const& rules() const { return rules_; }

 private:
   std::string label_;
   int count_ = 0;
   std::map<int, Ptr<Rule>> rules_;
};

// A state machine that records every handler call.
class Sm : public Ulo::UloBaseSm {
 public:
   struct VorRule : Vor::Reactor<Rule, Sm> {
      static Bindings const& table() {
         static Bindings const b{onScalar(Rule::enabledId, std::function<void(Sm&)>([](Sm&) {}))};
         return b;
      }
      VorRule(Sm* sm, int key) : Reactor(sm, bindings(key)) {}
      // Per-member handler with the member's key bound in.
      static Bindings const& bindings(int) { return table(); }
   };
   struct VorConfig : Vor::Reactor<Config, Sm> {
      static Bindings const& table() {
         static Bindings const b{
            onScalar(Config::nameId, &Sm::handleName),
            onKey<int>(Config::ruleId, &Sm::handleRuleKey),
            onMembers<int>(Config::ruleId, &Sm::handleRule, &Sm::ruleReactors_,
                           [](Config const& c, int k) { return c.rule(k); },
                           [](Config const& c, auto const& visit) {
                              for (auto const& [k, r] : c.rules()) visit(k, Ptr<Rule const>(r));
                           }),
            onScalar(Config::countId, &Sm::handleCount),
         };
         return b;
      }
      explicit VorConfig(Sm* sm) : Reactor(sm, table()) {}
   };

   Sm() : Ulo::UloBaseSm(Ptr<Ulo::UloCommonSmData const>()) {}

   void configIs(Ptr<Config const> const& c) { config_.notifierIs(c); }
   Config const* config() const { return config_.reactor() ? config_.reactor()->notifier() : nullptr; }

   void handleName() { calls.push_back("name"); }
   void handleCount() { calls.push_back("count"); }
   void handleRuleKey(int const& k) { calls.push_back("key" + std::to_string(k)); }
   void handleRule(int const& k) {
      // Runs before the member reactor is made or deleted.
      calls.push_back("rule" + std::to_string(k) + (ruleReactors_.find(k) ? "+" : "-"));
      if (onRule) onRule(k);
   }

   std::vector<std::string> calls;
   std::function<void(int)> onRule;
   Vor::ReactorSlot<VorConfig> config_{this, [this] { return std::make_unique<VorConfig>(this); }};
   Vor::MemberReactors<int, VorRule> ruleReactors_{
      this, [this](int const& k) { return std::make_unique<VorRule>(this, k); }};
};

TEST(ReactorDelivery, ScalarChangesDeliverOnceAndNoChangeDeliversNothing) {
   Ptr<Config> c(new Config);
   Ptr<Sm> sm(new Sm);
   sm->configIs(c);
   EXPECT_TRUE(sm->calls.empty()) << "a new reactor attaches without delivery";
   c->labelIs("a");
   c->labelIs("a");
   c->countIs(3);
   EXPECT_EQ(sm->calls, (std::vector<std::string>{"name", "count"}));
   sm->configIs(c);   // the present notifier again
   EXPECT_EQ(sm->calls.size(), 2u);
}

TEST(ReactorDelivery, CollectionHandlerRunsBeforeMemberReactorIsMadeOrDeleted) {
   Ptr<Config> c(new Config);
   Ptr<Sm> sm(new Sm);
   sm->configIs(c);
   c->ruleIs(7);
   EXPECT_EQ(sm->calls, (std::vector<std::string>{"key7", "rule7-"}));
   EXPECT_NE(sm->ruleReactors_.find(7), nullptr);
   sm->calls.clear();
   c->ruleDel(7);
   EXPECT_EQ(sm->calls, (std::vector<std::string>{"key7", "rule7+"}));
   EXPECT_EQ(sm->ruleReactors_.find(7), nullptr);
}

TEST(ReactorDelivery, RepointingReconcilesMembersThenRunsScalarsInDeclarationOrder) {
   Ptr<Config> first(new Config);
   first->ruleIs(1);
   first->ruleIs(2);
   Ptr<Config> second(new Config);
   second->ruleIs(2);
   second->ruleIs(3);
   Ptr<Sm> sm(new Sm);
   sm->configIs(first);
   EXPECT_EQ(sm->ruleReactors_.size(), 0u) << "first attachment delivers nothing";
   sm->configIs(second);
   // Members reconciled with the new notifier: 1 gone, 2 and 3 present.
   EXPECT_EQ(sm->ruleReactors_.size(), 2u);
   EXPECT_EQ(sm->ruleReactors_.find(1), nullptr);
   EXPECT_NE(sm->ruleReactors_.find(3), nullptr);
   // Scalar handlers in declaration order (name before count); keyed
   // handlers are not replayed.
   EXPECT_EQ(sm->calls, (std::vector<std::string>{"name", "count"}));
   // The old notifier no longer delivers.
   sm->calls.clear();
   first->labelIs("old");
   EXPECT_TRUE(sm->calls.empty());
   second->labelIs("new");
   EXPECT_EQ(sm->calls, (std::vector<std::string>{"name"}));
   // Null deletes the reactor.
   sm->configIs(Ptr<Config const>());
   EXPECT_EQ(sm->config(), nullptr);
   EXPECT_TRUE(second->notifieeList().empty());
}

TEST(ReactorDelivery, ZombieAndInactiveReactorsRunNoHandler) {
   Ptr<Config> first(new Config);
   Ptr<Config> second(new Config);
   second->ruleIs(5);
   Ptr<Sm> sm(new Sm);
   sm->configIs(first);
   sm->vorDoZombieReactors(true);
   first->labelIs("x");
   first->ruleIs(9);
   EXPECT_TRUE(sm->calls.empty()) << "no onAttribute handler for a marked reactor";
   sm->configIs(second);
   EXPECT_TRUE(sm->calls.empty()) << "no initial delivery for a marked reactor";
   sm->vorDoZombieReactors(false);
   sm->hasNotificationActiveIs(false);
   second->labelIs("y");
   EXPECT_TRUE(sm->calls.empty());
   sm->hasNotificationActiveIs(true);
   second->labelIs("z");
   EXPECT_EQ(sm->calls, (std::vector<std::string>{"name"}));
}

TEST(ReactorDelivery, HandlerMayDeleteItsOwnReactorAndOtherMembers) {
   Ptr<Config> c(new Config);
   Ptr<Sm> sm(new Sm);
   sm->configIs(c);
   // The handler drops the reactor that is delivering to it.
   sm->onRule = [&](int) { sm->configIs(Ptr<Config const>()); };
   c->ruleIs(1);
   EXPECT_EQ(sm->calls, (std::vector<std::string>{"key1", "rule1-"}));
   EXPECT_EQ(sm->config(), nullptr);
   EXPECT_TRUE(c->notifieeList().empty());
   // Still usable afterwards.
   sm->onRule = nullptr;
   sm->configIs(c);
   c->ruleIs(2);
   EXPECT_EQ(sm->calls.back(), "rule2-");
}

TEST(ReactorDelivery, HandlerMayChangeItsNotifierNested) {
   Ptr<Config> c(new Config);
   Ptr<Sm> sm(new Sm);
   sm->configIs(c);
   sm->onRule = [&](int k) {
      if (k == 1) c->ruleIs(2);   // nested change, delivered at once
   };
   c->ruleIs(1);
   EXPECT_EQ(sm->calls, (std::vector<std::string>{"key1", "rule1-", "key2", "rule2-"}));
   EXPECT_EQ(sm->ruleReactors_.size(), 2u);
}

TEST(ReactorDelivery, ManyReactorsOnOneNotifierAllDeliveredInAttachmentOrder) {
   Ptr<Config> c(new Config);
   std::vector<Ptr<Sm>> sms;
   for (int i = 0; i < 10; ++i) {
      sms.emplace_back(new Sm);
      sms.back()->configIs(c);
   }
   // The third machine's handler detaches the fifth mid-delivery: the fifth
   // is skipped, nobody else is.
   sms[2]->onRule = [&](int) { sms[4]->configIs(Ptr<Config const>()); };
   c->ruleIs(1);
   for (int i = 0; i < 10; ++i) {
      if (i == 4) {
         EXPECT_TRUE(sms[i]->calls.empty());
      } else {
         EXPECT_EQ(sms[i]->calls.size(), 2u) << i;
      }
   }
   EXPECT_EQ(c->notifieeList().size(), 9u);
}

// initializedIs runs handleInitialized only on a change.
class CountingSm : public Ulo::UloBaseSm {
 public:
   CountingSm() : Ulo::UloBaseSm(Ptr<Ulo::UloCommonSmData const>()) {}
   void handleInitialized() override { ++runs; }
   int runs = 0;
};

TEST(UloBaseSm, InitializedIsRunsHandlerOnChangeOnly) {
   Ptr<CountingSm> sm(new CountingSm);
   sm->initializedIs(false);
   EXPECT_EQ(sm->runs, 0);
   sm->initializedIs(true);
   sm->initializedIs(true);
   EXPECT_EQ(sm->runs, 1);
   sm->initializedIs(false);
   EXPECT_EQ(sm->runs, 2);
}

// Parts of a machine that record when delivery is switched for them.
std::vector<std::string>* switchLog = nullptr;

class Child : public Ulo::UloBaseSm {
 public:
   explicit Child(std::string name)
       : Ulo::UloBaseSm(Ptr<Ulo::UloCommonSmData const>()), name_(std::move(name)) {}
   void hasNotificationActiveIs(bool active) override {
      switchLog->push_back(name_ + (active ? ":on" : ":off"));
      Ulo::UloBaseSm::hasNotificationActiveIs(active);
   }
   void vorDoZombieReactors(bool zombie) override {
      switchLog->push_back(name_ + (zombie ? ":zombie" : ":alive"));
      Ulo::UloBaseSm::vorDoZombieReactors(zombie);
   }

 private:
   std::string name_;
};

class Parent : public Ulo::UloBaseSm {
 public:
   Parent() : Ulo::UloBaseSm(Ptr<Ulo::UloCommonSmData const>()) {}
   Vor::ChildMachines<int, Child> first_{this};
   Vor::ReactorSlot<Sm::VorConfig> config_{this, [] { return std::unique_ptr<Sm::VorConfig>(); }};
   Vor::ChildMachines<int, Child> second_{this};
};

TEST(ReactorDelivery, SwitchesGoDownIntoChildrenInDeclarationOrder) {
   std::vector<std::string> log;
   switchLog = &log;
   {
      Ptr<Parent> p(new Parent);
      p->second_.xIs(1, Ptr<Child>(new Child("second1")));
      p->first_.xIs(2, Ptr<Child>(new Child("first2")));
      p->first_.xIs(1, Ptr<Child>(new Child("first1")));
      p->hasNotificationActiveIs(false);
      p->vorDoZombieReactors(true);
      EXPECT_EQ(log, (std::vector<std::string>{"first1:off", "first2:off", "second1:off",
                                               "first1:zombie", "first2:zombie",
                                               "second1:zombie"}));
      log.clear();
      // A child's delivery is switched off before it leaves the collection.
      p->second_.xDel(1);
      EXPECT_EQ(log, (std::vector<std::string>{"second1:off"}));
      EXPECT_FALSE(p->second_.contains(1));
   }
   switchLog = nullptr;
}

} // namespace
