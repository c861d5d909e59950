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

// The address whose next hop a static connection depends on.
Lumet::IpAddr watchedAddrOf(Ip::Nat::StaticKey const& key, Ip::Nat::NatStaticConnection const& conn) {
   return isDestination(conn) ? conn.globalAddress().ip() : key.localAddress().ip();
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
      Lumet::IpAddr const addr = watchedAddrOf(key, conn);
      if (!hasWatchedAddr(key, addr)) return;
      vrfStatus_->addAddress(natIntf_, addr);
      addStaticKeyWatchedAddr(key, addr);
      natSmStatus_->addRouteConfigWatchedAddr(addr, vrfId_);
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

   Lumet::IpAddr const addr = watchedAddrOf(key, conn);
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
      natSmStatus_->getNextHopInfo(vrfId_, watchedAddrOf(key, conn));
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

   auto watched = staticKeyWatchedAddr_.find(key);
   if (watched != staticKeyWatchedAddr_.end()) {
      Lumet::IpAddr const addr = watched->second;
      if (!addr.isMulticast()) {
         vrfStatus_->delAddress(natIntf_, addr);
         removeStaticKeyWatchedAddr(key, addr);
         natSmStatus_->removeRouteConfigWatchedAddr(addr, vrfId_);
      }
   }

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
   staticKeyWatchedAddr_[key] = addr;
   Ptr<StaticNatAddrInfo>& addrInfo = watchedAddrStaticKey_[addr];
   if (!addrInfo) addrInfo = Ptr<StaticNatAddrInfo>(new StaticNatAddrInfo(addr));
   uloAssert(addrInfo);
   addrInfo->mappedAddrIs(key);
}

void NatIntfStatusSm::removeStaticKeyWatchedAddr(Ip::Nat::StaticKey const& key,
                                                 Lumet::IpAddr const& addr) {
   staticKeyWatchedAddr_.erase(key);
   auto it = watchedAddrStaticKey_.find(addr);
   if (it == watchedAddrStaticKey_.end()) return;
   it->second->mappedAddrDel(key);
   if (it->second->mappedAddr().empty()) watchedAddrStaticKey_.erase(it);
}

void NatIntfStatusSm::updateNextHop(VrfAndIpAddr const& vrfAndAddr) {
   if (vrfAndAddr.vrfId() != vrfId_) {
      VOR_TRACE(5, natIntf_ << " Vrf mismatch (intf vrf is " << vrfId_.value()
                            << "), skip next hop update");
      return;
   }
   Lumet::IpAddr const addr = vrfAndAddr.ipAddr();
   if (auto info = watchedAddrStaticKey(addr)) {
      // Copy: an update that is refused deletes the key's watched address.
      std::vector<Ip::Nat::StaticKey> const keys(info->mappedAddr().begin(),
                                                 info->mappedAddr().end());
      for (auto const& key : keys) {
         if (auto deferred = deferredStaticNatConnectionHw(key)) {
            // A waiting commit must land first; the backlog updates after it.
            deferred->updateNextHopIs(true);
            continue;
         }
         auto hw = hwIntfStatus();
         if (hw && hw->staticConnectionHw(key)) updateStaticConnection(key);
      }
   }
   // Twice and dynamic connections watch addresses of their own; their
   // updates come with those kinds of rule.
}

// ---- deferred commit ----

void NatIntfStatusSm::addDeferredStaticNatConnectionHw(Ip::Nat::StaticKey const& key, bool del,
                                                       Ip::Nat::NatStaticConnection const& conn) {
   uloAssert(!natHelper()->immediateCommit());
   Ptr<DeferredStaticNatConnectionHw>& entry = deferredStaticNatConnectionHw_[key];
   if (!entry) entry = Ptr<DeferredStaticNatConnectionHw>(new DeferredStaticNatConnectionHw(key));
   // The last writer wins; the change flags stay, so a later add does not
   // lose a next-hop change that arrived while the entry waited.
   entry->deleteConnectionIs(del);
   entry->connEntryIs(conn);
}

void NatIntfStatusSm::addDeferredTwiceNatConnectionHw(TwiceNatKey const& key,
                                                      Ip::Nat::HwNatTwiceAddr const& addr, bool del) {
   uloAssert(!natHelper()->immediateCommit());
   Ptr<DeferredTwiceNatConnectionHw>& entry = deferredTwiceNatConnectionHw_[key];
   if (!entry) entry = Ptr<DeferredTwiceNatConnectionHw>(new DeferredTwiceNatConnectionHw(key));
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
   Vor::U64 processed = 0;
   bool updateDone = false;

   // The walk re-finds its place by key: updateStaticConnection may add or
   // rewrite entries of the list.
   for (auto it = deferredStaticNatConnectionHw_.begin(); it != deferredStaticNatConnectionHw_.end();) {
      Ip::Nat::StaticKey const key = it->first;
      Ptr<DeferredStaticNatConnectionHw> const entry = it->second;
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
      ++processed;
      it = deferredStaticNatConnectionHw_.upper_bound(key);
   }
   // Twice entries are deferred and recorded by the twice-NAT path of the
   // engine; nothing fills that list yet.

   if (updateDone && !natHelper_->commitHwTranslations()) {
      VOR_TRACE(3, "ACL commit failed" << natIntf_ << ", commit failed");
      cleanupFailedCommit();
      return;
   }
   if (!commitFailed) {
      deferredStaticNatConnectionHw_.clear();
      deferredTwiceNatConnectionHw_.clear();
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
   std::vector<Ip::Nat::StaticKey> keys;
   keys.reserve(deferredStaticNatConnectionHw_.size());
   for (auto const& [key, entry] : deferredStaticNatConnectionHw_) keys.push_back(key);
   for (auto const& key : keys) {
      auto entry = deferredStaticNatConnectionHw(key);
      if (!entry || (ue && ue->staticEntriesHas(key))) continue;
      if (entry->deleteConnection()) {
         deleteStaticConnection(key);
      } else {
         addUnprogrammedStaticEntry(key);
      }
   }
   // Failed twice entries are re-issued by the twice-NAT path.
   doMaybeScheduleCommit();
}

// ---- unprogrammed static entries ----

void NatIntfStatusSm::addUnprogrammedStaticEntry(Ip::Nat::StaticKey const& key) {
   // Whatever half was programmed goes; the cache stays for the retry.
   deleteStaticConnection(key);
   addUnprogrammedEntry(NatType::staticNat, true);
   natSmStatus_->unprogrammedEntries(natIntf_)->staticEntriesIs(key);
}

void NatIntfStatusSm::checkUnprogrammedStaticEntry(Ip::Nat::StaticKey const& key) {
   auto ue = natSmStatus_->unprogrammedEntries(natIntf_);
   if (!ue || !ue->staticEntriesHas(key)) return;
   VOR_TRACE(7, natIntf_ << " Removing static entry from unprogrammed list");
   ue->staticEntriesDel(key);
   checkUnprogrammedEntries();
}

} // namespace Ulo
