#pragma once
// The notification queue of a table: what changed, in order, for readers
// that keep a private copy of the table up to date.
//
// The queue file holds a header, one position per slot of the table, and an
// array of records. A record is (sequence, slot, flags); the sequences of the
// records in use (positions 0..size-1) rise strictly. The set of records that
// are not deleted is the corral.
//
//   0     TrevineHeader (64 bytes)
//   64    slotPos[slotCapacity]: U32 position of the slot's latest record,
//         noPos if the slot never changed
//   recordsOffset()  records[ringCapacity], 16 bytes each
//
// notify(slot) appends a record for the slot and deletes the slot's previous
// one, so each slot has at most one live notification, and a reader that
// reads the corral from its last sequence on learns of every slot that
// changed since. tombstone(slot) appends a record that tells a reader to
// forget what it knew under a slot that a shrink has just moved; tombstones
// are active from markShrinkStart() to markShrinkEnd().
//
// When the array is full, the live records are compacted to its front, and
// when the table outgrows slotCapacity, the file is laid out anew. Both move
// records under a reader: swapCount is odd while they run, and a reader that
// sees it change starts a full pass ("trevine swapped").
//
// Invariants at rest (checked by validate() and the table's validator):
//   1. swapCount is even.
//   2. records[0..size) have strictly rising sequences, the last one
//      writerSeq at most.
//   3. For a live record at p of slot s: slotPos[s] == p.
//   4. No tombstone is active unless a shrink is running.
//
// Thread safety: one writer; readers only read. The record is complete
// before `size` is raised (release), and a reader acquires `size`.

#include "framework/VorHash.h"
#include "Zaffa/platform/Mem.h"

#include <atomic>
#include <cstring>
#include <functional>
#include <string>

namespace Trevine {

using Vor::U32;
using Vor::U64;

constexpr U32 noPos = 0xFFFFFFFFu;

struct TrevineHeader {
   char magic[8];
   U32 version;
   U32 fenix;
   U32 slotCapacity;
   U32 ringCapacity;
   U32 swapCount;
   U32 flags;
   U64 writerSeq;
   U32 size;
   U32 shrinkStartPos;
   U64 reserved[2];
};
static_assert(sizeof(TrevineHeader) == 64);

constexpr U32 headerFlagShrinking = 1;

struct Record {
   U64 seq;
   U32 slot;
   U32 flags;
};
static_assert(sizeof(Record) == 16);

constexpr U32 recordDeleted = 1;
constexpr U32 recordTombstone = 2;
constexpr U32 recordActive = 4;

inline std::size_t recordsOffset(U32 slotCapacity) {
   return sizeof(TrevineHeader) + (static_cast<std::size_t>(slotCapacity) * 4 + 15) / 16 * 16;
}
inline std::size_t fileSizeFor(U32 slotCapacity, U32 ringCapacity) {
   return recordsOffset(slotCapacity) + static_cast<std::size_t>(ringCapacity) * sizeof(Record);
}
inline U32 ringCapacityFor(U32 slotCapacity) { return slotCapacity * 3 + 64; }

// Read access to a mapped queue file.
class TrevineView {
 public:
   TrevineView() = default;
   explicit TrevineView(char* base) : base_(base) {}
   TrevineHeader* header() const { return reinterpret_cast<TrevineHeader*>(base_); }
   U32* slotPos() const { return reinterpret_cast<U32*>(base_ + sizeof(TrevineHeader)); }
   Record* records() const {
      return reinterpret_cast<Record*>(base_ + recordsOffset(header()->slotCapacity));
   }
   U32 size() const { return Mem::load32(&header()->size); }
   bool shrinking() const { return (header()->flags & headerFlagShrinking) != 0; }
   // Checks the file on its own: header, size against the file, the order of
   // the records and the slot positions. wantedFenix 0 matches any; maxSlot
   // is the largest number of slots the table ever had.
   bool validate(std::size_t fileSize, U32 wantedFenix, U32 maxSlot, std::string& message) const;
   std::string headerToString() const;
   char* base() const { return base_; }

