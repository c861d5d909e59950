#pragma once
// Cooperative tasks, timers and the scheduler that runs them.
//
// All reactors and tasks of the library run on one thread, one at a time; a
// task's work runs in the handler of its `taskRun` notification. A task is
// one-shot: scheduleTask() queues it to run once, and a task that has more to
// do schedules itself again.
//
// The same scheduler runs on real time in production and on virtual time in
// tests and in the simulator:
//  - Real time: timers fire by the wall clock; runOnce(maxWait) sleeps until
//    the next timer or until work is queued.
//  - Virtual time: the clock stands still until the driver moves it.
//    runUntilIdle() runs queued tasks without moving time; runFor(seconds)
//    runs everything due up to now + seconds, moving time from one timer to
//    the next, and ends with the clock at exactly now + seconds.
//
// Priorities: a higher TaskPriority runs first; tasks of one priority run in
// the order they were queued.
//
// Yielding: a handler asks taskShouldYield() after each unit of work and,
// when it answers true, stops and reschedules itself. The budget is the
// scheduler's: on real time a time slice (default 10 ms) from the start of
// the run; on virtual time a number of taskShouldYield() calls per run
// (yieldBudgetIs(n), default 100), so that tests of yielding are exact.
//
// Thread safety: a scheduler belongs to its home thread (the thread that
// created it); using it from another thread ends the process by assertion
// unless TaskSchedulerRoot::threadSanityDisabledIs(true) was called.
//
// Invariants:
//  1. A task is in the ready queue at most once (taskScheduled()).
//  2. A timer task has at most one pending expiry; a new scheduleTaskDelay()
//     replaces it.
//  3. A destroyed task is removed from the ready queue and the timer set.

#include <cstdint>
#include <deque>
#include <map>
#include <thread>

#include "framework/VorEntity.h"
#include "framework/VorReactor.h"

namespace Dov {

using TaskPriority = int;
using Vor::Ptr;

class TaskScheduler;

class Task : public Vor::Entity {
 public:
   // Attribute ids.
   static constexpr Vor::AttributeId taskRunId = 1;

   Task(Ptr<TaskScheduler> const& scheduler, TaskPriority priority, Vor::String name);
   ~Task() override;

   Vor::String const& taskName() const { return name(); }
   TaskPriority taskPriority() const { return priority_; }
   Ptr<TaskScheduler> const& taskScheduler() const { return scheduler_; }

   // Queues the task to run once. No second effect while it is queued.
   void scheduleTask();
   // Removes the task from the ready queue (and, for a timer, its expiry).
   void unscheduleTask();
   bool taskScheduled() const { return queued_; }
   // True while this task's taskRun handlers run.
   bool taskCurrentlyRunning() const { return running_; }
   // Counts one unit of work against the run's budget; true when the budget
   // is used up. Outside a run of this task it answers false.
   bool taskShouldYield();
   // Tells the scheduler how many units of work this run did (statistics).
   void taskWorkCountInc(std::uint64_t n) { workCount_ += n; }
   std::uint64_t taskWorkCount() const { return workCount_; }
   std::uint64_t taskRuns() const { return runs_; }

   // Reactor on a task: the owner's handler of `taskRun`.
   template <typename O>
   using Reactor = Vor::Reactor<Task, O>;

 protected:
   friend class TaskScheduler;
   void run();
   // The work of one run: by default, notify `taskRun` to the reactors.
   virtual void doRun() { attributeChanged(taskRunId); }

   Ptr<TaskScheduler> scheduler_;
   TaskPriority priority_;
   bool queued_ = false;
   bool running_ = false;
   std::uint64_t yieldChecks_ = 0;
   double runStart_ = 0.0;
   std::uint64_t workCount_ = 0;
   std::uint64_t runs_ = 0;
};

class TimerTask : public Task {
 public:
   TimerTask(Ptr<TaskScheduler> const& scheduler, TaskPriority priority, Vor::String name)
       : Task(scheduler, priority, std::move(name)) {}
   ~TimerTask() override;

