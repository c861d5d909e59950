// Sim::SimNatHelper: the chip's VRF-to-VRF translations and source policers.

#include <sstream>

#include "sim/SimNatHelper.h"

namespace Sim {

std::string VrfChipKey::stringValue() const {
   std::ostringstream os;
   os << (kind == Kind::vrfSrc ? "vrfSrc" : "vrfDst") << " vrf " << insideVrfId << " "
      << oldAddr.stringValue();
   return os.str();
}

bool SimNatHelper::roomForOne() const {
   std::size_t const occupancy = immediate_ ? entries_.size() + sideOccupancy() : occupancyAfterStage();
   return occupancy < capacity_;
}

bool SimNatHelper::putVrf(VrfChipKey const& key, VrfChipEntry const& entry) {
   if (refuseNow()) return false;
   auto it = vrfEntries_.find(key);
   if (it == vrfEntries_.end() && !roomForOne()) {
      ++counts_.refused;
      return false;
   }
   vrfEntries_[key] = entry;
   ++counts_.vrfAdds;
   return true;
}

bool SimNatHelper::addStaticVrfSrcIpTranslation(Lumet::IpAddr oldAddr, Lumet::IpAddr newAddr,
                                                U32 insideVrfId, U32 outsideVrfId) {
   return putVrf(VrfChipKey{VrfChipKey::Kind::vrfSrc, insideVrfId, oldAddr},
                 VrfChipEntry{newAddr, outsideVrfId});
}

bool SimNatHelper::addStaticVrfDstIpTranslation(Lumet::IpAddr oldAddr, Lumet::IpAddr newAddr,
                                                U32 insideVrfId, U32 outsideVrfId) {
   // Called with the translated address first: what the outside VRF sees
   // (oldAddr here) is turned back into the inside address (newAddr here).
   return putVrf(VrfChipKey{VrfChipKey::Kind::vrfDst, insideVrfId, newAddr},
                 VrfChipEntry{oldAddr, outsideVrfId});
}

bool SimNatHelper::deleteStaticVrfSrcIpTranslation(Lumet::IpAddr oldAddr, Lumet::IpAddr, U32 insideVrfId,
                                                   U32) {
   if (vrfEntries_.erase(VrfChipKey{VrfChipKey::Kind::vrfSrc, insideVrfId, oldAddr})) ++counts_.vrfDeletes;
   return true;
}

bool SimNatHelper::deleteStaticVrfDstIpTranslation(Lumet::IpAddr, Lumet::IpAddr newAddr, U32 insideVrfId,
                                                   U32) {
   // Arguments as in the add: the inside address comes second.
   if (vrfEntries_.erase(VrfChipKey{VrfChipKey::Kind::vrfDst, insideVrfId, newAddr})) ++counts_.vrfDeletes;
   return true;
}

bool SimNatHelper::updateVrfSourcePolicer(U32 rate, U32 burst, U32 vrfId) {
   ++counts_.policerUpdates;
   if (rate == 0 && burst == 0) {
      policers_.erase(vrfId);
      return true;
   }
   auto it = policers_.find(vrfId);
   if (it == policers_.end()) {
      if (!roomForOne()) {
         ++counts_.refused;
         return false;
      }
      it = policers_.emplace(vrfId, VrfPolicerEntry{}).first;
   }
   it->second = VrfPolicerEntry{rate, burst};
   return true;
}

} // namespace Sim
