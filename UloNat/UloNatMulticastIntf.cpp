// Ulo::NatIntfStatusSm: the multicast operations that the connection paths
// call around each programming of a rule.
//
// An engine runs without a multicast adapter until multicast NAT is set up
// for the agent: routes are then neither watched nor looked up, and every
// rule programs with defaultMulticastTransition(). The conversation with an
// adapter (route watches, the cache lookup and the enable/disable
// transitions) belongs to the multicast adapter's side of the engine and is
// built with it; until then an engine must not be given an adapter, which
// the first call below asserts.

#include "UloNat/UloNatIntfSm.h"
#include "framework/UloAssert.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("UloNatMulticastIntf");

namespace Ulo {

void NatIntfStatusSm::watchMulticast(Vor::U16 vlanId, Lumet::IpAndPort const& oldSource,
                                     Lumet::IpAndPort const& newSource,
                                     Lumet::IpAndPort const& oldGroup,
                                     Lumet::IpAndPort const& newGroup, Vor::U32 group,
                                     Vor::U8 protocol, Ip::Nat::StaticKey const& staticKey) {
   (void)vlanId, (void)oldSource, (void)newSource, (void)oldGroup, (void)newGroup, (void)group,
      (void)protocol, (void)staticKey;
   uloAssert(!multicastAdapter() && "multicast adapter not supported by this engine yet");
   VOR_TRACE(9, natIntf_ << " no multicastAdapter");
}

void NatIntfStatusSm::unWatchMulticast(Vor::U16 vlanId, Lumet::IpAddr sourceIp,
                                       Lumet::IpAddr groupIp) {
   (void)vlanId, (void)sourceIp, (void)groupIp;
   uloAssert(!multicastAdapter() && "multicast adapter not supported by this engine yet");
   VOR_TRACE(9, natIntf_ << " no multicastAdapter");
}

Ptr<NatMulticastTransition> NatIntfStatusSm::getMulticastTransition(Vor::U16 vlanId,
                                                                    Lumet::IpAddr sourceIp,
                                                                    Lumet::IpAddr groupIp) {
   (void)vlanId, (void)sourceIp, (void)groupIp;
   uloAssert(!multicastAdapter() && "multicast adapter not supported by this engine yet");
   return defaultMulticastTransition();
}

void NatIntfStatusSm::disableMulticastWithOifs(Vor::U16 vlanId, Lumet::IpAddr sourceIp,
                                               Lumet::IpAddr groupIp) {
   (void)vlanId, (void)sourceIp, (void)groupIp;
   uloAssert(!multicastAdapter() && "multicast adapter not supported by this engine yet");
}

} // namespace Ulo
