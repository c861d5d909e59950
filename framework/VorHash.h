#pragma once
// Hashing of value types.
//
// Every hash collection seeds its hash with hashSeed32(), a number drawn once
// per process, XORed with a constant of its own. Two runs therefore walk the
// same collection in different orders, and two collections of one process do
// not share a bucket order: no logic may come to rely on hash iteration order.

#include <cstdint>
#include <cstring>
#include <string_view>

namespace Vor {

using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;

// The per-process seed. Stable for the life of the process. Tests may fix it
// with the environment variable ULONAT_HASH_SEED to reproduce an order.
U32 hashSeed32();

// One step of the running mix: folds `value` into `h`. Used by value types to
// combine their fields in order: h = hashMix(hashMix(seed, a), b) ...
constexpr U32 hashMix(U32 h, U32 value) {
   // Murmur3-style mixing of one 32-bit word.
   U32 k = value * 0xcc9e2d51u;
   k = (k << 15) | (k >> 17);
   k *= 0x1b873593u;
   h ^= k;
   h = (h << 13) | (h >> 19);
   return h * 5u + 0xe6546b64u;
}

constexpr U32 hashMix64(U32 h, U64 value) {
   return hashMix(hashMix(h, static_cast<U32>(value)), static_cast<U32>(value >> 32));
}

// Final avalanche so that the low bits used for bucket selection depend on
// every input bit.
constexpr U32 hashFinish(U32 h) {
   h ^= h >> 16;
   h *= 0x85ebca6bu;
   h ^= h >> 13;
   h *= 0xc2b2ae35u;
   h ^= h >> 16;
   return h;
}

U32 hashBytes(U32 seed, void const* data, std::size_t length);

inline U32 hashString(U32 seed, std::string_view s) { return hashBytes(seed, s.data(), s.size()); }

// Hash of a plain integer or enum key.
template <typename T>
constexpr U32 hashIntegral(U32 seed, T value) {
   return hashFinish(hashMix64(seed, static_cast<U64>(value)));
}

} // namespace Vor
