// Ulo::NatIntfStatusSm: twice NAT connections.
//
// A twice rule translates source and destination of one flow at once. Each
// entry of a group (one tuple) is two hardware translations, a forward and a
// reverse one, which stand in hardware together or not at all: a refused
// reverse add takes the forward half out again before the entry goes to the
// unprogrammed set. Delete paths work from hardware status, never from
// configuration, which may be gone already.

#include <vector>

#include "UloNat/UloNatIntfSm.h"
#include "framework/UloAssert.h"
#include "framework/VorSystem.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("UloNatIntfSmTwice");

namespace Ulo {

namespace {

// A group is dynamic when dynamic connections fill in one of its old
// addresses.
bool isDynamic(Ip::Nat::NatTwiceConnection const& conn) {
   return conn.srcOld().ip().isZero() || conn.dstOld().ip().isZero();
}

TwiceNatWatchedAddr watchedAddrOf(Lumet::ConnTuple const& addr, Ip::Nat::HwNatTwiceAddr const& natAddr) {
   return TwiceNatWatchedAddr{addr.srcAddr().ip(), natAddr.dstNew().ip()};
}

// The two translations of an entry, in the helper's argument order: old
// source, new source, old destination, new destination.
struct Translation {
   Lumet::IpAndPort srcOld, srcNew, dstOld, dstNew;
};

Translation forwardOf(Lumet::ConnTuple const& addr, Ip::Nat::HwNatTwiceAddr const& natAddr) {
   return {addr.srcAddr(), natAddr.srcNew(), addr.dstAddr(), natAddr.dstNew()};
}

Translation reverseOf(Lumet::ConnTuple const& addr, Ip::Nat::HwNatTwiceAddr const& natAddr) {
   return {natAddr.dstNew(), addr.dstAddr(), natAddr.srcNew(), addr.srcAddr()};
}

} // namespace

// ---- the walk and the keyed handler ----

void NatIntfStatusSm::handleTwiceNatConnection() {
   auto is = intfStatus();
   if (!is) return;
   // Groups first: a handler may change what the walk stands on.
   std::vector<Vor::U16> groups;
   groups.reserve(is->twiceNatConnections());
   for (auto const& [group, conn] : is->twiceNatConnection()) groups.push_back(group);
   for (auto const group : groups) handleTwiceNatConnection(group);
}

void NatIntfStatusSm::handleTwiceNatConnection(Vor::U16 group) {
   auto is = intfStatus();
   bool const present = is && is->twiceNatConnectionHas(group);
   if (present && natHelper_->hwInitialized()) {
      Ip::Nat::NatTwiceConnection const conn = is->twiceNatConnection(group);
      if (isDynamic(conn)) {
         // Half a rule: dynamic connections complete it, one tuple each.
         // What a complete version of the rule programmed is stale now.
         VOR_TRACE(7, natIntf_ << " Incomplete twice entry, group " << group);
         replaceTwiceNatConnection(group, Lumet::ConnTuple(), Ip::Nat::HwNatTwiceAddr());
         return;
      }
      Lumet::ConnTuple const tuple(conn.srcOld(), conn.dstOld(), conn.protocol());
      Ip::Nat::HwNatTwiceAddr const natAddr(conn.srcNew(), conn.dstNew());
      replaceTwiceNatConnection(group, tuple, natAddr);
      addTwiceNatConnection(group, tuple, natAddr);
      return;
   }

   auto const hwIntfStatus = this->hwIntfStatus();
   uloAssert(hwIntfStatus);
   auto const& hw = hwIntfStatus;
   auto const record = hw->twiceNatConnectionHw(group);
   if (!record) {
      // Nothing in hardware: only keys waiting for review can be left.
      if (auto ue = natSmStatus_->unprogrammedEntries(natIntf_)) {
         std::vector<TwiceNatKey> gone;
         for (auto it = ue->twiceEntries().begin(); it; ++it) {
            if (it.isLive() && it.key().group() == group) gone.push_back(it.key());
         }
         for (auto const& key : gone) ue->twiceEntriesDel(key);
         if (!gone.empty()) unprogrammed_.checkUnprogrammedEntries();
      }
      return;
   }
   bool const dynamic = record->dynamic();
   // Tuples first: each delete may remove the entry, and the last one the
   // group's record, under the walk.
   std::vector<Lumet::ConnTuple> tuples;
   tuples.reserve(record->entrys());
   for (auto const& [tuple, natAddr] : record->entry()) tuples.push_back(tuple);
   for (auto const& tuple : tuples) {
      if (dynamic) {
         // The connection lives on without its rule; review brings it back.
         VOR_TRACE(7, natIntf_ << " Move dynamic twice entry: " << tuple.stringValue());
         addUnprogrammedTwiceEntry(group, tuple, UloHelper::NatHwResult::success);
      } else {
         deleteTwiceNatConnection(group, tuple);
      }
   }
}

void NatIntfStatusSm::replaceTwiceNatConnection(Vor::U16 group, Lumet::ConnTuple const& tuple,
                                                Ip::Nat::HwNatTwiceAddr const& natAddr) {
   // A complete rule has one entry, half a rule none of its own. Whatever
   // else a non-dynamic group holds is what an earlier version of the rule
   // left: a translation whose match changed
   // would otherwise stay in hardware beside the new one (the reverse half
   // is keyed by the translated addresses), and a refused earlier version
   // would be retried by the review for ever.
   if (auto const hw = hwIntfStatus()) {
      if (auto const record = hw->twiceNatConnectionHw(group); record && !record->dynamic()) {
         std::vector<Lumet::ConnTuple> stale;
         for (auto const& [t, a] : record->entry()) {
            if (!(t == tuple) || !(a == natAddr)) stale.push_back(t);
         }
         for (auto const& t : stale) deleteTwiceNatConnection(group, t);
      }
   }
   if (auto ue = natSmStatus_->unprogrammedEntries(natIntf_)) {
      std::vector<TwiceNatKey> stale;
      for (auto it = ue->twiceEntries().begin(); it; ++it) {
         // Keys of dynamic connections wait for the dynamic path, not for
         // this rule.
         if (it.isLive() && it.key().group() == group && !(it.key().addr() == tuple) &&
             !dynamicTwice_.count(it.key().addr())) {
            stale.push_back(it.key());
         }
      }
      for (auto const& key : stale) ue->twiceEntriesDel(key);
      if (!stale.empty()) unprogrammed_.checkUnprogrammedEntries();
   }
}

// ---- helper calls ----

bool NatIntfStatusSm::addTwiceNatConnection(Vor::U16 group, Lumet::ConnTuple const& addr,
                                            Ip::Nat::HwNatTwiceAddr const& natAddr) {
   auto is = intfStatus();
   Ip::Nat::NatTwiceConnection const conn = is->twiceNatConnection(group);
   bool const dynamic = isDynamic(conn);
   vlanIdIs(conn.vlanId());

   Ptr<NatNextHopInfo const> const nextHop = natSmStatus_->getNextHopInfo(vrfId_, natAddr.dstNew().ip());
   Ptr<NatMulticastTransition> const transition =
      getMulticastTransition(conn.vlanId(), addr.srcAddr().ip(), addr.dstAddr().ip());

   Translation const fwd = forwardOf(addr, natAddr);
   UloHelper::NatHwResult result = natHelper_->addTwiceNatTranslation(
      fwd.srcOld, fwd.srcNew, fwd.dstOld, fwd.dstNew, conn.protocol(), conn.vlanId(), nextHop,
      transition->mcastToProg(), true, group, vrfId_, dynamic);
   if (result == UloHelper::NatHwResult::success) {
      bool const multicastDst = natAddr.dstNew().ip().isMulticast();
      Ptr<NatNextHopInfo const> const reverseNextHop =
         multicastDst ? Ptr<NatNextHopInfo const>() : natSmStatus_->getNextHopInfo(vrfId_, addr.srcAddr().ip());
      Translation const rev = reverseOf(addr, natAddr);
      result = natHelper_->addTwiceNatTranslation(rev.srcOld, rev.srcNew, rev.dstOld, rev.dstNew,
                                                  conn.protocol(), conn.vlanId(), reverseNextHop,
                                                  transition->mcastToProg(), false, group, vrfId_,
                                                  dynamic);
      if (result != UloHelper::NatHwResult::success) {
         // Never half a pair in hardware.
         natHelper_->delTwiceNatTranslation(fwd.srcOld, fwd.srcNew, fwd.dstOld, fwd.dstNew,
                                            conn.vlanId(), true, group, vrfId_);
      }
   }
   if (result != UloHelper::NatHwResult::success) {
      addUnprogrammedTwiceEntry(group, addr, result);
      return false;
   }

   TwiceNatKey const key(group, addr);
   if (natHelper_->immediateCommit()) {
      addTwiceHwEntry(addr, conn, natAddr);
   } else {
      addDeferredTwiceNatConnectionHw(key, natAddr, false);
      doMaybeScheduleCommit();
   }
   checkUnprogrammedTwiceEntry(group, addr, dynamic);

   // A multicast destination watches no address at all, its source neither.
   TwiceNatWatchedAddr const watched = watchedAddrOf(addr, natAddr);
   if (!watched.dstWatchedAddr.isMulticast()) {
      twiceWatchedAddr_.watch(key, watched);
   } else {
      twiceWatchedAddr_.unwatch(key);
   }
   watchMulticast(conn.vlanId(), conn.srcOld(), conn.srcNew(), conn.dstOld(), conn.dstNew(), group,
                  addr.protocol(), Ip::Nat::StaticKey());
   return true;
}

void NatIntfStatusSm::updateTwiceNatConnection(Vor::U16 group, Lumet::ConnTuple const& addr) {
   auto const hwIntfStatus = this->hwIntfStatus();
   uloAssert(hwIntfStatus);
   auto const& hw = hwIntfStatus;
   auto const record = hw->twiceNatConnectionHw(group);
   if (!record || !record->entryHas(addr)) return;
   Ip::Nat::HwNatTwiceAddr const natAddr = record->entry(addr);

   Ptr<NatNextHopInfo const> const nextHop = natSmStatus_->getNextHopInfo(vrfId_, natAddr.dstNew().ip());
   Ptr<NatMulticastTransition> const transition =
      getMulticastTransition(vlanId_, addr.srcAddr().ip(), addr.dstAddr().ip());

   Translation const fwd = forwardOf(addr, natAddr);
   UloHelper::NatHwResult result = natHelper_->updateTwiceNatTranslation(
      fwd.srcOld, fwd.srcNew, fwd.dstOld, fwd.dstNew, record->protocol(), record->vlanId(), nextHop,
      transition->mcastToProg(), true, group, vrfId_, record->dynamic());
   if (result == UloHelper::NatHwResult::success) {
      Ptr<NatNextHopInfo const> const reverseNextHop =
         natAddr.dstNew().ip().isMulticast() ? Ptr<NatNextHopInfo const>()
                                             : natSmStatus_->getNextHopInfo(vrfId_, addr.srcAddr().ip());
      Translation const rev = reverseOf(addr, natAddr);
      result = natHelper_->updateTwiceNatTranslation(
         rev.srcOld, rev.srcNew, rev.dstOld, rev.dstNew, record->protocol(), record->vlanId(),
         reverseNextHop, transition->mcastToProg(), false, group, vrfId_, record->dynamic());
   }
   if (result == UloHelper::NatHwResult::success) {
      checkUnprogrammedTwiceEntry(group, addr, record->dynamic());
      return;
   }
   addUnprogrammedTwiceEntry(group, addr, result);
}

void NatIntfStatusSm::deleteTwiceNatConnection(Vor::U16 group, Lumet::ConnTuple const& addr) {
   auto const hwIntfStatus = this->hwIntfStatus();
   uloAssert(hwIntfStatus);
   auto const& hw = hwIntfStatus;
   auto const record = hw->twiceNatConnectionHw(group);
   if (!record || !record->entryHas(addr)) return;
   Ip::Nat::HwNatTwiceAddr const natAddr = record->entry(addr);
   Vor::U16 const vlanId = record->vlanId();

   // Deletes are not refused; their results say nothing we could act on.
   Translation const fwd = forwardOf(addr, natAddr);
   natHelper_->delTwiceNatTranslation(fwd.srcOld, fwd.srcNew, fwd.dstOld, fwd.dstNew, vlanId, true,
                                      group, vrfId_);
   Translation const rev = reverseOf(addr, natAddr);
   natHelper_->delTwiceNatTranslation(rev.srcOld, rev.srcNew, rev.dstOld, rev.dstNew, vlanId, false,
                                      group, vrfId_);

   TwiceNatKey const key(group, addr);
   if (natHelper_->immediateCommit()) {
      deleteTwiceHwEntry(group, addr);
   } else {
      addDeferredTwiceNatConnectionHw(key, natAddr, true);
      doMaybeScheduleCommit();
   }

   // Gives back both addresses' references and route requests.
   twiceWatchedAddr_.unwatch(key);

   unWatchMulticast(vlanId, addr.srcAddr().ip(), addr.dstAddr().ip());
   disableMulticastWithOifs(vlanId, addr.srcAddr().ip(), addr.dstAddr().ip());
}

// ---- hardware status ----

void NatIntfStatusSm::addTwiceHwEntry(Lumet::ConnTuple const& addr, Ip::Nat::NatTwiceConnection const& conn,
                                      Ip::Nat::HwNatTwiceAddr const& natAddr) {
   auto const hwIntfStatus = this->hwIntfStatus();
   uloAssert(hwIntfStatus);
   auto const& hw = hwIntfStatus;
   auto entry = hw->twiceNatConnectionHwIs(conn.group(), conn.protocol(), conn.vlanId(), isDynamic(conn));
   entry->entryIs(addr, natAddr);
   entry->lastChangedTimeIs(addr, Vor::System::currentTime());
}

void NatIntfStatusSm::deleteTwiceHwEntry(Vor::U16 group, Lumet::ConnTuple const& addr) {
   auto const hwIntfStatus = this->hwIntfStatus();
   uloAssert(hwIntfStatus);
   auto const& hw = hwIntfStatus;
   auto const record = hw->twiceNatConnectionHw(group);
   if (!record) return;
   record->entryDel(addr);
   record->lastChangedTimeDel(addr);
   if (record->entrys() == 0) {
      VOR_TRACE(8, natIntf_ << " No addrs, deleting twice hw connection");
      hw->twiceNatConnectionHwDel(group);
   }
}

// ---- watched addresses ----

void NatIntfStatusSm::addTwiceNatKeyWatchedAddr(TwiceNatKey const& key, TwiceNatWatchedAddr const& watched) {
   twiceWatchedAddr_.keyWatchedAddrIs(key, watched);
}

void NatIntfStatusSm::removeTwiceNatKeyWatchedAddr(TwiceNatKey const& key,
                                                   TwiceNatWatchedAddr const& watched) {
   twiceWatchedAddr_.keyWatchedAddrDel(key, watched);
}

// ---- unprogrammed twice entries ----

void NatIntfStatusSm::addUnprogrammedTwiceEntry(Vor::U16 group, Lumet::ConnTuple const& tuple,
                                                UloHelper::NatHwResult result) {
   deleteTwiceNatConnection(group, tuple);
   bool const fullTable = result == UloHelper::NatHwResult::tableFull;
   if (dynamicTwice_.count(tuple)) {
      unprogrammed_.add<NatType::dynamicNat>(tuple, fullTable);
   } else {
      unprogrammed_.add<NatType::twiceNat>(TwiceNatKey(group, tuple), fullTable);
   }
}

void NatIntfStatusSm::checkUnprogrammedTwiceEntry(Vor::U16 group, Lumet::ConnTuple const& tuple,
                                                  bool dynamic) {
   if (dynamic) {
      unprogrammed_.check<NatType::dynamicNat>(tuple);
   } else {
      unprogrammed_.check<NatType::twiceNat>(TwiceNatKey(group, tuple));
   }
}

void NatIntfStatusSm::checkUnprogrammedEntries() { unprogrammed_.checkUnprogrammedEntries(); }

} // namespace Ulo
