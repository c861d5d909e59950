#pragma once
// Small building blocks for the collection attributes of entities.
//
// An entity keeps each collection attribute in a container and notifies its
// reactors once per member that was added, changed or removed, with a pointer
// to the member's key. These helpers do the container half of that and report
// whether anything changed, so that the entity notifies exactly when it must:
//
//   if (Vor::memberValueIs(validIntf_, intf, vlan)) memberChanged(validIntfId, intf);
//
// Keys are copied before a member is erased and the copy is what reactors
// see: a reactor must never be handed a pointer into a node that is gone.
//
// Thread safety: none; entities belong to the agent's one thread.

#include <cstddef>
#include <map>
#include <memory>
#include <unordered_map>
#include <unordered_set>

#include "framework/VorException.h"
#include "framework/VorHash.h"
#include "framework/VorPtr.h"

namespace Vor {

// Sets member `key` of map `m` to `value`. Returns true when the member was
// added or its value changed, false when it already held `value`.
template <typename M, typename K, typename V>
bool memberValueIs(M& m, K const& key, V const& value) {
   auto it = m.find(key);
   if (it == m.end()) {
      m.emplace(key, value);
      return true;
   }
   if (it->second == value) return false;
   it->second = value;
   return true;
}

// Adds `key` to set `s`. Returns true when it was not there.
template <typename S, typename K>
bool memberKeyIs(S& s, K const& key) {
   return s.insert(key).second;
}

// The value of member `key`, or the value type's default when absent.
template <typename M, typename K>
typename M::mapped_type memberValue(M const& m, K const& key) {
   auto it = m.find(key);
   return it == m.end() ? typename M::mapped_type() : it->second;
}

// Hash functor for value types that offer `U32 hash(U32 seed) const`: the
// per-process seed makes the bucket order differ between runs.
struct ValueHash {
   template <typename K>
   std::size_t operator()(K const& key) const {
      return hashFinish(static_cast<U32>(key.hash(hashSeed32() ^ 0x5bd1e995u)));
   }
};

} // namespace Vor
