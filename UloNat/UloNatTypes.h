#pragma once
// The working memory of the NAT engine, shared by the root state machine and
// every interface engine:
//
//   NatType                 the four kinds of review of unprogrammed entries
//   NatSmStatus             one per agent: VRF records, unprogrammed entries,
//                           the route-resolver link, global switches
//   NatSmStatusVrf          one per VRF with an interface engine: its
//                           interfaces, watched addresses and their
//                           reference counts, dynamic entries in hardware
//   NatIntfInfo             which interfaces use one watched address, counted
//   DynamicHwEntry          one dynamic connection in hardware
//   DynamicFullConeHwEntry  one full-cone NAT address in hardware
//   NatUnprogrammedEntries  per interface, what could not be programmed
//   NatSmStatusNotif        the entity by which engines signal the root
//   TwiceNatKey             a twice NAT entry: group and tuple
//   nat...LogHandle()       the contents of the syslog-type messages
//
// Nothing here is kept across a restart. There is no logic beyond counting
// references; a mismatch between the counts and the engines is found by the
// verify command, not here.
//
// Thread safety: none. Everything here belongs to the agent's one thread.

#include <cstddef>
#include <map>
#include <string>

#include "framework/IpNatTypes.h"
#include "framework/LumetConnTuple.h"
#include "framework/LumetIntfId.h"
#include "framework/LumetIpAddr.h"
#include "framework/UloNextHopMap.h"
#include "framework/UloVrfId.h"
#include "framework/VorEntity.h"
#include "framework/VorHashMap.h"
#include "framework/VorHashMap2018.h"
#include "framework/VorLog.h"
#include "framework/VorPtr.h"
#include "framework/VorSet.h"

namespace Ulo {

using Vor::Ptr;
using Vor::U16;
using Vor::U32;

// The four kinds of review of unprogrammed entries, each with its own task.
enum class NatType : Vor::U8 {
   staticNat = 0,
   twiceNat = 1,
   dynamicNat = 2,
   trapAclNat = 3,
};
char const* natTypeName(NatType type);

// The kinds of dynamic NAT rule.
enum class DynamicNatType : Vor::U8 {
   dynamicNatAddrOnly,
   dynamicNatFullCone,
   dynamicNatOverload,
   dynamicNatPool,
};

// A twice NAT entry: its group and its tuple.
class TwiceNatKey {
 public:
   TwiceNatKey() = default;
   TwiceNatKey(U16 group, Lumet::ConnTuple const& addr) : group_(group), addr_(addr) {}

   U16 group() const { return group_; }
   Lumet::ConnTuple const& addr() const { return addr_; }

   friend bool operator==(TwiceNatKey const& a, TwiceNatKey const& b) {
      return a.group_ == b.group_ && a.addr_ == b.addr_;
   }
   // By group first: every key of group 1 sorts below every key of group 2.
   friend bool operator<(TwiceNatKey const& a, TwiceNatKey const& b) {
      if (a.group_ != b.group_) return a.group_ < b.group_;
      return a.addr_ < b.addr_;
   }
   U32 hash(U32 seed = 0) const { return Vor::hashMix(Vor::hashMix(seed, group_), addr_.hash(seed)); }
   // " group: <group> addr: <tuple>"
   std::string stringValue() const;

 private:
   U16 group_ = 0;
   Lumet::ConnTuple addr_;
};

// Which interfaces use one watched address, and how often each.
//
// Invariants:
//  1. No member of intf has the count 0.
class NatIntfInfo : public Vor::PtrInterface {
 public:
   using IntfMap = Vor::HashMap2018<Lumet::IntfId, U32>;

   explicit NatIntfInfo(Lumet::IpAddr const& ipAddr) : ipAddr_(ipAddr) {}

   Lumet::IpAddr const& ipAddr() const { return ipAddr_; }

