#include "Zaffa/platform/Trevine.h"

#include "Zaffa/platform/Jorro.h"
#include "framework/VorTrace.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <sched.h>
#include <unistd.h>

VOR_TRACE_HANDLE("ZaffaTrevine");

namespace Trevine {

namespace {
constexpr char trevineMagic[8] = {'T', 'R', 'E', 'V', 'I', 'N', 'E', '1'};
constexpr U32 trevineVersion = 1;
} // namespace

bool TrevineView::validate(std::size_t fileSize, U32 wantedFenix, U32 maxSlot,
                           std::string& message) const {
   if (fileSize < sizeof(TrevineHeader)) {
      message = fmt::format("trevine file size:{} below header", fileSize);
      return false;
   }
   TrevineHeader const* h = header();
   if (std::memcmp(h->magic, trevineMagic, sizeof trevineMagic) != 0) {
      message = "trevine bad magic";
      return false;
   }
   if (h->version != trevineVersion) {
      message = fmt::format("trevine bad version: {}", h->version);
      return false;
   }
   if (wantedFenix != 0 && h->fenix != wantedFenix) {
      message = fmt::format("trevine bad fenix:{} wanted:{}", h->fenix, wantedFenix);
      return false;
   }
   if (h->swapCount & 1) {
      message = fmt::format("trevine swap interrupted, swapCount:{}", h->swapCount);
      return false;
   }
   if (h->ringCapacity < ringCapacityFor(h->slotCapacity) ||
       fileSizeFor(h->slotCapacity, h->ringCapacity) > fileSize) {
      message = fmt::format("trevine bad capacity slots:{} records:{} file size:{}",
                            h->slotCapacity, h->ringCapacity, fileSize);
      return false;
   }
   if (h->slotCapacity < maxSlot) {
      message = fmt::format("trevine slotCapacity:{} below mostSlots:{}", h->slotCapacity, maxSlot);
      return false;
   }
   U32 n = size();
   if (n > h->ringCapacity) {
      message = fmt::format("trevine size:{} beyond capacity:{}", n, h->ringCapacity);
      return false;
   }
   Record const* r = records();
   for (U32 p = 0; p < n; ++p) {
      if ((p > 0 && r[p].seq <= r[p - 1].seq) || r[p].seq > h->writerSeq) {
         message = fmt::format("trevine pos:{} out of order seq:{} writerSeq:{}", p, r[p].seq,
                               h->writerSeq);
         return false;
      }
   }
   U32 const* pos = slotPos();
   for (U32 s = 0; s < h->slotCapacity; ++s) {
      // A live writer appends while we look: it raises size before it points
      // the slot at the new record, so a position beyond the size we read
      // first is only a fault if it is beyond the size now.
      U32 const p = Mem::load32(pos + s);
      if (p != noPos && p >= n && p >= size()) {
         message = fmt::format("trevine slot:{} pos:{} beyond size:{}", s, p, size());
         return false;
      }
   }
   return true;
}

std::string TrevineView::headerToString() const {
   TrevineHeader const* h = header();
   return fmt::format(
      "magic:\"{}\" version:{} fenix:{} slotCapacity:{} ringCapacity:{} swapCount:{} flags:{:#x} "
      "writerSeq:{} size:{} shrinkStartPos:{}",
      std::string(h->magic, ::strnlen(h->magic, sizeof h->magic)), h->version, h->fenix,
      h->slotCapacity, h->ringCapacity, h->swapCount, h->flags, h->writerSeq, size(),
      h->shrinkStartPos);
}

int TrevineWriterBase::attach(U32 fenix, U32 slotCapacity) {
   detach();
   std::string error;
   auto mode = path_.empty() ? Mem::MappedFile::Mode::anonymous : Mem::MappedFile::Mode::readWrite;
   if (!file_.open(path_, mode, error)) {
      Jorro::throwInvalidInitialize("cannot attach to shmem {} size:{}: {}", path_, 0, error);
   }
   if (file_.size() == 0) {
      format(fenix, slotCapacity);
      DUOLOG(5, "to new file {}", path_);
      return newFile;
   }
   std::string message;
   if (view().validate(file_.size(), fenix, 0, message)) {
      // An earlier life may have left the record array's tail unprovided.
      provided_ = 0;
      provideUpTo(recordEnd(view().size()));
      ensureSlotCapacity(slotCapacity);
      DUOLOG(5, "to existing {}", path_);
      return existingFile;
   }
   DUOLOG(3, "re-formatted {}: {}", path_, message);
   format(fenix, slotCapacity);
   return reformatted;
}

void TrevineWriterBase::detach() {
   file_.close();
   provided_ = 0;
}

void TrevineWriterBase::provideUpTo(std::size_t bytes) {
   if (bytes <= provided_) return;
   std::size_t to = std::min(file_.size(), std::max(bytes, provided_ + provideStep));
   std::string error;
   if (!file_.provide(provided_, to, error)) {
      Jorro::throwCorruption("failed to provide {} up to {} bytes: {}", path_, to, error);
   }
   provided_ = to;
}

void TrevineWriterBase::format(U32 fenix, U32 slotCapacity) {
   slotCapacity = std::max<U32>(slotCapacity, 64);
   U32 ring = ringCapacityFor(slotCapacity);
   std::string error;
   provided_ = 0;
   if (!file_.resize(0, error) ||
       !file_.resize(fileSizeFor(slotCapacity, ring), error, Mem::MappedFile::Provision::onDemand) ||
       !file_.provide(0, recordsOffset(slotCapacity) + provideStep, error)) {
      Jorro::throwInvalidInitialize("cannot attach to shmem {} size:{}: {}", path_,
                                    fileSizeFor(slotCapacity, ring), error);
   }
   provided_ = std::min(file_.size(), recordsOffset(slotCapacity) + provideStep);
   TrevineHeader* h = view().header();
   std::memset(h, 0, sizeof *h);
   std::memcpy(h->magic, trevineMagic, sizeof trevineMagic);
   h->version = trevineVersion;
   h->fenix = fenix;
   h->slotCapacity = slotCapacity;
   h->ringCapacity = ring;
   h->shrinkStartPos = noPos;
   std::fill_n(view().slotPos(), slotCapacity, noPos);
}

void TrevineWriterBase::ensureSlotCapacity(U32 n) {
   if (n > view().header()->slotCapacity) relayout(std::max(n, view().header()->slotCapacity * 2));
}

U32 TrevineWriterBase::append(U32 slot, U32 flags) {
   TrevineView v = view();
   if (slot >= v.header()->slotCapacity) relayout(std::max(slot + 1, v.header()->slotCapacity * 2));
   if (v.size() == v.header()->ringCapacity) compact();
   TrevineHeader* h = v.header();
   U32 p = v.size();
   provideUpTo(recordEnd(p));
   Record* r = v.records() + p;
   r->seq = h->writerSeq + 1;
   r->slot = slot;
   r->flags = flags;
   h->writerSeq = r->seq;
   // The record is whole before a reader can see it.
   Mem::store32(&h->size, p + 1);
   U32* pos = v.slotPos() + slot;
   U32 old = *pos;
   Mem::store32(pos, p);
   if (old != noPos) Mem::store32(&v.records()[old].flags, v.records()[old].flags | recordDeleted);
   if (appendObserver_) appendObserver_();
   return p;
}

void TrevineWriterBase::notify(U32 slot) { append(slot, 0); }

void TrevineWriterBase::tombstone(U32 slot) {
   append(slot, recordTombstone | (shrinkStarted() ? recordActive : 0));
}

void TrevineWriterBase::markShrinkStart() {
   TrevineHeader* h = view().header();
   h->shrinkStartPos = view().size();
   Mem::store32(&h->flags, h->flags | headerFlagShrinking);
}

void TrevineWriterBase::markShrinkEnd() {
   TrevineView v = view();
   TrevineHeader* h = v.header();
   U32 from = h->shrinkStartPos == noPos ? 0 : std::min(h->shrinkStartPos, v.size());
   for (U32 p = from; p < v.size(); ++p) {
      Record* r = v.records() + p;
      if (r->flags & recordActive) Mem::store32(&r->flags, r->flags & ~recordActive);
   }
   h->shrinkStartPos = noPos;
   Mem::store32(&h->flags, h->flags & ~headerFlagShrinking);
}

void TrevineWriterBase::compact() {
   TrevineView v = view();
   TrevineHeader* h = v.header();
   Mem::store32(&h->swapCount, h->swapCount + 1);
   Record* r = v.records();
   U32* pos = v.slotPos();
   U32 n = v.size();
   U32 out = 0;
   U32 newShrinkStart = noPos;
   for (U32 p = 0; p < n; ++p) {
      // A tombstone that is still its slot's latest record must stay, active
      // or not: a reader that has not reached it yet learns only from it that
      // the slot was emptied by a move, and would otherwise keep the moved
      // key there for ever when the key's new slot has changed since.
      bool keep = !(r[p].flags & recordDeleted);
      if (p == h->shrinkStartPos) newShrinkStart = out;
      if (!keep) {
         if (pos[r[p].slot] == p) pos[r[p].slot] = noPos;
         continue;
      }
      r[out] = r[p];
      pos[r[out].slot] = out;
      ++out;
   }
   if (h->shrinkStartPos != noPos) h->shrinkStartPos = newShrinkStart == noPos ? out : newShrinkStart;
   Mem::store32(&h->size, out);
   Mem::store32(&h->swapCount, h->swapCount + 1);
   DUOLOG(7, "trevine compacted {} records to {}", n, out);
   if (out == h->ringCapacity) {
      Jorro::throwCorruption("trevine full after compaction: {} live records", out);
   }
}

void TrevineWriterBase::relayout(U32 slotCapacity) {
   TrevineHeader* h = view().header();
   U32 oldSlots = h->slotCapacity;
   U32 ring = ringCapacityFor(slotCapacity);
   std::string error;
   U32 const used = view().size();
   // The records in use move up behind the longer position array; what lies
   // beyond them was never read and need not move (nor be provided).
   std::size_t const usedEnd = recordsOffset(slotCapacity) + static_cast<std::size_t>(used) * sizeof(Record);
   if (!file_.resize(fileSizeFor(slotCapacity, ring), error, Mem::MappedFile::Provision::onDemand) ||
       !file_.provide(provided_, usedEnd + provideStep, error)) {
      Jorro::throwCorruption("failed to resize {} to {} slots: {}", path_, slotCapacity, error);
   }
   provided_ = std::max(provided_, std::min(file_.size(), usedEnd + provideStep));
   h = view().header();
   Mem::store32(&h->swapCount, h->swapCount + 1);
   char* base = file_.base();
   std::memmove(base + recordsOffset(slotCapacity), base + recordsOffset(oldSlots),
                static_cast<std::size_t>(used) * sizeof(Record));
   std::fill(view().slotPos() + oldSlots, view().slotPos() + slotCapacity, noPos);
   h->slotCapacity = slotCapacity;
   h->ringCapacity = ring;
   Mem::store32(&h->swapCount, h->swapCount + 1);
   DUOLOG(5, "trevine grown from {} to {} slots", oldSlots, slotCapacity);
}

bool TrevineWriterBase::validate(U32 fenix, U32 maxSlot, std::string& message) const {
   if (!file_.isOpen()) {
      message = "trevine not attached";
      return false;
   }
   return view().validate(file_.size(), fenix, maxSlot, message);
}

void TrevineWriterBase::validateFile(U32 fenix, U32 maxSlot) const {
   std::string message;
   if (!validate(fenix, maxSlot, message)) throw Jorro::CorruptionDetectedException(message);
}

void TrevineWriterBase::cleanup() {
   detach();
   if (!path_.empty()) ::unlink(path_.c_str());
}

} // namespace Trevine

