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
// Thread safety: none. A reactor, its notifier and its owner belong to one
// thread (the agent's scheduler thread); nothing here is locked and no
// reference count is touched from elsewhere.
//
// Re-entrancy: a handler may
//  - change any attribute, including the one being delivered; the nested
//    delivery completes before the mutator returns;
//  - re-point or drop any reactor, its own included. A reactor that learns
//    (through ReactorLife) that a handler destroyed it touches nothing of
//    itself afterwards and tells the delivery that called it, so that no
//    caller up the stack touches it either;
//  - add or delete members of a collection being delivered; the member
//    reactors follow the notifier's members after the handler returns.
// A handler must not destroy the owner machine of the reactor that calls it
// (the owner is a plain pointer); machines are dropped by their owners.
//
// Invariants:
//  1. A reactor is registered in the notifieeList() of its notifier exactly
//     while it is attached to it.
//  2. A reactor marked for deletion (vorMarkedForDeletion()) receives no
//     onAttribute() and performs no initial delivery.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <type_traits>
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
   // scalar handler runs in declaration order (see initialDelivery()). A
   // handler run here may destroy the reactor: a caller that uses the
   // reactor afterwards watches it with a ReactorLife.
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
   // handlers. Returns false when a handler it ran destroyed this reactor;
   // the reactor must then not be touched. The default has nothing to do.
   virtual bool initialDelivery() { return true; }

 private:
   friend class ReactorLife;
   Ptr<PtrInterface const> notifier_;
   // The innermost ReactorLife watching this reactor, or null.
   bool* deathFlag_ = nullptr;
   bool markedForDeletion_ = false;
   bool notificationActive_ = true;
};

// Watches a reactor across code that may destroy it (a handler, a
// re-pointing). Watches nest: when the reactor dies under an inner watch,
// every outer watch learns it too. Construct on the stack only.
//
//   ReactorLife life(*reactor);
//   reactor->notifierIs(n);
//   if (life.dead()) return;   // `reactor` is gone
class ReactorLife {
 public:
   explicit ReactorLife(PtrInterface::NotifieeConst& reactor)
       : reactor_(&reactor), outer_(reactor.deathFlag_) {
      reactor.deathFlag_ = &dead_;
   }
   ReactorLife(ReactorLife const&) = delete;
   ReactorLife& operator=(ReactorLife const&) = delete;
   ~ReactorLife() {
      if (dead_) {
         if (outer_) *outer_ = true;
      } else {
         reactor_->deathFlag_ = outer_;
      }
   }
   bool dead() const { return dead_; }

 private:
   PtrInterface::NotifieeConst* reactor_;
   bool* outer_;
   bool dead_ = false;
};


// ---------------------------------------------------------------------------
// The toolkit that makes each reactor of a state machine a line or two of
// bindings.
//
// A state machine declares, for each notifier it watches, which attribute
// calls which of its handlers; the toolkit supplies the reactor class, its
// slot and its factory:
//
//   class NatIntfStatusSm : public UloBaseSm {
//      ...
//      void handleVrfName();                                  // scalar
//      void handleStaticConnection(Ip::Nat::StaticKey const& key);  // member of a collection
//      void handleRule(RuleKey const& key);                   // per-member scalar
//      void doProcessBacklogStatic();                         // task run
//
//      // One reactor on the interface's configuration, one on each of its
//      // rules (keyed by the rule's key), one on the backlog task.
//      Vor::WatchMembers<RuleKey, Rule, NatIntfStatusSm,
//                        Vor::OnScalar<Rule::enabledId, &NatIntfStatusSm::handleRule>>
//         rule_{this};
//      Vor::Watch<Ip::Nat::IntfStatus, NatIntfStatusSm,
//                 Vor::OnScalar<Ip::Nat::IntfStatus::vrfNameId, &NatIntfStatusSm::handleVrfName>,
//                 Vor::OnKey<Ip::Nat::IntfStatus::staticConnectionId,
//                            &NatIntfStatusSm::handleStaticConnection>,
//                 Vor::OnMembers<Ip::Nat::IntfStatus::ruleId, nullptr, &NatIntfStatusSm::rule_,
//                                Vor::collection(&Ip::Nat::IntfStatus::rule)>>
//         intfStatus_{this};
//      Vor::Watch<Dov::Task, NatIntfStatusSm,
//                 Vor::OnEvent<Dov::Task::taskRunId, &NatIntfStatusSm::doProcessBacklogStatic>>
//         staticBacklogTask_{this};
//   };
//
//   // In the constructor, attach without running any handler; the rules'
//   // reactors are made for the rules present:
//   intfStatus_.attach(intfStatus);
//
// Kinds of binding:
//  - OnScalar<id, &O::h>: a scalar attribute. h runs on each change and, in
//    declaration order, at the end of a re-pointing (initial delivery). On
//    a member reactor (WatchMembers) h may take the member's key.
//  - OnEvent<id, &O::h>: like a scalar, but not replayed at re-pointing
//    (taskRun, time).
//  - OnKey<id, &O::h>: a collection attribute; h(key) gets the member's key.
//  - OnRepoint<&O::h>: h runs only at the end of a re-pointing, in
//    declaration order with the scalars.
//  - OnMembers<id, &O::h, &O::members_, Vor::collection(&N::x)>: a
//    collection whose members carry reactors of their own (members_, a
//    WatchMembers of the owner). h(key) runs first (nullptr for none), then
//    the member reactor is made, re-pointed or deleted after the member's
//    presence in x(); at re-pointing all member reactors are reconciled
//    with the new notifier. x() is the notifier's accessor of the whole
//    collection (a std::map or a Vor map of entity pointers).
//
// Handlers are bound at compile time (each binding is a function
// instantiated for its handler), so a delivery costs one indirect call.
//
// A state machine owns parts: reactor slots (ReactorSlot, Watch),
// collections of member reactors (MemberReactors, WatchMembers) and
// collections of child machines (ChildMachines). Each part registers with
// its owner when it is constructed, so the owner knows them in declaration
// order, which is the order in which hasNotificationActiveIs() and
// vorDoZombieReactors() go down.

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

