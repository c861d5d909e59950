// Ulo::NatIntfStatusSm: static connections, next-hop updates, the deferred
// commit of a batch-committing helper, and the static unprogrammed entries.

#include <vector>

#include "UloNat/UloNatIntfSm.h"
#include "framework/UloAssert.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("UloNatIntfSmStatic");

namespace Ulo {

namespace {

bool isDestination(Ip::Nat::NatStaticConnection const& conn) {
   return conn.target() == Ip::Nat::destination;
}

bool isEgress(Ip::Nat::StaticKey const& key) {
   return key.table() == Ip::Nat::StaticKey::egress;
}

// A multicast watched address or an egress connection watches nothing.
bool hasWatchedAddr(Ip::Nat::StaticKey const& key, Lumet::IpAddr const& addr) {
   return !addr.isMulticast() && !isEgress(key);
}

// The working copy handed to the helper: a connection without filter
// addresses matches everything, which the helper programs as one empty
// filter address.
void addDefaultFilterAddress(Ip::Nat::NatStaticConnection& conn) {
   if (conn.filterAddresss() == 0) conn.filterAddressIs(Lumet::IpAddrWithFullMask(), true);
}

// (sourceIp, groupIp) of the multicast operations for a static connection.
std::pair<Lumet::IpAddr, Lumet::IpAddr> multicastPair(Ip::Nat::StaticKey const& key,
                                                      Ip::Nat::NatStaticConnection const& conn) {
   if (isDestination(conn)) return {Lumet::IpAddr(), key.localAddress().ip()};
   return {key.localAddress().ip(), Lumet::IpAddr()};
}

constexpr Vor::U8 tcpProtocol = 6;

} // namespace

Lumet::IpAddr staticConnectionWatchedAddr(Ip::Nat::StaticKey const& key,
                                          Ip::Nat::NatStaticConnection const& conn) {
   return isDestination(conn) ? conn.globalAddress().ip() : key.localAddress().ip();
}

// ---- the walk and the keyed handler ----

void NatIntfStatusSm::handleStaticConnection() {
   auto is = intfStatus();
   if (!is) return;
   // Keys first: the keyed handler may change what the walk would stand on
   // (a delete from the cache, a refusal that deletes).
   std::vector<Ip::Nat::StaticKey> keys;
   keys.reserve(is->staticConnections());
   for (auto const& [key, conn] : is->staticConnection()) keys.push_back(key);
   for (auto const& key : keys) handleStaticConnection(key);
}

void NatIntfStatusSm::handleStaticConnection(Ip::Nat::StaticKey const& key) {
   auto is = intfStatus();
   bool const present = is && is->staticConnectionHas(key);
   if (present && natHelper_->hwInitialized()) {
      Ip::Nat::NatStaticConnection const conn = is->staticConnection(key);
      cachedStaticConnection_[key] = conn;
      vlanIdIs(conn.vlanId());
      bool const added = addStaticConnection(key);

      if (!isDestination(conn) && conn.protocol() != tcpProtocol) {
         // The multicast library learns which VLANs translate this source,
         // whether or not hardware took the rule.
         Lumet::IpGenAddr const ip(key.localAddress().ip());
         MrouteLib::StaticNatIpInfo info;
         if (staticNatInfo_->ipInfoHas(ip)) info = staticNatInfo_->ipInfo(ip);
         info.vlanIs(Bridging::VlanId(vlanId_), true);
         staticNatInfo_->ipInfoIs(ip, info);
      }
      if (!added) return;

      if (isDestination(conn)) {
         watchMulticast(conn.vlanId(), Lumet::IpAndPort(), Lumet::IpAndPort(), key.localAddress(),
                        Lumet::IpAndPort(conn.globalAddress().ip(), 0), 0, 0, key);
      } else {
         watchMulticast(conn.vlanId(), key.localAddress(), conn.globalAddress(), Lumet::IpAndPort(),
                        Lumet::IpAndPort(), 0, 0, key);
      }
      // One reference per connection, however often the rule is delivered:
      // the same address again takes nothing, a changed address gives the
      // old one back, and a rule that no longer watches any address (now
      // egress, or a multicast address) gives back what it watched.
      Lumet::IpAddr const addr = staticConnectionWatchedAddr(key, conn);
      if (hasWatchedAddr(key, addr)) {
         staticWatchedAddr_.watch(key, addr);
      } else {
         staticWatchedAddr_.unwatch(key);
      }
      return;
   }

   // Delete branch: works from the cache, since configuration may be gone.
   auto cached = cachedStaticConnection_.find(key);
   Ip::Nat::NatStaticConnection const conn =
      cached == cachedStaticConnection_.end() ? Ip::Nat::NatStaticConnection() : cached->second;
   auto const [sourceIp, groupIp] = multicastPair(key, conn);
   unWatchMulticast(vlanId_, sourceIp, groupIp);
   deleteStaticConnection(key);
   cachedStaticConnection_.erase(key);
   checkUnprogrammedStaticEntry(key);
   if (isDestination(conn)) return;

   Lumet::IpGenAddr const ip(key.localAddress().ip());
   if (!staticNatInfo_->ipInfoHas(ip)) return;
   if (is) {
      // Another non-TCP source rule on the same local address keeps the VLAN
      // in use.
      for (auto const& [otherKey, other] : is->staticConnection()) {
         if (otherKey.localAddress().ip() == key.localAddress().ip() &&
             other.protocol() != tcpProtocol) {
            return;
         }
      }
   }
   MrouteLib::StaticNatIpInfo info = staticNatInfo_->ipInfo(ip);
   info.vlanDel(Bridging::VlanId(vlanId_));
   if (info.vlans()) {
      staticNatInfo_->ipInfoIs(ip, info);
   } else {
      staticNatInfo_->ipInfoDel(ip);
   }
}

// ---- helper calls ----

bool NatIntfStatusSm::addStaticConnection(Ip::Nat::StaticKey const& key) {
   auto is = intfStatus();
   Ip::Nat::NatStaticConnection conn = is->staticConnection(key);
   addDefaultFilterAddress(conn);

   Lumet::IpAddr const addr = staticConnectionWatchedAddr(key, conn);
   Ptr<NatNextHopInfo const> nextHop;
   if (!addr.isMulticast() && !isEgress(key)) nextHop = natSmStatus_->getNextHopInfo(vrfId_, addr);

   auto const [sourceIp, groupIp] = multicastPair(key, conn);
   Ptr<NatMulticastTransition> const transition = getMulticastTransition(vlanId_, sourceIp, groupIp);

   bool const ok = natHelper_->addStaticIpTranslations(conn, vlanId_, key, nextHop,
                                                       transition->mcastToProg(), vrfId_,
                                                       status_->staticAclSharingStatus());
   if (!ok) {
      addUnprogrammedStaticEntry(key);
      return false;
   }
   checkUnprogrammedStaticEntry(key);
   // Hardware status gets the configuration's own copy, without the default
   // filter address that only the helper needs.
   if (natHelper_->immediateCommit()) {
      addStaticHwEntry(key, is->staticConnection(key));
   } else {
      addDeferredStaticNatConnectionHw(key, false, is->staticConnection(key));
      doMaybeScheduleCommit();
   }
   return true;
}

void NatIntfStatusSm::updateStaticConnection(Ip::Nat::StaticKey const& key) {
   auto is = intfStatus();
   Ip::Nat::NatStaticConnection conn = is ? is->staticConnection(key) : Ip::Nat::NatStaticConnection();
   // Unlike the add path, every connection asks, multicast and egress too.
   Ptr<NatNextHopInfo const> const nextHop =
      natSmStatus_->getNextHopInfo(vrfId_, staticConnectionWatchedAddr(key, conn));
   auto const [sourceIp, groupIp] = multicastPair(key, conn);
   Ptr<NatMulticastTransition> const transition = getMulticastTransition(vlanId_, sourceIp, groupIp);
   addDefaultFilterAddress(conn);

   bool ok = natHelper_->updateStaticDstIpTranslations(conn, vlanId_, key, nextHop,
                                                       transition->mcastToProg(), vrfId_);
   if (ok && transition->kind() != NatMulticastTransitionKind::mcastTransitionNone) {
      ok = natHelper_->updateStaticSrcIpTranslations(conn, vlanId_, key, nextHop,
                                                     transition->mcastToProg(), vrfId_);
   }
   if (ok) {
      checkUnprogrammedStaticEntry(key);
   } else {
      addUnprogrammedStaticEntry(key);
   }
}

void NatIntfStatusSm::deleteStaticConnection(Ip::Nat::StaticKey const& key) {
   auto cached = cachedStaticConnection_.find(key);
   Ip::Nat::NatStaticConnection conn =
      cached == cachedStaticConnection_.end() ? Ip::Nat::NatStaticConnection() : cached->second;
   addDefaultFilterAddress(conn);

   // A delete cannot be refused; its result says nothing we could act on.
   natHelper_->deleteStaticIpTranslations(conn, vlanId_, key, vrfId_);
   if (natHelper_->immediateCommit()) {
      deleteStaticHwEntry(key);
   } else {
      addDeferredStaticNatConnectionHw(key, true, Ip::Nat::NatStaticConnection());
      doMaybeScheduleCommit();
   }

   // The index only ever holds addresses that were watched (never a
   // multicast one), and gives back exactly the references it took.
   staticWatchedAddr_.unwatch(key);

   auto const [sourceIp, groupIp] = multicastPair(key, conn);
   unWatchMulticast(vlanId_, sourceIp, groupIp);
   disableMulticastWithOifs(vlanId_, sourceIp, groupIp);
}

// ---- hardware status ----

void NatIntfStatusSm::addStaticHwEntry(Ip::Nat::StaticKey const& key,
                                       Ip::Nat::NatStaticConnection const& conn) {
   auto const hwIntfStatus = this->hwIntfStatus();
   uloAssert(hwIntfStatus);
   auto const& hw = hwIntfStatus;
   if (hw->staticConnectionHw(key)) {
      VOR_TRACE(8, "Static key found in hw collection, deleting old entry");
      hw->staticConnectionHwDel(key);
   }
   auto entry = hw->staticConnectionHwIs(key, conn.globalAddress(), conn.target(), conn.protocol(),
                                         conn.vlanId(), conn.forward());
   for (auto const& addr : conn.filterAddress()) entry->filterAddressIs(addr, true);
}

void NatIntfStatusSm::deleteStaticHwEntry(Ip::Nat::StaticKey const& key) {
   auto const hwIntfStatus = this->hwIntfStatus();
   uloAssert(hwIntfStatus);
   auto const& hw = hwIntfStatus;
   if (hw->staticConnectionHw(key)) hw->staticConnectionHwDel(key);
}

// ---- watched addresses ----

void NatIntfStatusSm::addStaticKeyWatchedAddr(Ip::Nat::StaticKey const& key,
                                              Lumet::IpAddr const& addr) {
   staticWatchedAddr_.keyWatchedAddrIs(key, addr);
}

void NatIntfStatusSm::removeStaticKeyWatchedAddr(Ip::Nat::StaticKey const& key,
                                                 Lumet::IpAddr const& addr) {
   staticWatchedAddr_.keyWatchedAddrDel(key, addr);
}

void NatIntfStatusSm::updateNextHop(VrfAndIpAddr const& vrfAndAddr) {
   if (vrfAndAddr.vrfId() != vrfId_) {
      VOR_TRACE(5, natIntf_ << " Vrf mismatch (intf vrf is " << vrfId_.value()
                            << "), skip next hop update");
      return;
   }
   Lumet::IpAddr const addr = vrfAndAddr.ipAddr();
   {
      // A copy: an update that is refused deletes the key's watched address.
      for (auto const& key : staticWatchedAddr_.keysWatching(addr)) {
         if (auto deferred = deferredStaticNatConnectionHw_.entity(key)) {
            // A waiting commit must land first; the backlog updates after it.
            deferred->updateNextHopIs(true);
            continue;
         }
         auto hw = hwIntfStatus();
         if (hw && hw->staticConnectionHw(key)) updateStaticConnection(key);
      }
   }
   for (auto const& key : twiceWatchedAddr_.keysWatching(addr)) {
      if (auto deferred = deferredTwiceNatConnectionHw_.entity(key)) {
         deferred->updateNextHopIs(true);
         continue;
      }
      updateTwiceNatConnection(key.group(), key.addr());
   }
   for (auto const& tuple : dynamicWatchedAddr_.keysWatching(addr)) {
      Ip::Nat::DynamicConnectionKey const key(natIntf_, tuple);
      // A pending event programs the current next hop when it runs.
      if (deferredDynamicNat_.has(tuple)) continue;
      if (dynamicConnectionHwStatus_->dynamicConnectionHwHas(key)) updateDynamicConnection(key);
   }
}

// ---- deferred commit ----

void NatIntfStatusSm::addDeferredStaticNatConnectionHw(Ip::Nat::StaticKey const& key, bool del,
                                                       Ip::Nat::NatStaticConnection const& conn) {
   uloAssert(!natHelper()->immediateCommit());
   auto const& entry = deferredStaticNatConnectionHw_.entryIs(key);
   // The last writer wins; the change flags stay, so a later add does not
   // lose a next-hop change that arrived while the entry waited.
   entry->deleteConnectionIs(del);
   entry->connEntryIs(conn);
}

void NatIntfStatusSm::addDeferredTwiceNatConnectionHw(TwiceNatKey const& key,
                                                      Ip::Nat::HwNatTwiceAddr const& addr, bool del) {
   uloAssert(!natHelper()->immediateCommit());
   auto const& entry = deferredTwiceNatConnectionHw_.entryIs(key);
   entry->deletionIs(del);
   if (!del) entry->addrIs(addr);
}

void NatIntfStatusSm::doMaybeScheduleCommit() {
   if (!initialized()) {
      VOR_TRACE(5, natIntf_ << " uninitialized");
      return;
   }
   uloAssert(!natHelper()->immediateCommit());
   if (pendingCommit_) {
      VOR_TRACE(9, natIntf_ << " Commit already pending");
      return;
   }
   pendingCommitIs(true);
   if (staticTask_->taskScheduled()) return;
   VOR_TRACE(8, natIntf_ << " Static backlog task scheduled");
   staticTask_->scheduleTask();
}

void NatIntfStatusSm::doProcessBacklogStatic() {
   if (natHelper_->immediateCommit()) {
      VOR_TRACE(8, natIntf_ << " Immediate commit, no backlog");
      return;
   }
   // During cleanup the backlog runs from outside its task.
   if (!cleanupInProgress_ && !(staticTask_ && staticTask_->taskCurrentlyRunning())) {
      VOR_TRACE(8, natIntf_ << " Task not running");
      return;
   }
   if (!pendingCommit_) {
      VOR_TRACE(8, natIntf_ << " PendingCommit is false");
      return;
   }
   bool const commitFailed = !natHelper_->commitHwTranslations();
   if (commitFailed) VOR_TRACE(3, "ACL commit failed" << natIntf_ << ", commit failed");

   auto const hwIntfStatus = this->hwIntfStatus();
   uloAssert(hwIntfStatus);
   bool updateDone = false;

   // updateStaticConnection may add or rewrite entries of the list under the
   // walk, which the list's walk tolerates.
   Vor::U64 processed = deferredStaticNatConnectionHw_.walk([&](Ip::Nat::StaticKey const& key,
                                                                Ptr<DeferredStaticNatConnectionHw> const& entry) {
      if (entry->deleteConnection()) {
         deleteStaticHwEntry(key);
      } else if (!commitFailed) {
         addStaticHwEntry(key, entry->connEntry());
         if (entry->updateNextHop() || entry->updateMulticast()) {
            updateStaticConnection(key);
            // Without counters a change rides on the next batch instead of
            // forcing a second commit now.
            if (counterStatus_) updateDone = true;
         }
      }
      return true;
   });
   // A group that left the configuration records nothing.
   auto const is = intfStatus();
   processed += deferredTwiceNatConnectionHw_.walk([&](TwiceNatKey const& key,
                                                       Ptr<DeferredTwiceNatConnectionHw> const& entry) {
      if (entry->deletion()) {
         deleteTwiceHwEntry(key.group(), key.addr());
      } else if (!commitFailed && is && is->twiceNatConnectionHas(key.group())) {
         addTwiceHwEntry(key.addr(), is->twiceNatConnection(key.group()), entry->addr());
         if (entry->updateNextHop() || entry->updateMulticast()) {
            updateTwiceNatConnection(key.group(), key.addr());
            if (counterStatus_) updateDone = true;
         }
      }
      return true;
   });

   if (updateDone && !natHelper_->commitHwTranslations()) {
      VOR_TRACE(3, "ACL commit failed" << natIntf_ << ", commit failed");
      cleanupFailedCommit();
      return;
   }
   if (!commitFailed) {
      deferredStaticNatConnectionHw_.delAll();
      deferredTwiceNatConnectionHw_.delAll();
      pendingCommitIs(false);
      VOR_TRACE(7, natIntf_ << "Static backlog: processed " << processed << " requests");
      if (staticTask_) staticTask_->taskWorkCountInc(processed);
      return;
   }
   cleanupFailedCommit();
}

void NatIntfStatusSm::cleanupFailedCommit() {
   pendingCommitIs(false);
   VOR_TRACE(3, natIntf_ << " cleanup failed commit");
   auto const ue = natSmStatus_->unprogrammedEntries(natIntf_);

   // Both branches run the delete path, which rewrites the key's entry into
   // a fresh deferred delete for the next commit. Keys already waiting for
   // review keep the entry they have.
   for (auto const& key : deferredStaticNatConnectionHw_.keys()) {
      auto const entry = deferredStaticNatConnectionHw_.entity(key);
      if (!entry || (ue && ue->staticEntriesHas(key))) continue;
      if (entry->deleteConnection()) {
         deleteStaticConnection(key);
      } else {
         addUnprogrammedStaticEntry(key);
      }
   }
   for (auto const& key : deferredTwiceNatConnectionHw_.keys()) {
      auto const entry = deferredTwiceNatConnectionHw_.entity(key);
      if (!entry || (ue && ue->twiceEntriesHas(key))) continue;
      if (entry->deletion()) {
         deleteTwiceNatConnection(key.group(), key.addr());
      } else {
         addUnprogrammedTwiceEntry(key.group(), key.addr(), UloHelper::NatHwResult::tableFull);
      }
   }
   doMaybeScheduleCommit();
}

// ---- unprogrammed static entries ----

void NatIntfStatusSm::addUnprogrammedStaticEntry(Ip::Nat::StaticKey const& key) {
   // Whatever half was programmed goes; the cache stays for the retry.
   deleteStaticConnection(key);
   unprogrammed_.add<NatType::staticNat>(key, true);
}

void NatIntfStatusSm::checkUnprogrammedStaticEntry(Ip::Nat::StaticKey const& key) {
   unprogrammed_.check<NatType::staticNat>(key);
}

} // namespace Ulo
