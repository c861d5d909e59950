#pragma once
// VRF-to-VRF NAT: Ulo::NatVrfRootSm and one Ulo::NatVrfSm per NAT VRF.
//
// A VRF rule translates an address of one VRF (the machine's, "inside") into
// an address of another ("outside"), with no interface involved. Each rule
// costs two hardware translations: a source translation old -> new and a
// destination translation new -> old. A NatVrfSm also applies its VRF's
// source policer.
//
// The root is made by Ulo::NatSm at the end of its start-up (natVrfRootSmIs)
// and follows the NAT VRFs of Ip::Nat::Status; it also watches the hardware
// VRF table of Routing::Hardware::RouteStatus and tells every NatVrfSm when
// any VRF's id changes, since a rule in one VRF may point into another.
//
// A rule is in one of three states:
//
//   waiting for a VRF id   in the NatVrfSm's pendingNatRules, under the name
//                          of the VRF whose id is missing; left when
//                          handleVrfId() brings that VRF's id
//   programmed             in hwVrfStatus()->staticNat; left by removal of the
//                          rule, doCleanup() or a mismatch of ids
//   refused by the table   in the root's unprogrammedNatRules under the
//                          rule's VRF; retried by the VRF's review task every
//                          unprgReviewDelay seconds while that set holds
//                          anything; left by a successful retry, removal of
//                          the rule or doCleanup()
//
// A source policer set while the VRF has no id waits in pendingVrfConfig and
// is applied by handleVrfId().
//
// Full and normal messages. The VRF side is full while the root's
// unprogrammedNatRules is not empty, whatever the VRF. The first refusal
// across all VRFs emits NAT_HW_RESOURCE_FULL, the last rule to leave emits
// NAT_HW_RESOURCE_NORMAL, once each. This state is kept apart from the
// interface engines' fullTable in Ulo::NatSmStatus: each side emits its own
// pair, and the interface side's logsFull / logsNormal count only that side.
//
// The loss of any VRF's id (handleVrfId with id 0) empties every NatVrfSm:
// hardware is cleared, pending rules are forgotten, and nothing programs the
// rules again until each next changes in the configuration.
//
// Thread safety: the agent's one thread, as every state machine.
//
// Invariants (assertion texts in quotes):
//  1. "hwCapabilities()->natVrfHopStaticSupported() == true": a NatVrfSm
//     exists only on hardware with VRF static NAT.
//  2. "hwCapabilities()->natOutsideVrfSupported() == true": a rule whose
//     outside VRF is not "default" needs outside-VRF support.
//  3. "entry.srcAddressOld().isMulticast() == false" and
//     "entry.srcAddressNew().isMulticast() == false".
//  4. "hwStatus()->vrfStatus( name )->staticNats() == 0": a NAT VRF that goes
//     leaves nothing programmed behind.
//  5. A rule is programmed (in hwVrfStatus) with both of its translations, or
//     not at all: a half-made pair is deleted as a whole.

#include "UloNat/UloHelperNat.h"
#include "framework/DovTask.h"
#include "framework/IpNatHwCapabilities.h"
#include "framework/IpNatHwStatus.h"
#include "framework/IpNatStatus.h"
#include "framework/L3VrfName.h"
#include "framework/RoutingHwRouteStatus.h"
#include "framework/VorHashMap2018.h"
#include "framework/VorReactor.h"
#include "framework/VorSet.h"

namespace Ulo {

using Vor::Ptr;
using Vor::U32;

// The addresses of one VRF's rules that wait for something: an id of the
// named VRF (pendingNatRules) or room in hardware (unprogrammedNatRules).
class NatRulesCollection : public Vor::PtrInterface {
 public:
   // Iterators survive the erasure of their own member (Vor::HashSet): a
   // retry walks the set while the retried rule takes itself out of it.
   using SrcAddrOldSet = Vor::HashSet<Lumet::IpAddr>;