   IntfMap const& intf() const { return intf_; }
   // The count of `intf`, 0 when absent.
   U32 intf(Lumet::IntfId const& intf) const;
   bool intfHas(Lumet::IntfId const& intf) const { return intf_.contains(intf); }
   std::size_t intfs() const { return intf_.size(); }
   void intfIs(Lumet::IntfId const& intf, U32 count);
   void intfDel(Lumet::IntfId const& intf);

   // One more reference of `intf` to this address.
   void addIntf(Lumet::IntfId const& intf);
   // One reference fewer; the member goes with its last reference. An
   // unknown interface is harmless: a count never goes below zero.
   void removeIntf(Lumet::IntfId const& intf);

 private:
   Lumet::IpAddr const ipAddr_;
   IntfMap intf_;
};

// One dynamic connection in hardware, by forward or reverse tuple.
class DynamicHwEntry : public Vor::PtrInterface {
 public:
   DynamicHwEntry(Lumet::ConnTuple const& conn, Lumet::IpAndPort const& natAddr,
                  Lumet::IntfId const& natIntf)
       : conn_(conn), natAddr_(natAddr), natIntf_(natIntf) {}

   Lumet::ConnTuple const& conn() const { return conn_; }
   Lumet::IpAndPort const& natAddr() const { return natAddr_; }
   Lumet::IntfId const& natIntf() const { return natIntf_; }

 private:
   Lumet::ConnTuple const conn_;
   Lumet::IpAndPort const natAddr_;
   Lumet::IntfId const natIntf_;
};

// One full-cone NAT address in hardware, with the inside address behind it
// and the remote endpoints that reach it.
class DynamicFullConeHwEntry : public Vor::PtrInterface {
 public:
   using DstAddrSet = Vor::HashSet<Lumet::IpAndPort>;

   explicit DynamicFullConeHwEntry(Lumet::IpAndPort const& natAddr) : natAddr_(natAddr) {}

   Lumet::IpAndPort const& natAddr() const { return natAddr_; }

   Lumet::IpAndPort const& srcAddr() const { return srcAddr_; }
   void srcAddrIs(Lumet::IpAndPort const& v) { srcAddr_ = v; }
   Lumet::IntfId const& natIntf() const { return natIntf_; }
   void natIntfIs(Lumet::IntfId const& v) { natIntf_ = v; }

   DstAddrSet const& dstAddr() const { return dstAddr_; }
   bool dstAddrHas(Lumet::IpAndPort const& a) const { return dstAddr_.contains(a); }
   std::size_t dstAddrs() const { return dstAddr_.size(); }
   void dstAddrIs(Lumet::IpAndPort const& a) { dstAddr_.insert(a); }
   void dstAddrDel(Lumet::IpAndPort const& a) { dstAddr_.erase(a); }

 private:
   Lumet::IpAndPort srcAddr_;
   Lumet::IpAndPort const natAddr_;
   DstAddrSet dstAddr_;
   Lumet::IntfId natIntf_;
};

// The state of one VRF that has at least one interface engine.
//
// Invariants:
//  1. No member of routeResolverRefCount has the value 0.
//  2. Every member of ipAddrIntfInfo has at least one interface.
class NatSmStatusVrf : public Vor::PtrInterface {
 public:
   using IntfSet = Vor::HashSet<Lumet::IntfId>;
   using RouteResolverRefCountMap = std::map<Lumet::IpAddr, U32>;
   using IpAddrIntfInfoMap = Vor::HashMap2018<Lumet::IpAddr, Ptr<NatIntfInfo>>;
   using DynamicHwEntryMap = Vor::HashMap<Lumet::ConnTuple, Ptr<DynamicHwEntry>>;
   using DynamicFullConeHwEntryMap = Vor::HashMap<Lumet::IpAndPort, Ptr<DynamicFullConeHwEntry>>;

   explicit NatSmStatusVrf(VrfId vrfId) : vrfId_(vrfId) {}

   VrfId vrfId() const { return vrfId_; }

