#include "sim/SimNatProgrammer.h"

namespace Sim {

using Ulo::NatAsyncHwStatus;
using Ulo::NatHwKey;
using Ulo::NatRequestQueue;

// ---- the chip ----

std::vector<Ulo::NatHwData> const* SimNatChip::connection(NatHwKey const& key) const {
   auto it = byKey_.find(connectionKey(key));
   return it == byKey_.end() ? nullptr : &it->second;
}

bool SimNatChip::connectionIs(NatHwKey const& key, std::vector<Ulo::NatHwData> const& siblings) {
   NatHwKey const k = connectionKey(key);
   auto it = byKey_.find(k);
   std::size_t const held = it == byKey_.end() ? 0 : it->second.size();
   if (entries_ - held + siblings.size() > capacity_) {
      ++counts_.refusals;
      return false;
   }
   std::size_t const common = std::min(held, siblings.size());
   counts_.rewrites += common;
   counts_.writes += siblings.size() - common;
   counts_.removals += held - common;
   entries_ = entries_ - held + siblings.size();
   if (siblings.empty()) {
      if (it != byKey_.end()) byKey_.erase(it);
   } else {
      byKey_.insert_or_assign(k, siblings);
   }
   return true;
}

void SimNatChip::connectionDel(NatHwKey const& key) {
   auto it = byKey_.find(connectionKey(key));
   if (it == byKey_.end()) return;
   counts_.removals += it->second.size();
   entries_ -= it->second.size();
   byKey_.erase(it);
}

Vor::Ptr<SimNatChip> simNatChipFactory(std::size_t capacity) { return Vor::Ptr<SimNatChip>(new SimNatChip(capacity)); }

// ---- the programmer ----

class SimNatProgrammer::AnswerTask : public Dov::TimerTask {
 public:
   AnswerTask(Vor::Ptr<Dov::TaskScheduler> const& scheduler, SimNatProgrammer* programmer)
       : Dov::TimerTask(scheduler, 2, "simNatProgrammer"), programmer_(programmer) {}
   void programmerGone() { programmer_ = nullptr; }

 protected:
   void doRun() override {
      if (programmer_) programmer_->answerDue();
   }

