#include "UloNat/UloNatAsyncEntities.h"

#include "framework/UloAssert.h"
#include "framework/VorEntityCollections.h"

namespace Ulo {

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

// ---- NatHwShadow ----

class NatHwShadow::NatHwShadowZeroReferencesNotifiee : public Vor::PtrInterface::NotifieeConst {
 public:
   explicit NatHwShadowZeroReferencesNotifiee(NatHwShadow* shadow) : shadow_(shadow) {}
   void onZeroReferences() override {
      NatHwShadow* const shadow = shadow_;
      Vor::Ptr<VorZaffa::CollectionControl> control = shadow->entry_.controlRelease();
      control->entityRefIs(Vor::Ptr<Vor::PtrInterface const>(shadow));
      // Dropping `control` may destroy it, and with it the shadow and this
      // notifiee: nothing below may touch either.
   }

 private:
   NatHwShadow* shadow_;
};

NatHwShadow::NatHwShadow(Vor::String name)
    : Vor::Entity(std::move(name)),
      zeroReferencesNotifiee_(std::make_unique<NatHwShadowZeroReferencesNotifiee>(this)) {
   // Registered without a strong reference: it must not keep the entity up.
   notifieeAdd(zeroReferencesNotifiee_.get());
   entry_.entity("entry", this, &NatHwShadow::entryNotify, &NatHwShadow::entryNotifyQuiesced,
                 &NatHwShadow::entryNotifyMountStatus);
}

NatHwShadow::~NatHwShadow() { notifieeRemove(zeroReferencesNotifiee_.get()); }

void NatHwShadow::handleZeroRef() const {
   if (entry_.control()) {
      zeroReferencesNotifiee_->onZeroReferences();
      return;
   }
   delete this;
}

bool NatHwShadow::entryHas(NatHwKey const& key) const {
   NatHwShadowEntry value;
   return entry_.map().lookup(key, value);
}

NatHwShadowEntry NatHwShadow::entry(NatHwKey const& key) const {
   NatHwShadowEntry value;
   return entry_.map().lookup(key, value) ? value : NatHwShadowEntry();
}

void NatHwShadow::notifyEntry(NatHwKey const& key) {
   memberChanged(entryId, key);
   entryNotifyCounter_.inc();
}

void NatHwShadow::entryIs(NatHwShadowEntry const& shadowEntry) {
   uloAssert(!!shadowEntry.key());
   entryIsCounter_.inc();
   NatHwKey const key = shadowEntry.key();
   NatHwShadowEntry present;
   if (entry_.map().lookup(key, present) && present == shadowEntry) return;
   entry_.map().safeWrite(shadowEntry, true);
   notifyEntry(key);
}

void NatHwShadow::entryDel(NatHwKey const& key) {
   entryDelCounter_.inc();
   NatHwKey const k = key;
   NatHwShadowEntry old;
   if (entry_.map().safeRemove(k, old)) notifyEntry(k);
}

void NatHwShadow::entryDelAll() {
   NatHwShadowEntry first;
   while (entry_.map().first(first)) entryDel(first.key());
}

NatHwShadowEntry* NatHwShadow::entryDirectWrite(NatHwKey const& key) {
   uloAssert(!!key);
   return entry_.map().directWrite(key);
}

void NatHwShadow::entryCommit(NatHwShadowEntry const* shadowEntry) {
   uloAssert(shadowEntry);
   entryIsCounter_.inc();
   NatHwShadowEntry const* stored = entry_.map().directCommit();
   notifyEntry(stored->key());
}

void NatHwShadow::entryForEach(std::function<bool(NatHwShadowEntry const&)> const& visit) const {
   NatHwShadowEntry value;
   bool more = entry_.map().first(value);
   while (more) {
      if (!visit(value)) return;
      NatHwKey const key = value.key();
      more = entry_.map().next(key, value);
   }
}

void NatHwShadow::entryNotify(NatHwKey const& key) { notifyEntry(key); }

void NatHwShadow::entryNotifyMountStatus() {
   if (entry_.control()) entry_.control()->mountStatusIs(entry_.map().mountStatus());
}

void NatHwShadow::entryNotifyQuiesced(bool quiesced) {
   if (entry_.control()) entry_.control()->quiescedIs(quiesced);
}

Vor::U64 NatHwShadow::counter(std::string const& name) const {
   for (VorZaffa::NamedCounter const* c : {&entryIsCounter_, &entryDelCounter_, &entryNotifyCounter_}) {
      if (c->name() == name) return c->value();
   }
   return 0;
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
Vor::Ptr<NatHwShadow> natHwShadowFactory(Vor::String name, Zaffa::MapDescriptor const& descriptor) {
   Vor::Ptr<NatHwShadow> shadow = activeEntity<NatHwShadow>(std::move(name));
   shadow->entryControl()->initIs(descriptor);
   return shadow;
}

} // namespace Ulo
