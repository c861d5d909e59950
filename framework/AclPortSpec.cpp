#include "framework/AclPortSpec.h"

#include <algorithm>

#include "framework/UloAssert.h"

namespace Acl {

namespace {

bool portsFit(PortSpec::Op op, std::size_t n) {
   switch (op) {
   case PortSpec::any: return n == 0;
   case PortSpec::eq:
   case PortSpec::neq: return n >= 1;
   case PortSpec::lt:
   case PortSpec::gt: return n == 1;
   case PortSpec::range: return n == 2;
   }
   return false;
}

char const* opName(PortSpec::Op op) {
   switch (op) {
   case PortSpec::any: return "any";
   case PortSpec::eq: return "eq";
   case PortSpec::neq: return "neq";
   case PortSpec::lt: return "lt";
   case PortSpec::gt: return "gt";
   case PortSpec::range: return "range";
   }
   return "?";
}

// Appends [low, high] to the output, merging with the previous range when
// they touch. Ranges arrive sorted. Returns false when out of room.
bool appendRange(U16FieldRange* ranges, int maxRanges, int& count, U32 low, U32 high) {
   if (count > 0 && U32(ranges[count - 1].high) + 1 >= low) {
      ranges[count - 1].high = static_cast<U16>(std::max<U32>(ranges[count - 1].high, high));
      return true;
   }
   if (count == maxRanges) return false;
   ranges[count++] = U16FieldRange{static_cast<U16>(low), static_cast<U16>(high)};
   return true;
}

} // namespace

PortSpec::PortSpec(Op op, std::vector<U16> ports) : op_(op), ports_(std::move(ports)) {
   uloAssert(portsFit(op_, ports_.size()));
}

std::optional<PortSpec> PortSpec::parse(std::string_view text) {
   std::vector<std::string_view> words;
   std::size_t i = 0;
   while (i < text.size()) {
      if (text[i] == ' ') {
         ++i;
         continue;
      }
      std::size_t end = text.find(' ', i);
      if (end == std::string_view::npos) end = text.size();
      words.push_back(text.substr(i, end - i));
      i = end;
   }
   if (words.empty()) return std::nullopt;
   std::optional<Op> op;
   for (Op candidate : {any, eq, neq, lt, gt, range}) {
      if (words[0] == opName(candidate)) op = candidate;
   }
   if (!op) return std::nullopt;
   std::vector<U16> ports;
   for (std::size_t w = 1; w < words.size(); ++w) {
      std::string_view word = words[w];
      if (word.empty() || word.size() > 5) return std::nullopt;
      U32 value = 0;
      for (char c : word) {
         if (c < '0' || c > '9') return std::nullopt;
         value = value * 10 + U32(c - '0');
      }
      if (value > 65535) return std::nullopt;
      ports.push_back(static_cast<U16>(value));
   }
   if (!portsFit(*op, ports.size())) return std::nullopt;
   return PortSpec(*op, std::move(ports));
}

std::string PortSpec::stringValue() const {
   std::string text = opName(op_);
   for (U16 p : ports_) text += " " + std::to_string(p);
   return text;
}

U32 PortSpec::hash(U32 seed) const {
   U32 h = Vor::hashMix(seed, op_);
   for (U16 p : ports_) h = Vor::hashMix(h, p);
   return Vor::hashFinish(h);
}

int portSpecToRanges(U16FieldRange* ranges, int maxRanges, PortSpec const& portSpec) {
   auto const& ports = portSpec.ports();
   if (!portsFit(portSpec.op(), ports.size())) return portSpecMalformed;
   int count = 0;
   switch (portSpec.op()) {
   case PortSpec::any:
      return 0;
   case PortSpec::eq: {
      std::vector<U16> sorted(ports);
      std::sort(sorted.begin(), sorted.end());
      for (U16 p : sorted) {
         if (!appendRange(ranges, maxRanges, count, p, p)) return portSpecTooManyRanges;
      }
      break;
   }
   case PortSpec::neq: {
      std::vector<U16> sorted(ports);
      std::sort(sorted.begin(), sorted.end());
      sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
      U32 next = 0;   // first port not yet covered nor excluded
      for (U16 p : sorted) {
         if (p > next && !appendRange(ranges, maxRanges, count, next, p - 1u)) {
            return portSpecTooManyRanges;
         }
         next = U32(p) + 1;
      }
      if (next <= 65535 && !appendRange(ranges, maxRanges, count, next, 65535)) {
         return portSpecTooManyRanges;
      }
      if (count == 0) return portSpecMatchesNothing;   // cannot happen: a list excludes < 65536 ports
      break;
   }
   case PortSpec::lt:
      if (ports[0] == 0) return portSpecMatchesNothing;
      if (!appendRange(ranges, maxRanges, count, 0, ports[0] - 1u)) return portSpecTooManyRanges;
      break;
   case PortSpec::gt:
      if (ports[0] == 65535) return portSpecMatchesNothing;
      if (!appendRange(ranges, maxRanges, count, ports[0] + 1u, 65535)) return portSpecTooManyRanges;
      break;
   case PortSpec::range:
      if (ports[0] > ports[1]) return portSpecMatchesNothing;
      if (!appendRange(ranges, maxRanges, count, ports[0], ports[1])) return portSpecTooManyRanges;
      break;
   }
   // A portSpec that covers every port is "any" to hardware.
   if (count == 1 && ranges[0].low == 0 && ranges[0].high == 65535) return 0;
   return count;
}

} // namespace Acl
