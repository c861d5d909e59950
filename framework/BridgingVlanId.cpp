#include "framework/BridgingVlanId.h"

#include "framework/VorException.h"

namespace Bridging {

VlanId::VlanId(Vor::U32 value) : value_(static_cast<Vor::U16>(value)) {
   if (value < min || value > max) Vor::throwRangeException("VlanId::value < 1 or > 4094 not allowed");
}

} // namespace Bridging
