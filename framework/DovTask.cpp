#include "framework/DovTask.h"

#include <algorithm>
#include <atomic>
#include <chrono>

#include "framework/UloAssert.h"
#include "framework/VorSystem.h"

namespace Dov {

namespace {
std::atomic<bool> threadSanityDisabled_{false};

Ptr<TaskScheduler>& processScheduler() {
   static Ptr<TaskScheduler> scheduler;
   return scheduler;
}
} // namespace

// ---------------------------------------------------------------------------
// Task

Task::Task(Ptr<TaskScheduler> const& scheduler, TaskPriority priority, Vor::String name)
    : Vor::Entity(std::move(name)), scheduler_(scheduler), priority_(priority) {
   uloAssert(scheduler_);
}

Task::~Task() {
   if (queued_) scheduler_->dequeue(this);
}

void Task::scheduleTask() {
   if (queued_) return;
   scheduler_->enqueue(this);
}

void Task::unscheduleTask() {
   if (queued_) scheduler_->dequeue(this);
}

bool Task::taskShouldYield() {
   if (!running_) return false;
   return scheduler_->shouldYield(this);
}

void Task::run() {
   // Keep the task alive while its handlers run: one of them may drop the
   // owner's reference.
   Ptr<Task> self(references() > 0 ? this : nullptr);
   running_ = true;
   yieldChecks_ = 0;
   runStart_ = scheduler_->now();
   ++runs_;
   doRun();
   running_ = false;
}

// ---------------------------------------------------------------------------
// TimerTask

TimerTask::~TimerTask() { timerCancel(); }

void TimerTask::scheduleTaskDelay(double seconds) {
   scheduleTaskAt(scheduler_->now() + (seconds > 0.0 ? seconds : 0.0));
}

void TimerTask::scheduleTaskAt(double time) {
   timerCancel();
   expiry_ = time;
   scheduler_->timerAdd(this);
}

void TimerTask::timerCancel() {
   if (timerPending_) scheduler_->timerRemove(this);
}

// ---------------------------------------------------------------------------
// TaskScheduler

TaskScheduler::TaskScheduler() : home_(std::this_thread::get_id()) {}

TaskScheduler::~TaskScheduler() {
   for (auto& [prio, queue] : ready_) {
      for (Task* t : queue) t->queued_ = false;
   }
   for (auto& [time, entry] : timers_) entry.second->timerPending_ = false;
   if (virtual_) Vor::System::timeSourceIs({});
}

void TaskScheduler::threadSanityCheck() const {
   if (threadSanityDisabled_.load(std::memory_order_relaxed)) return;
   uloAssert(std::this_thread::get_id() == home_);
}

void TaskScheduler::virtualTimeIs(bool on, double start) {
   virtual_ = on;
   if (on) {
      virtualNow_ = start;
      // The process's time is this scheduler's while it runs virtually.
      TaskScheduler* self = this;
      Vor::System::timeSourceIs([self] { return self->virtualNow_; });
   } else {
      Vor::System::timeSourceIs({});
   }
}

double TaskScheduler::now() const {
   if (virtual_) return virtualNow_;
   return Vor::System::currentTime();
}

void TaskScheduler::enqueue(Task* task) {
   threadSanityCheck();
   ready_[task->priority_].push_back(task);
   task->queued_ = true;
   ++readyCount_;
}

void TaskScheduler::dequeue(Task* task) {
   auto it = ready_.find(task->priority_);
   if (it != ready_.end()) {
      auto& q = it->second;
      auto pos = std::find(q.begin(), q.end(), task);
      if (pos != q.end()) {
         q.erase(pos);
         --readyCount_;
      }
   }
   task->queued_ = false;
}

void TaskScheduler::timerAdd(TimerTask* task) {
   threadSanityCheck();
   task->timerSeq_ = ++timerSeq_;
   task->timerPending_ = true;
   timers_.emplace(task->expiry_, std::make_pair(task->timerSeq_, task));
}

void TaskScheduler::timerRemove(TimerTask* task) {
   auto range = timers_.equal_range(task->expiry_);
   for (auto it = range.first; it != range.second; ++it) {
      if (it->second.second == task) {
         timers_.erase(it);
         break;
      }
   }
   task->timerPending_ = false;
}

void TaskScheduler::queueDueTimers() {
   double const t = now();
   while (!timers_.empty() && timers_.begin()->first <= t) {
      TimerTask* task = timers_.begin()->second.second;
      timers_.erase(timers_.begin());
      task->timerPending_ = false;
      task->scheduleTask();
   }
}

double TaskScheduler::nextTimerExpiry() const {
   return timers_.empty() ? -1.0 : timers_.begin()->first;
}

bool TaskScheduler::runOne() {
   threadSanityCheck();
   queueDueTimers();
   for (auto& [prio, queue] : ready_) {
      if (queue.empty()) continue;
      Task* task = queue.front();
      queue.pop_front();
      --readyCount_;
      task->queued_ = false;
      Task* outer = current_;
      current_ = task;
      ++tasksRun_;
      task->run();
      current_ = outer;
      return true;
   }
   return false;
}

std::uint64_t TaskScheduler::runUntilIdle() {
   std::uint64_t runs = 0;
   while (runOne()) ++runs;
   return runs;
}

std::uint64_t TaskScheduler::runUntil(double time) {
   std::uint64_t runs = runUntilIdle();
   if (virtual_) {
      while (!timers_.empty() && timers_.begin()->first <= time) {
         virtualNow_ = std::max(virtualNow_, timers_.begin()->first);
         runs += runUntilIdle();
      }
      virtualNow_ = std::max(virtualNow_, time);
      runs += runUntilIdle();
      return runs;
   }
   while (now() < time) {
      runs += runOnce(time - now());
   }
   return runs + runUntilIdle();
}

std::uint64_t TaskScheduler::runFor(double seconds) { return runUntil(now() + seconds); }

std::uint64_t TaskScheduler::runOnce(double maxWait) {
   if (virtual_ || readyCount_ > 0) return runUntilIdle();
   double wait = maxWait;
   double next = nextTimerExpiry();
   if (next >= 0.0) wait = std::min(wait, std::max(0.0, next - now()));
   if (wait > 0.0) std::this_thread::sleep_for(std::chrono::duration<double>(wait));
   return runUntilIdle();
}

bool TaskScheduler::shouldYield(Task* task) {
   if (virtual_) return ++task->yieldChecks_ >= yieldBudget_;
   return now() - task->runStart_ >= timeSlice_;
}

// ---------------------------------------------------------------------------
// TaskSchedulerRoot

Ptr<TaskScheduler> TaskSchedulerRoot::findOrCreateScheduler() {
   auto& s = processScheduler();
   if (!s) s = Ptr<TaskScheduler>(new TaskScheduler);
   return s;
}

void TaskSchedulerRoot::schedulerIs(Ptr<TaskScheduler> const& scheduler) {
   processScheduler() = scheduler;
}

void TaskSchedulerRoot::threadSanityDisabledIs(bool disabled) {
   threadSanityDisabled_.store(disabled, std::memory_order_relaxed);
}

bool TaskSchedulerRoot::threadSanityDisabled() {
   return threadSanityDisabled_.load(std::memory_order_relaxed);
}

} // namespace Dov
