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
// The map helpers serve the standard maps and the Vor maps alike.
//
// Keys are copied before a member is erased and the copy is what reactors
// see: a reactor must never be handed a pointer into a node that is gone.
//
// Thread safety: none; entities belong to the agent's one thread.

#include <cstddef>
#include <map>
#include <memory>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "framework/VorException.h"
#include "framework/VorHash.h"
#include "framework/VorPtr.h"

namespace Vor {

// Adds `key` to set `s`. Returns true when it was not there.
template <typename S, typename K>
bool memberKeyIs(S& s, K const& key) {
   return s.insert(key).second;
}

namespace Impl {

// A pointer to the value of member `key` of `m`, or null. The standard maps
// answer find() with an iterator, the Vor maps with a pointer; the helpers
// below serve both.
template <typename M, typename K>
auto memberPtr(M& m, K const& key) {
   if constexpr (std::is_pointer_v<decltype(m.find(key))>) {
      return m.find(key);
   } else {
      auto it = m.find(key);
      return it == m.end() ? nullptr : &it->second;
   }
}

template <typename M, typename K>
using MemberValue = std::remove_cvref_t<decltype(*memberPtr(std::declval<M&>(), std::declval<K const&>()))>;

} // namespace Impl

// Sets member `key` of map `m` to `value`. Returns true when the member was
// added or its value changed, false when it already held `value`.
template <typename M, typename K, typename V>
bool memberValueIs(M& m, K const& key, V const& value) {
   if (auto* current = Impl::memberPtr(m, key)) {
      if (*current == value) return false;
      *current = value;
      return true;
   }
   m.emplace(key, value);
   return true;
}

// The value of member `key`, or the value type's default when absent (a
// null pointer for a map of entities).
template <typename M, typename K>
Impl::MemberValue<M const, K> memberValue(M const& m, K const& key) {
   auto const* value = Impl::memberPtr(m, key);
   return value != nullptr ? *value : Impl::MemberValue<M const, K>();
}

// Member `key` of `m`, a map of pointers to entities. When it is absent it
// is made by `make(key)` and added, and then `notify(key)` is called.
template <typename M, typename K, typename Make, typename Notify>
Impl::MemberValue<M, K> memberEntityIs(M& m, K const& key, Make make, Notify notify) {
   if (auto const* member = Impl::memberPtr(m, key)) return *member;
   Impl::MemberValue<M, K> made = make(key);
   m.emplace(key, made);
   notify(key);
   return made;
}
// The same for a map that nobody watches.
template <typename M, typename K, typename Make>
Impl::MemberValue<M, K> memberEntityIs(M& m, K const& key, Make make) {
   return memberEntityIs(m, key, make, [](K const&) {});
}

// Removes member `key` of `m`, a map of pointers to entities, and calls
// `notify` with a copy of the key while the member is still alive, so that a
// reactor that looks at the member it is told about finds it whole. `key`
// may be the member's own key (xDelAll passes the first member's): it is
// copied before the member goes. Returns whether there was a member.
template <typename M, typename K, typename Notify>
bool memberEntityDel(M& m, K const& key, Notify notify) {
   K const k = key;
   auto const* member = Impl::memberPtr(m, k);
   if (member == nullptr) return false;
   auto const gone = *member;
   m.erase(k);
   notify(k);
   return true;
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
