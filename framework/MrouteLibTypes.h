#pragma once
// Values that the NAT engine publishes to the multicast routing library:
// MrouteLib::StaticNatIpInfo, the VLANs on which a static translation of one
// address is programmed.
//
// Thread safety: plain value; const operations may run concurrently.

#include <set>
#include <string>

#include "framework/BridgingVlanId.h"

namespace MrouteLib {

class StaticNatIpInfo {
 public:
   using VlanSet = std::set<Bridging::VlanId>;

   VlanSet const& vlan() const { return vlan_; }
   bool vlanHas(Bridging::VlanId id) const { return vlan_.count(id) != 0; }
   // Adds `id` when `present`, removes it otherwise. A number outside 1..4094
   // raises the VlanId range exception on its way in.
   void vlanIs(Bridging::VlanId id, bool present) {
      if (present) {
         vlan_.insert(id);
      } else {
         vlan_.erase(id);
      }
   }
   void vlanDel(Bridging::VlanId id) { vlan_.erase(id); }
   std::size_t vlans() const { return vlan_.size(); }

   friend bool operator==(StaticNatIpInfo const& a, StaticNatIpInfo const& b) { return a.vlan_ == b.vlan_; }

   // "vlan: [ 10 20 ]"
   std::string stringValue() const {
      std::string text = "vlan: [ ";
      for (auto const& id : vlan_) text += id.stringValue() + " ";
      return text + "]";
   }

 private:
   VlanSet vlan_;
};

} // namespace MrouteLib
