#pragma once
// UloL3Intf::Table: the agent's table of routed interfaces. The NAT engine
// only carries it from the root to the machines that need it; it records the
// VRF of each routed interface, which is all that is read of it.
//
// Notifies per member, on add, change and removal.
//
// Thread safety: none; the agent's one thread.

#include <cstddef>
#include <map>

#include "framework/L3VrfName.h"
#include "framework/LumetIntfId.h"
#include "framework/VorEntity.h"
#include "framework/VorEntityCollections.h"

namespace UloL3Intf {

class Table : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId intfId = 1;

   using IntfMap = std::map<Lumet::IntfId, L3::VrfName>;

   explicit Table(Vor::String name = "uloL3IntfTable") : Vor::Entity(std::move(name)) {}

   IntfMap const& intf() const { return intf_; }
   // The empty name when absent.
   L3::VrfName intf(Lumet::IntfId const& id) const { return Vor::memberValue(intf_, id); }
   bool intfHas(Lumet::IntfId const& id) const { return intf_.count(id) != 0; }
   std::size_t intfs() const { return intf_.size(); }
   void intfIs(Lumet::IntfId const& id, L3::VrfName const& vrf) {
      if (Vor::memberValueIs(intf_, id, vrf)) memberChanged(intfId, id);
   }
   void intfDel(Lumet::IntfId const& id) {
      Lumet::IntfId const key = id;
      if (intf_.erase(key)) memberChanged(intfId, key);
   }

 private:
   IntfMap intf_;
};

} // namespace UloL3Intf
