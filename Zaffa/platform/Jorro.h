#pragma once
// The table's exceptions and the small bit utilities that its file format
// rests on.
//
// The shared-memory table is the one part of the library that raises on
// purpose. Three kinds, never mixed:
//
//   CorruptionDetectedException  the files contradict themselves (an index out
//                                of range, a cycle, a key in the wrong chain).
//                                At run time it ends the process through the
//                                map; at attach it makes the writer re-format.
//   AssertException              the caller broke the table's usage protocol
//                                (unbalanced direct mode, a full free list...).
//   InvalidInitializeException   the table could not be set up at all (the
//                                file cannot be mapped, a type name too long).
//
// Thread safety: all of this is stateless.

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace Jorro {

class CorruptionDetectedException : public std::runtime_error {
 public:
   explicit CorruptionDetectedException(std::string const& text) : std::runtime_error(text) {}
};

class AssertException : public std::logic_error {
 public:
   explicit AssertException(std::string const& text) : std::logic_error(text) {}
};

class InvalidInitializeException : public std::runtime_error {
 public:
   explicit InvalidInitializeException(std::string const& text) : std::runtime_error(text) {}
};

template <typename... Args>
[[noreturn]] void throwCorruption(fmt::format_string<Args...> format, Args&&... args) {
   throw CorruptionDetectedException(fmt::format(format, std::forward<Args>(args)...));
}

template <typename... Args>
[[noreturn]] void throwAssert(fmt::format_string<Args...> format, Args&&... args) {
   throw AssertException(fmt::format(format, std::forward<Args>(args)...));
}

template <typename... Args>
[[noreturn]] void throwInvalidInitialize(fmt::format_string<Args...> format, Args&&... args) {
   throw InvalidInitializeException(fmt::format(format, std::forward<Args>(args)...));
}

namespace Util {

// Bit reversal of a 32-bit word. Chains are sorted by the reversed hash, so
// that doubling the number of buckets (which looks at one more low bit of the
// hash) splits every chain at exactly one point.
constexpr std::uint32_t reverse(std::uint32_t v) {
   v = ((v >> 1) & 0x55555555u) | ((v & 0x55555555u) << 1);
   v = ((v >> 2) & 0x33333333u) | ((v & 0x33333333u) << 2);
   v = ((v >> 4) & 0x0F0F0F0Fu) | ((v & 0x0F0F0F0Fu) << 4);
   v = ((v >> 8) & 0x00FF00FFu) | ((v & 0x00FF00FFu) << 8);
   return (v >> 16) | (v << 16);
}

} // namespace Util

namespace Impl {

// One FNV-1a step per byte. Used for the header checksum, so it must never
// change: files written by an earlier build would stop validating.
struct HashMix {
   static constexpr std::uint32_t basis = 0x811c9dc5u;
   static constexpr std::uint32_t prime = 0x01000193u;

   static constexpr std::uint32_t mix(std::uint32_t h, void const* data, std::size_t length) {
      auto const* p = static_cast<unsigned char const*>(data);
      for (std::size_t i = 0; i < length; ++i) {
         h ^= p[i];
         h *= prime;
      }
      return h;
   }
};

} // namespace Impl

} // namespace Jorro
