#pragma once
// Ulo::NatMulticastAdapter: the one object between the interface engines and
// the multicast routing side of the switch.
//
// The NAT engine does not compute multicast routes; it asks for them. An
// interface engine that programs a rule for a multicast address watches the
// rule's route: watchRoute() puts the route's NatMrouteKey into the request
// set, which the routing side reads. The routing side answers in the response
// map with the route's outgoing interfaces, changes the answer as they
// change, and removes it when the route goes. Each answer reaches
// handleMrouteResp(key), which first brings the cache (NatMcastInfoCache) up
// to date for every context key that the route serves and only then tells
// the interface engine named by the key (updateMcastAddMroute or
// updateMcastDelMroute), so that the engine reads the new state when it
// reprograms the rule.
//
// The group pair (NatMgroupRequestSet, NatMgroupResponseMap) is held and its
// response map watched, but nothing here writes the group request set and no
// group answer reaches the cache: a cache entry's groupId changes only
// through getMcastInfo() and the cache's own accessors. That path stands
// ready and stays idle.
//
// Order of a response, (S, G) both non-zero: the context keys are
// (route, vlan, S, G) then (route, vlan, S, 0), so that a rule that names the
// source alone follows the routes of its source. With one of S, G zero, the
// key itself only.
//
// Thread safety: the agent's one thread; the reactor runs there too.
//
// Invariants:
//  1. "!!natSm && \"Zero ptr is passed to NatMulticastAdapter\"": a response
//     is only handled with the root state machine behind natSm.
//  2. No value of the cache is null: cacheIs(key, nullptr) removes the key.
//  3. A cache entry of type mrouteKeyTypeRoute stays while it is in force or
//     has outgoing interfaces; any other entry while it is in force or has a
//     group id (see NatMcastInfoCache::lazyDelete).
//
// Errors: none but invariant 1. A response for an interface without engine,
// an unwatch of a key that was not watched, a disable or an unset of an
// unknown key leave the state as it is.

#include <map>
#include <memory>
#include <set>
#include <unordered_map>

#include "UloNat/UloNatAsyncTypes.h"
#include "UloNat/UloNatMrouteTypes.h"
#include "framework/VorEntity.h"
#include "framework/VorPtr.h"

namespace Ulo {

class UloBaseSm;

// The routes the NAT engine wants answers for. Written by the adapter only.
class NatMrouteRequestSet : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId mrouteReqId = 1;
   explicit NatMrouteRequestSet(Vor::String name = Vor::String()) : Vor::Entity(std::move(name)) {}

   std::set<NatMrouteKey> const& mrouteReq() const { return mrouteReq_; }
   bool mrouteReqHas(NatMrouteKey const& key) const { return mrouteReq_.count(key) != 0; }
   std::size_t mrouteReqs() const { return mrouteReq_.size(); }
   // Notifies only when the key was not there.
   void mrouteReqIs(NatMrouteKey const& key);
   // Notifies only when the key was there.
   void mrouteReqDel(NatMrouteKey const& key);

 private:
   std::set<NatMrouteKey> mrouteReq_;
};

// The routing side's answers: the outgoing interfaces of each route asked
// for. Only read by the NAT engine.
class NatMrouteResponseMap : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId mrouteRespId = 1;
   explicit NatMrouteResponseMap(Vor::String name = Vor::String()) : Vor::Entity(std::move(name)) {}

   std::map<NatMrouteKey, NatMrouteOifSet> const& mrouteResp() const { return mrouteResp_; }
   bool mrouteRespHas(NatMrouteKey const& key) const { return mrouteResp_.count(key) != 0; }
   // An empty set when absent.
   NatMrouteOifSet mrouteResp(NatMrouteKey const& key) const;
   // Notifies on a new key or a changed set.
   void mrouteRespIs(NatMrouteKey const& key, NatMrouteOifSet const& oifs);
   void mrouteRespDel(NatMrouteKey const& key);

 private:
   std::map<NatMrouteKey, NatMrouteOifSet> mrouteResp_;
};

// The group pair: held, watched, and idle (see the opening comment).
class NatMgroupRequestSet : public NatMrouteRequestSet {
 public:
   using NatMrouteRequestSet::NatMrouteRequestSet;
};
class NatMgroupResponseMap : public NatMrouteResponseMap {
 public:
   using NatMrouteResponseMap::NatMrouteResponseMap;
};

// What is known of each route, shared by all interfaces. Entries come and go
// by the rules of lazyDelete(); get() never returns null.
class NatMcastInfoCache : public Vor::PtrInterface {
 public:
   using CacheMap = std::unordered_map<NatMcastCtxKey, Vor::Ptr<NatMulticastData>>;

   CacheMap const& cache() const { return cache_; }
   // The entry, or null.
   Vor::Ptr<NatMulticastData> cache(NatMcastCtxKey const& key) const;
   std::size_t caches() const { return cache_.size(); }
   // A null record removes the key.
   void cacheIs(NatMcastCtxKey const& key, Vor::Ptr<NatMulticastData> const& data);
   void cacheDel(NatMcastCtxKey const& key) { cache_.erase(key); }
   void cacheDelAll() { cache_.clear(); }

