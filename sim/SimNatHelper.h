#pragma once
// Sim::SimNatHelper: a simulated forwarding chip behind the hardware helper
// interface, for tests, the simulator and the benchmarks.
//
// The chip holds a translation table of configurable capacity. It implements
// the single-address static operations (source and destination: add, update,
// delete); the composite operations of UloHelper::UloHelperNat split each
// static connection into them, one per filter address. It implements the
// twice translations too: each half of a pair (forward, reverse) is one
// entry. Each add takes one entry of the table and is refused when the table
// is full. A multicast record given with a translation is kept with its
// outgoing interfaces.
//
// Two commit modes:
//  - immediate (immediateCommit() true): each operation is on the chip when
//    it returns;
//  - batch (immediateCommit() false): operations are staged, and
//    commitHwTranslations() puts the whole stage on the chip at once, or, on
//    a failed commit, drops it and leaves the chip as it was.
// Capacity is checked when an add is asked, against what the chip holds
// plus what is staged, so a staged batch never overflows at commit.
//
// Fault injection: refuseNextIs(n) refuses the next n single-address
// operations whatever the room on the chip; failNextCommitIs(n) makes the
// next n commits fail.
//
// Inspection: entries() is the chip's table (what a real chip would report),
// staged() what waits for a commit. hwEntryCount(intf...) style summaries are
// left to callers, which compare entries() with Ip::Nat::HwStatus.
//
// Thread safety: the agent's one thread, as every helper.
//
// Invariants:
//  1. entries().size() <= capacity() after every operation, except after a
//     capacityIs() that shrank the table below what it holds: then no add is
//     accepted until entries are removed.
//  2. In immediate mode staged() is always empty.

#include <map>
#include <string>
#include <vector>

#include "UloNat/UloHelperNat.h"

namespace Sim {

using Vor::U16;
using Vor::U32;
using Vor::U64;
using Vor::U8;

// One translation on the chip.
struct ChipEntryKey {
   enum class Kind : U8 { staticSrc = 0, staticDst = 1, twiceForward = 2, twiceReverse = 3 };
   Kind kind = Kind::staticSrc;
   Ulo::VrfId vrfId;
   U16 vlan = 0;
   Ip::Nat::StaticKey staticKey;
   Lumet::IpAddrWithFullMask filterAddress;
   // Twice halves only: the group, and the old source and destination that
   // the half matches (protocol 0: a delete does not name the protocol).
   U16 group = 0;
   Lumet::ConnTuple match;

   bool operator<(ChipEntryKey const& o) const;
   bool operator==(ChipEntryKey const& o) const = default;
   std::string stringValue() const;
};

struct ChipEntry {
   Lumet::IpAndPort oldIpAndPort;
   Lumet::IpAndPort newIpAndPort;
   U8 protocol = 0;
   U16 vlan = 0;
   bool forward = false;
   U64 nextHopId = 0;
   bool multicast = false;
   // Twice halves: the translated destination, and the multicast record's
   // outgoing interfaces.
   Lumet::IpAndPort dstOldIpAndPort;
   Lumet::IpAndPort dstNewIpAndPort;
   Ulo::NatMrouteOifSet oifSet;

   bool operator==(ChipEntry const& o) const = default;
};

class SimNatHelper : public UloHelper::UloHelperNat {
 public:
   // capacity: entries the chip's table holds. immediate: the commit mode.
   SimNatHelper(Vor::String name, std::size_t capacity, bool immediate);

   // ---- the chip ----
   std::size_t capacity() const { return capacity_; }
   void capacityIs(std::size_t capacity) { capacity_ = capacity; }
   bool immediate() const { return immediate_; }
   void immediateIs(bool immediate) { immediate_ = immediate; }
   std::map<ChipEntryKey, ChipEntry> const& entries() const { return entries_; }
   // Entries of one static connection (all filter addresses, both kinds).
   std::size_t entriesOf(Ip::Nat::StaticKey const& key, Ulo::VrfId vrfId, U16 vlan) const;
   std::size_t stagedCount() const { return staged_.size(); }
   // Twice halves on the chip, and those whose other half is missing (a
   // correct engine never leaves one).
   std::size_t twiceEntries() const;
   std::size_t halfTwicePairs() const;
   // The chip entry of one twice half, or null.
   ChipEntry const* twiceEntry(bool forward, Ulo::VrfId vrfId, U16 vlan, U16 group,
                               Lumet::IpAndPort srcOld, Lumet::IpAndPort dstOld) const;

