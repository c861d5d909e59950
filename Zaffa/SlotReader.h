#pragma once
// The reader's side of the slot file: a read-only mapping of another
// process's table, and the slot read on which the whole lock-free protocol
// rests.
//
// A reader never stores to the shared files and never takes a lock. The
// writer may overwrite, free, re-use, move and compact any slot at any time,
// and grow or shrink the slot array. What makes a copy trustworthy is the
// slot's sequence word (see SlotTable.h):
//
//   1. load the sequence s1 (acquire);
//   2. copy rhash and value, from the lookaside slot if s1 has LOOKASIDE
//      (the slot itself is then being rewritten), otherwise from the slot;
//   3. an acquire fence, then load the sequence s2;
//   4. s1 == s2: the copy is one whole version of the slot; otherwise retry.
//
// The writer's side of the pairing (ZaffaWriter::storeValue) is: sequence
// +2 (LOOKASIDE up), a release fence, the stores of the value, sequence +2
// with OCCUPIED. So a copy that overlaps any store of the value sees a
// different s2. A copy taken under LOOKASIDE reads the lookaside slot, which
// the writer rewrites only for a later overwrite, that is only after this
// slot's sequence has moved on. The sequence counter rises by 4 per write, so
// it does not come back to s1 within any realistic read.
//
// A walk does not need the value of every slot it passes: it needs the rhash
// and the key to decide, and the value of the one slot it returns. read()
// takes both in the same window between the two loads of the sequence:
//
//   1. load s1; copy rhash and the key's bytes (from where step 2 above says);
//   2. ask the caller whether it wants this slot, from that rhash and key;
//   3. only if it does, copy the value, from the same place;
//   4. the fence and s2 as above; s1 != s2 throws everything away, decision
//      included, and starts again from 1.
//
// So the decision may be taken on a torn key and must be a pure function of
// what it is given; only the decision of the read that returns counts, and a
// value is only ever handed out together with the sequence that proves it.
// A slot that is passed over costs two sequence loads and the copy of its key.
//
// What the copy says is only as good as its sequence: a slot without
// OCCUPIED (free, or a first write in progress) holds no value that may be
// used, and the caller decides what that means for its walk.
//
// The mapping reserves the largest possible file once and never moves
// (Mem::MappedFile). The writer never makes the slot file shorter while it
// lives (a shrink punches holes; reads there give zeros, which is a slot
// without OCCUPIED), so any index below the largest numSlots that this
// reader has seen is safe to touch.
//
// Thread safety: a SlotReaderTable belongs to one thread. Counters are plain.
//
// Invariants:
//   1. numSlots() is a numSlots value that the header held at some moment,
//      and the file was at least as long as that table needs then.
//   2. No store is ever made through the mapping (it is PROT_READ).

#include "Zaffa/platform/Mem.h"
#include "Zaffa/SlotTable.h"

#include <atomic>
#include <cstring>
#include <stdexcept>
#include <string>

namespace Mem {

// The process reads a table of an older generation than the one its root
// directory now holds: its writer was replaced, and the files may have been
// re-formatted under it.
class VersionMismatchException : public std::runtime_error {
 public:
   explicit VersionMismatchException(std::string const& text) : std::runtime_error(text) {}
};

} // namespace Mem

namespace Zaffa {

namespace Reader {
// What a reader did, for diagnosis. Plain counters: one thread.
struct Counters {
   U64 lookups = 0;
   U64 slotReads = 0;
   U64 lookasideReads = 0;   // reads served from the lookaside slot
   U64 retries = 0;          // slot reads repeated because the sequence moved
   U64 walkRestarts = 0;     // chain walks sent back to the head
   U64 resizes = 0;          // remaps after the writer resized slots or buckets
   U64 slowPaths = 0;        // next() that had to find its place by hash
};
} // namespace Reader

// Raised inside a walk when a slot index is at or beyond the reader's copy of
// numSlots. It is expected while the writer grows the table; the retrying
// shells (ZaffaReader::lookup and next) remap and start again, and only
// report corruption when there was nothing to remap.
class SlotOutOfRange : public std::runtime_error {
 public:
   SlotOutOfRange(std::string const& text, U32 index) : std::runtime_error(text), index_(index) {}
   U32 index() const { return index_; }

 private:
   U32 index_;
};

class SlotReaderTable {
 public:
   SlotReaderTable() = default;
   SlotReaderTable(SlotReaderTable const&) = delete;
   SlotReaderTable& operator=(SlotReaderTable const&) = delete;

   // Maps `path` read-only and checks its header: Header::validate against
   // the file size and `wantedFenix` (0: any), and that the slots hold values
   // of `valueSize` bytes. Returns false with the fault in `message`; the
   // table is then detached.
   bool attach(std::string const& path, U32 wantedFenix, U32 valueSize, std::string& message);
   void detach();
   bool attached() const { return file_.isOpen(); }

