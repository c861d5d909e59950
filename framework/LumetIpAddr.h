#pragma once
// IPv4 address values: Lumet::IpAddr, Lumet::IpAndPort,
// Lumet::IpAddrWithFullMask.
//
// These are stored byte for byte inside records of the shared-memory hardware
// shadow, so their sizes and alignments are part of that table's file format:
//
//   IpAddr              4 bytes, alignment 1: the address in network byte
//                       order (most significant byte first).
//   IpAndPort           6 bytes, alignment 2: address, then port (native U16).
//   IpAddrWithFullMask  8 bytes, alignment 4: address, then mask (native U32,
//                       host order, 255.0.0.0 is 0xff000000).
//
// Keeping IpAddr at alignment 1 is what lets IpAndPort be 6 bytes without any
// packing attribute, and therefore lets four of them sit back to back in a
// hardware key.
//
// Thread safety: plain values; const operations may run concurrently.
//
// Invariants:
//  1. All three types are trivially copyable and hold no pointers.
//  2. An IpGenAddr of family ipv4 has zero in its bytes 4..15.
//  3. The default value of each is all zero; the zero address means "no
//     address" and the default IpAddrWithFullMask is the default filter
//     address.

#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "framework/VorHash.h"

namespace Lumet {

using Vor::U16;
using Vor::U32;
using Vor::U8;

class IpAddr {
 public:
   constexpr IpAddr() = default;
   // `hostValue` is the address as a number: 10.0.0.1 is 0x0a000001.
   constexpr explicit IpAddr(U32 hostValue)
       : bytes_{static_cast<U8>(hostValue >> 24), static_cast<U8>(hostValue >> 16),
                static_cast<U8>(hostValue >> 8), static_cast<U8>(hostValue)} {}
   constexpr IpAddr(U8 a, U8 b, U8 c, U8 d) : bytes_{a, b, c, d} {}

   // Parses dotted-quad text ("10.0.0.1"). Returns nullopt on anything else:
   // fewer or more than four parts, a part over 255, empty parts, signs,
   // spaces, more than three digits in a part.
   static std::optional<IpAddr> parse(std::string_view text);

   // The address as a number (host order).
   constexpr U32 value() const {
      return (U32(bytes_[0]) << 24) | (U32(bytes_[1]) << 16) | (U32(bytes_[2]) << 8) | bytes_[3];
   }
   constexpr bool isZero() const { return value() == 0; }
   // 224.0.0.0/4.
   constexpr bool isMulticast() const { return (bytes_[0] & 0xf0) == 0xe0; }

   friend constexpr bool operator==(IpAddr const& a, IpAddr const& b) { return a.value() == b.value(); }
   // Numeric order: 9.255.255.255 < 10.0.0.0.
   friend constexpr auto operator<=>(IpAddr const& a, IpAddr const& b) { return a.value() <=> b.value(); }

   std::string stringValue() const;   // "10.0.0.1"
   U32 hash(U32 seed = 0) const { return Vor::hashIntegral(seed, value()); }

 private:
   U8 bytes_[4] = {0, 0, 0, 0};   // network byte order
};

class IpAndPort {
 public:
   constexpr IpAndPort() = default;
   constexpr IpAndPort(IpAddr ip, U16 port) : ip_(ip), port_(port) {}

   // Parses "10.0.0.1:80". The port part is required and must be 0..65535.
   static std::optional<IpAndPort> parse(std::string_view text);

   constexpr IpAddr ip() const { return ip_; }
   constexpr U16 port() const { return port_; }
   void ipIs(IpAddr ip) { ip_ = ip; }
   void portIs(U16 port) { port_ = port; }
   // True unless both address and port are zero.
   constexpr bool isSet() const { return !ip_.isZero() || port_ != 0; }

   friend constexpr bool operator==(IpAndPort const& a, IpAndPort const& b) {
      return a.ip_ == b.ip_ && a.port_ == b.port_;
   }
   // Address first, then port.
   friend constexpr bool operator<(IpAndPort const& a, IpAndPort const& b) {
      return a.ip_ < b.ip_ || (a.ip_ == b.ip_ && a.port_ < b.port_);
   }

   std::string stringValue() const;   // "10.0.0.1:80"