   // ---- fault injection ----
   void refuseNextIs(U32 n) { refuseNext_ = n; }
   U32 refuseNext() const { return refuseNext_; }
   void failNextCommitIs(U32 n) { failNextCommit_ = n; }
   U32 failNextCommit() const { return failNextCommit_; }

   // ---- statistics ----
   struct Counts {
      U64 hwInit = 0;
      U64 hwCleanup = 0;
      U64 replayOn = 0;
      U64 replayOff = 0;
      U64 replayReconcile = 0;
      U64 commits = 0;
      U64 failedCommits = 0;
      U64 adds = 0;
      U64 updates = 0;
      U64 deletes = 0;
      U64 refused = 0;
      U64 updateCounterStatus = 0;
      // Adds asked while the helper's replay flag was on.
      U64 addsDuringReplay = 0;
      // Asynchronous status hand-offs (doHandleAsyncHwStatus).
      U64 asyncHwStatus = 0;
      // Twice helper calls, whatever their outcome.
      U64 twiceAdds = 0;
      U64 twiceUpdates = 0;
      U64 twiceDeletes = 0;
   };
   Counts const& counts() const { return counts_; }
   // The order of the lifecycle calls, as words ("hwInit", "replayOn", ...),
   // for tests that check the start-up order.
   std::vector<std::string> const& lifecycle() const { return lifecycle_; }

   // ---- UloHelperNat ----
   void hwInit() override;
   void hwCleanup() override;
   void replayReconcile() override;
   void updateCounterStatus(bool enabled) override;
   bool immediateCommit() const override { return immediate_; }
   // Counts the hand-off and answers asyncHwStatusResult() (true unless set).
   bool doHandleAsyncHwStatus(Ulo::NatHwKey const& hwKey) override;
   bool asyncHwStatusResult() const { return asyncHwStatusResult_; }
   void asyncHwStatusResultIs(bool v) { asyncHwStatusResult_ = v; }
   bool commitHwTranslations() override;

   // The single-address operations: each builds one chip entry of its kind
   // (a source add carries no next hop and no multicast data), or removes
   // every entry of its kind for the connection.
   bool addStaticSrcIpTranslation(IpAndPort const& oldIpAndPort, IpAndPort const& newIpAndPort,
                                  IpAddrWithFullMask const& filterAddress, U8 protocol, U16 vlan,
                                  Ip::Nat::StaticKey const& staticKey, bool forward,
                                  Ulo::VrfId vrfId) override {
      return putStatic(ChipEntryKey::Kind::staticSrc, oldIpAndPort, newIpAndPort, filterAddress, protocol,
                       vlan, staticKey, nullptr, nullptr, forward, vrfId, false);
   }
   bool addStaticDstIpTranslation(IpAndPort const& oldIpAndPort, IpAndPort const& newIpAndPort,
                                  IpAddrWithFullMask const& filterAddress, U8 protocol, U16 vlan,
                                  Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                  MulticastInfo multicastInfo, bool forward, Ulo::VrfId vrfId) override {
      return putStatic(ChipEntryKey::Kind::staticDst, oldIpAndPort, newIpAndPort, filterAddress, protocol,
                       vlan, staticKey, nextHop, multicastInfo, forward, vrfId, false);
   }
   bool updateStaticDstIpTranslation(IpAndPort const& oldIpAndPort, IpAndPort const& newIpAndPort,
                                     IpAddrWithFullMask const& filterAddress, U8 protocol, U16 vlan,
                                     Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                     MulticastInfo multicastInfo, bool forward, Ulo::VrfId vrfId) override {
      return putStatic(ChipEntryKey::Kind::staticDst, oldIpAndPort, newIpAndPort, filterAddress, protocol,
                       vlan, staticKey, nextHop, multicastInfo, forward, vrfId, true);
   }
   bool updateStaticSrcIpTranslation(IpAndPort const& oldIpAndPort, IpAndPort const& newIpAndPort,
                                     IpAddrWithFullMask const& filterAddress, U8 protocol, U16 vlan,
                                     Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                     MulticastInfo multicastInfo, bool forward, Ulo::VrfId vrfId) override {
      return putStatic(ChipEntryKey::Kind::staticSrc, oldIpAndPort, newIpAndPort, filterAddress, protocol,
                       vlan, staticKey, nextHop, multicastInfo, forward, vrfId, true);
   }
   bool deleteStaticSrcIpTranslation(U16 vlan, Ip::Nat::StaticKey const& staticKey, bool,
                                     Ulo::VrfId vrfId) override {
      eraseAll(ChipEntryKey::Kind::staticSrc, vlan, staticKey, vrfId);
      return true;
   }
   bool deleteStaticDstIpTranslation(U16 vlan, Ip::Nat::StaticKey const& staticKey, bool,
                                     Ulo::VrfId vrfId) override {
      eraseAll(ChipEntryKey::Kind::staticDst, vlan, staticKey, vrfId);
      return true;
   }

