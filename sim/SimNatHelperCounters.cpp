// Sim::SimNatHelper: packets counted per chip entry, and the polls that take
// them.

#include "sim/SimNatHelper.h"

namespace Sim {

namespace {

Lumet::IpAddrWithFullMask const lowestFilter{};

} // namespace

bool SimNatHelper::staticTrafficIs(Ip::Nat::StaticKey const& key, Ulo::VrfId vrfId, U16 vlan, bool reply,
                                   U64 packets) {
   auto const kind = reply ? ChipEntryKey::Kind::staticDst : ChipEntryKey::Kind::staticSrc;
   auto it = entries_.lower_bound(ChipEntryKey{kind, vrfId, vlan, key, lowestFilter, 0, {}});
   if (it == entries_.end() || it->first.kind != kind || !(it->first.vrfId == vrfId) ||
       it->first.vlan != vlan || !(it->first.staticKey == key)) {
      return false;
   }
   pendingPackets_[it->first] += packets;
   return true;
}

std::optional<ChipEntryKey> SimNatHelper::twiceHalfKey(bool forward, Ulo::VrfId vrfId, U16 vlan, U16 group,
                                                       Lumet::ConnTuple const& tuple) const {
   ChipEntryKey const forwardKey = ChipEntryKey::twice(true, vrfId, vlan, group, tuple.srcAddr(), tuple.dstAddr());
   auto it = entries_.find(forwardKey);
   if (it == entries_.end()) return std::nullopt;
   if (forward) return forwardKey;
   // The reverse half matches the forward half's translated destination as
   // its source and its translated source as its destination.
   return ChipEntryKey::twice(false, vrfId, vlan, group, it->second.dstNewIpAndPort, it->second.newIpAndPort);
}

bool SimNatHelper::twiceTrafficIs(Ulo::VrfId vrfId, U16 vlan, U16 group, Lumet::ConnTuple const& tuple,
                                  bool reply, U64 packets) {
   auto const key = twiceHalfKey(!reply, vrfId, vlan, group, tuple);
   if (!key || !entries_.count(*key)) return false;
   pendingPackets_[*key] += packets;
   return true;
}

U64 SimNatHelper::pendingPackets() const {
   U64 total = 0;
   for (auto const& [key, packets] : pendingPackets_) total += packets;
   for (auto const& [key, packets] : dynamicPackets_) total += packets;
   return total;
}

UloHelper::UloHelperNat::NatCounter SimNatHelper::getDynamicSrcCountersSinceLastPoll(U16, Lumet::ConnTuple const& conn,
                                                                                     Ulo::VrfId) {
   auto it = dynamicPackets_.find({conn, false});
   if (it == dynamicPackets_.end()) return NatCounter();
   U64 const packets = it->second;
   dynamicPackets_.erase(it);
   return NatCounter(packets, 0);
}

UloHelper::UloHelperNat::NatCounter SimNatHelper::getDynamicDstCountersSinceLastPoll(U16, Lumet::ConnTuple const& conn,
                                                                                     bool, IpAndPort const&,
                                                                                     Ulo::VrfId) {
   auto it = dynamicPackets_.find({conn, true});
   if (it == dynamicPackets_.end()) return NatCounter();
   U64 const packets = it->second;
   dynamicPackets_.erase(it);
   return NatCounter(packets, 0);
}

bool SimNatHelper::dynamicTwiceActive(U16, U8, IpAndPort, IpAndPort, IpAndPort, IpAndPort) {
   ++dynamicTwiceActiveCalls;
   return dynamicTwiceActiveAnswer;
}

U64 SimNatHelper::takePackets(ChipEntryKey const& key) {
   auto it = pendingPackets_.find(key);
   if (it == pendingPackets_.end()) return 0;
   U64 const packets = entries_.count(key) ? it->second : 0;
   pendingPackets_.erase(it);
   return packets;
}

U64 SimNatHelper::takeStaticPackets(ChipEntryKey::Kind kind, Ip::Nat::HwNatStaticConnection const& conn,
                                    Ulo::VrfId vrfId) {
   U64 total = 0;
   auto it = pendingPackets_.lower_bound(
      ChipEntryKey{kind, vrfId, conn.vlanId(), conn.key(), lowestFilter, 0, {}});
   while (it != pendingPackets_.end() && it->first.kind == kind && it->first.vrfId == vrfId &&
          it->first.vlan == conn.vlanId() && it->first.staticKey == conn.key()) {
      if (entries_.count(it->first)) total += it->second;
      it = pendingPackets_.erase(it);
   }
   return total;
}

UloHelper::UloHelperNat::NatCounter SimNatHelper::getStaticSrcCountersSinceLastPoll(
   Vor::Ptr<Ip::Nat::HwNatStaticConnection const> conn, NatCounter const&, Ulo::VrfId vrfId) {
   if (!conn) return NatCounter();
   return NatCounter(takeStaticPackets(ChipEntryKey::Kind::staticSrc, *conn, vrfId), 0);
}

UloHelper::UloHelperNat::NatCounter SimNatHelper::getStaticDstCountersSinceLastPoll(
   Vor::Ptr<Ip::Nat::HwNatStaticConnection const> conn, NatCounter const&, Ulo::VrfId vrfId) {
   if (!conn) return NatCounter();
   return NatCounter(takeStaticPackets(ChipEntryKey::Kind::staticDst, *conn, vrfId), 0);
}

UloHelper::UloHelperNat::NatCounter SimNatHelper::getTwiceNatSrcCountersSinceLastPoll(
   U16 vlan, U8, U16 natGroupId, IpAndPort srcIpAndPort, IpAndPort dstIpAndPort, Ulo::VrfId vrfId) {
   auto const key = twiceHalfKey(true, vrfId, vlan, natGroupId, Lumet::ConnTuple(srcIpAndPort, dstIpAndPort, 0));
   return NatCounter(key ? takePackets(*key) : 0, 0);
}

UloHelper::UloHelperNat::NatCounter SimNatHelper::getTwiceNatDstCountersSinceLastPoll(
   U16 vlan, U8, U16 natGroupId, IpAndPort srcIpAndPort, IpAndPort dstIpAndPort, Ulo::VrfId vrfId) {
   auto const key = twiceHalfKey(false, vrfId, vlan, natGroupId, Lumet::ConnTuple(srcIpAndPort, dstIpAndPort, 0));
   return NatCounter(key ? takePackets(*key) : 0, 0);
}

} // namespace Sim
