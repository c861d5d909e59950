#include "framework/VorHash.h"

#include <chrono>
#include <cstdlib>
#include <random>
#include <string>
#include <unistd.h>

namespace Vor {

namespace {
U32 drawSeed() {
   if (char const* fixed = std::getenv("ULONAT_HASH_SEED")) {
      return static_cast<U32>(std::strtoul(fixed, nullptr, 0));
   }
   std::random_device device;
   U32 seed = device();
   seed ^= static_cast<U32>(std::chrono::steady_clock::now().time_since_epoch().count());
   seed ^= static_cast<U32>(::getpid()) * 0x9e3779b9u;
   return seed;
}
} // namespace

U32 hashSeed32() {
   static U32 const seed = drawSeed();
   return seed;
}

U32 hashBytes(U32 seed, void const* data, std::size_t length) {
   // FNV-1a over the bytes, then the avalanche: short keys (names) dominate.
   U32 h = seed ^ 2166136261u;
   auto const* p = static_cast<unsigned char const*>(data);
   for (std::size_t i = 0; i < length; ++i) {
      h ^= p[i];
      h *= 16777619u;
   }
   return hashFinish(h ^ static_cast<U32>(length));
}

} // namespace Vor
