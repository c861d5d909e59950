#pragma once
// Interface identifiers: Lumet::IntfId and the NAT profile queries of
// Lumet::NatIntfId.
//
// An IntfId is a name such as "Ethernet3", "Ethernet3/1", "Vlan10" or
// "Port-Channel5" held as one 64-bit number, so that it compares, hashes and
// sits in shared memory as cheaply as an integer. The number ("intId") is:
//
//   bits 63..56  kind: 0 none, 1 Ethernet, 2 Port-Channel, 3 Vlan, 4 Loopback,
//                5 Management, 6 Tunnel, 7 NatProfile
//   bits 55..48  zero
//   bits 47..32  first number of the name, plus one
//   bits 31..16  second number ("Ethernet3/1"), plus one; 0 when absent
//   bits 15..0   third number ("Ethernet3/1/2"), plus one; 0 when absent
//
// Storing each number plus one keeps "absent" apart from 0, and makes the
// integer order the natural order of names: Ethernet2 < Ethernet3 <
// Ethernet3/1 < Ethernet3/2 < Ethernet10 < Port-Channel1 < Vlan1. Each number
// is therefore 0..65534. Only Ethernet and Management names take the second
// and third numbers.
//
// A NAT profile is an interface of its own kind, named "NatProfile<n>": the
// profile number n is the first number, so profileId() is one shift away
// and no plain interface can be mistaken for a profile.
//
// The encoding is stored in the shared-memory hardware shadow (egress
// interfaces of multicast entries); changing it invalidates table files.
//
// Thread safety: plain value; const operations may run concurrently.
//
// Invariants:
//  1. The default IntfId (intId 0, kind none) names no interface; its text is
//     empty.
//  2. Every IntfId built from a name gives that name back from stringValue().

#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "framework/VorHash.h"

namespace Lumet {

using Vor::U16;
using Vor::U32;
using Vor::U64;
using Vor::U8;

class IntfId {
 public:
   enum Kind : U8 {
      none = 0,
      ethernet = 1,
      portChannel = 2,
      vlan = 3,
      loopback = 4,
      management = 5,
      tunnel = 6,
      natProfile = 7,
   };
   static constexpr U32 maxNumber = 65534;

   constexpr IntfId() = default;
   // Builds the identifier of `name`.
   // REQUIRES: parse(name) succeeds; otherwise raises Vor::RangeException
   // with "IntfId::name <name> not allowed".
   explicit IntfId(std::string_view name);
   IntfId(char const* name) : IntfId(std::string_view(name)) {}

   // Parses an interface name. Returns nullopt for an unknown prefix, a
   // missing or non-decimal number, a number over maxNumber, a leading zero
   // ("Ethernet03", which would not print back the same), or slashes on a
   // kind that has only one number.
   static std::optional<IntfId> parse(std::string_view name);

   // Rebuilds an identifier from its integer form (as read from a record).
   // No check: an integer that no name produces prints as "IntfId(0x...)".
   static constexpr IntfId fromIntId(U64 intId) {
      IntfId id;
      id.intId_ = intId;
      return id;
   }
   // REQUIRES: kind is not none, numbers are at most maxNumber; `second` and
   // `third` are -1 when absent.
   static IntfId make(Kind kind, U32 first, int second = -1, int third = -1);

   constexpr U64 intId() const { return intId_; }
   constexpr Kind kind() const { return static_cast<Kind>(intId_ >> 56); }
   // The first number of the name: 3 for "Ethernet3/1", 10 for "Vlan10".
   // REQUIRES: kind() is not none.
   constexpr U32 number() const { return U32((intId_ >> 32) & 0xffff) - 1; }
   constexpr bool isDefault() const { return intId_ == 0; }

   friend constexpr bool operator==(IntfId const& a, IntfId const& b) { return a.intId_ == b.intId_; }
   friend constexpr auto operator<=>(IntfId const& a, IntfId const& b) { return a.intId_ <=> b.intId_; }

   std::string stringValue() const;   // the name; "" for the default
   U32 hash(U32 seed = 0) const { return Vor::hashIntegral(seed, intId_); }

 private:
   U64 intId_ = 0;
};

static_assert(sizeof(IntfId) == 8 && alignof(IntfId) == 8);
static_assert(std::is_trivially_copyable_v<IntfId>);

namespace NatIntfId {

// True when `intf` names a NAT profile rather than an interface.
constexpr bool isNatProfileIntfId(IntfId const& intf) { return intf.kind() == IntfId::natProfile; }
// The profile number of a NAT profile identifier.
// REQUIRES: isNatProfileIntfId(intf).
U16 profileId(IntfId const& intf);
// The identifier of NAT profile `profileId` ("NatProfile<profileId>").
// REQUIRES: profileId <= IntfId::maxNumber.
IntfId natProfileIntfId(U16 profileId);

} // namespace NatIntfId

} // namespace Lumet

template <>
struct std::hash<Lumet::IntfId> {
   std::size_t operator()(Lumet::IntfId const& id) const noexcept { return id.hash(); }
};
