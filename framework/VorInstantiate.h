#pragma once
// Instantiation of collection members: xIs(key, args...).
//
// Instantiating a member is idempotent: the same key with the same
// construction arguments returns the member that exists. The same key with
// different arguments is a programming error (the caller believes it made a
// new member, but gets one built for someone else) and raises
// Vor::ReinstantiationException. A null pointer among the arguments raises
// Vor::NullPointerException, before anything changes.
//
// A member type M supports this by being constructible as M(key, args...)
// and by returning its construction arguments, compared with ==, from
//     auto constructorArgs() const;   // e.g. return std::tuple(vrfName_);
//
// The map may be any map from K to Ptr<M> with find/emplace (std::map,
// std::unordered_map, the Vor collections' std-like adaptors).

#include <tuple>
#include <type_traits>
#include <utility>

#include "framework/VorException.h"
#include "framework/VorPtr.h"

namespace Vor {

namespace Impl {
template <typename T>
struct IsPtr : std::false_type {};
template <typename T>
struct IsPtr<Ptr<T>> : std::true_type {};

template <typename A>
void checkNotNull(A const& arg, char const* attribute) {
   if constexpr (IsPtr<std::decay_t<A>>::value) {
      if (!arg) throwMutatorArgNullPointerException(attribute);
   } else if constexpr (std::is_pointer_v<std::decay_t<A>>) {
      if (arg == nullptr) throwMutatorArgNullPointerException(attribute);
   }
}
} // namespace Impl

// Returns the member and whether it was made now.
template <typename M, typename Map, typename K, typename... Args>
std::pair<Ptr<M>, bool> instantiateMember(Map& map, K const& key, char const* attribute,
                                          Args const&... args) {
   (Impl::checkNotNull(args, attribute), ...);
   auto it = map.find(key);
   if (it != map.end()) {
      Ptr<M> existing = it->second;
      if (!(existing->constructorArgs() == std::tuple<Args const&...>(args...))) {
         Impl::throwMutatorReinstVal(attribute);
      }
      return {existing, false};
   }
   Ptr<M> made(new M(key, args...));
   map.emplace(key, made);
   return {made, true};
}

} // namespace Vor
