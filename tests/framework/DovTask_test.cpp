// The scheduler on virtual time: priorities, idempotent scheduling, timers,
// yielding, and the clock's time requests.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/DovTask.h"
#include "framework/UloBaseSm.h"
#include "framework/VorClock.h"
#include "framework/VorSystem.h"

namespace {

using Vor::Ptr;

// Owner of a task reactor that logs runs and can yield.
class Worker : public Ulo::UloBaseSm {
 public:
   struct VorTask : Dov::Task::Reactor<Worker> {
      static Bindings const& table() {
         static Bindings const b{onEvent<&Worker::handleTaskRun>(Dov::Task::taskRunId)};
         return b;
      }
      explicit VorTask(Worker* w) : Reactor(w, table()) {}
   };

   Worker(std::vector<std::string>* log, Ptr<Dov::Task> task)
       : Ulo::UloBaseSm(Ptr<Ulo::UloCommonSmData const>()), log_(log), task_(task) {
      reactor_.notifierIs(task);
   }

   void handleTaskRun() {
      log_->push_back(task_->taskName().stdString() + "@" +
                      std::to_string(static_cast<int>(Vor::System::currentTime())));
      while (pending > 0) {
         --pending;
         ++done;
         if (task_->taskShouldYield()) {
            task_->scheduleTask();
            return;
         }
      }
   }

   int pending = 0;
   int done = 0;