   // intf: interfaces of this VRF that have an engine.
   IntfSet const& intf() const { return intf_; }
   bool intfHas(Lumet::IntfId const& i) const { return intf_.contains(i); }
   std::size_t intfs() const { return intf_.size(); }
   void intfIs(Lumet::IntfId const& i) { intf_.insert(i); }
   void intfDel(Lumet::IntfId const& i) { intf_.erase(i); }

   // routeResolverRefCount: connections that need the next hop of an
   // address; 0 when absent. Storing 0 removes the member.
   RouteResolverRefCountMap const& routeResolverRefCount() const { return routeResolverRefCount_; }
   U32 routeResolverRefCount(Lumet::IpAddr const& addr) const;
   void routeResolverRefCountIs(Lumet::IpAddr const& addr, U32 count);
   void routeResolverRefCountDel(Lumet::IpAddr const& addr) { routeResolverRefCount_.erase(addr); }

   // ipAddrIntfInfo: which interfaces use each watched address. Null when
   // absent.
   IpAddrIntfInfoMap const& ipAddrIntfInfo() const { return ipAddrIntfInfo_; }
   Ptr<NatIntfInfo> ipAddrIntfInfo(Lumet::IpAddr const& addr) const;
   bool ipAddrIntfInfoHas(Lumet::IpAddr const& addr) const { return ipAddrIntfInfo_.contains(addr); }
   std::size_t ipAddrIntfInfos() const { return ipAddrIntfInfo_.size(); }
   // Returns the existing record or makes one.
   Ptr<NatIntfInfo> ipAddrIntfInfoIs(Lumet::IpAddr const& addr);
   void ipAddrIntfInfoDel(Lumet::IpAddr const& addr) { ipAddrIntfInfo_.erase(addr); }

   // The reference that one connection of `intf` takes on watched address
   // `addr`, and its release. Releasing what was never taken does nothing.
   void addAddress(Lumet::IntfId const& intf, Lumet::IpAddr const& addr);
   void delAddress(Lumet::IntfId const& intf, Lumet::IpAddr const& addr);

   // Dynamic connections in hardware, by forward and by reverse tuple. The
   // Is forms return the member for `conn` if it has this natAddr and
   // natIntf, make it if absent, and raise Vor::ReinstantiationException if
   // it stands with other values.
   DynamicHwEntryMap const& dynamicFwdHwEntries() const { return dynamicFwdHwEntries_; }
   Ptr<DynamicHwEntry> dynamicFwdHwEntries(Lumet::ConnTuple const& conn) const;
   Ptr<DynamicHwEntry> dynamicFwdHwEntriesIs(Lumet::ConnTuple const& conn,
                                             Lumet::IpAndPort const& natAddr,
                                             Lumet::IntfId const& natIntf);
   void dynamicFwdHwEntriesDel(Lumet::ConnTuple const& conn) { dynamicFwdHwEntries_.erase(conn); }

   DynamicHwEntryMap const& dynamicRvsHwEntries() const { return dynamicRvsHwEntries_; }
   Ptr<DynamicHwEntry> dynamicRvsHwEntries(Lumet::ConnTuple const& conn) const;
   Ptr<DynamicHwEntry> dynamicRvsHwEntriesIs(Lumet::ConnTuple const& conn,
                                             Lumet::IpAndPort const& natAddr,
                                             Lumet::IntfId const& natIntf);
   void dynamicRvsHwEntriesDel(Lumet::ConnTuple const& conn) { dynamicRvsHwEntries_.erase(conn); }

   // Full-cone entries by NAT address. The Is form returns the member or
   // makes one with srcAddr zero and natIntf empty; the caller then sets
   // them and adds the remote with dstAddrIs.
   DynamicFullConeHwEntryMap const& dynamicFullConeHwEntries() const {
      return dynamicFullConeHwEntries_;
   }
   Ptr<DynamicFullConeHwEntry> dynamicFullConeHwEntries(Lumet::IpAndPort const& natAddr) const;
   Ptr<DynamicFullConeHwEntry> dynamicFullConeHwEntriesIs(Lumet::IpAndPort const& natAddr);
   void dynamicFullConeHwEntriesDel(Lumet::IpAndPort const& natAddr) {
      dynamicFullConeHwEntries_.erase(natAddr);
   }

