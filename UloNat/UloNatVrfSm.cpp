// Ulo::NatVrfRootSm and Ulo::NatVrfSm: VRF-to-VRF static NAT and the
// per-VRF source policer.

#include "UloNat/UloNatVrfSm.h"

#include <vector>

#include "UloNat/UloNatTypes.h"
#include "framework/UloAssert.h"
#include "framework/VorException.h"
#include "framework/VorLog.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("UloNatVrfSm");

namespace Ulo {

namespace {

// This file's own handles of the resource messages (one per emitting file).
Vor::LogHandle NAT_HW_RESOURCE_NORMAL = natHwResourceNormalLogHandle();
Vor::LogHandle NAT_HW_RESOURCE_FULL = natHwResourceFullLogHandle();

L3::VrfName const defaultVrfName("default");

bool isDefault(L3::VrfName const& vrf) { return vrf == defaultVrfName; }

// The keys of a hardware VRF status's rules, copied so that the caller may
// delete and re-add while it walks them.
std::vector<Lumet::IpAddr> hwRuleKeys(Ip::Nat::HwVrfStatus const& hw) {
   std::vector<Lumet::IpAddr> keys;
   keys.reserve(hw.staticNats());
   for (auto const& [addr, conn] : hw.staticNat()) keys.push_back(addr);
   return keys;
}

} // namespace

Ptr<NatRulesCollection> natRulesCollectionFactory(L3::VrfName const& vrf) {
   return Ptr<NatRulesCollection>(new NatRulesCollection(vrf));
}

Ptr<PendingVrfConfig> pendingVrfConfigFactory() { return Ptr<PendingVrfConfig>(new PendingVrfConfig()); }

// ===========================================================================
// NatVrfSm
// ===========================================================================

NatVrfSm::NatVrfSm(Vor::String const& name, NatVrfRootSm* natVrfRootSm,
                   Ptr<Ip::Nat::VrfStatus const> const& vrfStatus,
                   Ptr<Ip::Nat::HwVrfStatus> const& hwVrfStatus,
                   Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities,
                   Ptr<Routing::Hardware::RouteStatus const> const& routingHwRouteStatus,
                   Ptr<UloHelper::UloHelperNat> const& natHelper,
                   Ptr<Dov::TaskScheduler> const& scheduler)
    : name_(name),
      natVrfRootSm_(natVrfRootSm),
      hwVrfStatus_(hwVrfStatus),
      hwCapabilities_(hwCapabilities),
      routingHwRouteStatus_(routingHwRouteStatus),
      natHelper_(natHelper),
      scheduler_(scheduler) {
   vrfStatus_.attach(vrfStatus);
   handleInitialized();
}

NatVrfSm::~NatVrfSm() {
   vorDoZombieReactors(true);
   // The task may outlive the machine (a holder of its pointer): it must not
   // fire again.
   if (unprgReviewTaskPtr_) {
      unprgReviewTaskPtr_->timerCancel();
      unprgReviewTaskPtr_->unscheduleTask();
   }
   unprgReviewTask_.notifierIs(nullptr);
}

bool NatVrfSm::sameArguments(NatVrfRootSm const* root, Ptr<Ip::Nat::VrfStatus const> const& vrfStatus,
                             Ptr<Ip::Nat::HwVrfStatus> const& hwVrfStatus,
                             Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities,
                             Ptr<Routing::Hardware::RouteStatus const> const& routingHwRouteStatus,
                             Ptr<UloHelper::UloHelperNat> const& natHelper,
                             Ptr<Dov::TaskScheduler> const& scheduler) const {
   return root == natVrfRootSm_ && vrfStatus == this->vrfStatus() && hwVrfStatus == hwVrfStatus_ &&
          hwCapabilities == hwCapabilities_ && routingHwRouteStatus == routingHwRouteStatus_ &&
          natHelper == natHelper_ && scheduler == scheduler_;
}

void NatVrfSm::unprgReviewTaskIs(Ptr<Dov::TaskScheduler> const& scheduler, Dov::TaskPriority priority,
                                 Vor::String const& name) {
   unprgReviewTaskPtr_ = Ptr<Dov::TimerTask>(new Dov::TimerTask(scheduler, priority, name));
   unprgReviewTask_.notifierIs(unprgReviewTaskPtr_);
}

Ptr<NatRulesCollection> NatVrfSm::pendingNatRules(L3::VrfName const& vrf) const {
   auto const* found = pendingNatRules_.find(vrf);
   return found ? *found : Ptr<NatRulesCollection>();
}

void NatVrfSm::handleInitialized() {
   uloAssert(hwCapabilities()->natVrfHopStaticSupported() == true);
   vrfIs(L3::VrfName(name()));
   initializedIs(true);
   // The task bears the VRF's name, so that a scheduler listing tells the
   // reviews of VRFs apart.
   unprgReviewTaskIs(scheduler_, 3, name());
   handleSourcePolicer();
   handleStaticConnection();
}

void NatVrfSm::handleStaticConnection() {
   if (!initialized()) return;
   auto const config = vrfStatus();
   if (!config) return;
   // Copied: a rule's handling may run reactors that change the map.
   std::vector<Lumet::IpAddr> addrs;
   for (auto const& [addr, rule] : config->staticNat()) addrs.push_back(addr);
   for (auto const& addr : addrs) handleStaticConnection(addr);
}

U32 NatVrfSm::getVrfId(L3::VrfName const& vrfName, Lumet::IpAddr const& addr, bool addToPending) {
   if (isDefault(vrfName)) return 0;
   uloAssert(routingHwRouteStatus());
   if (auto hwVrf = routingHwRouteStatus()->vrfStatus(vrfName)) return hwVrf->vrfId().value();
   if (addToPending) {
      VOR_TRACE(5, "VrfId for vrf " << vrfName.stringValue() << " not allocated yet");
      Ptr<NatRulesCollection> pnr = pendingNatRules(vrfName);
      if (!pnr) {
         pnr = natRulesCollectionFactory(vrfName);
         uloAssert(pnr);
         pendingNatRules_.insertOrAssign(vrfName, pnr);
      }
      pnr->srcAddrOldIs(addr);
   }
   return 0;
}

void NatVrfSm::handleStaticConnection(Lumet::IpAddr const& addr) {
   if (!initialized()) return;
   auto const config = vrfStatus();
   // A missing rule reads as one with every field zero.
   Ip::Nat::NatVrfStaticConnection const rule =
      config ? config->staticNat(addr) : Ip::Nat::NatVrfStaticConnection();
   struct Entry {
      Ip::Nat::NatVrfStaticConnection const& rule;
      Lumet::IpAddr const& srcAddressOld() const { return rule.srcAddressOld; }
      Lumet::IpAddr const& srcAddressNew() const { return rule.srcAddressNew; }
   } const entry{rule};
   uloAssert(entry.srcAddressOld().isMulticast() == false);
   uloAssert(entry.srcAddressNew().isMulticast() == false);

   if (!(rule.srcAddressOld == addr)) {
      // The rule has gone.
      deleteStaticConnection(addr);
   } else {
      if (!isDefault(rule.outsideVrf)) {
         uloAssert(hwCapabilities()->natOutsideVrfSupported() == true);
      }
      U32 const insideVrfId = getVrfId(vrf(), rule.srcAddressOld, true);
      if (insideVrfId == 0 && !isDefault(vrf())) return;
      U32 const outsideVrfId = getVrfId(rule.outsideVrf, rule.srcAddressOld, true);
      if (outsideVrfId == 0 && !isDefault(rule.outsideVrf)) return;

      Ptr<Ip::Nat::HwNatVrfStaticConnection> hwConn = hwVrfStatus_->staticNatIs(rule.srcAddressOld);
      uloAssert(hwConn);
      hwConn->srcAddressNewIs(rule.srcAddressNew);
      hwConn->targetIs(rule.target);
      hwConn->outsideVrfIs(rule.outsideVrf);
      hwConn->insideVrfIdIs(insideVrfId);
      hwConn->outsideVrfIdIs(outsideVrfId);

      bool programmed = false;
      if (!forceTableFull()) {
         // The destination half is not tried when the source half is refused.
         programmed = natHelper_->addStaticVrfSrcIpTranslation(rule.srcAddressOld, rule.srcAddressNew,
                                                               insideVrfId, outsideVrfId) &&
                      natHelper_->addStaticVrfDstIpTranslation(rule.srcAddressNew, rule.srcAddressOld,
                                                               insideVrfId, outsideVrfId);
      }
      if (!programmed) {
         handleFullNatTable(addr);
         return;
      }
   }

   // The rule stands or has gone: it needs no retry.
   Ptr<NatRulesCollection> const unr = natVrfRootSm_->unprogrammedNatRules(vrf());
   if (unr && unr->srcAddrOldHas(addr)) {
      VOR_TRACE(5, "Removing rule from unprogrammed rules list");
      unr->srcAddrOldDel(addr);
      if (unr->srcAddrOld().empty()) unprogrammedNatRulesDone();
   }
}

void NatVrfSm::unprogrammedNatRulesDone() {
   natVrfRootSm_->unprogrammedNatRulesDel(vrf());
   if (natVrfRootSm_->unprogrammedNatRules().empty()) {
      VOR_TRACE(3, "All unprogrammed nat rules have been restored in hw");
      Vor::log(NAT_HW_RESOURCE_NORMAL);
   }
}

void NatVrfSm::deleteStaticConnection(Lumet::IpAddr const& addr) {
   Ptr<Ip::Nat::HwNatVrfStaticConnection> const hwConn = hwVrfStatus_->staticNat(addr);
   if (!hwConn) {
      VOR_TRACE(7, "Address not in the hwVrfStatus collection");
      return;
   }
   Lumet::IpAddr const oldAddr = hwConn->srcAddressOld();
   Lumet::IpAddr const newAddr = hwConn->srcAddressNew();
   U32 const insideVrfId = hwConn->insideVrfId();
   U32 const outsideVrfId = hwConn->outsideVrfId();
   if (outsideVrfId != 0) uloAssert(hwCapabilities()->natOutsideVrfSupported() == true);
   natHelper_->deleteStaticVrfSrcIpTranslation(oldAddr, newAddr, insideVrfId, outsideVrfId);
   natHelper_->deleteStaticVrfDstIpTranslation(newAddr, oldAddr, insideVrfId, outsideVrfId);
   hwVrfStatus_->staticNatDel(addr);
}

void NatVrfSm::handleFullNatTable(Lumet::IpAddr const& addr) {
   VOR_TRACE(3, "Error programming vrf nat in hw: vrf " << vrf().stringValue() << " address "
                                                        << addr.stringValue());
   // A half-made pair goes as a whole.
   deleteStaticConnection(addr);
   if (natVrfRootSm_->unprogrammedNatRules().empty()) {
      VOR_TRACE(3, "First unprogrammed nat rule");
      Vor::log(NAT_HW_RESOURCE_FULL);
   }
   Ptr<NatRulesCollection> unr = natVrfRootSm_->unprogrammedNatRules(vrf());
   if (!unr) {
      unr = natRulesCollectionFactory(vrf());
      uloAssert(unr);
      natVrfRootSm_->unprogrammedNatRulesIs(unr);
   }
   unr->srcAddrOldIs(addr);
   if (!unprgReviewTaskPtr_->taskCurrentlyRunning()) {
      VOR_TRACE(7, "Schedule task for unprogrammed nat rules");
      unprgReviewTaskPtr_->scheduleTaskDelay(unprgReviewDelay);
   }
}

void NatVrfSm::reviewUnprogrammedNatRules() {
   if (!unprgReviewTaskPtr_ || !unprgReviewTaskPtr_->taskCurrentlyRunning()) {
      VOR_TRACE(7, "Task not running");
      return;
   }
   Ptr<NatRulesCollection> const unr = natVrfRootSm_->unprogrammedNatRules(vrf());
   if (!unr || unr->srcAddrOld().empty()) {
      VOR_TRACE(7, "No unprogrammed nat rules");
      return;
   }
   std::uint64_t count = 0;
   // A successful retry takes its address out of the set being walked; the
   // iterator survives that.
   for (auto it = unr->srcAddrOld().begin(); it; ++it) {
      if (!it.isLive()) continue;
      Lumet::IpAddr const addr = it.key();
      handleStaticConnection(addr);
      ++count;
      if (unprgReviewTaskPtr_->taskShouldYield()) break;
   }
   unprgReviewTaskPtr_->taskWorkCountInc(count);
   Ptr<NatRulesCollection> const left = natVrfRootSm_->unprogrammedNatRules(vrf());
   if (left && !left->srcAddrOld().empty()) {
      VOR_TRACE(7, "Rescheduling the task");
      unprgReviewTaskPtr_->scheduleTaskDelay(unprgReviewDelay);
   }
}

void NatVrfSm::handleSourcePolicer() {
   auto const config = vrfStatus();
   Ip::Nat::VrfPolicer const policer = config ? config->policer() : Ip::Nat::VrfPolicer();
   VOR_TRACE(7, vrf().stringValue() << " policer: " << policer.rate << "/" << policer.burst);
   U32 vrfId = 0;
   if (!isDefault(vrf())) {
      uloAssert(routingHwRouteStatus());
      auto const hwVrf = routingHwRouteStatus()->vrfStatus(vrf());
      if (!hwVrf) {
         Ptr<PendingVrfConfig> pending = pendingVrfConfigFactory();
         pending->snatRateIs(policer.rate);
         pending->snatBurstIs(policer.burst);
         pendingVrfConfigIs(pending);
         return;
      }
      vrfId = hwVrf->vrfId().value();
   }
   natHelper_->updateVrfSourcePolicer(policer.rate, policer.burst, vrfId);
}

void NatVrfSm::handleVrfId(L3::VrfName const& vrfName, U32 vrfId) {
   bool const outsideSupported = hwCapabilities()->natOutsideVrfSupported();
   if (vrfId == 0) {
      // Whatever VRF lost its id, this machine is emptied, and nothing here
      // programs its rules again: each returns when it next changes.
      doCleanup();
      if (!outsideSupported) return;
      for (auto const& addr : hwRuleKeys(*hwVrfStatus_)) {
         auto const hwConn = hwVrfStatus_->staticNat(addr);
         if (hwConn && hwConn->outsideVrf() == vrfName) deleteStaticConnection(addr);
      }
      return;
   }
   bool const mine = vrfName == vrf();
   if (mine) {
      for (auto const& addr : hwRuleKeys(*hwVrfStatus_)) {
         auto const hwConn = hwVrfStatus_->staticNat(addr);
         if (!hwConn || hwConn->insideVrfId() == vrfId) continue;
         VOR_TRACE(5, "Mismatch on hw vrfId for addr " << addr.stringValue());
         deleteStaticConnection(addr);
         handleStaticConnection(addr);
      }
   }
   if (outsideSupported) {
      for (auto const& addr : hwRuleKeys(*hwVrfStatus_)) {
         auto const hwConn = hwVrfStatus_->staticNat(addr);
         if (!hwConn || !(hwConn->outsideVrf() == vrfName) || hwConn->outsideVrfId() == vrfId) continue;
         VOR_TRACE(5, "Outside vrf mismatch on hw vrfId for addr " << addr.stringValue());
         deleteStaticConnection(addr);
         handleStaticConnection(addr);
      }
   }
   if (mine || outsideSupported) {
      if (Ptr<NatRulesCollection> const pnr = pendingNatRules(vrfName)) {
         // Each address leaves the set before its handling, which files it
         // again if some id is still missing.
         for (auto it = pnr->srcAddrOld().begin(); it; ++it) {
            if (!it.isLive()) continue;
            Lumet::IpAddr const addr = it.key();
            pnr->srcAddrOldDel(addr);
            handleStaticConnection(addr);
         }
         if (pnr->srcAddrOld().empty()) pendingNatRulesDel(vrfName);
      }
   }
   if (mine && pendingVrfConfig_) {
      natHelper_->updateVrfSourcePolicer(pendingVrfConfig_->snatRate(), pendingVrfConfig_->snatBurst(),
                                         vrfId);
      pendingVrfConfigIs(Ptr<PendingVrfConfig>());
   }
}

void NatVrfSm::doCleanup() {
   handleSourcePolicer();
   pendingNatRulesDelAll();
   for (auto const& addr : hwRuleKeys(*hwVrfStatus_)) deleteStaticConnection(addr);
   if (Ptr<NatRulesCollection> const unr = natVrfRootSm_->unprogrammedNatRules(vrf())) {
      unr->srcAddrOldDelAll();
      unprogrammedNatRulesDone();
   }
}

// ===========================================================================
// NatVrfRootSm
// ===========================================================================

void NatVrfRootSm::handleHwVrfId(L3::VrfName const& vrf) {
   auto const routes = routingHwRouteStatus_.notifier();
   if (!routes) return;
   auto const hwVrf = routes->vrfStatus(vrf);
   if (!hwVrf) return;
   U32 const vrfId = hwVrf->vrfId().value();
   // Every machine, whatever its VRF: a rule of one VRF may point into this one.
   for (auto const& name : natVrfSms().keys()) {
      if (auto sm = natVrfSm(name)) sm->handleVrfId(vrf, vrfId);
   }
}

NatVrfRootSm::NatVrfRootSm(Ptr<Ip::Nat::Status const> const& status,
                           Ptr<Ip::Nat::HwStatus> const& hwStatus,
                           Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities,
                           Ptr<Routing::Hardware::RouteStatus const> const& routingHwRouteStatus,
                           Ptr<UloHelper::UloHelperNat> const& natHelper,
                           Ptr<Dov::TaskScheduler> const& scheduler)
    : hwStatus_(hwStatus),
      hwCapabilities_(hwCapabilities),
      natHelper_(natHelper),
      scheduler_(scheduler),
      natVrfSm_(this) {
   status_.attach(status);
   routingHwRouteStatus_.attach(routingHwRouteStatus);
   handleInitialized();
}

NatVrfRootSm::~NatVrfRootSm() {
   vorDoZombieReactors(true);
   natVrfSm_.xDelAll();
   vrfStatus_.xDelAll();
}

Ptr<NatVrfRootSm> natVrfRootSmFactory(Ptr<Ip::Nat::Status const> const& status,
                                      Ptr<Ip::Nat::HwStatus> const& hwStatus,
                                      Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities,
                                      Ptr<Routing::Hardware::RouteStatus const> const& routingHwRouteStatus,
                                      Ptr<UloHelper::UloHelperNat> const& natHelper,
                                      Ptr<Dov::TaskScheduler> const& scheduler) {
   Ptr<NatVrfRootSm> root(
      new NatVrfRootSm(status, hwStatus, hwCapabilities, routingHwRouteStatus, natHelper, scheduler));
   root->hasNotificationActiveIs(true);
   return root;
}

Ptr<NatRulesCollection> NatVrfRootSm::unprogrammedNatRules(L3::VrfName const& vrf) const {
   auto const* found = unprogrammedNatRules_.find(vrf);
   return found ? *found : Ptr<NatRulesCollection>();
}

Ptr<NatVrfSm> NatVrfRootSm::natVrfSmIs(NatVrfRootSm* root, Ptr<Ip::Nat::VrfStatus const> const& vrfStatus,
                                       Ptr<Ip::Nat::HwVrfStatus> const& hwVrfStatus,
                                       Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities,
                                       Ptr<Routing::Hardware::RouteStatus const> const& routingHwRouteStatus,
                                       Ptr<UloHelper::UloHelperNat> const& natHelper,
                                       Ptr<Dov::TaskScheduler> const& scheduler) {
   char const* const attribute = "natVrfSm";
   if (!root || !vrfStatus || !hwVrfStatus || !hwCapabilities || !routingHwRouteStatus || !natHelper ||
       !scheduler) {
      Vor::throwMutatorArgNullPointerException(attribute);
   }
   Vor::String const name = vrfStatus->vrfName().value();
   if (Ptr<NatVrfSm> existing = natVrfSm_.find(name)) {
      if (!existing->sameArguments(root, vrfStatus, hwVrfStatus, hwCapabilities, routingHwRouteStatus,
                                   natHelper, scheduler)) {
         Vor::Impl::throwMutatorReinstVal(attribute);
      }
      return existing;
   }
   Ptr<NatVrfSm> sm(new NatVrfSm(name, root, vrfStatus, hwVrfStatus, hwCapabilities,
                                 routingHwRouteStatus, natHelper, scheduler));
   sm->hasNotificationActiveIs(hasNotificationActive());
   natVrfSm_.xIs(name, sm);
   return sm;
}

void NatVrfRootSm::handleInitialized() {
   initializedIs(true);
   handleNatVrfStatus();
}

void NatVrfRootSm::handleNatVrfStatus() {
   if (!initialized()) return;
   auto const st = status();
   if (!st) return;
   std::vector<L3::VrfName> names;
   for (auto const& [name, member] : st->vrfStatus()) names.push_back(name);
   for (auto const& name : names) handleNatVrfStatus(name);
}

void NatVrfRootSm::handleNatVrfStatus(L3::VrfName const& name) {
   if (!initialized()) return;
   if (!hwCapabilities_->natVrfHopStaticSupported()) {
      VOR_TRACE(5, "Static vrf nat not supported");
      return;
   }
   auto const st = status();
   if (auto const vrfStatus = st ? st->vrfStatus(name) : Ptr<Ip::Nat::VrfStatus>()) {
      VOR_TRACE(5, "Creating vrfStatus for " << name.stringValue());
      Ptr<Ip::Nat::HwVrfStatus> const hwVrfStatus = hwStatus_->vrfStatusIs(name);
      uloAssert(hwVrfStatus);
      // What stood in this status from before is dropped.
      hwVrfStatus->staticNatDelAll();
      natVrfSmIs(this, vrfStatus, hwVrfStatus, hwCapabilities_, routingHwRouteStatus(), natHelper_,
                 scheduler_);
      return;
   }
   if (Ptr<NatVrfSm> const sm = natVrfSm(name.value())) {
      sm->doCleanup();
      natVrfSmDel(name.value());
   }
   VOR_TRACE(5, "Deleting vrfStatus for " << name.stringValue());
   if (hwStatus_->vrfStatus(name)) {
      uloAssert(hwStatus()->vrfStatus( name )->staticNats() == 0);
   }
   hwStatus_->vrfStatusDel(name);
}

void NatVrfRootSm::doCleanup() {
   for (auto const& name : natVrfSm_.keys()) {
      if (Ptr<NatVrfSm> const sm = natVrfSm(name)) sm->doCleanup();
      natVrfSmDel(name);
   }
}

} // namespace Ulo
