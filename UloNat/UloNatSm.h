#pragma once
// Ulo::NatSm: the root state machine of the NAT engine.
//
// The agent builds one through natSmFactory(), sets the attributes that are
// set from outside, and calls initializedIs(true). From then on the machine
// follows the NAT interfaces of Ip::Nat::Status and the hardware VRFs of
// Routing::Hardware::RouteStatus: one Ulo::NatIntfStatusSm per NAT interface
// whose VRF is ready in hardware. It owns the shared Ulo::NatSmStatus, the
// four review tasks that retry unprogrammed entries, forwards next-hop
// answers to the engines, and brackets the start-up replay for the helper.
//
// Nothing here waits: an interface whose VRF is unnamed or not ready is
// passed over, and a later vrfName, vrfStatus or vrfId notification comes
// back to handleNatIntfStatus().
//
// Sources: UloNat/UloNatSm.cpp (construction, interfaces, VRFs, counters,
// cleanup), UloNat/UloNatSmReview.cpp (next hops and the unprogrammed
// review), UloNat/UloNatSmReprogram.cpp (relays and reprogramming).
//
// Thread safety: none needed. All reactors and tasks run on the agent's one
// scheduler; the machine switches the scheduler's thread check off.
//
// Invariants (assertion texts in quotes):
//  1. "vrfStatus": every interface with an engine is in the intf set of its
//     VRF's Ulo::NatSmStatusVrf, which exists while the set is not empty.
//  2. Every record of natSmStatus()->unprogrammedEntries belongs to an
//     interface with an engine.
//  3. Handlers return at once while initialized() is false.

#include <map>
#include <memory>

#include "UloNat/UloHelperNat.h"
#include "UloNat/UloNatIntfCounterSm.h"
#include "UloNat/UloNatIntfSm.h"
#include "UloNat/UloNatTypes.h"
#include "UloNat/UloNatVrfSm.h"
#include "framework/DovTask.h"
#include "framework/RoutingHwRouteStatus.h"
#include "framework/UloL3IntfTable.h"
#include "framework/UloBaseSm.h"
#include "UloNat/UloNatAsyncEntities.h"
#include "framework/VorLog.h"
#include "framework/VorReactor.h"

namespace Ulo {

class NatSm : public UloBaseSm {
 public:
   NatSm(Ptr<UloCommonSmData> const& commonSmData, Ptr<Ip::Nat::Status const> const& status,
         Ptr<Ip::Nat::HwStatus> const& hwStatus,
         Ptr<Ip::Nat::DynamicConnectionStatus> const& dynamicConnectionStatus,
         Ptr<Ip::Nat::DynamicConnectionHwStatus> const& dynamicConnectionHwStatus,
         Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities,
         Ptr<NextHopMapConfig> const& nhMapConfig, Ptr<NextHopMapStatus const> const& nhMapStatus,
         Ptr<Routing::Hardware::RouteStatus const> const& routingHwRouteStatus,
         Ptr<UloHelper::UloHelperNat> const& natHelper,
         Ptr<MrouteLib::StaticNatInfo> const& staticNatInfo,
         Ptr<UloL3Intf::Table const> const& uloL3IntfTable);
   // Runs doCleanup(), then marks every reactor as being deleted.
   ~NatSm() override;

