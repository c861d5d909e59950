#pragma once
// The one process that changes a table.
//
// Zaffa::ZaffaWriter<Key, Value> keeps a hash table of Values (each holding
// its Key) in memory-mapped files that other processes read without a lock.
// Every change is ordered so that a reader, at any instant, finds either the
// old or the new state:
//
//   insertion: the value is whole in its slot before the slot is linked;
//   overwrite: the new value is whole in the lookaside slot before the
//              slot's LOOKASIDE bit goes up, and the slot is written only
//              while the bit is up;
//   removal:   the slot is unlinked before it goes on the free list.
//
// Every link changes by one 8-byte store that also raises the link's own
// sequence, so that a reader standing on it sees that it moved.
//
// Thread safety: one thread of one process. Mem::WriterLock refuses a second
// writer on the same files, in this process or another.
//
// Invariants (between operations):
//   1. runtimeFlags bit 0 is clear; it is set inside every changing
//      operation, and stays set when an exception leaves one (or between
//      directWrite and directCommit), which marks the table as interrupted.
//   2. Every occupied slot has exactly one live notification in the queue.
//   3. occupiedSlots <= numBuckets (the hash map grows past it).
//
// Errors: Jorro::CorruptionDetectedException when the files contradict
// themselves during an operation (the map ends the process; the next attach
// validates and re-formats); Jorro::AssertException for misuse (unbalanced
// direct mode); Zaffa::TableFullException when no slot can be had (the table
// is unchanged); Jorro::InvalidInitializeException from attach.

#include "Zaffa/platform/MemWriterLock.h"
#include "Zaffa/platform/SharedMemFenixFile.h"
#include "Zaffa/platform/SharedMemOwnerFile.h"
#include "Zaffa/SlotWriter.h"
#include "Zaffa/platform/Trevine.h"
#include "Zaffa/Validator.h"
#include "Zaffa/WriterHashMap.h"
#include "Zaffa/ZaffaTrace.h"
#include "Zaffa/ZaffaUtil.h"

#include <atomic>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <type_traits>

namespace Zaffa {

struct WriterConfig {
   // The directory of the files; empty makes a process-local table in
   // private memory (no files, no lock, a new generation at each attach).
   std::string rootPath = defaultRootPath;
   U32 minSlots = 64;
   U32 maxSlots = 1024;    // soft: beyond it the table grows by 10% a time
   bool fixed = false;     // never grows; minSlots := maxSlots
   bool shrink = true;     // compacts slots and halves buckets when emptied
   // A table that fails validation at attach is an error, not a re-format.
   bool strictValidation = false;
   U32 initialBuckets = 64;   // a power of two
   std::string className = "Zaffa::ZaffaMap";
};

struct WriterCounters {
   U64 inserts = 0;
   U64 overwrites = 0;
   U64 removes = 0;
   U64 directCommits = 0;
   U64 slotGrows = 0;
   U64 slotShrinks = 0;
   U64 bucketGrows = 0;
   U64 bucketShrinks = 0;
};

template <typename Key, typename Value>
class ZaffaWriter {
   static_assert(std::is_trivially_copyable_v<Value>, "values are copied as bytes between processes");

 public:
   using Map = WriterHashMap<Key, Value>;
   using KeyOf = ValueKey<Key, Value>;
   using Trevine = ::Trevine::TrevineWriter<U32, U32>;

   explicit ZaffaWriter(WriterConfig config)
       : config_(std::move(config)), root_(config_.rootPath),
         slots_(slotConfig(config_, root_)),
         map_(fileIn(FileNames::buckets), slots_, config_.shrink && !config_.fixed,
              config_.initialBuckets),
         trevine_(fileIn(FileNames::trevine)) {
      if (!ZaffaCore::isPowerOfTwo(config_.initialBuckets)) {
         Jorro::throwInvalidInitialize("initial buckets {} not a power of two", config_.initialBuckets);
      }
   }
   ~ZaffaWriter() { detach(false); }
   ZaffaWriter(ZaffaWriter const&) = delete;
   ZaffaWriter& operator=(ZaffaWriter const&) = delete;

