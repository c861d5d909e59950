// Ulo::NatIntfStatusSm: trap rules. A dynamic NAT rule makes the chip send
// the first packets of matching flows to the CPU, so that connection tracking
// can make dynamic connections; the engine programs each rule through the
// helper, commits the ACLs, and remembers a rule that did not go in.

#include <cstdlib>
#include <string>
#include <vector>

#include "UloNat/UloNatIntfSm.h"
#include "framework/UloAssert.h"
#include "framework/VorException.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("UloNatIntfSmTrap");

namespace Ulo {

namespace {

// A profile interface's configuration key reads "profile_Vlan<number>"; the
// number begins after the prefix's 12 characters, wherever the prefix was
// found (the key is expected to begin with it).
constexpr std::size_t profileVlanPrefixLength = 12;

// The VLAN number of a configuration key, read as strtoul reads it with base
// 0 (decimal, 0x hexadecimal, leading-zero octal) and cut to 16 bits.
Vor::U16 profileVlanOf(Vor::String const& configKey) {
   std::string const text = configKey.stdString();
   if (text.size() <= profileVlanPrefixLength) return 0;
   std::string const number = text.substr(profileVlanPrefixLength);
   return static_cast<Vor::U16>(std::strtoul(number.c_str(), nullptr, 0));
}

} // namespace

// ---- the rules' reactors ----

void NatIntfStatusSm::trapRuleIs(Ptr<Ip::Nat::NatDynamicTrapRule const> const& rule) {
   if (!rule) Vor::throwMutatorArgNullPointerException("trapRuleIs");
   trapRule_.xIs(rule->key(), rule);
}

void NatIntfStatusSm::trapRuleDel(Ip::Nat::DynamicKey const& key) { trapRule_.xDel(key); }

void NatIntfStatusSm::trapRuleDelAll() { trapRule_.xDelAll(); }

// ---- the handlers ----

void NatIntfStatusSm::handleTrapRule() {
   auto is = intfStatus();
   if (!is) return;
   // Keys first: a handler may change the collection under the walk.
   std::vector<Ip::Nat::DynamicKey> keys;
   keys.reserve(is->trapRules());
   for (auto const& [key, rule] : is->trapRule()) keys.push_back(key);
   for (auto const& key : keys) handleTrapRule(key);
}

void NatIntfStatusSm::handleTrapRule(Ip::Nat::DynamicKey const& key) {
   if (!initialized()) return;
   auto is = intfStatus();
   Ptr<Ip::Nat::NatDynamicTrapRule const> rule = is ? is->trapRule(key) : nullptr;
   bool failed = false;
   if (rule && natHelper_->hwInitialized()) {
      if (!rule->initialized()) {
         // Its writer is still filling it in; `initialized` brings us back.
         VOR_TRACE(7, key.stringValue() << " trap rule not initialized yet, canceling handling");
         return;
      }
      vlanIdIs(rule->vlanId());
      if (Lumet::NatIntfId::isNatProfileIntfId(natIntf_) && !natHelper_->hwNatProfileSupported()) {
         // The chip cannot load a profile, so the rule goes on the profile's
         // own VLAN, which only the configuration key names.
         // An absent key reads as the empty string.
         Vor::String const configKey = status_ ? status_->intfConfigKey(natIntf_) : Vor::String();
         VOR_TRACE(7, "IntfStatus in profile mode. Intf config key: " << configKey.stdString());
         uloAssert(configKey.pos( "profile_Vlan" ) != Vor::String::npos);
         vlanIdIs(profileVlanOf(configKey));
         uloAssert(vlanId());
      }
      if (rule->trapAll()) {
         // Its answer is not looked at: the filters below still go in.
         natHelper_->addTrapAllRule(vlanId_, key.aclName(), rule->ruleId(), rule->addrOnly(), rule->fullCone(),
                                    key.group(), rule->poolId(), rule->target());
      }
      if (rule->denyAll() && rule->addrOnly() &&
          !natHelper_->addAddrOnlyDenyAllAcl(vlanId_, key.aclName(), rule->ruleId(), rule->target())) {
         failed = true;
      } else {
         // Inverted: true means that a filter failed.
         failed = natHelper_->addTrapRules(rule, key.aclName(), natIntf_);
      }
   } else {
      natHelper_->delAddrOnlyAclSliceRule(vlanId_, key.aclName());
      natHelper_->delTrapRule(vlanId_, key);
   }

   // The trap ACLs are committed only after the address-only slices they
   // rely on went in.
   bool const committed = natHelper_->commitAddrOnlyAclSliceRules() && natHelper_->commitTrapRules();
   if (!committed || failed) {
      addUnprogrammedTrapAcl(key);
   } else {
      checkUnprogrammedTrapAcl(key);
   }
}

// ---- unprogrammed trap ACLs ----

void NatIntfStatusSm::addUnprogrammedTrapAcl(Ip::Nat::DynamicKey const& key) {
   // A half-programmed rule is taken out before it waits for review.
   natHelper_->delAddrOnlyAclSliceRule(vlanId_, key.aclName());
   natHelper_->delTrapRule(vlanId_, key);
   unprogrammed_.add<NatType::trapAclNat>(key, true);
}

void NatIntfStatusSm::checkUnprogrammedTrapAcl(Ip::Nat::DynamicKey const& key) {
   unprogrammed_.check<NatType::trapAclNat>(key);
}

} // namespace Ulo
