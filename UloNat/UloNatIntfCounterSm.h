#pragma once
// Ulo::NatIntfCounterSm: the packet counters of one NAT interface's static
// and twice connections.
//
// The root makes one beside each interface engine while counters are on
// (NatSm::natIntfCounterSmIs) and drops it when they go off or the
// interface goes. On each tick of its clock the machine asks the hardware
// helper, for every static and every twice connection in the interface's
// Ip::Nat::HwIntfStatus, for the packets seen since the last poll, and adds
// what is not zero to the connection's counter there. Dynamic connections
// are polled by the root's "dynamicCountersNat" task instead.
//
// Deltas: each of the helper's *SinceLastPoll getters reports the packets of
// its own direction in the pktCount() of the record it returns; the source
// getter gives the forward delta, the destination getter the reply delta.
//
// Cadence: the first tick comes counterPollingInterval seconds after
// handleInitialized(), and each tick asks for the next one only when its
// passes are done, so the period is the interval plus the length of the
// work. The helper's counterPollingInterval, when not 0.0, replaces the
// default of 5.0 seconds.
//
// Walks that call out: a helper may change hardware status from inside a
// getter (delete a connection, a group, an entry). Both passes watch the
// ordered map's version and, when it moved, find their place again by key,
// going on with the first key above the one just polled; the entries of a
// twice group are walked over a copy of their tuples, and a tuple gone
// meanwhile is still asked for (its counter record is then made anew).
//
// Thread safety: none needed; the agent's one thread. A tick runs its two
// passes in one stretch without yielding.
//
// Invariants:
//  1. A counter is written only when one of its two deltas is not zero: a
//     connection that never saw traffic has no counter entry.
//  2. While the machine is initialized a next tick is always pending.

#include "UloNat/UloHelperNat.h"
#include "UloNat/UloNatTypes.h"
#include "framework/IpNatHwStatus.h"
#include "framework/IpNatStatus.h"
#include "framework/UloBaseSm.h"
#include "framework/VorClock.h"

namespace Ulo {

class NatSm;

class NatIntfCounterSm : public UloBaseSm {
 public:
   // `natSm` is not counted: the root owns this machine and outlives it.
   NatIntfCounterSm(Ptr<UloCommonSmData const> const& commonSmData, Lumet::IntfId const& natIntf,
                    Ptr<Vor::Clock const> const& clock, Ptr<Ip::Nat::IntfStatus const> const& intfStatus,
                    Ptr<Ip::Nat::HwIntfStatus> const& hwIntfStatus,
                    Ptr<UloHelper::UloHelperNat> const& natHelper, NatSm* natSm, VrfId vrfId);
   ~NatIntfCounterSm() override;

   Lumet::IntfId const& natIntf() const { return natIntf_; }
   Ptr<Vor::Clock const> const& clock() const { return clock_; }
   Ptr<Ip::Nat::IntfStatus const> const& intfStatus() const { return intfStatus_; }
   Ptr<Ip::Nat::HwIntfStatus> const& hwIntfStatus() const { return hwIntfStatus_; }
   Ptr<UloHelper::UloHelperNat> const& natHelper() const { return natHelper_; }
   NatSm* natSm() const { return natSm_; }
   VrfId vrfId() const { return vrfId_; }
   bool natCountersSupported() const { return natCountersSupported_; }
   double counterPollingInterval() const { return counterPollingInterval_; }
   // The absolute time of the next tick asked of the clock.
   double nextTick() const { return clockReactor_.timeMin(); }
   bool tickPending() const { return clockReactor_.timePending(); }

   // Takes the capability from the root and the interval from the helper,
   // and asks for the first tick.
   void handleInitialized() override;
   void vorDoZombieReactors(bool zombie) override;
   // A tick: the static pass, the twice pass, then the next tick.
   void handleTime();
   void handleStaticConnCounters();
   void handleTwiceConnCounters();
   // Nothing to verify here beyond a trace.
   void handleVerify();

 private:
   Lumet::IntfId const natIntf_;
   Ptr<Vor::Clock const> clock_;
   Ptr<Ip::Nat::IntfStatus const> intfStatus_;
   Ptr<Ip::Nat::HwIntfStatus> hwIntfStatus_;
   Ptr<UloHelper::UloHelperNat> natHelper_;
   NatSm* natSm_;
   VrfId const vrfId_;
   bool natCountersSupported_ = false;
   double counterPollingInterval_ = 5.0;
   Vor::Clock::Reactor<NatIntfCounterSm> clockReactor_{this, &NatIntfCounterSm::handleTime};
};

} // namespace Ulo
