#include "framework/VorPtr.h"

#include <algorithm>

#include "framework/VorReactor.h"

namespace Vor {

bool PtrInterface::threadSafePointers_ = false;

PtrInterface::~PtrInterface() {
   // Reactors still attached lose their notifier; they must not call back.
   for (NotifieeConst* n : notifiees_) {
      if (n) n->notifierGone();
   }
}

void PtrInterface::notifieeAdd(NotifieeConst* n) const { notifiees_.push_back(n); }

void PtrInterface::notifieeRemove(NotifieeConst* n) const {
   auto it = std::find(notifiees_.begin(), notifiees_.end(), n);
   if (it == notifiees_.end()) return;
   if (deliveryDepth_ > 0) {
      // A delivery walks the list by index: leave a hole, sweep it later.
      *it = nullptr;
      notifieeHoles_ = true;
   } else {
      notifiees_.erase(it);
   }
}

void PtrInterface::notifySlow(AttributeId id, void const* key) const {
   // Keep the notifier alive while its reactors run: a handler may drop the
   // last other reference to it.
   Ptr<PtrInterface const> self(references() > 0 ? this : nullptr);
   ++deliveryDepth_;
   // Reactors attached during this delivery are not told of this change:
   // they attached after it happened.
   std::size_t const count = notifiees_.size();
   for (std::size_t i = 0; i < count && i < notifiees_.size(); ++i) {
      NotifieeConst* n = notifiees_[i];
      if (n && !n->vorMarkedForDeletion() && n->notificationActive()) {
         n->onAttribute(id, key);
      }
   }
   if (--deliveryDepth_ == 0 && notifieeHoles_) {
      std::erase(notifiees_, nullptr);
      notifieeHoles_ = false;
   }
}

} // namespace Vor