   // ---- attach and recovery ----

   // Opens the files, takes the writer lock, and keeps the entries of an
   // earlier life if the files prove consistent; otherwise re-formats them
   // with a raised generation. Raises Jorro::InvalidInitializeException when
   // the files cannot be had (another live writer, no directory, strict
   // validation failed).
   void attach();
   // One attempt of attach: see the implementation for the order. Returns
   // false when the files must be re-formatted.
   bool attachAndValidate(bool reformat);
   // Runs the validator; false (with the message traced and kept in
   // lastValidationMessage()) on any fault.
   bool validate(SharedMem::FenixId fenix, bool debug);
   bool validate() { return validate(fenix_, false); }
   // Quick checks of every file, without walking; raises
   // Jorro::CorruptionDetectedException on the first fault. On success the
   // corruption marker is removed.
   void validateFiles();
   // Detaches and removes the table's files.
   void cleanup();
   void detach(bool doCleanup);
   std::string dumpHeaders() const;

   // ---- operations ----

   // Stores `value` under its key. With overwrite false an existing entry is
   // kept and returned. Returns the stored value (valid until the next
   // changing operation).
   Value const* write(Value const& value, bool overwrite);
   // Removes the key; copies its value into `old`. False when absent.
   bool remove(Key const& key, Value& old);
   Value const* lookup(Key const& key) const;
   // Walk order: bucket by bucket, each chain in its order. null at the end.
   Value const* first() const;
   Value const* next(Key const& key) const;

   // Direct mode: fill a value in place, then publish it with directCommit.
   // No other changing operation may come between the two calls
   // (Jorro::AssertException).
   Value* directWrite(Key const& key);
   // As directWrite, for an existing key only (null when absent, and then
   // the header is untouched). The buffer is not filled: the caller must
   // write all of it.
   Value* directUpdate(Key const& key);
   Value const* directCommit();

   // Compacts the slots now, as far as the occupancy allows.
   void shrink();

   // ---- state ----
   U32 members() const { return slots_.header()->occupiedSlots; }
   U32 capacity() const { return slots_.numSlots(); }
   U32 numBuckets() const { return map_.numBuckets(); }
   SharedMem::FenixId fenixId() const { return fenix_; }
   bool interruptedAtAttach() const { return interruptedAtAttach_; }
   bool attached() const { return slots_.attached(); }
   std::string const& lastValidationMessage() const { return lastValidationMessage_; }
   WriterCounters const& counters() const { return counters_; }
   Mem::RootPath const& rootPath() const { return root_; }
   bool local() const { return root_.empty(); }

   // The parts, for the validator, the tool and the tests.
   SlotWriterTable& slotTable() { return slots_; }
   Map& hashMap() { return map_; }
   Trevine& trevine() { return trevine_; }
   TableView view() const;

 private:
   // Runs one changing operation with runtimeFlags bit 0 set. An exception
   // that ends the operation leaves the bit set, which tells the next attach
   // that the operation was interrupted. (Done without a destructor that asks
   // whether an exception is passing: that costs a thread-local lookup on
   // every write.)
   template <typename Body>
   decltype(auto) inOperation(Body&& body) {
      runtimeFlagIs(true);
      if constexpr (std::is_void_v<std::invoke_result_t<Body>>) {
         body();
         runtimeFlagIs(false);
      } else {
         auto result = body();
         runtimeFlagIs(false);
         return result;
      }
   }

   static SlotTableConfig slotConfig(WriterConfig const& c, Mem::RootPath const& root) {
      SlotTableConfig s;
      s.path = root.empty() ? std::string() : root.file(FileNames::slots);
      s.valueType = std::string(typeName<Value>());
      s.classType = c.className;
      s.valueSize = sizeof(Value);
      s.minSlots = c.minSlots;
      s.maxSlots = c.maxSlots;
      s.fixed = c.fixed;
      s.shrink = c.shrink;
      s.defaultValue = [](void* where) { new (where) Value(); };
      return s;
   }
   std::string fileIn(char const* name) const { return root_.empty() ? std::string() : root_.file(name); }

