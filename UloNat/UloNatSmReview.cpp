// Ulo::NatSm: next-hop updates relayed to the engines, and the review tasks
// that retry what hardware refused.

#include <vector>

#include "UloNat/UloNatSm.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("UloNatSmReview");

namespace Ulo {

namespace {

// A copy: a retry that succeeds takes its tuple out of the set, and the last
// one takes the whole record.
std::vector<Lumet::ConnTuple> unprogrammedDynamicTuples(NatUnprogrammedEntries const& ue) {
   std::vector<Lumet::ConnTuple> out;
   for (auto it = ue.dynamicEntries().begin(); it; ++it) {
      if (it.isLive()) out.push_back(it.key());
   }
   return out;
}

// A copy, for the same reason.
std::vector<Ip::Nat::DynamicKey> unprogrammedTrapAcls(NatUnprogrammedEntries const& ue) {
   std::vector<Ip::Nat::DynamicKey> out;
   for (auto it = ue.trapAcls().begin(); it; ++it) {
      if (it.isLive()) out.push_back(it.key());
   }
   return out;
}

} // namespace

// ---- next hops ----

void NatSm::handleNextHopUpdate(VrfAndIpAddr const& key) {
   if (!initialized()) return;
   VOR_TRACE(7, "NatSm VRF: " << key.vrfId().value() << ", watchedAddr: " << key.ipAddr()
                              << " handleNextHopUpdate");
   auto vrfStatus = natSmStatus_->natSmStatusVrf(key.vrfId());
   if (!vrfStatus) return;
   auto info = vrfStatus->ipAddrIntfInfo(key.ipAddr());
   if (!info) return;
   // Interfaces first: an engine's update may change the reference counts.
   std::vector<Lumet::IntfId> intfs;
   for (auto it = info->intf().begin(); it; ++it) intfs.push_back(it.key());
   for (auto const& intf : intfs) {
      if (auto engine = natIntfStatusSm(intf)) {
         engine->updateNextHop(key);
      } else {
         VOR_TRACE(5, "Missing natIntfStatusSm for watchedAddr " << key.ipAddr());
         DUOLOG(5, "Missing natIntfStatusSm for VRF: {}, watchedAddr {}", key.vrfId().value(),
                key.ipAddr().stringValue());
      }
   }
}

// ---- the review ----

void NatSm::startUnprogrammedReview() {
   // All four start whatever kind of entry asked: a task with nothing to do
   // ends at once. A running task is left to its own rescheduling.
   //
   // A kick from inside a review (an entry retried and refused again) starts
   // nothing: the running task keeps every task's cadence while entries
   // remain. Otherwise two kinds refused for good would start each other's
   // review at once, for ever, at the same instant.
   for (NatType type : {NatType::staticNat, NatType::twiceNat, NatType::dynamicNat,
                        NatType::trapAclNat}) {
      auto task = unprogrammedTask(type);
      if (task && task->taskCurrentlyRunning()) return;
   }
   for (NatType type : {NatType::staticNat, NatType::twiceNat, NatType::dynamicNat,
                        NatType::trapAclNat}) {
      auto task = unprogrammedTask(type);
      if (task && !task->taskCurrentlyRunning()) task->scheduleTask();
   }
}

void NatSm::reviewUnprogrammedEntries(NatType const& type) {
   Ptr<Dov::TimerTask> const self = unprogrammedTask(type);
   VOR_TRACE(7, "reviewUnprogrammedEntries" << ", entry type: " << static_cast<int>(type));
   if (!self || !self->taskCurrentlyRunning()) {
      VOR_TRACE(7, "Task not running");
      return;
   }
   auto const& natSmStatus = natSmStatus_;
   Vor::U64 reviewed = 0;
   // A yield cuts short the walk of one interface, not the run: with the
   // budget spent each further interface still gets one entry.
   for (auto rec = natSmStatus->unprogrammedEntries().begin(); rec; ++rec) {
      if (!rec.isLive()) continue;
      Lumet::IntfId const intf = rec.key();
      Ptr<NatUnprogrammedEntries> const ue = rec.value();
      VOR_TRACE(8, "Reviewing unprogrammed entries for " << intf);
      auto engine = natIntfStatusSm(intf);
      if (!engine) continue;
      switch (type) {
      case NatType::staticNat:
         for (auto it = ue->staticEntries().begin(); it; ++it) {
            if (!it.isLive()) continue;
            Ip::Nat::StaticKey const key = it.key();
            engine->handleStaticConnection(key);
            ++reviewed;
            if (self->taskShouldYield()) break;
         }
         break;
      case NatType::twiceNat:
         for (auto it = ue->twiceEntries().begin(); it; ++it) {
            if (!it.isLive()) continue;
            TwiceNatKey const key = it.key();
            auto is = engine->intfStatus();
            if (!is || !is->twiceNatConnectionHas(key.group())) {
               // The group has left the configuration: nothing to retry.
               ue->twiceEntriesDel(key);
               // The last key of the record takes the record with it, as
               // when an entry is programmed, so the review comes to rest.
               engine->checkUnprogrammedEntries();
            } else {
               engine->handleTwiceNatConnection(key.group());
            }
            ++reviewed;
            if (self->taskShouldYield()) break;
         }
         break;
      case NatType::dynamicNat:
         for (auto const& tuple : unprogrammedDynamicTuples(*ue)) {
            engine->reviewDynamicConnection(Ip::Nat::DynamicConnectionKey(intf, tuple));
            ++reviewed;
            if (self->taskShouldYield()) break;
         }
         break;
      case NatType::trapAclNat:
         // The handler programs a configured rule, and removes (and so
         // forgets) one that has left the configuration.
         for (auto const& key : unprogrammedTrapAcls(*ue)) {
            engine->handleTrapRule(key);
            ++reviewed;
            if (self->taskShouldYield()) break;
         }
         break;
      }
   }
   VOR_TRACE(7, "Entries reviewed: " << reviewed
                                     << ", remaining: " << natSmStatus->unprogrammedEntries().size());
   self->taskWorkCountInc(reviewed);
   // As long as any interface has any entry, every task keeps its cadence.
   if (natSmStatus->unprogrammedEntries().size()) {
      self->scheduleTaskDelay(unprogrammedTaskScheduleInterval_);
   }
}

} // namespace Ulo
