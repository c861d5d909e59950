// Sim::SimNatHelper: the twice translations. Each half of a pair is one
// chip entry; the chip itself knows nothing of pairs, which is what lets a
// test see whether the engine ever leaves half a pair behind.

#include "sim/SimNatHelper.h"

namespace Sim {

namespace {

bool isTwice(ChipEntryKey const& key) {
   return key.kind == ChipEntryKey::Kind::twiceForward || key.kind == ChipEntryKey::Kind::twiceReverse;
}

} // namespace

UloHelper::NatHwResult SimNatHelper::addTwiceNatTranslation(
   IpAndPort srcIpAndPortOld, IpAndPort srcIpAndPortNew, IpAndPort dstIpAndPortOld,
   IpAndPort dstIpAndPortNew, U8 protocol, U16 vlan, NextHop nextHop, MulticastInfo multicastInfo,
   bool forward, U16 natGroupId, Ulo::VrfId vrfId, bool) {
   ++counts_.twiceAdds;
   return putTwice(srcIpAndPortOld, srcIpAndPortNew, dstIpAndPortOld, dstIpAndPortNew, protocol, vlan, nextHop,
                   multicastInfo, forward, natGroupId, vrfId, false);
}

UloHelper::NatHwResult SimNatHelper::updateTwiceNatTranslation(
   IpAndPort srcIpAndPortOld, IpAndPort srcIpAndPortNew, IpAndPort dstIpAndPortOld,
   IpAndPort dstIpAndPortNew, U8 protocol, U16 vlan, NextHop nextHop, MulticastInfo multicastInfo,
   bool forward, U16 natGroupId, Ulo::VrfId vrfId, bool) {
   ++counts_.twiceUpdates;
   return putTwice(srcIpAndPortOld, srcIpAndPortNew, dstIpAndPortOld, dstIpAndPortNew, protocol, vlan, nextHop,
                   multicastInfo, forward, natGroupId, vrfId, true);
}

UloHelper::NatHwResult SimNatHelper::putTwice(IpAndPort srcIpAndPortOld, IpAndPort srcIpAndPortNew,
                                              IpAndPort dstIpAndPortOld, IpAndPort dstIpAndPortNew, U8 protocol,
                                              U16 vlan, NextHop const& nextHop,
                                              MulticastInfo const& multicastInfo, bool forward, U16 natGroupId,
                                              Ulo::VrfId vrfId, bool isUpdate) {
   ChipEntry const entry{srcIpAndPortOld,
                         srcIpAndPortNew,
                         protocol,
                         vlan,
                         forward,
                         Ulo::natHwNextHopId(nextHop),
                         multicastInfo && multicastInfo->multicast(),
                         dstIpAndPortOld,
                         dstIpAndPortNew,
                         multicastInfo ? multicastInfo->oifSet() : Ulo::NatMrouteOifSet()};
   bool const ok =
      put(ChipEntryKey::twice(forward, vrfId, vlan, natGroupId, srcIpAndPortOld, dstIpAndPortOld), entry, isUpdate);
   return ok ? UloHelper::NatHwResult::success : UloHelper::NatHwResult::tableFull;
}

bool SimNatHelper::delTwiceNatTranslation(IpAndPort srcIpAndPortOld, IpAndPort, IpAndPort dstIpAndPortOld,
                                          IpAndPort, U16 vlan, bool forward, U16 natGroupId,
                                          Ulo::VrfId vrfId) {
   ++counts_.twiceDeletes;
   ++counts_.deletes;
   eraseOne(ChipEntryKey::twice(forward, vrfId, vlan, natGroupId, srcIpAndPortOld, dstIpAndPortOld));
   return true;
}

std::size_t SimNatHelper::twiceEntries() const {
   std::size_t n = 0;
   for (auto const& [key, entry] : entries_) n += isTwice(key);
   return n;
}

ChipEntry const* SimNatHelper::twiceEntry(bool forward, Ulo::VrfId vrfId, U16 vlan, U16 group,
                                          Lumet::IpAndPort srcOld, Lumet::IpAndPort dstOld) const {
   auto it = entries_.find(ChipEntryKey::twice(forward, vrfId, vlan, group, srcOld, dstOld));
   return it == entries_.end() ? nullptr : &it->second;
}

std::size_t SimNatHelper::halfTwicePairs() const {
   // A forward half (S, D) -> (S', D') pairs with the reverse half that
   // matches (D', D); each half's entry names the other's match.
   std::size_t half = 0;
   for (auto const& [key, entry] : entries_) {
      if (!isTwice(key)) continue;
      bool const forward = key.kind == ChipEntryKey::Kind::twiceForward;
      // Forward (S, S', D, D') pairs with reverse (D', D, S', S): the reverse
      // matches old source D' and old destination S'.
      Lumet::IpAndPort const otherSrcOld = entry.dstNewIpAndPort;
      Lumet::IpAndPort const otherDstOld = entry.newIpAndPort;
      (void)forward;
      if (!twiceEntry(!forward, key.vrfId, key.vlan, key.group, otherSrcOld, otherDstOld)) ++half;
   }
   return half;
}

ChipEntryKey ChipEntryKey::twice(bool forward, Ulo::VrfId vrfId, U16 vlan, U16 group, Lumet::IpAndPort srcOld,
                                 Lumet::IpAndPort dstOld) {
   return ChipEntryKey{forward ? Kind::twiceForward : Kind::twiceReverse,
                       vrfId,
                       vlan,
                       Ip::Nat::StaticKey(),
                       Lumet::IpAddrWithFullMask(),
                       group,
                       Lumet::ConnTuple(srcOld, dstOld, 0)};
}

} // namespace Sim
