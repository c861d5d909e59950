#include "framework/UloNextHopMap.h"

#include "framework/VorException.h"

namespace Ulo {

bool NextHopMapConfig::routeResolverRequest(VrfAndIpAddr const& key) const {
   bool const* v = routeResolverRequest_.find(key);
   return v ? *v : false;
}

void NextHopMapConfig::routeResolverRequestIs(VrfAndIpAddr const& key, bool value) {
   if (bool* v = routeResolverRequest_.find(key)) {
      if (*v == value) return;
      *v = value;
   } else {
      routeResolverRequest_.insert(key, value);
   }
   memberChanged(routeResolverRequestId, key);
}

void NextHopMapConfig::routeResolverRequestDel(VrfAndIpAddr const& key) {
   VrfAndIpAddr const k = key;
   if (routeResolverRequest_.erase(k)) memberChanged(routeResolverRequestId, k);
}

Vor::Ptr<NatNextHopInfo> NextHopMapStatus::resolvedAddr(VrfAndIpAddr const& key) const {
   Vor::Ptr<NatNextHopInfo> const* v = resolvedAddr_.find(key);
   return v ? *v : Vor::Ptr<NatNextHopInfo>();
}

void NextHopMapStatus::resolvedAddrIs(VrfAndIpAddr const& key, Vor::Ptr<NatNextHopInfo> const& info) {
   if (!info) Vor::throwMutatorArgNullPointerException("resolvedAddrIs");
   if (Vor::Ptr<NatNextHopInfo>* v = resolvedAddr_.find(key)) {
      if (*v == info) return;
      *v = info;
   } else {
      resolvedAddr_.insert(key, info);
   }
   memberChanged(resolvedAddrId, key);
}

void NextHopMapStatus::resolvedAddrDel(VrfAndIpAddr const& key) {
   VrfAndIpAddr const k = key;
   Vor::Ptr<NatNextHopInfo> const gone = resolvedAddr(k);
   if (resolvedAddr_.erase(k)) memberChanged(resolvedAddrId, k);
}

} // namespace Ulo
