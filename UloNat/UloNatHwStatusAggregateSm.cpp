// Ulo::NatHwStatusAggregateSm: local changes copied into the global status,
// and failed hardware keys withdrawn from it and returned to it.

#include "UloNat/UloNatHwStatusAggregateSm.h"

#include <vector>

#include "UloNat/UloNatTypes.h"
#include "framework/UloAssert.h"
#include "framework/VorLog.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("UloNatHwStatusAggregateSm");

namespace Ulo {

namespace {

Vor::LogHandle NAT_HW_RESOURCE_NORMAL = natHwResourceNormalLogHandle();

// A walk over a std::map whose position reads as key() and value(), the
// names the invariant texts use.
template <typename Map>
class MapIter {
 public:
   explicit MapIter(Map const& map) : it_(map.begin()), end_(map.end()) {}
   bool valid() const { return it_ != end_; }
   void next() { ++it_; }
   auto const& key() const { return it_->first; }
   auto const& value() const { return it_->second; }

 private:
   typename Map::const_iterator it_;
   typename Map::const_iterator end_;
};

// The two hardware keys under which the programmer may report a static
// rule: the source half (wholly default when the translated address is
// multicast, which has no source half) and the destination half.
struct StaticHwKeys {
   NatHwKey src;
   NatHwKey dst;
};

StaticHwKeys staticHwKeys(Ip::Nat::StaticKey const& key, Ip::Nat::HwNatStaticConnection const& conn,
                          Ptr<NatAclNameIdTable const> const& table) {
   NatAclId const aclId =
      key.aclName().empty() || !table ? NatAclId() : table->getAclId(key.aclName());
   Lumet::IpAndPort oldAddr = key.localAddress();
   Lumet::IpAndPort newAddr = conn.globalAddress();
   bool const sourceTarget = conn.target() == Ip::Nat::source_;
   if (!sourceTarget) std::swap(oldAddr, newAddr);
   StaticHwKeys keys;
   if (!newAddr.ip().isMulticast()) {
      keys.src = NatHwKey(NatHwKey::staticSnat, oldAddr, newAddr, Lumet::IpAndPort(), Lumet::IpAndPort(),
                          aclId, !sourceTarget);
   }
   keys.dst = NatHwKey(NatHwKey::staticDnat, Lumet::IpAndPort(), Lumet::IpAndPort(), newAddr, oldAddr, aclId,
                       sourceTarget);
   return keys;
}

void copyTwiceGroup(Ip::Nat::HwNatTwiceConnection const& from, Ip::Nat::HwIntfStatus& to) {
   auto const global = to.twiceNatConnectionHwIs(from.group(), from.protocol(), from.vlanId(), false);
   for (auto const& [tuple, addr] : from.entry()) global->entryIs(tuple, addr);
}

} // namespace

// ---- free functions ----

Ip::Nat::StaticKey asyncHwKeyToStaticKey(NatHwKey const& hwKey, Ptr<NatAclNameIdTable const> const& table,
                                         bool first) {
   bool const snat = hwKey.keyType() == NatHwKey::staticSnat;
   Lumet::IpAndPort const addr = first ? (snat ? hwKey.srcIpAndPortOld() : hwKey.dstIpAndPortNew())
                                       : (snat ? hwKey.srcIpAndPortNew() : hwKey.dstIpAndPortOld());
   Vor::String aclName;
   if (!(hwKey.aclId() == NatAclId()) && table) aclName = table->getAclName(hwKey.aclId());
   return Ip::Nat::StaticKey(addr, aclName, Ip::Nat::StaticKey::Table(0));
}

void doCopyHwNatStaticConnection(Ip::Nat::HwNatStaticConnection const& from, Ip::Nat::HwIntfStatus& to) {
   // A member made with other values cannot be re-made in place.
   if (auto existing = to.staticConnectionHw(from.key());
       existing && !existing->sameConnection(from.globalAddress(), from.target(), from.protocol(),
                                             from.vlanId(), from.forward())) {
      to.staticConnectionHwDel(from.key());
   }
   auto const copy = to.staticConnectionHwIs(from.key(), from.globalAddress(), from.target(), from.protocol(),
                                             from.vlanId(), from.forward());
   for (auto const& addr : from.filterAddress()) copy->filterAddressIs(addr, true);
   std::vector<Lumet::IpAddrWithFullMask> stale;
   for (auto const& addr : copy->filterAddress()) {
      if (!from.filterAddressHas(addr)) stale.push_back(addr);
   }
   for (auto const& addr : stale) copy->filterAddressDel(addr);
}

// ---- one local interface ----

VorLocalIntfStatus::VorLocalIntfStatus(NatHwStatusAggregateSm* sm, Lumet::IntfId const& natIntf)
    : sm_(sm), natIntf_(natIntf) {}

void VorLocalIntfStatus::notifierIs(Ptr<Ip::Nat::HwIntfStatus const> const& local) { intfStatus_.attach(local); }

void VorLocalIntfStatus::handleLocalStaticConnectionHw(Ip::Nat::StaticKey const& key) {
   Lumet::IntfId const& natIntf = natIntf_;
   uloAssert(natHwStatusAggregateSm()->hwStatus()->intfStatusHas( natIntf ));
   auto const global = sm_->hwStatus()->intfStatus(natIntf);
   auto const local = notifier();
   auto const conn = local ? local->staticConnectionHw(key) : Ptr<Ip::Nat::HwNatStaticConnection>();
   if (!conn) {
      if (global->staticConnectionHwHas(key)) global->staticConnectionHwDel(key);
      return;
   }
   StaticHwKeys const keys = staticHwKeys(key, *conn, sm_->aclNameIdTable());
   // A refused rule stays out of the global status, and one that stood
   // there stays as it was, until its key clears.
   if (sm_->failedHwKeyHas(keys.src) || sm_->failedHwKeyHas(keys.dst)) return;
   doCopyHwNatStaticConnection(*conn, *global);
}

void VorLocalIntfStatus::handleAddr(Ip::Nat::StaticKey const& key, Lumet::IpAddrWithFullMask const& addr) {
   auto const global = sm_->hwStatus()->intfStatus(natIntf_);
   if (!global) return;
   auto const globalConn = global->staticConnectionHw(key);
   if (!globalConn) return;
   auto const local = notifier();
   auto const conn = local ? local->staticConnectionHw(key) : Ptr<Ip::Nat::HwNatStaticConnection>();
   if (conn && conn->filterAddressHas(addr)) {
      globalConn->filterAddressIs(addr, true);
   } else {
      globalConn->filterAddressDel(addr);
   }
}

void VorLocalIntfStatus::handleTwiceHwEntry(U16 const& group, Lumet::ConnTuple const& tuple) {
   auto const global = sm_->hwStatus()->intfStatus(natIntf_);
   auto const local = notifier();
   auto const localcHwConn = local ? local->twiceNatConnectionHw(group) : Ptr<Ip::Nat::HwNatTwiceConnection>();
   uloAssert(localcHwConn);
   if (!global) return;
   if (!localcHwConn->entryHas(tuple)) {
      if (auto globalConn = global->twiceNatConnectionHw(group)) {
         globalConn->entryDel(tuple);
         if (globalConn->entrys() == 0) global->twiceNatConnectionHwDel(group);
      }
      return;
   }
   Ip::Nat::HwNatTwiceAddr const addr = localcHwConn->entry(tuple);
   NatHwKey const forward(NatHwKey::twiceNatForward, tuple.srcAddr(), addr.srcNew(), tuple.dstAddr(), addr.dstNew(),
                          NatAclId(), false, 0, group);
   NatHwKey const reverse(NatHwKey::twiceNatReverse, addr.dstNew(), tuple.dstAddr(), addr.srcNew(), tuple.srcAddr(),
                          NatAclId(), false, 0, group);
   if (!sm_->failedHwKeyHas(forward) && !sm_->failedHwKeyHas(reverse)) {
      global->twiceNatConnectionHwIs(group, localcHwConn->protocol(), localcHwConn->vlanId(), false)
         ->entryIs(tuple, addr);
   }
   // Counters follow the local status even while a key is failed.
   if (auto const localCount = local->twiceNatConnectionHwCount(group)) {
      global->twiceNatConnectionHwCountIs(group)->countIs(tuple, localCount->count(tuple));
   }
}

// ---- the machine ----

NatHwStatusAggregateSm::NatHwStatusAggregateSm(
   Ptr<Ip::Nat::HwStatus const> const& localHwStatus,
   Ptr<Ip::Nat::DynamicConnectionHwStatus> const& localDynamicConnectionHwStatus,
   Ptr<NatFailedHwKeyStatus const> const& failedHwKey, Ptr<Ip::Nat::HwStatus> const& hwStatus,
   Ptr<Ip::Nat::DynamicConnectionHwStatus> const& dynamicConnectionHwStatus,
   Ptr<NatAclNameIdTable const> const& aclNameIdTable)
    : hwStatus_(hwStatus), dynamicConnectionHwStatus_(dynamicConnectionHwStatus), aclNameIdTable_(aclNameIdTable) {
   localHwStatus_.notifierIs(localHwStatus);
   localDynamicConnectionHwStatus_.notifierIs(localDynamicConnectionHwStatus);
   failedHwKey_.notifierIs(failedHwKey);
   handleInitialized();
   if (!localHwStatus) return;
   for (auto const& [intf, member] : localHwStatus->intfStatus()) {
      auto reactor = std::make_unique<VorLocalIntfStatus>(this, intf);
      reactor->notificationActiveIs(partsNotificationActive());
      reactor->notifierIs(member);
      localIntfStatus_.emplace(intf, std::move(reactor));
   }
   for (auto const& [name, member] : localHwStatus->vrfStatus()) localVrfStatus_.xIs(name, member);
}

NatHwStatusAggregateSm::~NatHwStatusAggregateSm() {
   vorDoZombieReactors(true);
   localIntfStatus_.clear();
   localVrfStatus_.xDelAll();
}

Ptr<NatHwStatusAggregateSm> natHwStatusAggregateSmFactory(
   Ptr<Ip::Nat::HwStatus const> const& localHwStatus,
   Ptr<Ip::Nat::DynamicConnectionHwStatus> const& localDynamicConnectionHwStatus,
   Ptr<NatFailedHwKeyStatus const> const& failedHwKey, Ptr<Ip::Nat::HwStatus> const& hwStatus,
   Ptr<Ip::Nat::DynamicConnectionHwStatus> const& dynamicConnectionHwStatus,
   Ptr<NatAclNameIdTable const> const& aclNameIdTable) {
   Ptr<NatHwStatusAggregateSm> sm(new NatHwStatusAggregateSm(localHwStatus, localDynamicConnectionHwStatus,
                                                             failedHwKey, hwStatus, dynamicConnectionHwStatus,
                                                             aclNameIdTable));
   sm->hasNotificationActiveIs(true);
   return sm;
}

VorLocalIntfStatus* NatHwStatusAggregateSm::localIntfStatus(Lumet::IntfId const& intf) const {
   auto it = localIntfStatus_.find(intf);
   return it == localIntfStatus_.end() ? nullptr : it->second.get();
}

void NatHwStatusAggregateSm::hasNotificationActiveIs(bool active) {
   Vor::PtrInterface::hasNotificationActiveIs(active);
   partsNotificationActiveIs(active);
   for (auto& [intf, reactor] : localIntfStatus_) reactor->notificationActiveIs(active);
}

void NatHwStatusAggregateSm::vorDoZombieReactors(bool zombie) {
   partsZombieIs(zombie);
   for (auto& [intf, reactor] : localIntfStatus_) reactor->zombieIs(zombie);
}

bool NatHwStatusAggregateSm::failedHwKeyHas(NatHwKey const& key) const {
   auto const set = failedHwKey();
   return set && set->entryHas(key);
}

void NatHwStatusAggregateSm::handleInitialized() {
   hwStatus_->intfStatusDelAll();
   hwStatus_->vrfStatusDelAll();
}

void NatHwStatusAggregateSm::onLocalIntfStatus(Lumet::IntfId const& intf) {
   auto const local = localHwStatus();
   auto const member = local ? local->intfStatus(intf) : Ptr<Ip::Nat::HwIntfStatus>();
   if (member) {
      auto& slot = localIntfStatus_[intf];
      if (!slot) {
         slot = std::make_unique<VorLocalIntfStatus>(this, intf);
         slot->notificationActiveIs(partsNotificationActive());
         slot->zombieIs(partsZombie());
      }
      slot->notifierIs(member);
   } else {
      localIntfStatus_.erase(intf);
   }
   if (!partsZombie()) handleLocalIntfStatus(intf);
}

void NatHwStatusAggregateSm::onLocalVrfStatus(L3::VrfName const& name) {
   auto const local = localHwStatus();
   auto const member = local ? local->vrfStatus(name) : Ptr<Ip::Nat::HwVrfStatus>();
   if (member) {
      localVrfStatus_.xIs(name, member);
   } else {
      localVrfStatus_.xDel(name);
   }
   if (!partsZombie()) handleLocalVrfStatus(name);
}

void NatHwStatusAggregateSm::handleLocalIntfStatus(Lumet::IntfId const& intf) {
   auto const local = localHwStatus();
   auto const member = local ? local->intfStatus(intf) : Ptr<Ip::Nat::HwIntfStatus>();
   if (member) {
      hwStatus_->intfStatusIs(Vor::String(member->name()), intf);
   } else {
      hwStatus_->intfStatusDel(intf);
   }
}

void NatHwStatusAggregateSm::handleLocalVrfStatus(L3::VrfName const& name) {
   auto const local = localHwStatus();
   if (local && local->vrfStatusHas(name)) {
      hwStatus_->vrfStatusIs(name);
   } else {
      hwStatus_->vrfStatusDel(name);
   }
}

void NatHwStatusAggregateSm::handleLocalVrfStaticConnection(L3::VrfName const& name,
                                                            Lumet::IpAddr const& srcAddressOld) {
   auto const local = localHwStatus();
   auto const localVrf = local ? local->vrfStatus(name) : Ptr<Ip::Nat::HwVrfStatus>();
   auto const globalVrf = hwStatus_->vrfStatus(name);
   if (!globalVrf) return;
   auto const rule = localVrf ? localVrf->staticNat(srcAddressOld) : Ptr<Ip::Nat::HwNatVrfStaticConnection>();
   if (!rule) {
      globalVrf->staticNatDel(srcAddressOld);
      return;
   }
   auto const copy = globalVrf->staticNatIs(srcAddressOld);
   copy->srcAddressNewIs(rule->srcAddressNew());
   copy->targetIs(rule->target());
   copy->outsideVrfIs(rule->outsideVrf());
   copy->insideVrfIdIs(rule->insideVrfId());
   copy->outsideVrfIdIs(rule->outsideVrfId());
}

void NatHwStatusAggregateSm::handleLocalDynamicConnectionHw(Ip::Nat::DynamicConnectionKey const& key) {
   auto const local = localDynamicConnectionHwStatus();
   if (!local || !dynamicConnectionHwStatus_) return;
   auto const found = local->dynamicConnectionHw(key);
   auto const localIntf =
      localHwStatus() ? localHwStatus()->intfStatus(key.intfId()) : Ptr<Ip::Nat::HwIntfStatus>();
   auto const globalIntf = hwStatus_->intfStatus(key.intfId());
   Lumet::ConnTuple const tuple = key.connTuple();
   if (found.present) {
      dynamicConnectionHwStatus_->dynamicConnectionHwIs(found.record);
      if (globalIntf) {
         globalIntf->dynamicConnectionHwCountIs(
            tuple, localIntf ? localIntf->dynamicConnectionHwCount(tuple) : Ip::Nat::NatCounter());
         globalIntf->dynamicConnectionHwTotalCntInc(1);
      }
   } else {
      dynamicConnectionHwStatus_->dynamicConnectionHwDel(key);
      if (globalIntf) {
         globalIntf->dynamicConnectionHwCountDel(tuple);
         globalIntf->dynamicConnectionHwTotalCntDec(1);
      }
   }
}

// ---- failed keys ----

void NatHwStatusAggregateSm::doHandleFailedHwKeyEmpty(NatHwKey const&) {
   auto const set = failedHwKey();
   bool const empty = !set || set->entrys() == 0;
   VOR_TRACE(5, "failedHwKey set empty=" << empty);
   if (empty) Vor::log(NAT_HW_RESOURCE_NORMAL);
}

void NatHwStatusAggregateSm::handleFailedHwKey(NatHwKey const& hwKey) {
   doHandleFailedHwKeyEmpty(hwKey);
   bool const isFailed = failedHwKeyHas(hwKey);
   switch (hwKey.keyType()) {
   case NatHwKey::staticSnat:
   case NatHwKey::staticDnat: doHandleFailedStaticKey(hwKey, isFailed); return;
   case NatHwKey::twiceNatForward:
   case NatHwKey::twiceNatReverse: doHandleFailedTwiceKey(hwKey, isFailed); return;
   case NatHwKey::dynamicSnat:
   case NatHwKey::dynamicDnat: doHandleFailedDynamicKey(hwKey, isFailed); return;
   default: break;
   }
   VOR_TRACE(5, "Unsupported key type");
}

void NatHwStatusAggregateSm::doHandleFailedStaticKey(NatHwKey const& hwKey, bool isFailed) {
   Ip::Nat::StaticKey const keys[] = {asyncHwKeyToStaticKey(hwKey, aclNameIdTable_, true),
                                      asyncHwKeyToStaticKey(hwKey, aclNameIdTable_, false)};
   if (isFailed) {
      VOR_TRACE(5, "key failed");
      for (auto const& [intf, global] : hwStatus_->intfStatus()) {
         for (auto const& key : keys) {
            if (!global->staticConnectionHwHas(key)) continue;
            VOR_TRACE(5, "deleted key: " << key.stringValue());
            global->staticConnectionHwDel(key);
         }
      }
      return;
   }
   VOR_TRACE(5, "key didn't fail");
   auto const local = localHwStatus();
   if (!local) return;
   for (MapIter iter(local->intfStatus()); iter.valid(); iter.next()) {
      uloAssert(hwStatus()->intfStatusHas( iter.key() ));
      auto const global = hwStatus_->intfStatus(iter.key());
      for (auto const& key : keys) {
         auto const conn = iter.value()->staticConnectionHw(key);
         if (!conn || global->staticConnectionHwHas(key)) continue;
         VOR_TRACE(5, "copied key: " << key.stringValue());
         doCopyHwNatStaticConnection(*conn, *global);
      }
   }
}

void NatHwStatusAggregateSm::doHandleFailedTwiceKey(NatHwKey const& hwKey, bool isFailed) {
   U16 const group = hwKey.groupId();
   if (isFailed) {
      for (auto const& [intf, global] : hwStatus_->intfStatus()) {
         if (!global->twiceNatConnectionHwHas(group)) continue;
         VOR_TRACE(5, "deleted group: " << group);
         global->twiceNatConnectionHwDel(group);
      }
      return;
   }
   auto const local = localHwStatus();
   if (!local) return;
   for (MapIter iter(local->intfStatus()); iter.valid(); iter.next()) {
      uloAssert(hwStatus()->intfStatusHas( iter.key() ));
      auto const global = hwStatus_->intfStatus(iter.key());
      auto const conn = iter.value()->twiceNatConnectionHw(group);
      if (!conn || global->twiceNatConnectionHwHas(group)) continue;
      VOR_TRACE(5, "copied key: " << group);
      copyTwiceGroup(*conn, *global);
   }
}

void NatHwStatusAggregateSm::doHandleFailedDynamicKey(NatHwKey const& hwKey, bool isFailed) {
   // A withdrawn flow comes back only with its own local notification.
   if (!isFailed || !dynamicConnectionHwStatus_) return;
   Lumet::ConnTuple const tuple =
      hwKey.keyType() == NatHwKey::dynamicSnat
         ? Lumet::ConnTuple(hwKey.srcIpAndPortOld(), hwKey.dstIpAndPortOld(), hwKey.dynProto())
         : Lumet::ConnTuple(hwKey.dstIpAndPortNew(), hwKey.srcIpAndPortOld(), hwKey.dynProto());
   for (auto const& [intf, global] : hwStatus_->intfStatus()) {
      Ip::Nat::DynamicConnectionKey const key(intf, tuple);
      if (dynamicConnectionHwStatus_->dynamicConnectionHwHas(key)) {
         dynamicConnectionHwStatus_->dynamicConnectionHwDel(key);
      }
   }
}

} // namespace Ulo
