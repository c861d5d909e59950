#include "framework/UloNextHopMap.h"

#include "framework/VorEntityCollections.h"
#include "framework/VorException.h"

namespace Ulo {

bool NextHopMapConfig::routeResolverRequest(VrfAndIpAddr const& key) const {
   return Vor::memberValue(routeResolverRequest_, key);
}

void NextHopMapConfig::routeResolverRequestIs(VrfAndIpAddr const& key, bool value) {
   if (Vor::memberValueIs(routeResolverRequest_, key, value)) memberChanged(routeResolverRequestId, key);
}

void NextHopMapConfig::routeResolverRequestDel(VrfAndIpAddr const& key) {
   VrfAndIpAddr const k = key;
   if (routeResolverRequest_.erase(k)) memberChanged(routeResolverRequestId, k);
}

Vor::Ptr<NatNextHopInfo> NextHopMapStatus::resolvedAddr(VrfAndIpAddr const& key) const {
   return Vor::memberValue(resolvedAddr_, key);
}

void NextHopMapStatus::resolvedAddrIs(VrfAndIpAddr const& key, Vor::Ptr<NatNextHopInfo> const& info) {
   if (!info) Vor::throwMutatorArgNullPointerException("resolvedAddrIs");
   if (Vor::memberValueIs(resolvedAddr_, key, info)) memberChanged(resolvedAddrId, key);
}

void NextHopMapStatus::resolvedAddrDel(VrfAndIpAddr const& key) {
   Vor::memberEntityDel(resolvedAddr_, key, [this](VrfAndIpAddr const& k) { memberChanged(resolvedAddrId, k); });
}

} // namespace Ulo
