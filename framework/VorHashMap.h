#pragma once
// Vor::HashMap<K, V>: an unordered map from a key to a value, for lookups on
// hot paths.
//
//    Vor::HashMap<Vor::String, Vor::Ptr<Intf>> intfs;
//    intfs.insert(name, intf);
//    if (Vor::Ptr<Intf>* p = intfs.find(name)) use(*p);
//    for (auto const& m : intfs) use(m.key(), m.value());
//
// Keys: see framework/VorCollectionHash.h. Values need not be
// default-constructible; a Vor::Ptr<T> value keeps its object alive after
// the member left the map for as long as someone else holds a Ptr to it.
//
// Iteration order is unspecified and differs between runs and between
// instances (the hash is seeded per process and per instance).
//
// Thread safety: none; a map and its iterators are used from one thread.
//
// Invariants: those of Vor::Impl::HashTable (framework/VorCollectionHashTable.h).
//
// What changes invalidate (like std::unordered_map, and no more):
//   - A V* from find()/insert()/emplace(), and the member an iterator stands
//     on, stay valid until that member is erased, or clear() or destruction.
//     Insertions never move members in memory.
//   - erase(k) of a member other than the one an iterator stands on leaves
//     the iterator valid, and the walk still visits every remaining member
//     once. erase() of the member an iterator stands on invalidates that
//     iterator: read the key and call next() first, or use HashMap2018.
//   - An insertion may resize the bucket array, after which an iterator
//     from before it must not be used.
// A loop that must survive its own deletions and insertions uses
// Vor::HashMap2018.

#include "framework/VorCollectionHashTable.h"

namespace Vor {

template <typename K, typename V>
class HashMap : public Impl::HashTable<K, V, false> {
   using Base = Impl::HashTable<K, V, false>;

 public:
   using Iterator = typename Base::Iterator;
   using ConstIterator = typename Base::ConstIterator;

   // `collectionConstant` is XORed into the per-process seed; by default
   // each instance draws its own.
   explicit HashMap(U32 collectionConstant = Impl::collectionConstant()) : Base(collectionConstant) {}

   // Inherited, with the contracts given in VorCollectionHashTable.h:
   //   V* find(K const&);  V const* find(K const&) const;  bool contains(K const&) const;
   //   std::pair<V*, bool> insert(K const&, V);   no overwrite; returns the existing member
   //   V& insertOrAssign(K const&, V);
   //   std::pair<V*, bool> emplace(K const&, A&&...);
   //   bool erase(K const&);  void clear();  void reserve(std::size_t);
   //   std::size_t size() const;  bool empty() const;  std::uint64_t version() const;
   //   Iterator begin();  ConstIterator begin() const;  IterationEnd end() const;
   // An iterator offers done(), explicit operator bool, key(), value(),
   // next() and operator++. In a range-for the element is the iterator.
};

} // namespace Vor