 private:
   VrfId const vrfId_;
   IntfSet intf_;
   RouteResolverRefCountMap routeResolverRefCount_;
   IpAddrIntfInfoMap ipAddrIntfInfo_;
   DynamicHwEntryMap dynamicFwdHwEntries_;
   DynamicHwEntryMap dynamicRvsHwEntries_;
   DynamicFullConeHwEntryMap dynamicFullConeHwEntries_;
};

// What one interface could not program, by kind, waiting for a review.
class NatUnprogrammedEntries : public Vor::PtrInterface {
 public:
   using StaticEntrySet = Vor::HashSet<Ip::Nat::StaticKey>;
   using TwiceEntrySet = Vor::HashSet<TwiceNatKey>;
   using DynamicEntrySet = Vor::HashSet<Lumet::ConnTuple>;
   using TrapAclSet = Vor::HashSet<Ip::Nat::DynamicKey>;

   explicit NatUnprogrammedEntries(Lumet::IntfId const& natIntf) : natIntf_(natIntf) {}

   Lumet::IntfId const& natIntf() const { return natIntf_; }

   StaticEntrySet const& staticEntries() const { return staticEntries_; }
   bool staticEntriesHas(Ip::Nat::StaticKey const& k) const { return staticEntries_.contains(k); }
   void staticEntriesIs(Ip::Nat::StaticKey const& k) { staticEntries_.insert(k); }
   void staticEntriesDel(Ip::Nat::StaticKey const& k) { staticEntries_.erase(k); }
   void staticEntriesDelAll() { staticEntries_.clear(); }

   TwiceEntrySet const& twiceEntries() const { return twiceEntries_; }
   bool twiceEntriesHas(TwiceNatKey const& k) const { return twiceEntries_.contains(k); }
   void twiceEntriesIs(TwiceNatKey const& k) { twiceEntries_.insert(k); }
   void twiceEntriesDel(TwiceNatKey const& k) { twiceEntries_.erase(k); }
   void twiceEntriesDelAll() { twiceEntries_.clear(); }

   DynamicEntrySet const& dynamicEntries() const { return dynamicEntries_; }
   bool dynamicEntriesHas(Lumet::ConnTuple const& k) const { return dynamicEntries_.contains(k); }
   void dynamicEntriesIs(Lumet::ConnTuple const& k) { dynamicEntries_.insert(k); }
   void dynamicEntriesDel(Lumet::ConnTuple const& k) { dynamicEntries_.erase(k); }
   void dynamicEntriesDelAll() { dynamicEntries_.clear(); }

   TrapAclSet const& trapAcls() const { return trapAcls_; }
   bool trapAclsHas(Ip::Nat::DynamicKey const& k) const { return trapAcls_.contains(k); }
   void trapAclsIs(Ip::Nat::DynamicKey const& k) { trapAcls_.insert(k); }
   void trapAclsDel(Ip::Nat::DynamicKey const& k) { trapAcls_.erase(k); }
   void trapAclsDelAll() { trapAcls_.clear(); }

   // True when no set holds anything.
   bool empty() const {
      return staticEntries_.empty() && twiceEntries_.empty() && dynamicEntries_.empty() &&
             trapAcls_.empty();
   }