namespace Trevine {

bool TrevineReaderBase::attach(U32 fenix, std::string& message) {
   // A live writer compacts the records or lays the file out anew (growing
   // it) whenever it needs to, with swapCount odd meanwhile; a validation
   // that overlaps one sees records out of order, an odd swapCount, or a
   // capacity beyond the size we mapped. Those are not faults of the file:
   // map it again and look once more, for as long as a writer that is
   // merely descheduled in the middle of a swap could take. A fault that
   // stays while swapCount stays even and unchanged is the file's.
   auto const deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
   for (unsigned attempt = 0;; ++attempt) {
      detach();
      lastSeq_ = 0;
      std::string error;
      if (!file_.open(path_, Mem::MappedFile::Mode::readOnly, error)) {
         message = fmt::format("cannot attach to shmem {} size:{}: {}", path_, 0, error);
         return false;
      }
      if (file_.size() < sizeof(TrevineHeader)) {
         message = fmt::format("trevine file size:{} below header", file_.size());
         detach();
         return false;
      }
      U32 const before = swapCount();
      bool const valid = view().validate(file_.size(), fenix, 0, message);
      std::atomic_thread_fence(std::memory_order_acquire);
      if (valid) return true;
      bool const moving = (before & 1) != 0 || swapCount() != before;
      if (!moving || std::chrono::steady_clock::now() >= deadline) {
         detach();
         return false;
      }
      if (attempt < 64) {
         ::sched_yield();
      } else {
         ::usleep(1000);
      }
   }
}

U32 TrevineReaderBase::firstAfter(U64 seq, U32 size) const {
   Record const* records = view().records();
   U32 lo = 0, hi = size;
   while (lo < hi) {
      U32 mid = lo + (hi - lo) / 2;
      if (records[mid].seq <= seq) {
         lo = mid + 1;
      } else {
         hi = mid;
      }
   }
   return lo;
}

bool TrevineReaderBase::validateNotif(U32 slot, U64 seq) const {
   TrevineView v = view();
   if (swapCount() & 1) return true;
   if (slot >= v.header()->slotCapacity) return true;
   U32 const pos = Mem::load32(v.slotPos() + slot);
   if (pos == noPos) return true;
   if (pos >= v.size()) {
      DUOLOG(5, "latest notification out-of-range, slot:{} pos:{} size:{}", slot, pos, v.size());
      return true;
   }
   Record r;
   std::memcpy(&r, v.records() + pos, sizeof r);
   return !(r.slot == slot && r.seq > seq);
}

void TrevineReaderBase::traceSwapped(U64 writerSeq, U64 shadowSeq) {
   DUOLOG(7, "trevine swapped writerSeq:{} shadowSeq:{}", writerSeq, shadowSeq);
}

} // namespace Trevine
