#pragma once
// Vor::HashMap2018<K, V>: an unordered map whose iterator survives changes
// made by the loop that holds it.
//
//    for (auto it = map.begin(); it; ++it) {
//       if (obsolete(it.value())) {
//          map.erase(it.key());     // the iterator now stands on an erased member
//          log(it.key());           // ... whose key it can still read
//       }
//    }
//
// It is a Vor::HashMap (same keys, values and operations) with these
// guarantees while any of its iterators exists:
//   1. Erasing the member an iterator stands on leaves the iterator usable:
//      isStale() turns true, key() still returns the erased member's key,
//      value() is forbidden (uloAssert), and next() moves on to the member
//      that would have followed.
//   2. Erasing any other member: the walk skips it if it had not reached it
//      yet, and visits every other member once.
//   3. Inserting during a walk never crashes and never makes the walk visit
//      a member twice: a member inserted during the walk is visited at most
//      once (whether at all depends on its bucket, so do not rely on it).
//      A member erased and inserted again with the same key during the walk
//      is a new member: it may be visited, though the erased one was.
//   4. Every member present from the start of the walk to its end is visited
//      exactly once.
//   5. clear() during a walk leaves every iterator on an erased member (or
//      done); next() then ends the walk unless members were added since.
// The price: while any iterator exists, erased nodes are kept (key only,
// the value is destroyed at erase, so Ptr values are released at once) and
// the bucket array does not resize, so a loop that inserts many members
// makes chains long until its last iterator goes. Keep iterators in local
// variables; do not keep one in a long-lived object.
//
// A V* from find() stays valid until its member is erased; insertions never
// move members.
//
// Thread safety: none; a map and its iterators are used from one thread.
//
// Invariants: those of Vor::Impl::HashTable (framework/VorCollectionHashTable.h).
// REQUIRES of the destructor and of move assignment: no iterator exists.

#include "framework/VorCollectionHashTable.h"

namespace Vor {

template <typename K, typename V>
class HashMap2018 : public Impl::HashTable<K, V, true> {
   using Base = Impl::HashTable<K, V, true>;

 public:
   using Iterator = typename Base::Iterator;
   using ConstIterator = typename Base::ConstIterator;

   // `collectionConstant` is XORed into the per-process seed; by default
   // each instance draws its own.
   explicit HashMap2018(U32 collectionConstant = Impl::collectionConstant()) : Base(collectionConstant) {}

   // Operations: as Vor::HashMap. Iterators in addition offer
   //   bool isStale() const;   stands on a member erased since it got there
   //   bool isLive() const;    stands on a member still in the map
   // A done iterator is neither stale nor live.
};

} // namespace Vor
