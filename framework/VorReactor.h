#pragma once
// Reactors: small objects bound to one notifier and to the state machine that
// owns them, which turn attribute changes of the notifier into calls of the
// owner's handlers.
//
// Delivery is synchronous: a mutator of an entity calls onAttribute() of each
// attached reactor before it returns, in the order of the changes, on the
// caller's thread. A handler may change attributes (its own notifier's too);
// those changes are delivered at once, nested.
//
// Invariants:
//  1. A reactor is registered in the notifieeList() of its notifier exactly
//     while it is attached to it.
//  2. A reactor marked for deletion (vorMarkedForDeletion()) receives no
//     onAttribute() and performs no initial delivery.

#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "framework/VorPtr.h"

namespace Vor {

class ActivityConfig {};

class PtrInterface::NotifieeConst {
 public:
   NotifieeConst() = default;
   NotifieeConst(NotifieeConst const&) = delete;
   NotifieeConst& operator=(NotifieeConst const&) = delete;
   virtual ~NotifieeConst();

   // The virtual operations in slot order.
   virtual void handleNotification(ActivityConfig*) {}
   virtual void onZeroReferences() {}
   virtual void onAttribute(AttributeId, void const* /*key*/) {}
   virtual bool vorFwkActivity() const { return false; }
   virtual void* actsm() const { return nullptr; }
   // Attaches to `n`. When `n` differs from the present notifier and the
   // reactor was attached before, it performs the initial delivery: member
   // reactors are reconciled with `n`, then, unless marked for deletion, each
   // scalar handler runs in declaration order (see initialDelivery()).
   virtual void notifierIs(Ptr<PtrInterface const> const& n);
   virtual void vorDoZombieReactors(bool zombie) { markedForDeletion_ = zombie; }

   Ptr<PtrInterface const> const& notifierBase() const { return notifier_; }
   bool vorMarkedForDeletion() const { return markedForDeletion_; }
   bool notificationActive() const { return notificationActive_; }
   void hasNotificationActiveIs(bool active) { notificationActive_ = active; }

   // Called by a notifier that is being destroyed while this reactor is still
   // registered (only possible for notifiers not held by Ptr).
   void notifierGone() { notifier_.release(); }

 protected:
   // Hook of notifierIs(): reconcile member reactors, then run the scalar
   // handlers. The default has nothing to deliver.
   virtual void initialDelivery() {}

 private:
   Ptr<PtrInterface const> notifier_;
   bool markedForDeletion_ = false;
   bool notificationActive_ = true;
};


// ---------------------------------------------------------------------------
// The toolkit that makes each VorX reactor of a state machine a few
// declarative lines.
//
// A state machine owns parts: reactors on scalar attributes (ReactorSlot),
// collections of member reactors (MemberReactors) and collections of child
// machines (ChildMachines). Each part registers with its owner when it is
// constructed, so the owner knows them in declaration order, which is the
// order in which hasNotificationActiveIs() and vorDoZombieReactors() go down.

// Attribute ids start at 1; 0 names no attribute.
constexpr AttributeId noAttributeId = 0;

class OwnedPart {
 public:
   virtual ~OwnedPart() = default;
   virtual void partNotificationActiveIs(bool active) = 0;
   virtual void partZombieIs(bool zombie) = 0;
};

class PartOwner {
 public:
   void partIs(OwnedPart* part) { parts_.push_back(part); }
   void partDel(OwnedPart* part) { std::erase(parts_, part); }
   bool partsNotificationActive() const { return partsActive_; }
   bool partsZombie() const { return partsZombie_; }

 protected:
   void partsNotificationActiveIs(bool active) {
      partsActive_ = active;
      for (OwnedPart* p : std::vector<OwnedPart*>(parts_)) p->partNotificationActiveIs(active);
   }
   void partsZombieIs(bool zombie) {
      partsZombie_ = zombie;
      for (OwnedPart* p : std::vector<OwnedPart*>(parts_)) p->partZombieIs(zombie);
   }

