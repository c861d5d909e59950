#include "framework/UloNatNextHopInfo.h"

namespace Ulo {

Vor::Ptr<NatNextHopId> natNextHopIdFactory(VrfAndIpAddr const& key) {
   return Vor::Ptr<NatNextHopId>(new NatNextHopId(key));
}

} // namespace Ulo
