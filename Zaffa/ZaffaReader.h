#pragma once
// A process that reads another process's table, on demand, without a lock.
//
// Zaffa::ZaffaReader<Key, Value> maps the slot and bucket files of a table
// read-only and looks keys up and walks the table while the writer writes,
// grows and shrinks the slot array, splits and joins buckets and compacts
// slots under it. It never stores to the files and never blocks the writer.
// Every value it hands out is a whole version of one slot, proved by the
// slot's sequence word (SlotReader.h), holding the key it was asked for.
//
// How a walk stays honest. A chain is a list of slot indices. Each link is
// one 8-byte word (seq, next) whose seq the writer raises by 4 at every
// change, and every slot has a sequence word that changes at every write and
// at its release. A walk keeps, for the step it is on, the link it followed
// (its address and the word read) and the sequence of the slot that link
// lives in. Whenever the walk meets something it cannot use (a slot without
// OCCUPIED, a key that does not belong to the bucket, an index out of range,
// too many steps) and before it trusts a miss, it re-reads that link and that
// sequence: if either moved, the writer changed the chain under the walk and
// it goes back to the head of the chain. Only a fault that survives this
// check, with the reader's copies of numSlots and numBuckets current, is
// corruption.
//
// What a walk copies. A walk decides at each slot from the slot's rhash and
// key alone, read under the slot's sequence (SlotReaderTable::read); the
// value is copied only for the slot the walk returns, in the same window,
// straight into the caller's value. One chain walk (walkChain) serves lookup
// and next alike; what differs between them is the decision at each step
// (LookupPolicy, NextPolicy).
//
// Resizes. The reader keeps local copies of numSlots and numBuckets, each
// with the version stored beside it in the same 8-byte word. A walk may use
// copies one step old: a key is accepted in a bucket when its hash fits the
// local numBuckets (which covers the writer's numBuckets * 2 as well, and a
// join into numBuckets / 2 only ever appends the upper chain in order).
// lookup() compares the versions after every walk, and a miss, an index out
// of range or a fault with a stale copy sends it back to the start after
// catching up (doResize on slots and buckets).
//
// Walk order: bucket by bucket, each chain in its order (rhash, then key).
// next(key) continues after `key`, present or not. A walk that runs while the
// table changes sees each key that stays in the table from its start to its
// end at least once, unless the number of buckets changed in between, in
// which case keys may be seen twice or missed; it always ends.
//
// Thread safety: a reader belongs to one thread. Any number of readers, in
// any number of processes, may read one table.
//
// Invariants:
//   1. While attached, slots() and buckets() map files of generation
//      fenixId(), which the fenix file named at attach.
//   2. No store is ever made to the shared files.
//
// Errors: Jorro::CorruptionDetectedException when the files contradict
// themselves beyond what a concurrent writer explains (texts below, at each
// operation); Mem::VersionMismatchException from validateVersionAnchor();
// Jorro::AssertException "{} detached" for an operation on a detached reader.

#include "Zaffa/BucketReader.h"
#include "Zaffa/platform/SharedMemFenixFile.h"
#include "Zaffa/SlotReader.h"
#include "Zaffa/WriterHashMap.h"
#include "Zaffa/ZaffaTrace.h"
#include "Zaffa/ZaffaUtil.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <string>
#include <type_traits>

namespace Zaffa {

// Where a walk stands: the slot of the last key it returned, the bucket it
// was in, and the versions of numSlots and numBuckets it was found under.
struct IterHint {
   U64 version = 0;
   U32 slot = noSlot;
   U32 bucket = 0;
   std::string toString() const {
      return fmt::format("IterHint{{ version {}, slot {}, bucket {} }}", version, slot, bucket);
   }
};

template <typename Key, typename Value>
class ZaffaReader {
   static_assert(std::is_trivially_copyable_v<Value>, "values are copied as bytes between processes");
   static_assert(std::is_trivially_copyable_v<Key>, "a slot's key is read as bytes before its value");

 public:
   using KeyOf = ValueKey<Key, Value>;

   explicit ZaffaReader(Mem::RootPath root, std::string name = "ZaffaReader")
       : root_(std::move(root)), name_(std::move(name)), keyOffset_(keyOffsetInValue()) {}
   ~ZaffaReader() { detach(false); }
   ZaffaReader(ZaffaReader const&) = delete;
   ZaffaReader& operator=(ZaffaReader const&) = delete;

