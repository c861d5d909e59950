#pragma once
// What the route resolver answers for a next hop, as the NAT engine and the
// hardware layer read it:
//
//   NatNextHopInfo   any answer, keyed by the next hop's VRF and address
//   NatNextHopId     the answer the hardware can use: a next hop id
//
// A platform facility: the resolver builds these and hands them out through
// NextHopMapStatus (UloNextHopMap.h).
//
// Thread safety: none; the agent's one thread.

#include "framework/UloVrfId.h"
#include "framework/VorEntity.h"
#include "framework/VorPtr.h"

namespace Ulo {

// What the route resolver answers for one next hop. The hardware layer only
// understands NatNextHopId; any other kind of answer gives no next hop id.
class NatNextHopInfo : public Vor::Entity {
 public:
   explicit NatNextHopInfo(VrfAndIpAddr const& key) : key_(key) {}
   VrfAndIpAddr const& key() const { return key_; }

 protected:
   ~NatNextHopInfo() override = default;

 private:
   VrfAndIpAddr const key_;
};

class NatNextHopId : public NatNextHopInfo {
 public:
   enum Attribute : Vor::AttributeId { nextHopIdAttribute = 1 };

   explicit NatNextHopId(VrfAndIpAddr const& key) : NatNextHopInfo(key) {}
   Vor::U64 nextHopId() const { return nextHopId_; }
   // Notifies only on a change.
   void nextHopIdIs(Vor::U64 v) { scalarIs(nextHopId_, v, nextHopIdAttribute); }

 private:
   Vor::U64 nextHopId_ = 0;
};

Vor::Ptr<NatNextHopId> natNextHopIdFactory(VrfAndIpAddr const& key);

} // namespace Ulo