   // ---- attributes ----
   Ptr<Ip::Nat::Status const> status() const { return status_.notifier(); }
   Ptr<Ip::Nat::HwStatus> const& hwStatus() const { return hwStatus_; }
   Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities() const { return hwCapabilities_; }
   Ptr<NextHopMapConfig> const& nhMapConfig() const { return nhMapConfig_; }
   Ptr<UloHelper::UloHelperNat> const& natHelper() const { return natHelper_; }
   Ptr<MrouteLib::StaticNatInfo> const& staticNatInfo() const { return staticNatInfo_; }
   // Set from outside, before initializedIs(true). Null runs the engines
   // without multicast.
   Ptr<NatMulticastAdapter> const& multicastAdapter() const { return multicastAdapter_; }
   void multicastAdapterIs(Ptr<NatMulticastAdapter> const& a) { multicastAdapter_ = a; }
   // Set from outside. Its numTranslationTypes moving to 0 or 3 reprograms
   // every static and twice connection.
   Ptr<Ip::Nat::McastTranslationMode const> mcastTranslationModeStatus() const {
      return mcastTranslationModeStatus_.notifier();
   }
   void mcastTranslationModeStatusIs(Ptr<Ip::Nat::McastTranslationMode const> const& mode) {
      mcastTranslationModeStatus_.notifierIs(mode);
   }
   Ptr<NatSmStatus> const& natSmStatus() const { return natSmStatus_; }
   Ptr<NatSmStatusNotif> const& natSmStatusNotif() const { return natSmStatusNotifPtr_; }
   Ptr<Dov::TaskScheduler> const& scheduler() const { return scheduler_; }
   bool natCountersSupported() const { return natCountersSupported_; }
   double dynamicCountersPollingInterval() const { return dynamicCountersPollingInterval_; }
   Ptr<Dov::TimerTask> const& dynamicCountersPollingTask() const { return dynamicCountersPollingTask_; }
   double unprogrammedTaskScheduleInterval() const { return unprogrammedTaskScheduleInterval_; }
   // The review task of one kind, null before handleInitialized().
   Ptr<Dov::TimerTask> unprogrammedTask(NatType type) const;
   // The asynchronous programmer's command and status directories, set from
   // outside when the helper programs through it. Setting the status
   // directory makes a reactor for each key's status it holds.
   Ptr<NatAsyncHwConfigDir> const& asyncHwConfigDir() const { return asyncHwConfigDir_; }
   void asyncHwConfigDirIs(Ptr<NatAsyncHwConfigDir> const& dir) { asyncHwConfigDir_ = dir; }
   Ptr<NatAsyncHwStatusDir const> asyncHwStatusDir() const { return asyncHwStatusDir_.notifier(); }
   void asyncHwStatusDirIs(Ptr<NatAsyncHwStatusDir const> const& dir);
   std::size_t asyncHwStatusReactors() const { return asyncHwStatus_.size(); }
   // Set from outside.
   bool hwConnEntryRqrdOnDelete() const { return hwConnEntryRqrdOnDelete_; }
   void hwConnEntryRqrdOnDeleteIs(bool v) { hwConnEntryRqrdOnDelete_ = v; }
   // Set from outside. True makes the verify command do nothing.
   bool disableVerify() const { return disableVerify_; }
   void disableVerifyIs(bool v) { disableVerify_ = v; }
   // The verify command's entity, taken from the common record at
   // construction; each new request runs handleVerify(). Null when the agent
   // has no verify command.
   Ptr<VerifyData const> verifyData() const { return verifyData_.notifier(); }
   void verifyDataIs(Ptr<VerifyData const> const& data) { verifyData_.notifierIs(data); }
   bool counterStatus() const { return counterStatus_; }
   // The engine of an interface, or null.
   Ptr<NatIntfStatusSm> natIntfStatusSm(Lumet::IntfId const& intf) const {
      return natIntfStatusSm_.find(intf);
   }
   bool natIntfStatusSmHas(Lumet::IntfId const& intf) const { return natIntfStatusSm_.contains(intf); }
   Vor::ChildMachines<Lumet::IntfId, NatIntfStatusSm> const& natIntfStatusSms() const {
      return natIntfStatusSm_;
   }
   // The VRF-to-VRF NAT machines; null before handleInitialized().
   Ptr<NatVrfRootSm> const& natVrfRootSm() const { return natVrfRootSm_; }
   // Makes the VRF root on `scheduler` from this machine's status, hwStatus,
   // hwCapabilities, routingHwRouteStatus and helper. Called again with the
   // same scheduler it keeps the root that exists; with another it raises
   // Vor::ReinstantiationException.
   Ptr<NatVrfRootSm> natVrfRootSmIs(Ptr<Dov::TaskScheduler> const& scheduler);

