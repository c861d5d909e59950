#pragma once
// Vor::Impl::HashTable: the chained hash table behind Vor::HashMap,
// Vor::HashMap2018 and Vor::HashSet. Users name those classes, not this one;
// their headers state the guarantees each of them gives.
//
// Layout: a power-of-two array of buckets, each the head of a singly linked
// chain of nodes. A node holds the full hash, the key and the value; the
// hash is compared before the key, so a lookup touches a key only when the
// hash matches. Nodes never move: a V* returned by find() stays valid until
// that member is erased or the table is cleared or destroyed.
//
// With kStableIteration (HashMap2018, HashSet) iterators register with the
// table while they exist, and while any is registered:
//   - erase unlinks the node from its chain and destroys its value at once,
//     but keeps the node (with its key and its `next`) in a graveyard, so that
//     an iterator standing on it can still read its key and move on;
//   - the bucket array is neither grown nor shrunk, so no member changes
//     bucket under a walk;
//   - when the last iterator goes away the graveyard is freed and a deferred
//     resize is done.
//
// Thread safety: none. A table and its iterators are used from one thread.
//
// Invariants:
//  1. bucketCount_ is 0 (buckets_ is the shared empty bucket) or a power of
//     two, and mask_ == bucketCount_ - 1 (0 for the empty bucket).
//  2. Every live member is in exactly one chain, that of bucket
//     hash & mask_; size_ counts them. No dead node is in a chain.
//  3. A dead node's value has been destroyed; its key has not.
//  4. Dead nodes exist only while iterators_ > 0 (stable iteration only).
//  5. Following `next` from a dead node reaches, through dead nodes only,
//     the live member that followed it when it was unlinked (or the end of
//     the chain): unlinking never changes the `next` of the unlinked node,
//     and insertion only adds at the head of a chain.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "framework/UloAssert.h"
#include "framework/VorCollectionHash.h"

namespace Vor::Impl {

template <typename K, typename V>
struct HashNode {
   template <typename... A>
   HashNode(U32 h, K const& k, A&&... args) : hash(h), key(k), value(std::forward<A>(args)...) {}
   // The value is destroyed explicitly (at erase, possibly long before the
   // node itself goes); see destroyValue().
   ~HashNode() {}
   HashNode(HashNode const&) = delete;
   HashNode& operator=(HashNode const&) = delete;

   void destroyValue() {
      value.~V();
      dead = true;
   }

   HashNode* next = nullptr;
   U32 const hash;
   bool dead = false;
   K const key;
   union {
      V value;
   };
};

template <typename K, typename V, bool kStableIteration>
class HashTable {
 public:
   using Node = HashNode<K, V>;
   template <bool kConst>
   class IteratorT;
   using Iterator = IteratorT<false>;
   using ConstIterator = IteratorT<true>;

   explicit HashTable(U32 collectionConstant)
       : constant_(collectionConstant), seed_(hashSeed32() ^ collectionConstant) {}
   HashTable(HashTable const& other) : HashTable(other.constant_) { copyFrom(other); }
   HashTable(HashTable&& other) noexcept : constant_(other.constant_), seed_(other.seed_) {
      uloAssert(other.iterators_ == 0);
      steal(other);
   }
   HashTable& operator=(HashTable const& other) {
      if (this != &other) {
         clear();
         copyFrom(other);
      }
      return *this;
   }
   HashTable& operator=(HashTable&& other) noexcept {
      if (this != &other) {
         uloAssert(iterators_ == 0 && other.iterators_ == 0);
         destroyAll();
         constant_ = other.constant_;
         seed_ = other.seed_;
         steal(other);
      }
      return *this;
   }
   // REQUIRES: no iterator of this table exists.
   ~HashTable() {
      uloAssert(iterators_ == 0);
      destroyAll();
   }

