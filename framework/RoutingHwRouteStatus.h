#pragma once
// The hardware routing side as the NAT engine sees it:
// Routing::Hardware::RouteStatus lists the VRFs that are in hardware, each a
// Routing::Hardware::VrfStatus with the id the platform gave it. A VRF other
// than "default" whose vrfId is 0 has no id yet.
//
// Both notify on change only: vrfStatus per member with a pointer to the
// L3::VrfName key, vrfId as a scalar.
//
// Thread safety: none; the agent's one thread.

#include <cstddef>
#include <map>

#include "framework/L3VrfName.h"
#include "framework/UloVrfId.h"
#include "framework/VorEntity.h"
#include "framework/VorPtr.h"

namespace Routing::Hardware {

class VrfStatus : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId vrfIdId = 1;

   explicit VrfStatus(L3::VrfName const& name) : Vor::Entity(name.value()), vrfName_(name) {}

   L3::VrfName const& vrfName() const { return vrfName_; }
   Ulo::VrfId vrfId() const { return vrfId_; }
   void vrfIdIs(Ulo::VrfId v) { scalarIs(vrfId_, v, vrfIdId); }

 private:
   L3::VrfName const vrfName_;
   Ulo::VrfId vrfId_;
};

class RouteStatus : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId vrfStatusId = 1;

   using VrfStatusMap = std::map<L3::VrfName, Vor::Ptr<VrfStatus>>;

   explicit RouteStatus(Vor::String name = "routeStatus") : Vor::Entity(std::move(name)) {}

   VrfStatusMap const& vrfStatus() const { return vrfStatus_; }
   // Null when absent.
   Vor::Ptr<VrfStatus> vrfStatus(L3::VrfName const& name) const;
   bool vrfStatusHas(L3::VrfName const& name) const { return vrfStatus_.count(name) != 0; }
   std::size_t vrfStatuss() const { return vrfStatus_.size(); }
   // Returns the existing member or makes one with vrfId 0.
   Vor::Ptr<VrfStatus> vrfStatusIs(L3::VrfName const& name);
   void vrfStatusDel(L3::VrfName const& name);

 private:
   VrfStatusMap vrfStatus_;
};

} // namespace Routing::Hardware
