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
   void notifierGone() { notifier_ = Ptr<PtrInterface const>(); }

 protected:
   // Hook of notifierIs(): reconcile member reactors, then run the scalar
   // handlers. The default has nothing to deliver.
   virtual void initialDelivery() {}

 private:
   Ptr<PtrInterface const> notifier_;
   bool markedForDeletion_ = false;
   bool notificationActive_ = true;
};

} // namespace Vor
