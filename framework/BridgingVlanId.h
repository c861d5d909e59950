#pragma once
// Bridging::VlanId: a VLAN number, 1 to 4094.
//
// Thread safety: plain value; const operations may run concurrently.
//
// Invariants:
//  1. min <= value() <= max; there is no VlanId 0.

#include <string>

#include "framework/VorHash.h"

namespace Bridging {

class VlanId {
 public:
   static constexpr Vor::U16 min = 1;
   static constexpr Vor::U16 max = 4094;

   // Raises Vor::RangeException with "VlanId::value < 1 or > 4094 not
   // allowed" outside min..max. Implicit, so that a U16 can be handed where a
   // VlanId is wanted and is checked on the way.
   VlanId(Vor::U32 value);

   Vor::U16 value() const { return value_; }

   friend bool operator==(VlanId a, VlanId b) { return a.value_ == b.value_; }
   friend auto operator<=>(VlanId a, VlanId b) { return a.value_ <=> b.value_; }

   std::string stringValue() const { return std::to_string(value_); }
   Vor::U32 hash(Vor::U32 seed = 0) const { return Vor::hashIntegral(seed, value_); }

 private:
   Vor::U16 value_;
};

} // namespace Bridging