   // Twice halves: one chip entry each (sim/SimNatHelperTwice.cpp).
   UloHelper::NatHwResult addTwiceNatTranslation(IpAndPort srcIpAndPortOld, IpAndPort srcIpAndPortNew,
                                      IpAndPort dstIpAndPortOld, IpAndPort dstIpAndPortNew, U8 protocol,
                                      U16 vlan, NextHop nextHop, MulticastInfo multicastInfo, bool forward,
                                      U16 natGroupId, Ulo::VrfId vrfId, bool dynamic) override;
   bool delTwiceNatTranslation(IpAndPort srcIpAndPortOld, IpAndPort srcIpAndPortNew,
                               IpAndPort dstIpAndPortOld, IpAndPort dstIpAndPortNew, U16 vlan, bool forward,
                               U16 natGroupId, Ulo::VrfId vrfId) override;
   UloHelper::NatHwResult updateTwiceNatTranslation(IpAndPort srcIpAndPortOld, IpAndPort srcIpAndPortNew,
                                         IpAndPort dstIpAndPortOld, IpAndPort dstIpAndPortNew, U8 protocol,
                                         U16 vlan, NextHop nextHop, MulticastInfo multicastInfo,
                                         bool forward, U16 natGroupId, Ulo::VrfId vrfId,
                                         bool dynamic) override;

 private:
   struct StagedOp {
      enum class Kind : U8 { put, erase } kind;
      ChipEntryKey key;
      ChipEntry entry;
   };
   // Consumes one refusal if any is armed.
   bool refuseNow();
   // Entries the chip would hold once the stage is committed.
   std::size_t occupancyAfterStage() const;
   bool presentAfterStage(ChipEntryKey const& key) const;
   void stage(StagedOp const& op);
   bool put(ChipEntryKey const& key, ChipEntry const& entry, bool isUpdate);
   // Builds the entry of one single-address static operation (a null next
   // hop or multicast data leaves those fields clear) and puts it.
   bool putStatic(ChipEntryKey::Kind kind, IpAndPort const& oldIpAndPort, IpAndPort const& newIpAndPort,
                  IpAddrWithFullMask const& filterAddress, U8 protocol, U16 vlan,
                  Ip::Nat::StaticKey const& staticKey, NextHop const& nextHop,
                  MulticastInfo const& multicastInfo, bool forward, Ulo::VrfId vrfId, bool isUpdate);
   void eraseAll(ChipEntryKey::Kind kind, U16 vlan, Ip::Nat::StaticKey const& staticKey,
                 Ulo::VrfId vrfId);
   void eraseOne(ChipEntryKey const& key);

   std::size_t capacity_;
   bool immediate_;
   U32 refuseNext_ = 0;
   U32 failNextCommit_ = 0;
   bool asyncHwStatusResult_ = true;
   std::map<ChipEntryKey, ChipEntry> entries_;
   std::vector<StagedOp> staged_;
   // Whether each key touched by the stage is on the chip after the commit,
   // and the net change of occupancy that the stage makes, kept as the stage
   // grows so that the capacity check is O(log n).
   std::map<ChipEntryKey, bool> stagedPresence_;
   long stagedDelta_ = 0;
   Counts counts_;
   std::vector<std::string> lifecycle_;
};

Vor::Ptr<SimNatHelper> simNatHelperFactory(Vor::String name, std::size_t capacity, bool immediate);

} // namespace Sim