   // ---- handlers ----
   // Starts the machine in a fixed order: scheduler, review tasks, counter
   // support, emptied hardware status, shared state, replay of every
   // interface between replayIs(true) and replayIs(false), the VRF root,
   // replayReconcile().
   void handleInitialized() override;
   void vorDoZombieReactors(bool zombie) override;
   // Makes, keeps or removes the engine of one interface.
   // REQUIRES: "vrfStatus" (the engine's VRF record exists while it lives).
   void handleNatIntfStatus(Lumet::IntfId const& intf);
   // A hardware VRF appeared or got its id: retries its interfaces.
   void handleVrf(L3::VrfName const& vrf);
   void handleCounterStatus();
   // A run of the "dynamicCountersNat" task: for each dynamic connection in
   // hardware status whose interface has an engine, asks the helper for the
   // packets since the last poll; on traffic, adds them to the interface's
   // dynamicConnectionHwCount (when natCountersSupported) and stamps the
   // record's lastChangedTime with the present time (always). Then, where
   // dynamic twice NAT is supported, dynamicTwiceCountersPolling(). The
   // whole table is walked in one run, without yielding, and the task asks
   // for its next run dynamicCountersPollingInterval seconds after the end.
   // A record whose interface has no engine is skipped and not counted in
   // the task's work. REQUIRES: "validIntfs() == 1" for a plain interface
   // with members (its VLAN names the profile).
   void dynamicCountersPolling();
   // Stamps lastChangedTime of each entry of each dynamic twice group the
   // helper reports active. Counts no packets.
   void dynamicTwiceCountersPolling();
   void handleStaticAclSharingStatus();
   // A watched address resolved differently: tells each engine that uses it.
   void handleNextHopUpdate(VrfAndIpAddr const& key);
   // Starts the four review tasks (those not running).
   void startUnprogrammedReview();
   // A run of the review task of `type`: retries the unprogrammed entries of
   // that kind, giving way when the task's share is used up.
   void reviewUnprogrammedEntries(NatType const& type);
   // Kept for the inspection code.
   void showUnprogrammedEntries() {}
   // Takes every static connection of every engine out of hardware, then
   // programs them all again. No static translation stands anywhere between
   // the first delete and the first add.
   void doReprogramStaticConnections();
   // REQUIRES: "mcastTranslationModeStatus()". Modes 0 and 3 reprogram
   // static then twice connections; any other mode changes nothing.
   void handleMcastTranslationModeStatus();
   // Takes every twice connection of every engine out of hardware, as
   // hardware status records them, then programs each engine's configured
   // groups again. No twice translation stands anywhere in between.
   // REQUIRES: "hwIntfStatus" for every engine.
   void doReprogramTwiceConnections();
   // Hands the asynchronous programmer's answer for `key` to the helper. A
   // false answer is traced; what to do about it is the helper's business.
   // Ignored before start.
   void handleAsyncHwStatus(NatHwKey const& key);
   // Every key of the status directory, as after a re-pointing.
   void handleAsyncHwStatus();
   // Relays a dynamic connection to the engine of its interface. Without an
   // engine the event is dropped (traced); the configuration entry stays.
   void handleDynamicConnection(Ip::Nat::DynamicConnectionKey const& key);
   // Cleans up each engine and drops it, then cleans up the VRF root. Does
   // not call hwCleanup().
   void doCleanup();

   // ---- verification (UloNat/UloNatSmVerify.cpp) ----
   // The verify command: checks the per-VRF watched-address records (an
   // address that no interface uses any more is a leak, one line of output),
   // then lets the helper prepare, each engine verify its own connections
   // and the helper verify dynamic NAT. Does nothing while disableVerify() is
   // true, before start, or before the helper's hardware is up. Findings are
   // reported as UloNat/UloNatVerify.h says.
   // REQUIRES: "natIntfStatusSmHas( intfIter.key() )": every interface named
   // by a watched-address record has an engine; and every interface of
   // status() has one (the command is asked for a settled system).
   void handleVerify();
   // Checks the state of each entry of the dynamic backlog of `intf`'s
   // engine against the expectation (NatIntfStatusSm::doVerifyDynamicBacklog).
   // Nothing before start or without an engine. Kept for inspection: no code
   // of the library calls it.
   void doVerifyDynamicBacklog(Lumet::IntfId const& intf, Vor::U32 numRequests, bool isDelete,
                               bool isReinsert);

