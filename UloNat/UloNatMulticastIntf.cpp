// Ulo::NatIntfStatusSm: the multicast side of the engine.
//
// Static and twice rules for multicast addresses watch the route their
// traffic follows: watchMulticast() records the rule under the route's
// NatMrouteKey in one of three tables and asks the adapter to watch the
// route. When the routing side's answer changes, the adapter updates its
// cache and calls updateMcastAddMroute() or updateMcastDelMroute(), and
// triggerConnectionUpdate() finds the rule behind the route through the
// tables and reprograms it; getMulticastTransition() then reads the cache
// and decides what multicast record goes to the helper with the rule.
//
// An engine without an adapter watches nothing, and every rule programs with
// defaultMulticastTransition().

#include "UloNat/UloNatIntfSm.h"
#include "framework/UloAssert.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("UloNatMulticastIntf");

namespace Ulo {

namespace {

NatMrouteKey routeKey(Lumet::IntfId const& intf, Vor::U16 vlanId, Lumet::IpAddr sourceIp,
                      Lumet::IpAddr groupIp) {
   return NatMrouteKey{NatMrouteKeyType::mrouteKeyTypeRoute, intf, vlanId, sourceIp, groupIp};
}

// A static rule passes its key; anything else passes the empty key.
bool operator!(Ip::Nat::StaticKey const& key) { return key == Ip::Nat::StaticKey(); }

// The shared empty record that a disable hands to the helper.
Vor::Ptr<NatMulticastData const> const& emptyMulticastData() {
   static Vor::Ptr<NatMulticastData const> const data(NatMulticastDataIs());
   return data;
}

} // namespace

void NatIntfStatusSm::watchMulticast(Vor::U16 vlanId, Lumet::IpAndPort const& oldSource,
                                     Lumet::IpAndPort const& newSource,
                                     Lumet::IpAndPort const& oldGroup,
                                     Lumet::IpAndPort const& newGroup, Vor::U32 group,
                                     Vor::U8 protocol, Ip::Nat::StaticKey const& staticKey) {
   // The translated source is passed along for the record; nothing here
   // depends on it.
   (void)newSource;
   if (!multicastAdapter_) {
      VOR_TRACE(9, natIntf_ << " no multicastAdapter");
      return;
   }
   bool const twice = !oldSource.ip().isZero() && !newGroup.ip().isZero();
   NatMrouteKey const key = routeKey(natIntf_, vlanId, oldSource.ip(), oldGroup.ip());
   if (twice) {
      uloAssert(group && "Expecting non-zero group passed to watchMulticast");
      mrouteTwiceGroup_[key] = static_cast<Vor::U16>(group);
      mrouteTwiceAddr_[key] = Lumet::ConnTuple(oldSource, oldGroup, protocol);
   } else {
      uloAssert(!!staticKey && "Expecting staticKey passed to watchMulticast");
      mrouteStaticKey_[key] = staticKey;
   }
   multicastAdapter_->watchRoute(key);
}

void NatIntfStatusSm::unWatchMulticast(Vor::U16 vlanId, Lumet::IpAddr sourceIp,
                                       Lumet::IpAddr groupIp) {
   if (!multicastAdapter_) {
      VOR_TRACE(9, natIntf_ << " no multicastAdapter");
      return;
   }
   // Unlike watchMulticast, the arguments at hand tell twice from static:
   // only a twice rule has both a source and a destination here.
   bool const twice = !sourceIp.isZero() && !groupIp.isZero();
   NatMrouteKey const key = routeKey(natIntf_, vlanId, sourceIp, groupIp);
   multicastAdapter_->unWatchRoute(key);
   if (twice) {
      mrouteTwiceGroup_.erase(key);
      mrouteTwiceAddr_.erase(key);
   } else {
      mrouteStaticKey_.erase(key);
   }
}

Ptr<NatMulticastTransition> NatIntfStatusSm::getMulticastTransition(Vor::U16 vlanId,
                                                                    Lumet::IpAddr sourceIp,
                                                                    Lumet::IpAddr groupIp) {
   if (!multicastAdapter_) return defaultMulticastTransition();
   Vor::Ptr<NatMulticastData const> const mcastInfo =
      multicastAdapter_->getMcastInfo(vlanId, sourceIp, groupIp);
   if (!mcastInfo) return defaultMulticastTransition();

   Vor::Ptr<NatMulticastData> mcastToProg = NatMulticastDataIs();
   if (sourceIp.isZero()) {
      mcastToProg->oifSetIs(mcastInfo->oifSet());
   } else {
      // A rule with a source only ever programs the interface it lives on.
      Lumet::IntfId const& self = natIntf_;
      if (mcastInfo->oifSet().oifHas(self)) {
         NatMrouteOifSet own;
         own.oifIs(self);
         mcastToProg->oifSetIs(own);
      }
   }
   // The table reads the fresh record's own flag, not the cache's: a rule in
   // force that is evaluated again reports an enable again.
   bool const m = mcastToProg->multicast();
   std::size_t const n = mcastToProg->oifSet().oifs();
   NatMulticastTransitionKind kind = NatMulticastTransitionKind::mcastTransitionNone;
   Vor::Ptr<NatMulticastData const> result = mcastToProg;
   if (!m && n > 0) {
      kind = NatMulticastTransitionKind::mcastTransitionEnable;
      multicastAdapter_->enableMulticast(vlanId, sourceIp, groupIp);
   } else if (m && n == 0) {
      kind = NatMulticastTransitionKind::mcastTransitionDisable;
      multicastAdapter_->disableMulticast(vlanId, sourceIp, groupIp);
      result = emptyMulticastData();
   } else if (m) {
      kind = NatMulticastTransitionKind::mcastTransitionKeep;
   }
   if (result == Vor::Ptr<NatMulticastData const>(mcastToProg)) {
      mcastToProg->multicastIs(mcastInfo->multicast());
      mcastToProg->groupIdIs(mcastInfo->groupId());
   }
   VOR_TRACE(8, natIntf_ << " mcastToProg=" << result->stringValue()
                         << " transition=" << natMulticastTransitionKindName(kind));
   return natMulticastTransitionFactory(kind, result);
}

void NatIntfStatusSm::disableMulticastWithOifs(Vor::U16 vlanId, Lumet::IpAddr sourceIp,
                                               Lumet::IpAddr groupIp) {
   if (!multicastAdapter_) return;
   // Read for its side effect on the cache only, before the disable that may
   // remove the same entry.
   if (!multicastAdapter_->getMcastInfo(vlanId, sourceIp, groupIp)) return;
   multicastAdapter_->disableMulticast(vlanId, sourceIp, groupIp);
   VOR_TRACE(8, natIntf_ << " mcastInfo={ } transition="
                         << natMulticastTransitionKindName(
                               NatMulticastTransitionKind::mcastTransitionDisable));
}

void NatIntfStatusSm::updateMcastAddMroute(NatMrouteKey const& key, NatMrouteOifSet const& oifSet) {
   VOR_TRACE(5, natIntf_ << ": new mroute going through intf " << key.intfId
                         << " with outgoing interfaces:" << oifSet.stringValue());
   (void)oifSet;
   triggerConnectionUpdate(key);
}

void NatIntfStatusSm::updateMcastDelMroute(NatMrouteKey const& key) {
   VOR_TRACE(5, natIntf_ << ": removed mroute going through intf " << key.intfId);
   triggerConnectionUpdate(key);
}

void NatIntfStatusSm::updateMcastAddGroup(NatMrouteKey const& key, Vor::U32 groupId) {
   VOR_TRACE(5, natIntf_ << ": new mgroup " << groupId << " associated with intf " << key.intfId);
   (void)groupId;
   triggerConnectionUpdate(key);
}

void NatIntfStatusSm::updateMcastDelGroup(NatMrouteKey const& key) {
   VOR_TRACE(5, natIntf_ << ": mgroups disassociated with intf " << key.intfId);
   triggerConnectionUpdate(key);
}

void NatIntfStatusSm::triggerConnectionUpdate(NatMrouteKey const& key) {
   if (!natHelper_->hwInitialized()) {
      VOR_TRACE(5, "Hardware is not initialized, skipping connections updates.");
      return;
   }
   NatMrouteKey sourceOnly = key;
   sourceOnly.groupIp = Lumet::IpAddr();
   auto const hw = hwIntfStatus();
   for (NatMrouteKey const& candidate : {key, sourceOnly}) {
      if (auto it = mrouteStaticKey_.find(candidate); it != mrouteStaticKey_.end()) {
         Ip::Nat::StaticKey const staticKey = it->second;
         if (auto deferred = deferredStaticNatConnectionHw_.entity(staticKey)) {
            // The backlog takes the change along when the batch lands.
            deferred->updateMulticastIs(true);
            return;
         }
         auto const is = intfStatus();
         if (hw && hw->staticConnectionHw(staticKey) && is && is->staticConnectionHas(staticKey)) {
            updateStaticConnection(staticKey);
         }
         return;
      }
      auto const group = mrouteTwiceGroup_.find(candidate);
      auto const tuple = mrouteTwiceAddr_.find(candidate);
      if (group != mrouteTwiceGroup_.end() && tuple != mrouteTwiceAddr_.end()) {
         Vor::U16 const g = group->second;
         Lumet::ConnTuple const t = tuple->second;
         if (auto deferred = deferredTwiceNatConnectionHw_.entity(TwiceNatKey(g, t))) {
            deferred->updateMulticastIs(true);
            return;
         }
         if (hw && hw->twiceNatConnectionHw(g)) updateTwiceNatConnection(g, t);
         return;
      }
   }
}

} // namespace Ulo
