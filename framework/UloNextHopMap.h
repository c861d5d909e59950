#pragma once
// The two entities through which the NAT engine talks to the route resolver:
//
//   NextHopMapConfig   requests, written by the engine: one member per
//                      (VRF, address) whose next hop must be resolved.
//   NextHopMapStatus   answers, written by the resolver: the resolved next
//                      hop of each requested address, as a NatNextHopInfo
//                      (a NatNextHopId when the hardware can use it).
//
// Both notify per member, on add and on remove, with a pointer to the
// Ulo::VrfAndIpAddr key; a mutator that changes nothing notifies nobody.
//
// Thread safety: none; the agent's one thread.

#include <cstddef>

#include "framework/UloNatNextHopInfo.h"
#include "framework/UloVrfId.h"
#include "framework/VorEntity.h"
#include "framework/VorHashMap2018.h"
#include "framework/VorPtr.h"

namespace Ulo {

class NextHopMapConfig : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId routeResolverRequestId = 1;

   using RouteResolverRequestMap = Vor::HashMap2018<VrfAndIpAddr, bool>;

   explicit NextHopMapConfig(Vor::String name = "nhMapConfig") : Vor::Entity(std::move(name)) {}

   RouteResolverRequestMap const& routeResolverRequest() const { return routeResolverRequest_; }
   // False when absent.
   bool routeResolverRequest(VrfAndIpAddr const& key) const;
   bool routeResolverRequestHas(VrfAndIpAddr const& key) const {
      return routeResolverRequest_.contains(key);
   }
   std::size_t routeResolverRequests() const { return routeResolverRequest_.size(); }
   void routeResolverRequestIs(VrfAndIpAddr const& key, bool value);
   void routeResolverRequestDel(VrfAndIpAddr const& key);

 private:
   RouteResolverRequestMap routeResolverRequest_;
};

class NextHopMapStatus : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId resolvedAddrId = 1;

   using ResolvedAddrMap = Vor::HashMap2018<VrfAndIpAddr, Vor::Ptr<NatNextHopInfo>>;

   explicit NextHopMapStatus(Vor::String name = "nhMapStatus") : Vor::Entity(std::move(name)) {}

   ResolvedAddrMap const& resolvedAddr() const { return resolvedAddr_; }
   // Null when absent.
   Vor::Ptr<NatNextHopInfo> resolvedAddr(VrfAndIpAddr const& key) const;
   bool resolvedAddrHas(VrfAndIpAddr const& key) const { return resolvedAddr_.contains(key); }
   std::size_t resolvedAddrs() const { return resolvedAddr_.size(); }
   // Sets the answer for `key`. Replacing the answer by another object is a
   // change (the resolver reports a new next hop by a new object); setting
   // the same object again is not. A null `info` raises
   // Vor::NullPointerException.
   void resolvedAddrIs(VrfAndIpAddr const& key, Vor::Ptr<NatNextHopInfo> const& info);
   void resolvedAddrDel(VrfAndIpAddr const& key);

 private:
   ResolvedAddrMap resolvedAddr_;
};

} // namespace Ulo
