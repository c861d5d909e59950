#pragma once
// Lumet::ConnTuple: the five-tuple of one connection (source and destination
// address and port, protocol).
//
// Text form, read by operators and produced by parse's counterpart:
//   "10.0.0.1:1024 -> 20.0.0.1:80 proto 6"
//
// Layout: srcAddr (6 bytes), dstAddr (6), protocol (1), one byte of padding;
// alignment 2. The tuple is a key of the dynamic connection table in shared
// memory, so this is part of that format.
//
// Thread safety: plain value; const operations may run concurrently.

#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "framework/LumetIpAddr.h"

namespace Lumet {

class ConnTuple {
 public:
   constexpr ConnTuple() = default;
   constexpr ConnTuple(IpAndPort srcAddr, IpAndPort dstAddr, U8 protocol)
       : srcAddr_(srcAddr), dstAddr_(dstAddr), protocol_(protocol) {}

   // Parses the text form above. Whitespace between the five parts may be
   // any run of spaces or tabs; each address must parse as an IpAndPort and
   // the protocol must be 0..255. Returns nullopt otherwise.
   static std::optional<ConnTuple> parse(std::string_view text);

   constexpr IpAndPort srcAddr() const { return srcAddr_; }
   constexpr IpAndPort dstAddr() const { return dstAddr_; }
   constexpr U8 protocol() const { return protocol_; }
   void srcAddrIs(IpAndPort v) { srcAddr_ = v; }
   void dstAddrIs(IpAndPort v) { dstAddr_ = v; }
   void protocolIs(U8 v) { protocol_ = v; }

   friend constexpr bool operator==(ConnTuple const& a, ConnTuple const& b) {
      return a.srcAddr_ == b.srcAddr_ && a.dstAddr_ == b.dstAddr_ && a.protocol_ == b.protocol_;
   }
   // srcAddr, then dstAddr, then protocol.
   friend constexpr bool operator<(ConnTuple const& a, ConnTuple const& b) {
      if (!(a.srcAddr_ == b.srcAddr_)) return a.srcAddr_ < b.srcAddr_;
      if (!(a.dstAddr_ == b.dstAddr_)) return a.dstAddr_ < b.dstAddr_;
      return a.protocol_ < b.protocol_;
   }

   std::string stringValue() const;
   U32 hash(U32 seed = 0) const {
      U32 h = Vor::hashMix(seed, srcAddr_.addrPortHash());
      h = Vor::hashMix(h, dstAddr_.addrPortHash());
      return Vor::hashFinish(Vor::hashMix(h, protocol_));
   }

 private:
   IpAndPort srcAddr_;
   IpAndPort dstAddr_;
   U8 protocol_ = 0;
};

static_assert(sizeof(ConnTuple) == 14 && std::is_trivially_copyable_v<ConnTuple>);

} // namespace Lumet

template <>
struct std::hash<Lumet::ConnTuple> {
   std::size_t operator()(Lumet::ConnTuple const& t) const noexcept { return t.hash(); }
};