   // The member with key `key`, or null.
   V* find(K const& key) {
      Node* n = findNode(key);
      return n ? &n->value : nullptr;
   }
   V const* find(K const& key) const {
      Node const* n = findNode(key);
      return n ? &n->value : nullptr;
   }
   bool contains(K const& key) const { return findNode(key) != nullptr; }

   // Adds `key` with a value built from `args` unless `key` is present.
   // Returns the member's value and whether it was added; an existing member
   // is left unchanged.
   // REQUIRES: building the value does not change this table.
   template <typename... A>
   std::pair<V*, bool> emplace(K const& key, A&&... args) {
      U32 const h = hashOf(key);
      for (Node* n = buckets_[h & mask_]; n != nullptr; n = n->next) {
         if (n->hash == h && n->key == key) return {&n->value, false};
      }
      Node* node = new Node(h, key, std::forward<A>(args)...);
      if (size_ >= bucketCount_) {
         grow(size_ + 1);
      } else {
         maybeShrink();
      }
      Node*& head = buckets_[h & mask_];
      node->next = head;
      head = node;
      ++size_;
      ++version_;
      return {&node->value, true};
   }
   std::pair<V*, bool> insert(K const& key, V value) { return emplace(key, std::move(value)); }
   // Adds `key` with `value`, or replaces the value of the member present.
   V& insertOrAssign(K const& key, V value) {
      if (Node* n = findNode(key)) {
         n->value = std::move(value);
         ++version_;
         return n->value;
      }
      return *emplace(key, std::move(value)).first;
   }

   // Removes the member with key `key`. Returns whether there was one. The
   // member's value is destroyed after the table is consistent again, so its
   // destructor may use this table.
   bool erase(K const& key) {
      U32 const h = hashOf(key);
      for (Node** link = &buckets_[h & mask_]; *link != nullptr; link = &(*link)->next) {
         Node* n = *link;
         if (n->hash == h && n->key == key) {
            *link = n->next;
            --size_;
            ++version_;
            retire(n);
            return true;
         }
      }
      return false;
   }

   // Removes every member. Values are destroyed after the table is empty.
   void clear() {
      if (size_ == 0) return;
      ++version_;
      if (kStableIteration && iterators_ > 0) {
         // Keep the bucket array: a walk in progress goes on indexing it.
         std::vector<Node*> nodes;
         nodes.reserve(size_);
         for (std::size_t b = 0; b < bucketCount_; ++b) {
            for (Node* n = buckets_[b]; n != nullptr; n = n->next) nodes.push_back(n);
            buckets_[b] = nullptr;
         }
         size_ = 0;
         for (Node* n : nodes) retire(n);
         return;
      }
      Node** buckets = buckets_;
      std::size_t count = bucketCount_;
      resetToEmpty();
      destroyChains(buckets, count);
   }

   // Makes room for `count` members without a resize.
   void reserve(std::size_t count) {
      if (count > bucketCount_ && !(kStableIteration && iterators_ > 0)) rehash(bucketsFor(count));
   }

   std::size_t size() const { return size_; }
   bool empty() const { return size_ == 0; }
   // Bumped by every insertion, assignment through insertOrAssign, erase
   // and clear that changed something.
   std::uint64_t version() const { return version_; }
   std::size_t bucketCount() const { return bucketCount_; }
   U32 collectionConstant() const { return constant_; }

   Iterator begin() { return Iterator(this); }
   ConstIterator begin() const { return ConstIterator(this); }
   ConstIterator cbegin() const { return ConstIterator(this); }
   IterationEnd end() const { return {}; }

   // An iterator over the members, in unspecified order. It stands on a
   // member until next(); see the headers of the public classes for what
   // survives changes of the table.
   template <bool kConst>
   class IteratorT {
    public:
      using Table = std::conditional_t<kConst, HashTable const, HashTable>;
      using Value = std::conditional_t<kConst, V const, V>;