 private:
   char* base_ = nullptr;
};

class TrevineWriterBase {
 public:
   enum AttachResult { newFile = 1, existingFile = 2, reformatted = 4 };

   // path empty: process-local memory.
   explicit TrevineWriterBase(std::string path) : path_(std::move(path)) {}

   // Opens the queue file; keeps it when it is of generation `fenix` and its
   // header is sane, otherwise lays it out anew for `slotCapacity` slots.
   // Raises Jorro::InvalidInitializeException when it cannot be mapped.
   int attach(U32 fenix, U32 slotCapacity);
   void detach();
   bool attached() const { return file_.isOpen(); }

   // Tells readers that `slot` changed. May compact or re-lay out the file.
   void notify(U32 slot);
   // Tells readers to forget what they knew under `slot`, moved by a shrink.
   void tombstone(U32 slot);
   void markShrinkStart();
   void markShrinkEnd();
   bool shrinkStarted() const { return view().shrinking(); }
   // No shrink is running, so no reader needs to hold on to tombstones.
   bool quiesced() const { return !shrinkStarted(); }
   // Makes room for slots 0..n-1 (a table that grows).
   void ensureSlotCapacity(U32 n);

   // Called after every append (notify or tombstone), once the record is
   // visible: how the writer's wake-ups (Jolt::WriterJoltSm) learn that the
   // queue moved. Must be cheap and must not touch the queue. Empty: none.
   void appendObserverIs(std::function<void()> fn) { appendObserver_ = std::move(fn); }

   bool validate(U32 fenix, U32 maxSlot, std::string& message) const;
   // Raises Jorro::CorruptionDetectedException with validate()'s message.
   void validateFile(U32 fenix, U32 maxSlot) const;
   // Removes the file. REQUIRES: detached.
   void cleanup();

   TrevineView view() const { return TrevineView(file_.base()); }
   std::string const& path() const { return path_; }
   std::size_t fileSize() const { return file_.size(); }

 private:
   void format(U32 fenix, U32 slotCapacity);
   U32 append(U32 slot, U32 flags);
   void compact();
   void relayout(U32 slotCapacity);
   // Makes sure that the first `bytes` of the file are backed by memory,
   // providing a step ahead. Raises Jorro::CorruptionDetectedException when
   // the file system cannot back them.
   void provideUpTo(std::size_t bytes);
   // The end of the record at position p.
   std::size_t recordEnd(U32 p) const {
      return recordsOffset(view().header()->slotCapacity) + (static_cast<std::size_t>(p) + 1) * sizeof(Record);
   }

   // The record array is provided as the queue fills: a queue sized for a
   // large table holds few records for most of its life, and a page costs
   // the same to provide now or at its first record.
   static constexpr std::size_t provideStep = 256 * 1024;

   std::string path_;
   Mem::MappedFile file_;
   std::size_t provided_ = 0;   // bytes of the file known to be backed
   std::function<void()> appendObserver_;
};

// The queue as the table names it: elements are slot indices (BasicSlot) and
// positions are indices into the record array (TrevinePos).
template <typename BasicSlot, typename TrevinePos>
class TrevineWriter : public TrevineWriterBase {
   static_assert(sizeof(BasicSlot) == 4 && sizeof(TrevinePos) == 4,
                 "the queue file stores 32-bit slots and positions");

 public:
   using TrevineWriterBase::TrevineWriterBase;
};

} // namespace Trevine

