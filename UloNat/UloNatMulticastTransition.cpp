#include "UloNat/UloNatMulticastTransition.h"

#include "framework/UloAssert.h"

namespace Ulo {

char const* natMulticastTransitionKindName(NatMulticastTransitionKind kind) {
   switch (kind) {
   case NatMulticastTransitionKind::mcastTransitionEnable: return "mcastTransitionEnable";
   case NatMulticastTransitionKind::mcastTransitionDisable: return "mcastTransitionDisable";
   case NatMulticastTransitionKind::mcastTransitionKeep: return "mcastTransitionKeep";
   case NatMulticastTransitionKind::mcastTransitionNone: return "mcastTransitionNone";
   }
   return "mcastTransitionUnknown";
}

NatMulticastTransition::NatMulticastTransition(NatMulticastTransitionKind kind,
                                               Vor::Ptr<NatMulticastData const> const& mcastToProg)
    : kind_(kind), mcastToProg_(mcastToProg) {
   uloAssert(mcastToProg_);
}

Vor::Ptr<NatMulticastTransition> natMulticastTransitionFactory(
   NatMulticastTransitionKind kind, Vor::Ptr<NatMulticastData const> const& mcastToProg) {
   return Vor::Ptr<NatMulticastTransition>(new NatMulticastTransition(kind, mcastToProg));
}

Vor::Ptr<NatMulticastData const> const& defaultMulticastData() {
   static Vor::Ptr<NatMulticastData const> const data(new NatMulticastData());
   return data;
}

Vor::Ptr<NatMulticastTransition> const& defaultMulticastTransition() {
   static Vor::Ptr<NatMulticastTransition> const transition = natMulticastTransitionFactory(
      NatMulticastTransitionKind::mcastTransitionNone, defaultMulticastData());
   return transition;
}

} // namespace Ulo
