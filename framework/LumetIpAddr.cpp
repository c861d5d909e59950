#include "framework/LumetIpAddr.h"

#include <arpa/inet.h>

#include <cstring>


namespace Lumet {

namespace {

// Parses a run of 1..maxDigits decimal digits that is the whole of `text` and
// is at most `max`. No signs, no spaces.
std::optional<U32> parseDecimal(std::string_view text, std::size_t maxDigits, U32 max) {
   if (text.empty() || text.size() > maxDigits) return std::nullopt;
   U32 value = 0;
   for (char c : text) {
      if (c < '0' || c > '9') return std::nullopt;
      value = value * 10 + U32(c - '0');
   }
   if (value > max) return std::nullopt;
   return value;
}

} // namespace

std::optional<IpAddr> IpAddr::parse(std::string_view text) {
   U8 bytes[4];
   for (int i = 0; i < 4; ++i) {
      std::size_t dot = i < 3 ? text.find('.') : text.size();
      if (dot == std::string_view::npos) return std::nullopt;
      auto part = parseDecimal(text.substr(0, dot), 3, 255);
      if (!part) return std::nullopt;
      bytes[i] = static_cast<U8>(*part);
      text.remove_prefix(i < 3 ? dot + 1 : dot);
   }
   return IpAddr(bytes[0], bytes[1], bytes[2], bytes[3]);
}

std::string IpAddr::stringValue() const {
   return std::to_string(bytes_[0]) + "." + std::to_string(bytes_[1]) + "." +
          std::to_string(bytes_[2]) + "." + std::to_string(bytes_[3]);
}

std::optional<IpAndPort> IpAndPort::parse(std::string_view text) {
   std::size_t colon = text.rfind(':');
   if (colon == std::string_view::npos) return std::nullopt;
   auto ip = IpAddr::parse(text.substr(0, colon));
   auto port = parseDecimal(text.substr(colon + 1), 5, 65535);
   if (!ip || !port) return std::nullopt;
   return IpAndPort(*ip, static_cast<U16>(*port));
}

std::string IpAndPort::stringValue() const {
   return ip_.stringValue() + ":" + std::to_string(port_);
}

std::string IpAddrWithFullMask::stringValue() const {
   return ip_.stringValue() + "/" + std::to_string(prefixLength());
}

IpGenAddr IpGenAddr::fromV6Bytes(U8 const* bytes) {
   IpGenAddr a(ipv6);
   std::memcpy(a.bytes_, bytes, 16);
   return a;
}

bool IpGenAddr::isZero() const {
   for (U8 b : bytes_) {
      if (b) return false;
   }
   return true;
}

bool operator==(IpGenAddr const& a, IpGenAddr const& b) {
   return a.family_ == b.family_ && std::memcmp(a.bytes_, b.bytes_, 16) == 0;
}

bool operator<(IpGenAddr const& a, IpGenAddr const& b) {
   if (a.family_ != b.family_) return a.family_ < b.family_;
   return std::memcmp(a.bytes_, b.bytes_, 16) < 0;
}

std::string IpGenAddr::stringValue() const {
   if (isV4()) return v4Addr().stringValue();
   char text[INET6_ADDRSTRLEN];
   inet_ntop(AF_INET6, bytes_, text, sizeof text);
   return text;
}

U32 IpGenAddr::hash(U32 seed) const {
   U32 h = Vor::hashMix(seed, family_);
   for (int i = 0; i < 16; i += 4) {
      h = Vor::hashMix(h, (U32(bytes_[i]) << 24) | (U32(bytes_[i + 1]) << 16) |
                              (U32(bytes_[i + 2]) << 8) | bytes_[i + 3]);
   }
   return Vor::hashFinish(h);
}

} // namespace Lumet
