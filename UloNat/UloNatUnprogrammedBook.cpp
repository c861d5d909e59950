// Ulo::UnprogrammedBook: the unprogrammed bookkeeping of one interface.

#include "UloNat/UloNatUnprogrammedBook.h"

#include "framework/UloAssert.h"
#include "framework/VorLog.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("UloNatIntfSm");

namespace Ulo {

namespace {

// The messages this file emits; each emitting source holds its own handle.
Vor::LogHandle NAT_HW_RESOURCE_NORMAL = natHwResourceNormalLogHandle();
Vor::LogHandle NAT_HW_RESOURCE_FULL = natHwResourceFullLogHandle();

} // namespace

void UnprogrammedBook::addUnprogrammedEntry(NatType type, bool fullTable) {
   auto ue = natSmStatus_->unprogrammedEntries(natIntf_);
   if (!ue) {
      ue = natSmStatus_->unprogrammedEntriesIs(natIntf_);
      uloAssert(ue);
   }
   VOR_TRACE(7, natIntf_ << " addUnprogrammedEntry type: " << natTypeName(type)
                         << " fullTable: " << fullTable);
   if (fullTable && !natSmStatus_->fullTable()) {
      VOR_TRACE(3, "First unprogrammed nat entry");
      Vor::log(NAT_HW_RESOURCE_FULL);
      natSmStatusNotif_->logsFullInc(1);
      natSmStatus_->fullTableIs(true);
   }
   natSmStatusNotif_->kickUnprogrammedReviewInc(1);
}

void UnprogrammedBook::checkUnprogrammedEntries() {
   auto const ue = natSmStatus_->unprogrammedEntries(natIntf_);
   if (!ue || !ue->empty()) return;
   natSmStatus_->unprogrammedEntriesDel(natIntf_);
   if (natSmStatus_->fullTable() && natSmStatus_->unprogrammedEntries().size() == 0) {
      VOR_TRACE(3, "All unprogrammed nat rules have been restored in hw");
      Vor::log(NAT_HW_RESOURCE_NORMAL);
      natSmStatusNotif_->logsNormalInc(1);
      natSmStatus_->fullTableIs(false);
   }
}

void UnprogrammedBook::forgetAll() {
   auto const ue = natSmStatus_->unprogrammedEntries(natIntf_);
   if (!ue) return;
   ue->staticEntriesDelAll();
   ue->twiceEntriesDelAll();
   ue->dynamicEntriesDelAll();
   ue->trapAclsDelAll();
   natSmStatus_->unprogrammedEntriesDel(natIntf_);
}

void UnprogrammedBook::traceRemoving(NatType type) const {
   // By NatType value.
   static char const* const removing[] = {
      " Removing static entry from unprogrammed list",
      " Removing twice entry from unprogrammed list",
      " Removing dynamic entry from unprogrammed list",
      " Removing trap acl entry from unprogrammed list",
   };
   VOR_TRACE(7, natIntf_ << removing[static_cast<unsigned>(type)]);
}

} // namespace Ulo
