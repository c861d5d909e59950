#pragma once
// Ip::Nat::HwCapabilities: what the forwarding chip can do for NAT, as the
// platform announces it. The engine reads it; the platform sets its flags,
// usually by name through the generic attribute interface:
//
//   caps->setByName("natCountersSupported", "true");
//
// Every flag is false until set. A setter notifies the attached reactors only
// when the value changes.
//
// Thread safety: none; the agent's one thread.

#include "framework/VorEntity.h"

namespace Ip::Nat {

class HwCapabilities : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId dynamicNatSupportedId = 1;
   static constexpr Vor::AttributeId dynamicTwiceNatSupportedId = 2;
   static constexpr Vor::AttributeId destinationNatNextHopNeededId = 3;
   static constexpr Vor::AttributeId natCountersSupportedId = 4;
   static constexpr Vor::AttributeId natOutsideVrfSupportedId = 5;
   static constexpr Vor::AttributeId natVrfHopStaticSupportedId = 6;

   explicit HwCapabilities(Vor::String name = "hwCapabilities") : Vor::Entity(std::move(name)) {}

   // Dynamic connections are handled at all.
   bool dynamicNatSupported() const { return dynamicNatSupported_; }
   void dynamicNatSupportedIs(bool v) { scalarIs(dynamicNatSupported_, v, dynamicNatSupportedId); }
   // Twice groups are polled for dynamic activity.
   bool dynamicTwiceNatSupported() const { return dynamicTwiceNatSupported_; }
   void dynamicTwiceNatSupportedIs(bool v) {
      scalarIs(dynamicTwiceNatSupported_, v, dynamicTwiceNatSupportedId);
   }
   // A destination translation needs a resolved next hop.
   bool destinationNatNextHopNeeded() const { return destinationNatNextHopNeeded_; }
   void destinationNatNextHopNeededIs(bool v) {
      scalarIs(destinationNatNextHopNeeded_, v, destinationNatNextHopNeededId);
   }
   // Counters are polled.
   bool natCountersSupported() const { return natCountersSupported_; }
   void natCountersSupportedIs(bool v) { scalarIs(natCountersSupported_, v, natCountersSupportedId); }
   // Outside-VRF translation exists.
   bool natOutsideVrfSupported() const { return natOutsideVrfSupported_; }
   void natOutsideVrfSupportedIs(bool v) {
      scalarIs(natOutsideVrfSupported_, v, natOutsideVrfSupportedId);
   }
   // Static VRF hop translation exists.
   bool natVrfHopStaticSupported() const { return natVrfHopStaticSupported_; }
   void natVrfHopStaticSupportedIs(bool v) {
      scalarIs(natVrfHopStaticSupported_, v, natVrfHopStaticSupportedId);
   }

   // The six flags by name; each reads "true" or "false" and accepts
   // "true", "false", "1" or "0".
   Vor::TypeDescription const* fwkType() const override;
   static Vor::TypeDescription const& typeDescription();

 private:
   bool dynamicNatSupported_ = false;
   bool dynamicTwiceNatSupported_ = false;
   bool destinationNatNextHopNeeded_ = false;
   bool natCountersSupported_ = false;
   bool natOutsideVrfSupported_ = false;
   bool natVrfHopStaticSupported_ = false;
};

} // namespace Ip::Nat