   void runtimeFlagIs(bool on) {
      U16& f = slots_.header()->runtimeFlags;
      f = on ? static_cast<U16>(f | runtimeFlagInOperation) : static_cast<U16>(f & ~runtimeFlagInOperation);
   }
   Value* slotValue(U32 s) const { return reinterpret_cast<Value*>(slots_.slot(s).value()); }
   Value* lookasideValue() const { return reinterpret_cast<Value*>(slots_.lookaside().value()); }
   // Writes `value` into slot `s` under the sequence protocol.
   void storeValue(U32 s, Value const& value);
   void checkNotDirect(char const* what, std::string const& subject) const;
   void doMaybeShrinkSlots(U32 threshold);
   void move(U32 fromSlot);
   // The queue keeps a position for every slot the table ever had.
   void afterSlotGrow() {
      trevine_.ensureSlotCapacity(slots_.header()->mostSlots);
      ++counters_.slotGrows;
   }
   void afterInsert() {
      if (slots_.header()->occupiedSlots > map_.growThreshold()) {
         map_.growBuckets();
         ++counters_.bucketGrows;
      }
   }

   WriterConfig config_;
   Mem::RootPath root_;
   SlotWriterTable slots_;
   Map map_;
   Trevine trevine_;
   std::unique_ptr<SharedMem::OwnerFile> ownerFile_;
   std::unique_ptr<SharedMem::FenixFile> fenixFile_;
   std::unique_ptr<Mem::WriterLock> writerLock_;
   SharedMem::ShocketInfo shocketInfo_;
   SharedMem::FenixId fenix_;
   U32 seed_ = 0;
   U32 directSlot_ = noSlot;
   bool directNew_ = false;
   void* directPrev_ = nullptr;
   Key directKey_{};
   bool interruptedAtAttach_ = false;
   std::string lastValidationMessage_;
   WriterCounters counters_;
};

// ---------------------------------------------------------------------------
// Implementation

template <typename Key, typename Value>
class Validator : public ValidatorCore {
 public:
   explicit Validator(ZaffaWriter<Key, Value>& writer) : ValidatorCore(typedView(writer.view())) {}

