#include "framework/RoutingHwRouteStatus.h"

namespace Routing::Hardware {

Vor::Ptr<VrfStatus> RouteStatus::vrfStatus(L3::VrfName const& name) const {
   auto it = vrfStatus_.find(name);
   return it == vrfStatus_.end() ? Vor::Ptr<VrfStatus>() : it->second;
}

Vor::Ptr<VrfStatus> RouteStatus::vrfStatusIs(L3::VrfName const& name) {
   auto it = vrfStatus_.find(name);
   if (it != vrfStatus_.end()) return it->second;
   Vor::Ptr<VrfStatus> member(new VrfStatus(name));
   vrfStatus_.emplace(name, member);
   memberChanged(vrfStatusId, name);
   return member;
}

void RouteStatus::vrfStatusDel(L3::VrfName const& name) {
   L3::VrfName const key = name;
   auto it = vrfStatus_.find(key);
   if (it == vrfStatus_.end()) return;
   // Alive until the reactors have heard of the removal.
   Vor::Ptr<VrfStatus> const gone = it->second;
   vrfStatus_.erase(it);
   memberChanged(vrfStatusId, key);
}

} // namespace Routing::Hardware
