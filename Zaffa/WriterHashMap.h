#pragma once
// The writer's hash map over the slot table: chains of slots hanging from
// the bucket file, and their growth and shrinking.
//
// Each chain is sorted by rhash (the bit-reversed hash), then by the key's
// operator<, and holds exactly the keys whose hash modulo numBuckets is its
// index. Because of the reversal, doubling numBuckets splits every chain at
// one point, and halving it concatenates two chains without reordering.
//
// Thread safety: the writer's thread only. Readers walk the same chains
// without a lock, so every change of a link is one 8-byte store with the
// link's sequence raised (relink), and a resize of the bucket array is
// ordered so that a reader with either the old or the new numBuckets finds
// every key that it could find before:
//   grow:   new heads first, then publish 2n, then cut the old chains;
//   shrink: join the chains first, then publish n.
// A reader that missed a key must compare the bucket version before and
// after the walk, and retry when it changed.
//
// Invariants:
//   1. numBuckets() is a power of two, at least the initial count.
//   2. growBuckets() runs when occupiedSlots passes numBuckets, and
//      shrinkBuckets() (if enabled) when it falls below numBuckets / 4.

#include "Zaffa/BucketWriter.h"
#include "Zaffa/SlotWriter.h"
#include "Zaffa/ZaffaTrace.h"

#include <string>
#include <vector>

namespace Zaffa {

// How the table reaches the key inside a value. A value holds its key, either
// as a data member `key` or through `key()` and `keyIs(k)`.
template <typename Key, typename Value>
struct ValueKey {
   static Key const& get(Value const& v) {
      if constexpr (requires { { v.key } -> std::convertible_to<Key const&>; }) {
         return v.key;
      } else {
         return v.key();
      }
   }
   static void set(Value& v, Key const& k) {
      if constexpr (requires { v.key = k; }) {
         v.key = k;
      } else {
         v.keyIs(k);
      }
   }
};

template <typename Key, typename Value>
class WriterHashMap {
 public:
   using KeyOf = ValueKey<Key, Value>;

   // The place of a key in its chain. prevLink is the link that points, or
   // should point, to the key; on a hit slot is the key's slot.
   struct Place {
      bool hit = false;
      U32 bucket = 0;
      U32 rhash = 0;   // of the key looked for
      void* prevLink = nullptr;
      U32 slot = noSlot;
   };

   WriterHashMap(std::string path, SlotWriterTable& slots, bool shrink, U32 initialBuckets)
       : buckets_(std::move(path), initialBuckets), slots_(slots), shrink_(shrink),
         minBuckets_(initialBuckets) {}

   int attach(U32 fenix) {
      int result = buckets_.attach(fenix);
      numBuckets_ = buckets_.numBuckets();
      growBuckets_ = numBuckets_;
      shrinkBuckets_ = numBuckets_ / 4;
      return result;
   }
   void detach() { buckets_.detach(); }

   static U32 hashOf(Key const& key, U32 seed) { return static_cast<U32>(key.hash(seed)); }
   Value* valueAt(U32 slot) const { return reinterpret_cast<Value*>(slots_.slot(slot).value()); }

   // Walks the chain of the key's bucket. Raises
   // Jorro::CorruptionDetectedException on a slot that is out of range, not
   // occupied, in the wrong chain, or on a cycle.
   Place find(Key const& key, U32 h) const {
      Place place;
      U32 const mask = numBuckets_ - 1;
      place.bucket = h & mask;
      U32 const rhash = Jorro::Util::reverse(h);
      place.rhash = rhash;
      // A slot is in the right chain when its hash modulo numBuckets is the
      // bucket: in reversed form, when its top bits are those of rhash.
      U32 const rmask = Jorro::Util::reverse(mask);
      void* prev = buckets_.head(place.bucket);
      U32 const capacity = slots_.numSlots();
      for (U32 steps = 0;; ++steps) {
         SlotLink link = loadLink(prev);
         if (link.endOfChain()) break;
         U32 s = link.next;
         if (s >= capacity) Jorro::throwCorruption("out-of-range index: {} max:{}", s, capacity);
         if (steps >= capacity) {
            Jorro::throwCorruption("hash chain cycle detected, slotCount:{} capacity:{}", steps, capacity);
         }
         RawSlot slot = slots_.slot(s);
         if (!(slot.seq() & seqOccupied)) Jorro::throwCorruption("slot: {} not marked as occupied", s);
         U32 r = slot.rhash();
         if (((r ^ rhash) & rmask) != 0) {
            Jorro::throwCorruption("corrupt key detected, slot: {}", s);
         }
         if (r > rhash) break;
         // The walk trusts each slot's stored rhash and compares keys only
         // where it equals ours; it does not hash the keys it passes. A write
         // costs one hash, and a key changed in place under its rhash is
         // found by the validator at the next attach, not here.
         if (r == rhash) {
            Key const& k = KeyOf::get(*reinterpret_cast<Value const*>(slot.value()));
            if (k == key) {
               place.hit = true;
               place.prevLink = prev;
               place.slot = s;
               return place;
            }
            if (key < k) break;
         }
         prev = slot.link();
      }
      place.prevLink = prev;
      return place;
   }

