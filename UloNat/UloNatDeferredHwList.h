#pragma once
// DeferredHwList<Key, Value>: per key, the one thing an interface engine
// still has to do for a connection, walked in key order by a backlog.
//
// The engine's backlogs (the batch commit of static and twice connections,
// the dynamic backlog) hold work per connection key and drain it in one walk.
// The operation run for an entry calls out into the engine, and the engine
// may then add, rewrite or remove entries of the very list being walked (a
// refused update deletes and re-defers its connection; a next-hop change
// marks another entry; a dynamic duplicate defers a delete elsewhere). So the
// walk never holds an iterator across a call-out: after each entry it
// re-finds its place as the first key above the one it just visited.
//
// Iteration guarantees of walk():
//  - Every key present when the walk starts and still present when the walk
//    reaches its place is visited once, in key order.
//  - A key inserted during the walk above the current key is visited by the
//    same walk; one inserted at or below it is not (the next walk sees it).
//  - An entry removed (by the visitor or by anything it calls) is not
//    visited afterwards; removing the current entry is allowed.
//  - The visitor receives a copy of the key and of the value (for Ptr values
//    the entity itself, kept alive for the call), never a reference into the
//    list, so nothing it does to the list can leave it holding a dangling
//    reference.
//
// Value is either a Vor::Ptr<Entry> whose Entry is built from its key
// (DeferredStaticNatConnectionHw, DeferredTwiceNatConnectionHw), made by
// entryIs() on first use, or a plain value (DeferredDynamicNatEvent), stored
// by entryIs(key, value).
//
// Thread safety: none needed; the engine runs on the agent's one thread.

#include <cstddef>
#include <map>
#include <type_traits>
#include <vector>

#include "framework/VorPtr.h"

namespace Ulo {

namespace DeferredHwListImpl {
template <class T>
struct IsPtr : std::false_type {};
template <class E>
struct IsPtr<Vor::Ptr<E>> : std::true_type {
   using Entry = E;
};
} // namespace DeferredHwListImpl

template <class Key, class Value>
class DeferredHwList {
 public:
   using Map = std::map<Key, Value>;
   static constexpr bool holdsEntities = DeferredHwListImpl::IsPtr<Value>::value;

   // The entry of key, made from the key when absent.
   // REQUIRES: Value is a Vor::Ptr to an entity built from its key.
   Value const& entryIs(Key const& key)
      requires holdsEntities
   {
      using Entry = typename DeferredHwListImpl::IsPtr<Value>::Entry;
      Value& entry = entries_[key];
      if (!entry) entry = Value(new Entry(key));
      return entry;
   }
   // Stores value as the entry of key, replacing what was there.
   void entryIs(Key const& key, Value const& value) { entries_[key] = value; }

   // The entry of key; null (or nullptr for a plain value) when absent.
   Value const* entry(Key const& key) const {
      auto const it = entries_.find(key);
      return it == entries_.end() ? nullptr : &it->second;
   }
   // The entity of key, null when absent.
   Value entity(Key const& key) const
      requires holdsEntities
   {
      auto const it = entries_.find(key);
      return it == entries_.end() ? Value() : it->second;
   }
   bool has(Key const& key) const { return entries_.count(key) != 0; }
   void del(Key const& key) { entries_.erase(key); }
   void delAll() { entries_.clear(); }
   std::size_t size() const { return entries_.size(); }
   bool empty() const { return entries_.empty(); }
   Map const& entries() const { return entries_; }
   // A copy of the keys, in key order.
   std::vector<Key> keys() const {
      std::vector<Key> out;
      out.reserve(entries_.size());
      for (auto const& member : entries_) out.push_back(member.first);
      return out;
   }

   // Visits the entries in key order as stated in the header: visit(key,
   // value) returns true to go on and false to stop the walk there. Returns
   // the number of entries visited (the stopping one included).
   template <class Visit>
   std::size_t walk(Visit&& visit) {
      std::size_t visited = 0;
      auto it = entries_.begin();
      while (it != entries_.end()) {
         Key const key = it->first;
         Value const value = it->second;
         ++visited;
         if (!visit(key, value)) break;
         it = entries_.upper_bound(key);
      }
      return visited;
   }

 private:
   Map entries_;
};

} // namespace Ulo
