#pragma once
// Acl::PortSpec: which TCP/UDP ports an ACL filter matches, and
// Acl::portSpecToRanges, which turns one into inclusive port ranges for
// hardware that matches ranges or value/mask pairs.
//
// A PortSpec is one operator over a list of ports:
//
//   any                 every port (the default; also an empty list)
//   eq    p1 p2 ...     any of the listed ports
//   neq   p1 p2 ...     every port except the listed ones
//   lt    p             ports below p
//   gt    p             ports above p
//   range lo hi         lo..hi inclusive
//
// Text form (stringValue and parse): "any", "eq 80 443", "neq 22",
// "lt 1024", "gt 1023", "range 1024 65535".
//
// Thread safety: plain value; const operations may run concurrently.
//
// Invariants:
//  1. A PortSpec built through the factories or parse has the number of ports
//     its operator takes: none for any, at least one for eq and neq, one for
//     lt and gt, two for range. Port lists that match no port at all (lt 0,
//     gt 65535, range 9 8) can be built; portSpecToRanges refuses them.

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "framework/VorHash.h"

namespace Acl {

using Vor::U16;
using Vor::U32;

class PortSpec {
 public:
   enum Op : Vor::U8 { any = 0, eq, neq, lt, gt, range };

   PortSpec() = default;   // any
   static PortSpec anyPort() { return PortSpec(); }
   static PortSpec eqPorts(std::initializer_list<U16> ports) { return PortSpec(eq, ports); }
   static PortSpec neqPorts(std::initializer_list<U16> ports) { return PortSpec(neq, ports); }
   static PortSpec ltPort(U16 port) { return PortSpec(lt, {port}); }
   static PortSpec gtPort(U16 port) { return PortSpec(gt, {port}); }
   static PortSpec rangePorts(U16 low, U16 high) { return PortSpec(range, {low, high}); }
   // For lists built at run time. REQUIRES: ports fit op (see invariant 1).
   PortSpec(Op op, std::vector<U16> ports);

   // Parses the text form. Returns nullopt for an unknown operator, a port
   // that is not a decimal number 0..65535, or a wrong number of ports.
   static std::optional<PortSpec> parse(std::string_view text);

   Op op() const { return op_; }
   std::vector<U16> const& ports() const { return ports_; }
   bool isAny() const { return op_ == any; }

   friend bool operator==(PortSpec const& a, PortSpec const& b) {
      return a.op_ == b.op_ && a.ports_ == b.ports_;
   }
   // Operator first, then the port lists lexicographically.
   friend bool operator<(PortSpec const& a, PortSpec const& b) {
      if (a.op_ != b.op_) return a.op_ < b.op_;
      return a.ports_ < b.ports_;
   }

   std::string stringValue() const;
   U32 hash(U32 seed = 0) const;

 private:
   Op op_ = any;
   std::vector<U16> ports_;
};

// An inclusive range of a 16-bit field.
struct U16FieldRange {
   U16 low = 0;
   U16 high = 0;
   friend bool operator==(U16FieldRange const&, U16FieldRange const&) = default;
};

// Results of portSpecToRanges below zero.
constexpr int portSpecTooManyRanges = -1;   // the ports need more than maxRanges ranges
constexpr int portSpecMatchesNothing = -2;  // lt 0, gt 65535, range with low > high
constexpr int portSpecMalformed = -3;       // wrong number of ports for the operator

// Fills `ranges` with the ports `portSpec` matches as sorted, disjoint,
// non-adjacent inclusive ranges, and returns how many. Returns 0 when the
// PortSpec matches every port (any, or a list that happens to cover 0..65535):
// `ranges` is then untouched. Returns one of the negative results above on
// error; `ranges` may then hold partial output.
// REQUIRES: `ranges` has room for maxRanges entries.
int portSpecToRanges(U16FieldRange* ranges, int maxRanges, PortSpec const& portSpec);

} // namespace Acl