   explicit NatRulesCollection(L3::VrfName const& vrf) : vrf_(vrf) {}

   L3::VrfName const& vrf() const { return vrf_; }
   SrcAddrOldSet const& srcAddrOld() const { return srcAddrOld_; }
   bool srcAddrOldHas(Lumet::IpAddr const& addr) const { return srcAddrOld_.contains(addr); }
   void srcAddrOldIs(Lumet::IpAddr const& addr) { srcAddrOld_.insert(addr); }
   void srcAddrOldDel(Lumet::IpAddr const& addr) { srcAddrOld_.erase(addr); }
   void srcAddrOldDelAll() { srcAddrOld_.clear(); }

 private:
   L3::VrfName const vrf_;
   SrcAddrOldSet srcAddrOld_;
};

Ptr<NatRulesCollection> natRulesCollectionFactory(L3::VrfName const& vrf);

// A source policer that cannot be applied yet because its VRF has no id.
class PendingVrfConfig : public Vor::PtrInterface {
 public:
   U32 snatRate() const { return snatRate_; }
   void snatRateIs(U32 v) { snatRate_ = v; }
   U32 snatBurst() const { return snatBurst_; }
   void snatBurstIs(U32 v) { snatBurst_ = v; }

 private:
   U32 snatRate_ = 0;
   U32 snatBurst_ = 0;
};

Ptr<PendingVrfConfig> pendingVrfConfigFactory();

// Collections of waiting rules, by the name of the VRF they wait for.
using RulesByVrf = Vor::HashMap2018<L3::VrfName, Ptr<NatRulesCollection>>;

class NatVrfRootSm;

// The rules and the source policer of one NAT VRF.
class NatVrfSm : public Vor::PtrInterface, public Vor::PartOwner {
 public:
   // Seconds between two retries of refused rules.
   static constexpr double unprgReviewDelay = 5.0;

   // Runs handleInitialized() before it returns.
   NatVrfSm(Vor::String const& name, NatVrfRootSm* natVrfRootSm,
            Ptr<Ip::Nat::VrfStatus const> const& vrfStatus,
            Ptr<Ip::Nat::HwVrfStatus> const& hwVrfStatus,
            Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities,
            Ptr<Routing::Hardware::RouteStatus const> const& routingHwRouteStatus,
            Ptr<UloHelper::UloHelperNat> const& natHelper, Ptr<Dov::TaskScheduler> const& scheduler);
   ~NatVrfSm() override;

   // ---- attributes ----
   Vor::String const& name() const { return name_; }
   NatVrfRootSm* natVrfRootSm() const { return natVrfRootSm_; }
   Ptr<Ip::Nat::VrfStatus const> vrfStatus() const { return vrfStatus_.notifier(); }
   Ptr<Ip::Nat::HwVrfStatus> const& hwVrfStatus() const { return hwVrfStatus_; }
   Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities() const { return hwCapabilities_; }
   Ptr<Routing::Hardware::RouteStatus const> const& routingHwRouteStatus() const {
      return routingHwRouteStatus_;
   }
   Ptr<UloHelper::UloHelperNat> const& natHelper() const { return natHelper_; }
   Ptr<Dov::TaskScheduler> const& scheduler() const { return scheduler_; }
   L3::VrfName const& vrf() const { return vrf_; }
   void vrfIs(L3::VrfName const& v) { vrf_ = v; }
   // The review task, named after the VRF; null before handleInitialized().
   Ptr<Dov::TimerTask> const& unprgReviewTask() const { return unprgReviewTaskPtr_; }
   void unprgReviewTaskIs(Ptr<Dov::TaskScheduler> const& scheduler, Dov::TaskPriority priority,
                          Vor::String const& name);
   // When true no rule is programmed: each counts as refused by the table.
   // Takes effect at each rule's next handling (a change or a retry).
   bool forceTableFull() const { return forceTableFull_; }
   void forceTableFullIs(bool v) { forceTableFull_ = v; }
   // Rules waiting for the id of the VRF they are filed under.
   RulesByVrf const& pendingNatRules() const { return pendingNatRules_; }
   Ptr<NatRulesCollection> pendingNatRules(L3::VrfName const& vrf) const;
   void pendingNatRulesDel(L3::VrfName const& vrf) { pendingNatRules_.erase(vrf); }
   void pendingNatRulesDelAll() { pendingNatRules_.clear(); }
   // The policer waiting for this VRF's id, or null.
   Ptr<PendingVrfConfig> const& pendingVrfConfig() const { return pendingVrfConfig_; }
   void pendingVrfConfigIs(Ptr<PendingVrfConfig> const& v) { pendingVrfConfig_ = v; }
   bool initialized() const { return initialized_; }
   void initializedIs(bool v) { initialized_ = v; }

