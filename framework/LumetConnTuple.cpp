#include "framework/LumetConnTuple.h"

#include <vector>

namespace Lumet {

std::optional<ConnTuple> ConnTuple::parse(std::string_view text) {
   std::vector<std::string_view> parts;
   std::size_t i = 0;
   while (i < text.size()) {
      if (text[i] == ' ' || text[i] == '\t') {
         ++i;
         continue;
      }
      std::size_t end = i;
      while (end < text.size() && text[end] != ' ' && text[end] != '\t') ++end;
      parts.push_back(text.substr(i, end - i));
      i = end;
   }
   if (parts.size() != 5 || parts[1] != "->" || parts[3] != "proto") return std::nullopt;
   auto src = IpAndPort::parse(parts[0]);
   auto dst = IpAndPort::parse(parts[2]);
   std::string_view proto = parts[4];
   if (!src || !dst || proto.empty() || proto.size() > 3) return std::nullopt;
   U32 value = 0;
   for (char c : proto) {
      if (c < '0' || c > '9') return std::nullopt;
      value = value * 10 + U32(c - '0');
   }
   if (value > 255) return std::nullopt;
   return ConnTuple(*src, *dst, static_cast<U8>(value));
}

std::string ConnTuple::stringValue() const {
   return srcAddr_.stringValue() + " -> " + dstAddr_.stringValue() + " proto " + std::to_string(protocol_);
}

} // namespace Lumet
