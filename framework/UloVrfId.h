#pragma once
// VRF identifiers of the NAT engine: Ulo::VrfId and Ulo::VrfAndIpAddr.
//
// A VrfId is the number the platform gives a VRF. 0 is the id of the default
// VRF and, on any other VRF, means that no id has been assigned yet.
//
// Thread safety: plain values; const operations may run concurrently.

#include <string>
#include <type_traits>

#include "framework/LumetIpAddr.h"
#include "framework/VorHash.h"

namespace Ulo {

using Vor::U32;

class VrfId {
 public:
   constexpr VrfId() = default;
   constexpr VrfId(U32 value) : value_(value) {}   // implicit: ids travel as plain U32 too

   constexpr U32 value() const { return value_; }
   constexpr operator U32() const { return value_; }

   friend constexpr bool operator==(VrfId a, VrfId b) { return a.value_ == b.value_; }
   friend constexpr auto operator<=>(VrfId a, VrfId b) { return a.value_ <=> b.value_; }

   std::string stringValue() const { return std::to_string(value_); }
   U32 hash(U32 seed = 0) const { return Vor::hashIntegral(seed, value_); }

 private:
   U32 value_ = 0;
};

// A next hop or address as seen from one VRF.
class VrfAndIpAddr {
 public:
   constexpr VrfAndIpAddr() = default;
   constexpr VrfAndIpAddr(VrfId vrfId, Lumet::IpAddr ipAddr) : vrfId_(vrfId), ipAddr_(ipAddr) {}

   constexpr VrfId vrfId() const { return vrfId_; }
   constexpr Lumet::IpAddr ipAddr() const { return ipAddr_; }

   friend constexpr bool operator==(VrfAndIpAddr const& a, VrfAndIpAddr const& b) {
      return a.vrfId_ == b.vrfId_ && a.ipAddr_ == b.ipAddr_;
   }
   // VRF first, then address.
   friend constexpr bool operator<(VrfAndIpAddr const& a, VrfAndIpAddr const& b) {
      return a.vrfId_ < b.vrfId_ || (a.vrfId_ == b.vrfId_ && a.ipAddr_ < b.ipAddr_);
   }

   // "<vrfId>/<address>", e.g. "0/10.0.0.1".
   std::string stringValue() const { return vrfId_.stringValue() + "/" + ipAddr_.stringValue(); }
   U32 hash(U32 seed = 0) const {
      return Vor::hashFinish(Vor::hashMix(Vor::hashMix(seed, vrfId_.value()), ipAddr_.value()));
   }

 private:
   VrfId vrfId_;
   Lumet::IpAddr ipAddr_;
};

static_assert(std::is_trivially_copyable_v<VrfId>);
static_assert(std::is_trivially_copyable_v<VrfAndIpAddr>);

} // namespace Ulo
