#include "Zaffa/Validator.h"

#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("ZaffaValidator");

namespace Zaffa {

bool ValidatorCore::validate(U32 fenix) {
   try {
      doValidate(fenix);
      message_.clear();
      return true;
   } catch (std::exception const& e) {
      message_ = e.what();
      return false;
   }
}

void ValidatorCore::doValidate(U32 fenix) {
   std::string message;
   if (!view_.buckets.validate(view_.bucketFileSize, fenix, message)) {
      throw Jorro::CorruptionDetectedException(message);
   }
   SlotTableHeader const* h = view_.slots.header();
   if (view_.slotFileSize < sizeof(SlotTableHeader)) {
      Jorro::throwCorruption("bad header file size: {} wanted:{}", view_.slotFileSize,
                             sizeof(SlotTableHeader));
   }
   if (!h->validate(false, view_.slotFileSize, fenix, message, view_.expected)) {
      throw Jorro::CorruptionDetectedException(message);
   }
   if (!view_.trevine.validate(view_.trevineFileSize, fenix, h->mostSlots, message)) {
      throw Jorro::CorruptionDetectedException(message);
   }
   numSlots_ = h->numSlotsValue();
   slotMarks_.assign(numSlots_, false);
   occupied_ = 0;
   free_ = 0;
   walkOccupiedSlots();
   walkFreeSlots();
   if (static_cast<U64>(occupied_) + free_ != numSlots_) {
      Jorro::throwCorruption("bad slotCount:{} occupiedSlots:{} freeSlots:{} capacity:{}",
                             static_cast<U64>(occupied_) + free_, occupied_, free_, numSlots_);
   }
   walkCorral();
   checkOccupiedNotifications();
}

void ValidatorCore::walkOccupiedSlots() {
   SlotTableHeader const* h = view_.slots.header();
   U32 const numBuckets = view_.buckets.numBuckets().value;
   U32 const mask = numBuckets - 1;
   U32 walked = 0;
   for (U32 b = 0; b < numBuckets; ++b) {
      void const* prev = view_.buckets.head(b);
      bool first = true;
      U32 prevRhash = 0;
      char const* prevValue = nullptr;
      for (SlotLink link = loadLink(prev); !link.endOfChain(); link = loadLink(prev)) {
         U32 s = link.next;
         if (s >= numSlots_) Jorro::throwCorruption("out-of-range index: {} max:{}", s, numSlots_);
         if (++walked > h->occupiedSlots) {
            Jorro::throwCorruption("walkedSlots:{} is greater than header->occupiedSlots:{}", walked,
                                   h->occupiedSlots);
         }
         markOccupied(s);
         RawSlot slot = view_.slots.slot(s);
         U32 r = slot.rhash();
         if ((Jorro::Util::reverse(r) & mask) != b) {
            Jorro::throwCorruption("corrupt key detected, slot: {}", s);
         }
         if (view_.keyMatchesRhash && !view_.keyMatchesRhash(slot.value(), r, h->hashSeed)) {
            Jorro::throwCorruption("corrupt key detected, slot: {}", s);
         }
         if (!first && (r < prevRhash || (r == prevRhash && view_.compareKeys &&
                                          view_.compareKeys(prevValue, slot.value()) >= 0))) {
            Jorro::throwCorruption("chain of bucket {} out of order at slot: {}", b, s);
         }
         first = false;
         prevRhash = r;
         prevValue = slot.value();
         prev = slot.link();
      }
   }
   if (walked != h->occupiedSlots) {
      Jorro::throwCorruption("mismatch header->occupiedSlots:{} count:{}", h->occupiedSlots, walked);
   }
   occupied_ = walked;
   DUOLOG(7, "marked {} slots", walked);
}

void ValidatorCore::markOccupied(U32 s) {
   if (slotMarks_[s]) Jorro::throwCorruption("duplicate slot: {}", s);
   slotMarks_[s] = true;
   U32 seq = view_.slots.slot(s).seq();
   if (!(seq & seqOccupied)) Jorro::throwCorruption("missing OCCUPIED bit: {:#x}", seq);
   if (seq & seqLookaside) Jorro::throwCorruption("stuck LOOKASIDE bit: {:#x}", seq);
}

void ValidatorCore::walkFreeSlots() {
   U32 count = 0;
   for (U32 s = view_.slots.header()->freeSlots; s != noSlot;
        s = loadLink(view_.slots.slot(s).link()).next) {
      if (s >= numSlots_) {
         Jorro::throwCorruption("corrupted free slot detected with out of bound index: {}", s);
      }
      if (slotMarks_[s]) Jorro::throwCorruption("duplicate freeSlot detected: {}", s);
      if (view_.slots.slot(s).seq() & seqOccupied) {
         Jorro::throwCorruption("corrupted free slot not marked as empty: {}", s);
      }
      slotMarks_[s] = true;
      ++count;
   }
   free_ = count;
   DUOLOG(7, "marked {} free slots", count);
}

void ValidatorCore::walkCorral() {
   Trevine::TrevineView const& q = view_.trevine;
   U32 const size = q.size();
   U32 const capacity = q.header()->slotCapacity;
   Trevine::Record const* records = q.records();
   U32 const* slotPos = q.slotPos();
   posMarks_.assign(size, false);
   for (U32 p = 0; p < size; ++p) {
      Trevine::Record const& r = records[p];
      U32 trevinePos = r.slot < capacity ? slotPos[r.slot] : Trevine::noPos;
      DUOLOG(9, "corral pos:{} seq:{} slot:{} trevinePos:{}", p, r.seq, r.slot, trevinePos);
      if (r.slot >= capacity) {
         Jorro::throwCorruption("slot index:{} has out of range trevine slot: {}", p, r.slot);
      }
      if (r.flags & Trevine::recordDeleted) {
         if (trevinePos == p && r.slot < numSlots_ && slotMarks_.size() > r.slot &&
             (view_.slots.slot(r.slot).seq() & seqOccupied)) {
            Jorro::throwCorruption("occupied slot:{} on deleted notification:{}", r.slot, p);
         }
         continue;
      }
      if (trevinePos != p) {
         if (r.flags & Trevine::recordTombstone) {
            Jorro::throwCorruption("trevine pos:{} has slot:{} seq:{} with wrong trevineSlot:{}", p,
                                   r.slot, r.seq, trevinePos);
         }
         Jorro::throwCorruption("slot index:{} has slot:{} with wrong trevine slot:{}", p, r.slot,
                                trevinePos);
      }
      if ((r.flags & Trevine::recordActive) && !q.shrinking()) {
         Jorro::throwCorruption("active tombstone pos:{}", p);
      }
   }
}

void ValidatorCore::checkOccupiedNotifications() {
   Trevine::TrevineView const& q = view_.trevine;
   // The queue as walkCorral() saw and marked it. A tool that validates a
   // table while its writer runs may find the queue longer by now; what was
   // appended since is not looked at.
   U32 const size = static_cast<U32>(posMarks_.size());
   for (U32 s = 0; s < numSlots_; ++s) {
      if (!(view_.slots.slot(s).seq() & seqOccupied)) continue;
      U32 pos = q.slotPos()[s];
      if (pos == Trevine::noPos) {
         Jorro::throwCorruption("no notification in trevine queue for occupied slotId:{}", s);
      }
      if (pos >= size) Jorro::throwCorruption("slot:{} bad trevine index:{} size:{}", s, pos, size);
      Trevine::Record const& r = q.records()[pos];
      if (r.slot != s || (r.flags & (Trevine::recordDeleted | Trevine::recordTombstone))) {
         Jorro::throwCorruption("slot:{} bad notification:{} slot:{}", s, pos, r.slot);
      }
      if (posMarks_[pos]) Jorro::throwCorruption("slot:{} duplicate trevine position:{}", s, pos);
      posMarks_[pos] = true;
   }
}

} // namespace Zaffa