 private:
   std::vector<OwnedPart*> parts_;
   bool partsActive_ = true;
   bool partsZombie_ = false;
};

// A reactor of owner O on a notifier of type N, driven by a table of
// bindings from attribute ids to the owner's handlers:
//
//   struct VorIntfStatus : Vor::Reactor<Ip::Nat::IntfStatus, NatIntfStatusSm> {
//      static Bindings const& table() {
//         static Bindings const b{
//            onScalar(IntfStatus::vrfNameId, &NatIntfStatusSm::handleVrfName),
//            onKey<StaticKey>(IntfStatus::staticConnectionId,
//                             &NatIntfStatusSm::handleStaticConnection)};
//         return b;
//      }
//      explicit VorIntfStatus(NatIntfStatusSm* sm) : Reactor(sm, table()) {}
//   };
//
// Kinds of binding:
//  - onScalar: a scalar attribute. Its handler runs on each change and, in
//    declaration order, at the end of a re-pointing (initial delivery).
//  - onEvent: like a scalar, but not replayed at re-pointing (taskRun, time).
//  - onKey: a collection attribute; the handler gets the member's key.
//  - onMembers: a collection whose members carry reactors of their own: the
//    handler runs first, then the member reactor is made, re-pointed or
//    deleted after the member's presence in the notifier; at re-pointing
//    all member reactors are reconciled with the new notifier.
template <typename N, typename O>
class Reactor : public PtrInterface::NotifieeConst {
 public:
   using Notifier = N;
   using Owner = O;

   struct Binding {
      enum class Kind { scalar, event, keyed };
      AttributeId id = 0;
      Kind kind = Kind::scalar;
      // The handler. Member-function handlers, the common case, are called
      // through a plain function pointer (`thunk`) with the member pointer
      // kept in `member`; a std::function serves lambdas. Delivery is on
      // the hot path of every attribute change, so it avoids the
      // std::function call where it can.
      void (*thunk)(O&, void const*, Binding const&) = nullptr;
      void (O::*member)() = nullptr;
      std::function<void(O&, void const*)> handler;
      std::function<void(O&, N const&, void const*)> reconcileOne;
      std::function<void(O&, N const&)> reconcileAll;

      bool hasHandler() const { return thunk || handler; }
      void call(O& o, void const* key) const {
         if (thunk) {
            thunk(o, key, *this);
         } else {
            handler(o, key);
         }
      }
   };
   using Bindings = std::vector<Binding>;

   Reactor(O* owner, Bindings const& bindings) : owner_(owner), bindings_(&bindings) {}
   ~Reactor() override {
      if (deathFlag_) *deathFlag_ = true;
   }

   N const* notifier() const { return static_cast<N const*>(notifierBase().ptr()); }
   O* owner() const { return owner_; }
   void* actsm() const override { return owner_; }

   void onAttribute(AttributeId id, void const* key) override {
      // A handler may destroy this reactor (its owner drops it); the flag
      // tells us so that we do not touch it afterwards.
      bool dead = false;
      bool* const outer = deathFlag_;
      deathFlag_ = &dead;
      for (Binding const& b : *bindings_) {
         if (b.id != id) continue;
         if (!vorMarkedForDeletion() && b.hasHandler()) {
            b.call(*owner_, key);
            if (dead) {
               if (outer) *outer = true;
               return;
            }
         }
         if (b.reconcileOne && key) {
            if (N const* n = notifier()) {
               b.reconcileOne(*owner_, *n, key);
               if (dead) {
                  if (outer) *outer = true;
                  return;
               }
            }
         }
      }
      deathFlag_ = outer;
   }

