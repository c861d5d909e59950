#pragma once
// L3::VrfName: the name of a VRF, at most 100 bytes. The VRF named "default"
// is the default VRF.
//
// Thread safety: plain value; const operations may run concurrently.
//
// Invariants:
//  1. value().size() <= maxLength.

#include <string>
#include <string_view>

#include "framework/VorString.h"

namespace L3 {

class VrfName {
 public:
   static constexpr std::size_t maxLength = 100;

   VrfName() = default;
   // Raises Vor::RangeException with
   // "VrfName::value::bytes > VrfName::maxLength not allowed" for a name
   // longer than maxLength bytes.
   VrfName(Vor::String const& value);
   VrfName(char const* value) : VrfName(Vor::String(value)) {}
   VrfName(std::string const& value) : VrfName(Vor::String(value)) {}

   static VrfName defaultVrf() { return VrfName("default"); }

   Vor::String const& value() const { return value_; }
   bool empty() const { return value_.empty(); }
   bool isDefault() const { return value_ == "default"; }

   friend bool operator==(VrfName const& a, VrfName const& b) { return a.value_ == b.value_; }
   friend bool operator<(VrfName const& a, VrfName const& b) { return a.value_ < b.value_; }

   std::string stringValue() const { return value_.stdString(); }
   Vor::U32 hash(Vor::U32 seed = 0) const { return value_.hash(seed); }

 private:
   Vor::String value_;
};

} // namespace L3