   // For Vor::ChildMachines and for the reinstantiation check of
   // NatVrfRootSm::natVrfSmIs().
   void hasNotificationActiveIs(bool active) override {
      Vor::PtrInterface::hasNotificationActiveIs(active);
      partsNotificationActiveIs(active);
   }
   void vorDoZombieReactors(bool zombie) { partsZombieIs(zombie); }

   // ---- handlers ----
   // REQUIRES: "hwCapabilities()->natVrfHopStaticSupported() == true".
   // Makes the review task, applies the policer and handles every rule.
   void handleInitialized();
   // Every rule of the configuration.
   void handleStaticConnection();
   // Programs, reprograms or deletes the rule of `addr` after the
   // configuration; a rule whose VRF ids are missing is filed as pending and
   // a refused one as unprogrammed. The add path replaces.
   void handleStaticConnection(Lumet::IpAddr const& addr);
   // Applies the configured policer, or keeps it in pendingVrfConfig while
   // this VRF has no hardware entry.
   void handleSourcePolicer();
   // VRF `vrfName` (any VRF, not only this one) has id `vrfId` in hardware
   // now; 0 means it lost it.
   void handleVrfId(L3::VrfName const& vrfName, U32 vrfId);
   // The review task's run: retries the refused rules of this VRF.
   void reviewUnprogrammedNatRules();
   // Takes all of this VRF's rules out of hardware and out of the pending
   // and unprogrammed sets; emits NAT_HW_RESOURCE_NORMAL when that empties
   // the root's unprogrammed rules.
   void doCleanup();

   // ---- operations ----
   // The hardware id of `vrfName`: 0 for "default", for a VRF without id,
   // and for a VRF not in hardware, which also files `addr` as pending under
   // that name when `addToPending` is true.
   // REQUIRES: "routingHwRouteStatus()" for a VRF other than "default".
   U32 getVrfId(L3::VrfName const& vrfName, Lumet::IpAddr const& addr, bool addToPending);
   // Deletes both translations of a programmed rule and its hardware status
   // entry. Does nothing for a rule not in hardware status.
   void deleteStaticConnection(Lumet::IpAddr const& addr);
   // A refused rule: undone, filed as unprogrammed, the review started.
   void handleFullNatTable(Lumet::IpAddr const& addr);

   // Construction arguments, for NatVrfRootSm::natVrfSmIs().
   bool sameArguments(NatVrfRootSm const* root, Ptr<Ip::Nat::VrfStatus const> const& vrfStatus,
                      Ptr<Ip::Nat::HwVrfStatus> const& hwVrfStatus,
                      Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities,
                      Ptr<Routing::Hardware::RouteStatus const> const& routingHwRouteStatus,
                      Ptr<UloHelper::UloHelperNat> const& natHelper,
                      Ptr<Dov::TaskScheduler> const& scheduler) const;

 private:
   // The root's unprogrammed rules of this VRF leave; emits
   // NAT_HW_RESOURCE_NORMAL when no VRF has any left.
   void unprogrammedNatRulesDone();

