#include "framework/VorReactor.h"

namespace Vor {

PtrInterface::NotifieeConst::~NotifieeConst() {
   if (deathFlag_) *deathFlag_ = true;
   if (notifier_) notifier_->notifieeRemove(this);
}

void PtrInterface::NotifieeConst::notifierIs(Ptr<PtrInterface const> const& n) {
   if (n == notifier_) return;
   bool const wasAttached = static_cast<bool>(notifier_);
   if (notifier_) notifier_->notifieeRemove(this);
   notifier_ = n;
   if (!n) return;
   n->notifieeAdd(this);
   // A newly made reactor attaches without delivery: its owner reads the
   // notifier when it chooses to. Only a re-pointing delivers.
   if (!wasAttached) return;
   // Nothing of this reactor is touched after the delivery: a handler may
   // have destroyed it, which the caller's ReactorLife reports.
   initialDelivery();
}

} // namespace Vor