      IteratorT() = default;
      explicit IteratorT(Table* table) : table_(table) {
         acquire();
         for (; bucket_ < table_->bucketCount_; ++bucket_) {
            if ((node_ = table_->buckets_[bucket_]) != nullptr) break;
         }
      }
      IteratorT(IteratorT const& o) : table_(o.table_), node_(o.node_), bucket_(o.bucket_) { acquire(); }
      IteratorT(IteratorT&& o) noexcept : table_(o.table_), node_(o.node_), bucket_(o.bucket_) {
         o.table_ = nullptr;
         o.node_ = nullptr;
      }
      template <bool kOther, typename = std::enable_if_t<kConst && !kOther>>
      IteratorT(IteratorT<kOther> const& o) : table_(o.table_), node_(o.node_), bucket_(o.bucket_) {
         acquire();
      }
      IteratorT& operator=(IteratorT o) noexcept {
         std::swap(table_, o.table_);
         std::swap(node_, o.node_);
         std::swap(bucket_, o.bucket_);
         return *this;
      }
      ~IteratorT() { release(); }

      bool done() const { return node_ == nullptr; }
      explicit operator bool() const { return node_ != nullptr; }

      // REQUIRES: !done(). With stable iteration also valid when the member
      // was erased since the iterator reached it.
      K const& key() const {
         uloAssert(node_ != nullptr);
         return node_->key;
      }
      // REQUIRES: !done() and the member was not erased.
      Value& value() const {
         uloAssert(node_ != nullptr && !node_->dead);
         return node_->value;
      }

      // Stable iteration only: whether the member stood on was erased since
      // the iterator reached it (isStale) or is still in the table (isLive).
      // A done iterator is neither.
      bool isStale() const
         requires kStableIteration
      {
         return node_ != nullptr && node_->dead;
      }
      bool isLive() const
         requires kStableIteration
      {
         return node_ != nullptr && !node_->dead;
      }

      // Moves to the next member. REQUIRES: !done().
      void next() {
         uloAssert(node_ != nullptr);
         Node* n = node_->next;
         if constexpr (kStableIteration) {
            // Invariant 5: a chain of erased nodes leads back to live ones.
            while (n != nullptr && n->dead) n = n->next;
         }
         if (n == nullptr) {
            while (++bucket_ < table_->bucketCount_) {
               if ((n = table_->buckets_[bucket_]) != nullptr) break;
            }
         }
         node_ = n;
      }
      IteratorT& operator++() {
         next();
         return *this;
      }

      // The element of a range-for is the iterator itself:
      //    for (auto const& m : map) use(m.key(), m.value());
      IteratorT const& operator*() const { return *this; }
      IteratorT const* operator->() const { return this; }
      friend bool operator==(IteratorT const& it, IterationEnd) { return it.done(); }

    private:
      template <bool>
      friend class IteratorT;
      void acquire() {
         if constexpr (kStableIteration) {
            if (table_ != nullptr) ++table_->iterators_;
         }
      }
      void release() {
         if constexpr (kStableIteration) {
            if (table_ != nullptr) table_->iteratorReleased();
         }
      }

      Table* table_ = nullptr;
      Node* node_ = nullptr;
      std::size_t bucket_ = 0;
   };

 private:
   static constexpr std::size_t kMinBuckets = 8;

   U32 hashOf(K const& key) const { return collectionHash(seed_, key); }

   Node* findNode(K const& key) const {
      U32 const h = hashOf(key);
      for (Node* n = buckets_[h & mask_]; n != nullptr; n = n->next) {
         if (n->hash == h && n->key == key) return n;
      }
      return nullptr;
   }

   static std::size_t bucketsFor(std::size_t count) {
      std::size_t b = kMinBuckets;
      while (b < count) b *= 2;
      return b;
   }

   // Keeps the load at most 1 (members per bucket). While stable iterators
   // exist the array is kept, unless there is none yet (then no member can
   // change bucket) and chains grow until the last iterator goes.
   void grow(std::size_t count) {
      if (kStableIteration && iterators_ > 0 && bucketCount_ != 0) return;
      rehash(std::max(bucketCount_ * 2, bucketsFor(count)));
   }