 private:
   SimNatProgrammer* programmer_;
};

SimNatProgrammer::SimNatProgrammer(Vor::Ptr<Ulo::NatAsyncHwConfigDir const> const& hwConfigDir,
                                   Vor::Ptr<Ulo::NatAsyncHwStatusDir> const& hwStatusDir,
                                   Vor::Ptr<Ulo::NatHwShadow const> const& hwShadow,
                                   Vor::Ptr<SimNatChip> const& chip, Vor::Ptr<Dov::TaskScheduler> const& scheduler)
    : Ulo::NatAsyncProgrammerSm(hwConfigDir, hwStatusDir),
      hwShadow_(hwShadow),
      chip_(chip),
      scheduler_(scheduler),
      task_(new AnswerTask(scheduler, this)) {}

SimNatProgrammer::~SimNatProgrammer() {
   task_->programmerGone();
   task_->timerCancel();
   task_->unscheduleTask();
}

void SimNatProgrammer::failKeyIs(NatHwKey const& key, bool fail) {
   if (fail) {
      failKeys_[key] = true;
   } else {
      failKeys_.erase(key);
   }
}

void SimNatProgrammer::forceAddIs(NatHwKey const& key) {
   if (auto status = hwStatusDir()->status(key)) status->stateIs(NatAsyncHwStatus::forceAdd);
}

void SimNatProgrammer::doAdd(NatHwKey const& key) {
   NatAsyncProgrammerSm::doAdd(key);
   schedule(key, NatRequestQueue::add);
}

void SimNatProgrammer::doUpdate(NatHwKey const& key) {
   NatAsyncProgrammerSm::doUpdate(key);
   schedule(key, NatRequestQueue::update);
}

void SimNatProgrammer::doDel(NatHwKey const& key) {
   NatAsyncProgrammerSm::doDel(key);
   schedule(key, NatRequestQueue::del);
}

void SimNatProgrammer::doCleanup(NatHwKey const& key) {
   // An answer still on its way has nobody to answer any more.
   generation_.erase(key);
}

void SimNatProgrammer::doHandleSteadyState(NatHwKey const&) { ++steadyStates_; }

void SimNatProgrammer::schedule(NatHwKey const& key, NatRequestQueue::OpType op) {
   Vor::U64 const generation = nextGeneration_++;
   generation_[key] = generation;
   double const due = scheduler_->now() + delay_;
   pending_.emplace(due, Pending{key, op, generation});
   if (delay_ <= 0.0) {
      task_->scheduleTask();
   } else if (!task_->timerPending() || due < task_->timerExpiry()) {
      task_->scheduleTaskAt(due);
   }
}

void SimNatProgrammer::answerDue() {
   double const now = scheduler_->now();
   // Answers may start further commands (a queue served); those with no
   // delay are due now and are answered in this same run.
   while (!pending_.empty() && pending_.begin()->first <= now) {
      Pending const p = pending_.begin()->second;
      pending_.erase(pending_.begin());
      answer(p);
   }
   if (!pending_.empty()) task_->scheduleTaskAt(pending_.begin()->first);
}

void SimNatProgrammer::answer(Pending const& p) {
   if (!initialized()) return;
   auto gen = generation_.find(p.key);
   if (gen == generation_.end() || gen->second != p.generation) return;
   generation_.erase(gen);
   auto config = hwConfigDir()->config(p.key);
   if (!config || config->opType() != p.op) return;
   auto status = hwStatusDir()->status(p.key);
   if (!status || status->state() != NatAsyncHwStatus::inProgress) return;
   if (p.op == NatRequestQueue::del) {
      chip_->connectionDel(p.key);
      status->stateIs(NatAsyncHwStatus::success);
      return;
   }
   // The helper writes the shadow before the command, so a missing entry
   // means the shadow cannot be read here (its writer has gone, in another
   // process): the command stays in progress and is carried out again at
   // the next start.
   NatHwKey first = p.key;
   first.filterAddrIdIs(0);
   if (!hwShadow_->entryHas(first)) return;
   status->stateIs(program(p.key));
}

NatAsyncHwStatus::State SimNatProgrammer::program(NatHwKey const& key) {
   if (refuseNext_ > 0) {
      --refuseNext_;
      return NatAsyncHwStatus::failed;
   }
   if (failKey(key)) return NatAsyncHwStatus::failed;
   NatHwKey sibling = key;
   sibling.filterAddrIdIs(0);
   Ulo::NatHwShadowEntry const first = hwShadow_->entry(sibling);
   Vor::U32 const n = first.data().numFilterAddrs() ? first.data().numFilterAddrs() : 1;
   std::vector<Ulo::NatHwData> siblings;
   siblings.reserve(n);
   for (Vor::U32 i = 0; i < n; ++i) {
      sibling.filterAddrIdIs(i);
      siblings.push_back(i == 0 ? first.data() : hwShadow_->entry(sibling).data());
   }
   return chip_->connectionIs(key, siblings) ? NatAsyncHwStatus::success : NatAsyncHwStatus::failed;
}

Vor::Ptr<SimNatProgrammer> simNatProgrammerFactory(Vor::Ptr<Ulo::NatAsyncHwConfigDir const> const& hwConfigDir,
                                                   Vor::Ptr<Ulo::NatAsyncHwStatusDir> const& hwStatusDir,
                                                   Vor::Ptr<Ulo::NatHwShadow const> const& hwShadow,
                                                   Vor::Ptr<SimNatChip> const& chip,
                                                   Vor::Ptr<Dov::TaskScheduler> const& scheduler) {
   Vor::Ptr<SimNatProgrammer> programmer(new SimNatProgrammer(hwConfigDir, hwStatusDir, hwShadow, chip, scheduler));
   programmer->hasNotificationActiveIs(true);
   return programmer;
}

} // namespace Sim
