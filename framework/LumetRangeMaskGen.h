#pragma once
// Lumet::RangeMaskGen: covers an inclusive range of an unsigned field with
// value/mask pairs, for hardware that matches a field only as
// (field & mask) == value.
//
// The range is cut into aligned power-of-two blocks, greedily from the low
// end: at each value the largest block that starts there (value is a
// multiple of its size) and stays inside the range. A block of 2^b values
// has mask = all ones shifted left by b. Examples for 16 bits:
//
//   1024..65535  ->  1024/0xFC00 2048/0xF800 4096/0xF000 8192/0xE000
//                    16384/0xC000 32768/0x8000
//   80..80       ->  80/0xFFFF
//   0..65535     ->  0/0x0000
//
// This is the least number of pairs for the range. An empty range (low >
// high) yields no pair.
//
// Thread safety: plain value.

#include <type_traits>
#include <vector>

#include "framework/UloAssert.h"
#include "framework/VorHash.h"

namespace Lumet {

template <typename T>
struct RangeMask {
   T value = 0;   // first value of the block
   T end = 0;     // last value of the block
   T mask = 0;
   friend bool operator==(RangeMask const&, RangeMask const&) = default;
};

template <typename T>
class RangeMaskGen {
   static_assert(std::is_unsigned_v<T> && sizeof(T) <= 4);

 public:
   RangeMaskGen(T low, T high) : value_(low), high_(high), done_(low > high) {
      if (!done_) block();
   }

   bool done() const { return done_; }
   // The present pair. REQUIRES: !done().
   RangeMask<T> const& current() const { return current_; }
   void next() {
      Vor::U64 after = Vor::U64(current_.end) + 1;
      if (current_.end >= high_ || after > Vor::U64(T(~T(0)))) {
         done_ = true;   // past high, or the field wrapped
         return;
      }
      value_ = static_cast<T>(after);
      block();
   }

   // All pairs of [low, high] in ascending order.
   static std::vector<RangeMask<T>> pairs(T low, T high) {
      std::vector<RangeMask<T>> out;
      for (RangeMaskGen gen(low, high); !gen.done(); gen.next()) out.push_back(gen.current());
      return out;
   }

 private:
   void block() {
      constexpr unsigned bits = 8 * sizeof(T);
      unsigned mask = 0;   // log2 of the block size
      while (mask < bits) {
         Vor::U64 size = Vor::U64(1) << (mask + 1);
         if (value_ % size != 0 || Vor::U64(value_) + size - 1 > Vor::U64(high_)) break;
         ++mask;
      }
      uloAssert(mask <= 8 * sizeof( T ));
      Vor::U64 size = Vor::U64(1) << mask;
      current_.value = value_;
      current_.end = static_cast<T>(Vor::U64(value_) + size - 1);
      current_.mask = static_cast<T>((Vor::U64(1) << bits) - size);
   }

   T value_;
   T high_;
   bool done_;
   RangeMask<T> current_;
};

} // namespace Lumet
