#pragma once
// UnprogrammedBook: an interface engine's half of the unprogrammed
// bookkeeping, by kind of entry (NatType).
//
// What hardware refused is remembered per interface in the shared
// Ulo::NatUnprogrammedEntries record of Ulo::NatSmStatus, in one set per kind:
//   staticNat  -> staticEntries  (Ip::Nat::StaticKey)
//   twiceNat   -> twiceEntries   (Ulo::TwiceNatKey)
//   dynamicNat -> dynamicEntries (Lumet::ConnTuple)
//   trapAclNat -> trapAcls       (Ip::Nat::DynamicKey)
// The book makes the record with the first key, raises the table-full state
// (and its message NAT_HW_RESOURCE_FULL) on the first refusal of the system,
// kicks the root's review, drops the record with its last key and, when no
// interface has anything left, lowers the table-full state again
// (NAT_HW_RESOURCE_NORMAL). Removing what was programmed before a key is
// remembered is the caller's business (its kind's delete path), so that a
// key in a set has no hardware or watched-address residue.
//
// Thread safety: none needed; the engine runs on the agent's one thread.
//
// Invariants:
//  1. The record of the interface exists exactly while one of its sets holds
//     a key (kept by checkUnprogrammedEntries after every removal).
//  2. "ue": a record can always be made.

#include "UloNat/UloNatTypes.h"

namespace Ulo {

// The set of NatUnprogrammedEntries that holds one kind of key: its key type
// and its three accessors.
template <class K, bool (NatUnprogrammedEntries::*hasFn)(K const&) const,
          void (NatUnprogrammedEntries::*isFn)(K const&),
          void (NatUnprogrammedEntries::*delFn)(K const&)>
struct UnprogrammedSet {
   using Key = K;
   static bool has(NatUnprogrammedEntries const& ue, Key const& k) { return (ue.*hasFn)(k); }
   static void is(NatUnprogrammedEntries& ue, Key const& k) { (ue.*isFn)(k); }
   static void del(NatUnprogrammedEntries& ue, Key const& k) { (ue.*delFn)(k); }
};

template <NatType type>
struct UnprogrammedKind;
template <>
struct UnprogrammedKind<NatType::staticNat>
    : UnprogrammedSet<Ip::Nat::StaticKey, &NatUnprogrammedEntries::staticEntriesHas,
                      &NatUnprogrammedEntries::staticEntriesIs,
                      &NatUnprogrammedEntries::staticEntriesDel> {};
template <>
struct UnprogrammedKind<NatType::twiceNat>
    : UnprogrammedSet<TwiceNatKey, &NatUnprogrammedEntries::twiceEntriesHas,
                      &NatUnprogrammedEntries::twiceEntriesIs,
                      &NatUnprogrammedEntries::twiceEntriesDel> {};
template <>
struct UnprogrammedKind<NatType::dynamicNat>
    : UnprogrammedSet<Lumet::ConnTuple, &NatUnprogrammedEntries::dynamicEntriesHas,
                      &NatUnprogrammedEntries::dynamicEntriesIs,
                      &NatUnprogrammedEntries::dynamicEntriesDel> {};
template <>
struct UnprogrammedKind<NatType::trapAclNat>
    : UnprogrammedSet<Ip::Nat::DynamicKey, &NatUnprogrammedEntries::trapAclsHas,
                      &NatUnprogrammedEntries::trapAclsIs, &NatUnprogrammedEntries::trapAclsDel> {};

class UnprogrammedBook {
 public:
   UnprogrammedBook(Ptr<NatSmStatus> const& natSmStatus, Ptr<NatSmStatusNotif> const& natSmStatusNotif,
                    Lumet::IntfId const& natIntf)
       : natSmStatus_(natSmStatus), natSmStatusNotif_(natSmStatusNotif), natIntf_(natIntf) {}

   // Makes the interface's record if needed, raises the table-full state on
   // the first refusal with fullTable true, and always kicks the review.
   // `type` only names the kind in the trace.
   void addUnprogrammedEntry(NatType type, bool fullTable);
   // Drops the record once all its sets are empty; with the last record of
   // the system gone, lowers the table-full state.
   void checkUnprogrammedEntries();

   // addUnprogrammedEntry(type, fullTable), then remembers key in its set.
   template <NatType type>
   void add(typename UnprogrammedKind<type>::Key const& key, bool fullTable) {
      addUnprogrammedEntry(type, fullTable);
      UnprogrammedKind<type>::is(*natSmStatus_->unprogrammedEntries(natIntf_), key);
   }
   template <NatType type>
   bool has(typename UnprogrammedKind<type>::Key const& key) const {
      auto const ue = natSmStatus_->unprogrammedEntries(natIntf_);
      return ue && UnprogrammedKind<type>::has(*ue, key);
   }
   // Forgets key once it is programmed or deleted; nothing when it is not
   // remembered.
   template <NatType type>
   void check(typename UnprogrammedKind<type>::Key const& key) {
      auto const ue = natSmStatus_->unprogrammedEntries(natIntf_);
      if (!ue || !UnprogrammedKind<type>::has(*ue, key)) return;
      traceRemoving(type);
      UnprogrammedKind<type>::del(*ue, key);
      checkUnprogrammedEntries();
   }

   // Forgets everything of the interface at once (the engine's cleanup):
   // the four sets in kind order, then the record. The table-full state is
   // left to the review.
   void forgetAll();

 private:
   void traceRemoving(NatType type) const;

   Ptr<NatSmStatus> const natSmStatus_;
   Ptr<NatSmStatusNotif> const natSmStatusNotif_;
   Lumet::IntfId const natIntf_;
};

} // namespace Ulo