   static TableView typedView(TableView v) {
      using KeyOf = ValueKey<Key, Value>;
      v.keyMatchesRhash = [](char const* value, U32 rhash, U32 seed) {
         Key const& k = KeyOf::get(*reinterpret_cast<Value const*>(value));
         return Jorro::Util::reverse(static_cast<U32>(k.hash(seed))) == rhash;
      };
      v.compareKeys = [](char const* a, char const* b) {
         Key const& ka = KeyOf::get(*reinterpret_cast<Value const*>(a));
         Key const& kb = KeyOf::get(*reinterpret_cast<Value const*>(b));
         return ka < kb ? -1 : (kb < ka ? 1 : 0);
      };
      return v;
   }
};

template <typename Key, typename Value>
TableView ZaffaWriter<Key, Value>::view() const {
   TableView v;
   v.slots = slots_.memory();
   v.slotFileSize = slots_.fileSize();
   if (local()) {
      // Process-local memory has no file length; the mapping is as large as
      // the table says.
      v.slotFileSize = Mem::fileSizeHelper(slots_.numSlots(), slots_.header()->slotSize,
                                           slots_.header()->headerBytes()).value_or(0);
   }
   v.expected = &slots_.expected();
   v.buckets = map_.buckets().view();
   v.bucketFileSize = map_.buckets().fileSize();
   v.trevine = trevine_.view();
   v.trevineFileSize = trevine_.fileSize();
   return v;
}

template <typename Key, typename Value>
void ZaffaWriter<Key, Value>::attach() {
   Mem::Atomics::checkCpuSupport();
   detach(false);
   std::string error;
   if (!local()) {
      if (!root_.create(error)) {
         Jorro::throwInvalidInitialize("cannot create root {}: {}", root_.dir(), error);
      }
      fenixFile_ = std::make_unique<SharedMem::FenixFile>(root_.file(FileNames::fenix));
      ownerFile_ = std::make_unique<SharedMem::OwnerFile>(root_.file(FileNames::owner));
      if (!ownerFile_->open(error)) Jorro::throwInvalidInitialize("{}", error);
      writerLock_ = std::make_unique<Mem::WriterLock>(root_.file(FileNames::writerLock));
      writerLock_->acquireWriterLock();
      ownerFile_->lock();
      shocketInfo_ = SharedMem::ShocketInfo{root_.file(FileNames::jolt), 0};
      auto stored = fenixFile_->read();
      fenix_ = stored ? *stored : SharedMem::newFenixId();
   } else {
      fenix_ = SharedMem::newFenixId();
   }
   bool reformat = false;
   if (ownerFile_ && !ownerFile_->validate()) {
      ZAFFA_LOG(1, "owner file validation failed, dumping owner file string: {}",
                ownerFile_->headerToString());
      reformat = true;
   }
   if (!attachAndValidate(reformat)) {
      if (reformat) throw Jorro::AssertException("failed to attach to and validate new files");
      if (!attachAndValidate(true)) throw Jorro::AssertException("failed to attach to and validate new files");
   }
   Util::removeCorruptionMarker(root_);
   if (!local()) {
      // The fenix file is what readers wait for (their sentry wakes on its
      // write), so it is written only once the owner file's lock is released:
      // a reader woken by it must find the files open to it. A reader that
      // attaches between the two steps reads the old generation in the fenix
      // file, fails the slot header's check, and attaches at the write.
      ownerFile_->unlock();
      if (!fenixFile_->write(fenix_)) {
         Jorro::throwInvalidInitialize("cannot write fenix file {}", fenixFile_->path());
      }
   }
   ZAFFA_LOG(3, "success {} capacity:{} fenixId:{} mtime:{} shocketInfo:{}", root_.dir(), capacity(),
             fenix_.toString(), fenixFile_ ? static_cast<long>(fenixFile_->mtime()) : 0L,
             shocketInfo_.toString());
}

template <typename Key, typename Value>
bool ZaffaWriter<Key, Value>::attachAndValidate(bool reformat) {
   auto ownerText = [this] { return ownerFile_ ? ownerFile_->headerToString() : std::string("none"); };
   if (reformat) {
      ZAFFA_LOG(1, "all entries from {} will be lost", root_.empty() ? std::string("local") : root_.dir());
      fenix_ = fenix_.nextGeneration();
   }
   counters_ = WriterCounters{};
   int result = slots_.attach(fenix_.value);
   result |= map_.attach(fenix_.value);
   result |= trevine_.attach(fenix_.value, slots_.header()->mostSlots);
   seed_ = slots_.header()->hashSeed;
   if (!reformat) {
      if (result != SlotWriterTable::newFile && result != SlotWriterTable::existingFile) {
         ZAFFA_LOG(1, "failed to attach to existing files");
         ZAFFA_LOG(1, "{}", dumpHeaders());
         ZAFFA_LOG(1, "owner file: {}", ownerText());
         return false;
      }
      if (!validate(fenix_, false)) {
         if (Util::runningOnPhysicalDut() && config_.strictValidation) {
            Util::removeCorruptionMarker(root_);
            Jorro::throwInvalidInitialize("failed initial validation of {} after re-attaching",
                                          root_.dir());
         }
         ZAFFA_LOG(1, "failed to validate existing files");
         ZAFFA_LOG(1, "{}", dumpHeaders());
         ZAFFA_LOG(1, "owner file: {}", ownerText());
         return false;
      }
   } else if (!validate(fenix_, false)) {
      Jorro::throwInvalidInitialize("failed validation");
   }
   if (ownerFile_) {
      std::string message;
      if (!ownerFile_->shocketInfoIs(shocketInfo_) || !ownerFile_->validate(message)) {
         Jorro::throwInvalidInitialize("wrote to owner file but validation failed: {}", message);
      }
   }
   interruptedAtAttach_ = (slots_.header()->runtimeFlags & runtimeFlagInOperation) != 0;
   if (interruptedAtAttach_) {
      // The walk proved the files consistent, so the interrupted operation
      // either had not changed anything yet or had finished its visible part.
      ZAFFA_LOG(3, "runtimeFlags:{:#x} an operation on {} was interrupted; files are consistent",
                slots_.header()->runtimeFlags, root_.dir());
      runtimeFlagIs(false);
   }
   if (reformat) ZAFFA_LOG(1, "re-formatted successfully");
   return true;
}

template <typename Key, typename Value>
bool ZaffaWriter<Key, Value>::validate(SharedMem::FenixId fenix, bool debug) {
   (void)debug;
   try {
      Validator<Key, Value> validator(*this);
      if (validator.validate(fenix.value)) {
         lastValidationMessage_.clear();
         return true;
      }
      lastValidationMessage_ = validator.message();
   } catch (std::exception const& e) {
      lastValidationMessage_ = e.what();
      ZAFFA_LOG(1, "caught: {}", e.what());
   }
   ZAFFA_LOG(1, "Zaffa {} validation failed: {}", root_.dir(), lastValidationMessage_);
   return false;
}

template <typename Key, typename Value>
void ZaffaWriter<Key, Value>::validateFiles() {
   map_.buckets().validateFile(fenix_.value);
   TableView v = view();
   Util::validateFile(slots_.header(), v.slotFileSize, fenix_.value);
   trevine_.validateFile(fenix_.value, slots_.header()->mostSlots);
   if (fenixFile_ && !fenixFile_->validate(fenix_)) {
      Jorro::throwCorruption("fenix file {} does not hold {}", fenixFile_->path(), fenix_.toString());
   }
   if (ownerFile_) ownerFile_->validateFile();
   Util::removeCorruptionMarker(root_);
}

template <typename Key, typename Value>
void ZaffaWriter<Key, Value>::detach(bool doCleanup) {
   if (directSlot_ != noSlot) {
      ZAFFA_LOG(3, "detaching {} in direct mode, slot:{} not committed", root_.dir(), directSlot_);
   }
   directSlot_ = noSlot;
   directNew_ = false;
   slots_.detach();
   map_.detach();
   trevine_.detach();
   if (doCleanup && !local()) {
      ZAFFA_LOG(3, "removing Zaffa files in {}", root_.dir());
      if (ownerFile_ && !ownerFile_->validate()) {
         ZAFFA_LOG(1, "owner file corruption detected but continuing with cleanup, dumped owner file: {}",
                   ownerFile_->headerToString());
      }
      for (char const* name : {FileNames::slots, FileNames::buckets, FileNames::trevine,
                               FileNames::fenix, FileNames::owner, FileNames::corruptionMarker}) {
         std::string path = root_.file(name);
         if (::unlink(path.c_str()) == 0) ZAFFA_LOG(5, "removing file: {}", path);
      }
   }
   ownerFile_.reset();
   fenixFile_.reset();
   writerLock_.reset();
}

template <typename Key, typename Value>
void ZaffaWriter<Key, Value>::cleanup() {
   detach(true);
}

template <typename Key, typename Value>
std::string ZaffaWriter<Key, Value>::dumpHeaders() const {
   std::string text;
   text += "slots: " + (slots_.attached() ? slots_.header()->toString() : std::string("detached"));
   text += "\nbuckets: " +
           (map_.buckets().attached() ? map_.buckets().view().headerToString() : std::string("detached"));
   text += "\ntrevine: " + (trevine_.attached() ? trevine_.view().headerToString() : std::string("detached"));
   return text;
}

template <typename Key, typename Value>
void ZaffaWriter<Key, Value>::checkNotDirect(char const* what, std::string const& subject) const {
   if (directSlot_ == noSlot && !directNew_) return;
   std::string held = directSlot_ == noSlot ? std::string("none") : describe(*lookasideValue());
   Jorro::throwAssert("unbalanced directSlot:{} containing value:{} when {}:{} - Make sure the "
                      "DirectIs/Commit are properly paired!",
                      directSlot_, held, what, subject);
}

template <typename Key, typename Value>
void ZaffaWriter<Key, Value>::storeValue(U32 s, Value const& value) {
   RawSlot slot = slots_.slot(s);
   U32 const seq = slot.seq();
   if (seq & seqOccupied) {
      // The old value stays readable until LOOKASIDE goes up; from then on a
      // reader takes the new one, whole, from the lookaside slot.
      RawSlot look = slots_.lookaside();
      look.rhashIs(slot.rhash());
      std::memcpy(look.value(), &value, sizeof(Value));
   }
   slot.seqIs(seq + 2);
   // Order the LOOKASIDE store before the stores of the value (a reader
   // that sees any of the new bytes also sees the flag and will retry).
   std::atomic_thread_fence(std::memory_order_release);
   std::memcpy(slot.value(), &value, sizeof(Value));
   slot.seqIs((seq + 4) | seqOccupied);
}

template <typename Key, typename Value>
Value const* ZaffaWriter<Key, Value>::write(Value const& value, bool overwrite) {
   Key const& key = KeyOf::get(value);
   if (directSlot_ != noSlot || directNew_) checkNotDirect("writing value", describe(value));
   return inOperation([&]() -> Value const* {
      U32 const h = Map::hashOf(key, seed_);
      auto place = map_.find(key, h);
      if (place.hit) {
         if (!overwrite) {
            ZAFFA_LOG(9, "existing {} bucket:{} slot:{} next:{}", describe(key), place.bucket, place.slot,
                      loadLink(slots_.slot(place.slot).link()).next);
            return slotValue(place.slot);
         }
         storeValue(place.slot, value);
         trevine_.notify(place.slot);
         ++counters_.overwrites;
         return slotValue(place.slot);
      }
      // alloc may grow the slot file; the mapping does not move, so prevLink
      // stays valid.
      U32 numSlotsBefore = slots_.numSlots();
      U32 s = slots_.alloc(place.rhash);
      if (slots_.numSlots() != numSlotsBefore) afterSlotGrow();
      RawSlot slot = slots_.slot(s);
      SlotLink own = loadLink(slot.link());
      storeLink(slot.link(), SlotLink{own.seq + 4, loadLink(place.prevLink).next});
      storeValue(s, value);
      relink(place.prevLink, s);
      afterInsert();
      trevine_.notify(s);
      ++counters_.inserts;
      return slotValue(s);
   });
}

template <typename Key, typename Value>
bool ZaffaWriter<Key, Value>::remove(Key const& key, Value& old) {
   if (directSlot_ != noSlot || directNew_) checkNotDirect("removing key", describe(key));
   return inOperation([&]() -> bool {
      U32 const h = Map::hashOf(key, seed_);
      auto place = map_.find(key, h);
      if (!place.hit) {
         ZAFFA_LOG(9, "{} bucket:{} not found", describe(key), place.bucket);
         return false;
      }
      U32 const s = place.slot;
      RawSlot slot = slots_.slot(s);
      std::memcpy(&old, slot.value(), sizeof(Value));
      // Unlink first: a reader standing on the slot can still walk on from it,
      // and its sequence check tells it that the slot changed.
      relink(place.prevLink, loadLink(slot.link()).next);
      slot.seqIs((slot.seq() + 4) & ~(seqOccupied | seqLookaside));
      slots_.release(s);
      SlotTableHeader* hdr = slots_.header();
      --hdr->occupiedSlots;
      U32 threshold = hdr->occupiedSlots < slots_.shrinkThreshold() / 2 ? slots_.shrinkThreshold() : 0;
      trevine_.notify(s);
      ++counters_.removes;
      doMaybeShrinkSlots(threshold);
      if (map_.shrink() && hdr->occupiedSlots < map_.shrinkThreshold()) {
         U32 before = map_.numBuckets();
         map_.shrinkBuckets();
         if (map_.numBuckets() != before) ++counters_.bucketShrinks;
      }
      return true;
   });
}

template <typename Key, typename Value>
Value const* ZaffaWriter<Key, Value>::lookup(Key const& key) const {
   auto place = map_.find(key, Map::hashOf(key, seed_));
   return place.hit ? slotValue(place.slot) : nullptr;
}

template <typename Key, typename Value>
Value const* ZaffaWriter<Key, Value>::first() const {
   U32 s = map_.firstSlot();
   return s == noSlot ? nullptr : slotValue(s);
}

template <typename Key, typename Value>
Value const* ZaffaWriter<Key, Value>::next(Key const& key) const {
   U32 s = map_.nextSlot(key, Map::hashOf(key, seed_));
   return s == noSlot ? nullptr : slotValue(s);
}

template <typename Key, typename Value>
Value* ZaffaWriter<Key, Value>::directWrite(Key const& key) {
   if (directSlot_ != noSlot || directNew_) checkNotDirect("modifying key", describe(key));
   // Held until directCommit: a process that dies in between leaves the mark.
   runtimeFlagIs(true);
   U32 const h = Map::hashOf(key, seed_);
   auto place = map_.find(key, h);
   U32 s;
   if (place.hit) {
      s = place.slot;
      directNew_ = false;
   } else {
      U32 numSlotsBefore = slots_.numSlots();
      s = slots_.alloc(place.rhash);
      if (slots_.numSlots() != numSlotsBefore) afterSlotGrow();
      directNew_ = true;
   }
   directPrev_ = place.prevLink;
   directSlot_ = s;
   directKey_ = key;
   Value* buffer = (slots_.slot(s).seq() & seqOccupied) ? lookasideValue() : slotValue(s);
   new (buffer) Value();
   KeyOf::set(*buffer, key);
   return buffer;
}

template <typename Key, typename Value>
Value* ZaffaWriter<Key, Value>::directUpdate(Key const& key) {
   if (directSlot_ != noSlot || directNew_) checkNotDirect("modifying key", describe(key));
   return inOperation([&]() -> Value* {
      auto place = map_.find(key, Map::hashOf(key, seed_));
      if (!place.hit) return nullptr;
      directNew_ = false;
      directPrev_ = place.prevLink;
      directSlot_ = place.slot;
      directKey_ = key;
      return lookasideValue();
   });
}

template <typename Key, typename Value>
Value const* ZaffaWriter<Key, Value>::directCommit() {
   if (directSlot_ == noSlot) {
      throw Jorro::AssertException("not in direct mode! Make sure the DirectIs/Commit are properly paired!");
   }
   U32 const s = directSlot_;
   RawSlot slot = slots_.slot(s);
   U32 const seq = slot.seq();
   Value const* buffer = (seq & seqOccupied) ? lookasideValue() : slotValue(s);
   if (!(KeyOf::get(*buffer) == directKey_)) {
      Jorro::throwAssert("direct mode key changed from {} to {} - the key of a direct value is fixed",
                         describe(directKey_), describe(KeyOf::get(*buffer)));
   }
   runtimeFlagIs(true);
   if (directNew_) {
      SlotLink own = loadLink(slot.link());
      storeLink(slot.link(), SlotLink{own.seq + 4, loadLink(directPrev_).next});
   }
   if (seq & seqOccupied) {
      RawSlot look = slots_.lookaside();
      look.rhashIs(slot.rhash());
      slot.seqIs(seq + 2);
      std::atomic_thread_fence(std::memory_order_release);
      std::memcpy(slot.value(), look.value(), sizeof(Value));
      slot.seqIs(seq + 4);
   } else {
      // The value was written straight into the unlinked slot.
      slot.seqIs((seq + 4) | seqOccupied);
   }
   directSlot_ = noSlot;
   if (directNew_) {
      relink(directPrev_, s);
      directNew_ = false;
      afterInsert();
      ++counters_.inserts;
   } else {
      ++counters_.overwrites;
   }
   ++counters_.directCommits;
   trevine_.notify(s);
   runtimeFlagIs(false);
   return slotValue(s);
}

template <typename Key, typename Value>
void ZaffaWriter<Key, Value>::shrink() {
   if (directSlot_ != noSlot || directNew_) checkNotDirect("shrinking", root_.dir());
   inOperation([&]() {
      U32 threshold = slots_.shrinkThreshold();
      doMaybeShrinkSlots(threshold ? threshold : slots_.numSlots());
   });
}

template <typename Key, typename Value>
void ZaffaWriter<Key, Value>::doMaybeShrinkSlots(U32 threshold) {
   if (threshold == 0 || config_.fixed) return;
   if (trevine_.shrinkStarted()) {
      ZAFFA_LOG(3, "shrink started, ignoring shrinkThreshold:{}", threshold);
      return;
   }
   U32 const n = slots_.header()->occupiedSlots;
   U32 target = 0;
   if (n != 0) {
      int log2 = 31 - __builtin_clz(n);
      target = log2 + 2 >= 31 ? slotIndexMask : (1u << (log2 + 2));
   }
   target = std::max(target, slots_.minSlots());
   ZAFFA_LOG(5, "threshold:{} shrinkThreshold:{}{}", threshold, slots_.shrinkThreshold(),
             target < slots_.shrinkThreshold() ? " SUPER SHRINK!" : "");
   U32 const old = slots_.numSlots();
   if (target >= old) return;
   slots_.purgeFreeSlots(target);
   trevine_.markShrinkStart();
   for (U32 s = target; s < old; ++s) {
      if (!(slots_.slot(s).seq() & seqOccupied)) {
         ZAFFA_LOG(11, "skipping not occupied slot:{}", s);
         continue;
      }
      move(s);
   }
   trevine_.markShrinkEnd();
   std::string message;
   if (!slots_.resize(target, message)) Jorro::throwCorruption("{}", message);
   ++counters_.slotShrinks;
   ZAFFA_LOG(3, "{} from {} slots to {}", root_.dir(), old, target);
}

template <typename Key, typename Value>
void ZaffaWriter<Key, Value>::move(U32 fromSlot) {
   RawSlot from = slots_.slot(fromSlot);
   Key const key = KeyOf::get(*slotValue(fromSlot));
   auto place = map_.find(key, Map::hashOf(key, seed_));
   if (!place.hit) Jorro::throwCorruption("fromSlot:{} key not found", fromSlot);
   if (place.slot != fromSlot) Jorro::throwCorruption("fromSlot:{} not referenced", fromSlot);
   SlotTableHeader* h = slots_.header();
   U32 const toSlot = h->freeSlots;
   if (toSlot == noSlot) Jorro::throwCorruption("not valid toSlotId:{}", toSlot);
   if (toSlot >= fromSlot) {
      Jorro::throwCorruption("should always move entries to lower section fromSlotId:{} toSlotId:{}",
                             fromSlot, toSlot);
   }
   RawSlot to = slots_.slot(toSlot);
   h->freeSlots = loadLink(to.link()).next;
   to.rhashIs(from.rhash());
   SlotLink own = loadLink(to.link());
   storeLink(to.link(), SlotLink{own.seq + 4, loadLink(from.link()).next});
   storeValue(toSlot, *slotValue(fromSlot));
   relink(place.prevLink, toSlot);
   from.seqIs((from.seq() + 4) & ~(seqOccupied | seqLookaside));
   trevine_.notify(toSlot);
   trevine_.tombstone(fromSlot);
}

} // namespace Zaffa