 private:
   Lumet::IntfId const natIntf_;
   StaticEntrySet staticEntries_;
   TwiceEntrySet twiceEntries_;
   DynamicEntrySet dynamicEntries_;
   TrapAclSet trapAcls_;
};

// The shared state of all NAT state machines of the agent.
//
// Invariants:
//  1. natSmStatusVrf has a record for every VRF that has an interface
//     engine; engines are built after their record.
//  2. unprogrammedEntries has a record only for interfaces that have at
//     least one unprogrammed entry (kept so by the engines).
class NatSmStatus : public Vor::PtrInterface {
 public:
   using VlanIdToProfileIdMap = std::map<U16, U16>;
   using UnprogrammedEntriesMap = Vor::HashMap2018<Lumet::IntfId, Ptr<NatUnprogrammedEntries>>;
   using NatSmStatusVrfMap = Vor::HashMap<VrfId, Ptr<NatSmStatusVrf>>;

   NatSmStatus(Ptr<NextHopMapConfig> const& nhMapConfig, Ptr<NextHopMapStatus const> const& nhMapStatus)
       : nhMapConfig_(nhMapConfig), nhMapStatus_(nhMapStatus) {}

   Ptr<NextHopMapConfig> const& nhMapConfig() const { return nhMapConfig_; }
   Ptr<NextHopMapStatus const> const& nhMapStatus() const { return nhMapStatus_; }

   // False turns all next-hop tracking off.
   bool destinationNatNextHopNeeded() const { return destinationNatNextHopNeeded_; }
   void destinationNatNextHopNeededIs(bool v) { destinationNatNextHopNeeded_ = v; }
   bool hwConnEntryRqrdOnDelete() const { return hwConnEntryRqrdOnDelete_; }
   void hwConnEntryRqrdOnDeleteIs(bool v) { hwConnEntryRqrdOnDelete_ = v; }
   // True from the first unprogrammed entry that was logged until the last
   // one is restored.
   bool fullTable() const { return fullTable_; }
   void fullTableIs(bool v) { fullTable_ = v; }

   // vlanIdToProfileId: VLAN to NAT profile; 0 when absent.
   VlanIdToProfileIdMap const& vlanIdToProfileId() const { return vlanIdToProfileId_; }
   U16 vlanIdToProfileId(U16 vlan) const;
   bool vlanIdToProfileIdHas(U16 vlan) const { return vlanIdToProfileId_.count(vlan) != 0; }
   void vlanIdToProfileIdIs(U16 vlan, U16 profile) { vlanIdToProfileId_[vlan] = profile; }
   void vlanIdToProfileIdDel(U16 vlan) { vlanIdToProfileId_.erase(vlan); }

   // unprogrammedEntries: null when absent; Is returns the existing record
   // or makes one.
   UnprogrammedEntriesMap const& unprogrammedEntries() const { return unprogrammedEntries_; }
   Ptr<NatUnprogrammedEntries> unprogrammedEntries(Lumet::IntfId const& intf) const;
   std::size_t unprogrammedEntriess() const { return unprogrammedEntries_.size(); }
   Ptr<NatUnprogrammedEntries> unprogrammedEntriesIs(Lumet::IntfId const& intf);
   void unprogrammedEntriesDel(Lumet::IntfId const& intf) { unprogrammedEntries_.erase(intf); }

   // natSmStatusVrf: null when absent; Is returns the existing record or
   // makes one through natSmStatusVrfFactory.
   NatSmStatusVrfMap const& natSmStatusVrf() const { return natSmStatusVrf_; }
   Ptr<NatSmStatusVrf> natSmStatusVrf(VrfId vrfId) const;
   std::size_t natSmStatusVrfs() const { return natSmStatusVrf_.size(); }
   Ptr<NatSmStatusVrf> natSmStatusVrfIs(VrfId vrfId);
   void natSmStatusVrfDel(VrfId vrfId) { natSmStatusVrf_.erase(vrfId); }
   void natSmStatusVrfDelAll() { natSmStatusVrf_.clear(); }

