#pragma once
// A shadow's private hash map over its own array of shadow slots.
//
// The chains have the order of the shared table (rhash ascending, then the
// key's operator<), so that a walk of the shadow visits keys in the order a
// reader of the shared table would, and a bucket split cuts each chain at
// one point. Unlike the shared table the links are pointers: the map lives in
// one process and on one thread. The slot array may move when the store
// resizes it; patch(offset) then rewrites every pointer by the distance the
// array moved.
//
// Slot requirements: `Slot* next`, `U32 rhash`, and `Key const& key() const`.
//
// Thread safety: one thread.
//
// Invariants:
//   1. Every slot in a chain is linked once, in the chain of its hash modulo
//      numBuckets(), and chains are sorted.
//   2. numBuckets() is a power of two at least minBuckets; the map grows when
//      it holds more entries than buckets and shrinks below a quarter.

#include "Zaffa/platform/Jorro.h"
#include "Zaffa/ZaffaTrace.h"
#include "framework/VorHash.h"

#include <cstddef>
#include <vector>

namespace Zaffa {

template <typename Slot, typename Key>
class ShadowHashMap {
 public:
   using U32 = Vor::U32;

   explicit ShadowHashMap(U32 minBuckets = 16) : minBuckets_(minBuckets), buckets_(minBuckets, nullptr) {}

   static bool before(U32 ra, Key const& a, U32 rb, Key const& b) { return ra < rb || (ra == rb && a < b); }

   // The slot holding `key`, or null.
   Slot* find(Key const& key, U32 rhash) const {
      for (Slot* s = buckets_[bucketOf(rhash)]; s; s = s->next) {
         if (s->rhash == rhash && s->key() == key) return s;
         if (before(rhash, key, s->rhash, s->key())) break;
      }
      return nullptr;
   }
   // Links `slot` (key and rhash set). REQUIRES: the key is not in the map.
   void write(Slot* slot) {
      Slot** prev = &buckets_[bucketOf(slot->rhash)];
      if (!*prev) ZAFFA_LOG(11, "value inserted in fresh bucket");
      while (*prev && before((*prev)->rhash, (*prev)->key(), slot->rhash, slot->key())) prev = &(*prev)->next;
      if (!*prev) ZAFFA_LOG(11, "add slot to end of chain");
      slot->next = *prev;
      *prev = slot;
      if (++size_ > buckets_.size()) grow();
   }
   // Unlinks `slot`. REQUIRES: linked.
   void remove(Slot* slot) {
      Slot** prev = &buckets_[bucketOf(slot->rhash)];
      while (*prev != slot) prev = &(*prev)->next;
      *prev = slot->next;
      slot->next = nullptr;
      --size_;
      ZAFFA_LOG(11, "dead slot {}", static_cast<void*>(slot));
      if (buckets_.size() > minBuckets_ && size_ < buckets_.size() / 4) shrink();
   }
   // Walk order: bucket by bucket, each chain in order.
   Slot* first() const { return firstFrom(0); }
   // The entry after (rhash, key), present or not.
   Slot* next(Key const& key, U32 rhash) const {
      U32 const b = bucketOf(rhash);
      for (Slot* s = buckets_[b]; s; s = s->next) {
         if (before(rhash, key, s->rhash, s->key())) return s;
      }
      return firstFrom(b + 1);
   }
   // The array of slots moved by `offset` bytes: rewrite every link.
   void patch(std::ptrdiff_t offset) {
      if (offset == 0) return;
      ZAFFA_LOG(9, "address offset is {}", offset);
      auto moved = [offset](Slot* s) {
         return reinterpret_cast<Slot*>(reinterpret_cast<char*>(s) + offset);
      };
      for (U32 b = 0; b < buckets_.size(); ++b) {
         if (!buckets_[b]) continue;
         ZAFFA_LOG(11, "Patching slots in bucket {}", b);
         buckets_[b] = moved(buckets_[b]);
         for (Slot* s = buckets_[b]; s->next; s = s->next) s->next = moved(s->next);
      }
   }
   void clear() {
      buckets_.assign(minBuckets_, nullptr);
      size_ = 0;
   }
   U32 size() const { return size_; }
   U32 numBuckets() const { return static_cast<U32>(buckets_.size()); }

 private:
   // Buckets take the low bits of the hash, which are the high bits of rhash.
   U32 bucketOf(U32 rhash) const { return Jorro::Util::reverse(rhash) & (numBuckets() - 1); }
   Slot* firstFrom(U32 b) const {
      for (; b < buckets_.size(); ++b) {
         if (buckets_[b]) return buckets_[b];
      }
      return nullptr;
   }
   // Doubling splits each chain at the first slot of the upper half.
   void grow() {
      U32 const n = numBuckets();
      ZAFFA_LOG(9, "buckets growing from:{} to:{}", n, n * 2);
      buckets_.resize(n * 2, nullptr);
      for (U32 i = 0; i < n; ++i) {
         Slot** prev = &buckets_[i];
         while (*prev && bucketOf((*prev)->rhash) == i) prev = &(*prev)->next;
         if (*prev) ZAFFA_LOG(11, "splitting bucket {} to buckets {} and {}", i, i, i + n);
         buckets_[i + n] = *prev;
         *prev = nullptr;
      }
   }
   // Halving appends each upper chain to its lower one; the order holds.
   void shrink() {
      U32 const n = numBuckets() / 2;
      for (U32 i = 0; i < n; ++i) {
         Slot** tail = &buckets_[i];
         while (*tail) tail = &(*tail)->next;
         *tail = buckets_[i + n];
      }
      buckets_.resize(n);
      ZAFFA_LOG(9, "shrunk to numBuckets_:{} bucketFactor_:{}", n, 1);
   }

   U32 minBuckets_;
   std::vector<Slot*> buckets_;
   U32 size_ = 0;
};

} // namespace Zaffa
