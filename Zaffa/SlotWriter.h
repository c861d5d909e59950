#pragma once
// The writer's side of the slot file: attach and re-format, the free list,
// growth and shrinking of the slot array.
//
// SlotWriterTable knows slots by index and value size only; the typed table
// (ZaffaWriter) puts values into them.
//
// Thread safety: the writer's thread only. Readers in other processes read
// the same memory; every store that they may race with is described where it
// is made.
//
// Invariants:
//   1. numSlots() equals the header's numSlots, and the file holds at least
//      fileSizeHelper(numSlots) bytes.
//   2. The mapping never moves (Mem::MappedFile), so pointers into the
//      table stay valid across resize().
//   3. Slot indices are handed out lowest first from a fresh free list.

#include "Zaffa/platform/Mem.h"
#include "Zaffa/SlotTable.h"

#include <stdexcept>
#include <string>

namespace Zaffa {

// Raised when no slot can be had: a fixed-size table is full, or the file
// cannot grow. The table is as it was before the failed operation.
class TableFullException : public std::runtime_error {
 public:
   explicit TableFullException(std::string const& text) : std::runtime_error(text) {}
};

struct SlotTableConfig {
   std::string path;        // empty: process-local memory
   std::string valueType;   // at most 63 characters
   std::string classType;   // at most 63 characters
   U32 valueSize = 0;
   U32 minSlots = 64;
   U32 maxSlots = 1024;     // soft unless fixed
   bool fixed = false;
   bool shrink = true;
   // Puts a default value at `where` (valueSize bytes).
   void (*defaultValue)(void* where) = nullptr;
};

class SlotWriterTable {
 public:
   enum AttachResult { newFile = 1, existingFile = 2, reformatted = 4 };

   // Raises Jorro::InvalidInitializeException when a type name is too long:
   // "value typename {} exceeds {} characters" or
   // "class typename: {} exceeds {} characters ".
   explicit SlotWriterTable(SlotTableConfig config);

   // Creates or reopens the file. Keeps an existing file of generation
   // `fenix` that passes SlotTableHeader::validate; re-formats anything
   // else. Returns newFile, existingFile or reformatted. Raises
   // Jorro::InvalidInitializeException when the file cannot be mapped or
   // sized ("cannot attach to shmem {} size:{}: {}").
   int attach(U32 fenix);
   void detach();
   bool attached() const { return file_.isOpen(); }

   SlotTableHeader* header() const { return mem_.header(); }
   RawSlot slot(U32 i) const { return mem_.slot(i); }
   RawSlot lookaside() const { return mem_.lookaside(); }
   SlotMemory memory() const { return mem_; }
   U32 numSlots() const { return numSlots_; }
   U32 minSlots() const { return config_.minSlots; }
   U32 maxSlots() const { return config_.maxSlots; }
   U32 shrinkThreshold() const { return shrinkThreshold_; }
   std::size_t fileSize() const { return file_.size(); }
   std::string const& path() const { return config_.path; }
   SlotTableConfig const& config() const { return config_; }
   // What a header of this table must hold in its constant fields.
   SlotTableHeader const& expected() const { return expected_; }

   // Takes the head of the free list, growing the table when it is empty.
   // Raises TableFullException ("Zaffa table full (occupancy:{} tableSize:{}) {}")
   // when no slot can be had, and Jorro::CorruptionDetectedException when the
   // counters contradict an empty free list.
   U32 alloc(U32 rhash);
   // Pushes `slot` on the free list. REQUIRES: the slot is unlinked.
   void release(U32 slot);

   // Chains slots from..to-1 into the free list, lowest first, and returns
   // the new head. REQUIRES: the free list is empty
   // (Jorro::AssertException "free-list is not empty").
   U32 addFreeSlots(U32 from, U32 to);

   // Grows to (or, with the free list purged above n, shrinks to) n slots.
   // Returns false with a message when the file cannot be sized; the table
   // is then unchanged.
   bool resize(U32 n, std::string& message);

   // Removes from the free list every slot at or above `target`. Raises
   // Jorro::CorruptionDetectedException when the free list and occupiedSlots
   // do not add up to numSlots.
   void purgeFreeSlots(U32 target);

   // Number of slots below which a shrink is considered; 0 when the table
   // does not shrink.
   U32 computeShrinkThreshold() const;

   // Removes the file. REQUIRES: detached.
   void cleanup();

 private:
   void reformat(U32 fenix);
   void initSlot(U32 i);
   // Fetches the cache lines of a slot that is about to be filled.
   void prefetchForWrite(U32 slot) const;
   // Default-initialises slots from..to-1. When zero bytes are a slot's
   // default, the slots at or above byte offset `zeroFrom` (memory the file
   // has just been extended by, which reads as zeros) are left as they are:
   // a growth then writes each new page once, not twice.
   void initSlots(U32 from, U32 to, std::size_t zeroFrom);

   SlotTableConfig config_;
   SlotTableHeader expected_{};
   Mem::MappedFile file_;
   SlotMemory mem_;
   U32 numSlots_ = 0;
   U32 shrinkThreshold_ = 0;
   // A default value is all zero bytes (or there is none to write).
   bool defaultIsZero_ = false;
};

} // namespace Zaffa