   // Follows the writer: when the header's numSlots (one 8-byte word with its
   // version) differs from the local copy, take the new value. Returns true
   // when something changed. Raises Jorro::CorruptionDetectedException with
   // "bad newNumSlots:{} message:{}" when the new size cannot be a table.
   bool doResize();

   // The slot read described above. Copies `valueSize` bytes of the value
   // into `value` and the rhash into `rhash`, and returns the sequence word
   // under which the copy was taken. REQUIRES: attached. Raises SlotOutOfRange
   // "out-of-range index:{} numSlots:{}" for an index at or beyond numSlots().
   U32 getValue(U32 slot, void* value, U32& rhash);

   // What one read() saw, all of it from one version of the slot.
   struct Read {
      U32 seq;       // the sequence word the read was taken under
      U32 rhash;
      bool copied;   // the value was wanted and copied
   };
   // The slot read with the decision in the middle (see above). Copies the
   // rhash and the `keyBytes` bytes at `keyOffset` of the value into `key`,
   // then calls `wanted(seq, rhash)`, which reads the key from `key` and
   // returns true for a slot whose value it wants; only then are the
   // `valueSize()` bytes of the value copied into `value`. `wanted` is called
   // once per attempt and may see a torn key: it must only compute. The
   // result is that of the last attempt, whose key, decision and (if copied)
   // value are one whole version of the slot. When it says not copied,
   // `value` may still hold the copy of an attempt that was thrown away.
   // REQUIRES: attached,
   // keyOffset + keyBytes <= valueSize(). Raises SlotOutOfRange as getValue.
   template <typename Wanted>
   Read read(U32 slot, std::size_t keyOffset, std::size_t keyBytes, void* key, void* value, Wanted&& wanted);
   // The slot's sequence word now (acquire), and its link now (one 8-byte load).
   U32 sequence(U32 slot) const { return Mem::load32(mem_.slot(slot).p + 8); }
   SlotLink link(U32 slot) const { return loadLink(mem_.slot(slot).link()); }

   SlotTableHeader const* header() const { return mem_.header(); }
   U32 numSlots() const { return numSlots_; }
   U32 numSlotsVersion() const { return numSlotsVersion_; }
   U32 valueSize() const { return valueSize_; }
   U32 fenix() const { return header()->fenix; }
   std::string const& path() const { return file_.path(); }
   char* base() const { return mem_.base(); }
   Reader::Counters& counters() { return counters_; }
   Reader::Counters const& counters() const { return counters_; }

 private:
   // How many times attach looks again at a header that a resizing writer
   // changed under it, before it reports what it saw.
   static constexpr int maxAttachRetries = 1000;
   [[noreturn]] void throwOutOfRange(U32 slot) const;

   Mem::MappedFile file_;
   SlotMemory mem_;
   U32 numSlots_ = 0;
   U32 numSlotsVersion_ = 0;
   U32 valueSize_ = 0;
   Reader::Counters counters_;
};

template <typename Wanted>
SlotReaderTable::Read SlotReaderTable::read(U32 slot, std::size_t keyOffset, std::size_t keyBytes, void* key,
                                            void* value, Wanted&& wanted) {
   if (slot >= numSlots_) throwOutOfRange(slot);
   RawSlot s = mem_.slot(slot);
   RawSlot look = mem_.lookaside();
   ++counters_.slotReads;
   for (;;) {
      U32 const s1 = Mem::load32(s.p + 8);
      RawSlot from = (s1 & seqLookaside) ? look : s;
      if (s1 & seqLookaside) ++counters_.lookasideReads;
      // These plain copies may race with the writer's stores; whatever they
      // read, and whatever `wanted` made of it, is thrown away unless the
      // sequence proves that no store overlapped them.
      Read r{s1, 0, false};
      std::memcpy(&r.rhash, from.p + 12, sizeof r.rhash);
      if (keyBytes != 0) std::memcpy(key, from.value() + keyOffset, keyBytes);
      r.copied = wanted(s1, r.rhash);
      if (r.copied) std::memcpy(value, from.value(), valueSize_);
      // Orders the copies above before the second load of the sequence (the
      // reader's half of the seqlock; the writer's half is its release fence
      // after raising LOOKASIDE).
      std::atomic_thread_fence(std::memory_order_acquire);
      U32 const s2 = std::atomic_ref<U32>(*reinterpret_cast<U32*>(s.p + 8)).load(std::memory_order_relaxed);
      if (s1 == s2) return r;
      ++counters_.retries;
   }
}

} // namespace Zaffa
