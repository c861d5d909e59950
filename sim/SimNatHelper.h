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
// VRF-to-VRF translations and per-VRF source policers (sim/SimNatHelperVrf.cpp)
// share the table's capacity with the interface translations: each
// translation takes one entry, each VRF's policer one while it is set (a
// policer of rate 0 and burst 0 is cleared and takes none). They are never
// staged: a VRF operation is on the chip when it returns, in either mode.
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
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <unordered_map>
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

   // The key of a twice half: forward matches (srcOld, dstOld) of the
   // group's flow, reverse the flow's translated reply.
   static ChipEntryKey twice(bool forward, Ulo::VrfId vrfId, U16 vlan, U16 group, Lumet::IpAndPort srcOld,
                             Lumet::IpAndPort dstOld);

   bool operator<(ChipEntryKey const& o) const;
   bool operator==(ChipEntryKey const& o) const = default;
   std::string stringValue() const;
};

// One dynamic translation on the chip: the source or the destination half of
// a connection, by tuple (a full-cone destination by NAT address only, shared
// by every remote that reaches it).
struct DynamicChipKey {
   bool destination = false;
   Ulo::VrfId vrfId;
   Lumet::ConnTuple tuple;

   bool operator==(DynamicChipKey const& o) const = default;
};

struct DynamicChipKeyHash {
   std::size_t operator()(DynamicChipKey const& k) const noexcept {
      return k.tuple.hash(k.vrfId.value() * 2u + (k.destination ? 1u : 0u));
   }
};

struct DynamicChipEntry {
   Lumet::IpAndPort newIpAndPort;
   U16 vlan = 0;
   U64 nextHopId = 0;
   bool operator==(DynamicChipEntry const& o) const = default;
};

// One half of a VRF-to-VRF rule on the chip. Both halves are keyed by the
// rule's inside VRF and untranslated address, so that adding a rule again
// with another translated address or outside VRF replaces what the chip
// held for it: the source half matches `oldAddr` in the inside VRF and
// writes `newAddr` into the outside VRF, the destination half matches
// `newAddr` in the outside VRF and writes `oldAddr` back.
struct VrfChipKey {
   enum class Kind : U8 { vrfSrc = 0, vrfDst = 1 };
   Kind kind = Kind::vrfSrc;
   U32 insideVrfId = 0;
   Lumet::IpAddr oldAddr;

   auto operator<=>(VrfChipKey const& o) const = default;
   std::string stringValue() const;
};

struct VrfChipEntry {
   Lumet::IpAddr newAddr;
   U32 outsideVrfId = 0;

   bool operator==(VrfChipEntry const& o) const = default;
};

struct VrfPolicerEntry {
   U32 rate = 0;
   U32 burst = 0;

   bool operator==(VrfPolicerEntry const& o) const = default;
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

// One entry of an ACL on the chip: a match of addresses and of port values
// under masks (a port range becomes several entries, one per value-and-mask
// pair), with what the rule does with the match.
struct TrapChipEntry {
   enum class Kind : U8 { trapAll = 0, trap = 1, protocol = 2, service = 3, addrOnly = 4, addrOnlyDenyAll = 5 };
   Kind kind = Kind::trap;
   U32 ruleId = 0;
   U32 seqNum = 0;
   U8 proto = 0;
   Lumet::IpAddrWithFullMask src;
   Lumet::IpAddrWithFullMask dst;
   U16 srcPort = 0;
   U16 srcPortMask = 0;
   U16 dstPort = 0;
   U16 dstPortMask = 0;
   bool deny = false;

   auto tie() const {
      return std::tie(kind, ruleId, seqNum, proto, src, dst, srcPort, srcPortMask, dstPort, dstPortMask, deny);
   }
   bool operator<(TrapChipEntry const& o) const { return tie() < o.tie(); }
   bool operator==(TrapChipEntry const& o) const { return tie() == o.tie(); }
   // "protocol rule 3 seq 1 proto 6 10.0.0.0/8:0/0x0 > 0.0.0.0/0:1024/0xfc00 trap"
   std::string stringValue() const;
};

// An ACL's place on the chip: the trap ACL of (VLAN, name) holds the trap
// rules, its address-only slice the address-only and deny-all rules.
struct TrapAclKey {
   U32 vlanId = 0;
   std::string aclName;
   bool slice = false;
   auto operator<=>(TrapAclKey const& o) const = default;
   std::string stringValue() const;
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

