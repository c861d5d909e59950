#pragma once
// Vorn::PodArray: a fixed-capacity array with a count, for records that are
// stored byte for byte in shared memory.
//
// The count is one more than the highest index written, not the number of
// non-zero cells: writing index 5 of an empty array gives a count of 6 with
// cells 0..4 left at zero. Deleting a cell zeroes it; deleting the last cell
// also lowers the count past any zero cells before it, while deleting a cell
// in the middle leaves the count alone (the hole stays as a zero cell).
//
// Layout: the 32-bit count, then the cells. Both are part of the shared-memory
// format of any record that holds a PodArray.
//
// `Index` is a range type (such as a VLAN index) whose constructor raises the
// framework's range exception for an index past the capacity, so the array
// itself never sees an index out of bounds.
//
// Thread safety: plain value; const operations may run concurrently.
//
// Invariants:
//  1. count() <= Capacity.
//  2. Every cell at or past count() holds T{} (zero), so that two arrays with
//     equal cells below the count are equal byte for byte.

#include <type_traits>

#include "framework/VorHash.h"

namespace Vorn {

template <typename T, typename Index, Vor::U32 Capacity>
class PodArray {
 public:
   static constexpr Vor::U32 capacity = Capacity;

   Vor::U32 count() const { return count_; }
   // The cell at `index`; T{} for a cell never written or deleted.
   T const& operator[](Index index) const { return cells_[index.value()]; }

   void valueIs(Index index, T const& value) {
      cells_[index.value()] = value;
      if (index.value() >= count_) count_ = index.value() + 1;
   }
   void valueDel(Index index) {
      Vor::U32 i = index.value();
      if (i >= count_) return;
      cells_[i] = T{};
      if (i + 1 == count_) {
         while (count_ > 0 && cells_[count_ - 1] == T{}) --count_;
      }
   }
   void valueDelAll() {
      for (Vor::U32 i = count_; i > 0; --i) valueDel(Index(i - 1));
   }

   // Equal when the counts and the cells below the count are equal.
   friend bool operator==(PodArray const& a, PodArray const& b) {
      if (a.count_ != b.count_) return false;
      for (Vor::U32 i = 0; i < a.count_; ++i) {
         if (!(a.cells_[i] == b.cells_[i])) return false;
      }
      return true;
   }

 private:
   Vor::U32 count_ = 0;
   T cells_[Capacity] = {};
};

} // namespace Vorn
