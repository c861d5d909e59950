// Ulo::NatSm: construction, start-up, interfaces and VRFs, counter status,
// cleanup.

#include "UloNat/UloNatSm.h"

#include <vector>

#include "framework/UloAssert.h"
#include "framework/VorClock.h"
#include "framework/VorEntityCollections.h"
#include "framework/VorException.h"
#include "framework/VorTrace.h"
#include "framework/VorSystem.h"

VOR_TRACE_HANDLE("UloNatSm");

namespace Ulo {

namespace {

// The root's messages, registered when the library loads. The engines emit
// the resource messages through handles of their own with the same contents.
Vor::LogHandle NAT_HW_RESOURCE_NORMAL = natHwResourceNormalLogHandle();
Vor::LogHandle NAT_HW_RESOURCE_FULL = natHwResourceFullLogHandle();
Vor::LogHandle NAT_RULE_IF_MAX = natRuleIfMaxLogHandle();

L3::VrfName const defaultVrfName("default");

char const* natTypeTaskName(NatType type) {
   switch (type) {
   case NatType::staticNat: return "staticNat";
   case NatType::twiceNat: return "twiceNat";
   case NatType::dynamicNat: return "dynamicNat";
   case NatType::trapAclNat: return "trapAclNat";
   }
   return "unknownNat";
}

} // namespace

// ---- construction ----

NatSm::NatSm(Ptr<UloCommonSmData> const& commonSmData, Ptr<Ip::Nat::Status const> const& status,
             Ptr<Ip::Nat::HwStatus> const& hwStatus,
             Ptr<Ip::Nat::DynamicConnectionStatus> const& dynamicConnectionStatus,
             Ptr<Ip::Nat::DynamicConnectionHwStatus> const& dynamicConnectionHwStatus,
             Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities,
             Ptr<NextHopMapConfig> const& nhMapConfig,
             Ptr<NextHopMapStatus const> const& nhMapStatus,
             Ptr<Routing::Hardware::RouteStatus const> const& routingHwRouteStatus,
             Ptr<UloHelper::UloHelperNat> const& natHelper,
             Ptr<MrouteLib::StaticNatInfo> const& staticNatInfo,
             Ptr<UloL3Intf::Table const> const& uloL3IntfTable)
    : UloBaseSm(commonSmData),
      commonSmDataMutable_(commonSmData),
      hwStatus_(hwStatus),
      dynamicConnectionStatus_(dynamicConnectionStatus),
      dynamicConnectionHwStatus_(dynamicConnectionHwStatus),
      hwCapabilities_(hwCapabilities),
      nhMapConfig_(nhMapConfig),
      natHelper_(natHelper),
      staticNatInfo_(staticNatInfo),
      uloL3IntfTable_(uloL3IntfTable) {
   // Reactors attach without delivery, member reactors included: no handler
   // runs before start.
   status_.attach(status);
   dynamicConnectionStatusReactor_.attach(dynamicConnectionStatus);
   nhMapStatus_.attach(nhMapStatus);
   routingHwRouteStatus_.attach(routingHwRouteStatus);
   verifyDataIs(commonSmData ? commonSmData->verifyData() : Ptr<VerifyData>());
}

NatSm::~NatSm() {
   doCleanup();
   vorDoZombieReactors(true);
   natIntfStatusSm_.xDelAll();
   natIntfCounterSm_.xDelAll();
   if (natVrfRootSm_) natVrfRootSm_->hasNotificationActiveIs(false);
   natVrfRootSm_ = nullptr;
   unprogrammedTask_.xDelAll();
   intfStatus_.xDelAll();
   vrfStatus_.xDelAll();
   asyncHwStatus_.xDelAll();
}

void NatSm::asyncHwStatusDirIs(Ptr<NatAsyncHwStatusDir const> const& dir) {
   // A first attachment delivers nothing but makes the per-key reactors, as
   // the constructor does for the configuration tables; a re-pointing
   // delivers.
   asyncHwStatusDir_.attach(dir);
   if (!dir) asyncHwStatus_.xDelAll();
}

Ptr<NatSm> natSmFactory(Ptr<UloCommonSmData> const& commonSmData,
                        Ptr<Ip::Nat::Status const> const& status,
                        Ptr<Ip::Nat::HwStatus> const& hwStatus,
                        Ptr<Ip::Nat::DynamicConnectionStatus> const& dynamicConnectionStatus,
                        Ptr<Ip::Nat::DynamicConnectionHwStatus> const& dynamicConnectionHwStatus,
                        Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities,
                        Ptr<NextHopMapConfig> const& nhMapConfig,
                        Ptr<NextHopMapStatus const> const& nhMapStatus,
                        Ptr<Routing::Hardware::RouteStatus const> const& routingHwRouteStatus,
                        Ptr<UloHelper::UloHelperNat> const& natHelper,
                        Ptr<MrouteLib::StaticNatInfo> const& staticNatInfo,
                        Ptr<UloL3Intf::Table const> const& uloL3IntfTable) {
   Ptr<NatSm> sm(new NatSm(commonSmData, status, hwStatus, dynamicConnectionStatus,
                           dynamicConnectionHwStatus, hwCapabilities, nhMapConfig, nhMapStatus,
                           routingHwRouteStatus, natHelper, staticNatInfo, uloL3IntfTable));
   sm->hasNotificationActiveIs(true);
   return sm;
}

Ptr<Dov::TimerTask> NatSm::unprogrammedTask(NatType type) const {
   return Vor::memberValue(unprogrammedTaskPtr_, type);
}

void NatSm::vorDoZombieReactors(bool zombie) { UloBaseSm::vorDoZombieReactors(zombie); }

// ---- start ----

void NatSm::handleInitialized() {
   if (!initialized()) return;
   scheduler_ = Dov::TaskSchedulerRoot::findOrCreateScheduler();
   Dov::TaskSchedulerRoot::threadSanityDisabledIs(true);

   for (NatType type : {NatType::staticNat, NatType::twiceNat, NatType::dynamicNat,
                        NatType::trapAclNat}) {
      Ptr<Dov::TimerTask> task(new Dov::TimerTask(scheduler_, 3, natTypeTaskName(type)));
      unprogrammedTaskPtr_[type] = task;
      unprogrammedTask_.xIs(type, task);
   }

   natCountersSupported_ = hwCapabilities_->natCountersSupported();
   if (hwCapabilities_->dynamicNatSupported()) {
      double const interval = natHelper_->counterPollingInterval();
      if (interval != 0.0) {
         VOR_TRACE(5, "Overriding UloNat dynamic counters polling interval to " << interval
                                                                               << " seconds");
         dynamicCountersPollingInterval_ = interval;
      }
      dynamicCountersPollingTask_ =
         Ptr<Dov::TimerTask>(new Dov::TimerTask(scheduler_, 3, "dynamicCountersNat"));
      dynamicCountersPollingTaskReactor_.notifierIs(dynamicCountersPollingTask_);
      dynamicCountersPollingTask_->scheduleTaskDelay(dynamicCountersPollingInterval_);
   }

   hwStatus_->intfStatusDelAll();
   if (hwCapabilities_->dynamicNatSupported()) dynamicConnectionHwStatus_->dynamicConnectionHwDelAll();

   natSmStatus_ = natSmStatusFactory(nhMapConfig_, nhMapStatus_.notifier());
   natSmStatus_->destinationNatNextHopNeededIs(hwCapabilities_->destinationNatNextHopNeeded());
   natSmStatus_->hwConnEntryRqrdOnDeleteIs(hwConnEntryRqrdOnDelete_);

   natSmStatusNotifPtr_ = natSmStatusNotifFactory();
   natSmStatusNotif_.notifierIs(natSmStatusNotifPtr_);

   handleCounterStatus();

   natHelper_->replayIs(true);
   VOR_TRACE(5, "replay on");
   if (auto st = status()) {
      std::vector<Lumet::IntfId> intfs;
      for (auto const& [intf, member] : st->intfStatus()) intfs.push_back(intf);
      for (auto const& intf : intfs) handleNatIntfStatus(intf);
   }
   natHelper_->replayIs(false);
   VOR_TRACE(5, "replay off");

   natVrfRootSmIs(scheduler_);

   natHelper_->replayReconcile();
}

// ---- interfaces and VRFs ----

void NatSm::handleNatIntfStatus(Lumet::IntfId const& intf) {
   if (!initialized()) return;
   auto const st = status();
   auto const member = st ? st->intfStatus(intf) : Ptr<Ip::Nat::IntfStatus const>();
   if (!member) {
      if (auto engine = natIntfStatusSm(intf)) {
         engine->doCleanup();
         VrfId const vrfId = engine->vrfId();
         natIntfStatusSmDel(intf);
         auto vrfStatus = natSmStatus_->natSmStatusVrf(vrfId);
         uloAssert(vrfStatus);
         vrfStatus->intfDel(intf);
         if (vrfStatus->intf().size() == 0) natSmStatus_->natSmStatusVrfDel(vrfId);
      }
      if (counterStatus_) natIntfCounterSmDel(intf);
      VOR_TRACE(5, intf << " Deleting intfStatus");
      hwStatus_->intfStatusDel(intf);
      if (st->intfStatus().size() == 0) natHelper_->hwCleanup();
      return;
   }

   L3::VrfName const vrfName = member->vrfName();
   if (vrfName == L3::VrfName()) {
      VOR_TRACE(5, " NAT intf " << intf << "'s VRF not populated yet");
      return;
   }
   auto const routes = routingHwRouteStatus_.notifier();
   auto const vrfStatus = routes ? routes->vrfStatus(vrfName) : Ptr<Routing::Hardware::VrfStatus const>();
   // "default" is ready with id 0; any other VRF with 0 has no id yet.
   if (!vrfStatus || (!(vrfName == defaultVrfName) && vrfStatus->vrfId().value() == 0)) {
      VOR_TRACE(5, " VRF " << vrfName << " not ready in hw");
      return;
   }
   VrfId const vrfId = vrfStatus->vrfId();

   // On every successful pass, not only the first: hwInit() tolerates it.
   natHelper_->hwInit();

   // A missing entry gives the empty key.
   Vor::String const configKey = st->intfConfigKey(intf);
   VOR_TRACE(5, "Creating intfStatus for " << configKey << " on VRF " << vrfName);
   hwStatus_->intfStatusIs(configKey, intf);

   // An engine stays bound to the VRF in which it was born until its
   // interface goes.
   if (natIntfStatusSm(intf)) return;

   {
      auto bornIn = natSmStatus_->natSmStatusVrfIs(vrfId);
      uloAssert(bornIn);
      bornIn->intfIs(intf);
   }

   auto engine = natIntfStatusSmIs(commonSmDataMutable_, member, st, hwStatus_,
                                   dynamicConnectionStatus_, dynamicConnectionHwStatus_,
                                   hwCapabilities_, natHelper_, staticNatInfo_, natSmStatus_,
                                   natSmStatusNotifPtr_, scheduler_, vrfId, multicastAdapter_);
   engine->counterStatusIs(counterStatus_);
   engine->initializedIs(true);
   if (counterStatus_) {
      auto counter = natIntfCounterSmIs(commonSmDataMutable_, intf, Vor::activityManager()->clock(),
                                        member, hwStatus_->intfStatus(intf), natHelper_, this, vrfId);
      counter->initializedIs(true);
   }
}

void NatSm::handleVrf(L3::VrfName const& vrf) {
   auto const routes = routingHwRouteStatus_.notifier();
   if (!routes || !routes->vrfStatus(vrf)) return;
   auto const st = status();
   if (!st) return;
   std::vector<Lumet::IntfId> intfs;
   for (auto const& [intf, member] : st->intfStatus()) {
      if (member->vrfName() == vrf) intfs.push_back(intf);
   }
   for (auto const& intf : intfs) handleNatIntfStatus(intf);
}

Ptr<NatIntfStatusSm> NatSm::natIntfStatusSmIs(
   Ptr<UloCommonSmData> const& commonSmData, Ptr<Ip::Nat::IntfStatus const> const& intfStatus,
   Ptr<Ip::Nat::Status const> const& status, Ptr<Ip::Nat::HwStatus> const& hwStatus,
   Ptr<Ip::Nat::DynamicConnectionStatus> const& dynamicConnectionStatus,
   Ptr<Ip::Nat::DynamicConnectionHwStatus> const& dynamicConnectionHwStatus,
   Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities,
   Ptr<UloHelper::UloHelperNat> const& natHelper, Ptr<MrouteLib::StaticNatInfo> const& staticNatInfo,
   Ptr<NatSmStatus> const& natSmStatus, Ptr<NatSmStatusNotif> const& natSmStatusNotif,
   Ptr<Dov::TaskScheduler> const& scheduler, VrfId vrfId,
   Ptr<NatMulticastAdapter> const& multicastAdapter) {
   auto engine = NatIntfStatusSmIs(commonSmData, intfStatus, status, hwStatus,
                                   dynamicConnectionStatus, dynamicConnectionHwStatus,
                                   hwCapabilities, natHelper, staticNatInfo, natSmStatus,
                                   natSmStatusNotif, scheduler, vrfId, multicastAdapter);
   natIntfStatusSm_.xIs(intfStatus->intfId(), engine);
   return engine;
}

void NatSm::natIntfStatusSmDel(Lumet::IntfId const& intf) { natIntfStatusSm_.xDel(intf); }

Ptr<NatIntfCounterSm> NatSm::natIntfCounterSmIs(Ptr<UloCommonSmData> const& commonSmData,
                                                Lumet::IntfId const& intf,
                                                Ptr<Vor::Clock const> const& clock,
                                                Ptr<Ip::Nat::IntfStatus const> const& intfStatus,
                                                Ptr<Ip::Nat::HwIntfStatus> const& hwIntfStatus,
                                                Ptr<UloHelper::UloHelperNat> const& natHelper,
                                                NatSm* natSm, VrfId vrfId) {
   if (auto existing = natIntfCounterSm_.find(intf)) return existing;
   Ptr<NatIntfCounterSm> counter(new NatIntfCounterSm(commonSmData, intf, clock, intfStatus,
                                                      hwIntfStatus, natHelper, natSm, vrfId));
   natIntfCounterSm_.xIs(intf, counter);
   return counter;
}

void NatSm::natIntfCounterSmDel(Lumet::IntfId const& intf) { natIntfCounterSm_.xDel(intf); }

// ---- counters ----

void NatSm::handleCounterStatus() {
   if (!initialized()) return;
   // Each engine's backlogs are asked to run before the counters change.
   // Both return at once outside their own task and outside cleanup, and
   // this handler is neither, so today these calls do nothing: a batch that
   // waits is committed later by its task, under the new counter state.
   // That guard is deliberate and stays; do not read these calls as a flush.
   for (auto const& intf : natIntfStatusSm_.keys()) {
      if (auto engine = natIntfStatusSm(intf)) {
         engine->doProcessBacklogStatic();
         engine->doProcessBacklogDynamic();
      }
   }
   auto const st = status();
   counterStatus_ = st && st->counterStatus();
   for (auto const& intf : natIntfStatusSm_.keys()) {
      auto engine = natIntfStatusSm(intf);
      if (!engine) continue;
      engine->counterStatusIs(counterStatus_);
      if (!counterStatus_) {
         natIntfCounterSmDel(intf);
         continue;
      }
      auto counter = natIntfCounterSmIs(commonSmDataMutable_, intf, Vor::activityManager()->clock(),
                                        st->intfStatus(intf), hwStatus_->intfStatus(intf), natHelper_,
                                        this, engine->vrfId());
      counter->initializedIs(true);
   }
   natHelper_->updateCounterStatus(counterStatus_);
}

void NatSm::dynamicCountersPolling() {
   VOR_TRACE(8, "dynamicCountersPolling");
   auto const& task = dynamicCountersPollingTask_;
   if (!task || !task->taskCurrentlyRunning()) {
      VOR_TRACE(8, "Task not running");
      return;
   }
   auto const st = status();
   std::uint64_t reviewed = 0;
   if (dynamicConnectionHwStatus_) {
      // The walk hands out copies, so writing a record back is safe.
      dynamicConnectionHwStatus_->dynamicConnectionHwWalk(
         Ip::Nat::DynamicConnectionKey(), [&](Ip::Nat::DynamicConnectionHw const& record) {
            Lumet::IntfId const intf = record.key().intfId();
            auto const member = st ? st->intfStatus(intf) : Ptr<Ip::Nat::IntfStatus const>();
            auto const engine = natIntfStatusSm(intf);
            if (!member || !engine) return true;
            VrfId const vrfId = engine->vrfId();
            U16 const profile = member->profileOrVlanId();
            Lumet::ConnTuple const conn = record.key().connTuple();
            VOR_TRACE(8, "Polling connection: " << conn.stringValue() << ", natIntf: " << intf
                                                << ", profile: " << profile);
            U64 const pkts = natHelper_->getDynamicSrcCountersSinceLastPoll(profile, conn, vrfId).pktCount();
            U64 const pktsReply = natHelper_
                                     ->getDynamicDstCountersSinceLastPoll(profile, conn, record.fullCone(),
                                                                          record.globalAddress(), vrfId)
                                     .pktCount();
            double const now = Vor::System::currentTime();
            if (pkts != 0 || pktsReply != 0) {
               if (natCountersSupported_) {
                  if (auto hw = hwStatus_->intfStatus(intf)) {
                     Ip::Nat::NatCounter counter = hw->dynamicConnectionHwCount(conn);
                     counter.pktCountInc(pkts);
                     counter.pktCountReplyInc(pktsReply);
                     hw->dynamicConnectionHwCountIs(conn, counter);
                  }
               }
               // Traffic is recorded for the ageing side whatever the
               // counters say.
               Ip::Nat::DynamicConnectionHw stamped = record;
               stamped.lastChangedTimeIs(now);
               dynamicConnectionHwStatus_->dynamicConnectionHwIs(stamped);
            }
            ++reviewed;
            return true;
         });
   }
   if (hwCapabilities_->dynamicTwiceNatSupported()) dynamicTwiceCountersPolling();
   VOR_TRACE(8, "Entries reviewed: " << reviewed);
   task->taskWorkCountInc(reviewed);
   task->scheduleTaskDelay(dynamicCountersPollingInterval_);
}

void NatSm::dynamicTwiceCountersPolling() {
   std::uint64_t reviewed = 0;
   auto const st = status();
   if (!st) return;
   for (auto const& [intf, member] : st->intfStatus()) {
      auto const hw = hwStatus_->intfStatus(intf);
      if (!hw) continue;
      auto const& groups = hw->twiceNatConnectionHw();
      std::uint64_t version = hw->twiceNatConnectionHwVersion();
      for (auto it = groups.begin(); it != groups.end();) {
         U16 const group = it->first;
         Ptr<Ip::Nat::HwNatTwiceConnection> const conn = it->second;
         if (conn->dynamic()) {
            std::vector<std::pair<Lumet::ConnTuple, Ip::Nat::HwNatTwiceAddr>> const entries(conn->entry().begin(),
                                                                                        conn->entry().end());
            for (auto const& [tuple, addr] : entries) {
               if (natHelper_->dynamicTwiceActive(group, tuple.protocol(), tuple.srcAddr(), addr.srcNew(),
                                                  tuple.dstAddr(), addr.dstNew())) {
                  VOR_TRACE(8, "Entry active: " << tuple.stringValue());
                  conn->lastChangedTimeIs(tuple, Vor::System::currentTime());
               }
               ++reviewed;
            }
         }
         if (hw->twiceNatConnectionHwVersion() != version) {
            version = hw->twiceNatConnectionHwVersion();
            it = groups.upper_bound(group);
         } else {
            ++it;
         }
      }
   }
   VOR_TRACE(8, "Entries reviewed: " << reviewed);
}

// ---- cleanup ----

void NatSm::doCleanup() {
   for (auto const& intf : natIntfStatusSm_.keys()) {
      if (auto engine = natIntfStatusSm(intf)) engine->doCleanup();
      natIntfStatusSmDel(intf);
   }
   if (natSmStatus_) natSmStatus_->natSmStatusVrfDelAll();
   if (natVrfRootSm_) natVrfRootSm_->doCleanup();
}

Ptr<NatVrfRootSm> NatSm::natVrfRootSmIs(Ptr<Dov::TaskScheduler> const& scheduler) {
   if (natVrfRootSm_) {
      if (!(natVrfRootSm_->scheduler() == scheduler)) Vor::Impl::throwMutatorReinstVal("natVrfRootSm");
      return natVrfRootSm_;
   }
   natVrfRootSm_ = natVrfRootSmFactory(status(), hwStatus_, hwCapabilities_,
                                       routingHwRouteStatus_.notifier(), natHelper_, scheduler);
   return natVrfRootSm_;
}

} // namespace Ulo