   // The first slot of the table in walk order, noSlot when empty.
   U32 firstSlot() const { return firstFromBucket(0); }
   // The slot after `key` in walk order (key need not be present).
   U32 nextSlot(Key const& key, U32 h) const {
      Place place = find(key, h);
      SlotLink link = loadLink(place.hit ? slots_.slot(place.slot).link() : place.prevLink);
      if (!link.endOfChain()) return link.next;
      return firstFromBucket(place.bucket + 1);
   }

   void growBuckets() {
      U32 const n = numBuckets_;
      U32 const n2 = n * 2;
      ZAFFA_LOG(5, "growing from: {} to: {}", n, n2);
      buckets_.reserve(n2);
      cut_.assign(n, nullptr);
      // A slot moves to bucket i + n when its hash has bit n set, which in
      // the reversed hash is the bit below those that all of chain i shares.
      U32 const moves = Jorro::Util::reverse(n);
      for (U32 i = 0; i < n; ++i) {
         // Each chain's first slot is a cache miss of its own; asking for
         // the one some buckets ahead lets those misses overlap.
         if (i + growPrefetchDistance < n) prefetchHead(i + growPrefetchDistance);
         void* prev = buckets_.head(i);
         U32 mover = noSlot;
         for (SlotLink link = loadLink(prev); !link.endOfChain(); link = loadLink(prev)) {
            RawSlot slot = slots_.slot(link.next);
            if (slot.rhash() & moves) {
               mover = link.next;
               break;
            }
            prev = slot.link();
         }
         relink(buckets_.head(i + n), mover);
         if (mover != noSlot) cut_[i] = prev;
      }
      buckets_.publish(n2);
      for (U32 i = 0; i < n; ++i) {
         if (cut_[i]) relink(cut_[i], noSlot);
      }
      numBuckets_ = n2;
      growBuckets_ = n2;
      shrinkBuckets_ = n2 / 4;
   }

   void shrinkBuckets() {
      U32 const old = numBuckets_;
      U32 const n = old / 2;
      if (n < minBuckets_) return;
      for (U32 i = 0; i < n; ++i) {
         void* tail = buckets_.head(i);
         for (SlotLink link = loadLink(tail); !link.endOfChain(); link = loadLink(tail)) {
            tail = slots_.slot(link.next).link();
         }
         SlotLink upper = loadLink(buckets_.head(i + n));
         relink(tail, upper.next);
      }
      buckets_.publish(n);
      numBuckets_ = n;
      growBuckets_ = n;
      shrinkBuckets_ = old / 8;
      ZAFFA_LOG(5, "shrunk to numBuckets: {} shrinkBuckets_:{}", n, shrinkBuckets_);
   }

   bool shrink() const { return shrink_; }
   U32 numBuckets() const { return numBuckets_; }
   U32 growThreshold() const { return growBuckets_; }
   U32 shrinkThreshold() const { return shrinkBuckets_; }
   ZaffaCore::BucketWriter<SlotLink>& buckets() { return buckets_; }
   ZaffaCore::BucketWriter<SlotLink> const& buckets() const { return buckets_; }

 private:
   static constexpr U32 growPrefetchDistance = 16;
   void prefetchHead(U32 b) const {
      SlotLink link = loadLink(buckets_.head(b));
      if (!link.endOfChain() && link.next < slots_.numSlots()) {
         __builtin_prefetch(slots_.slot(link.next).link());
      }
   }

   U32 firstFromBucket(U32 b) const {
      for (; b < numBuckets_; ++b) {
         SlotLink link = loadLink(buckets_.head(b));
         if (!link.endOfChain()) return link.next;
      }
      return noSlot;
   }

   ZaffaCore::BucketWriter<SlotLink> buckets_;
   SlotWriterTable& slots_;
   bool shrink_;
   U32 minBuckets_;
   U32 numBuckets_ = 0;
   U32 growBuckets_ = 0;
   U32 shrinkBuckets_ = 0;
   std::vector<void*> cut_;
};

} // namespace Zaffa
