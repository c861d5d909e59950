#pragma once
// Sim::SimMrouteSide: a stand-in for the switch's multicast routing side, as
// the NAT engine sees it.
//
// It holds the multicast routes of the simulated switch, each (vlan, source,
// group) with its outgoing interfaces, as scenario events set them. It reads
// the NAT engine's request set and answers in the response map: a request
// whose (vlan, source, group) names a route gets the route's outgoing
// interfaces; the answer changes when the route's interfaces change, and is
// withdrawn when the route goes or the request is withdrawn.
//
// Like a real routing side it answers later, not inside the engine's write
// of a request: answers are given by a task of the scheduler, so the engine
// never sees an answer in the middle of programming a rule.
//
// Thread safety: the agent's one thread.

#include <map>
#include <tuple>

#include "UloNat/UloNatMulticastAdapter.h"
#include "framework/DovTask.h"

namespace Sim {

class SimMrouteSide : public Vor::PtrInterface::NotifieeConst {
 public:
   struct Route {
      Vor::U16 vlanId = 0;
      Lumet::IpAddr sourceIp;
      Lumet::IpAddr groupIp;
      auto operator<=>(Route const&) const = default;
   };

   SimMrouteSide(Vor::Ptr<Dov::TaskScheduler> const& scheduler,
                 Vor::Ptr<Ulo::NatMrouteRequestSet> const& requests,
                 Vor::Ptr<Ulo::NatMrouteResponseMap> const& responses);
   ~SimMrouteSide() override;

   // Adds or changes a route; every request for it is answered anew.
   void routeIs(Route const& route, Ulo::NatMrouteOifSet const& oifs);
   // Removes a route; every answer for it is withdrawn.
   void routeDel(Route const& route);
   std::map<Route, Ulo::NatMrouteOifSet> const& routes() const { return routes_; }

   // Brings the response map in line with the requests and the routes.
   // Runs from the task; tests may call it directly.
   void sync();
   std::size_t answers() const { return answers_; }

   void onAttribute(Vor::AttributeId id, void const* key) override;

 private:
   class SyncTask : public Dov::Task {
    public:
      SyncTask(Vor::Ptr<Dov::TaskScheduler> const& scheduler, SimMrouteSide* side)
          : Dov::Task(scheduler, 2, "simMrouteSide"), side_(side) {}
      void doRun() override { side_->sync(); }

    private:
      SimMrouteSide* side_;
   };

   Vor::Ptr<Ulo::NatMrouteRequestSet> requests_;
   Vor::Ptr<Ulo::NatMrouteResponseMap> responses_;
   std::map<Route, Ulo::NatMrouteOifSet> routes_;
   Vor::Ptr<SyncTask> task_;
   std::size_t answers_ = 0;
};

} // namespace Sim