   // Maps the table whose generation the fenix file names, and validates the
   // headers of its slot and bucket files against it and against Value.
   // Waits for no one: when a writer is in the middle of its attach (it holds
   // the owner file's lock), returns false at once. Returns false with one of
   // "failed to read fenix file", "failed to attach to slots",
   // "failed to attach to buckets", "failed to validate buckets",
   // "writer is attaching" (and the detail) in `message`, detached.
   bool attach(std::string& message);
   // Unmaps. A second detach traces "already detached".
   void detach(bool quiet = true);
   bool attached() const { return slots_.attached(); }

   // Looks `key` up; on a hit copies the value into `value`. Retries across
   // resizes. On false the content of `value` is unspecified: a copy that a
   // concurrent write spoiled may have been started in it. `key` may be the
   // key inside `value`. Raises Jorro::CorruptionDetectedException ("corrupt key
   // detected. key:{} bucketIndex:{}", "slow-path slot:{} not marked as
   // occupied key:{} slotCount:{}", "hash chain cycle detected, slotCount:{}
   // capacity:{}", "out-of-range index:{} numSlots:{}").
   bool lookup(Key const& key, Value& value);
   // The first entry of the walk; false when the table is empty (`value` is
   // then unspecified, as for lookup).
   bool first(Value& value, IterHint& hint);
   // The entry after `key`; false at the end. With the hint of the call that
   // returned `key`, and nothing changed, it follows the link (fast path);
   // otherwise it finds its place by hash (slow path). `key` may be the key
   // inside `value`. On false, as for lookup, `value` is unspecified.
   bool next(Key const& key, Value& value, IterHint& hint);
   // Reads one slot by the sequence protocol. True when the slot held a
   // value (OCCUPIED); `hint` (optional) gets its slot and the versions.
   // An index beyond the table (after a catch-up) is a miss:
   // "slotIndex:{} shmemCapacity:{}, returning not found".
   bool getValue(U32 slot, Value& value, IterHint* hint = nullptr);
   // At the end of a chain: REQUIRES nextBucket == bucket + 1 and at most
   // numBuckets, else Jorro::CorruptionDetectedException "has bucket: {} with
   // next bucket: {} and numBuckets: {}".
   void verifyNextBucket(U32 bucket, U32 nextBucket) const;

   // Catches up with the writer's numSlots and numBuckets. True on a change.
   bool doResize();

   U32 members() const { return checkAttached()->occupiedSlots; }
   U32 capacity() const { return slots_.numSlots(); }
   SharedMem::FenixId fenixId() const { return fenix_; }
   // Raises Mem::VersionMismatchException when the root directory now holds
   // another generation than the one this reader mapped.
   void validateVersionAnchor() const;
   std::string dumpHeaders() const;
   Mem::RootPath const& rootPath() const { return root_; }
   std::string const& name() const { return name_; }
   Reader::Counters const& counters() const { return slots_.counters(); }
   SlotReaderTable& slots() { return slots_; }
   ZaffaCore::BucketReader<SlotLink>& buckets() { return buckets_; }
   U32 hashSeed() const { return seed_; }
   U64 version() const { return (static_cast<U64>(buckets_.version()) << 32) | slots_.numSlotsVersion(); }

 private:
   enum class Walk { found, notFound, retry };

   // The step a walk is on: the link it followed and the slot that holds it.
   struct Step {
      void const* linkAddress;
      SlotLink link;
      U32 holder;       // noSlot for a bucket head
      U32 holderSeq;
   };

