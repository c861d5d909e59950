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
   // Puts a new entity under an existing key: one change of the member.
   Ptr<Rule> ruleReplace(int key) {
      Ptr<Rule> r(new Rule(key));
      rules_[key] = r;
      memberChanged(ruleId, key);
      return r;
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
   Sm() : Ulo::UloBaseSm(Ptr<Ulo::UloCommonSmData const>()) {}

   void configIs(Ptr<Config const> const& c) { config_.notifierIs(c); }
   Config const* config() const { return config_.reactor() ? config_.reactor()->notifier() : nullptr; }

   void handleName() {
      calls.push_back("name");
      if (onName) onName();
   }
   void handleCount() { calls.push_back("count"); }
   void handleRuleKey(int const& k) { calls.push_back("key" + std::to_string(k)); }
   void handleRule(int const& k) {
      // Runs before the member reactor is made or deleted.
      calls.push_back("rule" + std::to_string(k) + (ruleReactors_.find(k) ? "+" : "-"));
      if (onRule) onRule(k);
   }
   // The reactor of one rule hands its key to the owner.
   void handleRuleEnabled(int const& k) {
      calls.push_back("enabled" + std::to_string(k));
      if (onEnabled) onEnabled(k);
   }

   std::vector<std::string> calls;
   std::function<void(int)> onRule;
   std::function<void(int)> onEnabled;
   std::function<void()> onName;
   Vor::WatchMembers<int, Rule, Sm, Vor::OnScalar<Rule::enabledId, &Sm::handleRuleEnabled>>
      ruleReactors_{this};
   Vor::Watch<Config, Sm, Vor::OnScalar<Config::nameId, &Sm::handleName>,
              Vor::OnKey<Config::ruleId, &Sm::handleRuleKey>,
              Vor::OnMembers<Config::ruleId, &Sm::handleRule, &Sm::ruleReactors_,
                             Vor::collection(&Config::rules)>,
              Vor::OnScalar<Config::countId, &Sm::handleCount>>
      config_{this};
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

TEST(ReactorMembers, MemberReactorsHandTheirKeyToTheOwner) {
   Ptr<Config> c(new Config);
   Ptr<Rule> r4 = c->ruleIs(4);
   Ptr<Sm> sm(new Sm);
   sm->configIs(c);
   Ptr<Rule> r7 = c->ruleIs(7);
   sm->calls.clear();
   r7->enabledIs(true);
   r4->enabledIs(true);   // no reactor: 4 was there before the first attachment
   r7->enabledIs(true);   // no change
   EXPECT_EQ(sm->calls, (std::vector<std::string>{"enabled7"}));
   // A replaced member re-points its reactor, which replays the scalar with
   // the member's key.
   sm->calls.clear();
   Ptr<Rule> r7b = c->ruleReplace(7);
   EXPECT_EQ(sm->calls, (std::vector<std::string>{"key7", "rule7+", "enabled7"}));
   sm->calls.clear();
   r7->enabledIs(false);   // the old entity no longer delivers
   r7b->enabledIs(true);
   EXPECT_EQ(sm->calls, (std::vector<std::string>{"enabled7"}));
}

TEST(ReactorMembers, AttachMakesMemberReactorsWithoutRunningHandlers) {
   Ptr<Config> c(new Config);
   c->labelIs("a");
   Ptr<Rule> r1 = c->ruleIs(1);
   c->ruleIs(2);
   Ptr<Sm> sm(new Sm);
   sm->config_.attach(c);
   EXPECT_TRUE(sm->calls.empty()) << "construction runs no handler";
   EXPECT_EQ(sm->ruleReactors_.size(), 2u);
   r1->enabledIs(true);
   EXPECT_EQ(sm->calls, (std::vector<std::string>{"enabled1"}));
   // On an attached reactor, attach is a re-pointing and delivers.
   Ptr<Config> other(new Config);
   sm->calls.clear();
   sm->config_.attach(other);
   EXPECT_EQ(sm->calls, (std::vector<std::string>{"name", "count"}));
   EXPECT_EQ(sm->ruleReactors_.size(), 0u);
}

// A handler that runs inside a re-pointing may destroy the reactor being
// re-pointed. Whoever called the re-pointing must learn it and touch
// nothing of the reactor afterwards (the sanitizer build turns a touch into
// a failure).
TEST(ReactorLife, DeathDuringRepointingReachesTheDeliveryThatCalledIt) {
   Ptr<Config> first(new Config);
   Ptr<Config> second(new Config);
   Ptr<Sm> sm(new Sm);
   sm->configIs(first);
   // The rule handler, run by the reactor's onAttribute, re-points that same
   // reactor; the replay of "name" at the re-pointing drops it.
   sm->onRule = [&](int) { sm->configIs(second); };
   sm->onName = [&] { sm->configIs(Ptr<Config const>()); };
   first->ruleIs(1);
   EXPECT_EQ(sm->calls, (std::vector<std::string>{"key1", "rule1-", "name"}));
   EXPECT_EQ(sm->config(), nullptr);
   EXPECT_EQ(sm->ruleReactors_.size(), 0u) << "the dead reactor went on to make a member reactor";
   EXPECT_TRUE(first->notifieeList().empty());
   EXPECT_TRUE(second->notifieeList().empty());
}

TEST(ReactorLife, MemberReactorThatDiesWhileRepointedIsNotReturned) {
   Ptr<Config> c(new Config);
   Ptr<Sm> sm(new Sm);
   sm->configIs(c);
   c->ruleIs(7);
   ASSERT_NE(sm->ruleReactors_.find(7), nullptr);
   // Re-pointing the member's reactor replays its scalar, whose handler
   // deletes that reactor.
   sm->onEnabled = [&](int k) { sm->ruleReactors_.xDel(k); };
   sm->calls.clear();
   Ptr<Rule> replaced = c->ruleReplace(7);
   EXPECT_EQ(sm->calls, (std::vector<std::string>{"key7", "rule7+", "enabled7"}));
   EXPECT_EQ(sm->ruleReactors_.find(7), nullptr);
   EXPECT_TRUE(replaced->notifieeList().empty());
   // Direct use of the collection reports the death as a null reactor.
   sm->onEnabled = nullptr;
   Ptr<Rule> other(new Rule(8));
   ASSERT_NE(sm->ruleReactors_.xIs(8, other), nullptr);
   sm->onEnabled = [&](int k) { sm->ruleReactors_.xDel(k); };
   EXPECT_EQ(sm->ruleReactors_.xIs(8, Ptr<Rule>(new Rule(8))), nullptr);
   EXPECT_EQ(sm->ruleReactors_.size(), 0u);
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
   Vor::Watch<Config, Parent> config_{this};
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
