// Ulo::NatIntfStatusSm: verification of one interface's connections.
//
// The walk compares four views of the same connections: the configuration,
// hardware status, the watched-address indexes and the references this
// interface holds in its VRF's ipAddrIntfInfo. It counts, per address, the
// references the connections in hardware should hold (addrRefCount) and
// compares the count with what ipAddrIntfInfo says. A disagreement between
// records that other code keeps apart (hardware status, reference counts,
// deferred lists) is a finding, reported as UloNat/UloNatVerify.h says. A
// disagreement inside the engine's own indexes, which the engine writes
// together, is an assertion.
//
// Each kind of connection adds its count in handleVerify(): static, twice,
// and the dynamic connections in hardware status. A new kind adds its
// doVerify...Connection() and one loop there.

#include <map>

#include <fmt/printf.h>

#include "UloNat/UloNatIntfSm.h"
#include "UloNat/UloNatVerify.h"
#include "framework/UloAssert.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("UloNatIntfSmVerify");

namespace Ulo {

namespace {

// The reverse-index member of an address, read for an assertion. An absent
// member reads as one that maps no key, so that an assertion on it fails
// with its own text rather than with a null dereference; it still tests
// false, for the assertions that require the member to be absent.
template <class Info>
class ReverseMember {
 public:
   explicit ReverseMember(Ptr<Info> info) : info_(std::move(info)) {}
   explicit operator bool() const { return static_cast<bool>(info_); }
   Info const* operator->() const { return info_ ? info_.ptr() : &absent(); }

