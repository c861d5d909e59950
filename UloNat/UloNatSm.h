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
#include "UloNat/UloNatIntfSm.h"
#include "UloNat/UloNatTypes.h"
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
   class VorStatus : public Vor::Reactor<Ip::Nat::Status, NatSm> {
    public:
      explicit VorStatus(NatSm* sm);
   };
   // Member reactor on one interface's configuration: its vrfName.
   class VorIntfStatus : public Vor::Reactor<Ip::Nat::IntfStatus, VorIntfStatus> {
    public:
      VorIntfStatus(NatSm* sm, Lumet::IntfId const& intf);
      void handleVrfName();

    private:
      NatSm* sm_;
      Lumet::IntfId intf_;
   };
   class VorRoutingHwRouteStatus : public Vor::Reactor<Routing::Hardware::RouteStatus, NatSm> {
    public:
      explicit VorRoutingHwRouteStatus(NatSm* sm);
   };
   // Member reactor on one hardware VRF: its vrfId.
   class VorVrfStatus : public Vor::Reactor<Routing::Hardware::VrfStatus, VorVrfStatus> {
    public:
      VorVrfStatus(NatSm* sm, L3::VrfName const& vrf);
      void handleVrfId();

    private:
      NatSm* sm_;
      L3::VrfName vrf_;
   };
   class VorDynamicConnectionStatus : public Vor::Reactor<Ip::Nat::DynamicConnectionStatus, NatSm> {
    public:
      explicit VorDynamicConnectionStatus(NatSm* sm);
   };
   class VorNhMapStatus : public Vor::Reactor<NextHopMapStatus, NatSm> {
    public:
      explicit VorNhMapStatus(NatSm* sm);
   };
   class VorNatSmStatusNotif : public Vor::Reactor<NatSmStatusNotif, NatSm> {
    public:
      explicit VorNatSmStatusNotif(NatSm* sm);
   };
   // The number of multicast translation types; not replayed at a
   // re-pointing, since every change reprograms connections.
   class VorMcastTranslationModeStatus : public Vor::Reactor<Ip::Nat::McastTranslationMode, NatSm> {
    public:
      explicit VorMcastTranslationModeStatus(NatSm* sm);
   };
   // The asynchronous programmer's answers: the status directory and one
   // member reactor per key's status.
   class VorAsyncHwStatusDir : public Vor::Reactor<NatAsyncHwStatusDir, NatSm> {
    public:
      explicit VorAsyncHwStatusDir(NatSm* sm);
   };
   class VorAsyncHwStatus : public Vor::Reactor<NatAsyncHwStatus, VorAsyncHwStatus> {
    public:
      VorAsyncHwStatus(NatSm* sm, NatHwKey const& key);
      // The programmer changed this key's state.
      void handleState();

    private:
      NatSm* sm_;
      NatHwKey key_;
   };
   // Orders keys by every field, filterAddrId included: sibling entries of
   // one connection have statuses of their own.
   struct NatHwKeyFullLess {
      bool operator()(NatHwKey const& a, NatHwKey const& b) const {
         if (a < b) return true;
         if (b < a) return false;
         return a.filterAddrId() < b.filterAddrId();
      }
   };
   // Member reactor on one review task.
   class VorUnprogrammedTask : public Vor::Reactor<Dov::Task, VorUnprogrammedTask> {
    public:
      VorUnprogrammedTask(NatSm* sm, NatType type);
      NatType type() const { return type_; }
      Ptr<Dov::TimerTask> task() const;
      // Retries the unprogrammed entries of this task's kind.
      void reviewUnprogrammedEntries();

    private:
      NatSm* sm_;
      NatType type_;
   };

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
   bool disableVerify() const { return disableVerify_; }
   void disableVerifyIs(bool v) { disableVerify_ = v; }
   bool counterStatus() const { return counterStatus_; }
   // The engine of an interface, or null.
   Ptr<NatIntfStatusSm> natIntfStatusSm(Lumet::IntfId const& intf) const {
      return natIntfStatusSm_.find(intf);
   }
   Vor::ChildMachines<Lumet::IntfId, NatIntfStatusSm> const& natIntfStatusSms() const {
      return natIntfStatusSm_;
   }

   // ---- handlers ----
   // Starts the machine in a fixed order: scheduler, review tasks, counter
   // support, emptied hardware status, shared state, replay of every
   // interface between replayIs(true) and replayIs(false), replayReconcile().
   void handleInitialized() override;
   void vorDoZombieReactors(bool zombie) override;
   // Makes, keeps or removes the engine of one interface.
   // REQUIRES: "vrfStatus" (the engine's VRF record exists while it lives).
   void handleNatIntfStatus(Lumet::IntfId const& intf);
   // A hardware VRF appeared or got its id: retries its interfaces.
   void handleVrf(L3::VrfName const& vrf);
   void handleCounterStatus();
   void handleStaticAclSharingStatus();
   // A watched address resolved differently: tells each engine that uses it.
   void handleNextHopUpdate(VrfAndIpAddr const& key);
   // Starts the four review tasks (those not running).
   void startUnprogrammedReview();
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
   // Cleans up each engine and drops it. Does not call hwCleanup().
   void doCleanup();

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

 private:
   Ptr<UloCommonSmData> commonSmDataMutable_;
   Vor::ReactorSlot<VorStatus> status_;
   Ptr<Ip::Nat::HwStatus> hwStatus_;
   Ptr<Ip::Nat::DynamicConnectionStatus> dynamicConnectionStatus_;
   Vor::ReactorSlot<VorDynamicConnectionStatus> dynamicConnectionStatusReactor_;
   Ptr<Ip::Nat::DynamicConnectionHwStatus> dynamicConnectionHwStatus_;
   Ptr<Ip::Nat::HwCapabilities const> hwCapabilities_;
   Ptr<NextHopMapConfig> nhMapConfig_;
   Vor::ReactorSlot<VorNhMapStatus> nhMapStatus_;
   Vor::ReactorSlot<VorRoutingHwRouteStatus> routingHwRouteStatus_;
   Ptr<UloHelper::UloHelperNat> natHelper_;
   Ptr<MrouteLib::StaticNatInfo> staticNatInfo_;
   Ptr<UloL3Intf::Table const> uloL3IntfTable_;
   Ptr<NatMulticastAdapter> multicastAdapter_;
   Vor::ReactorSlot<VorMcastTranslationModeStatus> mcastTranslationModeStatus_;
   Ptr<NatSmStatus> natSmStatus_;
   Ptr<NatSmStatusNotif> natSmStatusNotifPtr_;
   Vor::ReactorSlot<VorNatSmStatusNotif> natSmStatusNotif_;
   Ptr<Dov::TaskScheduler> scheduler_;
   bool natCountersSupported_ = false;
   double dynamicCountersPollingInterval_ = 5.0;
   // The polling of dynamic counters is run by this task's handler, which
   // comes with dynamic-NAT counters; the task is made and scheduled here.
   Ptr<Dov::TimerTask> dynamicCountersPollingTask_;
   double unprogrammedTaskScheduleInterval_ = 5.0;
   std::map<NatType, Ptr<Dov::TimerTask>> unprogrammedTaskPtr_;
   Vor::MemberReactors<NatType, VorUnprogrammedTask> unprogrammedTask_;
   // In declared order: the programmer's directories come before the engines.
   Ptr<NatAsyncHwConfigDir> asyncHwConfigDir_;
   Vor::ReactorSlot<VorAsyncHwStatusDir> asyncHwStatusDir_;
   Vor::MemberReactors<NatHwKey, VorAsyncHwStatus, NatHwKeyFullLess> asyncHwStatus_;
   Vor::ChildMachines<Lumet::IntfId, NatIntfStatusSm> natIntfStatusSm_;
   bool hwConnEntryRqrdOnDelete_ = false;
   Vor::MemberReactors<Lumet::IntfId, VorIntfStatus> intfStatus_;
   Vor::MemberReactors<L3::VrfName, VorVrfStatus> vrfStatus_;
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
