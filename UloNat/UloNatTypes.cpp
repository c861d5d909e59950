#include "UloNat/UloNatTypes.h"

#include "framework/UloAssert.h"
#include "framework/VorEntityCollections.h"
#include "framework/VorException.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("UloNatTypes")

namespace Ulo {

char const* natTypeName(NatType type) {
   switch (type) {
      case NatType::staticNat: return "staticNat";
      case NatType::twiceNat: return "twiceNat";
      case NatType::dynamicNat: return "dynamicNat";
      case NatType::trapAclNat: return "trapAclNat";
   }
   return "unknown";
}

std::string TwiceNatKey::stringValue() const {
   return " group: " + std::to_string(group_) + " addr: " + addr_.stringValue();
}

// ---- NatIntfInfo ----

U32 NatIntfInfo::intf(Lumet::IntfId const& intf) const {
   return Vor::memberValue(intf_, intf);
}

void NatIntfInfo::intfIs(Lumet::IntfId const& intf, U32 count) {
   if (count == 0) {
      intfDel(intf);
      return;
   }
   intf_.insertOrAssign(intf, count);
}

void NatIntfInfo::intfDel(Lumet::IntfId const& intf) { intf_.erase(intf); }

void NatIntfInfo::addIntf(Lumet::IntfId const& natIntf) {
   U32 const count = intf(natIntf) + 1;
   intfIs(natIntf, count);
   VOR_TRACE(7, "Add addr: " << ipAddr_.stringValue() << " intf: " << natIntf.stringValue()
                             << " refCount " << count);
}

void NatIntfInfo::removeIntf(Lumet::IntfId const& natIntf) {
   U32 const count = intf(natIntf);
   if (count <= 1) {
      intfDel(natIntf);
   } else {
      intfIs(natIntf, count - 1);
   }
   VOR_TRACE(7, "Del addr: " << ipAddr_.stringValue() << " intf: " << natIntf.stringValue()
                             << " refCount " << intf(natIntf));
}

// ---- NatSmStatusVrf ----

U32 NatSmStatusVrf::routeResolverRefCount(Lumet::IpAddr const& addr) const {
   return Vor::memberValue(routeResolverRefCount_, addr);
}

void NatSmStatusVrf::routeResolverRefCountIs(Lumet::IpAddr const& addr, U32 count) {
   if (count == 0) {
      routeResolverRefCount_.erase(addr);
   } else {
      routeResolverRefCount_[addr] = count;
   }
}

Ptr<NatIntfInfo> NatSmStatusVrf::ipAddrIntfInfo(Lumet::IpAddr const& addr) const {
   return Vor::memberValue(ipAddrIntfInfo_, addr);
}

Ptr<NatIntfInfo> NatSmStatusVrf::ipAddrIntfInfoIs(Lumet::IpAddr const& addr) {
   return Vor::memberEntityIs(ipAddrIntfInfo_, addr,
                              [](Lumet::IpAddr const& a) { return Ptr<NatIntfInfo>(new NatIntfInfo(a)); });
}

void NatSmStatusVrf::addAddress(Lumet::IntfId const& intf, Lumet::IpAddr const& addr) {
   ipAddrIntfInfoIs(addr)->addIntf(intf);
}

void NatSmStatusVrf::delAddress(Lumet::IntfId const& intf, Lumet::IpAddr const& addr) {
   Ptr<NatIntfInfo> const info = ipAddrIntfInfo(addr);
   if (!info) return;
   info->removeIntf(intf);
   if (info->intfs() == 0) ipAddrIntfInfoDel(addr);
}

namespace {

Ptr<DynamicHwEntry> dynamicHwEntryIs(NatSmStatusVrf::DynamicHwEntryMap& map,
                                     Lumet::ConnTuple const& conn, Lumet::IpAndPort const& natAddr,
                                     Lumet::IntfId const& natIntf, char const* attribute) {
   if (Ptr<DynamicHwEntry> const* entry = map.find(conn)) {
      if ((*entry)->natAddr() != natAddr || (*entry)->natIntf() != natIntf) {
         Vor::Impl::throwMutatorReinstVal(attribute);
      }
      return *entry;
   }
   Ptr<DynamicHwEntry> entry(new DynamicHwEntry(conn, natAddr, natIntf));
   map.insert(conn, entry);
   return entry;
}


} // namespace

Ptr<DynamicHwEntry> NatSmStatusVrf::dynamicFwdHwEntries(Lumet::ConnTuple const& conn) const {
   return Vor::memberValue(dynamicFwdHwEntries_, conn);
}

Ptr<DynamicHwEntry> NatSmStatusVrf::dynamicFwdHwEntriesIs(Lumet::ConnTuple const& conn,
                                                          Lumet::IpAndPort const& natAddr,
                                                          Lumet::IntfId const& natIntf) {
   return dynamicHwEntryIs(dynamicFwdHwEntries_, conn, natAddr, natIntf, "dynamicFwdHwEntries");
}

Ptr<DynamicHwEntry> NatSmStatusVrf::dynamicRvsHwEntries(Lumet::ConnTuple const& conn) const {
   return Vor::memberValue(dynamicRvsHwEntries_, conn);
}

Ptr<DynamicHwEntry> NatSmStatusVrf::dynamicRvsHwEntriesIs(Lumet::ConnTuple const& conn,
                                                          Lumet::IpAndPort const& natAddr,
                                                          Lumet::IntfId const& natIntf) {
   return dynamicHwEntryIs(dynamicRvsHwEntries_, conn, natAddr, natIntf, "dynamicRvsHwEntries");
}

Ptr<DynamicFullConeHwEntry> NatSmStatusVrf::dynamicFullConeHwEntries(
   Lumet::IpAndPort const& natAddr) const {
   return Vor::memberValue(dynamicFullConeHwEntries_, natAddr);
}

Ptr<DynamicFullConeHwEntry> NatSmStatusVrf::dynamicFullConeHwEntriesIs(Lumet::IpAndPort const& natAddr) {
   return Vor::memberEntityIs(dynamicFullConeHwEntries_, natAddr, [](Lumet::IpAndPort const& a) {
      return Ptr<DynamicFullConeHwEntry>(new DynamicFullConeHwEntry(a));
   });
}

// ---- NatSmStatus ----

U16 NatSmStatus::vlanIdToProfileId(U16 vlan) const {
   return Vor::memberValue(vlanIdToProfileId_, vlan);
}

Ptr<NatUnprogrammedEntries> NatSmStatus::unprogrammedEntries(Lumet::IntfId const& intf) const {
   return Vor::memberValue(unprogrammedEntries_, intf);
}

Ptr<NatUnprogrammedEntries> NatSmStatus::unprogrammedEntriesIs(Lumet::IntfId const& intf) {
   return Vor::memberEntityIs(unprogrammedEntries_, intf, natUnprogrammedEntriesFactory);
}

Ptr<NatSmStatusVrf> NatSmStatus::natSmStatusVrf(VrfId vrfId) const {
   return Vor::memberValue(natSmStatusVrf_, vrfId);
}

Ptr<NatSmStatusVrf> NatSmStatus::natSmStatusVrfIs(VrfId vrfId) {
   return Vor::memberEntityIs(natSmStatusVrf_, vrfId, natSmStatusVrfFactory);
}

void NatSmStatus::addRouteConfigWatchedAddr(Lumet::IpAddr const& addr, VrfId vrfId) {
   if (!destinationNatNextHopNeeded_) return;
   Ptr<NatSmStatusVrf> const vrfStatus = natSmStatusVrf(vrfId);
   uloAssert(vrfStatus);
   U32 const refCount = vrfStatus->routeResolverRefCount(addr);
   VOR_TRACE(7, __func__ << ", addr: " << addr.stringValue() << ", vrf: " << vrfId.stringValue()
                         << ", rc: " << refCount);
   if (refCount == 0) {
      nhMapConfig_->routeResolverRequestIs(VrfAndIpAddr(vrfId, addr), true);
   }
   vrfStatus->routeResolverRefCountIs(addr, refCount + 1);
}

void NatSmStatus::removeRouteConfigWatchedAddr(Lumet::IpAddr const& addr, VrfId vrfId) {
   if (!destinationNatNextHopNeeded_) return;
   Ptr<NatSmStatusVrf> const vrfStatus = natSmStatusVrf(vrfId);
   uloAssert(vrfStatus);
   U32 const refCount = vrfStatus->routeResolverRefCount(addr);
   VOR_TRACE(7, __func__ << ", addr: " << addr.stringValue() << ", vrf: " << vrfId.stringValue()
                         << ", rc: " << refCount);
   uloAssert(refCount);
   if (refCount == 1) {
      nhMapConfig_->routeResolverRequestDel(VrfAndIpAddr(vrfId, addr));
      vrfStatus->routeResolverRefCountDel(addr);
   } else {
      vrfStatus->routeResolverRefCountIs(addr, refCount - 1);
   }
}

Ptr<NatNextHopInfo> NatSmStatus::getNextHopInfo(VrfId vrfId, Lumet::IpAddr const& addr) const {
   if (!destinationNatNextHopNeeded_ || !nhMapStatus_) return Ptr<NatNextHopInfo>();
   return nhMapStatus_->resolvedAddr(VrfAndIpAddr(vrfId, addr));
}

// ---- factories ----

Ptr<NatSmStatus> natSmStatusFactory(Ptr<NextHopMapConfig> const& nhMapConfig,
                                    Ptr<NextHopMapStatus const> const& nhMapStatus) {
   Ptr<NatSmStatus> status(new NatSmStatus(nhMapConfig, nhMapStatus));
   status->hasNotificationActiveIs(true);
   return status;
}

Ptr<NatSmStatusVrf> natSmStatusVrfFactory(VrfId vrfId) {
   Ptr<NatSmStatusVrf> vrf(new NatSmStatusVrf(vrfId));
   vrf->hasNotificationActiveIs(true);
   return vrf;
}

Ptr<NatUnprogrammedEntries> natUnprogrammedEntriesFactory(Lumet::IntfId const& natIntf) {
   Ptr<NatUnprogrammedEntries> entries(new NatUnprogrammedEntries(natIntf));
   entries->hasNotificationActiveIs(true);
   return entries;
}

Ptr<NatSmStatusNotif> natSmStatusNotifFactory() {
   Ptr<NatSmStatusNotif> notif(new NatSmStatusNotif());
   notif->hasNotificationActiveIs(true);
   return notif;
}

Vor::LogHandle natHwResourceNormalLogHandle() {
   return Vor::LogHandle("NAT_HW_RESOURCE_NORMAL", 6, "All NAT rules are programmed in hardware",
                         "The switch was able to program all the NAT rules in the NAT table",
                         Vor::NoActionRequired, 0.0, 1.0, 0);
}

Vor::LogHandle natHwResourceFullLogHandle() {
   return Vor::LogHandle(
      "NAT_HW_RESOURCE_FULL", 3, "Hardware resources are insufficient to program all NAT rules",
      "The switch is unable to program all NAT rules due to insufficient hardware resources.",
      "Reconfigure your NAT rules to reduce the size and/or complexity of the NAT rules.", 0.0, 1.0, 0);
}

Vor::LogHandle natRuleIfMaxLogHandle() {
   return Vor::LogHandle(
      "NAT_RULE_IF_MAX", 3,
      "The active number of interfaces associated with the NAT rule: '%s', has exceeded the "
      "maximum. Cannot add VLAN %d. Interface count: %d, Maximum interfaces: %d.",
      "The maximum number of active interfaces associated with the NAT rule has been reached.",
      "Remove the NAT rule from any interface not currently in use.", 0.0, 1.0, 0);
}

} // namespace Ulo
