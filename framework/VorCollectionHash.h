#pragma once
// Pieces shared by the collections: how a key is hashed, where each hash
// collection's constant comes from, and the end marker of iteration.
//
// A key of a hash collection is one of:
//   - an integral or enum type, or a raw pointer;
//   - std::string or Vor::String;
//   - a value type with a member `Vor::U32 hash(Vor::U32 seed) const` and
//     `operator==`;
//   - a Vor::Ptr<T>, hashed by the address it holds.
//
// Every hash collection hashes with hashSeed32() XOR a constant of its own,
// given at construction. By default each instance draws a fresh constant, so
// two collections of one process (and one collection across two runs) walk
// their members in different orders. No logic may depend on that order.
//
// Thread safety: collectionConstant() may be called from any thread; the
// hash functions are pure.

#include <atomic>
#include <concepts>
#include <cstdint>
#include <string>
#include <type_traits>

#include "framework/VorHash.h"
#include "framework/VorString.h"

namespace Vor {

// Marker returned by end() of every collection: range-for compares an
// iterator with it, which asks the iterator whether it is done().
struct IterationEnd {};

namespace Impl {

// The next per-instance constant: a Weyl sequence, so consecutive
// collections get well-spread constants.
inline U32 collectionConstant() {
   static std::atomic<U32> counter{0};
   return counter.fetch_add(1, std::memory_order_relaxed) * 0x9e3779b9u + 0x7f4a7c15u;
}

// The value type of a set: takes no room in a node beyond alignment.
struct Empty {};

// Hash of an integer: one multiply, folded so that every input bit reaches
// the low bits that choose the bucket. The seed goes in first so that the
// bucket order depends on it.
inline U32 hashWord(U32 seed, U64 value) {
   U64 x = (value ^ (static_cast<U64>(seed) << 32 | seed)) * 0x9e3779b97f4a7c15ull;
   x ^= x >> 29;
   x *= 0xbf58476d1ce4e5b9ull;
   return static_cast<U32>(x >> 32);
}

template <typename K>
concept HasMemberHash = requires(K const& k, U32 seed) {
   { k.hash(seed) } -> std::convertible_to<U32>;
};

template <typename K>
concept HasPtrMember = requires(K const& k) {
   { k.ptr() };
};

} // namespace Impl

// The hash of key `key` under `seed`, as every hash collection computes it.
template <typename K>
inline U32 collectionHash(U32 seed, K const& key) {
   if constexpr (std::is_enum_v<K>) {
      return Impl::hashWord(seed, static_cast<U64>(static_cast<std::underlying_type_t<K>>(key)));
   } else if constexpr (std::is_integral_v<K>) {
      return Impl::hashWord(seed, static_cast<U64>(key));
   } else if constexpr (std::is_pointer_v<K>) {
      return Impl::hashWord(seed, reinterpret_cast<std::uintptr_t>(key));
   } else if constexpr (std::is_same_v<K, std::string>) {
      return hashString(seed, key);
   } else if constexpr (std::is_same_v<K, String>) {
      // Already finished by hashBytes.
      return key.hash(seed);
   } else if constexpr (Impl::HasMemberHash<K>) {
      // A value type's own hash may only mix its fields; finish it so the
      // low bits that choose the bucket depend on all of them.
      return hashFinish(static_cast<U32>(key.hash(seed)));
   } else if constexpr (Impl::HasPtrMember<K>) {
      return Impl::hashWord(seed, reinterpret_cast<std::uintptr_t>(key.ptr()));
   } else {
      static_assert(sizeof(K) == 0, "key type has no hash: give it U32 hash(U32 seed) const");
   }
}

} // namespace Vor