   // VRF translations and policers on the chip (policers by VRF id).
   std::map<VrfChipKey, VrfChipEntry> const& vrfEntries() const { return vrfEntries_; }
   std::map<U32, VrfPolicerEntry> const& policers() const { return policers_; }
   // Entries taken by VRF translations and policers.
   std::size_t vrfOccupancy() const { return vrfEntries_.size() + policers_.size(); }
   // Dynamic translations (SimNatHelperDynamic.cpp). They take entries of the
   // same table and count against the same capacity, but are in force when
   // their call returns: the engine never commits them in batches. A delete
   // finds its entry by tuple alone, so a delete with empty addresses works.
   using DynamicEntryMap = std::unordered_map<DynamicChipKey, DynamicChipEntry, DynamicChipKeyHash>;
   DynamicEntryMap const& dynamicEntries() const { return dynamicEntries_; }
   // Trap ACLs (sim/SimNatHelperTrap.cpp): each value-and-mask entry takes
   // one entry of the same table; an entry an ACL already holds takes no
   // more room. Adds are on the chip when they return and are refused when
   // the chip is full or a refusal is armed; the two commits answer true
   // unless a failure is armed for them. Deleting an ACL removes all its
   // entries, and an ACL without entries is gone.
   std::map<TrapAclKey, std::set<TrapChipEntry>> const& trapAcls() const { return trapAcls_; }
   std::size_t trapEntryCount() const { return trapEntryCount_; }
   // Entries of the trap ACL (or its slice) of (vlan, aclName).
   std::set<TrapChipEntry> const* trapAcl(U32 vlanId, std::string const& aclName, bool slice = false) const;
   // The next n commits of the address-only slices (trap ACLs) fail.
   void failNextSliceCommitIs(U32 n) { failNextSliceCommit_ = n; }
   void failNextTrapCommitIs(U32 n) { failNextTrapCommit_ = n; }
   // Entries taken outside the static table, of every kind.
   std::size_t sideOccupancy() const { return vrfOccupancy() + dynamicEntries_.size() + trapEntryCount_; }

   // ---- traffic (sim/SimNatHelperCounters.cpp) ----
   // The chip counts the packets that hit each entry until the next poll
   // takes them. Traffic on a static connection hits its first entry of the
   // direction (source entries forward, destination entries for replies);
   // on a twice tuple, its forward half, or for replies the reverse half.
   // Each returns false, counting nothing, when the chip holds no such entry.
   bool staticTrafficIs(Ip::Nat::StaticKey const& key, Ulo::VrfId vrfId, U16 vlan, bool reply,
                        U64 packets);
   bool twiceTrafficIs(Ulo::VrfId vrfId, U16 vlan, U16 group, Lumet::ConnTuple const& tuple, bool reply,
                       U64 packets);
   // Dynamic flows are counted per flow tuple and direction (the chip holds
   // no dynamic entries of its own here).
   void dynamicTrafficIs(Lumet::ConnTuple const& flow, bool reply, U64 packets) {
      dynamicPackets_[{flow, reply}] += packets;
   }
   // dynamicTwiceActive() answers this and counts its calls.
   bool dynamicTwiceActiveAnswer = false;
   U64 dynamicTwiceActiveCalls = 0;
   // Packets counted and not yet taken by a poll, over all entries.
   U64 pendingPackets() const;

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
      // VRF translations added / deleted, policer updates.
      U64 vrfAdds = 0;
      U64 vrfDeletes = 0;
      U64 policerUpdates = 0;
      // Dynamic translation calls of every kind, taken or refused; those
      // refused for room.
      U64 dynamicCalls = 0;
      U64 dynamicRefused = 0;
      // Trap ACL entries asked for (whatever the outcome) and refused for
      // room or by an armed refusal; ACL deletions; commits of each kind,
      // and those that failed.
      U64 trapAdds = 0;
      U64 trapRefused = 0;
      U64 trapDeletes = 0;
      U64 sliceCommits = 0;
      U64 trapCommits = 0;
      U64 failedTrapCommits = 0;
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
   // A poll takes the packets pending on the connection's entries of the
   // getter's direction and reports them in pktCount().
   NatCounter getStaticSrcCountersSinceLastPoll(Vor::Ptr<Ip::Nat::HwNatStaticConnection const> conn,
                                                NatCounter const& counter, Ulo::VrfId vrfId) override;
   NatCounter getStaticDstCountersSinceLastPoll(Vor::Ptr<Ip::Nat::HwNatStaticConnection const> conn,
                                                NatCounter const& counter, Ulo::VrfId vrfId) override;
   NatCounter getDynamicSrcCountersSinceLastPoll(U16 vlan, Lumet::ConnTuple const& conn,
                                                 Ulo::VrfId vrfId) override;
   NatCounter getDynamicDstCountersSinceLastPoll(U16 vlan, Lumet::ConnTuple const& conn, bool forward,
                                                 IpAndPort const& natAddr, Ulo::VrfId vrfId) override;
   bool dynamicTwiceActive(U16 vlan, U8 protocol, IpAndPort srcIpAndPortOld, IpAndPort srcIpAndPortNew,
                           IpAndPort dstIpAndPortOld, IpAndPort dstIpAndPortNew) override;
   NatCounter getTwiceNatSrcCountersSinceLastPoll(U16 vlan, U8 protocol, U16 natGroupId,
                                                  IpAndPort srcIpAndPort, IpAndPort dstIpAndPort,
                                                  Ulo::VrfId vrfId) override;
   NatCounter getTwiceNatDstCountersSinceLastPoll(U16 vlan, U8 protocol, U16 natGroupId,
                                                  IpAndPort srcIpAndPort, IpAndPort dstIpAndPort,
                                                  Ulo::VrfId vrfId) override;

