// Ulo::NatIntfStatusSm: the frame (construction, replay, profiles and VLANs,
// cleanup) and the bookkeeping shared by every kind of unprogrammed entry.

#include "UloNat/UloNatIntfSm.h"

#include <sstream>
#include <vector>

#include "framework/UloAssert.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("UloNatIntfSm");

namespace Ulo {

Vor::U16 intfProfileId(Lumet::IntfId const& intfId) {
   uloAssert(Lumet::NatIntfId::isNatProfileIntfId( intfId ));
   return Lumet::NatIntfId::profileId(intfId);
}

// ---- construction ----

NatIntfStatusSm::NatIntfStatusSm(
   Ptr<UloCommonSmData> const& commonSmData, Ptr<Ip::Nat::IntfStatus const> const& intfStatus,
   Ptr<Ip::Nat::Status const> const& status, Ptr<Ip::Nat::HwStatus> const& hwStatus,
   Ptr<Ip::Nat::DynamicConnectionStatus> const& dynamicConnectionStatus,
   Ptr<Ip::Nat::DynamicConnectionHwStatus> const& dynamicConnectionHwStatus,
   Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities,
   Ptr<UloHelper::UloHelperNat> const& natHelper, Ptr<MrouteLib::StaticNatInfo> const& staticNatInfo,
   Ptr<NatSmStatus> const& natSmStatus, Ptr<NatSmStatusNotif> const& natSmStatusNotif,
   Ptr<Dov::TaskScheduler> const& taskScheduler, VrfId vrfId,
   Ptr<NatMulticastAdapter> const& multicastAdapter)
    : UloBaseSm(commonSmData),
      status_(status),
      hwStatus_(hwStatus),
      dynamicConnectionStatus_(dynamicConnectionStatus),
      dynamicConnectionHwStatus_(dynamicConnectionHwStatus),
      hwCapabilities_(hwCapabilities),
      natHelper_(natHelper),
      staticNatInfo_(staticNatInfo),
      natSmStatus_(natSmStatus),
      natSmStatusNotif_(natSmStatusNotif),
      taskScheduler_(taskScheduler),
      vrfId_(vrfId),
      multicastAdapter_(multicastAdapter),
      natIntf_(intfStatus ? intfStatus->intfId() : Lumet::IntfId()),
      unprogrammed_(natSmStatus, natSmStatusNotif, natIntf_) {
   intfStatus_.attach(intfStatus);
   cleanupInProgress_ = false;
   connectionInitInProgress_ = true;
   // attach() above made a reactor for each trap rule already configured.
}

NatIntfStatusSm::~NatIntfStatusSm() {
   // The root has run doCleanup() before it dropped the engine; nothing is
   // programmed from here.
   vorDoZombieReactors(true);
   staticBacklogTask_.notifierIs(nullptr);
   dynamicBacklogTask_.notifierIs(nullptr);
   intfStatus_.notifierIs(nullptr);
}

Ptr<NatIntfStatusSm> NatIntfStatusSmIs(
   Ptr<UloCommonSmData> const& commonSmData, Ptr<Ip::Nat::IntfStatus const> const& intfStatus,
   Ptr<Ip::Nat::Status const> const& status, Ptr<Ip::Nat::HwStatus> const& hwStatus,
   Ptr<Ip::Nat::DynamicConnectionStatus> const& dynamicConnectionStatus,
   Ptr<Ip::Nat::DynamicConnectionHwStatus> const& dynamicConnectionHwStatus,
   Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities,
   Ptr<UloHelper::UloHelperNat> const& natHelper, Ptr<MrouteLib::StaticNatInfo> const& staticNatInfo,
   Ptr<NatSmStatus> const& natSmStatus, Ptr<NatSmStatusNotif> const& natSmStatusNotif,
   Ptr<Dov::TaskScheduler> const& taskScheduler, VrfId vrfId,
   Ptr<NatMulticastAdapter> const& multicastAdapter) {
   Ptr<NatIntfStatusSm> sm(new NatIntfStatusSm(
      commonSmData, intfStatus, status, hwStatus, dynamicConnectionStatus, dynamicConnectionHwStatus,
      hwCapabilities, natHelper, staticNatInfo, natSmStatus, natSmStatusNotif, taskScheduler, vrfId,
      multicastAdapter));
   sm->hasNotificationActiveIs(true);
   return sm;
}

L3::VrfName NatIntfStatusSm::vrfName() const {
   auto is = intfStatus();
   return is ? is->vrfName() : L3::VrfName();
}

Ptr<Ip::Nat::HwIntfStatus> NatIntfStatusSm::hwIntfStatus() const {
   return hwStatus_->intfStatus(natIntf_);
}

void NatIntfStatusSm::hasNotificationActiveIs(bool active) {
   UloBaseSm::hasNotificationActiveIs(active);
}

void NatIntfStatusSm::vorDoZombieReactors(bool zombie) {
   UloBaseSm::vorDoZombieReactors(zombie);
}

// ---- start ----

void NatIntfStatusSm::handleInitialized() {
   if (!initialized()) return;
   vrfStatus_ = natSmStatus_->natSmStatusVrf(vrfId_);
   uloAssert(vrfStatus());
   watchedAddrReferences_.bind(natSmStatus_, vrfStatus_, natIntf_, vrfId_);

   // The tasks exist before hardware is looked at, so an engine that waits
   // for hardware has them too.
   staticTask_ = Ptr<Dov::Task>(new Dov::Task(taskScheduler_, 2, "staticNat"));
   staticBacklogTask_.notifierIs(staticTask_);
   dynamicTask_ = Ptr<Dov::Task>(new Dov::Task(taskScheduler_, 2, "dynamicNat"));
   dynamicBacklogTask_.notifierIs(dynamicTask_);

   if (!natHelper_->hwInitialized()) {
      VOR_TRACE(5, natIntf_ << " HW is not initialized.");
      return;
   }
   auto is = intfStatus();
   if (!natHelper_->hwNatProfileSupported() && is) vlanId_ = is->profileOrVlanId();

   // Dynamic entries are replayed before twice entries, so that a twice rule
   // finds its dynamic halves already recorded.
   handleNatIntfProfile();
   handleStaticConnection();
   handleTrapRule();
   if (hwCapabilities_->dynamicNatSupported()) handleDynamicConnection();
   handleTwiceNatConnection();
   connectionInitInProgress_ = false;
}

// ---- profiles and VLANs ----

void NatIntfStatusSm::handleNatIntfProfile() {
   auto is = intfStatus();
   if (!is) return;
   Vor::U16 const profile = is->profileOrVlanId();
   if (!natHelper_->hwNatProfileSupported() || profile == 0) return;
   std::vector<Lumet::IntfId> members;
   for (auto const& [intf, vlan] : is->validIntf()) members.push_back(intf);
   for (auto const& intf : members) handleNatIntfProfile(intf);
}

void NatIntfStatusSm::handleNatIntfProfile(Lumet::IntfId const& intf) {
   auto is = intfStatus();
   if (!is) return;
   Vor::U16 const profile = is->profileOrVlanId();
   if (!natHelper_->hwNatProfileSupported() || profile == 0) return;
   if (is->validIntfHas(intf)) {
      Vor::U16 const vlanId = is->validIntf(intf);
      uloAssert(vlanId);
      natHelper_->setNatProfile(vlanId, profile, is->vrfName());
      intfVlan_[intf] = vlanId;
      natSmStatus_->vlanIdToProfileIdIs(vlanId, profile);
      return;
   }
   auto it = intfVlan_.find(intf);
   if (it == intfVlan_.end()) return;
   Vor::U16 const vlanId = it->second;
   uloAssert(vlanId);
   intfVlan_.erase(it);
   // A VLAN that another profile has taken meanwhile is that engine's to
   // clear, not ours.
   if (natSmStatus_->vlanIdToProfileId(vlanId) == profile) {
      natHelper_->clearNatProfile(vlanId);
      natSmStatus_->vlanIdToProfileIdDel(vlanId);
   }
}

// ---- cleanup ----

void NatIntfStatusSm::doCleanup() {
   // From here on the backlogs run outside their task and never yield.
   cleanupInProgress_ = true;
   if (pendingCommit_) doProcessBacklogStatic();
   if (!deferredDynamicNat_.empty()) doProcessBacklogDynamic();

   unprogrammed_.forgetAll();

   auto is = intfStatus();
   Vor::U16 const profile = is ? is->profileOrVlanId() : 0;
   for (auto const& [intf, vlanId] : intfVlan_) {
      // The vlanIdToProfileId entries stay: another engine may bind the VLAN
      // again, and the map only says who bound it last.
      if (natSmStatus_->vlanIdToProfileId(vlanId) == profile) natHelper_->clearNatProfile(vlanId);
   }
   intfVlan_.clear();
}

void NatIntfStatusSm::doCleanupConnections() {
   uloAssert(!natHelper()->hwInitialized() && "HW needs to be disabled before cleanup");
   // Hardware is down, so each keyed handler takes its delete branch.
   handleStaticConnection();
   handleTrapRule();
   if (hwCapabilities_->dynamicNatSupported()) {
      // From hardware status, not from the connection table, which may no
      // longer hold what was programmed.
      std::vector<Ip::Nat::DynamicConnectionKey> keys;
      dynamicConnectionHwStatus_->dynamicConnectionHwWalk(
         Ip::Nat::DynamicConnectionKey(natIntf_, Lumet::ConnTuple()),
         [&](Ip::Nat::DynamicConnectionHw const& hw) {
            if (!(hw.key().intfId() == natIntf_)) return false;
            keys.push_back(hw.key());
            return true;
         });
      for (auto const& key : keys) {
         if (!dynamicConnectionHwStatus_->dynamicConnectionHwHas(key)) continue;
         deleteDynamicConnection(key);
         checkUnprogrammedDynamicEntry(key.connTuple());
      }
      deferredDynamicNat_.delAll();
   }
   handleTwiceNatConnection();
}

} // namespace Ulo
