#include "Zaffa/SlotReader.h"

#include "Zaffa/Jorro.h"
#include "framework/VorTrace.h"

#include <atomic>
#include <cstring>

VOR_TRACE_HANDLE("ZaffaSlotReader");

namespace Zaffa {

bool SlotReaderTable::attach(std::string const& path, U32 wantedFenix, U32 valueSize,
                             std::string& message) {
   detach();
   std::string error;
   if (!file_.open(path, Mem::MappedFile::Mode::readOnly, error)) {
      message = fmt::format("cannot attach to shmem {} size:{}: {}", path, 0, error);
      return false;
   }
   mem_ = SlotMemory(file_.base());
   if (file_.size() < slotHeaderBytes) {
      message = fmt::format("bad header file size: {} wanted:{}", file_.size(), slotHeaderBytes);
      detach();
      return false;
   }
   SlotTableHeader const* h = header();
   // The slot size must be read before headerBytes() means anything; a file
   // too short for its own lookaside slot fails here, not in the copy.
   if (!h->validate(false, file_.size(), wantedFenix, message)) {
      detach();
      return false;
   }
   if (h->valueSize != valueSize || h->slotSize != slotSizeFor(valueSize)) {
      message = fmt::format("bad valueSize:{} slotSize:{} wanted valueSize:{}", h->valueSize,
                            h->slotSize, valueSize);
      detach();
      return false;
   }
   valueSize_ = valueSize;
   Mem::VerU32 n = Mem::loadVerU32(&h->numSlots);
   numSlots_ = n.value;
   numSlotsVersion_ = n.version;
   DUOLOG(5, "attached {} numSlots:{} fenix:{}", path, numSlots_, h->fenix);
   return true;
}

void SlotReaderTable::detach() {
   file_.close();
   mem_ = SlotMemory();
   numSlots_ = 0;
   numSlotsVersion_ = 0;
}

bool SlotReaderTable::doResize() {
   Mem::VerU32 n = Mem::loadVerU32(&header()->numSlots);
   if (n.version == numSlotsVersion_ && n.value == numSlots_) return false;
   auto size = Mem::fileSizeHelper(n.value, header()->slotSize, header()->headerBytes());
   if (!size) {
      Jorro::throwCorruption("bad newNumSlots:{} message:{}", n.value, "size overflows the largest mapping");
   }
   // The writer extends the file before it publishes a larger numSlots, so
   // the slots below n.value are backed. The mapping is a fixed reservation:
   // the base never moves, and there is nothing to remap.
   DUOLOG(7, "{} numSlots from {} to {}", file_.path(), numSlots_, n.value);
   numSlots_ = n.value;
   numSlotsVersion_ = n.version;
   ++counters_.resizes;
   return true;
}

U32 SlotReaderTable::getValue(U32 slot, void* value, U32& rhash) {
   if (slot >= numSlots_) {
      throw SlotOutOfRange(fmt::format("out-of-range index:{} numSlots:{}", slot, numSlots_), slot);
   }
   RawSlot s = mem_.slot(slot);
   RawSlot look = mem_.lookaside();
   ++counters_.slotReads;
   for (;;) {
      U32 const s1 = Mem::load32(s.p + 8);
      RawSlot from = (s1 & seqLookaside) ? look : s;
      if (s1 & seqLookaside) ++counters_.lookasideReads;
      // These plain copies may race with the writer's stores; whatever they
      // read is thrown away unless the sequence proves that no store
      // overlapped them.
      std::memcpy(&rhash, from.p + 12, sizeof rhash);
      std::memcpy(value, from.value(), valueSize_);
      // Orders the copies above before the second load of the sequence (the
      // reader's half of the seqlock; the writer's half is its release fence
      // after raising LOOKASIDE).
      std::atomic_thread_fence(std::memory_order_acquire);
      U32 const s2 = std::atomic_ref<U32>(*reinterpret_cast<U32*>(s.p + 8)).load(std::memory_order_relaxed);
      if (s1 == s2) return s1;
      ++counters_.retries;
   }
}

} // namespace Zaffa