   SlotTableHeader const* checkAttached() const {
      if (!slots_.attached()) Jorro::throwAssert("{} detached", name_);
      return slots_.header();
   }
   bool unchanged(Step const& step) const {
      if (loadLink(step.linkAddress).packed() != step.link.packed()) return false;
      return step.holder == noSlot || slots_.sequence(step.holder) == step.holderSeq;
   }
   // A copy of numSlots or numBuckets is behind the writer's.
   bool stale() const {
      return buckets_.stale() || Mem::loadVerU32(&slots_.header()->numSlots).version != slots_.numSlotsVersion();
   }
   // Our copy of numBuckets may be one step off the writer's. One step
   // ahead (the writer has split) is covered by the check against our count.
   // One step behind a join (the writer has linked chain b + n/2 behind chain
   // b and is about to publish n/2) puts keys of the upper half into our
   // bucket b: they fit n/2.
   bool fits(U32 h, U32 bucket) const {
      U32 const n = buckets_.numBuckets();
      if ((h & (n - 1)) == bucket) return true;
      U32 const half = n / 2;
      return half != 0 && (h & (half - 1)) == (bucket & (half - 1));
   }
   Step headStep(U32 bucket) const {
      return Step{buckets_.headAddress(bucket), buckets_.head(bucket), noSlot, 0};
   }
   Step slotStep(U32 slot, U32 seq) const {
      void const* address = slots_.base() + slotHeaderBytes +
                            (static_cast<std::size_t>(slot) + 1) * slots_.header()->slotSize;
      return Step{address, loadLink(address), slot, seq};
   }
   static bool before(U32 rhashA, Key const& a, U32 rhashB, Key const& b) {
      return rhashA < rhashB || (rhashA == rhashB && a < b);
   }
   // Where the key lies in a value, so that a slot's key can be read without
   // its value. ValueKey hands out a reference into the value; anything else
   // could not be read from a slot at all.
   static std::size_t keyOffsetInValue() {
      Value probe{};
      auto const offset = reinterpret_cast<char const*>(&KeyOf::get(probe)) - reinterpret_cast<char const*>(&probe);
      if (offset < 0 || static_cast<std::size_t>(offset) + sizeof(Key) > sizeof(Value)) {
         Jorro::throwAssert("key of {} lies outside the value, at offset {}", typeName<Value>(), offset);
      }
      return static_cast<std::size_t>(offset);
   }
   // Reads slot `slot` into `key` and, when `wanted(seq, rhash)` says so,
   // `value` (SlotReaderTable::read).
   template <typename Wanted>
   SlotReaderTable::Read readSlot(U32 slot, Key& key, Value* value, Wanted&& wanted) {
      return slots_.read(slot, keyOffset_, sizeof(Key), &key, value, std::forward<Wanted>(wanted));
   }

   // What a chain walk does with an occupied slot that belongs to its bucket.
   enum class Verdict {
      pass,   // go on to the next slot
      take,   // return this slot's value
      stop,   // the chain's order says that what is wanted is not here
   };
   // The decision of a walk at each step, and how it names what it wanted in
   // its corruption messages. decide() is also asked about torn reads, whose
   // answer is thrown away: it only compares.
   //   static constexpr bool takesOnlyTheWantedKey;   // take means key equality
   //   Verdict decide(U32 rhash, Key const& key) const;
   //   std::string wanted() const;
   //   [[noreturn]] void corruptKey(Key const& key, U32 bucket) const;
   struct LookupPolicy;
   struct NextPolicy;

   // The one chain walk: walks bucket `bucket` from its head, re-checking and
   // restarting as described at the top of the file, and stops at the first
   // slot that `policy` takes (found: its value is in `value`, its index in
   // `slot`), at a stop or at the end of the chain (notFound), or when a
   // fault may be due to a stale numSlots or numBuckets (retry).
   template <typename Policy>
   Walk walkChain(U32 bucket, Policy const& policy, Value& value, U32& slot);
   Walk doLookup(Key const& key, Value& value);
   // Walks bucket `bucket` for the first entry after (rhash, key), or the
   // first entry of the chain when `after` is null.
   Walk doNext(U32 bucket, U32 rhash, Key const* after, Value& value, IterHint& hint);
   // The first entry of the first non-empty bucket from `bucket` on.
   bool firstFrom(U32 bucket, Value& value, IterHint& hint);
   // Runs `walk` until it is not a retry, catching up between tries.
   template <typename F>
   Walk retrying(F&& walk);

