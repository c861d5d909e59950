#include "framework/RoutingHwRouteStatus.h"

#include "framework/VorEntityCollections.h"

namespace Routing::Hardware {

Vor::Ptr<VrfStatus> RouteStatus::vrfStatus(L3::VrfName const& name) const {
   return Vor::memberValue(vrfStatus_, name);
}

Vor::Ptr<VrfStatus> RouteStatus::vrfStatusIs(L3::VrfName const& name) {
   return Vor::memberEntityIs(
      vrfStatus_, name, [](L3::VrfName const& k) { return Vor::Ptr<VrfStatus>(new VrfStatus(k)); },
      [this](L3::VrfName const& k) { memberChanged(vrfStatusId, k); });
}

void RouteStatus::vrfStatusDel(L3::VrfName const& name) {
   Vor::memberEntityDel(vrfStatus_, name, [this](L3::VrfName const& k) { memberChanged(vrfStatusId, k); });
}

} // namespace Routing::Hardware
