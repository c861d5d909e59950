#include "framework/IpNatHwCapabilities.h"

#include <optional>
#include <string>

namespace Ip::Nat {

namespace {

std::optional<bool> parseFlag(std::string const& text) {
   if (text == "true" || text == "1") return true;
   if (text == "false" || text == "0") return false;
   return std::nullopt;
}

// Describes one flag by its getter and setter.
Vor::AttributeDescription flag(char const* name, Vor::AttributeId id,
                               bool (HwCapabilities::*get)() const,
                               void (HwCapabilities::*set)(bool)) {
   Vor::AttributeDescription a;
   a.name = name;
   a.id = id;
   a.get = [get](Vor::Entity const& e) {
      return std::string((static_cast<HwCapabilities const&>(e).*get)() ? "true" : "false");
   };
   a.set = [set, name](Vor::Entity& e, std::string const& text) -> std::optional<std::string> {
      std::optional<bool> v = parseFlag(text);
      if (!v) {
         return "invalid value '" + text + "' for " + name + ": expected true, false, 1 or 0";
      }
      (static_cast<HwCapabilities&>(e).*set)(*v);
      return std::nullopt;
   };
   return a;
}

} // namespace

Vor::TypeDescription const& HwCapabilities::typeDescription() {
   static Vor::TypeDescription const type = [] {
      Vor::TypeDescription t("Ip::Nat::HwCapabilities");
      using H = HwCapabilities;
      t.attributeIs(flag("dynamicNatSupported", dynamicNatSupportedId, &H::dynamicNatSupported,
                         &H::dynamicNatSupportedIs));
      t.attributeIs(flag("dynamicTwiceNatSupported", dynamicTwiceNatSupportedId,
                         &H::dynamicTwiceNatSupported, &H::dynamicTwiceNatSupportedIs));
      t.attributeIs(flag("destinationNatNextHopNeeded", destinationNatNextHopNeededId,
                         &H::destinationNatNextHopNeeded, &H::destinationNatNextHopNeededIs));
      t.attributeIs(flag("natCountersSupported", natCountersSupportedId, &H::natCountersSupported,
                         &H::natCountersSupportedIs));
      t.attributeIs(flag("natOutsideVrfSupported", natOutsideVrfSupportedId,
                         &H::natOutsideVrfSupported, &H::natOutsideVrfSupportedIs));
      t.attributeIs(flag("natVrfHopStaticSupported", natVrfHopStaticSupportedId,
                         &H::natVrfHopStaticSupported, &H::natVrfHopStaticSupportedIs));
      return t;
   }();
   return type;
}

Vor::TypeDescription const* HwCapabilities::fwkType() const { return &typeDescription(); }

} // namespace Ip::Nat