namespace Impl {

// What a handler's member-function type says: its class and its key (void
// for a handler without argument).
template <typename H>
struct HandlerTraits;
template <typename C>
struct HandlerTraits<void (C::*)()> {
   using Key = void;
};
template <typename C, typename K>
struct HandlerTraits<void (C::*)(K const&)> {
   using Key = K;
};
template <typename C, typename K>
struct HandlerTraits<void (C::*)(K)> {
   using Key = K;
};

// The member of key `key` in collection `c` (a null pointer when absent),
// for std::map-like containers and the Vor maps alike.
template <typename C, typename K>
auto collectionMember(C const& c, K const& key) {
   if constexpr (std::is_pointer_v<decltype(c.find(key))>) {
      auto const* v = c.find(key);
      return v ? *v : std::remove_cvref_t<decltype(*v)>();
   } else {
      auto it = c.find(key);
      return it == c.end() ? std::remove_cvref_t<decltype(it->second)>() : it->second;
   }
}

// Calls visit(key, member) for each member of `c`.
template <typename C, typename Visit>
void collectionForEach(C const& c, Visit const& visit) {
   for (auto const& m : c) {
      if constexpr (requires { m.first; }) {
         visit(m.first, m.second);
      } else {
         visit(m.key(), m.value());
      }
   }
}

} // namespace Impl

// The accessor of a whole collection, picked out of its overload set (the
// keyed accessor x(key) has the same name): Vor::collection(&N::x).
template <typename N, typename C>
constexpr auto collection(C const& (N::*accessor)() const) {
   return accessor;
}

// A reactor of owner O on a notifier of type N, driven by a table of
// bindings from attribute ids to the owner's handlers. State machines use it
// through Watch and WatchMembers; tests and tools may subclass it.
template <typename N, typename O>
class Reactor : public PtrInterface::NotifieeConst {
 public:
   using Notifier = N;
   using Owner = O;

   struct Binding {
      enum class Kind : std::uint8_t { scalar, event, keyed };
      AttributeId id = noAttributeId;
      Kind kind = Kind::scalar;
      // The handler: `key` is the collection member's key (null for a
      // scalar), `memberKey` the key of the member this reactor watches
      // (null outside WatchMembers).
      void (*call)(O& o, void const* key, void const* memberKey, Binding const& self) = nullptr;
      // Member reactors of a collection: follow one key, or all of `n`.
      void (*reconcileOne)(O& o, N const& n, void const* key, Binding const& self) = nullptr;
      void (*reconcileAll)(O& o, N const& n, Binding const& self) = nullptr;
   };
   using Bindings = std::vector<Binding>;

   Reactor(O* owner, Bindings const& bindings) : owner_(owner), bindings_(&bindings) {}

