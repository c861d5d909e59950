#include "framework/VorClock.h"

namespace Vor {

// The timer that carries a clock reactor's request. Kept out of the header:
// users see only timeMinIs().
class Clock::NotifieeConst::Alarm : public Dov::TimerTask {
 public:
   explicit Alarm(Clock::NotifieeConst* reactor)
       : Dov::TimerTask(Dov::TaskSchedulerRoot::findOrCreateScheduler(), 3, "clock"),
         reactor_(reactor) {}
   void detach() { reactor_ = nullptr; }

 protected:
   void doRun() override {
      if (reactor_) reactor_->onTime();
   }

 private:
   Clock::NotifieeConst* reactor_;
};

Clock::NotifieeConst::NotifieeConst() = default;

Clock::NotifieeConst::~NotifieeConst() {
   if (alarm_) {
      alarm_->timerCancel();
      alarm_->unscheduleTask();
      alarm_->detach();
   }
}

bool Clock::NotifieeConst::timePending() const {
   return alarm_ && (alarm_->timerPending() || alarm_->taskScheduled());
}

void Clock::NotifieeConst::timeMinIs(double t) {
   timeMin_ = t;
   if (!alarm_) alarm_ = Ptr<Alarm>(new Alarm(this));
   alarm_->unscheduleTask();
   alarm_->scheduleTaskAt(t);
}

ActivityManager* activityManager() {
   static ActivityManager* manager = new ActivityManager;
   return manager;
}

} // namespace Vor