   // The entry, or the shared defaultMulticastData() record; creates nothing.
   Vor::Ptr<NatMulticastData const> get(NatMcastCtxKey const& key) const;
   // The entry, made fresh when absent.
   Vor::Ptr<NatMulticastData> lazyCreate(NatMcastCtxKey const& key);
   // The one rule by which an entry goes: not while in force; a route entry
   // when it has no outgoing interfaces (its group id does not count); any
   // other entry when its group id is 0 (its interfaces do not count).
   void lazyDelete(NatMcastCtxKey const& key);
   // Creates when absent. setGroup(key, 0) removes nothing.
   void setGroup(NatMcastCtxKey const& key, Vor::U32 groupId);
   // Nothing when absent; otherwise groupId 0, then lazyDelete.
   void unsetGroup(NatMcastCtxKey const& key);
   // Creates when absent.
   void setOifSet(NatMcastCtxKey const& key, NatMrouteOifSet const& oifs);
   // Nothing when absent; otherwise an empty set, then lazyDelete.
   void unsetOifSet(NatMcastCtxKey const& key);
   // Creates when absent.
   void multicastEnable(NatMcastCtxKey const& key);
   // Nothing when absent; otherwise multicast false, then lazyDelete.
   void multicastDisable(NatMcastCtxKey const& key);

 private:
   CacheMap cache_;
};

Vor::Ptr<NatMcastInfoCache> natMcastInfoCacheFactory();

class NatMulticastAdapter : public Vor::PtrInterface {
 public:
   // Calls handleMrouteResp(key) for each member change of the response map.
   // A change of the whole collection (null key) is ignored.
   class VorMrouteResponseMap : public Vor::PtrInterface::NotifieeConst {
    public:
      explicit VorMrouteResponseMap(NatMulticastAdapter* adapter) : adapter_(adapter) {}
      void onAttribute(Vor::AttributeId id, void const* key) override;
      void adapterIs(NatMulticastAdapter* adapter) { adapter_ = adapter; }

    private:
      NatMulticastAdapter* adapter_;
   };
   // Attached to the group answers, with no handler.
   class VorMgroupResponseMap : public Vor::PtrInterface::NotifieeConst {
    public:
      explicit VorMgroupResponseMap(NatMulticastAdapter* adapter) : adapter_(adapter) {}
      void adapterIs(NatMulticastAdapter* adapter) { adapter_ = adapter; }

    private:
      NatMulticastAdapter* adapter_;
   };

   // Processes the responses that already stand in the map (last step).
   NatMulticastAdapter(Vor::Ptr<NatMrouteRequestSet> const& mrouteRequestSet,
                       Vor::Ptr<NatMrouteResponseMap const> const& mrouteResponseMap,
                       Vor::Ptr<NatMgroupRequestSet> const& mgroupRequestSet,
                       Vor::Ptr<NatMgroupResponseMap const> const& mgroupResponseMap,
                       UloBaseSm* natSm);
   // Withdraws nothing from the request sets.
   ~NatMulticastAdapter() override;

   Vor::Ptr<NatMrouteRequestSet> const& mrouteRequestSet() const { return mrouteRequestSet_; }
   Vor::Ptr<NatMrouteResponseMap const> mrouteResponseMap() const;
   Vor::Ptr<NatMgroupRequestSet> const& mgroupRequestSet() const { return mgroupRequestSet_; }
   UloBaseSm* natSm() const { return natSm_; }
   // The cache, or null before the first use.
   Vor::Ptr<NatMcastInfoCache> const& mcastInfoCache() const { return mcastInfoCache_; }
   // The cache, made on first use.
   Vor::Ptr<NatMcastInfoCache> mcastInfoCacheWrap();

   void hasNotificationActiveIs(bool active) override;
   void vorDoZombieReactors(bool zombie);

   // Puts the key into the request set (no change when it stands there).
   void watchRoute(NatMrouteKey const& key);
   // Takes the key out of the request set when it stands there. The cache
   // follows the routing side's withdrawal of the answer, not this call.
   void unWatchRoute(NatMrouteKey const& key);
   // What is known of (vlan, source, group), never null. With a non-zero
   // group, the group's id is copied into the route's entry after the record
   // to return was fetched: the first call for an unknown route returns the
   // default record and leaves an entry that the next call returns.
   Vor::Ptr<NatMulticastData const> getMcastInfo(Vor::U16 vlanId, Lumet::IpAddr sourceIp,
                                                 Lumet::IpAddr groupIp);
   // Marks the route, and with a non-zero group the group, as in force.
   void enableMulticast(Vor::U16 vlanId, Lumet::IpAddr sourceIp, Lumet::IpAddr groupIp);
   // Clears both marks. There is no count: the first disable clears the
   // group's mark for all its sources.
   void disableMulticast(Vor::U16 vlanId, Lumet::IpAddr sourceIp, Lumet::IpAddr groupIp);
   // Every response present in the map, in the map's order.
   void handleMrouteResp();
   // REQUIRES: "!!natSm && \"Zero ptr is passed to NatMulticastAdapter\"".
   void handleMrouteResp(NatMrouteKey const& key);

 private:
   Vor::Ptr<NatMrouteRequestSet> mrouteRequestSet_;
   std::unique_ptr<VorMrouteResponseMap> mrouteResponseMap_;
   Vor::Ptr<NatMgroupRequestSet> mgroupRequestSet_;
   std::unique_ptr<VorMgroupResponseMap> mgroupResponseMap_;
   UloBaseSm* natSm_;
   Vor::Ptr<NatMcastInfoCache> mcastInfoCache_;
};

// A null response map is allowed: its reactor is then not built.
Vor::Ptr<NatMulticastAdapter> natMulticastAdapterFactory(
   Vor::Ptr<NatMrouteRequestSet> const& mrouteRequestSet,
   Vor::Ptr<NatMrouteResponseMap const> const& mrouteResponseMap,
   Vor::Ptr<NatMgroupRequestSet> const& mgroupRequestSet,
   Vor::Ptr<NatMgroupResponseMap const> const& mgroupResponseMap, UloBaseSm* natSm);

} // namespace Ulo