   // Route watching. A connection that starts to need the next hop of
   // `addr` in `vrfId` calls addRouteConfigWatchedAddr; the first reference
   // writes one route-resolver request. removeRouteConfigWatchedAddr gives
   // the reference back; the last one withdraws the request. Both do nothing
   // while destinationNatNextHopNeeded is false.
   // REQUIRES: natSmStatusVrf(vrfId) exists (asserted "vrfStatus"); for the
   // removal, addr holds a reference (asserted "refCount").
   void addRouteConfigWatchedAddr(Lumet::IpAddr const& addr, VrfId vrfId);
   void removeRouteConfigWatchedAddr(Lumet::IpAddr const& addr, VrfId vrfId);
   // The resolved next hop of `addr` in `vrfId`, or null when there is none
   // or next-hop tracking is off.
   Ptr<NatNextHopInfo> getNextHopInfo(VrfId vrfId, Lumet::IpAddr const& addr) const;

 private:
   Ptr<NextHopMapConfig> const nhMapConfig_;
   Ptr<NextHopMapStatus const> const nhMapStatus_;
   bool destinationNatNextHopNeeded_ = false;
   VlanIdToProfileIdMap vlanIdToProfileId_;
   bool hwConnEntryRqrdOnDelete_ = false;
   bool fullTable_ = false;
   UnprogrammedEntriesMap unprogrammedEntries_;
   NatSmStatusVrfMap natSmStatusVrf_;
};

// Engines signal the root through this entity. Each setter notifies only
// when the value changes; xInc(n) is xIs(x + n).
class NatSmStatusNotif : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId logsFullId = 1;
   static constexpr Vor::AttributeId logsNormalId = 2;
   static constexpr Vor::AttributeId kickUnprogrammedReviewId = 3;

   NatSmStatusNotif() : Vor::Entity("natSmStatusNotif") {}

   // Times that NAT_HW_RESOURCE_FULL was emitted.
   U32 logsFull() const { return logsFull_; }
   void logsFullIs(U32 v) { scalarIs(logsFull_, v, logsFullId); }
   void logsFullInc(U32 n = 1) { logsFullIs(logsFull_ + n); }
   // Times that NAT_HW_RESOURCE_NORMAL was emitted.
   U32 logsNormal() const { return logsNormal_; }
   void logsNormalIs(U32 v) { scalarIs(logsNormal_, v, logsNormalId); }
   void logsNormalInc(U32 n = 1) { logsNormalIs(logsNormal_ + n); }
   // An engine's request for a review: only its change has a meaning.
   U32 kickUnprogrammedReview() const { return kickUnprogrammedReview_; }
   void kickUnprogrammedReviewIs(U32 v) { scalarIs(kickUnprogrammedReview_, v, kickUnprogrammedReviewId); }
   void kickUnprogrammedReviewInc(U32 n = 1) { kickUnprogrammedReviewIs(kickUnprogrammedReview_ + n); }

 private:
   U32 logsFull_ = 0;
   U32 logsNormal_ = 0;
   U32 kickUnprogrammedReview_ = 0;
};

// Factories; each returns its object with notification active.
Ptr<NatSmStatus> natSmStatusFactory(Ptr<NextHopMapConfig> const& nhMapConfig,
                                    Ptr<NextHopMapStatus const> const& nhMapStatus);
Ptr<NatSmStatusVrf> natSmStatusVrfFactory(VrfId vrfId);
Ptr<NatUnprogrammedEntries> natUnprogrammedEntriesFactory(Lumet::IntfId const& natIntf);
Ptr<NatSmStatusNotif> natSmStatusNotifFactory();

// The syslog-type messages. Each source file that emits one holds its own
// handle, built at load time (a handle keeps its own rate limit and
// counts), from these, so that the texts are written in one place:
//
//   Vor::LogHandle NAT_HW_RESOURCE_FULL = natHwResourceFullLogHandle();
Vor::LogHandle natHwResourceNormalLogHandle();
Vor::LogHandle natHwResourceFullLogHandle();
Vor::LogHandle natRuleIfMaxLogHandle();

} // namespace Ulo