   // ---- engines ----
   Ptr<NatIntfStatusSm> natIntfStatusSmIs(
      Ptr<UloCommonSmData> const& commonSmData, Ptr<Ip::Nat::IntfStatus const> const& intfStatus,
      Ptr<Ip::Nat::Status const> const& status, Ptr<Ip::Nat::HwStatus> const& hwStatus,
      Ptr<Ip::Nat::DynamicConnectionStatus> const& dynamicConnectionStatus,
      Ptr<Ip::Nat::DynamicConnectionHwStatus> const& dynamicConnectionHwStatus,
      Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities,
      Ptr<UloHelper::UloHelperNat> const& natHelper,
      Ptr<MrouteLib::StaticNatInfo> const& staticNatInfo, Ptr<NatSmStatus> const& natSmStatus,
      Ptr<NatSmStatusNotif> const& natSmStatusNotif, Ptr<Dov::TaskScheduler> const& scheduler,
      VrfId vrfId, Ptr<NatMulticastAdapter> const& multicastAdapter);
   void natIntfStatusSmDel(Lumet::IntfId const& intf);

   // ---- counter machines, one beside each engine while counterStatus ----
   // Makes the interface's counter machine, or returns the one it has.
   Ptr<NatIntfCounterSm> natIntfCounterSmIs(Ptr<UloCommonSmData> const& commonSmData,
                                            Lumet::IntfId const& intf,
                                            Ptr<Vor::Clock const> const& clock,
                                            Ptr<Ip::Nat::IntfStatus const> const& intfStatus,
                                            Ptr<Ip::Nat::HwIntfStatus> const& hwIntfStatus,
                                            Ptr<UloHelper::UloHelperNat> const& natHelper,
                                            NatSm* natSm, VrfId vrfId);
   // Drops it; nothing happens when there is none.
   void natIntfCounterSmDel(Lumet::IntfId const& intf);
   Ptr<NatIntfCounterSm> natIntfCounterSm(Lumet::IntfId const& intf) const {
      return natIntfCounterSm_.find(intf);
   }
   Vor::ChildMachines<Lumet::IntfId, NatIntfCounterSm> const& natIntfCounterSms() const {
      return natIntfCounterSm_;
   }

 private:
   Ptr<UloCommonSmData> commonSmDataMutable_;

   // ---- reactors ----
   // The members' reactors come before the reactor of their collection,
   // which names them.
   Vor::WatchMembers<Lumet::IntfId, Ip::Nat::IntfStatus, NatSm,
                     Vor::OnScalar<Ip::Nat::IntfStatus::vrfNameId, &NatSm::handleNatIntfStatus>>
      intfStatus_{this};
   Vor::Watch<Ip::Nat::Status, NatSm,
              Vor::OnMembers<Ip::Nat::Status::intfStatusId, &NatSm::handleNatIntfStatus,
                             &NatSm::intfStatus_, Vor::collection(&Ip::Nat::Status::intfStatus)>,
              Vor::OnScalar<Ip::Nat::Status::counterStatusId, &NatSm::handleCounterStatus>,
              Vor::OnScalar<Ip::Nat::Status::staticAclSharingStatusId,
                            &NatSm::handleStaticAclSharingStatus>>
      status_{this};
   Vor::Watch<Ip::Nat::DynamicConnectionStatus, NatSm,
              Vor::OnKey<Ip::Nat::DynamicConnectionStatus::dynamicConnectionId,
                         &NatSm::handleDynamicConnection>>
      dynamicConnectionStatusReactor_{this};
   Vor::Watch<NextHopMapStatus, NatSm,
              Vor::OnKey<NextHopMapStatus::resolvedAddrId, &NatSm::handleNextHopUpdate>>
      nhMapStatus_{this};
   Vor::WatchMembers<L3::VrfName, Routing::Hardware::VrfStatus, NatSm,
                     Vor::OnScalar<Routing::Hardware::VrfStatus::vrfIdId, &NatSm::handleVrf>>
      vrfStatus_{this};
   Vor::Watch<Routing::Hardware::RouteStatus, NatSm,
              Vor::OnMembers<Routing::Hardware::RouteStatus::vrfStatusId, &NatSm::handleVrf,
                             &NatSm::vrfStatus_,
                             Vor::collection(&Routing::Hardware::RouteStatus::vrfStatus)>>
      routingHwRouteStatus_{this};
   Vor::Watch<NatSmStatusNotif, NatSm,
              Vor::OnScalar<NatSmStatusNotif::kickUnprogrammedReviewId,
                            &NatSm::startUnprogrammedReview>>
      natSmStatusNotif_{this};
   Vor::WatchMembers<NatType, Dov::Task, NatSm,
                     Vor::OnEvent<Dov::Task::taskRunId, &NatSm::reviewUnprogrammedEntries>>
      unprogrammedTask_{this};
   // The asynchronous programmer's answers: one reactor per key's status,
   // on its state.
   Vor::WatchMembersBy<
      NatHwKey, NatHwKeyFullLess, NatAsyncHwStatus, NatSm,
      Vor::OnScalar<NatAsyncHwStatus::stateId,
                    static_cast<void (NatSm::*)(NatHwKey const&)>(&NatSm::handleAsyncHwStatus)>>
      asyncHwStatus_{this};
   Vor::Watch<Dov::Task, NatSm, Vor::OnEvent<Dov::Task::taskRunId, &NatSm::dynamicCountersPolling>>
      dynamicCountersPollingTaskReactor_{this};
   Vor::Watch<NatAsyncHwStatusDir, NatSm,
              Vor::OnRepoint<static_cast<void (NatSm::*)()>(&NatSm::handleAsyncHwStatus)>,
              Vor::OnMembers<NatAsyncHwStatusDir::statusId,
                             static_cast<void (NatSm::*)(NatHwKey const&)>(&NatSm::handleAsyncHwStatus),
                             &NatSm::asyncHwStatus_, Vor::collection(&NatAsyncHwStatusDir::status)>>
      asyncHwStatusDir_{this};
   Vor::Watch<VerifyData, NatSm, Vor::OnEvent<VerifyData::requestId, &NatSm::handleVerify>>
      verifyData_{this};