   // Shrinks the array when the load has fallen under 1/8, so that a table
   // that was large and is now small does not make iteration walk empty
   // buckets. Checked at insertion (and, with stable iteration, when the
   // last iterator goes), never at erase: erasing during a walk must not
   // move the members that the walk has yet to reach, and a table emptied
   // one erase at a time should not pay for a resize at every halving.
   void maybeShrink() {
      if (kStableIteration && iterators_ > 0) return;
      if (bucketCount_ > kMinBuckets && size_ * 8 < bucketCount_) rehash(bucketsFor(size_ * 2));
   }

   void rehash(std::size_t count) {
      Node** buckets = new Node*[count]();
      std::size_t const mask = count - 1;
      for (std::size_t b = 0; b < bucketCount_; ++b) {
         for (Node* n = buckets_[b]; n != nullptr;) {
            Node* next = n->next;
            n->next = buckets[n->hash & mask];
            buckets[n->hash & mask] = n;
            n = next;
         }
      }
      if (bucketCount_ != 0) delete[] buckets_;
      buckets_ = buckets;
      bucketCount_ = count;
      mask_ = mask;
   }

   void retire(Node* n) {
      if (kStableIteration && iterators_ > 0) {
         // An iterator may stand on it: keep the key and the link, drop the
         // value now so that what it holds is released with the erase.
         graveyard_.push_back(n);
         n->destroyValue();
      } else {
         n->destroyValue();
         delete n;
      }
   }

   void iteratorReleased() const {
      uloAssert(iterators_ > 0);
      if (--iterators_ != 0) return;
      // The table is not const here in any case that matters: only a
      // mutation fills the graveyard or defers a resize.
      auto* self = const_cast<HashTable*>(this);
      for (Node* n : self->graveyard_) delete n;
      self->graveyard_.clear();
      if (size_ > bucketCount_) {
         self->grow(size_);
      } else {
         self->maybeShrink();
      }
   }

   void resetToEmpty() {
      buckets_ = emptyBucket();
      bucketCount_ = 0;
      mask_ = 0;
      size_ = 0;
   }

   static void destroyChains(Node** buckets, std::size_t count) {
      for (std::size_t b = 0; b < count; ++b) {
         for (Node* n = buckets[b]; n != nullptr;) {
            Node* next = n->next;
            n->destroyValue();
            delete n;
            n = next;
         }
      }
      if (count != 0) delete[] buckets;
   }

   void destroyAll() {
      for (Node* n : graveyard_) delete n;
      graveyard_.clear();
      Node** buckets = buckets_;
      std::size_t count = bucketCount_;
      resetToEmpty();
      destroyChains(buckets, count);
   }

   void copyFrom(HashTable const& other) {
      reserve(other.size_);
      for (std::size_t b = 0; b < other.bucketCount_; ++b) {
         for (Node* n = other.buckets_[b]; n != nullptr; n = n->next) emplace(n->key, n->value);
      }
   }

   void steal(HashTable& other) {
      buckets_ = other.buckets_;
      bucketCount_ = other.bucketCount_;
      mask_ = other.mask_;
      size_ = other.size_;
      version_ = other.version_ + 1;
      other.resetToEmpty();
      ++other.version_;
   }

   // The bucket of a table without an array: always empty, never written
   // (every write path grows the table first).
   static Node** emptyBucket() {
      static Node* bucket[1] = {nullptr};
      return bucket;
   }

   U32 constant_;
   U32 seed_;
   Node** buckets_ = emptyBucket();
   std::size_t mask_ = 0;
   std::size_t bucketCount_ = 0;
   std::size_t size_ = 0;
   std::uint64_t version_ = 0;
   mutable std::size_t iterators_ = 0;
   std::vector<Node*> graveyard_;
};

} // namespace Vor::Impl
