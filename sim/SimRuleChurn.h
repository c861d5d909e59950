#pragma once
// Sim::SimRuleChurn: a reproducible configuration of static rules that
// changes step by step, for runs that kill and restart the agent or the
// programmer and then check the chip against the configuration.
//
// There are `rules` rule slots on four interfaces (Ethernet1..4, VLANs 1..4
// in the default VRF). At step 0 every slot holds its rule at version 0;
// even slots have two filter addresses, odd slots one. Each later step t
// touches four slots, chosen by a hash of t: a touched slot is removed, or
// holds its rule at version t (another global address); a rule that
// changes is deleted and added again. So the
// configuration of any step can be rebuilt from the step number alone, by
// whoever restarts the agent.
//
// Thread safety: none needed; values only.

#include <cstddef>
#include <set>
#include <vector>

#include "sim/SimSystem.h"

namespace Sim {

class SimRuleChurn {
 public:
   static constexpr std::size_t touchesPerStep = 4;

   explicit SimRuleChurn(std::size_t rules);

   std::size_t rules() const { return present_.size(); }
   Vor::U64 step() const { return step_; }
   // Moves the configuration forward to `step`.
   // REQUIRES: step >= step().
   void stepIs(Vor::U64 step);
   std::size_t presentCount() const;

   // The interfaces, VRF and every present rule, into a system.
   void configure(SimSystem& system) const;
   // Moves to step() + 1 and writes that step's changes into a system.
   void advance(SimSystem& system);
   // The slots that the steps first .. last touch.
   static std::set<std::size_t> touched(std::size_t rules, Vor::U64 first, Vor::U64 last);

   static Lumet::IntfId intf(std::size_t slot);
   Ip::Nat::NatStaticConnection connection(std::size_t slot) const;

 private:
   struct Touch {
      std::size_t slot;
      bool present;
   };
   static Touch touch(std::size_t rules, Vor::U64 step, std::size_t which);
   void apply(SimSystem& system, std::size_t slot, bool wasPresent) const;

   std::vector<bool> present_;
   std::vector<Vor::U64> version_;
   Vor::U64 step_ = 0;
};

} // namespace Sim