   // Runs the task once, `seconds` from now (queued at that time with its
   // priority). Replaces an expiry already pending.
   void scheduleTaskDelay(double seconds);
   void scheduleTaskAt(double time);
   bool timerPending() const { return timerPending_; }
   double timerExpiry() const { return expiry_; }
   void timerCancel();

 private:
   friend class TaskScheduler;
   bool timerPending_ = false;
   double expiry_ = 0.0;
   std::uint64_t timerSeq_ = 0;
};

class TaskScheduler : public Vor::PtrInterface {
 public:
   TaskScheduler();
   ~TaskScheduler() override;

   // --- time ---
   // Switches to virtual time starting at `start` seconds (installs the
   // virtual clock as the process's time source), or back to real time.
   void virtualTimeIs(bool on, double start = 0.0);
   bool virtualTime() const { return virtual_; }
   double now() const;

   // --- driving ---
   // Runs the highest-priority ready task, after queuing every timer that is
   // due. Returns false when nothing was ready.
   bool runOne();
   // Runs ready tasks (and due timers) until none is ready. Time does not
   // move. Returns the number of task runs.
   std::uint64_t runUntilIdle();
   // Virtual time: runs everything that falls due within `seconds`, timer by
   // timer, and leaves the clock at now + seconds. Real time: the same, by
   // sleeping.
   std::uint64_t runFor(double seconds);
   // Virtual time: moves to `time` (not backwards) as runFor does.
   std::uint64_t runUntil(double time);
   // Real time: waits at most `maxWait` seconds for a timer or queued work,
   // then runs what is ready. Virtual time: runUntilIdle().
   std::uint64_t runOnce(double maxWait);
   // Time of the next pending timer, or a negative number when none.
   double nextTimerExpiry() const;
   bool idle() const { return readyCount_ == 0; }
   std::size_t readyCount() const { return readyCount_; }
   std::size_t timerCount() const { return timers_.size(); }

   // --- yielding policy ---
   void yieldBudgetIs(std::uint64_t units) { yieldBudget_ = units ? units : 1; }
   std::uint64_t yieldBudget() const { return yieldBudget_; }
   void timeSliceIs(double seconds) { timeSlice_ = seconds; }
   double timeSlice() const { return timeSlice_; }

   // --- statistics ---
   std::uint64_t tasksRun() const { return tasksRun_; }
   Task* currentTask() const { return current_; }

   void threadSanityCheck() const;

 private:
   friend class Task;
   friend class TimerTask;
   void enqueue(Task* task);
   void dequeue(Task* task);
   void timerAdd(TimerTask* task);
   void timerRemove(TimerTask* task);
   void queueDueTimers();
   bool shouldYield(Task* task);

   std::map<TaskPriority, std::deque<Task*>, std::greater<>> ready_;
   std::size_t readyCount_ = 0;
   std::multimap<double, std::pair<std::uint64_t, TimerTask*>> timers_;
   std::uint64_t timerSeq_ = 0;
   bool virtual_ = false;
   double virtualNow_ = 0.0;
   std::uint64_t yieldBudget_ = 100;
   double timeSlice_ = 0.010;
   std::uint64_t tasksRun_ = 0;
   Task* current_ = nullptr;
   std::thread::id home_;
};

class TaskSchedulerRoot {
 public:
   // The scheduler of this process, made on first use.
   static Ptr<TaskScheduler> findOrCreateScheduler();
   // Replaces the process's scheduler (tests build a fresh one per case).
   // Null drops it; the next findOrCreateScheduler() makes a new one.
   static void schedulerIs(Ptr<TaskScheduler> const& scheduler);
   static void threadSanityDisabledIs(bool disabled);
   static bool threadSanityDisabled();
};

} // namespace Dov
