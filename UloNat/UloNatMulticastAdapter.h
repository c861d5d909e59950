#pragma once
// Ulo::NatMulticastAdapter: the NAT engine's side of the conversation with
// the multicast routing library (route watches, the cache of route answers,
// the enable and disable of multicast translation).
//
// Only the type is declared here so far: the root and the interface engines
// hold a Ptr to it, and an agent that has no multicast NAT leaves that Ptr
// null. With a null adapter the engines program every rule with
// defaultMulticastTransition() and watch no routes. The adapter's operations
// and its factory come with multicast NAT; until then no instance can be
// made.
//
// Thread safety: the agent's one thread.

#include "framework/VorPtr.h"

namespace Ulo {

class NatMulticastAdapter : public Vor::PtrInterface {
 protected:
   NatMulticastAdapter() = default;
};

} // namespace Ulo