   // Builders of bindings.
   static Binding onScalar(AttributeId id, void (O::*handler)()) {
      return memberBinding(id, Binding::Kind::scalar, handler);
   }
   static Binding onScalar(AttributeId id, std::function<void(O&)> f) {
      Binding b = blank(id, Binding::Kind::scalar);
      b.handler = [f](O& o, void const*) { f(o); };
      return b;
   }
   static Binding onEvent(AttributeId id, void (O::*handler)()) {
      return memberBinding(id, Binding::Kind::event, handler);
   }
   static Binding onEvent(AttributeId id, std::function<void(O&)> f) {
      Binding b = blank(id, Binding::Kind::event);
      b.handler = [f](O& o, void const*) { f(o); };
      return b;
   }
   // A handler that runs only at the end of a re-pointing, in declaration
   // order with the scalars (no attribute of the notifier triggers it).
   static Binding onRepoint(void (O::*handler)()) {
      return memberBinding(noAttributeId, Binding::Kind::scalar, handler);
   }
   template <typename K>
   static Binding onKey(AttributeId id, void (O::*handler)(K const&)) {
      Binding b = blank(id, Binding::Kind::keyed);
      // The keyed member pointer is kept in the bytes of `member` (all
      // member-function pointers of one class have one size); the thunk
      // copies it back out with its real type before the call.
      using Keyed = void (O::*)(K const&);
      static_assert(sizeof(Keyed) == sizeof(b.member));
      std::memcpy(static_cast<void*>(&b.member), &handler, sizeof(Keyed));
      b.thunk = [](O& o, void const* key, Binding const& self) {
         Keyed h;
         std::memcpy(&h, static_cast<void const*>(&self.member), sizeof(Keyed));
         (o.*h)(*static_cast<K const*>(key));
      };
      return b;
   }
   template <typename K>
   static Binding onKey(AttributeId id, std::function<void(O&, K const&)> f) {
      Binding b = blank(id, Binding::Kind::keyed);
      b.handler = [f](O& o, void const* key) { f(o, *static_cast<K const*>(key)); };
      return b;
   }
   // `reactors` is the owner's MemberReactors for this collection; `lookup`
   // yields the notifier's member for a key (null when absent) and `forEach`
   // walks the notifier's members.
   template <typename K, typename MemberReactorsT, typename Lookup, typename ForEach>
   static Binding onMembers(AttributeId id, void (O::*handler)(K const&),
                            MemberReactorsT O::*reactors, Lookup lookup, ForEach forEach) {
      Binding b = handler ? onKey<K>(id, handler) : blank(id, Binding::Kind::keyed);
      b.reconcileOne = [reactors, lookup](O& o, N const& n, void const* key) {
         K const& k = *static_cast<K const*>(key);
         auto member = lookup(n, k);
         if (member) {
            (o.*reactors).xIs(k, member);
         } else {
            (o.*reactors).xDel(k);
         }
      };
      b.reconcileAll = [reactors, lookup, forEach](O& o, N const& n) {
         (o.*reactors).reconcile(
            [&](auto const& visit) { forEach(n, visit); },
            [&](K const& k) { return static_cast<bool>(lookup(n, k)); });
      };
      return b;
   }

 protected:
   static Binding blank(AttributeId id, typename Binding::Kind kind) {
      Binding b;
      b.id = id;
      b.kind = kind;
      return b;
   }
   static Binding memberBinding(AttributeId id, typename Binding::Kind kind, void (O::*handler)()) {
      Binding b = blank(id, kind);
      b.member = handler;
      b.thunk = [](O& o, void const*, Binding const& self) { (o.*(self.member))(); };
      return b;
   }

   void initialDelivery() override {
      N const* n = notifier();
      if (!n) return;
      bool dead = false;
      bool* const outer = deathFlag_;
      deathFlag_ = &dead;
      for (Binding const& b : *bindings_) {
         if (b.reconcileAll) {
            b.reconcileAll(*owner_, *n);
            if (dead) return;
         }
      }
      if (!vorMarkedForDeletion()) {
         for (Binding const& b : *bindings_) {
            if (b.kind == Binding::Kind::scalar && b.hasHandler()) {
               b.call(*owner_, nullptr);
               if (dead) return;
            }
         }
      }
      deathFlag_ = outer;
   }

 private:
   O* owner_;
   Bindings const* bindings_;
   bool* deathFlag_ = nullptr;
};

// A state machine's reactor on one scalar attribute: implements the setter
// of a reactor-watched attribute.
//   1. The present notifier again: nothing happens.
//   2. Null: the reactor is deleted.
//   3. No reactor yet: one is made and attached without delivery.
//   4. Another notifier: the reactor is re-pointed (notifierIs), which
//      delivers as Reactor::initialDelivery describes.
template <typename R>
class ReactorSlot : public OwnedPart {
 public:
   using NotifierPtr = Ptr<typename R::Notifier const>;
   ReactorSlot(PartOwner* owner, std::function<std::unique_ptr<R>()> make)
       : owner_(owner), make_(std::move(make)) {
      owner_->partIs(this);
   }
   ~ReactorSlot() override { owner_->partDel(this); }

   void notifierIs(NotifierPtr const& n) {
      if (reactor_ && reactor_->notifierBase() == n) return;
      if (!n) {
         reactor_.reset();
         return;
      }
      if (!reactor_) {
         reactor_ = make_();
         reactor_->hasNotificationActiveIs(owner_->partsNotificationActive());
         reactor_->vorDoZombieReactors(owner_->partsZombie());
         reactor_->notifierIs(n);
         return;
      }
      reactor_->notifierIs(n);
   }
   R* reactor() const { return reactor_.get(); }
   NotifierPtr notifier() const {
      return reactor_ ? NotifierPtr(reactor_->notifier()) : NotifierPtr();
   }

   void partNotificationActiveIs(bool active) override {
      if (reactor_) reactor_->hasNotificationActiveIs(active);
   }
   void partZombieIs(bool zombie) override {
      if (reactor_) reactor_->vorDoZombieReactors(zombie);
   }

