#pragma once
// ACL values of the NAT hardware layer.
//
// NatAclId: the number by which a hardware key names the ACL of its rule.
//
// Thread safety: plain values; const operations may run concurrently.
//
// Invariants:
//  1. NatAclId 0 means "no ACL"; no ACL name is ever given id 0.

#include <string>
#include <type_traits>

#include "framework/VorHash.h"

namespace Ulo {

using Vor::U16;
using Vor::U32;
using Vor::U8;

// A 32-bit ACL number; stored inside hardware keys in shared memory.
class NatAclId {
 public:
   constexpr NatAclId() = default;
   constexpr explicit NatAclId(U32 value) : value_(value) {}

   constexpr U32 value() const { return value_; }
   constexpr explicit operator bool() const { return value_ != 0; }

   friend constexpr bool operator==(NatAclId a, NatAclId b) { return a.value_ == b.value_; }
   friend constexpr auto operator<=>(NatAclId a, NatAclId b) { return a.value_ <=> b.value_; }

   std::string stringValue() const { return std::to_string(value_); }
   U32 hash(U32 seed = 0) const { return Vor::hashIntegral(seed, value_); }

 private:
   U32 value_ = 0;
};

static_assert(sizeof(NatAclId) == 4 && std::is_trivially_copyable_v<NatAclId>);

} // namespace Ulo