   // The unseeded address-and-port hash that hardware keys fold in. Its
   // steps are fixed: the shared-memory table stores hashes derived from it,
   // so a change here invalidates every table file.
   constexpr U32 addrPortHash() const {
      U32 x = (U32(port_) ^ ip_.value()) * 32767u - 1u;
      x = (x ^ (x >> 12)) * 5u;
      x = (x ^ (x >> 4)) * 2057u;
      return x ^ (x >> 16);
   }
   U32 hash(U32 seed = 0) const { return Vor::hashFinish(Vor::hashMix(seed, addrPortHash())); }

 private:
   IpAddr ip_;
   U16 port_ = 0;
};

class IpAddrWithFullMask {
 public:
   constexpr IpAddrWithFullMask() = default;
   // `mask` is any 32-bit mask, contiguous or not, in host order.
   constexpr IpAddrWithFullMask(IpAddr ip, U32 mask) : ip_(ip), mask_(mask) {}

   constexpr IpAddr ip() const { return ip_; }
   constexpr U32 mask() const { return mask_; }
   void ipIs(IpAddr ip) { ip_ = ip; }
   void maskIs(U32 mask) { mask_ = mask; }
   constexpr bool isDefault() const { return ip_.isZero() && mask_ == 0; }

   // The number of one bits of the mask. For a contiguous mask this is the
   // usual prefix length; a non-contiguous mask prints its bit count too,
   // which is what the operator's display has always shown.
   int prefixLength() const { return __builtin_popcount(mask_); }
   bool isContiguous() const { return (mask_ & (~mask_ >> 1)) == 0 && (mask_ == 0 || (mask_ >> 31)); }

   friend constexpr bool operator==(IpAddrWithFullMask const& a, IpAddrWithFullMask const& b) {
      return a.ip_ == b.ip_ && a.mask_ == b.mask_;
   }
   // Address first, then mask.
   friend constexpr bool operator<(IpAddrWithFullMask const& a, IpAddrWithFullMask const& b) {
      return a.ip_ < b.ip_ || (a.ip_ == b.ip_ && a.mask_ < b.mask_);
   }

   std::string stringValue() const;   // "10.0.0.0/8"
   U32 hash(U32 seed = 0) const {
      return Vor::hashFinish(Vor::hashMix(Vor::hashMix(seed, ip_.value()), mask_));
   }

 private:
   IpAddr ip_;
   U32 mask_ = 0;
};

// A generic address: an IPv4 address or an IPv6 address, or the zero address
// of a family. Multicast routing keys use it; this library only ever builds
// IPv4 ones, from an IpAddr.
class IpGenAddr {
 public:
   enum Family : U8 { ipv4 = 4, ipv6 = 6 };

   // The IPv4 zero address.
   constexpr IpGenAddr() = default;
   constexpr IpGenAddr(IpAddr v4) : family_(ipv4) {
      U32 v = v4.value();
      bytes_[0] = U8(v >> 24);
      bytes_[1] = U8(v >> 16);
      bytes_[2] = U8(v >> 8);
      bytes_[3] = U8(v);
   }
   // The zero address of `family`.
   constexpr explicit IpGenAddr(Family family) : family_(family) {}
   // REQUIRES: `bytes` holds 16 bytes in network order.
   static IpGenAddr fromV6Bytes(U8 const* bytes);

   constexpr Family family() const { return family_; }
   constexpr bool isV4() const { return family_ == ipv4; }
   // REQUIRES: isV4().
   constexpr IpAddr v4Addr() const { return IpAddr(bytes_[0], bytes_[1], bytes_[2], bytes_[3]); }
   bool isZero() const;

   // Family first (IPv4 before IPv6), then address bytes.
   friend bool operator==(IpGenAddr const& a, IpGenAddr const& b);
   friend bool operator<(IpGenAddr const& a, IpGenAddr const& b);

   std::string stringValue() const;   // "10.0.0.1", "2001:db8::1"
   U32 hash(U32 seed = 0) const;

 private:
   Family family_ = ipv4;
   U8 bytes_[16] = {};   // network order; only the first 4 used for IPv4
};

static_assert(sizeof(IpAddr) == 4 && alignof(IpAddr) == 1);
static_assert(sizeof(IpAndPort) == 6 && alignof(IpAndPort) == 2);
static_assert(sizeof(IpAddrWithFullMask) == 8 && alignof(IpAddrWithFullMask) == 4);
static_assert(std::is_trivially_copyable_v<IpAddr>);
static_assert(std::is_trivially_copyable_v<IpAndPort>);
static_assert(std::is_trivially_copyable_v<IpAddrWithFullMask>);
static_assert(std::is_trivially_copyable_v<IpGenAddr>);

} // namespace Lumet
