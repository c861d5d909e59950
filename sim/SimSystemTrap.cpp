// Sim::SimSystem: the central state store's trap rules.

#include "framework/UloAssert.h"
#include "sim/SimSystem.h"

namespace Sim {

void SimSystem::trapRuleIs(Lumet::IntfId const& intf, Ip::Nat::DynamicKey const& key, TrapRuleSpec const& spec,
                           bool initialized) {
   auto is = intfStatusMutable(intf);
   uloAssert(is && "trap rule on an unknown interface");
   if (is->trapRuleHas(key)) is->trapRuleDel(key);
   auto rule = is->trapRuleIs(key);
   rule->vlanIdIs(spec.vlanId);
   rule->ruleIdIs(spec.ruleId);
   rule->poolIdIs(spec.poolId);
   rule->trapAllIs(spec.trapAll);
   rule->denyAllIs(spec.denyAll);
   rule->fullConeIs(spec.fullCone);
   rule->addrOnlyIs(spec.addrOnly);
   rule->targetIs(spec.target);
   for (auto const& filter : spec.filters) rule->trapFilterIs(filter);
   if (initialized) rule->initializedIs(true);
}

bool SimSystem::trapRuleInitializedIs(Lumet::IntfId const& intf, Ip::Nat::DynamicKey const& key) {
   auto is = intfStatusMutable(intf);
   auto rule = is ? is->trapRule(key) : nullptr;
   if (!rule) return false;
   rule->initializedIs(true);
   return true;
}

void SimSystem::trapRuleDel(Lumet::IntfId const& intf, Ip::Nat::DynamicKey const& key) {
   if (auto is = intfStatusMutable(intf)) is->trapRuleDel(key);
}

std::size_t SimSystem::unprogrammedTrapAclCount(Lumet::IntfId const& intf) const {
   auto const& natSmStatus = root_->natSmStatus();
   if (!natSmStatus) return 0;
   auto ue = natSmStatus->unprogrammedEntries(intf);
   return ue ? ue->trapAcls().size() : 0;
}

std::size_t SimSystem::unprogrammedTrapAclCount() const {
   auto const& natSmStatus = root_->natSmStatus();
   if (!natSmStatus) return 0;
   std::size_t n = 0;
   for (auto it = natSmStatus->unprogrammedEntries().begin(); it; ++it) {
      if (it.isLive()) n += it.value()->trapAcls().size();
   }
   return n;
}

} // namespace Sim
