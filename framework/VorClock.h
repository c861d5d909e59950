#pragma once
// The process-wide clock and reactors that ask it for a call at a time.
//
// Vor::Clock is an entity whose attribute `time` is the process's present
// time (Vor::System::currentTime()). A Clock::NotifieeConst asks, through
// timeMinIs(t), for one call of its `time` handler at or after absolute time
// t; a later timeMinIs() replaces an earlier request. The calls are made by a
// timer task on the process's scheduler, so they obey virtual time in tests.
//
// Thread safety: the agent's one thread only.

#include "framework/DovTask.h"
#include "framework/VorReactor.h"
#include "framework/VorSystem.h"

namespace Vor {

class Clock : public Entity {
 public:
   static constexpr AttributeId timeId = 1;
   Clock() : Entity("clock") {}
   double time() const { return System::currentTime(); }

   class NotifieeConst;
   template <typename O>
   class Reactor;
};

// Base of reactors on the clock.
class Clock::NotifieeConst : public PtrInterface::NotifieeConst {
 public:
   NotifieeConst();
   ~NotifieeConst() override;
   // One call of the time handler at or after `t` (seconds).
   void timeMinIs(double t);
   double timeMin() const { return timeMin_; }
   bool timePending() const;

 protected:
   // The time handler.
   virtual void onTime() = 0;

 private:
   class Alarm;
   Ptr<Alarm> alarm_;
   double timeMin_ = 0.0;
};

// A clock reactor that calls the owner's handler `handleTime`-style member.
template <typename O>
class Clock::Reactor : public Clock::NotifieeConst {
 public:
   Reactor(O* owner, void (O::*handler)()) : owner_(owner), handler_(handler) {}
   O* owner() const { return owner_; }
   void* actsm() const override { return owner_; }

 protected:
   void onTime() override {
      if (!vorMarkedForDeletion() && notificationActive()) (owner_->*handler_)();
   }

 private:
   O* owner_;
   void (O::*handler_)();
};

class ActivityManager {
 public:
   Ptr<Clock> const& clock() const { return clock_; }

 private:
   friend ActivityManager* activityManager();
   ActivityManager() : clock_(new Clock) {}
   Ptr<Clock> clock_;
};

ActivityManager* activityManager();

} // namespace Vor
