// Sim::SimSystem: the configuration and views of VRF-to-VRF NAT.

#include "sim/SimSystem.h"

namespace Sim {

void SimSystem::natVrfIs(L3::VrfName const& vrf) { status_->vrfStatusIs(vrf); }

void SimSystem::natVrfDel(L3::VrfName const& vrf) { status_->vrfStatusDel(vrf); }

void SimSystem::vrfRuleIs(L3::VrfName const& vrf, Ip::Nat::NatVrfStaticConnection const& rule) {
   status_->vrfStatusIs(vrf)->staticNatIs(rule);
}

void SimSystem::vrfRuleDel(L3::VrfName const& vrf, Lumet::IpAddr const& srcAddressOld) {
   if (auto v = status_->vrfStatus(vrf)) v->staticNatDel(srcAddressOld);
}

void SimSystem::vrfPolicerIs(L3::VrfName const& vrf, Vor::U32 rate, Vor::U32 burst) {
   status_->vrfStatusIs(vrf)->policerIs(Ip::Nat::VrfPolicer{rate, burst});
}

Vor::Ptr<Ulo::NatVrfSm> SimSystem::natVrfSm(L3::VrfName const& vrf) const {
   auto const& vrfRoot = root_->natVrfRootSm();
   return vrfRoot ? vrfRoot->natVrfSm(vrf.value()) : Vor::Ptr<Ulo::NatVrfSm>();
}

bool SimSystem::forceTableFullIs(L3::VrfName const& vrf, bool on) {
   auto sm = natVrfSm(vrf);
   if (!sm) return false;
   sm->forceTableFullIs(on);
   return true;
}

std::size_t SimSystem::hwVrfRuleCount(L3::VrfName const& vrf) const {
   auto hw = hwStatus_->vrfStatus(vrf);
   return hw ? hw->staticNats() : 0;
}

std::size_t SimSystem::hwVrfRuleCount() const {
   std::size_t n = 0;
   for (auto const& [vrf, hw] : hwStatus_->vrfStatus()) n += hw->staticNats();
   return n;
}

std::size_t SimSystem::pendingVrfRuleCount(L3::VrfName const& vrf) const {
   auto sm = natVrfSm(vrf);
   if (!sm) return 0;
   std::size_t n = 0;
   for (auto it = sm->pendingNatRules().begin(); it; ++it) {
      if (it.isLive()) n += it.value()->srcAddrOld().size();
   }
   return n;
}

std::size_t SimSystem::pendingVrfRuleCount() const {
   auto const& vrfRoot = root_->natVrfRootSm();
   if (!vrfRoot) return 0;
   std::size_t n = 0;
   for (auto const& [name, sm] : vrfRoot->natVrfSms().members()) n += pendingVrfRuleCount(L3::VrfName(name));
   return n;
}

std::size_t SimSystem::unprogrammedVrfRuleCount(L3::VrfName const& vrf) const {
   auto const& vrfRoot = root_->natVrfRootSm();
   auto rules = vrfRoot ? vrfRoot->unprogrammedNatRules(vrf) : Vor::Ptr<Ulo::NatRulesCollection>();
   return rules ? rules->srcAddrOld().size() : 0;
}

std::size_t SimSystem::unprogrammedVrfRuleCount() const {
   auto const& vrfRoot = root_->natVrfRootSm();
   if (!vrfRoot) return 0;
   std::size_t n = 0;
   for (auto it = vrfRoot->unprogrammedNatRules().begin(); it; ++it) {
      if (it.isLive()) n += it.value()->srcAddrOld().size();
   }
   return n;
}

} // namespace Sim

namespace Sim {

std::vector<std::string> SimSystem::vrfChipMismatches() const {
   std::vector<std::string> out;
   auto const& chip = helper_->vrfEntries();
   std::size_t expected = 0;
   for (auto const& [vrf, hw] : hwStatus_->vrfStatus()) {
      for (auto const& [addr, conn] : hw->staticNat()) {
         VrfChipEntry const want{conn->srcAddressNew(), conn->outsideVrfId()};
         for (auto kind : {VrfChipKey::Kind::vrfSrc, VrfChipKey::Kind::vrfDst}) {
            VrfChipKey const key{kind, conn->insideVrfId(), addr};
            ++expected;
            auto it = chip.find(key);
            if (it == chip.end()) {
               out.push_back(key.stringValue() + " of VRF " + vrf.stringValue() + " missing on the chip");
            } else if (!(it->second == want)) {
               out.push_back(key.stringValue() + " on the chip translates to " +
                             it->second.newAddr.stringValue() + " in VRF id " +
                             std::to_string(it->second.outsideVrfId) + ", hardware status says " +
                             want.newAddr.stringValue() + " in VRF id " + std::to_string(want.outsideVrfId));
            }
         }
      }
   }
   if (chip.size() != expected) {
      out.push_back("chip holds " + std::to_string(chip.size()) + " VRF translations, hardware status " +
                    std::to_string(expected));
   }
   return out;
}

} // namespace Sim