   Mem::RootPath root_;
   std::string name_;
   SlotReaderTable slots_;
   ZaffaCore::BucketReader<SlotLink> buckets_;
   SharedMem::FenixId fenix_;
   U32 seed_ = 0;
   std::size_t keyOffset_;
};

// ---------------------------------------------------------------------------
// Implementation

template <typename Key, typename Value>
bool ZaffaReader<Key, Value>::attach(std::string& message) {
   detach(true);
   // A writer holds the owner file's lock for the whole of its attach, while
   // it may re-format the files: a shared lock that we cannot get now means
   // that the files are not to be mapped yet.
   int ownerFd = ::open(root_.file(FileNames::owner).c_str(), O_RDONLY | O_CLOEXEC);
   if (ownerFd >= 0) {
      if (::flock(ownerFd, LOCK_SH | LOCK_NB) != 0) {
         ::close(ownerFd);
         message = "writer is attaching";
         return false;
      }
   }
   struct Unlock {
      int fd;
      ~Unlock() {
         if (fd >= 0) ::close(fd);
      }
   } unlock{ownerFd};
   SharedMem::FenixFile fenixFile(root_.file(FileNames::fenix));
   auto stored = fenixFile.read();
   if (!stored) {
      message = "failed to read fenix file";
      return false;
   }
   std::string detail;
   if (!slots_.attach(root_.file(FileNames::slots), stored->value, sizeof(Value), detail)) {
      message = "failed to attach to slots: " + detail;
      return false;
   }
   std::string wantedType(typeName<Value>());
   std::string fileType(slots_.header()->valueType, ::strnlen(slots_.header()->valueType, 64));
   if (fileType != wantedType) {
      message = fmt::format("failed to validate slots: valueType \"{}\" wanted \"{}\"", fileType, wantedType);
      slots_.detach();
      return false;
   }
   if (!buckets_.attach(root_.file(FileNames::buckets), detail)) {
      message = "failed to attach to buckets: " + detail;
      slots_.detach();
      return false;
   }
   if (!buckets_.validate(stored->value, detail)) {
      message = "failed to validate buckets: " + detail;
      detach(true);
      return false;
   }
   fenix_ = *stored;
   seed_ = slots_.header()->hashSeed;
   ZAFFA_LOG(5, "{} attached {} capacity:{} fenixId:{}", name_, root_.dir(), capacity(), fenix_.toString());
   return true;
}

template <typename Key, typename Value>
void ZaffaReader<Key, Value>::detach(bool quiet) {
   if (!slots_.attached() && !buckets_.attached()) {
      if (!quiet) ZAFFA_LOG(5, "{} already detached", name_);
      return;
   }
   slots_.detach();
   buckets_.detach();
   fenix_ = SharedMem::FenixId{};
}

template <typename Key, typename Value>
bool ZaffaReader<Key, Value>::doResize() {
   bool s = slots_.doResize();
   bool b = buckets_.doResize();
   return s || b;
}

template <typename Key, typename Value>
template <typename F>
typename ZaffaReader<Key, Value>::Walk ZaffaReader<Key, Value>::retrying(F&& walk) {
   for (;;) {
      Walk result;
      try {
         result = walk();
      } catch (SlotOutOfRange const& e) {
         // A link to a slot above our numSlots: the table grew under us,
         // unless there is nothing to catch up with.
         if (!doResize()) Jorro::throwCorruption("{}", e.what());
         ++slots_.counters().walkRestarts;
         continue;
      }
      bool resized = slots_.doResize();
      if (buckets_.stale()) {
         buckets_.doResize();
         ++slots_.counters().walkRestarts;
         continue;
      }
      if (result == Walk::retry || (resized && result == Walk::notFound)) {
         ++slots_.counters().walkRestarts;
         continue;
      }
      return result;
   }
}

template <typename Key, typename Value>
struct ZaffaReader<Key, Value>::LookupPolicy {
   static constexpr bool takesOnlyTheWantedKey = true;
   Key const& key;
   U32 rhash;

   Verdict decide(U32 r, Key const& k) const {
      if (r == rhash && k == key) return Verdict::take;
      return before(rhash, key, r, k) ? Verdict::stop : Verdict::pass;
   }
   std::string wanted() const { return describe(key); }
   [[noreturn]] void corruptKey(Key const& k, U32 bucket) const {
      Jorro::throwCorruption("corrupt key detected. key:{} bucketIndex:{}", describe(k), bucket);
   }
};

template <typename Key, typename Value>
struct ZaffaReader<Key, Value>::NextPolicy {
   static constexpr bool takesOnlyTheWantedKey = false;
   Key const* after;   // null: the first entry of the chain
   U32 rhash;

