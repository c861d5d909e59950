#pragma once
// What a rule's multicast state means for the hardware, each time the rule is
// programmed: the kind of transition and the multicast record that goes to
// the helper with the rule.
//
// An engine that runs without a multicast adapter always gets the shared
// defaultMulticastTransition(): kind mcastTransitionNone over an empty
// record, so a multicast rule programs exactly like a unicast one.
//
// Thread safety: the agent's one thread. The shared default objects are built
// on first use and never changed afterwards.
//
// Invariants:
//  1. mcastToProg() of a transition is never null.
//  2. defaultMulticastTransition() and defaultMulticastData() are the same
//     objects for the life of the process.

#include "UloNat/UloNatAsyncTypes.h"
#include "framework/VorPtr.h"

namespace Ulo {

enum class NatMulticastTransitionKind : Vor::U8 {
   // Outgoing interfaces are known: translation comes into force.
   mcastTransitionEnable = 0,
   // In force, and no outgoing interfaces left.
   mcastTransitionDisable = 1,
   // In force, and outgoing interfaces remain.
   mcastTransitionKeep = 2,
   // Nothing to do for multicast.
   mcastTransitionNone = 3,
};

char const* natMulticastTransitionKindName(NatMulticastTransitionKind kind);

class NatMulticastTransition : public Vor::PtrInterface {
 public:
   NatMulticastTransition(NatMulticastTransitionKind kind,
                          Vor::Ptr<NatMulticastData const> const& mcastToProg);

   NatMulticastTransitionKind kind() const { return kind_; }
   // The record handed to the helper's add and update operations.
   Vor::Ptr<NatMulticastData const> const& mcastToProg() const { return mcastToProg_; }

 private:
   NatMulticastTransitionKind kind_;
   Vor::Ptr<NatMulticastData const> mcastToProg_;
};

// REQUIRES: mcastToProg is not null.
Vor::Ptr<NatMulticastTransition> natMulticastTransitionFactory(
   NatMulticastTransitionKind kind, Vor::Ptr<NatMulticastData const> const& mcastToProg);

// The shared empty multicast record.
Vor::Ptr<NatMulticastData const> const& defaultMulticastData();
// The shared transition of kind mcastTransitionNone over defaultMulticastData().
Vor::Ptr<NatMulticastTransition> const& defaultMulticastTransition();

} // namespace Ulo
