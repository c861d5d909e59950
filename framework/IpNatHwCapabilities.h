#pragma once
// Ip::Nat::HwCapabilities: what the forwarding chip can do for NAT, as the
// platform announces it. The engine reads it; the platform sets its flags,
// usually by name through the generic attribute interface:
//
//   caps->setByName("natCountersSupported", "true");
//
// Every flag is false until set; by name each reads "true" or "false" and
// accepts "true", "false", "1" or "0". A setter notifies the attached
// reactors only when the value changes.
//
// Thread safety: none; the agent's one thread.

#include "framework/VorAttribute.h"
#include "framework/VorEntity.h"

namespace Ip::Nat {

class HwCapabilities : public Vor::Entity {
   VOR_ENTITY(HwCapabilities, "Ip::Nat::HwCapabilities")
   // Dynamic connections are handled at all.
   VOR_SCALAR(bool, dynamicNatSupported, 1)
   // Twice groups are polled for dynamic activity.
   VOR_SCALAR(bool, dynamicTwiceNatSupported, 2)
   // A destination translation needs a resolved next hop.
   VOR_SCALAR(bool, destinationNatNextHopNeeded, 3)
   // Counters are polled.
   VOR_SCALAR(bool, natCountersSupported, 4)
   // Outside-VRF translation exists.
   VOR_SCALAR(bool, natOutsideVrfSupported, 5)
   // Static VRF hop translation exists.
   VOR_SCALAR(bool, natVrfHopStaticSupported, 6)

 public:
   explicit HwCapabilities(Vor::String name = "hwCapabilities") : Vor::Entity(std::move(name)) {}
};

} // namespace Ip::Nat