   Vor::String const name_;
   NatVrfRootSm* const natVrfRootSm_;
   // The VRF's configuration: its rules, by srcAddressOld, and its policer.
   Vor::Watch<Ip::Nat::VrfStatus, NatVrfSm,
              Vor::OnKey<Ip::Nat::VrfStatus::staticNatId,
                         static_cast<void (NatVrfSm::*)(Lumet::IpAddr const&)>(
                            &NatVrfSm::handleStaticConnection)>,
              Vor::OnScalar<Ip::Nat::VrfStatus::policerId, &NatVrfSm::handleSourcePolicer>>
      vrfStatus_{this};
   Ptr<Ip::Nat::HwVrfStatus> hwVrfStatus_;
   Ptr<Ip::Nat::HwCapabilities const> hwCapabilities_;
   Ptr<Routing::Hardware::RouteStatus const> routingHwRouteStatus_;
   Ptr<UloHelper::UloHelperNat> natHelper_;
   Ptr<Dov::TaskScheduler> scheduler_;
   L3::VrfName vrf_;
   Ptr<Dov::TimerTask> unprgReviewTaskPtr_;
   Vor::Watch<Dov::Task, NatVrfSm, Vor::OnEvent<Dov::Task::taskRunId, &NatVrfSm::reviewUnprogrammedNatRules>>
      unprgReviewTask_{this};
   bool forceTableFull_ = false;
   RulesByVrf pendingNatRules_;
   Ptr<PendingVrfConfig> pendingVrfConfig_;
   bool initialized_ = false;
};

// The NAT VRFs of the configuration, one NatVrfSm each, and the refused
// rules of all of them.
class NatVrfRootSm : public Vor::PtrInterface, public Vor::PartOwner {
 public:
   // Stores the arguments, attaches the reactors (no delivery), makes a
   // VorVrfStatus per hardware VRF, and runs handleInitialized().
   NatVrfRootSm(Ptr<Ip::Nat::Status const> const& status, Ptr<Ip::Nat::HwStatus> const& hwStatus,
                Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities,
                Ptr<Routing::Hardware::RouteStatus const> const& routingHwRouteStatus,
                Ptr<UloHelper::UloHelperNat> const& natHelper,
                Ptr<Dov::TaskScheduler> const& scheduler);
   ~NatVrfRootSm() override;

   // ---- attributes ----
   Ptr<Ip::Nat::Status const> status() const { return status_.notifier(); }
   Ptr<Ip::Nat::HwStatus> const& hwStatus() const { return hwStatus_; }
   Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities() const { return hwCapabilities_; }
   Ptr<Routing::Hardware::RouteStatus const> routingHwRouteStatus() const {
      return routingHwRouteStatus_.notifier();
   }
   Ptr<UloHelper::UloHelperNat> const& natHelper() const { return natHelper_; }
   Ptr<Dov::TaskScheduler> const& scheduler() const { return scheduler_; }
   bool initialized() const { return initialized_; }
   void initializedIs(bool v) { initialized_ = v; }

   Ptr<NatVrfSm> natVrfSm(Vor::String const& name) const { return natVrfSm_.find(name); }
   Vor::ChildMachines<Vor::String, NatVrfSm> const& natVrfSms() const { return natVrfSm_; }
   // Makes the machine of vrfStatus's VRF, or returns the one that exists.
   // Throws Vor::ReinstantiationException when one exists for that name with
   // other arguments; Vor::NullPointerException for a null argument.
   Ptr<NatVrfSm> natVrfSmIs(NatVrfRootSm* root, Ptr<Ip::Nat::VrfStatus const> const& vrfStatus,
                            Ptr<Ip::Nat::HwVrfStatus> const& hwVrfStatus,
                            Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities,
                            Ptr<Routing::Hardware::RouteStatus const> const& routingHwRouteStatus,
                            Ptr<UloHelper::UloHelperNat> const& natHelper,
                            Ptr<Dov::TaskScheduler> const& scheduler);
   void natVrfSmDel(Vor::String const& name) { natVrfSm_.xDel(name); }

