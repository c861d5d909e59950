// Ulo::NatIntfStatusSm: dynamic connections, the per-VRF indexes that settle
// collisions between them, the collapsing dynamic backlog, and the dynamic
// unprogrammed entries.
//
// Connection tracking produces connections far faster than hardware takes
// them, so the keyed handler only records what must happen to a tuple
// (deferredDynamicNat) and the backlog task does the hardware work in slices
// that give way after every request.

#include <vector>

#include "UloNat/UloNatIntfSm.h"
#include "framework/UloAssert.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("UloNatIntfSmDynamic");

namespace Ulo {

namespace {

using Lumet::ConnTuple;
using Lumet::IpAndPort;

constexpr Vor::U8 tcpProtocol = 6;
constexpr Vor::U8 udpProtocol = 17;

// The three addresses of a dynamic connection's helper calls. The source call
// takes (a, b, c); the destination, update and delete calls take (b, c, a).
struct DynamicAddrs {
   IpAndPort a;
   IpAndPort b;
   IpAndPort c;
};

DynamicAddrs dynamicAddrsOf(ConnTuple const& tuple, Ip::Nat::NatTarget target, IpAndPort const& global) {
   if (target == Ip::Nat::destination) return {global, tuple.srcAddr(), tuple.dstAddr()};
   return {tuple.srcAddr(), tuple.dstAddr(), global};
}

// The reverse tuple: how the answer of the translated flow looks.
ConnTuple reverseTupleOf(ConnTuple const& tuple, IpAndPort const& global) {
   return ConnTuple(tuple.dstAddr(), global, tuple.protocol());
}

// For the assertion on a request that meets a pending entry.
constexpr DeferredDynamicNatEvent deleteDyn() { return DeferredDynamicNatEvent::deleteDyn; }

char const* eventName(DeferredDynamicNatEvent event) {
   switch (event) {
   case DeferredDynamicNatEvent::addDyn: return "addDyn";
   case DeferredDynamicNatEvent::deleteDyn: return "deleteDyn";
   case DeferredDynamicNatEvent::updateDyn: return "updateDyn";
   case DeferredDynamicNatEvent::deleteAndAddDyn: return "deleteAndAddDyn";
   }
   return "unknown";
}

} // namespace

Vor::U16 NatIntfStatusSm::dynamicVlan(Ip::Nat::DynamicConnectionKey const& key) const {
   if (natHelper_->hwNatProfileSupported()) return intfProfileId(key.intfId());
   return vlanId_;
}

// ---- the walk and the keyed handler ----

void NatIntfStatusSm::handleDynamicConnection() {
   // Keys first: the keyed handler may program inline, which changes the
   // tables the walk would stand on.
   std::vector<Ip::Nat::DynamicConnectionKey> keys;
   dynamicConnectionStatus_->dynamicConnectionWalk(
      Ip::Nat::DynamicConnectionKey(natIntf_, ConnTuple()), [&](Ip::Nat::DynamicConnection const& conn) {
         if (!(conn.key().intfId() == natIntf_)) return false;
         keys.push_back(conn.key());
         return true;
      });
   for (auto const& key : keys) handleDynamicConnection(key);
}

void NatIntfStatusSm::handleDynamicConnection(Ip::Nat::DynamicConnectionKey const& key) {
   if (!natHelper_->hwInitialized()) return;
   ConnTuple const tuple = key.connTuple();
   auto const lookup = dynamicConnectionStatus_->dynamicConnection(key);
   bool const inline_ = natHelper_->skipDeferredProcessingOnInit() && connectionInitInProgress_;
   if (lookup.present) {
      Ip::Nat::DynamicConnection const& conn = lookup.record;
      if (!conn.addrOnly() && tuple.protocol() != tcpProtocol && tuple.protocol() != udpProtocol) {
         // Only address-only rules translate other protocols.
         VOR_TRACE(8, natIntf_ << " ignoring dynamic connection " << tuple.stringValue());
         return;
      }
      if (!conn.twiceNat()) {
         if (inline_) {
            handleAddDynamicConnection(key, conn);
         } else {
            addDeferredDynamicNatRequest(key, DeferredDynamicNatEvent::addDyn);
         }
         return;
      }
      Vor::U16 group = 0;
      if (status_ && status_->natGroupInfoHas(conn.connMark())) {
         group = status_->natGroupInfo(conn.connMark()).group;
      }
      VOR_TRACE(7, "Dynamic twice entry, connMark; " << conn.connMark() << ", group: " << group);
      dynamicTwice_[tuple] = group;
      if (group != 0 && handleDynamicTwiceConnection(key, group, conn)) return;
      // No group took it (yet): the tuple waits in the unprogrammed set for
      // the review, which brings it back here.
      addUnprogrammedDynamicTwiceEntry(tuple);
      return;
   }

   auto twice = dynamicTwice_.find(tuple);
   if (twice == dynamicTwice_.end()) {
      if (inline_) {
         deleteDynamicConnection(key);
         checkUnprogrammedDynamicEntry(tuple);
      } else {
         addDeferredDynamicNatRequest(key, DeferredDynamicNatEvent::deleteDyn);
      }
      return;
   }
   // Twice dynamic connections never use the backlog. Only an entry of a
   // dynamic group is this connection's to remove: a static group's entry of
   // the same tuple belongs to its rule.
   Vor::U16 const group = twice->second;
   if (group != 0) {
      auto const hw = hwIntfStatus();
      auto const record = hw ? hw->twiceNatConnectionHw(group) : nullptr;
      if (record && record->dynamic()) deleteTwiceNatConnection(group, tuple);
   }
   checkUnprogrammedDynamicEntry(tuple);
   dynamicTwice_.erase(tuple);
}

bool NatIntfStatusSm::handleDynamicTwiceConnection(Ip::Nat::DynamicConnectionKey const& key, Vor::U16 group,
                                                   Ip::Nat::DynamicConnection const& dynConn) {
   uloAssert(dynConn.twiceNat());
   ConnTuple const tuple = key.connTuple();
   auto const is = intfStatus();
   if (!is || !is->twiceNatConnectionHas(group)) {
      VOR_TRACE(7, "No twice NAT entry configured");
      return false;
   }
   Ip::Nat::NatTwiceConnection const rule = is->twiceNatConnection(group);
   if (rule.protocol() != 0 && rule.protocol() != tuple.protocol()) {
      VOR_TRACE(7, "Protocol mismatch: twice: " << int(rule.protocol()) << ", dynamic: " << int(tuple.protocol()));
      return false;
   }
   IpAndPort srcNew;
   IpAndPort dstNew;
   if (dynConn.target() == Ip::Nat::destination) {
      // The dynamic side supplies the destination, so the rule must leave it
      // open; a fixed destination in the rule beats the dynamic claim.
      if (rule.dstOld().isSet()) {
         VOR_TRACE(7, "Found destination static entry with destination dynamic entry");
         return false;
      }
      if (!(rule.srcOld().ip() == tuple.srcAddr().ip())) {
         VOR_TRACE(7, "Mismatch between src addresses. Twice src: " << rule.srcOld().stringValue()
                                                                    << ", dynamic: " << tuple.stringValue());
         return false;
      }
      if (rule.srcOld().port() != 0 && rule.srcOld().port() != tuple.srcAddr().port()) {
         VOR_TRACE(7, "Mismatch between src ports. Twice src: " << rule.srcOld().stringValue()
                                                                << ", dynamic: " << tuple.stringValue());
         return false;
      }
      srcNew = rule.srcNew();
      dstNew = dynConn.globalAddress();
   } else {
      if (rule.srcOld().isSet()) {
         VOR_TRACE(7, "Found source static entry with source dynamic entry");
         return false;
      }
      if (!(rule.dstOld().ip() == tuple.dstAddr().ip())) {
         VOR_TRACE(7, "Mismatch between dst addresses. Twice dst: " << rule.dstOld().stringValue()
                                                                    << ", dynamic: " << tuple.stringValue());
         return false;
      }
      if (rule.dstOld().port() != 0 && rule.dstOld().port() != tuple.dstAddr().port()) {
         VOR_TRACE(7, "Mismatch between dst ports. Twice dst: " << rule.dstOld().stringValue()
                                                                << ", dynamic: " << tuple.stringValue());
         return false;
      }
      srcNew = dynConn.globalAddress();
      dstNew = rule.dstNew();
   }
   auto const hwIntfStatus = this->hwIntfStatus();
   uloAssert(hwIntfStatus);
   if (auto const record = hwIntfStatus->twiceNatConnectionHw(group)) {
      // A pair of addresses serves TCP or UDP in a group, not both.
      Vor::U8 const other = tuple.protocol() == tcpProtocol ? udpProtocol : tcpProtocol;
      if (record->entryHas(ConnTuple(tuple.srcAddr(), tuple.dstAddr(), other))) {
         VOR_TRACE(7, "Found existing twice nat entry with same key");
         return false;
      }
   }
   return addTwiceNatConnection(group, tuple, Ip::Nat::HwNatTwiceAddr(srcNew, dstNew));
}

void NatIntfStatusSm::handleAddDynamicConnection(Ip::Nat::DynamicConnectionKey const& key,
                                                 Ip::Nat::DynamicConnection const& conn) {
   if (!addDynamicConnection(key, conn)) return;
   ConnTuple const tuple = key.connTuple();
   Lumet::IpAddr const addr =
      conn.target() == Ip::Nat::destination ? conn.globalAddress().ip() : tuple.srcAddr().ip();
   // A tuple already watching (a re-add over a live entry) keeps its one
   // reference: the index takes a reference only for a new or changed
   // address.
   dynamicWatchedAddr_.watch(tuple, addr);
}

bool NatIntfStatusSm::addDynamicConnection(Ip::Nat::DynamicConnectionKey const& key,
                                           Ip::Nat::DynamicConnection const& conn) {
   ConnTuple const tuple = key.connTuple();
   IpAndPort const global = conn.globalAddress();
   DynamicAddrs const addrs = dynamicAddrsOf(tuple, conn.target(), global);
   bool const fullCone = conn.fullCone();
   bool const addrOnly = conn.addrOnly();
   bool const globalEntries = natHelper_->globalHwDynamicEntries();
   bool const fullConeEntries = fullCone && natHelper_->fullConeHwEntries(tuple.protocol());

   if (globalEntries && !addrOnly) checkDuplicateConnection(tuple, global, fullCone);

   Vor::U16 const vlan = dynamicVlan(key);
   if (!natHelper_->addDynamicSrcIpTranslation(tuple, addrs.a, addrs.b, addrs.c, vlan, vrfId_)) {
      addUnprogrammedDynamicEntry(key);
      return false;
   }

   if (!dynamicConnectionHwStatus_->dynamicConnectionHwHas(key)) {
      Ip::Nat::DynamicConnectionHw record(key, global, taskScheduler_->now());
      record.targetIs(conn.target());
      record.fullConeIs(fullCone);
      record.addrOnlyIs(addrOnly);
      dynamicConnectionHwStatus_->dynamicConnectionHwIs(record);
      auto const hwIntfStatus = this->hwIntfStatus();
      uloAssert(hwIntfStatus);
      hwIntfStatus->dynamicConnectionHwTotalCntInc(1);
   }

   Ptr<DynamicFullConeHwEntry> existing =
      fullConeEntries ? vrfStatus_->dynamicFullConeHwEntries(global) : Ptr<DynamicFullConeHwEntry>();
   if (existing) {
      // The destination entry of this NAT address is in hardware already:
      // one more remote shares it.
      existing->dstAddrIs(tuple.dstAddr());
      VOR_TRACE(7, "Existing full cone entry found, added dst: " << tuple.dstAddr().stringValue()
                                                                << ", dstAddrs: " << existing->dstAddrs());
      VOR_TRACE(7, "Skip dst nat notification: " << true);
      checkUnprogrammedDynamicEntry(tuple);
   } else {
      Lumet::IpAddr const nextHopAddr = addrs.a.ip();
      auto const nextHop = natSmStatus_->getNextHopInfo(vrfId_, nextHopAddr);
      if (!natHelper_->addDynamicDstIpTranslation(tuple, addrs.b, addrs.c, addrs.a, nextHop, vlan, fullCone,
                                                  vrfId_)) {
         addUnprogrammedDynamicEntry(key);
         return false;
      }
      checkUnprogrammedDynamicEntry(tuple);
   }

   if (fullConeEntries) {
      auto entry = vrfStatus_->dynamicFullConeHwEntriesIs(global);
      uloAssert(entry);
      entry->srcAddrIs(tuple.srcAddr());
      entry->natIntfIs(natIntf_);
      entry->dstAddrIs(tuple.dstAddr());
   }
   if (globalEntries && !addrOnly) {
      vrfStatus_->dynamicFwdHwEntriesIs(tuple, global, natIntf_);
      vrfStatus_->dynamicRvsHwEntriesIs(reverseTupleOf(tuple, global), tuple.srcAddr(), natIntf_);
   }
   return true;
}

void NatIntfStatusSm::updateDynamicConnection(Ip::Nat::DynamicConnectionKey const& key) {
   ConnTuple const tuple = key.connTuple();
   auto const lookup = dynamicConnectionStatus_->dynamicConnection(key);
   Ip::Nat::DynamicConnection const& conn = lookup.record;
   DynamicAddrs const addrs = dynamicAddrsOf(tuple, conn.target(), conn.globalAddress());
   auto const nextHop = natSmStatus_->getNextHopInfo(vrfId_, addrs.a.ip());
   // Only the destination translation depends on a next hop.
   if (natHelper_->updateDynamicDstIpTranslation(tuple, addrs.b, addrs.c, addrs.a, nextHop, dynamicVlan(key),
                                                 conn.fullCone(), vrfId_)) {
      checkUnprogrammedDynamicEntry(tuple);
   } else {
      addUnprogrammedDynamicEntry(key);
   }
}

void NatIntfStatusSm::deleteDynamicConnection(Ip::Nat::DynamicConnectionKey const& key) {
   ConnTuple const tuple = key.connTuple();
   // The watched address is held by the engine of the connection's own
   // interface. A duplicate deleted here on behalf of another interface
   // leaves that engine's watch alone: it goes when that engine deletes the
   // connection, and a next-hop change meanwhile finds nothing in hardware.
   if (key.intfId() == natIntf_) dynamicWatchedAddr_.unwatch(tuple);
   auto const lookup = dynamicConnectionHwStatus_->dynamicConnectionHw(key);
   DynamicAddrs addrs;
   bool fullCone = false;
   bool addrOnly = false;
   if (!lookup.present) {
      VOR_TRACE(8, "Dynamic connection not present in hw");
      // Otherwise the helper is called with empty addresses: it finds its
      // entries by tuple.
      if (natSmStatus_->hwConnEntryRqrdOnDelete()) return;
   } else {
      Ip::Nat::DynamicConnectionHw const& hw = lookup.record;
      fullCone = hw.fullCone();
      addrOnly = hw.addrOnly();
      addrs = dynamicAddrsOf(tuple, hw.target(), hw.globalAddress());
   }
   Vor::U16 const vlan = dynamicVlan(key);
   natHelper_->deleteDynamicSrcIpTranslation(tuple, addrs.a, addrs.b, addrs.c, vlan, vrfId_);

   bool skipDst = false;
   if (fullCone && natHelper_->fullConeHwEntries(tuple.protocol())) {
      // Other connections to the same NAT address share its destination
      // entry; it goes with the last of them. The forward and reverse index
      // entries of such a connection are left as they are.
      if (auto entry = vrfStatus_->dynamicFullConeHwEntries(addrs.c)) {
         entry->dstAddrDel(tuple.dstAddr());
         if (entry->dstAddrs() == 0) {
            vrfStatus_->dynamicFullConeHwEntriesDel(addrs.c);
         } else {
            skipDst = true;
         }
      }
      VOR_TRACE(7, "Skip dst nat notification: " << skipDst);
   } else if (natHelper_->globalHwDynamicEntries() && !addrOnly) {
      if (auto fwd = vrfStatus_->dynamicFwdHwEntries(tuple)) {
         ConnTuple const reverse = reverseTupleOf(tuple, fwd->natAddr());
         vrfStatus_->dynamicFwdHwEntriesDel(tuple);
         vrfStatus_->dynamicRvsHwEntriesDel(reverse);
      }
   }
   if (!skipDst) {
      natHelper_->deleteDynamicDstIpTranslation(tuple, addrs.b, addrs.c, addrs.a, vlan, fullCone, vrfId_);
   }

   if (lookup.present) {
      if (auto hw = hwIntfStatus()) hw->dynamicConnectionHwTotalCntDec(1);
   }
   dynamicConnectionHwStatus_->dynamicConnectionHwDel(key);
   if (auto keyHw = hwStatus_->intfStatus(key.intfId())) keyHw->dynamicConnectionHwCountDel(tuple);

}

// ---- collisions ----

void NatIntfStatusSm::checkDuplicateConnection(ConnTuple const& connTuple, IpAndPort const& natAddr,
                                               bool fullCone) {
   if (auto fwd = vrfStatus_->dynamicFwdHwEntries(connTuple)) {
      VOR_TRACE(5, "Fwd entry already exists, fullCone: " << fullCone);
      VOR_TRACE(5, "Fwd entry mismatch, conn: " << connTuple.stringValue() << ", fc: " << fullCone);
      deleteDuplicateConnection(connTuple, true);
   }
   if (fullCone && natHelper_->fullConeHwEntries(connTuple.protocol())) {
      auto entry = vrfStatus_->dynamicFullConeHwEntries(natAddr);
      if (!entry) return;
      if (!(entry->srcAddr() == connTuple.srcAddr() && entry->natIntf() == natIntf_)) {
         VOR_TRACE(5, "Found mismatching full cone entry. natAddr: "
                         << natAddr.stringValue() << ", conn: " << connTuple.stringValue()
                         << ", old src: " << entry->srcAddr().stringValue() << ", intf: " << natIntf_
                         << ", old intf: " << entry->natIntf());
         VOR_TRACE(5, "Full cone entry mismatch, natAddr: " << natAddr.stringValue() << ", conn: "
                                                            << connTuple.stringValue()
                                                            << ", oldSrc: " << entry->srcAddr().stringValue());
         // The old source loses every remote of its NAT address. Copy them:
         // the last delete removes the entry itself.
         IpAndPort const oldSrc = entry->srcAddr();
         Lumet::IntfId const oldIntf = entry->natIntf();
         std::vector<IpAndPort> remotes;
         for (auto it = entry->dstAddr().begin(); it; ++it) {
            if (it.isLive()) remotes.push_back(it.key());
         }
         for (auto const& dst : remotes) {
            ConnTuple const old(oldSrc, dst, connTuple.protocol());
            VOR_TRACE(5, "Deleting full cone connection: " << old.stringValue());
            deleteDynamicConnection(Ip::Nat::DynamicConnectionKey(oldIntf, old));
         }
      }
      uloAssert(!entry->dstAddrHas( connTuple.dstAddr() ));
      return;
   }
   if (vrfStatus_->dynamicRvsHwEntries(connTuple)) {
      VOR_TRACE(5, "Fwd entry already exists as rvs");
      VOR_TRACE(5, "Fwd/rvs entry mismatch, conn: " << connTuple.stringValue());
      deleteDuplicateConnection(connTuple, false);
   }
   ConnTuple const reverse = reverseTupleOf(connTuple, natAddr);
   if (vrfStatus_->dynamicFwdHwEntries(reverse)) {
      VOR_TRACE(5, "Rvs entry already exists as fwd");
      VOR_TRACE(5, "Rvs/fsd entry mismatch, conn: " << connTuple.stringValue());
      deleteDuplicateConnection(reverse, true);
   }
   if (vrfStatus_->dynamicRvsHwEntries(reverse)) {
      VOR_TRACE(5, "Rvs entry already exists");
      VOR_TRACE(5, "Rvs entry mismatch, conn: " << connTuple.stringValue());
      deleteDuplicateConnection(reverse, false);
   }
}

void NatIntfStatusSm::deleteDuplicateConnection(ConnTuple const& tuple, bool fwd) {
   // The index is per VRF and the engine per interface: the duplicate may
   // belong to another interface's engine, and is removed through this one.
   if (fwd) {
      auto entry = vrfStatus_->dynamicFwdHwEntries(tuple);
      if (!entry) return;
      deleteDynamicConnection(Ip::Nat::DynamicConnectionKey(entry->natIntf(), tuple));
      return;
   }
   auto entry = vrfStatus_->dynamicRvsHwEntries(tuple);
   if (!entry) return;
   ConnTuple const first(entry->natAddr(), tuple.srcAddr(), tuple.protocol());
   deleteDynamicConnection(Ip::Nat::DynamicConnectionKey(entry->natIntf(), first));
}

// ---- the backlog ----

void NatIntfStatusSm::addDeferredDynamicNatRequest(Ip::Nat::DynamicConnectionKey const& key,
                                                   DeferredDynamicNatEvent op) {
   using E = DeferredDynamicNatEvent;
   ConnTuple const tuple = key.connTuple();
   bool const hwEntry = dynamicConnectionHwStatus_->dynamicConnectionHwHas(key);
   ++dynamicRequests_;
   E const* pending = deferredDynamicNat_.entry(tuple);
   if (!pending) {
      VOR_TRACE(8, "Created new backlog entry");
      E const state = op == E::addDyn && hwEntry ? E::deleteAndAddDyn : op;
      deferredDynamicNat_.entryIs(tuple, state);
      startDynamicBacklogTask();
      return;
   }
   VOR_TRACE(8, "Found existing backlog entry, state: " << eventName(*pending));
   ++dynamicRequestsCollapsed_;
   switch (op) {
   case E::updateDyn:
      // The pending add or delete programs the current next hop anyway.
      return;
   case E::addDyn:
      deferredDynamicNat_.entryIs(tuple, hwEntry ? E::deleteAndAddDyn : E::addDyn);
      break;
   default:
      uloAssert(op == deleteDyn());
      if (hwEntry) {
         deferredDynamicNat_.entryIs(tuple, E::deleteDyn);
      } else {
         // Nothing was programmed, so there is nothing to undo.
         deferredDynamicNat_.del(tuple);
      }
      break;
   }
   startDynamicBacklogTask();
}

void NatIntfStatusSm::startDynamicBacklogTask() {
   if (deferredDynamicNat_.empty() || !dynamicTask_) return;
   if (!dynamicTask_->taskScheduled()) dynamicTask_->scheduleTask();
}

void NatIntfStatusSm::doProcessBacklogDynamic() {
   using E = DeferredDynamicNatEvent;
   if (!cleanupInProgress_ && !(dynamicTask_ && dynamicTask_->taskCurrentlyRunning())) {
      VOR_TRACE(8, "Task not running");
      return;
   }
   if (!deferredDynamicNat_.empty()) uloAssert(natHelper()->hwInitialized());

   Vor::U64 processed = 0;
   bool yielded = false;
   // Deletions first, so that an address is free before a new connection
   // claims it. Each entry records its own progress, so a yield in the first
   // pass repeats nothing on the next run.
   for (bool deletePass : {true, false}) {
      deferredDynamicNat_.walk([&](ConnTuple const& tuple, E const state) {
         Ip::Nat::DynamicConnectionKey const key(natIntf_, tuple);
         if (deletePass && state == E::addDyn) return true;
         // The entry leaves the list before its operation runs: a request
         // that the operation causes for this tuple makes a fresh entry.
         if (deletePass && state == E::deleteAndAddDyn) {
            deleteDynamicConnection(key);
            checkUnprogrammedDynamicEntry(tuple);
            E const* again = deferredDynamicNat_.entry(tuple);
            if (again && *again == E::deleteAndAddDyn) deferredDynamicNat_.entryIs(tuple, E::addDyn);
         } else if (state == E::deleteDyn) {
            deferredDynamicNat_.del(tuple);
            deleteDynamicConnection(key);
            checkUnprogrammedDynamicEntry(tuple);
         } else if (state == E::updateDyn) {
            deferredDynamicNat_.del(tuple);
            updateDynamicConnection(key);
         } else {
            deferredDynamicNat_.del(tuple);
            auto const lookup = dynamicConnectionStatus_->dynamicConnection(key);
            if (lookup.present) handleAddDynamicConnection(key, lookup.record);
         }
         ++processed;
         if (!cleanupInProgress_ && dynamicTask_->taskShouldYield()) {
            VOR_TRACE(7, "Time exceeded. Requests processed: " << processed << ", entries remaining: "
                                                               << deferredDynamicNat_.size());
            yielded = true;
            return false;
         }
         return true;
      });
      if (yielded) break;
   }
   VOR_TRACE(7, "Dynamic backlog: req processed: " << processed
                                                   << ", entries remaining: " << deferredDynamicNat_.size());
   if (dynamicTask_) dynamicTask_->taskWorkCountInc(processed);
   if (!deferredDynamicNat_.empty() && dynamicTask_) {
      VOR_TRACE(7, "Dynamic backlog task rescheduled");
      dynamicTask_->scheduleTask();
   }
}

// ---- unprogrammed dynamic entries ----

void NatIntfStatusSm::addUnprogrammedDynamicEntry(Ip::Nat::DynamicConnectionKey const& key) {
   // Whatever half was programmed goes.
   deleteDynamicConnection(key);
   unprogrammed_.add<NatType::dynamicNat>(key.connTuple(), true);
}

void NatIntfStatusSm::addUnprogrammedDynamicTwiceEntry(ConnTuple const& tuple) {
   unprogrammed_.add<NatType::dynamicNat>(tuple, false);
}

void NatIntfStatusSm::checkUnprogrammedDynamicEntry(ConnTuple const& tuple) {
   unprogrammed_.check<NatType::dynamicNat>(tuple);
}

void NatIntfStatusSm::reviewDynamicConnection(Ip::Nat::DynamicConnectionKey const& key) {
   ConnTuple const tuple = key.connTuple();
   if (!natHelper_->hwInitialized()) return;
   // A pending event of the tuple will settle it; the review leaves it be.
   if (deferredDynamicNat_.has(tuple)) return;
   if (dynamicTwice_.count(tuple)) {
      // Waits for a twice rule to take it: the keyed handler tries the
      // group again, or forgets the tuple once its connection is gone.
      handleDynamicConnection(key);
      return;
   }
   auto const lookup = dynamicConnectionStatus_->dynamicConnection(key);
   if (!lookup.present) {
      deleteDynamicConnection(key);
      checkUnprogrammedDynamicEntry(tuple);
      return;
   }
   handleAddDynamicConnection(key, lookup.record);
}

} // namespace Ulo
