#include "sim/SimMrouteSide.h"

#include <vector>

namespace Sim {

SimMrouteSide::SimMrouteSide(Vor::Ptr<Dov::TaskScheduler> const& scheduler,
                             Vor::Ptr<Ulo::NatMrouteRequestSet> const& requests,
                             Vor::Ptr<Ulo::NatMrouteResponseMap> const& responses)
    : requests_(requests), responses_(responses), task_(new SyncTask(scheduler, this)) {
   notifierIs(requests_);
}

SimMrouteSide::~SimMrouteSide() {
   if (task_) task_->unscheduleTask();
   notifierIs(nullptr);
}

void SimMrouteSide::onAttribute(Vor::AttributeId id, void const*) {
   if (id == Ulo::NatMrouteRequestSet::mrouteReqId) task_->scheduleTask();
}

void SimMrouteSide::routeIs(Route const& route, Ulo::NatMrouteOifSet const& oifs) {
   routes_[route] = oifs;
   task_->scheduleTask();
}

void SimMrouteSide::routeDel(Route const& route) {
   routes_.erase(route);
   task_->scheduleTask();
}

void SimMrouteSide::sync() {
   // Withdraw answers that no request or no route backs any more, then
   // answer every request that names a route.
   std::vector<Ulo::NatMrouteKey> stale;
   for (auto const& [key, oifs] : responses_->mrouteResp()) {
      Route const route{key.vlanId, key.sourceIp, key.groupIp};
      if (!requests_->mrouteReqHas(key) || !routes_.count(route)) stale.push_back(key);
   }
   for (auto const& key : stale) {
      ++answers_;
      responses_->mrouteRespDel(key);
   }
   std::vector<Ulo::NatMrouteKey> const requests(requests_->mrouteReq().begin(), requests_->mrouteReq().end());
   for (auto const& key : requests) {
      auto it = routes_.find(Route{key.vlanId, key.sourceIp, key.groupIp});
      if (it == routes_.end()) continue;
      if (responses_->mrouteRespHas(key) && responses_->mrouteResp(key) == it->second) continue;
      ++answers_;
      responses_->mrouteRespIs(key, it->second);
   }
}

} // namespace Sim