 private:
   PartOwner* owner_;
   std::function<std::unique_ptr<R>()> make_;
   std::unique_ptr<R> reactor_;
};

// A state machine's reactors on the members of a collection, one per key,
// ordered by `Compare` (which must tell apart every two keys the collection
// tells apart).
template <typename K, typename R, typename Compare = std::less<K>>
class MemberReactors : public OwnedPart {
 public:
   using NotifierPtr = Ptr<typename R::Notifier const>;
   MemberReactors(PartOwner* owner, std::function<std::unique_ptr<R>(K const&)> make)
       : owner_(owner), make_(std::move(make)) {
      owner_->partIs(this);
   }
   ~MemberReactors() override { owner_->partDel(this); }

   R* find(K const& key) const {
      auto it = reactors_.find(key);
      return it == reactors_.end() ? nullptr : it->second.get();
   }
   std::size_t size() const { return reactors_.size(); }

   // Makes the member's reactor (attached without delivery) or re-points it.
   R* xIs(K const& key, NotifierPtr const& n) {
      auto it = reactors_.find(key);
      if (it == reactors_.end()) {
         auto r = make_(key);
         r->hasNotificationActiveIs(owner_->partsNotificationActive());
         r->vorDoZombieReactors(owner_->partsZombie());
         R* raw = r.get();
         reactors_.emplace(key, std::move(r));
         raw->notifierIs(n);
         return raw;
      }
      it->second->notifierIs(n);
      return it->second.get();
   }
   void xDel(K const& key) { reactors_.erase(key); }
   void xDelAll() { reactors_.clear(); }

   // Makes a reactor for each member that has none, then deletes each
   // reactor whose key is no longer a member.
   template <typename ForEach, typename Has>
   void reconcile(ForEach forEach, Has has) {
      forEach([&](K const& key, NotifierPtr const& member) {
         if (!reactors_.count(key)) xIs(key, member);
      });
      for (auto it = reactors_.begin(); it != reactors_.end();) {
         if (!has(it->first)) {
            it = reactors_.erase(it);
         } else {
            ++it;
         }
      }
   }

   void partNotificationActiveIs(bool active) override {
      for (auto& [k, r] : reactors_) r->hasNotificationActiveIs(active);
   }
   void partZombieIs(bool zombie) override {
      for (auto& [k, r] : reactors_) r->vorDoZombieReactors(zombie);
   }

 private:
   PartOwner* owner_;
   std::function<std::unique_ptr<R>(K const&)> make_;
   std::map<K, std::unique_ptr<R>, Compare> reactors_;
};

// A state machine's collection of child machines (any PtrInterface with
// hasNotificationActiveIs and vorDoZombieReactors), keyed by K. A child's
// notifications are switched off before it leaves the collection.
template <typename K, typename T>
class ChildMachines : public OwnedPart {
 public:
   explicit ChildMachines(PartOwner* owner) : owner_(owner) { owner_->partIs(this); }
   ~ChildMachines() override { owner_->partDel(this); }

   Ptr<T> find(K const& key) const {
      auto it = children_.find(key);
      return it == children_.end() ? Ptr<T>() : it->second;
   }
   bool contains(K const& key) const { return children_.count(key) != 0; }
   std::size_t size() const { return children_.size(); }
   bool empty() const { return children_.empty(); }

   void xIs(K const& key, Ptr<T> const& child) { children_[key] = child; }
   void xDel(K const& key) {
      auto it = children_.find(key);
      if (it == children_.end()) return;
      Ptr<T> child = it->second;
      if (child) child->hasNotificationActiveIs(false);
      children_.erase(it);
   }
   void xDelAll() {
      while (!children_.empty()) xDel(children_.begin()->first);
   }
   // Ordered by key; copying the keys first lets the visitor change the set.
   std::vector<K> keys() const {
      std::vector<K> out;
      out.reserve(children_.size());
      for (auto const& [k, c] : children_) out.push_back(k);
      return out;
   }
   std::map<K, Ptr<T>> const& members() const { return children_; }

   void partNotificationActiveIs(bool active) override {
      for (auto& [k, c] : children_) if (c) c->hasNotificationActiveIs(active);
   }
   void partZombieIs(bool zombie) override {
      for (auto& [k, c] : children_) if (c) c->vorDoZombieReactors(zombie);
   }

 private:
   PartOwner* owner_;
   std::map<K, Ptr<T>> children_;
};

} // namespace Vor
