#include "Zaffa/SlotReader.h"

#include "Zaffa/platform/Jorro.h"
#include "framework/VorTrace.h"

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
   //
   // The size was taken when the file was opened, the header's numSlots is
   // read now: a writer that grew the table in between (it extends the file
   // before it publishes the larger count, and never shortens it while it
   // lives) makes the file look too short for its count. A resize while the
   // header is being checked does the same to the counters: numSlots, then
   // freeSlots and occupiedSlots, are separate stores, so a reader can take
   // the old count and a free-list head or occupancy that belongs to the new
   // one. Only a fault that stays while neither the size nor numSlots moves
   // belongs to the file.
   for (int changes = 0;; ++changes) {
      std::size_t const size = file_.size();
      Mem::VerU32 const before = Mem::loadVerU32(&h->numSlots);
      if (h->validate(false, size, wantedFenix, message)) break;
      Mem::VerU32 const after = Mem::loadVerU32(&h->numSlots);
      bool const resized = before.version != after.version || before.value != after.value;
      bool const grown = file_.refreshSize() != size;
      if ((!resized && !grown) || changes == maxAttachRetries) {
         detach();
         return false;
      }
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

// Out of line, so that the one read() it is made of is inlined here and its
// result stays in registers.
U32 SlotReaderTable::getValue(U32 slot, void* value, U32& rhash) {
   Read r = read(slot, 0, 0, nullptr, value, [](U32, U32) { return true; });
   rhash = r.rhash;
   return r.seq;
}

void SlotReaderTable::throwOutOfRange(U32 slot) const {
   throw SlotOutOfRange(fmt::format("out-of-range index:{} numSlots:{}", slot, numSlots_), slot);
}

} // namespace Zaffa
