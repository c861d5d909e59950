// The programmer framework on its own: commands in, states out, stop and
// start, and the sweep of statuses left without a command.

#include <gtest/gtest.h>

#include "UloNat/UloNatAsyncProgrammerSm.h"

namespace {

using namespace Ulo;

class RecordingProgrammer : public NatAsyncProgrammerSm {
 public:
   using NatAsyncProgrammerSm::NatAsyncProgrammerSm;
   std::vector<std::string> calls;
   void doAdd(NatHwKey const& key) override {
      NatAsyncProgrammerSm::doAdd(key);
      calls.push_back("add " + std::to_string(key.groupId()));
   }
   void doDel(NatHwKey const& key) override {
      NatAsyncProgrammerSm::doDel(key);
      calls.push_back("del " + std::to_string(key.groupId()));
   }
   void doUpdate(NatHwKey const& key) override {
      NatAsyncProgrammerSm::doUpdate(key);
      calls.push_back("update " + std::to_string(key.groupId()));
   }
   void doCleanup(NatHwKey const& key) override { calls.push_back("cleanup " + std::to_string(key.groupId())); }
   void doHandleSteadyState(NatHwKey const& key) override {
      calls.push_back("steady " + std::to_string(key.groupId()));
   }
};

NatHwKey key(U16 n) {
   NatHwKey k(NatHwKey::twiceNatForward, Lumet::IpAndPort(), Lumet::IpAndPort(), Lumet::IpAndPort(),
              Lumet::IpAndPort());
   k.groupIdIs(n);
   return k;
}

struct ProgrammerTest : ::testing::Test {
   Vor::Ptr<NatAsyncHwConfigDir> configDir = natAsyncHwConfigDirFactory();
   Vor::Ptr<NatAsyncHwStatusDir> statusDir = natAsyncHwStatusDirFactory();
   Vor::Ptr<RecordingProgrammer> programmer;

   void make() {
      programmer = Vor::Ptr<RecordingProgrammer>(new RecordingProgrammer(configDir, statusDir));
      programmer->hasNotificationActiveIs(true);
   }
   void command(U16 n, NatRequestQueue::OpType op) { configDir->configIs(key(n))->opTypeIs(op); }
   NatAsyncHwStatus::State state(U16 n) const {
      auto s = statusDir->status(key(n));
      return s ? s->state() : NatAsyncHwStatus::unknown;
   }
};

TEST_F(ProgrammerTest, CommandsSetTheStateBeforeTheCall) {
   make();
   programmer->initializedIs(true);
   command(1, NatRequestQueue::add);
   EXPECT_EQ(state(1), NatAsyncHwStatus::inProgress);
   command(1, NatRequestQueue::update);
   command(1, NatRequestQueue::del);
   // idle on a key without a status: the status is made, idle, and the
   // steady state is reported.
   command(2, NatRequestQueue::idle);
   EXPECT_EQ(state(2), NatAsyncHwStatus::idle);
   EXPECT_EQ(programmer->calls, (std::vector<std::string>{"add 1", "update 1", "del 1", "steady 2"}));
   EXPECT_EQ(programmer->addCount(), 1u);
   EXPECT_EQ(programmer->updateCount(), 1u);
   EXPECT_EQ(programmer->delCount(), 1u);

   // A config that goes is cleaned up and its status removed.
   configDir->configDel(key(1));
   EXPECT_EQ(programmer->calls.back(), "cleanup 1");
   EXPECT_FALSE(statusDir->status(key(1)));
   EXPECT_FALSE(programmer->vorHwConfig(key(1)));
}

TEST_F(ProgrammerTest, StoppedItAnswersNothingAndStartingRunsEachLatestCommandOnce) {
   make();
   programmer->initializedIs(true);
   command(1, NatRequestQueue::add);   // carried out, left at add
   programmer->deInit();
   command(2, NatRequestQueue::add);
   command(2, NatRequestQueue::update);
   command(3, NatRequestQueue::idle);
   EXPECT_EQ(programmer->calls, (std::vector<std::string>{"add 1"}));
   EXPECT_EQ(state(2), NatAsyncHwStatus::unknown);
   statusDir->status(key(1))->stateIs(NatAsyncHwStatus::success);

   programmer->initializedIs(true);
   std::vector<std::string> calls = programmer->calls;
   std::sort(calls.begin() + 1, calls.end());
   EXPECT_EQ(calls, (std::vector<std::string>{"add 1", "add 1", "steady 3", "update 2"}));
   EXPECT_EQ(state(1), NatAsyncHwStatus::inProgress) << "a command done before the stop runs again";
   EXPECT_EQ(state(2), NatAsyncHwStatus::inProgress);
}

TEST_F(ProgrammerTest, StatusesWithoutACommandAreSweptAtStart) {
   make();
   programmer->initializedIs(true);
   command(1, NatRequestQueue::add);
   statusDir->statusIs(key(9))->stateIs(NatAsyncHwStatus::success);   // left from an earlier life
   programmer->deInit();
   // A config removed while stopped: the reactor goes without cleanup, the
   // status is left for the sweep.
   configDir->configDel(key(1));
   EXPECT_FALSE(programmer->vorHwConfig(key(1)));
   EXPECT_EQ(programmer->calls, (std::vector<std::string>{"add 1"}));
   EXPECT_TRUE(statusDir->status(key(1)));
   programmer->initializedIs(true);
   EXPECT_FALSE(statusDir->status(key(1)));
   EXPECT_FALSE(statusDir->status(key(9)));
}

TEST_F(ProgrammerTest, AProgrammerBuiltLaterTakesTheCommandsThatAreThere) {
   command(4, NatRequestQueue::add);
   command(5, NatRequestQueue::idle);
   statusDir->statusIs(key(6));
   make();
   EXPECT_TRUE(programmer->calls.empty()) << "nothing before the start";
   programmer->initializedIs(true);
   std::vector<std::string> calls = programmer->calls;
   std::sort(calls.begin(), calls.end());
   EXPECT_EQ(calls, (std::vector<std::string>{"add 4", "steady 5"}));
   EXPECT_FALSE(statusDir->status(key(6))) << "swept before the commands ran";
}

} // namespace
