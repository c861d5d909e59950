#pragma once
// The NAT configuration and connection-tracking input, as the central state
// store hands it to the NAT engine: Ip::Nat::Status with one IntfStatus per
// NAT interface (static connections, twice NAT connections, dynamic trap
// rules) and one VrfStatus per NAT VRF (VRF-to-VRF static rules and the
// source policer).
//
// Configuration agents write these entities; the engine only reads them and
// reacts to their notifications. Every mutator notifies the attached reactors
// when, and only when, it changes something:
//  - a scalar attribute notifies with its id and a null key;
//  - a collection attribute notifies once per member added, changed or
//    removed, with its id and a pointer to the member's key. A reactor tells
//    an add from a remove by looking the key up.
//
// Lookups of absent members never fail: a map of values yields the value
// type's default, a map of entities yields null. Use xHas() to tell apart.
//
// Thread safety: none. All of these belong to the agent's one thread.

#include <cstddef>
#include <map>
#include <set>
#include <string>

#include "framework/IpNatTypes.h"
#include "framework/L3VrfName.h"
#include "framework/LumetIntfId.h"
#include "framework/LumetIpAddr.h"
#include "framework/VorAttribute.h"
#include "framework/VorEntity.h"
#include "framework/VorEntityCollections.h"
#include "framework/VorPtr.h"
#include "framework/VorString.h"

namespace Ip::Nat {

using Vor::AttributeId;
using Vor::Ptr;
using Vor::U16;
using Vor::U32;
using Vor::U8;

// One dynamic NAT rule of an interface: what traffic to trap to software so
// that connection tracking can make a translation for it.
//
// Invariants:
//  1. key() never changes after construction.
//  2. Until initialized() is true the writer is still filling the rule and
//     no handler may act on it.
class NatDynamicTrapRule : public Vor::Entity {
 public:
   static constexpr AttributeId keyId = 1;

   VOR_ENTITY(NatDynamicTrapRule, "Ip::Nat::NatDynamicTrapRule")
   VOR_SCALAR(bool, trapAll, 2)
   VOR_SCALAR(bool, denyAll, 3)
   VOR_SCALAR(bool, fullCone, 4)
   VOR_SCALAR(bool, addrOnly, 5)
   VOR_SCALAR(U16, vlanId, 6)
   VOR_SCALAR(U32, ruleId, 7)
   VOR_SCALAR(U32, poolId, 8)
   VOR_SCALAR(NatTarget, target, 9, NatTarget::source_)
   VOR_SCALAR(bool, initialized, 11)

 public:
   static constexpr AttributeId trapFilterId = 10;

   // Filters are ordered by sequence number first, which is their order
   // within the rule.
   using TrapFilterSet = std::set<NatTrapFilter>;

   explicit NatDynamicTrapRule(DynamicKey const& key);

   DynamicKey const& key() const { return key_; }

   // trapFilter: the filters of the rule, in rule order. Written by hand
   // rather than declared: its version number lets a walk that calls out
   // tell whether it must find its place again.
   TrapFilterSet const& trapFilter() const { return trapFilter_; }
   bool trapFilterHas(NatTrapFilter const& filter) const { return trapFilter_.count(filter) != 0; }
   std::size_t trapFilters() const { return trapFilter_.size(); }
   // trapFilterIs(filter) or (filter, true) adds the filter; (filter, false)
   // removes it.
   void trapFilterIs(NatTrapFilter const& filter, bool present = true);
   void trapFilterDel(NatTrapFilter const& filter);
   void trapFilterDelAll();
   // Bumped by every change of trapFilter.
   std::uint64_t trapFilterVersion() const { return trapFilterVersion_; }

 private:
   DynamicKey const key_;
   TrapFilterSet trapFilter_;
   std::uint64_t trapFilterVersion_ = 0;
};

// One NAT interface: a plain interface or a NAT profile, with what is
// configured on it.
//
// Invariants:
//  1. intfId() never changes after construction.
//  2. A plain interface has at most one member in validIntf when its VLAN is
//     asked for (profileOrVlanId()).
class IntfStatus : public Vor::Entity {
 public:
   static constexpr AttributeId intfIdId = 1;

   VOR_ENTITY(IntfStatus, "Ip::Nat::IntfStatus")
   VOR_SCALAR(L3::VrfName, vrfName, 2)
   // validIntf: member interfaces with their VLAN.
   VOR_COLLECTION(Lumet::IntfId, U16, validIntf, 3)
   // staticConnection: by the connection's own key; the add replaces.
   VOR_COLLECTION(StaticKey, NatStaticConnection, staticConnection, 4)
   // twiceNatConnection: by group.
   VOR_COLLECTION(U16, NatTwiceConnection, twiceNatConnection, 5)
   // trapRule: entities, null when absent. trapRuleIs returns the existing
   // rule or makes an empty, uninitialized one.
   VOR_ENTITY_COLLECTION(DynamicKey, NatDynamicTrapRule, trapRule, 6,
                         Vor::EntityMaker<NatDynamicTrapRule>())