 private:
   static Info const& absent() {
      static Info const none{Lumet::IpAddr()};
      return none;
   }
   Ptr<Info> info_;
};

// The watched address of a dynamic connection: the address whose next hop
// its source translation uses.
Lumet::IpAddr dynamicConnectionWatchedAddr(Lumet::ConnTuple const& tuple, Ip::Nat::NatTarget target,
                                           Lumet::IpAndPort const& globalAddress) {
   return target == Ip::Nat::destination ? globalAddress.ip() : tuple.srcAddr().ip();
}

bool isDeleting(DeferredDynamicNatEvent event) {
   return event == DeferredDynamicNatEvent::deleteDyn || event == DeferredDynamicNatEvent::deleteAndAddDyn;
}

} // namespace

void NatIntfStatusSm::handleVerify() {
   if (!natHelper_->hwInitialized()) {
      VOR_TRACE(5, natIntf_.stringValue() << " HW is not initialized.");
      return;
   }
   doVerifyStaticDeferredLists();
   doVerifyDynamicDeferredLists();
   if (!deferredStaticNatConnectionHw_.empty() || !deferredDynamicNat_.empty() ||
       !deferredTwiceNatConnectionHw_.empty()) {
      // Hardware status lags the configuration until the batch lands.
      VOR_TRACE(5, natIntf_.stringValue() << " Deferred changes in progress");
      return;
   }
   auto const is = intfStatus();
   if (!is) return;

   // Per address, the references that the connections in hardware hold.
   std::map<Lumet::IpAddr, Vor::U32> addrRefCount;
   auto const count = [&addrRefCount](Lumet::IpAddr const& addr) {
      if (!addr.isZero()) ++addrRefCount[addr];
   };

   for (auto const& [key, conn] : is->staticConnection()) count(doVerifyStaticConnection(key));

   if (hwCapabilities_->dynamicNatSupported()) {
      dynamicConnectionStatus_->dynamicConnectionWalk(
         Ip::Nat::DynamicConnectionKey(natIntf_, Lumet::ConnTuple()),
         [&](Ip::Nat::DynamicConnection const& conn) {
            if (conn.key().intfId() != natIntf_) return false;
            Lumet::IpAddr const addr = doVerifyDynamicConnection(conn.key().connTuple());
            VOR_TRACE(9, "Dynamic entry: " << conn.key().connTuple().stringValue());
            count(addr);
            return true;
         });
   }

   for (auto const& [group, conn] : is->twiceNatConnection()) {
      for (auto const& addr : watchedAddrs(doVerifyTwiceNatConnection(group))) {
         if (!addr.isMulticast()) count(addr);
      }
   }
   // The entries that dynamic connections completed hold references of
   // their own (their tuples are not the rule's configured one). While a
   // commit is pending hardware status lags, as above.
   if (!pendingCommit_) {
      if (auto const hwIntf = hwIntfStatus()) {
         for (auto const& [tuple, group] : dynamicTwice_) {
            auto const record = hwIntf->twiceNatConnectionHw(group);
            if (!record || !record->dynamic() || !record->entryHas(tuple)) continue;
            if (TwiceNatWatchedAddr const* watched = twiceWatchedAddr_.keyWatchedAddr(TwiceNatKey(group, tuple))) {
               for (auto const& addr : watchedAddrs(*watched)) count(addr);
            }
         }
      }
   }

   // Only this interface's count of each address is compared: other
   // interfaces of the VRF keep theirs in the same records.
   for (auto const& vrfIter : natSmStatus_->natSmStatusVrf()) {
      for (auto const& addrIter : vrfIter.value()->ipAddrIntfInfo()) {
         Ptr<NatIntfInfo> const& intfInfo = addrIter.value();
         if (!intfInfo->intfHas(natIntf_)) continue;
         Lumet::IpAddr const& addr = addrIter.key();
         Vor::U32 const expected = intfInfo->intf(natIntf_);
         Vor::U32 const found = addrRefCount[addr];
         if (expected != found) {
            reportVerifyFinding(commonSmData().ptr(),
                                fmt::sprintf("Ref Count check failed, addr %s intf %s, expected %d found %d",
                                             addr.stringValue(), natIntf_.stringValue(), expected, found),
                                __func__);
         }
         addrRefCount.erase(addr);
      }
   }
   // What is left is held by connections in hardware but recorded nowhere.
   if (!addrRefCount.empty()) {
      reportVerifyFinding(commonSmData().ptr(),
                          fmt::sprintf("addrRefCount size check failed, expected size 0, found size %zd",
                                       addrRefCount.size()),
                          __func__);
   }
}

void NatIntfStatusSm::doVerifyStaticDeferredLists() {
   if (!pendingCommit_) {
      if (!deferredStaticNatConnectionHw_.empty() || !deferredTwiceNatConnectionHw_.empty()) {
         reportVerifyFinding(
            commonSmData().ptr(),
            fmt::sprintf("Nothing to commit, yet deferred list is not empty Static conns: %d, TwiceNat conns: %d",
                         deferredStaticNatConnectionHw_.size(), deferredTwiceNatConnectionHw_.size()),
            __func__);
      }
      return;
   }
   auto const is = intfStatus();
   for (auto const& [key, entry] : deferredStaticNatConnectionHw_.entries()) {
      bool const configured = is && is->staticConnectionHas(key);
      if (entry->deleteConnection() == configured) {
         reportVerifyFinding(commonSmData().ptr(),
                             "Static connection exist in deferred list but delete conn flag is not "
                             "consistent with existence inintfStatus",
                             __func__);
      }
   }
   // An add for a group that has gone since is legal: the backlog records
   // nothing for it.
   for (auto const& [key, entry] : deferredTwiceNatConnectionHw_.entries()) {
      if (entry->deletion() && is && is->twiceNatConnectionHas(key.group())) {
         reportVerifyFinding(commonSmData().ptr(),
                             "Twice Nat connection exists in deferred list but delete conn flag is not "
                             "consistent with existencein intfStatus",
                             __func__);
      }
   }
}

void NatIntfStatusSm::doVerifyDynamicDeferredLists() {
   if (!(dynamicTask_ && dynamicTask_->taskScheduled()) && !deferredDynamicNat_.empty()) {
      reportVerifyFinding(commonSmData().ptr(),
                          fmt::sprintf("Nothing to commit, yet deferred list is not emptyDynamic conns: %d",
                                       deferredDynamicNat_.size()),
                          __func__);
   }
   for (auto const& [tuple, event] : deferredDynamicNat_.entries()) {
      bool const deleting = event == DeferredDynamicNatEvent::deleteDyn;
      bool const configured =
         dynamicConnectionStatus_->dynamicConnectionHas(Ip::Nat::DynamicConnectionKey(natIntf_, tuple));
      if (deleting == configured) {
         reportVerifyFinding(commonSmData().ptr(),
                             "Dynamic connection exist in deferred list but deleteconn flag is not "
                             "consistent with existence inintfStatus",
                             __func__);
      }
   }
}

Lumet::IpAddr NatIntfStatusSm::doVerifyStaticConnection(Ip::Nat::StaticKey const& key) {
   Ip::Nat::NatStaticConnection const conn = intfStatus()->staticConnection(key);
   if (conn.vlanId() != vlanId_) {
      VOR_TRACE(7, natIntf_.stringValue() << " VlanId: " << vlanId_ << " connEntry.vlanId: " << conn.vlanId());
   }
   // A rule without filter addresses is programmed as one empty filter.
   if (conn.filterAddresss() == 0) {
      verifyStaticHwRule(conn.target(), key.localAddress(), conn.globalAddress(), Lumet::IpAddrWithFullMask(),
                         conn.protocol(), conn.vlanId(), key.aclName(), key, true);
   }
   for (auto const& filter : conn.filterAddress()) {
      verifyStaticHwRule(conn.target(), key.localAddress(), conn.globalAddress(), filter, conn.protocol(),
                         conn.vlanId(), key.aclName(), key, true);
   }

   Lumet::IpAddr const watchedAddr = staticConnectionWatchedAddr(key, conn);
   if (pendingCommit_) return watchedAddr.isMulticast() ? Lumet::IpAddr() : watchedAddr;

   auto const hwIntf = hwIntfStatus();
   auto const hw = hwIntf ? hwIntf->staticConnectionHw(key) : Ptr<Ip::Nat::HwNatStaticConnection>();
   // Not in hardware (refused, waiting for review): holds no reference.
   if (!hw) return Lumet::IpAddr();

   bool same = hw->globalAddress() == conn.globalAddress() && hw->target() == conn.target() &&
               hw->protocol() == conn.protocol() && hw->filterAddresss() == conn.filterAddresss();
   for (auto const& filter : conn.filterAddress()) same = same && hw->filterAddressHas(filter);
   if (!same) {
      reportVerifyFinding(
         commonSmData().ptr(),
         fmt::sprintf("Static connection mismatch in hwStatus for intf %s localIP:%s:%d global: %s "
                      "hwGlobal: %s target: %d hwTarget: %d protocol: %d hwProtocol: %d "
                      "filterAddresss: %d hwFilterAddresss: %d",
                      natIntf_.stringValue(), key.localAddress().ip().stringValue(), key.localAddress().port(),
                      conn.globalAddress().stringValue(), hw->globalAddress().stringValue(),
                      static_cast<int>(conn.target()), static_cast<int>(hw->target()),
                      static_cast<int>(conn.protocol()), static_cast<int>(hw->protocol()),
                      conn.filterAddresss(), hw->filterAddresss()),
         __func__);
   }

   if (watchedAddr.isMulticast() || key.table() == Ip::Nat::StaticKey::egress) return Lumet::IpAddr();

   // The names the assertion texts use.
   Ip::Nat::StaticKey const& staticKey = key;
   auto const staticKeyWatchedAddr = [this](Ip::Nat::StaticKey const& k) {
      Lumet::IpAddr const* addr = staticWatchedAddr_.keyWatchedAddr(k);
      return addr ? *addr : Lumet::IpAddr();
   };
   auto const watchedAddrStaticKey = [this](Lumet::IpAddr const& addr) {
      return ReverseMember<StaticNatAddrInfo>(staticWatchedAddr_.watchedAddrKey(addr));
   };
   uloAssert(staticKeyWatchedAddr( staticKey ) == watchedAddr);
   uloAssert(watchedAddrStaticKey( watchedAddr )->mappedAddrHas( staticKey ));
   uloAssert(vrfStatus()->ipAddrIntfInfoHas( watchedAddr ));
   Ptr<NatIntfInfo> const intfInfo = vrfStatus()->ipAddrIntfInfo(watchedAddr);
   uloAssert(intfInfo->intfHas( natIntf() ));
   return watchedAddr;
}

Lumet::IpAddr NatIntfStatusSm::doVerifyDynamicConnection(Lumet::ConnTuple const& tuple) {
   Ip::Nat::DynamicConnectionKey const key(natIntf_, tuple);
   auto const conn = dynamicConnectionStatus_->dynamicConnection(key);
   auto const hw = dynamicConnectionHwStatus_->dynamicConnectionHw(key);
   if (!hw.present) return Lumet::IpAddr();
   // The connection as configured, or as programmed when its configuration
   // has gone and the delete waits.
   Lumet::IpAddr const watchedAddr =
      conn.present ? dynamicConnectionWatchedAddr(tuple, conn.record.target(), conn.record.globalAddress())
                   : dynamicConnectionWatchedAddr(tuple, hw.record.target(), hw.record.globalAddress());
   if (!deferredDynamicNat_.empty()) return watchedAddr.isMulticast() ? Lumet::IpAddr() : watchedAddr;
   if (watchedAddr.isMulticast()) return watchedAddr;

   // The names the assertion texts use.
   Lumet::ConnTuple const& connTuple = tuple;
   auto const dynamicKeyWatchedAddr = [this](Lumet::ConnTuple const& t) {
      Lumet::IpAddr const* addr = dynamicWatchedAddr_.keyWatchedAddr(t);
      return addr ? *addr : Lumet::IpAddr();
   };
   auto const watchedAddrDynamicKey = [this](Lumet::IpAddr const& addr) {
      return ReverseMember<DynamicNatAddrInfo>(dynamicWatchedAddr_.watchedAddrKey(addr));
   };
   uloAssert(dynamicKeyWatchedAddr( connTuple ) == watchedAddr);
   uloAssert(watchedAddrDynamicKey( watchedAddr )->mappedAddrHas( connTuple ));
   uloAssert(vrfStatus()->ipAddrIntfInfoHas( watchedAddr ));
   Ptr<NatIntfInfo> const intfInfo = vrfStatus()->ipAddrIntfInfo(watchedAddr);
   uloAssert(intfInfo->intfHas( natIntf() ));
   return watchedAddr;
}

TwiceNatWatchedAddr NatIntfStatusSm::doVerifyTwiceNatConnection(Vor::U16 group) {
   Ip::Nat::NatTwiceConnection const conn = intfStatus()->twiceNatConnection(group);
   TwiceNatWatchedAddr const watchedAddr{conn.srcOld().ip(), conn.dstNew().ip()};
   if (pendingCommit_) {
      VOR_TRACE(7, natIntf_.stringValue() << " Skipping further verification, pending Commit is true");
      return watchedAddr;
   }

   // The entry of a complete rule is keyed by its configured tuple; half a
   // rule has no entry of its own (its dynamic connections have theirs).
   Lumet::ConnTuple const tuple(conn.srcOld(), conn.dstOld(), conn.protocol());
   auto const hwIntf = hwIntfStatus();
   auto const record = hwIntf ? hwIntf->twiceNatConnectionHw(group) : Ptr<Ip::Nat::HwNatTwiceConnection>();
   bool const programmed = record && record->entryHas(tuple);
   if (programmed) {
      // The names the assertion texts use.
      TwiceNatKey const key(group, tuple);
      Lumet::IpAddr const& srcWatchedAddr = watchedAddr.srcWatchedAddr;
      Lumet::IpAddr const& dstWatchedAddr = watchedAddr.dstWatchedAddr;
      auto const twiceNatKeyWatchedAddr = [this](TwiceNatKey const& k) {
         TwiceNatWatchedAddr const* watched = twiceWatchedAddr_.keyWatchedAddr(k);
         return watched ? *watched : TwiceNatWatchedAddr();
      };
      auto const watchedAddrTwiceNatKey = [this](Lumet::IpAddr const& addr) {
         return ReverseMember<TwiceNatAddrInfo>(twiceWatchedAddr_.watchedAddrKey(addr));
      };
      if (dstWatchedAddr.isMulticast()) {
         // A multicast destination watches nothing, its source neither.
         uloAssert(!watchedAddrTwiceNatKey( srcWatchedAddr ) || !watchedAddrTwiceNatKey( srcWatchedAddr )->mappedAddrHas( key ));
         uloAssert(!watchedAddrTwiceNatKey( dstWatchedAddr ) || !watchedAddrTwiceNatKey( dstWatchedAddr )->mappedAddrHas( key ));
      } else {
         uloAssert(twiceNatKeyWatchedAddr( key ) == watchedAddr);
         uloAssert(watchedAddrTwiceNatKey( srcWatchedAddr )->mappedAddrHas( key ));
         uloAssert(watchedAddrTwiceNatKey( dstWatchedAddr )->mappedAddrHas( key ));
         {
            uloAssert(vrfStatus()->ipAddrIntfInfoHas( srcWatchedAddr ));
            Ptr<NatIntfInfo> const intfInfo = vrfStatus()->ipAddrIntfInfo(srcWatchedAddr);
            uloAssert(intfInfo->intfHas( natIntf() ));
         }
         {
            uloAssert(vrfStatus()->ipAddrIntfInfoHas( dstWatchedAddr ));
            Ptr<NatIntfInfo> const intfInfo = vrfStatus()->ipAddrIntfInfo(dstWatchedAddr);
            uloAssert(intfInfo->intfHas( natIntf() ));
         }
      }
   }

   natHelper_->verifyTwiceNat(conn.srcOld(), conn.srcNew(), conn.dstOld(), conn.dstNew(), conn.protocol(),
                              conn.vlanId(), true, programmed);
   natHelper_->verifyTwiceNat(conn.dstNew(), conn.dstOld(), conn.srcNew(), conn.srcOld(), conn.protocol(),
                              conn.vlanId(), false, programmed);
   // Only an entry in hardware with a unicast destination holds references
   // (on both addresses); anything else counts for nothing.
   if (!programmed || watchedAddr.dstWatchedAddr.isMulticast()) return TwiceNatWatchedAddr();
   return watchedAddr;
}

void NatIntfStatusSm::verifyStaticHwRule(Ip::Nat::NatTarget target, Lumet::IpAndPort const& local,
                                         Lumet::IpAndPort const& global, Lumet::IpAddrWithFullMask const& filter,
                                         Vor::U8 protocol, Vor::U16 vlan, Vor::String const& aclName,
                                         Ip::Nat::StaticKey const& key, bool forward) {
   // Side 0 is the translation toward the local address for a destination
   // rule and away from it for a source rule; side 1 the other way. A
   // multicast address is not translated back, so its side-0 check is
   // told not to expect the forward flag.
   auto const side0 = static_cast<Ip::Nat::NatTarget>(0);
   auto const side1 = static_cast<Ip::Nat::NatTarget>(1);
   VOR_TRACE(9, natIntf_.stringValue() << " verify static " << key.stringValue() << " acl " << aclName.stdString());
   if (target == Ip::Nat::destination) {
      natHelper_->verifyStaticNat(key, side0, global, local, filter, protocol, vlan,
                                  global.ip().isMulticast() ? false : forward);
      natHelper_->verifyStaticNat(key, side1, local, global, filter, protocol, vlan, forward);
   } else {
      natHelper_->verifyStaticNat(key, side0, local, global, filter, protocol, vlan,
                                  local.ip().isMulticast() ? false : forward);
      natHelper_->verifyStaticNat(key, side1, global, local, filter, protocol, vlan, forward);
   }
}

void NatIntfStatusSm::doVerifyDynamicBacklog(Vor::U32 numRequests, bool isDelete, bool isReinsert) {
   VOR_TRACE(5, natIntf_.stringValue() << " verify dynamic backlog, requests " << numRequests);
   for (auto const& [tuple, event] : deferredDynamicNat_.entries()) {
      bool const deleting = isDeleting(event);
      bool const reinsert = event == DeferredDynamicNatEvent::deleteAndAddDyn;
      uloAssert(deleting == isDelete && reinsert == isReinsert);
   }
}

} // namespace Ulo
