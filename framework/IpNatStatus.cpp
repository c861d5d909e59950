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

U16 IntfStatus::profileOrVlanId() const {
   if (Lumet::NatIntfId::isNatProfileIntfId(intfId_)) {
      return Lumet::NatIntfId::profileId(intfId_);
   }
   if (validIntfs() == 0) return 0;
   uloAssert(validIntfs() == 1);
   return validIntf().begin()->second;
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

} // namespace Ip::Nat