   N const* notifier() const { return static_cast<N const*>(notifierBase().ptr()); }
   O* owner() const { return owner_; }
   void* actsm() const override { return owner_; }
   // The key of the member this reactor watches, handed to handlers that
   // take one. Set by MemberReactors; points into its own storage.
   void memberKeyIs(void const* key) { memberKey_ = key; }

   void onAttribute(AttributeId id, void const* key) override {
      // A handler may destroy this reactor (its owner drops it); the watch
      // tells us so that we do not touch it afterwards.
      ReactorLife life(*this);
      for (Binding const& b : *bindings_) {
         if (b.id != id) continue;
         if (!vorMarkedForDeletion() && b.call) {
            b.call(*owner_, key, memberKey_, b);
            if (life.dead()) return;
         }
         if (b.reconcileOne && key) {
            if (N const* n = notifier()) {
               b.reconcileOne(*owner_, *n, key, b);
               if (life.dead()) return;
            }
         }
      }
   }

   // Makes a member reactor for each member of the notifier that has none
   // and deletes those whose member is gone. Runs no handler: member
   // reactors attach without delivery.
   void reconcileMembers() {
      N const* n = notifier();
      if (!n) return;
      for (Binding const& b : *bindings_) {
         if (b.reconcileAll) b.reconcileAll(*owner_, *n, b);
      }
   }

   // ---- builders of bindings, handler bound at compile time ----
   template <auto Handler>
   static Binding onScalar(AttributeId id) {
      return compiled(id, Binding::Kind::scalar, &callScalar<Handler>);
   }
   template <auto Handler>
   static Binding onEvent(AttributeId id) {
      return compiled(id, Binding::Kind::event, &callScalar<Handler>);
   }
   template <auto Handler>
   static Binding onRepoint() {
      return compiled(noAttributeId, Binding::Kind::scalar, &callScalar<Handler>);
   }
   template <auto Handler>
   static Binding onKey(AttributeId id) {
      return compiled(id, Binding::Kind::keyed, &callKeyed<Handler>);
   }
   template <auto Handler, auto Members, auto Collection>
   static Binding onMembers(AttributeId id) {
      Binding b;
      if constexpr (std::is_null_pointer_v<decltype(Handler)>) {
         b.id = id;
         b.kind = Binding::Kind::keyed;
      } else {
         b = onKey<Handler>(id);
      }
      b.reconcileOne = &reconcileMember<Members, Collection>;
      b.reconcileAll = &reconcileAllMembers<Members, Collection>;
      return b;
   }

 protected:
   bool initialDelivery() override {
      N const* n = notifier();
      if (!n) return true;
      ReactorLife life(*this);
      for (Binding const& b : *bindings_) {
         if (b.reconcileAll) {
            b.reconcileAll(*owner_, *n, b);
            if (life.dead()) return false;
         }
      }
      if (!vorMarkedForDeletion()) {
         for (Binding const& b : *bindings_) {
            if (b.kind == Binding::Kind::scalar && b.call) {
               b.call(*owner_, nullptr, memberKey_, b);
               if (life.dead()) return false;
            }
         }
      }
      return true;
   }

 private:
   using CallFn = void (*)(O&, void const*, void const*, Binding const&);

   static Binding compiled(AttributeId id, typename Binding::Kind kind, CallFn call) {
      Binding b;
      b.id = id;
      b.kind = kind;
      b.call = call;
      return b;
   }
   // A scalar handler: without argument, or with the watched member's key.
   template <auto Handler>
   static void callScalar(O& o, void const*, void const* memberKey, Binding const&) {
      using Key = typename Impl::HandlerTraits<decltype(Handler)>::Key;
      if constexpr (std::is_void_v<Key>) {
         (o.*Handler)();
      } else {
         (o.*Handler)(*static_cast<Key const*>(memberKey));
      }
   }
   template <auto Handler>
   static void callKeyed(O& o, void const* key, void const*, Binding const&) {
      using Key = typename Impl::HandlerTraits<decltype(Handler)>::Key;
      static_assert(!std::is_void_v<Key>, "a keyed handler takes the member's key");
      (o.*Handler)(*static_cast<Key const*>(key));
   }
   template <auto Members, auto Collection>
   static void reconcileMember(O& o, N const& n, void const* key, Binding const&) {
      auto& members = o.*Members;
      using Key = typename std::remove_cvref_t<decltype(members)>::Key;
      Key const& k = *static_cast<Key const*>(key);
      auto member = Impl::collectionMember((n.*Collection)(), k);
      if (member) {
         members.xIs(k, member);
      } else {
         members.xDel(k);
      }
   }
   template <auto Members, auto Collection>
   static void reconcileAllMembers(O& o, N const& n, Binding const&) {
      auto& members = o.*Members;
      auto const& c = (n.*Collection)();
      members.reconcile([&](auto const& visit) { Impl::collectionForEach(c, visit); },
                        [&](auto const& k) { return static_cast<bool>(Impl::collectionMember(c, k)); });
   }