   Verdict decide(U32 r, Key const& k) const {
      return (!after || before(rhash, *after, r, k)) ? Verdict::take : Verdict::pass;
   }
   std::string wanted() const { return after ? describe(*after) : std::string("first"); }
   [[noreturn]] void corruptKey(Key const& k, U32 bucket) const {
      Jorro::throwCorruption("corrupt key detected. key:{} bucketIndex {}", describe(k), bucket);
   }
};

template <typename Key, typename Value>
template <typename Policy>
typename ZaffaReader<Key, Value>::Walk
ZaffaReader<Key, Value>::walkChain(U32 bucket, Policy const& policy, Value& value, U32& slot) {
   Key k;
restart:
   Step step = headStep(bucket);
   for (U32 steps = 0;; ++steps) {
      if (step.link.endOfChain()) {
         // A miss is only as good as the link that ended it.
         if (!unchanged(step)) goto restart;
         return Walk::notFound;
      }
      U32 const s = step.link.slot();
      if (steps > capacity()) {
         if (!unchanged(step) || stale()) goto restart;
         Jorro::throwCorruption("hash chain cycle detected, slotCount:{} capacity:{}", steps, capacity());
      }
      // The verdict of the read that returns is the one on its key; a slot
      // without OCCUPIED is never taken, and is dealt with below.
      Verdict verdict = Verdict::pass;
      auto const read = readSlot(s, k, &value, [&](U32 seq, U32 r) {
         verdict = (seq & seqOccupied) ? policy.decide(r, k) : Verdict::pass;
         return verdict == Verdict::take;
      });
      bool const occupied = (read.seq & seqOccupied) != 0;
      // A key that a lookup takes is equal to the wanted key, whose own hash
      // chose the bucket: it fits without being hashed again.
      bool const knownToFit = Policy::takesOnlyTheWantedKey && verdict == Verdict::take;
      if (!occupied || (!knownToFit && !fits(static_cast<U32>(k.hash(seed_)), bucket))) {
         if (!unchanged(step)) goto restart;
         if (stale()) return Walk::retry;
         if (!occupied) {
            Jorro::throwCorruption("slow-path slot:{} not marked as occupied key:{} slotCount:{}", s,
                                   policy.wanted(), steps);
         }
         policy.corruptKey(k, bucket);
      }
      if (verdict == Verdict::take) {
         slot = s;
         return Walk::found;
      }
      if (verdict == Verdict::stop) {
         if (!unchanged(step)) goto restart;
         return Walk::notFound;
      }
      step = slotStep(s, read.seq);
      // The link must belong to the version of the slot whose key we used.
      if (slots_.sequence(s) != read.seq) goto restart;
   }
}

template <typename Key, typename Value>
typename ZaffaReader<Key, Value>::Walk ZaffaReader<Key, Value>::doLookup(Key const& key, Value& value) {
   U32 const h = static_cast<U32>(key.hash(seed_));
   U32 const bucket = h & (buckets_.numBuckets() - 1);
   U32 slot;
   return walkChain(bucket, LookupPolicy{key, Jorro::Util::reverse(h)}, value, slot);
}

template <typename Key, typename Value>
bool ZaffaReader<Key, Value>::lookup(Key const& key, Value& value) {
   checkAttached();
   ++slots_.counters().lookups;
   // The walk copies into `value`, which may hold `key`.
   Key const wanted = key;
   return retrying([&] { return doLookup(wanted, value); }) == Walk::found;
}

template <typename Key, typename Value>
bool ZaffaReader<Key, Value>::getValue(U32 slot, Value& value, IterHint* hint) {
   checkAttached();
   if (slot >= slots_.numSlots()) slots_.doResize();
   if (slot >= slots_.numSlots()) {
      ZAFFA_LOG(7, "slotIndex:{} shmemCapacity:{}, returning not found", slot, slots_.numSlots());
      return false;
   }
   U32 r;
   U32 seq = slots_.getValue(slot, &value, r);
   if (hint) *hint = IterHint{version(), slot, hint->bucket};
   return (seq & seqOccupied) != 0;
}

template <typename Key, typename Value>
void ZaffaReader<Key, Value>::verifyNextBucket(U32 bucket, U32 nextBucket) const {
   if (nextBucket != bucket + 1 || nextBucket > buckets_.numBuckets()) {
      Jorro::throwCorruption("has bucket: {} with next bucket: {} and numBuckets: {}", bucket, nextBucket,
                             buckets_.numBuckets());
   }
}

template <typename Key, typename Value>
typename ZaffaReader<Key, Value>::Walk
ZaffaReader<Key, Value>::doNext(U32 bucket, U32 rhash, Key const* after, Value& value, IterHint& hint) {
   U32 slot;
   Walk w = walkChain(bucket, NextPolicy{after, rhash}, value, slot);
   if (w == Walk::found) hint = IterHint{version(), slot, bucket};
   return w;
}

template <typename Key, typename Value>
bool ZaffaReader<Key, Value>::firstFrom(U32 bucket, Value& value, IterHint& hint) {
   U32 bucketCount = 0;
   for (U32 b = bucket; b < buckets_.numBuckets();) {
      Walk w = doNext(b, 0, nullptr, value, hint);
      if (w == Walk::found) return true;
      if (w == Walk::retry) return false;   // the caller catches up and starts over
      if (++bucketCount > buckets_.numBuckets()) {
         Jorro::throwCorruption("has bucket cycle detected, bucketCount: {} numBuckets: {}", bucketCount,
                                buckets_.numBuckets());
      }
      verifyNextBucket(b, b + 1);
      ++b;
   }
   hint = IterHint{version(), noSlot, buckets_.numBuckets()};
   return false;
}

template <typename Key, typename Value>
bool ZaffaReader<Key, Value>::first(Value& value, IterHint& hint) {
   checkAttached();
   Walk w = retrying([&] {
      doResize();
      if (firstFrom(0, value, hint)) return Walk::found;
      return stale() ? Walk::retry : Walk::notFound;
   });
   return w == Walk::found;
}

template <typename Key, typename Value>
bool ZaffaReader<Key, Value>::next(Key const& key, Value& value, IterHint& hint) {
   checkAttached();
   // Every copy below goes into `value`, which may hold `key`.
   Key const after = key;
   // Fast path: the hint's slot still holds `key` under the same sizes;
   // follow its link.
   if (hint.slot != noSlot && hint.version == version() && !stale()) {
      try {
         Key k;
         auto const here = readSlot(hint.slot, k, nullptr, [](U32, U32) { return false; });
         if ((here.seq & seqOccupied) && k == after) {
            SlotLink link = slots_.link(hint.slot);
            if (slots_.sequence(hint.slot) == here.seq) {
               if (link.endOfChain()) {
                  verifyNextBucket(hint.bucket, hint.bucket + 1);
                  U32 const b = hint.bucket + 1;
                  if (firstFrom(b, value, hint)) return true;
                  if (!stale()) return false;
               } else {
                  U32 const s = link.slot();
                  Key kn;
                  auto const there = readSlot(s, kn, &value, [&](U32 seq, U32 rn) {
                     return (seq & seqOccupied) && fits(static_cast<U32>(kn.hash(seed_)), hint.bucket) &&
                            before(here.rhash, after, rn, kn);
                  });
                  if (there.copied && slots_.sequence(hint.slot) == here.seq) {
                     hint = IterHint{version(), s, hint.bucket};
                     return true;
                  }
               }
            }
         }
      } catch (std::exception const& e) {
         ZAFFA_LOG(7, "saw exception in fast path: {}. This might be okay, dropping to slow path to find out",
                   e.what());
      }
   }
   // Slow path: find the place of `key` (or of the next greater key) by hash.
   ++slots_.counters().slowPaths;
   U32 const h = static_cast<U32>(after.hash(seed_));
   U32 const rhash = Jorro::Util::reverse(h);
   Walk w = retrying([&] {
      U32 const bucket = h & (buckets_.numBuckets() - 1);
      Walk r = doNext(bucket, rhash, &after, value, hint);
      if (r != Walk::notFound) return r;
      verifyNextBucket(bucket, bucket + 1);
      if (firstFrom(bucket + 1, value, hint)) return Walk::found;
      return stale() ? Walk::retry : Walk::notFound;
   });
   return w == Walk::found;
}

template <typename Key, typename Value>
void ZaffaReader<Key, Value>::validateVersionAnchor() const {
   SharedMem::FenixFile fenixFile(root_.file(FileNames::fenix));
   auto stored = fenixFile.read();
   U32 inFile = slots_.attached() ? slots_.header()->fenix : 0;
   if (!stored || *stored != fenix_ || inFile != fenix_.value) {
      throw Mem::VersionMismatchException(
         fmt::format("{} mapped generation {} but {} now holds {} (slot file {})", name_, fenix_.toString(),
                     root_.dir(), stored ? stored->toString() : std::string("none"), inFile));
   }
}

template <typename Key, typename Value>
std::string ZaffaReader<Key, Value>::dumpHeaders() const {
   std::string text = "slots: " + (slots_.attached() ? slots_.header()->toString() : std::string("detached"));
   text += "\nbuckets: " +
           (buckets_.attached() ? buckets_.view().headerToString() : std::string("bucket table detached"));
   return text;
}

} // namespace Zaffa