   // An add for a connection the chip already holds replaces it, as on a
   // real platform: the connection's entries of both kinds are cleared
   // (staged in batch mode) before the base class programs the new rule, so
   // a rule changed to fewer filter addresses leaves none of the dropped
   // ones behind. Clearing counts no delete; a refused add leaves the
   // connection cleared, and the engine's undo deletes it anyway.
   bool addStaticIpTranslations(Ip::Nat::NatStaticConnection const& connEntry, U16 vlan,
                                Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                MulticastInfo multicastInfo, Ulo::VrfId vrfId, bool aclSharing) override;

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
   // VRF translations: an add takes an entry (or replaces the one with the
   // same match) and is refused when the chip is full or a refusal is armed;
   // a delete removes the entry with that match, if any, and answers true.
   bool addStaticVrfSrcIpTranslation(Lumet::IpAddr oldAddr, Lumet::IpAddr newAddr, U32 insideVrfId,
                                     U32 outsideVrfId) override;
   bool addStaticVrfDstIpTranslation(Lumet::IpAddr oldAddr, Lumet::IpAddr newAddr, U32 insideVrfId,
                                     U32 outsideVrfId) override;
   bool deleteStaticVrfSrcIpTranslation(Lumet::IpAddr oldAddr, Lumet::IpAddr newAddr, U32 insideVrfId,
                                        U32 outsideVrfId) override;
   bool deleteStaticVrfDstIpTranslation(Lumet::IpAddr oldAddr, Lumet::IpAddr newAddr, U32 insideVrfId,
                                        U32 outsideVrfId) override;
   // Sets the policer of VRF `vrfId` (rate 0 and burst 0 clear it). Refused
   // (false) when a new policer finds the chip full.
   bool updateVrfSourcePolicer(U32 rate, U32 burst, U32 vrfId) override;