   O* owner_;
   Bindings const* bindings_;
   void const* memberKey_ = nullptr;
};

// Binding descriptors for Watch and WatchMembers (see the example above).
template <AttributeId Id, auto Handler>
struct OnScalar {
   template <typename R>
   static typename R::Binding binding() { return R::template onScalar<Handler>(Id); }
};
template <AttributeId Id, auto Handler>
struct OnEvent {
   template <typename R>
   static typename R::Binding binding() { return R::template onEvent<Handler>(Id); }
};
template <AttributeId Id, auto Handler>
struct OnKey {
   template <typename R>
   static typename R::Binding binding() { return R::template onKey<Handler>(Id); }
};
template <auto Handler>
struct OnRepoint {
   template <typename R>
   static typename R::Binding binding() { return R::template onRepoint<Handler>(); }
};
template <AttributeId Id, auto Handler, auto Members, auto Collection>
struct OnMembers {
   template <typename R>
   static typename R::Binding binding() { return R::template onMembers<Handler, Members, Collection>(Id); }
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
   // As notifierIs, and a newly made reactor also makes the member reactors
   // of the members `n` holds, still without running any handler: what a
   // constructor does, which runs no handler but watches every member.
   void attach(NotifierPtr const& n) {
      bool const fresh = !reactor_;
      notifierIs(n);
      if (fresh && reactor_) reactor_->reconcileMembers();
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
// tells apart). Each reactor is told its key (Reactor::memberKeyIs), which
// its handlers may take.
template <typename K, typename R, typename Compare = std::less<K>>
class MemberReactors : public OwnedPart {
 public:
   using Key = K;
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
   // Returns the reactor, or null when a handler of the re-pointing deleted
   // it.
   R* xIs(K const& key, NotifierPtr const& n) {
      auto it = reactors_.find(key);
      if (it == reactors_.end()) {
         auto r = make_(key);
         r->hasNotificationActiveIs(owner_->partsNotificationActive());
         r->vorDoZombieReactors(owner_->partsZombie());
         R* raw = r.get();
         it = reactors_.emplace(key, std::move(r)).first;
         // The map's node, and so its key, stays put while the member lives.
         raw->memberKeyIs(&it->first);
         raw->notifierIs(n);
         return raw;
      }
      R* raw = it->second.get();
      ReactorLife life(*raw);
      raw->notifierIs(n);
      return life.dead() ? nullptr : raw;
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

// The reactor of owner O on notifier N with the bindings Bs..., in its slot.
template <typename N, typename O, typename... Bs>
class Watch : public ReactorSlot<Reactor<N, O>> {
 public:
   using ReactorType = Reactor<N, O>;
   explicit Watch(O* owner)
       : ReactorSlot<ReactorType>(owner, [owner] { return std::make_unique<ReactorType>(owner, table()); }) {}
   static typename ReactorType::Bindings const& table() {
      static typename ReactorType::Bindings const bindings{Bs::template binding<ReactorType>()...};
      return bindings;
   }
};

// One reactor of owner O per member (key K, entity N) of a collection, with
// the bindings Bs..., ordered by Compare.
template <typename K, typename Compare, typename N, typename O, typename... Bs>
class WatchMembersBy : public MemberReactors<K, Reactor<N, O>, Compare> {
 public:
   using ReactorType = Reactor<N, O>;
   explicit WatchMembersBy(O* owner)
       : MemberReactors<K, ReactorType, Compare>(
            owner, [owner](K const&) { return std::make_unique<ReactorType>(owner, table()); }) {}
   static typename ReactorType::Bindings const& table() {
      static typename ReactorType::Bindings const bindings{Bs::template binding<ReactorType>()...};
      return bindings;
   }
};
template <typename K, typename N, typename O, typename... Bs>
using WatchMembers = WatchMembersBy<K, std::less<K>, N, O, Bs...>;

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
