#pragma once
// Reference-counted objects and their intrusive strong pointer.
//
// Vor::PtrInterface is the base of everything that is shared: entities, state
// machines, tasks, reactors' notifiers. It holds an intrusive count; when the
// count falls to zero the object is destroyed through the virtual
// handleZeroRef(), which by default deletes it.
//
// Thread safety: by default counts are plain (the library runs on one thread).
// A process that shares pointers across threads sets
// PtrInterface::threadSafePointers_ to true before it builds any object; from
// then on every count change is an atomic read-modify-write.
//
// Invariants:
//  1. references() is the number of live Ptr<> (and explicit newRef()) to the
//     object.
//  2. An object whose count reached zero is never touched again, except by
//     handleZeroRef() itself.

#include <atomic>
#include <cstddef>
#include <type_traits>
#include <cstdint>
#include <utility>
#include <vector>

namespace Vor {

using AttributeId = std::uint32_t;

template <typename T> class Ptr;
class ActivityConfig;

class PtrInterface {
 public:
   class NotifieeConst;
   using NotifieeList = std::vector<NotifieeConst*>;

   // Process-wide switch for atomic reference counting.
   static bool threadSafePointers_;

   PtrInterface() = default;
   PtrInterface(PtrInterface const&) : refs_(0) {}
   PtrInterface& operator=(PtrInterface const&) { return *this; }

   void newRef() const {
      if (threadSafePointers_) {
         refs_.fetch_add(1, std::memory_order_relaxed);
      } else {
         refs_.store(refs_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
      }
   }
   void deleteRef() const {
      std::uint32_t left;
      if (threadSafePointers_) {
         left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
      } else {
         left = refs_.load(std::memory_order_relaxed) - 1;
         refs_.store(left, std::memory_order_relaxed);
      }
      if (left == 0) {
         handleZeroRef();
      }
   }
   std::uint32_t references() const { return refs_.load(std::memory_order_relaxed); }

   // Switches delivery of this object's notifications on or off. State
   // machines override it to go down into everything they own.
   virtual void hasNotificationActiveIs(bool active) { notificationActive_ = active; }
   bool hasNotificationActive() const { return notificationActive_; }

   // The reactors attached to this object. A slot may be null while a
   // delivery is in progress: a reactor that detaches during delivery leaves
   // a hole that is swept when the outermost delivery ends.
   NotifieeList const& notifieeList() const { return notifiees_; }

   // Registration of reactors; called by NotifieeConst only.
   void notifieeAdd(NotifieeConst* n) const;
   void notifieeRemove(NotifieeConst* n) const;

 protected:
   virtual ~PtrInterface();
   // Called when the count reaches zero.
   virtual void handleZeroRef() const { delete this; }

   // Delivers a change of attribute `id` (member `key`, or null for a scalar)
   // to every attached reactor, in attachment order, synchronously.
   void notify(AttributeId id, void const* key = nullptr) const {
      if (notifiees_.empty() || !notificationActive_) return;
      notifySlow(id, key);
   }

 private:
   void notifySlow(AttributeId id, void const* key) const;

   mutable std::atomic<std::uint32_t> refs_{0};
   mutable NotifieeList notifiees_;
   mutable std::uint32_t deliveryDepth_ = 0;
   mutable bool notifieeHoles_ = false;
   bool notificationActive_ = true;
};

// Intrusive strong pointer. Null is an ordinary value.
template <typename T>
class Ptr {
 public:
   Ptr() = default;
   Ptr(std::nullptr_t) {}
   Ptr(T* p) : p_(p) { if (p_) p_->newRef(); }
   Ptr(Ptr const& o) : p_(o.p_) { if (p_) p_->newRef(); }
   Ptr(Ptr&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
   template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
   Ptr(Ptr<U> const& o) : p_(o.ptr()) { if (p_) p_->newRef(); }
   ~Ptr() { if (p_) p_->deleteRef(); }

   Ptr& operator=(Ptr const& o) {
      Ptr(o).swap(*this);
      return *this;
   }
   Ptr& operator=(Ptr&& o) noexcept {
      Ptr(std::move(o)).swap(*this);
      return *this;
   }
   Ptr& operator=(std::nullptr_t) {
      Ptr().swap(*this);
      return *this;
   }
   void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }
   // Forgets the object without dropping its reference. Only for an object
   // that is being destroyed by other means.
   void release() noexcept { p_ = nullptr; }

   T* ptr() const { return p_; }
   T* operator->() const { return p_; }
   T& operator*() const { return *p_; }
   explicit operator bool() const { return p_ != nullptr; }

   friend bool operator==(Ptr const& a, Ptr const& b) { return a.p_ == b.p_; }
   friend bool operator==(Ptr const& a, std::nullptr_t) { return a.p_ == nullptr; }
   template <typename U>
   friend bool operator==(Ptr const& a, Ptr<U> const& b) { return a.ptr() == b.ptr(); }

 private:
   T* p_ = nullptr;
};

template <typename T, typename U>
Ptr<T> ptr_cast(Ptr<U> const& p) {
   return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}
template <typename T, typename U>
Ptr<T> ptr_static_cast(Ptr<U> const& p) {
   return Ptr<T>(static_cast<T*>(p.ptr()));
}
template <typename T, typename U>
Ptr<T> ptr_const_cast(Ptr<U> const& p) {
   return Ptr<T>(const_cast<T*>(p.ptr()));
}

} // namespace Vor