   Ptr<Ip::Nat::HwStatus> hwStatus_;
   Ptr<Ip::Nat::DynamicConnectionStatus> dynamicConnectionStatus_;
   Ptr<Ip::Nat::DynamicConnectionHwStatus> dynamicConnectionHwStatus_;
   Ptr<Ip::Nat::HwCapabilities const> hwCapabilities_;
   Ptr<NextHopMapConfig> nhMapConfig_;
   Ptr<UloHelper::UloHelperNat> natHelper_;
   Ptr<MrouteLib::StaticNatInfo> staticNatInfo_;
   Ptr<UloL3Intf::Table const> uloL3IntfTable_;
   Ptr<NatMulticastAdapter> multicastAdapter_;
   Vor::Watch<Ip::Nat::McastTranslationMode, NatSm,
              Vor::OnEvent<Ip::Nat::McastTranslationMode::numTranslationTypesAttribute,
                           &NatSm::handleMcastTranslationModeStatus>>
      mcastTranslationModeStatus_{this};
   Ptr<NatSmStatus> natSmStatus_;
   Ptr<NatSmStatusNotif> natSmStatusNotifPtr_;
   Ptr<Dov::TaskScheduler> scheduler_;
   bool natCountersSupported_ = false;
   double dynamicCountersPollingInterval_ = 5.0;
   // Made, watched and first scheduled in handleInitialized() where dynamic
   // NAT is supported; reschedules itself at the end of each run.
   Ptr<Dov::TimerTask> dynamicCountersPollingTask_;
   double unprogrammedTaskScheduleInterval_ = 5.0;
   std::map<NatType, Ptr<Dov::TimerTask>> unprogrammedTaskPtr_;
   Ptr<NatAsyncHwConfigDir> asyncHwConfigDir_;
   Vor::ChildMachines<Lumet::IntfId, NatIntfStatusSm> natIntfStatusSm_{this};
   Vor::ChildMachines<Lumet::IntfId, NatIntfCounterSm> natIntfCounterSm_{this};
   bool hwConnEntryRqrdOnDelete_ = false;
   Ptr<NatVrfRootSm> natVrfRootSm_;
   bool disableVerify_ = false;
   bool counterStatus_ = false;
};

// The root with notification active.
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
                        Ptr<UloL3Intf::Table const> const& uloL3IntfTable);

} // namespace Ulo
