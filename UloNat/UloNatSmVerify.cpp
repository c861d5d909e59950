// Ulo::NatSm: the verify command. The root checks the watched-address
// records that all engines share, then hands over to the helper and to each
// engine (UloNat/UloNatIntfSmVerify.cpp). Findings are reported as
// UloNat/UloNatVerify.h says.

#include <fmt/printf.h>

#include "UloNat/UloNatSm.h"
#include "UloNat/UloNatVerify.h"
#include "framework/UloAssert.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("UloNatSmVerify");

namespace Ulo {

void NatSm::handleVerify() {
   VOR_TRACE(5, "handleVerify");
   if (disableVerify_ || !initialized()) return;
   if (!natHelper_->hwInitialized()) return;

   // A watched-address record lives while some interface uses its address:
   // one whose interface map went empty was not removed with its last user.
   // An interface named there must have an engine, whatever else is wrong.
   for (auto const& vrfIter : natSmStatus_->natSmStatusVrf()) {
      Ptr<NatSmStatusVrf> const& vrfStatus = vrfIter.value();
      for (auto const& addrIter : vrfStatus->ipAddrIntfInfo()) {
         Ptr<NatIntfInfo> const& intfInfo = addrIter.value();
         if (intfInfo->intfs() != 0) {
            for (auto const& intfIter : intfInfo->intf()) {
               VOR_TRACE(8, " Addr: " << addrIter.key().stringValue()
                                      << ", intf: " << intfIter.key().stringValue());
               uloAssert(natIntfStatusSmHas( intfIter.key() ));
            }
            continue;
         }
         reportVerifyFinding(commonSmData().ptr(),
                             fmt::sprintf("VRF %d addr %s has no intfInfo, possible leak",
                                          vrfStatus->vrfId().value(), addrIter.key().stringValue()),
                             __func__);
      }
   }

   natHelper_->handleVerifyInit();
   // Every interface of the configuration is expected to have its engine: a
   // verification is asked for of a settled system.
   for (auto const& [intf, intfStatus] : status()->intfStatus()) {
      natIntfStatusSm(intf)->handleVerify();
   }
   natHelper_->verifyDynamicNat(status(), hwStatus_);
}

void NatSm::doVerifyDynamicBacklog(Lumet::IntfId const& intf, Vor::U32 numRequests, bool isDelete,
                                   bool isReinsert) {
   if (!initialized()) return;
   if (auto const engine = natIntfStatusSm(intf)) engine->doVerifyDynamicBacklog(numRequests, isDelete, isReinsert);
}

} // namespace Ulo
