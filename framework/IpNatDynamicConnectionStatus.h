#pragma once
// The dynamic connections: Ip::Nat::DynamicConnectionStatus, written by
// connection tracking and read by the engine, and
// Ip::Nat::DynamicConnectionHwStatus, written by the engine with what it put
// into hardware.
//
// Both are tables keyed by DynamicConnectionKey (interface, then tuple) that
// may hold very many members. They are read in two ways only:
//  - a safe lookup, which never fails: an absent key yields the empty record
//    with `present` false;
//  - an ordered walk from a start hint (the first key at or above it), which
//    a caller that gives way to other work resumes later from the key after
//    the last one it handled. The walk copies each record out before the
//    visitor runs, so the visitor may change the table; members added or
//    removed behind the walk's position are seen or skipped as the order
//    dictates, and none is visited twice.
//
// Every change notifies per member with a pointer to the key; setting a
// member to the value it holds notifies nobody.
//
// Thread safety: none; the agent's one thread.

#include <cstddef>
#include <functional>
#include <map>

#include "framework/IpNatTypes.h"
#include "framework/VorEntity.h"
#include "framework/VorEntityCollections.h"

namespace Ip::Nat {

// The result of a safe lookup.
template <typename Record>
struct Lookup {
   Record record;
   bool present = false;
};

class DynamicConnectionStatus : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId dynamicConnectionId = 1;

   using Visitor = std::function<bool(DynamicConnection const&)>;

   explicit DynamicConnectionStatus(Vor::String name = "dynamicConnectionStatus")
       : Vor::Entity(std::move(name)) {}

   Lookup<DynamicConnection> dynamicConnection(DynamicConnectionKey const& key) const;
   bool dynamicConnectionHas(DynamicConnectionKey const& key) const { return map_.count(key) != 0; }
   std::size_t dynamicConnections() const { return map_.size(); }
   // Keyed by the record's own key; the add replaces.
   void dynamicConnectionIs(DynamicConnection const& conn);
   void dynamicConnectionDel(DynamicConnectionKey const& key);
   void dynamicConnectionDelAll();
   // Visits members in key order from the first key at or above `start`
   // until `visit` returns false. Returns the number visited.
   std::size_t dynamicConnectionWalk(DynamicConnectionKey const& start, Visitor const& visit) const;

 private:
   std::map<DynamicConnectionKey, DynamicConnection> map_;
};

class DynamicConnectionHwStatus : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId dynamicConnectionHwId = 1;

   using Visitor = std::function<bool(DynamicConnectionHw const&)>;

   explicit DynamicConnectionHwStatus(Vor::String name = "dynamicConnectionHwStatus")
       : Vor::Entity(std::move(name)) {}

   Lookup<DynamicConnectionHw> dynamicConnectionHw(DynamicConnectionKey const& key) const;
   bool dynamicConnectionHwHas(DynamicConnectionKey const& key) const { return map_.count(key) != 0; }
   std::size_t dynamicConnectionHws() const { return map_.size(); }
   void dynamicConnectionHwIs(DynamicConnectionHw const& hw);
   void dynamicConnectionHwDel(DynamicConnectionKey const& key);
   void dynamicConnectionHwDelAll();
   std::size_t dynamicConnectionHwWalk(DynamicConnectionKey const& start, Visitor const& visit) const;

 private:
   std::map<DynamicConnectionKey, DynamicConnectionHw> map_;
};

} // namespace Ip::Nat