   bool deleteStaticSrcIpTranslation(U16 vlan, Ip::Nat::StaticKey const& staticKey, bool,
                                     Ulo::VrfId vrfId) override {
      ++counts_.deletes;
      eraseAll(ChipEntryKey::Kind::staticSrc, vlan, staticKey, vrfId);
      return true;
   }
   bool deleteStaticDstIpTranslation(U16 vlan, Ip::Nat::StaticKey const& staticKey, bool,
                                     Ulo::VrfId vrfId) override {
      ++counts_.deletes;
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

   bool addDynamicSrcIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const& srcIpAndPort,
                                   IpAndPort const& dstIpAndPort, IpAndPort const& newSrcIpAndPort, U16 vlan,
                                   Ulo::VrfId vrfId) override;
   bool addDynamicDstIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const& srcIpAndPort,
                                   IpAndPort const& dstIpAndPort, IpAndPort const& newDstIpAndPort,
                                   NextHop nextHop, U16 vlan, bool forward, Ulo::VrfId vrfId) override;
   bool updateDynamicDstIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const& srcIpAndPort,
                                      IpAndPort const& dstIpAndPort, IpAndPort const& newDstIpAndPort,
                                      NextHop nextHop, U16 vlan, bool forward, Ulo::VrfId vrfId) override;
   bool deleteDynamicSrcIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const& srcIpAndPort,
                                      IpAndPort const& dstIpAndPort, IpAndPort const& newSrcIpAndPort,
                                      U16 vlan, Ulo::VrfId vrfId) override;
   bool deleteDynamicDstIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const& srcIpAndPort,
                                      IpAndPort const& dstIpAndPort, IpAndPort const& newDstIpAndPort,
                                      U16 vlan, bool forward, Ulo::VrfId vrfId) override;

   // Trap rules: each call puts one entry into the ACL of its kind; the base
   // class's addTrapRules expands a rule's filters into these calls.
   bool addTrapAllRule(U32 vlanId, Vor::String aclName, U32 ruleId, bool addrOnly, bool fullCone, U16 group,
                       U32 poolId, Ip::Nat::NatTarget target) override;
   bool addTrapRule(U32 vlanId, Vor::String aclName, U32 ruleId, U32 seqNum,
                    IpAddrWithFullMask const& srcIpAndMask, IpAddrWithFullMask const& dstIpAndMask,
                    bool filterFlag, bool deny, bool addrOnly, bool fullCone, U16 group, U32 poolId,
                    Ip::Nat::NatTarget target) override;
   bool addProtocolTrapRule(U32 vlanId, Vor::String aclName, U32 ruleId, U32 seqNum, U8 proto,
                            IpAddrWithFullMask const& srcIpAndMask, IpAddrWithFullMask const& dstIpAndMask,
                            U16 srcPort, U16 srcPortMask, U16 dstPort, U16 dstPortMask, bool filterFlag,
                            bool deny, bool addrOnly, bool fullCone, U16 group, U32 poolId,
                            Ip::Nat::NatTarget target) override;
   bool addServiceTrapRule(U32 vlanId, Vor::String aclName, U32 ruleId, IpAddrWithFullMask const& srcIpAndMask,
                           U16 srcPort, IpAddrWithFullMask const& dstIpAndMask, U16 dstPort, bool filterFlag,
                           bool deny, Ip::Nat::NatTarget target) override;
   bool addAddrOnlyAclRule(U32 vlanId, Vor::String aclName, U32 ruleId, IpAddrWithFullMask const& srcIpAndMask,
                           IpAddrWithFullMask const& dstIpAndMask, bool filterFlag,
                           Ip::Nat::NatTarget target) override;
   bool addAddrOnlyDenyAllAcl(U32 vlanId, Vor::String aclName, U32 ruleId, Ip::Nat::NatTarget target) override;
   bool delAddrOnlyAclSliceRule(U32 vlanId, Vor::String aclName) override;
   bool delTrapRule(U32 vlanId, Ip::Nat::DynamicKey const& key) override;
   bool commitAddrOnlyAclSliceRules() override;
   bool commitTrapRules() override;

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
   // Builds the entry of one twice NAT half and puts it; add and update
   // differ only in `isUpdate`.
   UloHelper::NatHwResult putTwice(IpAndPort srcIpAndPortOld, IpAndPort srcIpAndPortNew,
                                   IpAndPort dstIpAndPortOld, IpAndPort dstIpAndPortNew, U8 protocol, U16 vlan,
                                   NextHop const& nextHop, MulticastInfo const& multicastInfo, bool forward,
                                   U16 natGroupId, Ulo::VrfId vrfId, bool isUpdate);
   // Puts one VRF translation on the chip (see addStaticVrfSrcIpTranslation).
   bool putVrf(VrfChipKey const& key, VrfChipEntry const& entry);
   bool putDynamic(DynamicChipKey const& key, DynamicChipEntry const& entry, bool isUpdate);
   bool putTrap(TrapAclKey const& key, TrapChipEntry const& entry);
   void eraseAcl(TrapAclKey const& key);
   // Whether the chip has room for one more entry, after what is staged.
   bool roomForOne() const;
   // Removes every entry of one kind of a connection (stages the removal in
   // batch mode); counts nothing, the callers do.
   void eraseAll(ChipEntryKey::Kind kind, U16 vlan, Ip::Nat::StaticKey const& staticKey,
                 Ulo::VrfId vrfId);
   void eraseOne(ChipEntryKey const& key);
   // Takes the pending packets of the entries of one static connection and
   // one kind.
   U64 takeStaticPackets(ChipEntryKey::Kind kind, Ip::Nat::HwNatStaticConnection const& conn,
                         Ulo::VrfId vrfId);
   U64 takePackets(ChipEntryKey const& key);
   // The chip key of a twice tuple's half, or nothing without a forward half.
   std::optional<ChipEntryKey> twiceHalfKey(bool forward, Ulo::VrfId vrfId, U16 vlan, U16 group,
                                            Lumet::ConnTuple const& tuple) const;

   std::size_t capacity_;
   bool immediate_;
   U32 refuseNext_ = 0;
   U32 failNextCommit_ = 0;
   bool asyncHwStatusResult_ = true;
   std::map<ChipEntryKey, ChipEntry> entries_;
   // Packets per entry since the last poll; kept in the chip's key order so
   // that a connection's entries are one range. A poll drops what it finds
   // for entries no longer on the chip.
   std::map<ChipEntryKey, U64> pendingPackets_;
   std::map<std::pair<Lumet::ConnTuple, bool>, U64> dynamicPackets_;
   std::map<VrfChipKey, VrfChipEntry> vrfEntries_;
   DynamicEntryMap dynamicEntries_;
   std::map<TrapAclKey, std::set<TrapChipEntry>> trapAcls_;
   std::size_t trapEntryCount_ = 0;
   U32 failNextSliceCommit_ = 0;
   U32 failNextTrapCommit_ = 0;
   std::map<U32, VrfPolicerEntry> policers_;
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
