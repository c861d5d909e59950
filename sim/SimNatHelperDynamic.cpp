// Sim::SimNatHelper: the chip's dynamic translations.

#include "sim/SimNatHelper.h"

namespace Sim {

namespace {

// On a chip with full-cone entries for the protocol, a full-cone destination
// entry serves every remote of its NAT address: the chip keeps one per (NAT
// address, protocol), whichever tuple made it.
Lumet::ConnTuple dstChipTuple(SimNatHelper const& chip, Lumet::ConnTuple const& tuple,
                              Lumet::IpAndPort const& natAddr, bool fullCone) {
   if (!fullCone || !chip.fullConeHwEntries(tuple.protocol())) return tuple;
   return Lumet::ConnTuple(Lumet::IpAndPort(), natAddr, tuple.protocol());
}

} // namespace

bool SimNatHelper::putDynamic(DynamicChipKey const& key, DynamicChipEntry const& entry, bool isUpdate) {
   ++counts_.dynamicCalls;
   if (refuseNow()) return false;
   auto it = dynamicEntries_.find(key);
   if (it == dynamicEntries_.end() && !roomForOne()) {
      ++counts_.refused;
      ++counts_.dynamicRefused;
      return false;
   }
   if (isUpdate) {
      ++counts_.updates;
   } else {
      ++counts_.adds;
   }
   if (it == dynamicEntries_.end()) {
      dynamicEntries_.emplace(key, entry);
   } else {
      it->second = entry;
   }
   return true;
}

bool SimNatHelper::addDynamicSrcIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const&,
                                              IpAndPort const&, IpAndPort const& newSrcIpAndPort, U16 vlan,
                                              Ulo::VrfId vrfId) {
   return putDynamic(DynamicChipKey{false, vrfId, flowKey}, DynamicChipEntry{newSrcIpAndPort, vlan, 0}, false);
}

bool SimNatHelper::addDynamicDstIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const&,
                                              IpAndPort const& dstIpAndPort, IpAndPort const& newDstIpAndPort,
                                              NextHop nextHop, U16 vlan, bool forward, Ulo::VrfId vrfId) {
   return putDynamic(DynamicChipKey{true, vrfId, dstChipTuple(*this, flowKey, dstIpAndPort, forward)},
                     DynamicChipEntry{newDstIpAndPort, vlan, Ulo::natHwNextHopId(nextHop)}, false);
}

bool SimNatHelper::updateDynamicDstIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const&,
                                                 IpAndPort const& dstIpAndPort, IpAndPort const& newDstIpAndPort,
                                                 NextHop nextHop, U16 vlan, bool forward, Ulo::VrfId vrfId) {
   return putDynamic(DynamicChipKey{true, vrfId, dstChipTuple(*this, flowKey, dstIpAndPort, forward)},
                     DynamicChipEntry{newDstIpAndPort, vlan, Ulo::natHwNextHopId(nextHop)}, true);
}

bool SimNatHelper::deleteDynamicSrcIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const&,
                                                 IpAndPort const&, IpAndPort const&, U16, Ulo::VrfId vrfId) {
   ++counts_.dynamicCalls;
   if (dynamicEntries_.erase(DynamicChipKey{false, vrfId, flowKey})) ++counts_.deletes;
   return true;
}

bool SimNatHelper::deleteDynamicDstIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const&,
                                                 IpAndPort const& dstIpAndPort, IpAndPort const&, U16,
                                                 bool forward, Ulo::VrfId vrfId) {
   ++counts_.dynamicCalls;
   if (dynamicEntries_.erase(DynamicChipKey{true, vrfId, dstChipTuple(*this, flowKey, dstIpAndPort, forward)})) {
      ++counts_.deletes;
   }
   return true;
}

} // namespace Sim
