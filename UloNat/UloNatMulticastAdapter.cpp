#include "UloNat/UloNatMulticastAdapter.h"

#include <charconv>
#include <tuple>
#include <vector>

#include "UloNat/UloNatMulticastTransition.h"
#include "UloNat/UloNatSm.h"
#include "framework/UloAssert.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("UloNatMulticastAdapter");

namespace Ulo {

// ---- keys ----

bool operator<(NatMrouteKey const& a, NatMrouteKey const& b) {
   return std::tie(a.type, a.intfId, a.vlanId, a.sourceIp, a.groupIp) <
          std::tie(b.type, b.intfId, b.vlanId, b.sourceIp, b.groupIp);
}

Vor::U32 NatMrouteKey::hash(Vor::U32 seed) const {
   Vor::U32 h = Vor::hashMix(seed, static_cast<Vor::U32>(type));
   h = Vor::hashMix(h, intfId.hash(seed));
   h = Vor::hashMix(h, vlanId);
   h = Vor::hashMix(h, sourceIp.hash(seed));
   return Vor::hashFinish(Vor::hashMix(h, groupIp.hash(seed)));
}

std::string NatMrouteKey::stringValue() const {
   return "NatMrouteKey (I=" + intfId.stringValue() + ", V=" + std::to_string(vlanId) +
          ", S=" + sourceIp.stringValue() + ", G=" + groupIp.stringValue() +
          "), type=" + std::to_string(static_cast<Vor::U32>(type));
}

bool operator<(NatMcastCtxKey const& a, NatMcastCtxKey const& b) {
   return std::tie(a.keyType, a.vlanId, a.sourceIp, a.groupIp) <
          std::tie(b.keyType, b.vlanId, b.sourceIp, b.groupIp);
}

Vor::U32 NatMcastCtxKey::hash(Vor::U32 seed) const {
   Vor::U32 h = Vor::hashMix(seed, static_cast<Vor::U32>(keyType));
   h = Vor::hashMix(h, vlanId);
   h = Vor::hashMix(h, sourceIp.hash(seed));
   return Vor::hashFinish(Vor::hashMix(h, groupIp.hash(seed)));
}

std::string NatMcastCtxKey::stringValue() const {
   return "NatMcastCtxKey {type=" + std::to_string(static_cast<Vor::U32>(keyType)) +
          " vlanId=" + std::to_string(vlanId) + ", sourceIp=" + sourceIp.stringValue() +
          ", groupIp=" + groupIp.stringValue() + "}";
}

std::string NatMcastCtxKey::valueToStrep() const {
   return "Value('Ulo::NatMcastCtxKey', ** {'keyType': " +
          std::to_string(static_cast<Vor::U32>(keyType)) + ", 'vlanId': " + std::to_string(vlanId) +
          ", 'sourceIp': " + sourceIp.stringValue() + ", 'groupIp': " + groupIp.stringValue() + "})";
}

namespace {

// Reads `name` then the value up to `end` from the front of `text`.
std::optional<std::string_view> takeField(std::string_view& text, std::string_view name,
                                          std::string_view end) {
   if (!text.starts_with(name)) return std::nullopt;
   text.remove_prefix(name.size());
   auto const stop = text.find(end);
   if (stop == std::string_view::npos) return std::nullopt;
   std::string_view const value = text.substr(0, stop);
   text.remove_prefix(stop + end.size());
   return value;
}

template <typename T>
std::optional<T> number(std::string_view text) {
   T v{};
   auto const [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
   if (ec != std::errc() || ptr != text.data() + text.size()) return std::nullopt;
   return v;
}

} // namespace

std::optional<NatMcastCtxKey> NatMcastCtxKey::fromStrep(std::string_view text) {
   auto const type = takeField(text, "Value('Ulo::NatMcastCtxKey', ** {'keyType': ", ", ");
   auto const vlan = takeField(text, "'vlanId': ", ", ");
   auto const source = takeField(text, "'sourceIp': ", ", ");
   auto const group = takeField(text, "'groupIp': ", "})");
   if (!type || !vlan || !source || !group || !text.empty()) return std::nullopt;
   auto const typeValue = number<Vor::U32>(*type);
   auto const vlanValue = number<Vor::U16>(*vlan);
   auto const sourceIp = Lumet::IpAddr::parse(*source);
   auto const groupIp = Lumet::IpAddr::parse(*group);
   if (!typeValue || *typeValue > 1 || !vlanValue || !sourceIp || !groupIp) return std::nullopt;
   return NatMcastCtxKey(static_cast<NatMrouteKeyType>(*typeValue), *vlanValue, *sourceIp, *groupIp);
}

// ---- request set and response map ----

void NatMrouteRequestSet::mrouteReqIs(NatMrouteKey const& key) {
   if (Vor::memberKeyIs(mrouteReq_, key)) memberChanged(mrouteReqId, key);
}

void NatMrouteRequestSet::mrouteReqDel(NatMrouteKey const& key) {
   NatMrouteKey const k = key;
   if (mrouteReq_.erase(k)) memberChanged(mrouteReqId, k);
}

NatMrouteOifSet NatMrouteResponseMap::mrouteResp(NatMrouteKey const& key) const {
   auto it = mrouteResp_.find(key);
   return it == mrouteResp_.end() ? NatMrouteOifSet() : it->second;
}

void NatMrouteResponseMap::mrouteRespIs(NatMrouteKey const& key, NatMrouteOifSet const& oifs) {
   if (Vor::memberValueIs(mrouteResp_, key, oifs)) memberChanged(mrouteRespId, key);
}

void NatMrouteResponseMap::mrouteRespDel(NatMrouteKey const& key) {
   NatMrouteKey const k = key;
   if (mrouteResp_.erase(k)) memberChanged(mrouteRespId, k);
}

// ---- the cache ----

Vor::Ptr<NatMcastInfoCache> natMcastInfoCacheFactory() {
   return Vor::Ptr<NatMcastInfoCache>(new NatMcastInfoCache());
}

Vor::Ptr<NatMulticastData> NatMcastInfoCache::cache(NatMcastCtxKey const& key) const {
   auto it = cache_.find(key);
   return it == cache_.end() ? Vor::Ptr<NatMulticastData>() : it->second;
}

void NatMcastInfoCache::cacheIs(NatMcastCtxKey const& key, Vor::Ptr<NatMulticastData> const& data) {
   if (!data) {
      cache_.erase(key);
      return;
   }
   cache_[key] = data;
}

Vor::Ptr<NatMulticastData const> NatMcastInfoCache::get(NatMcastCtxKey const& key) const {
   auto it = cache_.find(key);
   if (it == cache_.end()) return defaultMulticastData();
   return it->second;
}

Vor::Ptr<NatMulticastData> NatMcastInfoCache::lazyCreate(NatMcastCtxKey const& key) {
   Vor::Ptr<NatMulticastData>& entry = cache_[key];
   if (!entry) {
      entry = NatMulticastDataIs();
      VOR_TRACE(8, "** " << key.stringValue());
   }
   return entry;
}

void NatMcastInfoCache::lazyDelete(NatMcastCtxKey const& key) {
   auto it = cache_.find(key);
   if (it == cache_.end()) return;
   NatMulticastData const& data = *it->second;
   if (data.multicast()) return;
   bool const unused = key.keyType == NatMrouteKeyType::mrouteKeyTypeRoute ? data.oifSet().oifs() == 0
                                                                            : data.groupId() == 0;
   if (unused) cache_.erase(it);
}

namespace {

void traceEntry(NatMcastInfoCache const& cache, NatMcastCtxKey const& key) {
   VOR_TRACE(8, "** " << key.stringValue() << "; " << cache.get(key)->stringValue());
   (void)cache, (void)key;
}

} // namespace

void NatMcastInfoCache::setGroup(NatMcastCtxKey const& key, Vor::U32 groupId) {
   lazyCreate(key)->groupIdIs(groupId);
   traceEntry(*this, key);
}

void NatMcastInfoCache::unsetGroup(NatMcastCtxKey const& key) {
   auto entry = cache(key);
   if (!entry) return;
   entry->groupIdIs(0);
   traceEntry(*this, key);
   lazyDelete(key);
}

void NatMcastInfoCache::setOifSet(NatMcastCtxKey const& key, NatMrouteOifSet const& oifs) {
   auto entry = lazyCreate(key);
   // Skips the assignment of an entry's own set to itself.
   if (&entry->oifSet() != &oifs) entry->oifSetIs(oifs);
   traceEntry(*this, key);
}

void NatMcastInfoCache::unsetOifSet(NatMcastCtxKey const& key) {
   auto entry = cache(key);
   if (!entry) return;
   entry->oifSetIs(NatMrouteOifSet());
   traceEntry(*this, key);
   lazyDelete(key);
}

void NatMcastInfoCache::multicastEnable(NatMcastCtxKey const& key) {
   lazyCreate(key)->multicastIs(true);
   traceEntry(*this, key);
}

void NatMcastInfoCache::multicastDisable(NatMcastCtxKey const& key) {
   auto entry = cache(key);
   if (!entry) return;
   entry->multicastIs(false);
   traceEntry(*this, key);
   lazyDelete(key);
}

// ---- the adapter ----

void NatMulticastAdapter::VorMrouteResponseMap::onAttribute(Vor::AttributeId id, void const* key) {
   // A null key marks a change of the whole collection, which says nothing
   // about any one route.
   if (id != NatMrouteResponseMap::mrouteRespId || !key || vorMarkedForDeletion() || !adapter_) return;
   adapter_->handleMrouteResp(*static_cast<NatMrouteKey const*>(key));
}

NatMulticastAdapter::NatMulticastAdapter(Vor::Ptr<NatMrouteRequestSet> const& mrouteRequestSet,
                                         Vor::Ptr<NatMrouteResponseMap const> const& mrouteResponseMap,
                                         Vor::Ptr<NatMgroupRequestSet> const& mgroupRequestSet,
                                         Vor::Ptr<NatMgroupResponseMap const> const& mgroupResponseMap,
                                         UloBaseSm* natSm)
    : mrouteRequestSet_(mrouteRequestSet), mgroupRequestSet_(mgroupRequestSet), natSm_(natSm) {
   if (mrouteResponseMap) {
      mrouteResponseMap_ = std::make_unique<VorMrouteResponseMap>(this);
      mrouteResponseMap_->notifierIs(mrouteResponseMap);
      mrouteResponseMap_->hasNotificationActiveIs(true);
   }
   if (mgroupResponseMap) {
      mgroupResponseMap_ = std::make_unique<VorMgroupResponseMap>(this);
      mgroupResponseMap_->notifierIs(mgroupResponseMap);
      mgroupResponseMap_->hasNotificationActiveIs(true);
   }
   // Answers given before the adapter existed count as much as later ones.
   handleMrouteResp();
}

NatMulticastAdapter::~NatMulticastAdapter() {
   if (mrouteResponseMap_) mrouteResponseMap_->adapterIs(nullptr);
   if (mgroupResponseMap_) mgroupResponseMap_->adapterIs(nullptr);
   mcastInfoCache_ = nullptr;
   mgroupResponseMap_.reset();
   mgroupRequestSet_ = nullptr;
   mrouteResponseMap_.reset();
   mrouteRequestSet_ = nullptr;
}

Vor::Ptr<NatMulticastAdapter> natMulticastAdapterFactory(
   Vor::Ptr<NatMrouteRequestSet> const& mrouteRequestSet,
   Vor::Ptr<NatMrouteResponseMap const> const& mrouteResponseMap,
   Vor::Ptr<NatMgroupRequestSet> const& mgroupRequestSet,
   Vor::Ptr<NatMgroupResponseMap const> const& mgroupResponseMap, UloBaseSm* natSm) {
   return Vor::Ptr<NatMulticastAdapter>(new NatMulticastAdapter(
      mrouteRequestSet, mrouteResponseMap, mgroupRequestSet, mgroupResponseMap, natSm));
}

Vor::Ptr<NatMrouteResponseMap const> NatMulticastAdapter::mrouteResponseMap() const {
   if (!mrouteResponseMap_) return {};
   return Vor::Ptr<NatMrouteResponseMap const>(
      static_cast<NatMrouteResponseMap const*>(mrouteResponseMap_->notifierBase().ptr()));
}

Vor::Ptr<NatMcastInfoCache> NatMulticastAdapter::mcastInfoCacheWrap() {
   if (!mcastInfoCache_) mcastInfoCache_ = natMcastInfoCacheFactory();
   return mcastInfoCache_;
}

void NatMulticastAdapter::hasNotificationActiveIs(bool active) {
   Vor::PtrInterface::hasNotificationActiveIs(active);
   if (mrouteResponseMap_) mrouteResponseMap_->hasNotificationActiveIs(active);
   if (mgroupResponseMap_) mgroupResponseMap_->hasNotificationActiveIs(active);
}

void NatMulticastAdapter::vorDoZombieReactors(bool zombie) {
   if (mrouteResponseMap_) mrouteResponseMap_->vorDoZombieReactors(zombie);
   if (mgroupResponseMap_) mgroupResponseMap_->vorDoZombieReactors(zombie);
}

void NatMulticastAdapter::watchRoute(NatMrouteKey const& key) {
   VOR_TRACE(5, " now watching " << key.stringValue());
   if (mrouteRequestSet_) mrouteRequestSet_->mrouteReqIs(key);
}

void NatMulticastAdapter::unWatchRoute(NatMrouteKey const& key) {
   if (mrouteRequestSet_ && mrouteRequestSet_->mrouteReqHas(key)) {
      VOR_TRACE(5, " stopped watching " << key.stringValue());
      mrouteRequestSet_->mrouteReqDel(key);
      return;
   }
   VOR_TRACE(8, ": route with key " << key.stringValue() << ") was not watched");
}

Vor::Ptr<NatMulticastData const> NatMulticastAdapter::getMcastInfo(Vor::U16 vlanId,
                                                                   Lumet::IpAddr sourceIp,
                                                                   Lumet::IpAddr groupIp) {
   NatMcastCtxKey const routeKey(NatMrouteKeyType::mrouteKeyTypeRoute, vlanId, sourceIp, groupIp);
   auto cache = mcastInfoCacheWrap();
   // The record to return is taken before the group's id is copied in: a
   // route seen for the first time answers with the default record.
   Vor::Ptr<NatMulticastData const> const result = cache->get(routeKey);
   if (!groupIp.isZero()) {
      NatMcastCtxKey const groupKey(NatMrouteKeyType::mrouteKeyTypeGroup, vlanId, Lumet::IpAddr(),
                                    groupIp);
      cache->setGroup(routeKey, cache->get(groupKey)->groupId());
   }
   VOR_TRACE(8, "got " << result->stringValue());
   return result;
}

void NatMulticastAdapter::enableMulticast(Vor::U16 vlanId, Lumet::IpAddr sourceIp,
                                          Lumet::IpAddr groupIp) {
   auto cache = mcastInfoCacheWrap();
   cache->multicastEnable(NatMcastCtxKey(NatMrouteKeyType::mrouteKeyTypeRoute, vlanId, sourceIp, groupIp));
   if (!groupIp.isZero()) {
      cache->multicastEnable(
         NatMcastCtxKey(NatMrouteKeyType::mrouteKeyTypeGroup, vlanId, Lumet::IpAddr(), groupIp));
   }
}

void NatMulticastAdapter::disableMulticast(Vor::U16 vlanId, Lumet::IpAddr sourceIp,
                                           Lumet::IpAddr groupIp) {
   auto cache = mcastInfoCacheWrap();
   cache->multicastDisable(
      NatMcastCtxKey(NatMrouteKeyType::mrouteKeyTypeRoute, vlanId, sourceIp, groupIp));
   if (!groupIp.isZero()) {
      cache->multicastDisable(
         NatMcastCtxKey(NatMrouteKeyType::mrouteKeyTypeGroup, vlanId, Lumet::IpAddr(), groupIp));
   }
}

void NatMulticastAdapter::handleMrouteResp() {
   VOR_TRACE(5, " handling responses for all mroutes");
   auto const map = mrouteResponseMap();
   if (!map) return;
   // A handler may change the map (an engine that reprograms may change
   // nothing here today, but the walk must not depend on it).
   std::vector<NatMrouteKey> keys;
   keys.reserve(map->mrouteResp().size());
   for (auto const& [key, oifs] : map->mrouteResp()) keys.push_back(key);
   for (auto const& key : keys) handleMrouteResp(key);
}

void NatMulticastAdapter::handleMrouteResp(NatMrouteKey const& key) {
   auto* const natSm = dynamic_cast<NatSm*>(natSm_);
   uloAssert(!!natSm && "Zero ptr is passed to NatMulticastAdapter");
   auto const engine = natSm->natIntfStatusSm(key.intfId);
   if (!engine) {
      VOR_TRACE(5, ": no natIntfStatusSm found for " << key.stringValue());
      return;
   }
   std::vector<NatMcastCtxKey> contextKeys{
      NatMcastCtxKey(NatMrouteKeyType::mrouteKeyTypeRoute, key.vlanId, key.sourceIp, key.groupIp)};
   if (!key.sourceIp.isZero() && !key.groupIp.isZero()) {
      // A rule that names the source alone follows every route of it.
      contextKeys.emplace_back(NatMrouteKeyType::mrouteKeyTypeRoute, key.vlanId, key.sourceIp,
                               Lumet::IpAddr());
   }
   auto const map = mrouteResponseMap();
   auto cache = mcastInfoCacheWrap();
   if (!map || !map->mrouteRespHas(key)) {
      for (auto const& contextKey : contextKeys) cache->unsetOifSet(contextKey);
      engine->updateMcastDelMroute(key);
      return;
   }
   NatMrouteOifSet const oifs = map->mrouteResp(key);
   for (auto const& contextKey : contextKeys) cache->setOifSet(contextKey, oifs);
   engine->updateMcastAddMroute(key, oifs);
}

} // namespace Ulo
