#pragma once
// Sets: Vor::HashSet<K> (unordered) and Vor::RbTreeSet<K> (ascending order).
//
//    Vor::HashSet<Vor::String> names;
//    names.insert("eth1");
//    for (auto const& m : names) use(m.key());
//
// Vor::HashSet has the guarantees of Vor::HashMap2018 (framework/VorHashMap2018.h):
// its iterator survives erasure of the member it stands on (isStale(),
// isLive(), key() still readable), insertion during a walk neither crashes
// nor repeats a member, and iteration order is unspecified and seeded per
// process and instance.
//
// Vor::RbTreeSet has the guarantees of Vor::RbTreeMapGeneric
// (framework/VorRbTreeMap.h): ascending order, a version bumped by every
// change, and iterators that find their place again by key after a change.
//
// Both are thin: a map whose value takes no room. An iterator offers done(),
// explicit operator bool, key(), next()/operator++ (and for the ordered set
// prev(), isLive(), isStale()); in a range-for the element is the iterator.
//
// Thread safety: none; a set and its iterators are used from one thread.
//
// Invariants: those of the map each is built on.

#include <cstdint>
#include <utility>

#include "framework/VorCollectionHashTable.h"
#include "framework/VorRbTreeMap.h"

namespace Vor {

namespace Impl {

// The iterator of a set: the iterator of the map beneath it, showing keys
// only. It walks backwards (prev(), operator--) where the map's does.
template <typename K, typename MapIterator>
class SetIterator {
 public:
   SetIterator() = default;
   explicit SetIterator(MapIterator it) : it_(std::move(it)) {}
   bool done() const { return it_.done(); }
   explicit operator bool() const { return !it_.done(); }
   K const& key() const { return it_.key(); }
   bool isStale() const { return it_.isStale(); }
   bool isLive() const { return it_.isLive(); }
   void next() { it_.next(); }
   void prev()
      requires requires(MapIterator& it) { it.prev(); }
   {
      it_.prev();
   }
   SetIterator& operator++() {
      it_.next();
      return *this;
   }
   SetIterator& operator--()
      requires requires(MapIterator& it) { it.prev(); }
   {
      it_.prev();
      return *this;
   }
   SetIterator const& operator*() const { return *this; }
   SetIterator const* operator->() const { return this; }
   friend bool operator==(SetIterator const& it, IterationEnd) { return it.done(); }

 private:
   MapIterator it_;
};

} // namespace Impl

template <typename K>
class HashSet {
   using Table = Impl::HashTable<K, Impl::Empty, true>;

 public:
   using Iterator = Impl::SetIterator<K, typename Table::ConstIterator>;
   using ConstIterator = Iterator;

   explicit HashSet(U32 collectionConstant = Impl::collectionConstant()) : table_(collectionConstant) {}

   bool contains(K const& key) const { return table_.contains(key); }
   // Adds `key`; returns whether it was absent.
   bool insert(K const& key) { return table_.emplace(key).second; }
   // Removes `key`; returns whether it was present.
   bool erase(K const& key) { return table_.erase(key); }
   void clear() { table_.clear(); }
   void reserve(std::size_t count) { table_.reserve(count); }
   std::size_t size() const { return table_.size(); }
   bool empty() const { return table_.empty(); }
   std::uint64_t version() const { return table_.version(); }

   Iterator begin() const { return Iterator(table_.begin()); }
   IterationEnd end() const { return {}; }

 private:
   Table table_;
};

template <typename K>
class RbTreeSet {
   using Map = RbTreeMapGeneric<K, Impl::Empty>;

 public:
   using Iterator = Impl::SetIterator<K, typename Map::ConstIterator>;
   using ConstIterator = Iterator;

   bool contains(K const& key) const { return map_.contains(key); }
   // Adds `key`; returns whether it was absent.
   bool insert(K const& key) { return map_.emplace(key).second; }
   // Removes `key`; returns whether it was present.
   bool erase(K const& key) { return map_.erase(key); }
   void clear() { map_.clear(); }
   std::size_t size() const { return map_.size(); }
   bool empty() const { return map_.empty(); }
   std::uint64_t version() const { return map_.version(); }
   bool checkInvariants() const { return map_.checkInvariants(); }

   Iterator first() const { return Iterator(map_.first()); }
   Iterator last() const { return Iterator(map_.last()); }
   Iterator lowerBound(K const& key) const { return Iterator(map_.lowerBound(key)); }
   Iterator upperBound(K const& key) const { return Iterator(map_.upperBound(key)); }
   Iterator begin() const { return first(); }
   IterationEnd end() const { return {}; }

 private:
   Map map_;
};

} // namespace Vor
