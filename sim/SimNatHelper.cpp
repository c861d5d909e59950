#include "sim/SimNatHelper.h"

#include <tuple>

namespace Sim {

namespace {

// The smallest filter address, to start a range of one connection's entries.
Lumet::IpAddrWithFullMask const lowestFilter{};

} // namespace

bool ChipEntryKey::operator<(ChipEntryKey const& o) const {
   if (kind != o.kind) return kind < o.kind;
   if (vrfId != o.vrfId) return vrfId < o.vrfId;
   if (vlan != o.vlan) return vlan < o.vlan;
   if (staticKey < o.staticKey) return true;
   if (o.staticKey < staticKey) return false;
   if (filterAddress < o.filterAddress) return true;
   if (o.filterAddress < filterAddress) return false;
   if (group != o.group) return group < o.group;
   return match < o.match;
}

std::string ChipEntryKey::stringValue() const {
   if (kind == Kind::twiceForward || kind == Kind::twiceReverse) {
      return std::string(kind == Kind::twiceForward ? "TWICE-FWD" : "TWICE-REV") + " vrf " +
             vrfId.stringValue() + " vlan " + std::to_string(vlan) + " group " + std::to_string(group) +
             " " + match.srcAddr().stringValue() + " -> " + match.dstAddr().stringValue();
   }
   return std::string(kind == Kind::staticSrc ? "SNAT" : "DNAT") + " vrf " + vrfId.stringValue() +
          " vlan " + std::to_string(vlan) + " " + staticKey.stringValue() + " filter " + filterAddress.stringValue();
}

SimNatHelper::SimNatHelper(Vor::String name, std::size_t capacity, bool immediate)
    : UloHelper::UloHelperNat(std::move(name)), capacity_(capacity), immediate_(immediate) {}

Vor::Ptr<SimNatHelper> simNatHelperFactory(Vor::String name, std::size_t capacity, bool immediate) {
   return Vor::Ptr<SimNatHelper>(new SimNatHelper(std::move(name), capacity, immediate));
}

std::size_t SimNatHelper::entriesOf(Ip::Nat::StaticKey const& key, Ulo::VrfId vrfId,
                                    U16 vlan) const {
   std::size_t n = 0;
   for (auto kind : {ChipEntryKey::Kind::staticSrc, ChipEntryKey::Kind::staticDst}) {
      ChipEntryKey const from{kind, vrfId, vlan, key, lowestFilter, 0, {}};
      for (auto it = entries_.lower_bound(from);
           it != entries_.end() && it->first.kind == kind && it->first.vrfId == vrfId &&
           it->first.vlan == vlan && it->first.staticKey == key;
           ++it) {
         ++n;
      }
   }
   return n;
}

// ---- lifecycle ----

void SimNatHelper::hwInit() {
   ++counts_.hwInit;
   lifecycle_.push_back(replay() ? "hwInit(replay)" : "hwInit");
   UloHelper::UloHelperNat::hwInit();
}

bool SimNatHelper::doHandleAsyncHwStatus(Ulo::NatHwKey const&) {
   ++counts_.asyncHwStatus;
   return asyncHwStatusResult_;
}

void SimNatHelper::hwCleanup() {
   ++counts_.hwCleanup;
   lifecycle_.push_back("hwCleanup");
   // The chip is released: what it held is gone.
   entries_.clear();
   staged_.clear();
   stagedPresence_.clear();
   stagedDelta_ = 0;
}

void SimNatHelper::replayReconcile() {
   ++counts_.replayReconcile;
   lifecycle_.push_back(replay() ? "replayReconcile(replay)" : "replayReconcile");
}

void SimNatHelper::updateCounterStatus(bool enabled) {
   ++counts_.updateCounterStatus;
   lifecycle_.push_back(enabled ? "updateCounterStatus(on)" : "updateCounterStatus(off)");
}

// ---- the table ----

bool SimNatHelper::refuseNow() {
   if (refuseNext_ == 0) return false;
   --refuseNext_;
   ++counts_.refused;
   return true;
}

bool SimNatHelper::presentAfterStage(ChipEntryKey const& key) const {
   auto it = stagedPresence_.find(key);
   if (it != stagedPresence_.end()) return it->second;
   return entries_.count(key) != 0;
}

std::size_t SimNatHelper::occupancyAfterStage() const {
   return static_cast<std::size_t>(static_cast<long>(entries_.size()) + stagedDelta_) + sideOccupancy();
}

void SimNatHelper::stage(StagedOp const& op) {
   bool const before = presentAfterStage(op.key);
   bool const after = op.kind == StagedOp::Kind::put;
   bool const onChip = entries_.count(op.key) != 0;
   stagedDelta_ += static_cast<long>(after) - static_cast<long>(before);
   if (after == onChip) {
      stagedPresence_.erase(op.key);
   } else {
      stagedPresence_[op.key] = after;
   }
   staged_.push_back(op);
}

bool SimNatHelper::put(ChipEntryKey const& key, ChipEntry const& entry, bool isUpdate) {
   if (refuseNow()) return false;
   bool const present = immediate_ ? entries_.count(key) != 0 : presentAfterStage(key);
   std::size_t const occupancy = immediate_ ? entries_.size() + sideOccupancy() : occupancyAfterStage();
   if (!present && occupancy >= capacity_) {
      ++counts_.refused;
      return false;
   }
   if (isUpdate) {
      ++counts_.updates;
   } else {
      ++counts_.adds;
      if (replay()) ++counts_.addsDuringReplay;
   }
   if (immediate_) {
      entries_[key] = entry;
   } else {
      stage(StagedOp{StagedOp::Kind::put, key, entry});
   }
   return true;
}

void SimNatHelper::eraseAll(ChipEntryKey::Kind kind, U16 vlan, Ip::Nat::StaticKey const& staticKey,
                            Ulo::VrfId vrfId) {
   ChipEntryKey const from{kind, vrfId, vlan, staticKey, lowestFilter, 0, {}};
   auto const inRange = [&](ChipEntryKey const& k) {
      return k.kind == kind && k.vrfId == vrfId && k.vlan == vlan && k.staticKey == staticKey;
   };
   if (immediate_) {
      auto it = entries_.lower_bound(from);
      while (it != entries_.end() && inRange(it->first)) it = entries_.erase(it);
      return;
   }
   std::vector<ChipEntryKey> keys;
   for (auto it = entries_.lower_bound(from); it != entries_.end() && inRange(it->first); ++it) {
      keys.push_back(it->first);
   }
   for (auto it = stagedPresence_.lower_bound(from);
        it != stagedPresence_.end() && inRange(it->first); ++it) {
      if (it->second) keys.push_back(it->first);
   }
   for (auto const& k : keys) {
      if (presentAfterStage(k)) stage(StagedOp{StagedOp::Kind::erase, k, ChipEntry{}});
   }
}

void SimNatHelper::eraseOne(ChipEntryKey const& key) {
   if (immediate_) {
      entries_.erase(key);
      return;
   }
   if (presentAfterStage(key)) stage(StagedOp{StagedOp::Kind::erase, key, ChipEntry{}});
}

bool SimNatHelper::commitHwTranslations() {
   ++counts_.commits;
   if (failNextCommit_) {
      --failNextCommit_;
      ++counts_.failedCommits;
      // The chip refused the batch as a whole: it holds what it held.
      staged_.clear();
      stagedPresence_.clear();
      stagedDelta_ = 0;
      return false;
   }
   for (auto const& op : staged_) {
      if (op.kind == StagedOp::Kind::put) {
         entries_[op.key] = op.entry;
      } else {
         entries_.erase(op.key);
      }
   }
   staged_.clear();
   stagedPresence_.clear();
   stagedDelta_ = 0;
   return true;
}

// ---- single-address static operations ----

bool SimNatHelper::addStaticIpTranslations(Ip::Nat::NatStaticConnection const& connEntry, U16 vlan,
                                           Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                           MulticastInfo multicastInfo, Ulo::VrfId vrfId, bool aclSharing) {
   eraseAll(ChipEntryKey::Kind::staticSrc, vlan, staticKey, vrfId);
   eraseAll(ChipEntryKey::Kind::staticDst, vlan, staticKey, vrfId);
   return UloHelper::UloHelperNat::addStaticIpTranslations(connEntry, vlan, staticKey, std::move(nextHop),
                                                           std::move(multicastInfo), vrfId, aclSharing);
}

bool SimNatHelper::putStatic(ChipEntryKey::Kind kind, IpAndPort const& oldIpAndPort,
                             IpAndPort const& newIpAndPort, IpAddrWithFullMask const& filterAddress,
                             U8 protocol, U16 vlan, Ip::Nat::StaticKey const& staticKey,
                             NextHop const& nextHop, MulticastInfo const& multicastInfo, bool forward,
                             Ulo::VrfId vrfId, bool isUpdate) {
   ChipEntry const entry{oldIpAndPort,
                         newIpAndPort,
                         protocol,
                         vlan,
                         forward,
                         Ulo::natHwNextHopId(nextHop),
                         multicastInfo && multicastInfo->multicast(),
                         {},
                         {},
                         multicastInfo ? multicastInfo->oifSet() : Ulo::NatMrouteOifSet()};
   return put(ChipEntryKey{kind, vrfId, vlan, staticKey, filterAddress, 0, {}}, entry, isUpdate);
}

} // namespace Sim
