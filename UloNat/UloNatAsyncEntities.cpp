#include "UloNat/UloNatAsyncEntities.h"

#include "framework/UloAssert.h"

namespace Ulo {

namespace {

template <typename Map>
typename std::remove_reference_t<decltype(*std::declval<Map const&>().find(NatHwKey()))>
findMember(Map const& map, NatHwKey const& key) {
   auto const* member = map.find(key);
   return member ? *member : typename std::remove_reference_t<decltype(*member)>();
}

// Makes the member of `key` with `make` unless there is one; notifies on a
// new member. Returns the member.
template <typename Map, typename Make, typename Notify>
auto memberIs(Map& map, NatHwKey const& key, Make make, Notify notify) {
   if (auto const* member = map.find(key)) return *member;
   auto made = make(key);
   map.insert(key, made);
   notify(key);
   return made;
}

// Removes the member of `key`, keeping it alive through the notification.
template <typename Map, typename Notify>
void memberDel(Map& map, NatHwKey const& key, Notify notify) {
   NatHwKey const k = key;
   auto const* member = map.find(k);
   if (!member) return;
   auto const gone = *member;
   map.erase(k);
   notify(k);
}

template <typename Map, typename Del>
void memberDelAll(Map& map, Del del) {
   while (!map.empty()) {
      NatHwKey const key = map.begin().key();
      del(key);
   }
}

} // namespace

// ---- NatRequestQueue ----

char const* NatRequestQueue::opTypeName(OpType type) {
   switch (type) {
      case unknown: return "unknown";
      case idle: return "idle";
      case add: return "add";
      case update: return "update";
      case del: return "del";
   }
   return "invalid";
}

std::string NatRequestQueue::Request::stringValue() const {
   return std::string("Value('Ulo::NatRequestQueue::Request', ** {'type': ") + opTypeName(type_) +
          ", 'data': " + data_.genericText() + "})";
}

NatRequestQueue::NatRequestQueue(NatHwKey const& key) : Vor::Entity("natRequestQueue"), key_(key) {}

void NatRequestQueue::pendingEnq(Request const& request) {
   U32 const index = metadata_.tail++;
   pending_.emplace(index, request);
   memberChanged(pendingId, index);
}

NatRequestQueue::Request NatRequestQueue::pendingDeq() {
   if (pending_.empty()) return Request();
   U32 const index = metadata_.head;
   auto it = pending_.find(index);
   uloAssert(it != pending_.end());
   Request const request = it->second;
   pending_.erase(it);
   ++metadata_.head;
   ++dequeued_;
   memberChanged(pendingId, index);
   return request;
}

NatRequestQueue::Request NatRequestQueue::pending(U32 index) const {
   auto it = pending_.find(index);
   return it == pending_.end() ? Request() : it->second;
}

// ---- NatRequestQueueDir ----

Vor::Ptr<NatRequestQueue> NatRequestQueueDir::requestQ(NatHwKey const& key) const {
   return findMember(requestQ_, key);
}

Vor::Ptr<NatRequestQueue> NatRequestQueueDir::requestQIs(NatHwKey const& key) {
   return memberIs(requestQ_, key, natRequestQueueFactory,
                   [this](NatHwKey const& k) { memberChanged(requestQId, k); });
}

void NatRequestQueueDir::requestQDel(NatHwKey const& key) {
   memberDel(requestQ_, key, [this](NatHwKey const& k) { memberChanged(requestQId, k); });
}

// ---- NatAsyncHwConfigDir ----

Vor::Ptr<NatAsyncHwConfig> NatAsyncHwConfigDir::config(NatHwKey const& key) const {
   return findMember(config_, key);
}

Vor::Ptr<NatAsyncHwConfig> NatAsyncHwConfigDir::configIs(NatHwKey const& key) {
   return memberIs(config_, key, natAsyncHwConfigFactory,
                   [this](NatHwKey const& k) { memberChanged(configId, k); });
}

void NatAsyncHwConfigDir::configDel(NatHwKey const& key) {
   memberDel(config_, key, [this](NatHwKey const& k) { memberChanged(configId, k); });
}

void NatAsyncHwConfigDir::configDelAll() {
   memberDelAll(config_, [this](NatHwKey const& k) { configDel(k); });
}

// ---- NatAsyncHwStatus ----

char const* NatAsyncHwStatus::stateName(State state) {
   switch (state) {
      case unknown: return "unknown";
      case idle: return "idle";
      case inProgress: return "inProgress";
      case success: return "success";
      case failed: return "failed";
      case forceAdd: return "forceAdd";
   }
   return "invalid";
}

Vor::Ptr<NatAsyncHwStatus> NatAsyncHwStatusDir::status(NatHwKey const& key) const {
   return findMember(status_, key);
}

Vor::Ptr<NatAsyncHwStatus> NatAsyncHwStatusDir::statusIs(NatHwKey const& key) {
   return memberIs(status_, key, natAsyncHwStatusFactory,
                   [this](NatHwKey const& k) { memberChanged(statusId, k); });
}

void NatAsyncHwStatusDir::statusDel(NatHwKey const& key) {
   memberDel(status_, key, [this](NatHwKey const& k) { memberChanged(statusId, k); });
}

void NatAsyncHwStatusDir::statusDelAll() {
   memberDelAll(status_, [this](NatHwKey const& k) { statusDel(k); });
}

// ---- NatFailedHwKeyStatus ----

void NatFailedHwKeyStatus::entryIs(NatHwKey const& key) {
   if (entry_.insert(key)) memberChanged(entryId, key);
}

void NatFailedHwKeyStatus::entryDel(NatHwKey const& key) {
   NatHwKey const k = key;
   if (entry_.erase(k)) memberChanged(entryId, k);
}

void NatFailedHwKeyStatus::entryDelAll() {
   while (!entry_.empty()) {
      NatHwKey const key = entry_.begin().key();
      entryDel(key);
   }
}

// ---- NatHwShadow ----

NatHwShadowStore::~NatHwShadowStore() = default;

NatHwShadowEntry NatHwShadowMemoryStore::get(NatHwKey const& key) const {
   NatHwShadowEntry const* entry = entries_.find(key);
   uloAssert(entry);
   return *entry;
}

bool NatHwShadowMemoryStore::put(NatHwShadowEntry const& entry) {
   if (NatHwShadowEntry* present = entries_.find(entry.key())) {
      if (*present == entry) return false;
      *present = entry;
      return true;
   }
   entries_.insert(entry.key(), entry);
   return true;
}

void NatHwShadowMemoryStore::forEach(std::function<bool(NatHwShadowEntry const&)> const& visit) const {
   for (auto const& member : entries_) {
      if (!visit(member.value())) return;
   }
}

NatHwShadow::NatHwShadow(Vor::String name, std::unique_ptr<NatHwShadowStore> store)
    : Vor::Entity(std::move(name)),
      store_(store ? std::move(store) : std::make_unique<NatHwShadowMemoryStore>()) {}

NatHwShadowEntry NatHwShadow::entry(NatHwKey const& key) const {
   return store_->has(key) ? store_->get(key) : NatHwShadowEntry();
}

void NatHwShadow::entryIs(NatHwShadowEntry const& shadowEntry) {
   uloAssert(!!shadowEntry.key());
   NatHwKey const key = shadowEntry.key();
   if (store_->put(shadowEntry)) memberChanged(entryId, key);
}

void NatHwShadow::entryDel(NatHwKey const& key) {
   NatHwKey const k = key;
   if (store_->erase(k)) memberChanged(entryId, k);
}

void NatHwShadow::storeIs(std::unique_ptr<NatHwShadowStore> store) {
   if (!store) return;
   store_->forEach([&](NatHwShadowEntry const& entry) {
      store->put(entry);
      return true;
   });
   store_ = std::move(store);
}

// ---- factories ----

namespace {
template <typename T, typename... Args>
Vor::Ptr<T> activeEntity(Args&&... args) {
   Vor::Ptr<T> entity(new T(std::forward<Args>(args)...));
   entity->hasNotificationActiveIs(true);
   return entity;
}
} // namespace

Vor::Ptr<NatRequestQueue> natRequestQueueFactory(NatHwKey const& key) { return activeEntity<NatRequestQueue>(key); }
Vor::Ptr<NatRequestQueueDir> natRequestQueueDirFactory() { return activeEntity<NatRequestQueueDir>(); }
Vor::Ptr<NatAsyncHwConfig> natAsyncHwConfigFactory(NatHwKey const& key) { return activeEntity<NatAsyncHwConfig>(key); }
Vor::Ptr<NatAsyncHwConfigDir> natAsyncHwConfigDirFactory() { return activeEntity<NatAsyncHwConfigDir>(); }
Vor::Ptr<NatAsyncHwStatus> natAsyncHwStatusFactory(NatHwKey const& key) { return activeEntity<NatAsyncHwStatus>(key); }
Vor::Ptr<NatAsyncHwStatusDir> natAsyncHwStatusDirFactory() { return activeEntity<NatAsyncHwStatusDir>(); }
Vor::Ptr<NatFailedHwKeyStatus> natFailedHwKeyStatusFactory(Vor::String name) {
   return activeEntity<NatFailedHwKeyStatus>(std::move(name));
}
Vor::Ptr<NatHwShadow> natHwShadowFactory(Vor::String name) { return activeEntity<NatHwShadow>(std::move(name)); }

} // namespace Ulo