 public:
   using ValidIntfMap = validIntfContainer;
   using StaticConnectionMap = staticConnectionContainer;
   using TwiceNatConnectionMap = twiceNatConnectionContainer;
   using TrapRuleMap = trapRuleContainer;

   explicit IntfStatus(Lumet::IntfId const& intfId);

   Lumet::IntfId const& intfId() const { return intfId_; }

   // Under the connection's own key.
   void staticConnectionIs(NatStaticConnection const& conn) { staticConnectionIs(conn.key(), conn); }
   // Under the connection's group.
   void twiceNatConnectionIs(NatTwiceConnection const& conn) {
      twiceNatConnectionIs(conn.group(), conn);
   }

   // The VLAN (or NAT profile) that this interface's rules are programmed
   // on: the profile number of a profile interface; otherwise 0 when no
   // member interface is known yet, or the VLAN of the one member.
   // REQUIRES: a plain interface has at most one member in validIntf.
   U16 profileOrVlanId() const;

 private:
   Lumet::IntfId const intfId_;
};

// What a connection mark stands for: the twice NAT group that a dynamic
// connection completes, and the names of the rule that made it.
struct NatGroupInfo {
   Vor::String aclName;
   Vor::String poolName;
   U16 group = 0;

   bool operator==(NatGroupInfo const&) const = default;
   std::string stringValue() const;
};

// The source policer of a VRF, in packets per second and burst size.
struct VrfPolicer {
   U32 rate = 0;
   U32 burst = 0;

   bool operator==(VrfPolicer const&) const = default;
   std::string stringValue() const;
};

// A static translation of an address of one VRF into an address of another
// VRF, keyed by the untranslated address.
struct NatVrfStaticConnection {
   Lumet::IpAddr srcAddressOld;
   Lumet::IpAddr srcAddressNew;
   NatTarget target = NatTarget::source_;
   L3::VrfName outsideVrf;

   bool operator==(NatVrfStaticConnection const&) const = default;
   std::string stringValue() const;
};

// The NAT configuration of one VRF.
class VrfStatus : public Vor::Entity {
   VOR_ENTITY(VrfStatus, "Ip::Nat::VrfStatus")
   // staticNat: keyed by the connection's srcAddressOld; the add replaces.
   VOR_COLLECTION(Lumet::IpAddr, NatVrfStaticConnection, staticNat, 1)
   VOR_SCALAR(VrfPolicer, policer, 2)

 public:
   using StaticNatMap = staticNatContainer;

   explicit VrfStatus(L3::VrfName const& name);

   L3::VrfName const& vrfName() const { return vrfName_; }
   void staticNatIs(NatVrfStaticConnection const& conn) { staticNatIs(conn.srcAddressOld, conn); }

 private:
   L3::VrfName const vrfName_;
};

// The whole NAT input: interfaces, VRFs and the global switches.
class Status : public Vor::Entity {
   VOR_ENTITY(Status, "Ip::Nat::Status")
   // intfStatus: one entity per NAT interface, null when absent;
   // intfStatusIs returns the existing member or makes an empty one.
   VOR_ENTITY_COLLECTION(Lumet::IntfId, IntfStatus, intfStatus, 1, Vor::EntityMaker<IntfStatus>())
   // intfConfigKey: the configuration name of each interface; the empty
   // string when absent.
   VOR_COLLECTION(Lumet::IntfId, Vor::String, intfConfigKey, 2)
   // natGroupInfo: ordered by connection mark.
   VOR_COLLECTION(U16, NatGroupInfo, natGroupInfo, 3)
   VOR_SCALAR(bool, staticAclSharingStatus, 4)
   VOR_SCALAR(bool, counterStatus, 5)
   // vrfStatus: one entity per NAT VRF, null when absent.
   VOR_ENTITY_COLLECTION(L3::VrfName, VrfStatus, vrfStatus, 6, Vor::EntityMaker<VrfStatus>())

 public:
   using IntfStatusMap = intfStatusContainer;
   using IntfConfigKeyMap = intfConfigKeyContainer;
   using NatGroupInfoMap = natGroupInfoContainer;
   using VrfStatusMap = vrfStatusContainer;

   explicit Status(Vor::String name = "status") : Vor::Entity(std::move(name)) {}
};

} // namespace Ip::Nat
