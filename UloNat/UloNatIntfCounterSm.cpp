// Ulo::NatIntfCounterSm: the clock tick and the static and twice passes.

#include "UloNat/UloNatIntfCounterSm.h"

#include <vector>

#include "UloNat/UloNatSm.h"
#include "framework/VorSystem.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("UloNatIntfCounterSm");

namespace Ulo {

NatIntfCounterSm::NatIntfCounterSm(Ptr<UloCommonSmData const> const& commonSmData,
                                   Lumet::IntfId const& natIntf, Ptr<Vor::Clock const> const& clock,
                                   Ptr<Ip::Nat::IntfStatus const> const& intfStatus,
                                   Ptr<Ip::Nat::HwIntfStatus> const& hwIntfStatus,
                                   Ptr<UloHelper::UloHelperNat> const& natHelper, NatSm* natSm,
                                   VrfId vrfId)
    : UloBaseSm(commonSmData),
      natIntf_(natIntf),
      clock_(clock),
      intfStatus_(intfStatus),
      hwIntfStatus_(hwIntfStatus),
      natHelper_(natHelper),
      natSm_(natSm),
      vrfId_(vrfId) {
   clockReactor_.notifierIs(clock);
}

// The clock reactor's destructor cancels a pending tick, so a dropped
// machine is never called back.
NatIntfCounterSm::~NatIntfCounterSm() = default;

void NatIntfCounterSm::vorDoZombieReactors(bool zombie) {
   UloBaseSm::vorDoZombieReactors(zombie);
   clockReactor_.vorDoZombieReactors(zombie);
}

void NatIntfCounterSm::handleInitialized() {
   VOR_TRACE(5, "NatIntfCounterSm::handleInitialized");
   if (!initialized()) return;
   if (natSm_ && natSm_->hwCapabilities()) {
      natCountersSupported_ = natSm_->hwCapabilities()->natCountersSupported();
   }
   double const interval = natHelper_->counterPollingInterval();
   if (interval != 0.0) {
      VOR_TRACE(5, "Overriding UloNat static/twice counters polling interval to " << interval
                                                                                  << " seconds");
      counterPollingInterval_ = interval;
   }
   clockReactor_.timeMinIs(Vor::System::currentTime() + counterPollingInterval_);
}

void NatIntfCounterSm::handleTime() {
   VOR_TRACE(8, "t=" << natIntf_);
   // natCountersSupported plays no part here: a machine that exists polls;
   // whether counters run at all is the root's counterStatus.
   if (hwIntfStatus_) {
      handleStaticConnCounters();
      handleTwiceConnCounters();
   }
   // Counted from the end of the work, not from the tick that started it.
   clockReactor_.timeMinIs(Vor::System::currentTime() + counterPollingInterval_);
}

void NatIntfCounterSm::handleStaticConnCounters() {
   Ip::Nat::HwIntfStatus& hw = *hwIntfStatus_;
   auto const& conns = hw.staticConnectionHw();
   std::uint64_t version = hw.staticConnectionHwVersion();
   auto it = conns.begin();
   while (it != conns.end()) {
      Ip::Nat::StaticKey const key = it->first;
      Ptr<Ip::Nat::HwNatStaticConnection const> const conn = it->second;
      Ip::Nat::NatCounter const before = hw.staticConnectionHwCount(key);
      VOR_TRACE(8, "Polling connection Old srcIP: " << key.stringValue());
      U64 const deltaPkts = natHelper_->getStaticSrcCountersSinceLastPoll(conn, before, vrfId_).pktCount();
      U64 const deltaPktsReply =
         natHelper_->getStaticDstCountersSinceLastPoll(conn, before, vrfId_).pktCount();
      if (deltaPkts != 0 || deltaPktsReply != 0) {
         // Read again: the helper may have written the counter meanwhile.
         Ip::Nat::NatCounter counter = hw.staticConnectionHwCount(key);
         counter.pktCountInc(deltaPkts);
         counter.pktCountReplyInc(deltaPktsReply);
         hw.staticConnectionHwCountIs(key, counter);
      }
      if (hw.staticConnectionHwVersion() != version) {
         version = hw.staticConnectionHwVersion();
         it = conns.upper_bound(key);
      } else {
         ++it;
      }
   }
}

void NatIntfCounterSm::handleTwiceConnCounters() {
   Ip::Nat::HwIntfStatus& hw = *hwIntfStatus_;
   auto const& groups = hw.twiceNatConnectionHw();
   std::uint64_t version = hw.twiceNatConnectionHwVersion();
   auto it = groups.begin();
   std::vector<Lumet::ConnTuple> tuples;
   while (it != groups.end()) {
      U16 const group = it->first;
      Ptr<Ip::Nat::HwNatTwiceConnection const> const conn = it->second;
      VOR_TRACE(8, "Polling twice connections group: " << group);
      Ptr<Ip::Nat::HwNatTwiceCount> const count = hw.twiceNatConnectionHwCountIs(group);
      tuples.clear();
      for (auto const& [tuple, addr] : conn->entry()) tuples.push_back(tuple);
      for (auto const& tuple : tuples) {
         U64 const deltaPkts = natHelper_
                                  ->getTwiceNatSrcCountersSinceLastPoll(conn->vlanId(), conn->protocol(),
                                                                        group, tuple.srcAddr(),
                                                                        tuple.dstAddr(), vrfId_)
                                  .pktCount();
         U64 const deltaPktsReply = natHelper_
                                       ->getTwiceNatDstCountersSinceLastPoll(
                                          conn->vlanId(), conn->protocol(), group, tuple.srcAddr(),
                                          tuple.dstAddr(), vrfId_)
                                       .pktCount();
         if (deltaPkts == 0 && deltaPktsReply == 0) continue;
         Ip::Nat::NatCounter counter = count->count(tuple);
         counter.pktCountInc(deltaPkts);
         counter.pktCountReplyInc(deltaPktsReply);
         count->countIs(tuple, counter);
      }
      if (hw.twiceNatConnectionHwVersion() != version) {
         version = hw.twiceNatConnectionHwVersion();
         it = groups.upper_bound(group);
      } else {
         ++it;
      }
   }
}

void NatIntfCounterSm::handleVerify() { VOR_TRACE(5, "NatIntfCounterSm::handleVerify " << natIntf_); }

} // namespace Ulo
