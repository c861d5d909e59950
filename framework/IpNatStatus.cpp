#include "framework/IpNatStatus.h"

#include "framework/UloAssert.h"

namespace Ip::Nat {

// ---- NatDynamicTrapRule ----

NatDynamicTrapRule::NatDynamicTrapRule(DynamicKey const& key)
    : Vor::Entity(key.stringValue()), key_(key) {}

void NatDynamicTrapRule::trapFilterIs(NatTrapFilter const& filter, bool present) {
   if (!present) {
      trapFilterDel(filter);
      return;
   }
   if (!trapFilter_.insert(filter).second) return;
   ++trapFilterVersion_;
   memberChanged(trapFilterId, filter);
}

void NatDynamicTrapRule::trapFilterDel(NatTrapFilter const& filter) {
   NatTrapFilter const key = filter;
   if (trapFilter_.erase(key) == 0) return;
   ++trapFilterVersion_;
   memberChanged(trapFilterId, key);
}

void NatDynamicTrapRule::trapFilterDelAll() {
   while (!trapFilter_.empty()) trapFilterDel(*trapFilter_.begin());
}

// ---- IntfStatus ----

IntfStatus::IntfStatus(Lumet::IntfId const& intfId)
    : Vor::Entity(intfId.stringValue()), intfId_(intfId) {}

void IntfStatus::validIntfIs(Lumet::IntfId const& intf, U16 vlan) {
   if (Vor::memberValueIs(validIntf_, intf, vlan)) memberChanged(validIntfId, intf);
}

void IntfStatus::validIntfDel(Lumet::IntfId const& intf) {
   Lumet::IntfId const key = intf;
   if (validIntf_.erase(key)) memberChanged(validIntfId, key);
}

void IntfStatus::staticConnectionIs(NatStaticConnection const& conn) {
   StaticKey const key = conn.key();
   if (Vor::memberValueIs(staticConnection_, key, conn)) memberChanged(staticConnectionId, key);
}

void IntfStatus::staticConnectionDel(StaticKey const& key) {
   StaticKey const k = key;
   if (staticConnection_.erase(k)) memberChanged(staticConnectionId, k);
}

void IntfStatus::staticConnectionDelAll() {
   while (!staticConnection_.empty()) staticConnectionDel(staticConnection_.begin()->first);
}

void IntfStatus::twiceNatConnectionIs(NatTwiceConnection const& conn) {
   U16 const group = conn.group();
   if (Vor::memberValueIs(twiceNatConnection_, group, conn)) {
      memberChanged(twiceNatConnectionId, group);
   }
}

void IntfStatus::twiceNatConnectionDel(U16 group) {
   if (twiceNatConnection_.erase(group)) memberChanged(twiceNatConnectionId, group);
}

void IntfStatus::twiceNatConnectionDelAll() {
   while (!twiceNatConnection_.empty()) twiceNatConnectionDel(twiceNatConnection_.begin()->first);
}

Ptr<NatDynamicTrapRule> IntfStatus::trapRule(DynamicKey const& key) const {
   return Vor::memberValue(trapRule_, key);
}

Ptr<NatDynamicTrapRule> IntfStatus::trapRuleIs(DynamicKey const& key) {
   return Vor::memberEntityIs(
      trapRule_, key, [](DynamicKey const& k) { return Ptr<NatDynamicTrapRule>(new NatDynamicTrapRule(k)); },
      [this](DynamicKey const& k) { memberChanged(trapRuleId, k); });
}

void IntfStatus::trapRuleDel(DynamicKey const& key) {
   Vor::memberEntityDel(trapRule_, key, [this](DynamicKey const& k) { memberChanged(trapRuleId, k); });
}

void IntfStatus::trapRuleDelAll() {
   while (!trapRule_.empty()) trapRuleDel(trapRule_.begin()->first);
}

U16 IntfStatus::profileOrVlanId() const {
   if (Lumet::NatIntfId::isNatProfileIntfId(intfId_)) {
      return Lumet::NatIntfId::profileId(intfId_);
   }
   if (validIntfs() == 0) return 0;
   uloAssert(validIntfs() == 1);
   return validIntf_.begin()->second;
}

// ---- value records ----

std::string NatGroupInfo::stringValue() const {
   return "aclName: " + aclName.stdString() + " poolName: " + poolName.stdString() +
          " group: " + std::to_string(group);
}

std::string VrfPolicer::stringValue() const {
   return "rate: " + std::to_string(rate) + " burst: " + std::to_string(burst);
}

std::string NatVrfStaticConnection::stringValue() const {
   return "srcAddressOld: " + srcAddressOld.stringValue() + " srcAddressNew: " +
          srcAddressNew.stringValue() + " target: " + std::to_string(static_cast<int>(target)) +
          " outsideVrf: " + outsideVrf.stringValue();
}

// ---- VrfStatus ----

VrfStatus::VrfStatus(L3::VrfName const& name) : Vor::Entity(name.stringValue()), vrfName_(name) {}

void VrfStatus::staticNatIs(NatVrfStaticConnection const& conn) {
   Lumet::IpAddr const key = conn.srcAddressOld;
   if (Vor::memberValueIs(staticNat_, key, conn)) memberChanged(staticNatId, key);
}

void VrfStatus::staticNatDel(Lumet::IpAddr const& srcAddressOld) {
   Lumet::IpAddr const key = srcAddressOld;
   if (staticNat_.erase(key)) memberChanged(staticNatId, key);
}

void VrfStatus::staticNatDelAll() {
   while (!staticNat_.empty()) staticNatDel(staticNat_.begin()->first);
}

// ---- Status ----

Ptr<IntfStatus> Status::intfStatus(Lumet::IntfId const& intf) const {
   return Vor::memberValue(intfStatus_, intf);
}

Ptr<IntfStatus> Status::intfStatusIs(Lumet::IntfId const& intf) {
   return Vor::memberEntityIs(
      intfStatus_, intf, [](Lumet::IntfId const& k) { return Ptr<IntfStatus>(new IntfStatus(k)); },
      [this](Lumet::IntfId const& k) { memberChanged(intfStatusId, k); });
}

void Status::intfStatusDel(Lumet::IntfId const& intf) {
   Vor::memberEntityDel(intfStatus_, intf, [this](Lumet::IntfId const& k) { memberChanged(intfStatusId, k); });
}

void Status::intfStatusDelAll() {
   while (!intfStatus_.empty()) intfStatusDel(intfStatus_.begin()->first);
}

void Status::intfConfigKeyIs(Lumet::IntfId const& intf, Vor::String const& key) {
   if (Vor::memberValueIs(intfConfigKey_, intf, key)) memberChanged(intfConfigKeyId, intf);
}

void Status::intfConfigKeyDel(Lumet::IntfId const& intf) {
   Lumet::IntfId const key = intf;
   if (intfConfigKey_.erase(key)) memberChanged(intfConfigKeyId, key);
}

void Status::natGroupInfoIs(U16 connMark, NatGroupInfo const& info) {
   if (Vor::memberValueIs(natGroupInfo_, connMark, info)) memberChanged(natGroupInfoId, connMark);
}

void Status::natGroupInfoDel(U16 connMark) {
   if (natGroupInfo_.erase(connMark)) memberChanged(natGroupInfoId, connMark);
}

Ptr<VrfStatus> Status::vrfStatus(L3::VrfName const& name) const {
   return Vor::memberValue(vrfStatus_, name);
}

Ptr<VrfStatus> Status::vrfStatusIs(L3::VrfName const& name) {
   return Vor::memberEntityIs(
      vrfStatus_, name, [](L3::VrfName const& k) { return Ptr<VrfStatus>(new VrfStatus(k)); },
      [this](L3::VrfName const& k) { memberChanged(vrfStatusId, k); });
}

void Status::vrfStatusDel(L3::VrfName const& name) {
   Vor::memberEntityDel(vrfStatus_, name, [this](L3::VrfName const& k) { memberChanged(vrfStatusId, k); });
}

} // namespace Ip::Nat