 private:
   std::vector<std::string>* log_;
   Ptr<Dov::Task> task_;
   Vor::ReactorSlot<VorTask> reactor_{this, [this] { return std::make_unique<VorTask>(this); }};
};

class SchedulerTest : public ::testing::Test {
 protected:
   void SetUp() override {
      scheduler = Ptr<Dov::TaskScheduler>(new Dov::TaskScheduler);
      scheduler->virtualTimeIs(true, 100.0);
      Dov::TaskSchedulerRoot::schedulerIs(scheduler);
   }
   void TearDown() override {
      Dov::TaskSchedulerRoot::schedulerIs(Ptr<Dov::TaskScheduler>());
      scheduler->virtualTimeIs(false);
   }
   Ptr<Dov::TaskScheduler> scheduler;
   std::vector<std::string> log;
};

TEST_F(SchedulerTest, HigherPriorityFirstAndFifoWithinOnePriority) {
   Ptr<Dov::Task> low(new Dov::Task(scheduler, 2, "low"));
   Ptr<Dov::Task> highA(new Dov::Task(scheduler, 3, "highA"));
   Ptr<Dov::Task> highB(new Dov::Task(scheduler, 3, "highB"));
   Ptr<Worker> w1(new Worker(&log, low)), w2(new Worker(&log, highA)), w3(new Worker(&log, highB));
   low->scheduleTask();
   highA->scheduleTask();
   highB->scheduleTask();
   EXPECT_EQ(scheduler->runUntilIdle(), 3u);
   EXPECT_EQ(log, (std::vector<std::string>{"highA@100", "highB@100", "low@100"}));
}

TEST_F(SchedulerTest, ScheduleTaskWhileQueuedHasNoSecondEffect) {
   Ptr<Dov::Task> t(new Dov::Task(scheduler, 2, "t"));
   Ptr<Worker> w(new Worker(&log, t));
   t->scheduleTask();
   t->scheduleTask();
   EXPECT_TRUE(t->taskScheduled());
   EXPECT_EQ(scheduler->readyCount(), 1u);
   EXPECT_EQ(scheduler->runUntilIdle(), 1u);
   EXPECT_FALSE(t->taskScheduled());
   EXPECT_EQ(log.size(), 1u);
}

TEST_F(SchedulerTest, TimerRunsAtItsVirtualTimeAndANewDelayReplacesTheOld) {
   Ptr<Dov::TimerTask> t(new Dov::TimerTask(scheduler, 3, "timer"));
   Ptr<Worker> w(new Worker(&log, t));
   t->scheduleTaskDelay(5.0);
   scheduler->runFor(4.999);
   EXPECT_TRUE(log.empty());
   t->scheduleTaskDelay(5.0);   // replaces the pending expiry: now 104.999 + 5
   scheduler->runFor(1.0);
   EXPECT_TRUE(log.empty());
   scheduler->runFor(4.0);
   EXPECT_EQ(log, (std::vector<std::string>{"timer@109"}));
   EXPECT_DOUBLE_EQ(scheduler->now(), 109.999);
   EXPECT_EQ(scheduler->timerCount(), 0u);
}

TEST_F(SchedulerTest, RunForFiresEachTimerAtItsOwnTime) {
   Ptr<Dov::TimerTask> a(new Dov::TimerTask(scheduler, 3, "a"));
   Ptr<Dov::TimerTask> b(new Dov::TimerTask(scheduler, 3, "b"));
   Ptr<Worker> wa(new Worker(&log, a)), wb(new Worker(&log, b));
   b->scheduleTaskDelay(7.0);
   a->scheduleTaskDelay(2.0);
   scheduler->runFor(10.0);
   EXPECT_EQ(log, (std::vector<std::string>{"a@102", "b@107"}));
   EXPECT_DOUBLE_EQ(Vor::System::currentTime(), 110.0);
}

TEST_F(SchedulerTest, YieldBudgetSplitsWorkIntoExactRuns) {
   scheduler->yieldBudgetIs(3);
   Ptr<Dov::Task> t(new Dov::Task(scheduler, 2, "backlog"));
   Ptr<Worker> w(new Worker(&log, t));
   w->pending = 10;
   t->scheduleTask();
   EXPECT_FALSE(t->taskShouldYield()) << "outside its run a task never yields";
   // 10 units at 3 a run: 3 + 3 + 3 + 1.
   EXPECT_EQ(scheduler->runUntilIdle(), 4u);
   EXPECT_EQ(w->done, 10);
   EXPECT_EQ(t->taskRuns(), 4u);
}

TEST_F(SchedulerTest, DestroyedTaskLeavesQueueAndTimers) {
   {
      Ptr<Dov::TimerTask> t(new Dov::TimerTask(scheduler, 3, "gone"));
      t->scheduleTaskDelay(1.0);
      Ptr<Dov::Task> q(new Dov::Task(scheduler, 3, "gone2"));
      q->scheduleTask();
   }
   EXPECT_EQ(scheduler->timerCount(), 0u);
   EXPECT_EQ(scheduler->readyCount(), 0u);
   EXPECT_EQ(scheduler->runFor(5.0), 0u);
}

TEST_F(SchedulerTest, CurrentlyRunningIsTrueOnlyInsideTheRun) {
   Ptr<Dov::Task> t(new Dov::Task(scheduler, 2, "t"));
   bool seenRunning = false;
   struct Probe : Vor::PtrInterface::NotifieeConst {
      Dov::Task* task;
      bool* seen;
      void onAttribute(Vor::AttributeId, void const*) override { *seen = task->taskCurrentlyRunning(); }
   } probe;
   probe.task = t.ptr();
   probe.seen = &seenRunning;
   probe.notifierIs(Ptr<Vor::PtrInterface const>(t));
   EXPECT_FALSE(t->taskCurrentlyRunning());
   t->scheduleTask();
   scheduler->runUntilIdle();
   EXPECT_TRUE(seenRunning);
   EXPECT_FALSE(t->taskCurrentlyRunning());
   probe.notifierIs(Ptr<Vor::PtrInterface const>());
}

// A clock reactor asking for ticks, as a counter machine does.
class Ticker : public Ulo::UloBaseSm {
 public:
   Ticker() : Ulo::UloBaseSm(Ptr<Ulo::UloCommonSmData const>()) {}
   void handleTime() {
      ticks.push_back(Vor::System::currentTime());
      if (ticks.size() < 3) clock_.timeMinIs(Vor::System::currentTime() + 5.0);
   }
   std::vector<double> ticks;
   Vor::Clock::Reactor<Ticker> clock_{this, &Ticker::handleTime};
};

TEST_F(SchedulerTest, ClockCallsTimeHandlerAtRequestedTimes) {
   Ptr<Ticker> t(new Ticker);
   t->clock_.timeMinIs(Vor::activityManager()->clock()->time() + 5.0);
   scheduler->runFor(30.0);
   EXPECT_EQ(t->ticks, (std::vector<double>{105.0, 110.0, 115.0}));
   // A later request replaces an earlier one.
   t->ticks.clear();
   t->clock_.timeMinIs(200.0);
   t->clock_.timeMinIs(140.0);
   scheduler->runFor(20.0);
   EXPECT_EQ(t->ticks, (std::vector<double>{140.0, 145.0, 150.0}));
}

TEST_F(SchedulerTest, ForeignThreadIsCaughtUnlessSanityDisabled) {
   Ptr<Dov::Task> t(new Dov::Task(scheduler, 2, "t"));
   EXPECT_DEATH(
      {
         std::thread other([&] { t->scheduleTask(); });
         other.join();
      },
      "std::this_thread::get_id\\(\\) == home_");
   Dov::TaskSchedulerRoot::threadSanityDisabledIs(true);
   std::thread other([&] { t->scheduleTask(); });
   other.join();
   Dov::TaskSchedulerRoot::threadSanityDisabledIs(false);
   EXPECT_TRUE(t->taskScheduled());
}

} // namespace