   // Refused rules of every VRF, by the rule's VRF. Empty exactly while the
   // VRF side is not full.
   RulesByVrf const& unprogrammedNatRules() const { return unprogrammedNatRules_; }
   Ptr<NatRulesCollection> unprogrammedNatRules(L3::VrfName const& vrf) const;
   void unprogrammedNatRulesIs(Ptr<NatRulesCollection> const& rules) {
      unprogrammedNatRules_.insertOrAssign(rules->vrf(), rules);
   }
   void unprogrammedNatRulesDel(L3::VrfName const& vrf) { unprogrammedNatRules_.erase(vrf); }

   // ---- handlers ----
   void handleInitialized();
   // Every NAT VRF of the configuration.
   void handleNatVrfStatus();
   // Makes the machine of a NAT VRF that appeared, with its hardware status
   // emptied of what stood there before; cleans up and removes the machine
   // and the hardware status of one that went.
   void handleNatVrfStatus(L3::VrfName const& name);
   // Hardware VRF `vrf` has a new id (or lost it): tells every NatVrfSm.
   void handleHwVrfId(L3::VrfName const& vrf);
   // Cleans up and removes every machine.
   void doCleanup();

   void hasNotificationActiveIs(bool active) override {
      Vor::PtrInterface::hasNotificationActiveIs(active);
      partsNotificationActiveIs(active);
   }
   void vorDoZombieReactors(bool zombie) { partsZombieIs(zombie); }

 private:
   // The NAT VRFs of the configuration.
   Vor::Watch<Ip::Nat::Status, NatVrfRootSm,
              Vor::OnKey<Ip::Nat::Status::vrfStatusId,
                         static_cast<void (NatVrfRootSm::*)(L3::VrfName const&)>(
                            &NatVrfRootSm::handleNatVrfStatus)>>
      status_{this};
   Ptr<Ip::Nat::HwStatus> hwStatus_;
   Ptr<Ip::Nat::HwCapabilities const> hwCapabilities_;
   // One reactor per hardware VRF, on its id; declared before the reactor
   // of their collection, which names it.
   Vor::WatchMembers<L3::VrfName, Routing::Hardware::VrfStatus, NatVrfRootSm,
                     Vor::OnScalar<Routing::Hardware::VrfStatus::vrfIdId, &NatVrfRootSm::handleHwVrfId>>
      vrfStatus_{this};
   // The hardware VRFs: members only, no handler of the collection's own.
   Vor::Watch<Routing::Hardware::RouteStatus, NatVrfRootSm,
              Vor::OnMembers<Routing::Hardware::RouteStatus::vrfStatusId, nullptr, &NatVrfRootSm::vrfStatus_,
                             Vor::collection(&Routing::Hardware::RouteStatus::vrfStatus)>>
      routingHwRouteStatus_{this};
   Ptr<UloHelper::UloHelperNat> natHelper_;
   Ptr<Dov::TaskScheduler> scheduler_;
   Vor::ChildMachines<Vor::String, NatVrfSm> natVrfSm_;
   RulesByVrf unprogrammedNatRules_;
   bool initialized_ = false;
};

// The VRF root with notification active.
Ptr<NatVrfRootSm> natVrfRootSmFactory(Ptr<Ip::Nat::Status const> const& status,
                                      Ptr<Ip::Nat::HwStatus> const& hwStatus,
                                      Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities,
                                      Ptr<Routing::Hardware::RouteStatus const> const& routingHwRouteStatus,
                                      Ptr<UloHelper::UloHelperNat> const& natHelper,
                                      Ptr<Dov::TaskScheduler> const& scheduler);

} // namespace Ulo
