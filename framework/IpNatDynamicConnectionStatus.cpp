#include "framework/IpNatDynamicConnectionStatus.h"

namespace Ip::Nat {

namespace {

template <typename Map>
Lookup<typename Map::mapped_type> safeLookup(Map const& map, DynamicConnectionKey const& key) {
   auto it = map.find(key);
   if (it == map.end()) return {};
   return {it->second, true};
}

// The walk finds its place again by key after each visit, since the visitor
// may have changed the map.
template <typename Map, typename Visitor>
std::size_t walkFrom(Map const& map, DynamicConnectionKey const& start, Visitor const& visit) {
   std::size_t visited = 0;
   auto it = map.lower_bound(start);
   while (it != map.end()) {
      typename Map::mapped_type const record = it->second;
      DynamicConnectionKey const key = it->first;
      ++visited;
      if (!visit(record)) break;
      it = map.upper_bound(key);
   }
   return visited;
}

} // namespace

Lookup<DynamicConnection> DynamicConnectionStatus::dynamicConnection(DynamicConnectionKey const& key) const {
   return safeLookup(map_, key);
}

void DynamicConnectionStatus::dynamicConnectionIs(DynamicConnection const& conn) {
   DynamicConnectionKey const key = conn.key();
   if (Vor::memberValueIs(map_, key, conn)) memberChanged(dynamicConnectionId, key);
}

void DynamicConnectionStatus::dynamicConnectionDel(DynamicConnectionKey const& key) {
   DynamicConnectionKey const k = key;
   if (map_.erase(k)) memberChanged(dynamicConnectionId, k);
}

void DynamicConnectionStatus::dynamicConnectionDelAll() {
   while (!map_.empty()) dynamicConnectionDel(map_.begin()->first);
}

std::size_t DynamicConnectionStatus::dynamicConnectionWalk(DynamicConnectionKey const& start,
                                                           Visitor const& visit) const {
   return walkFrom(map_, start, visit);
}

Lookup<DynamicConnectionHw> DynamicConnectionHwStatus::dynamicConnectionHw(DynamicConnectionKey const& key) const {
   return safeLookup(map_, key);
}

void DynamicConnectionHwStatus::dynamicConnectionHwIs(DynamicConnectionHw const& hw) {
   DynamicConnectionKey const key = hw.key();
   if (Vor::memberValueIs(map_, key, hw)) memberChanged(dynamicConnectionHwId, key);
}

void DynamicConnectionHwStatus::dynamicConnectionHwDel(DynamicConnectionKey const& key) {
   DynamicConnectionKey const k = key;
   if (map_.erase(k)) memberChanged(dynamicConnectionHwId, k);
}

void DynamicConnectionHwStatus::dynamicConnectionHwDelAll() {
   while (!map_.empty()) dynamicConnectionHwDel(map_.begin()->first);
}

std::size_t DynamicConnectionHwStatus::dynamicConnectionHwWalk(DynamicConnectionKey const& start,
                                                               Visitor const& visit) const {
   return walkFrom(map_, start, visit);
}

} // namespace Ip::Nat