namespace Trevine {

// The queue's read side, for a reader that keeps a private copy of the table.
//
// A reader remembers the sequence of the last record it took (lastSeq). The
// live records of the file always include, for every slot that changed after
// lastSeq, that slot's latest record (a slot's earlier records are deleted
// only when a later one is appended), and their sequences rise with their
// positions; so a binary search for the first sequence above lastSeq, and a
// scan from there to `size`, tells the reader of every slot that changed.
//
// The writer moves records under a reader when it compacts the array or lays
// the file out anew; swapCount is odd while it does, and changes. A scan that
// sees swapCount odd or changed may have read moved or half-moved records: it
// keeps lastSeq where it was, and the next poll scans again ("trevine
// swapped"). So a record may be delivered more than once, or a slot that did
// not change may be delivered; the reader must treat a record as "look at
// this slot again", never as a description of the change.
//
// Thread safety: one thread. Nothing is ever stored to the file.
class TrevineReaderBase {
 public:
   struct Poll {
      U32 delivered = 0;     // records handed to the callback
      bool caughtUp = false; // the scan reached the end of the queue
      bool swapped = false;  // the writer moved records during the scan
   };

   explicit TrevineReaderBase(std::string path) : path_(std::move(path)) {}
   // Maps the file read-only and validates it against `fenix` (0: any).
   // A validation that overlapped the writer moving records is tried again
   // (bounded), so a live writer's compactions and growth do not fail it.
   // False with the fault in `message`.
   bool attach(U32 fenix, std::string& message);
   void detach() { file_.close(); }
   bool attached() const { return file_.isOpen(); }

   // The writer's latest sequence now.
   U64 writerSeq() const { return Mem::load64(&view().header()->writerSeq); }
   U64 lastSeq() const { return lastSeq_; }
   // Skip everything up to `seq`: the caller has looked at every slot after
   // reading writerSeq() == seq.
   void lastSeqIs(U64 seq) { lastSeq_ = seq; }

   // Hands up to `limit` records after lastSeq to fn(slot, seq, tombstone),
   // in order, and advances lastSeq past them unless the writer moved records
   // during the scan.
   template <typename F>
   Poll poll(F&& fn, U32 limit);

   // False when `seq` is no longer the latest notification of `slot`: a later
   // one exists, and will be delivered. True when it is, or when that cannot
   // be told now (records moving); traces "latest notification out-of-range"
   // when the slot's position lies beyond the records in use.
   bool validateNotif(U32 slot, U64 seq) const;

   TrevineView view() const { return TrevineView(file_.base()); }
   std::string const& path() const { return path_; }

 private:
   U32 swapCount() const { return Mem::load32(&view().header()->swapCount); }
   // First position whose record has a sequence above `seq`.
   U32 firstAfter(U64 seq, U32 size) const;
   static void traceSwapped(U64 writerSeq, U64 shadowSeq);

   std::string path_;
   Mem::MappedFile file_;
   U64 lastSeq_ = 0;
};

template <typename F>
TrevineReaderBase::Poll TrevineReaderBase::poll(F&& fn, U32 limit) {
   Poll result;
   U32 const swaps = swapCount();
   if (swaps & 1) {
      result.swapped = true;
      return result;
   }
   // Acquire: the records below size are whole.
   U32 const size = view().size();
   U32 const slotCapacity = view().header()->slotCapacity;
   Record const* records = view().records();
   U64 last = lastSeq_;
   U32 p = firstAfter(last, size);
   for (; p < size && result.delivered < limit; ++p) {
      Record r;
      std::memcpy(&r, records + p, sizeof r);
      if (r.seq <= last) break;   // records moved under us; the check below tells
      last = r.seq;
      if (r.flags & recordDeleted) continue;
      if (r.slot >= slotCapacity) continue;
      fn(r.slot, r.seq, (r.flags & recordTombstone) != 0);
      ++result.delivered;
   }
   std::atomic_thread_fence(std::memory_order_acquire);
   if (swapCount() != swaps) {
      traceSwapped(writerSeq(), lastSeq_);
      result.swapped = true;
      return result;
   }
   lastSeq_ = last;
   result.caughtUp = p >= size;
   return result;
}

// The queue as the table names it: elements are slot indices.
template <typename BasicSlot>
class TrevineReader : public TrevineReaderBase {
   static_assert(sizeof(BasicSlot) == 4, "the queue file stores 32-bit slots");

 public:
   using TrevineReaderBase::TrevineReaderBase;
};

} // namespace Trevine
