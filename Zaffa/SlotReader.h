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

#include "Zaffa/Mem.h"
#include "Zaffa/SlotTable.h"

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
   Mem::MappedFile file_;
   SlotMemory mem_;
   U32 numSlots_ = 0;
   U32 numSlotsVersion_ = 0;
   U32 valueSize_ = 0;
   Reader::Counters counters_;
};

} // namespace Zaffa
