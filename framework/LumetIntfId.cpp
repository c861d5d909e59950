#include "framework/LumetIntfId.h"

#include <cstdio>

#include "framework/UloAssert.h"
#include "framework/VorException.h"

namespace Lumet {

namespace {

struct KindName {
   IntfId::Kind kind;
   std::string_view prefix;
   bool hierarchical;   // takes "a/b/c"
};

// Indexed by kind.
constexpr KindName kindNames[] = {
   {IntfId::none, "", false},
   {IntfId::ethernet, "Ethernet", true},
   {IntfId::portChannel, "Port-Channel", false},
   {IntfId::vlan, "Vlan", false},
   {IntfId::loopback, "Loopback", false},
   {IntfId::management, "Management", true},
   {IntfId::tunnel, "Tunnel", false},
   {IntfId::natProfile, "NatProfile", false},
};
constexpr U8 kindCount = sizeof(kindNames) / sizeof(kindNames[0]);

std::optional<U32> parseNumber(std::string_view text) {
   if (text.empty() || text.size() > 5) return std::nullopt;
   if (text.size() > 1 && text[0] == '0') return std::nullopt;
   U32 value = 0;
   for (char c : text) {
      if (c < '0' || c > '9') return std::nullopt;
      value = value * 10 + U32(c - '0');
   }
   if (value > IntfId::maxNumber) return std::nullopt;
   return value;
}

U64 encode(IntfId::Kind kind, U32 first, int second, int third) {
   U64 id = (U64(kind) << 56) | (U64(first + 1) << 32);
   if (second >= 0) id |= U64(U32(second) + 1) << 16;
   if (third >= 0) id |= U64(U32(third) + 1);
   return id;
}

} // namespace

IntfId::IntfId(std::string_view name) {
   auto id = parse(name);
   if (!id) Vor::throwRangeException("IntfId::name " + std::string(name) + " not allowed");
   intId_ = id->intId_;
}

std::optional<IntfId> IntfId::parse(std::string_view name) {
   for (U8 k = 1; k < kindCount; ++k) {
      KindName const& kn = kindNames[k];
      if (!name.starts_with(kn.prefix)) continue;
      std::string_view rest = name.substr(kn.prefix.size());
      int numbers[3] = {-1, -1, -1};
      for (int i = 0; i < 3; ++i) {
         std::size_t slash = rest.find('/');
         auto n = parseNumber(rest.substr(0, slash));
         if (!n) return std::nullopt;
         numbers[i] = int(*n);
         if (slash == std::string_view::npos) {
            rest = {};
            break;
         }
         if (!kn.hierarchical || i == 2) return std::nullopt;
         rest.remove_prefix(slash + 1);
      }
      return fromIntId(encode(kn.kind, U32(numbers[0]), numbers[1], numbers[2]));
   }
   return std::nullopt;
}

IntfId IntfId::make(Kind kind, U32 first, int second, int third) {
   uloAssert(kind != none && kind < kindCount);
   uloAssert(first <= maxNumber && second <= int(maxNumber) && third <= int(maxNumber));
   uloAssert(kindNames[kind].hierarchical || (second < 0 && third < 0));
   uloAssert(second >= 0 || third < 0);
   return fromIntId(encode(kind, first, second, third));
}

std::string IntfId::stringValue() const {
   if (intId_ == 0) return {};
   U8 k = U8(intId_ >> 56);
   U32 first = U32(intId_ >> 32) & 0xffff;
   U32 second = U32(intId_ >> 16) & 0xffff;
   U32 third = U32(intId_) & 0xffff;
   bool wellFormed = k > 0 && k < kindCount && ((intId_ >> 48) & 0xff) == 0 && first != 0 &&
                     (third == 0 || second != 0) && (kindNames[k].hierarchical || second == 0);
   if (!wellFormed) {
      char text[40];
      std::snprintf(text, sizeof(text), "IntfId(0x%016llx)", static_cast<unsigned long long>(intId_));
      return text;
   }
   std::string name(kindNames[k].prefix);
   name += std::to_string(first - 1);
   if (second) name += "/" + std::to_string(second - 1);
   if (third) name += "/" + std::to_string(third - 1);
   return name;
}

namespace NatIntfId {

U16 profileId(IntfId const& intf) {
   uloAssert(isNatProfileIntfId(intf));
   return static_cast<U16>(intf.number());
}

IntfId natProfileIntfId(U16 profileId) { return IntfId::make(IntfId::natProfile, profileId); }

} // namespace NatIntfId

} // namespace Lumet
