#pragma once
// Ulo::NatIntfStatusSm: the engine of one NAT interface.
//
// The root state machine (Ulo::NatSm) makes one engine for each NAT interface
// whose VRF is ready in hardware. The engine watches the interface's
// configuration (Ip::Nat::IntfStatus), turns each change into operations of
// the hardware helper (UloHelper::UloHelperNat), records what is in force in
// Ip::Nat::HwIntfStatus and what could not be programmed in the shared
// Ulo::NatUnprogrammedEntries, for the root's review to retry.
//
// Sources of the class:
//   UloNat/UloNatIntfSm.cpp           frame: construction, replay, profiles and
//                                     VLANs, cleanup, unprogrammed bookkeeping
//   UloNat/UloNatIntfSmStatic.cpp     static connections, next-hop updates,
//                                     deferred commit and backlog
//   UloNat/UloNatIntfSmTwice.cpp      twice NAT connections: forward and
//                                     reverse pairs, their watched addresses
//                                     and unprogrammed entries
//   UloNat/UloNatMulticastIntf.cpp    the multicast side: the three route
//                                     tables, transitions, route changes
//
// The engine core, shared by every kind of connection (static, twice,
// dynamic, trap rules), each in a header of its own:
//   UloNat/UloNatWatchedAddrIndex.h   watched addresses, forward and reverse,
//                                     with the VRF references and route
//                                     requests they hold (one index per kind)
//   UloNat/UloNatDeferredHwList.h     per-key work of a backlog, walked in key
//                                     order across call-outs (one per kind)
//   UloNat/UloNatUnprogrammedBook.h   the unprogrammed sets by NatType
// A kind of connection instantiates these and keeps its Part of the engine
// to the operations that are particular to it; the named operations
// (addStaticKeyWatchedAddr, addDeferredStaticNatConnectionHw,
// addUnprogrammedStaticEntry, ...) are thin faces over the core.
//
// Thread safety: none needed. Every handler and both backlog tasks run on the
// agent's one scheduler thread, one at a time; nothing here is locked.
//
// Invariants (each an assertion with the expression text shown):
//  1. "vrfStatus()": the root made the engine's Ulo::NatSmStatusVrf before
//     the engine, and it lives as long as the engine.
//  2. "hwIntfStatus": Ip::Nat::HwStatus holds this interface's
//     Ip::Nat::HwIntfStatus whenever the engine records hardware state.
//  3. "!natHelper()->immediateCommit()": the deferred lists are only used on
//     a helper that commits in batches.
//  4. "vlanId": a member interface of a profile never has VLAN 0.
//  5. "addrInfo": a watched address's reverse-index entity can always be made.
//  6. "ue": an unprogrammed-entries record can always be made.
//  7. A key is in at most one unprogrammed set of one interface, and a key in
//     the unprogrammed set has nothing in hardware status and no watched
//     address.
//  8. With pendingCommit() false and no backlog task at work, both deferred
//     lists are empty.
//  9. Every watched-address reference (NatSmStatusVrf::ipAddrIntfInfo and
//     routeResolverRefCount, and the route request) that this engine holds
//     belongs to exactly one configured connection in one of its indexes: a
//     rule delivered again takes no second reference, a rule whose address
//     changed gives the old one back first.

#include <map>
#include <memory>
#include <set>

#include "UloNat/UloHelperNat.h"
#include "UloNat/UloNatDeferredHwList.h"
#include "UloNat/UloNatMulticastAdapter.h"
#include "UloNat/UloNatMulticastTransition.h"
#include "UloNat/UloNatTypes.h"
#include "UloNat/UloNatUnprogrammedBook.h"
#include "UloNat/UloNatWatchedAddrIndex.h"
#include "framework/DovTask.h"
#include "framework/IpNatDynamicConnectionStatus.h"
#include "framework/IpNatHwCapabilities.h"
#include "framework/IpNatHwStatus.h"
#include "framework/IpNatStatus.h"
#include "framework/MrouteLibStaticNatInfo.h"
#include "framework/UloBaseSm.h"
#include "framework/VorReactor.h"

namespace Ulo {

enum class DeferredDynamicNatEvent : Vor::U8 {
   addDyn = 0,
   deleteDyn = 1,
   updateDyn = 2,
   deleteAndAddDyn = 3,
};

// A static connection whose hardware status waits for the next commit.
class DeferredStaticNatConnectionHw : public Vor::PtrInterface {
 public:
   explicit DeferredStaticNatConnectionHw(Ip::Nat::StaticKey const& key) : staticKey_(key) {}
   Ip::Nat::StaticKey const& staticKey() const { return staticKey_; }
   // The batch removes this key.
   bool deleteConnection() const { return deleteConnection_; }
   void deleteConnectionIs(bool v) { deleteConnection_ = v; }
   // A next hop changed while the entry waited.
   bool updateNextHop() const { return updateNextHop_; }
   void updateNextHopIs(bool v) { updateNextHop_ = v; }
   // What to record in hardware status; unused on a delete.
   Ip::Nat::NatStaticConnection const& connEntry() const { return connEntry_; }
   void connEntryIs(Ip::Nat::NatStaticConnection const& c) { connEntry_ = c; }
   // The multicast state changed while the entry waited.
   bool updateMulticast() const { return updateMulticast_; }
   void updateMulticastIs(bool v) { updateMulticast_ = v; }

 private:
   Ip::Nat::StaticKey staticKey_;
   bool deleteConnection_ = false;
   bool updateNextHop_ = false;
   Ip::Nat::NatStaticConnection connEntry_;
   bool updateMulticast_ = false;
};

// A twice connection whose hardware status waits for the next commit. Its
// producer is the twice-NAT path of the engine.
class DeferredTwiceNatConnectionHw : public Vor::PtrInterface {
 public:
   explicit DeferredTwiceNatConnectionHw(TwiceNatKey const& key) : key_(key) {}
   TwiceNatKey const& key() const { return key_; }
   Ip::Nat::HwNatTwiceAddr const& addr() const { return addr_; }
   void addrIs(Ip::Nat::HwNatTwiceAddr const& a) { addr_ = a; }
   bool deletion() const { return deletion_; }
   void deletionIs(bool v) { deletion_ = v; }
   bool updateNextHop() const { return updateNextHop_; }
   void updateNextHopIs(bool v) { updateNextHop_ = v; }
   bool updateMulticast() const { return updateMulticast_; }
   void updateMulticastIs(bool v) { updateMulticast_ = v; }

 private:
   TwiceNatKey key_;
   Ip::Nat::HwNatTwiceAddr addr_;
   bool deletion_ = false;
   bool updateNextHop_ = false;
   bool updateMulticast_ = false;
};

// The address whose next hop a static connection depends on: the global
// address of a destination rule, the local address of a source rule. (An
// egress rule, or a multicast address, watches nothing.)
Lumet::IpAddr staticConnectionWatchedAddr(Ip::Nat::StaticKey const& key,
                                          Ip::Nat::NatStaticConnection const& conn);

// The profile number of a NAT profile interface.
// REQUIRES: Lumet::NatIntfId::isNatProfileIntfId(intf).
Vor::U16 intfProfileId(Lumet::IntfId const& intf);

class NatIntfStatusSm : public UloBaseSm {
 public:
   using StaticWatchedAddrIndex = WatchedAddrIndex<Ip::Nat::StaticKey, Lumet::IpAddr>;
   using TwiceWatchedAddrIndex = WatchedAddrIndex<TwiceNatKey, TwiceNatWatchedAddr>;
   using DynamicWatchedAddrIndex = WatchedAddrIndex<Lumet::ConnTuple, Lumet::IpAddr>;
   using DeferredStaticList = DeferredHwList<Ip::Nat::StaticKey, Ptr<DeferredStaticNatConnectionHw>>;
   using DeferredTwiceList = DeferredHwList<TwiceNatKey, Ptr<DeferredTwiceNatConnectionHw>>;
   using DeferredDynamicList = DeferredHwList<Lumet::ConnTuple, DeferredDynamicNatEvent>;

   NatIntfStatusSm(Ptr<UloCommonSmData> const& commonSmData,
                   Ptr<Ip::Nat::IntfStatus const> const& intfStatus,
                   Ptr<Ip::Nat::Status const> const& status,
                   Ptr<Ip::Nat::HwStatus> const& hwStatus,
                   Ptr<Ip::Nat::DynamicConnectionStatus> const& dynamicConnectionStatus,
                   Ptr<Ip::Nat::DynamicConnectionHwStatus> const& dynamicConnectionHwStatus,
                   Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities,
                   Ptr<UloHelper::UloHelperNat> const& natHelper,
                   Ptr<MrouteLib::StaticNatInfo> const& staticNatInfo,
                   Ptr<NatSmStatus> const& natSmStatus,
                   Ptr<NatSmStatusNotif> const& natSmStatusNotif,
                   Ptr<Dov::TaskScheduler> const& taskScheduler, VrfId vrfId,
                   Ptr<NatMulticastAdapter> const& multicastAdapter);
   ~NatIntfStatusSm() override;

   // ---- attributes ----
   Ptr<Ip::Nat::IntfStatus const> intfStatus() const { return intfStatus_.notifier(); }
   Ptr<Ip::Nat::Status const> const& status() const { return status_; }
   Ptr<Ip::Nat::HwStatus> const& hwStatus() const { return hwStatus_; }
   Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities() const { return hwCapabilities_; }
   Ptr<UloHelper::UloHelperNat> const& natHelper() const { return natHelper_; }
   Ptr<MrouteLib::StaticNatInfo> const& staticNatInfo() const { return staticNatInfo_; }
   Ptr<NatSmStatus> const& natSmStatus() const { return natSmStatus_; }
   Ptr<NatSmStatusNotif> const& natSmStatusNotif() const { return natSmStatusNotif_; }
   Ptr<Dov::TaskScheduler> const& taskScheduler() const { return taskScheduler_; }
   VrfId vrfId() const { return vrfId_; }
   Ptr<NatMulticastAdapter> const& multicastAdapter() const { return multicastAdapter_; }
   // The interface's own key.
   Lumet::IntfId const& natIntf() const { return natIntf_; }
   L3::VrfName vrfName() const;
   Ptr<NatSmStatusVrf> const& vrfStatus() const { return vrfStatus_; }
   // The VLAN or profile under which this engine programs.
   Vor::U16 vlanId() const { return vlanId_; }
   bool pendingCommit() const { return pendingCommit_; }
   bool counterStatus() const { return counterStatus_; }
   void counterStatusIs(bool v) { counterStatus_ = v; }
   bool cleanupInProgress() const { return cleanupInProgress_; }
   bool connectionInitInProgress() const { return connectionInitInProgress_; }
   std::map<Lumet::IntfId, Vor::U16> const& intfVlan() const { return intfVlan_; }
   std::map<Ip::Nat::StaticKey, Ip::Nat::NatStaticConnection> const& cachedStaticConnection() const {
      return cachedStaticConnection_;
   }
   Ptr<Dov::Task> const& staticBacklogTask() const { return staticTask_; }
   Ptr<Dov::Task> const& dynamicBacklogTask() const { return dynamicTask_; }

   // The watched addresses of each kind: staticKeyWatchedAddr and
   // watchedAddrStaticKey are staticWatchedAddr().keyWatchedAddr() and
   // .watchedAddrKey(), and so on for twice and dynamic connections.
   StaticWatchedAddrIndex const& staticWatchedAddr() const { return staticWatchedAddr_; }
   TwiceWatchedAddrIndex const& twiceWatchedAddr() const { return twiceWatchedAddr_; }
   DynamicWatchedAddrIndex const& dynamicWatchedAddr() const { return dynamicWatchedAddr_; }
   // The deferred lists: deferredStaticNatConnectionHw,
   // deferredTwiceNatConnectionHw, deferredDynamicNat.
   DeferredStaticList const& deferredStaticNatConnectionHw() const {
      return deferredStaticNatConnectionHw_;
   }
   DeferredTwiceList const& deferredTwiceNatConnectionHw() const {
      return deferredTwiceNatConnectionHw_;
   }
   DeferredDynamicList const& deferredDynamicNat() const { return deferredDynamicNat_; }

   // ---- frame ----
   // Starts the engine: backlog tasks, then, when hardware is up, the replay
   // of every collection of the interface.
   // REQUIRES: the root made this VRF's NatSmStatusVrf ("vrfStatus()").
   void handleInitialized() override;
   void hasNotificationActiveIs(bool active) override;
   void vorDoZombieReactors(bool zombie) override;
   // Runs what is deferred, forgets the unprogrammed entries, clears the
   // profiles this engine bound. Called by the root before it drops the
   // engine; programs no new rule.
   void doCleanup();
   // Takes every connection out of hardware through the delete branches.
   // REQUIRES: hardware is disabled ("!natHelper()->hwInitialized() && ...").
   void doCleanupConnections();
   // Binds or unbinds each member interface's VLAN to this interface's
   // profile.
   void handleNatIntfProfile();
   void handleNatIntfProfile(Lumet::IntfId const& intf);

   // ---- walks of the other collections ----
   // Their keyed handlers come with dynamic NAT and trap rules.
   void handleTwiceNatConnection();
   void handleDynamicConnection();

   // ---- dynamic connections ----
   // The reaction to one change of the dynamic connection table. Without
   // hardware nothing happens. Otherwise the event is deferred to the
   // backlog, or, while the connections are first replayed on a helper that
   // asks for it (skipDeferredProcessingOnInit), handled at once. A
   // connection that is neither address-only nor TCP or UDP is ignored.
   void handleDynamicConnection(Ip::Nat::DynamicConnectionKey const& key);
   // The review's retry of an unprogrammed tuple: done at once, inside the
   // review's run, so that a refusal waits for the review's next turn instead
   // of going round the backlog and the review in no time at all.
   void reviewDynamicConnection(Ip::Nat::DynamicConnectionKey const& key);
   // Programs the connection and, when the helper took it, watches the next
   // hop of its address.
   void handleAddDynamicConnection(Ip::Nat::DynamicConnectionKey const& key,
                                   Ip::Nat::DynamicConnection const& conn);
   // The source translation, then the destination translation (or one more
   // remote on an existing full-cone entry). Returns whether both were
   // taken; a refusal leaves the tuple unprogrammed and nothing of it in
   // hardware.
   bool addDynamicConnection(Ip::Nat::DynamicConnectionKey const& key,
                             Ip::Nat::DynamicConnection const& conn);
   // Reprograms the destination translation after a next-hop change.
   void updateDynamicConnection(Ip::Nat::DynamicConnectionKey const& key);
   // Takes the connection out of hardware, hardware status, the per-VRF
   // indexes and the watched addresses. Works from hardware status, since
   // the connection may be gone from the table.
   void deleteDynamicConnection(Ip::Nat::DynamicConnectionKey const& key);
   // A newcomer that collides with connections in hardware (same tuple, or
   // one's reverse, or another source on the same full-cone address) wins:
   // the old ones are deleted, on whichever interface of the VRF they are.
   void checkDuplicateConnection(Lumet::ConnTuple const& connTuple, Lumet::IpAndPort const& natAddr,
                                 bool fullCone);
   void deleteDuplicateConnection(Lumet::ConnTuple const& tuple, bool fwd);

   // ---- the dynamic backlog ----
   // Collapses `op` into the tuple's pending event and makes sure the task
   // will run. REQUIRES: an entry that meets anything but add, delete or
   // update is a delete ("op == deleteDyn()").
   void addDeferredDynamicNatRequest(Ip::Nat::DynamicConnectionKey const& key, DeferredDynamicNatEvent op);
   void startDynamicBacklogTask();
   // Requests seen by addDeferredDynamicNatRequest, and those that met a
   // pending event of their tuple (dropped or absorbed by it).
   Vor::U64 dynamicRequests() const { return dynamicRequests_; }
   Vor::U64 dynamicRequestsCollapsed() const { return dynamicRequestsCollapsed_; }
   // Removes what was programmed, then remembers the tuple for review.
   void addUnprogrammedDynamicEntry(Ip::Nat::DynamicConnectionKey const& key);
   // Remembers a dynamic twice connection that no twice rule took; deletes
   // nothing and never raises the table-full state.
   void addUnprogrammedDynamicTwiceEntry(Lumet::ConnTuple const& tuple);
   void checkUnprogrammedDynamicEntry(Lumet::ConnTuple const& tuple);
   // Completes half a twice rule (group) from a dynamic twice connection:
   // the dynamic side supplies the half the rule leaves open. True only when
   // the hardware took the entry. A rule that fixes the side the connection
   // claims, names another address or port, or another protocol, or whose
   // group already holds the same pair for the other of TCP and UDP,
   // refuses it and touches nothing.
   // REQUIRES: "dynConn.twiceNat()", and "hwIntfStatus" once the rule fits.
   bool handleDynamicTwiceConnection(Ip::Nat::DynamicConnectionKey const& key, Vor::U16 group,
                                     Ip::Nat::DynamicConnection const& dynConn);

   // ---- trap rules (UloNat/UloNatIntfSmTrap.cpp) ----
   // A dynamic rule makes the chip send the first packets of matching flows
   // to the CPU. One reactor per rule of intfStatus()->trapRule watches the
   // rule's `initialized`, since a rule is filled in after it appears.
   //
   // Walks every rule of the interface.
   void handleTrapRule();
   // Programs the rule when it is configured, initialized and hardware is
   // up, takes it out otherwise; then commits the address-only ACL slices
   // and, only if they went in, the trap ACLs. A refusal or a failed commit
   // (of a removal too) leaves the key in the unprogrammed set for review.
   // An uninitialized rule makes no helper call at all.
   // On a profile interface of a chip without profile support the rule goes
   // on the VLAN that the interface's configuration key names, REQUIRES
   // "configKey.pos( \"profile_Vlan\" ) != Vor::String::npos" and "vlanId()".
   void handleTrapRule(Ip::Nat::DynamicKey const& key);
   // The rules' reactors: trapRuleIs makes the reactor of the rule's key or
   // re-points it at a replaced rule (a null rule throws the framework's
   // null-argument error); trapRuleDel and trapRuleDelAll drop them.
   void trapRuleIs(Ptr<Ip::Nat::NatDynamicTrapRule const> const& rule);
   void trapRuleDel(Ip::Nat::DynamicKey const& key);
   void trapRuleDelAll();
   std::size_t trapRules() const { return trapRule_.size(); }
   bool trapRuleHas(Ip::Nat::DynamicKey const& key) const { return trapRule_.find(key) != nullptr; }
   // Takes whatever of the rule is on the chip out, then remembers the key.
   void addUnprogrammedTrapAcl(Ip::Nat::DynamicKey const& key);
   void checkUnprogrammedTrapAcl(Ip::Nat::DynamicKey const& key);

   // ---- twice NAT connections ----
   // Each entry of a group is two translations, forward and reverse, which
   // are in hardware together or not at all.
   //
   // The reaction to one group: a complete rule (both old addresses set) is
   // programmed when hardware is up; half a rule programs nothing and waits
   // for dynamic connections; otherwise every entry of the group leaves
   // hardware (entries of a dynamic group move to the unprogrammed set, as
   // their connections outlive the rule).
   void handleTwiceNatConnection(Vor::U16 group);
   // Programs forward then reverse; a refused reverse takes the forward half
   // out again. Returns whether both were accepted; on a refusal nothing of
   // the entry stays in hardware and the key is in the unprogrammed set.
   bool addTwiceNatConnection(Vor::U16 group, Lumet::ConnTuple const& addr,
                              Ip::Nat::HwNatTwiceAddr const& natAddr);
   // Before a rule is programmed (or found to be half a rule): takes out of
   // hardware (and out of the unprogrammed set) every other entry of its
   // non-dynamic group, and the entry itself when its translation changed.
   void replaceTwiceNatConnection(Vor::U16 group, Lumet::ConnTuple const& tuple,
                                  Ip::Nat::HwNatTwiceAddr const& natAddr);
   // Reprograms an entry in force (next hop or multicast change). An entry
   // not in hardware status is left alone.
   void updateTwiceNatConnection(Vor::U16 group, Lumet::ConnTuple const& addr);
   // Takes an entry out of hardware, as recorded in hardware status.
   void deleteTwiceNatConnection(Vor::U16 group, Lumet::ConnTuple const& addr);
   // REQUIRES: "hwIntfStatus".
   void addTwiceHwEntry(Lumet::ConnTuple const& addr, Ip::Nat::NatTwiceConnection const& conn,
                        Ip::Nat::HwNatTwiceAddr const& natAddr);
   // REQUIRES: "hwIntfStatus". The last entry of a group takes the group's
   // record with it.
   void deleteTwiceHwEntry(Vor::U16 group, Lumet::ConnTuple const& addr);
   // The map steps of a twice entry's two watched addresses, without the
   // references (the add and delete paths take and give those with them).
   void addTwiceNatKeyWatchedAddr(TwiceNatKey const& key, TwiceNatWatchedAddr const& watched);
   void removeTwiceNatKeyWatchedAddr(TwiceNatKey const& key, TwiceNatWatchedAddr const& watched);
   // The tuples that dynamic connections completed, by tuple: their group.
   std::map<Lumet::ConnTuple, Vor::U16> const& dynamicTwice() const { return dynamicTwice_; }
   // Removes what was programmed, then remembers the key for review: in the
   // dynamic set when a dynamic connection completed the tuple. Only
   // tableFull sets the table-full state.
   void addUnprogrammedTwiceEntry(Vor::U16 group, Lumet::ConnTuple const& tuple,
                                  UloHelper::NatHwResult result);
   void checkUnprogrammedTwiceEntry(Vor::U16 group, Lumet::ConnTuple const& tuple, bool dynamic);
   // Forgets this interface's record of unprogrammed entries once it is
   // empty (and says so when it was the last of all).
   void checkUnprogrammedEntries();

   // ---- static connections ----
   // Walks every static connection of the interface.
   void handleStaticConnection();
   // The reaction to one static connection: added (or replaced) when it is
   // configured and hardware is up, deleted otherwise. Idempotent: running
   // it again for an unchanged rule leaves every count where it was.
   void handleStaticConnection(Ip::Nat::StaticKey const& key);
   // Takes the connection (as last added) out of hardware and out of the
   // watched-address maps. The configuration entry may already be gone.
   void deleteStaticConnection(Ip::Nat::StaticKey const& key);
   // The forward and reverse map steps of a static connection's watched
   // address, without the references (the add branch and
   // deleteStaticConnection take and give those with them).
   void addStaticKeyWatchedAddr(Ip::Nat::StaticKey const& key, Lumet::IpAddr const& addr);
   void removeStaticKeyWatchedAddr(Ip::Nat::StaticKey const& key, Lumet::IpAddr const& addr);
   // A watched address of this engine's VRF resolved differently.
   void updateNextHop(VrfAndIpAddr const& vrfAndAddr);

   // ---- deferred commit ----
   // The last writer for a key wins; the change flags stay set.
   // REQUIRES: "!natHelper()->immediateCommit()".
   void addDeferredStaticNatConnectionHw(Ip::Nat::StaticKey const& key, bool del,
                                         Ip::Nat::NatStaticConnection const& conn);
   // REQUIRES: "!natHelper()->immediateCommit()".
   void addDeferredTwiceNatConnectionHw(TwiceNatKey const& key, Ip::Nat::HwNatTwiceAddr const& addr,
                                        bool del);
   // Commits the batch and copies the result to hardware status. Runs in the
   // static backlog task, or directly during cleanup.
   void doProcessBacklogStatic();
   // The dynamic backlog comes with dynamic NAT; the task exists already.
   void doProcessBacklogDynamic();

   // ---- unprogrammed bookkeeping ----
   // Removes what was programmed, then remembers the key for review.
   void addUnprogrammedStaticEntry(Ip::Nat::StaticKey const& key);
   // Forgets the key once it is programmed or deleted.
   void checkUnprogrammedStaticEntry(Ip::Nat::StaticKey const& key);

   // ---- multicast ----
   // The rule behind each watched route. One route holds one rule of a kind:
   // a second rule on the same route replaces the first one's entry.
   // mrouteTwiceGroup and mrouteTwiceAddr are written and removed together.
   std::map<NatMrouteKey, Ip::Nat::StaticKey> const& mrouteStaticKey() const { return mrouteStaticKey_; }
   std::map<NatMrouteKey, Vor::U16> const& mrouteTwiceGroup() const { return mrouteTwiceGroup_; }
   std::map<NatMrouteKey, Lumet::ConnTuple> const& mrouteTwiceAddr() const { return mrouteTwiceAddr_; }
   // Records the rule under its route and watches the route; nothing without
   // an adapter. A twice rule is told by oldSource's and newGroup's addresses
   // both set.
   // REQUIRES: "group && \"Expecting non-zero group passed to watchMulticast\""
   // for a twice rule, "!!staticKey && \"Expecting staticKey passed to
   // watchMulticast\"" for a static one.
   void watchMulticast(Vor::U16 vlanId, Lumet::IpAndPort const& oldSource,
                       Lumet::IpAndPort const& newSource, Lumet::IpAndPort const& oldGroup,
                       Lumet::IpAndPort const& newGroup, Vor::U32 group, Vor::U8 protocol,
                       Ip::Nat::StaticKey const& staticKey);
   void unWatchMulticast(Vor::U16 vlanId, Lumet::IpAddr sourceIp, Lumet::IpAddr groupIp);
   // What multicast record goes to the helper with a rule, and whether the
   // rule's translation comes into force (the adapter's cache is marked).
   Ptr<NatMulticastTransition> getMulticastTransition(Vor::U16 vlanId, Lumet::IpAddr sourceIp,
                                                      Lumet::IpAddr groupIp);
   void disableMulticastWithOifs(Vor::U16 vlanId, Lumet::IpAddr sourceIp, Lumet::IpAddr groupIp);
   // The adapter's news of a route: the rule behind it is reprogrammed.
   void updateMcastAddMroute(NatMrouteKey const& key, NatMrouteOifSet const& oifSet);
   void updateMcastDelMroute(NatMrouteKey const& key);
   void updateMcastAddGroup(NatMrouteKey const& key, Vor::U32 groupId);
   void updateMcastDelGroup(NatMrouteKey const& key);
   // Finds the rule behind `key`, then behind `key` with a zero group (a
   // source-side static rule watches (S, 0)), and reprograms it, or flags
   // its deferred record. Nothing before hardware is up.
   void triggerConnectionUpdate(NatMrouteKey const& key);

   // ---- verification (UloNat/UloNatIntfSmVerify.cpp) ----
   // A diagnostic walk, run by the root's verify command: compares the
   // configuration with hardware status, with the watched-address maps and
   // with this interface's reference counts in its VRF's ipAddrIntfInfo, and
   // asks the helper to compare each rule with the chip. Programs nothing
   // and changes no state. Findings are reported as UloNat/UloNatVerify.h
   // says; a broken map invariant is an assertion (texts below).
   //
   // With deferred work outstanding only the deferred lists are checked: a
   // batch in flight makes hardware status lag the configuration.
   //
   // Kinds covered: static and twice connections, the static, twice and
   // dynamic deferred lists, and dynamic connections in hardware status
   // (with dynamicNatSupported) against the dynamic watched-address index.
   void handleVerify();
   // Reports a deferred list that waits with no commit to come, and a
   // deferred entry whose delete flag disagrees with the configuration.
   void doVerifyStaticDeferredLists();
   void doVerifyDynamicDeferredLists();
   // Verifies one static connection (REQUIRES: configured) and returns the
   // address it holds a reference on, zero for none. Reports a hardware
   // status entry that differs from the configuration.
   // REQUIRES, for a connection in hardware status that watches an address:
   // "staticKeyWatchedAddr( staticKey ) == watchedAddr",
   // "watchedAddrStaticKey( watchedAddr )->mappedAddrHas( staticKey )",
   // "vrfStatus()->ipAddrIntfInfoHas( watchedAddr )",
   // "intfInfo->intfHas( natIntf() )".
   Lumet::IpAddr doVerifyStaticConnection(Ip::Nat::StaticKey const& key);
   // The same for a dynamic connection in hardware status; zero when it is
   // not there. REQUIRES as above with dynamicKeyWatchedAddr,
   // watchedAddrDynamicKey and connTuple.
   Lumet::IpAddr doVerifyDynamicConnection(Lumet::ConnTuple const& tuple);
   // The same for a twice group (REQUIRES: configured): the two addresses its
   // entry holds references on, zero for none (a group not in hardware, half
   // a rule, a multicast destination). REQUIRES for an entry in hardware
   // the map invariants of its two addresses (texts in the source).
   TwiceNatWatchedAddr doVerifyTwiceNatConnection(Vor::U16 group);
   // Asks the helper to verify both sides of one filter address of a static
   // rule (natHelper()->verifyStaticNat, side 0 then side 1).
   void verifyStaticHwRule(Ip::Nat::NatTarget target, Lumet::IpAndPort const& local,
                           Lumet::IpAndPort const& global, Lumet::IpAddrWithFullMask const& filter,
                           Vor::U8 protocol, Vor::U16 vlan, Vor::String const& aclName,
                           Ip::Nat::StaticKey const& key, bool forward);
   // REQUIRES: "deleting == isDelete && reinsert == isReinsert" for each
   // entry of the dynamic backlog. numRequests is only traced.
   void doVerifyDynamicBacklog(Vor::U32 numRequests, bool isDelete, bool isReinsert);

 private:
   // ---- steps of the static path ----
   // Programs the configured connection through the helper. Returns whether
   // the helper accepted it; a refusal leaves nothing in hardware and the key
   // in the unprogrammed set.
   bool addStaticConnection(Ip::Nat::StaticKey const& key);
   // Reprograms a connection in force after a next-hop or multicast change.
   void updateStaticConnection(Ip::Nat::StaticKey const& key);
   // REQUIRES: "hwIntfStatus".
   void addStaticHwEntry(Ip::Nat::StaticKey const& key, Ip::Nat::NatStaticConnection const& conn);
   // REQUIRES: "hwIntfStatus". An absent key is no error.
   void deleteStaticHwEntry(Ip::Nat::StaticKey const& key);
   // Schedules the static backlog task once for all that waits.
   void doMaybeScheduleCommit();
   // After a failed commit: re-issues the deletes, sends the adds to review.
   void cleanupFailedCommit();
   void pendingCommitIs(bool v) { pendingCommit_ = v; }
   void vlanIdIs(Vor::U16 v) { vlanId_ = v; }

   Ptr<Ip::Nat::HwIntfStatus> hwIntfStatus() const;
   // The VLAN (or profile) of a dynamic operation of connection key `key`.
   Vor::U16 dynamicVlan(Ip::Nat::DynamicConnectionKey const& key) const;

   // Scalars and collaborators, in declared order.
   // One reactor per trap rule (VorTrapRule), declared before the reactor of
   // the configuration, which names it.
   Vor::WatchMembers<Ip::Nat::DynamicKey, Ip::Nat::NatDynamicTrapRule, NatIntfStatusSm,
                     Vor::OnScalar<Ip::Nat::NatDynamicTrapRule::initializedId,
                                   static_cast<void (NatIntfStatusSm::*)(Ip::Nat::DynamicKey const&)>(
                                      &NatIntfStatusSm::handleTrapRule)>>
      trapRule_{this};
   // The interface's configuration. A trap rule's change runs its handler
   // first, then makes, re-points or drops the rule's reactor.
   Vor::Watch<Ip::Nat::IntfStatus, NatIntfStatusSm,
              Vor::OnKey<Ip::Nat::IntfStatus::validIntfId,
                         static_cast<void (NatIntfStatusSm::*)(Lumet::IntfId const&)>(
                            &NatIntfStatusSm::handleNatIntfProfile)>,
              Vor::OnKey<Ip::Nat::IntfStatus::staticConnectionId,
                         static_cast<void (NatIntfStatusSm::*)(Ip::Nat::StaticKey const&)>(
                            &NatIntfStatusSm::handleStaticConnection)>,
              Vor::OnKey<Ip::Nat::IntfStatus::twiceNatConnectionId,
                         static_cast<void (NatIntfStatusSm::*)(Vor::U16)>(
                            &NatIntfStatusSm::handleTwiceNatConnection)>,
              Vor::OnMembers<Ip::Nat::IntfStatus::trapRuleId,
                             static_cast<void (NatIntfStatusSm::*)(Ip::Nat::DynamicKey const&)>(
                                &NatIntfStatusSm::handleTrapRule),
                             &NatIntfStatusSm::trapRule_, Vor::collection(&Ip::Nat::IntfStatus::trapRule)>>
      intfStatus_{this};
   Ptr<Ip::Nat::Status const> status_;
   Ptr<Ip::Nat::HwStatus> hwStatus_;
   Ptr<Ip::Nat::DynamicConnectionStatus> dynamicConnectionStatus_;
   Ptr<Ip::Nat::DynamicConnectionHwStatus> dynamicConnectionHwStatus_;
   Ptr<Ip::Nat::HwCapabilities const> hwCapabilities_;
   Ptr<UloHelper::UloHelperNat> natHelper_;
   Ptr<MrouteLib::StaticNatInfo> staticNatInfo_;
   Ptr<NatSmStatus> natSmStatus_;
   Ptr<NatSmStatusNotif> natSmStatusNotif_;
   Ptr<Dov::TaskScheduler> taskScheduler_;
   VrfId vrfId_;
   Ptr<NatMulticastAdapter> multicastAdapter_;
   Lumet::IntfId natIntf_;
   Ptr<NatSmStatusVrf> vrfStatus_;
   Vor::U16 vlanId_ = 0;
   // Bound with vrfStatus_ in handleInitialized; the three indexes hold
   // their references through it.
   WatchedAddrReferences watchedAddrReferences_;
   StaticWatchedAddrIndex staticWatchedAddr_{watchedAddrReferences_};
   TwiceWatchedAddrIndex twiceWatchedAddr_{watchedAddrReferences_};
   DynamicWatchedAddrIndex dynamicWatchedAddr_{watchedAddrReferences_};
   bool pendingCommit_ = false;
   std::map<Lumet::IntfId, Vor::U16> intfVlan_;
   bool counterStatus_ = false;
   std::map<Lumet::ConnTuple, Vor::U16> dynamicTwice_;
   DeferredStaticList deferredStaticNatConnectionHw_;
   DeferredTwiceList deferredTwiceNatConnectionHw_;
   DeferredDynamicList deferredDynamicNat_;
   std::map<Ip::Nat::StaticKey, Ip::Nat::NatStaticConnection> cachedStaticConnection_;
   std::map<NatMrouteKey, Ip::Nat::StaticKey> mrouteStaticKey_;
   std::map<NatMrouteKey, Vor::U16> mrouteTwiceGroup_;
   std::map<NatMrouteKey, Lumet::ConnTuple> mrouteTwiceAddr_;
   Ptr<Dov::Task> staticTask_;
   Vor::Watch<Dov::Task, NatIntfStatusSm,
              Vor::OnEvent<Dov::Task::taskRunId, &NatIntfStatusSm::doProcessBacklogStatic>>
      staticBacklogTask_{this};
   Ptr<Dov::Task> dynamicTask_;
   Vor::Watch<Dov::Task, NatIntfStatusSm,
              Vor::OnEvent<Dov::Task::taskRunId, &NatIntfStatusSm::doProcessBacklogDynamic>>
      dynamicBacklogTask_{this};
   Vor::U64 dynamicRequests_ = 0;
   Vor::U64 dynamicRequestsCollapsed_ = 0;
   bool cleanupInProgress_ = false;
   bool connectionInitInProgress_ = true;
   UnprogrammedBook unprogrammed_;
};

// The factory the root uses: the engine with notification active.
Ptr<NatIntfStatusSm> NatIntfStatusSmIs(
   Ptr<UloCommonSmData> const& commonSmData, Ptr<Ip::Nat::IntfStatus const> const& intfStatus,
   Ptr<Ip::Nat::Status const> const& status, Ptr<Ip::Nat::HwStatus> const& hwStatus,
   Ptr<Ip::Nat::DynamicConnectionStatus> const& dynamicConnectionStatus,
   Ptr<Ip::Nat::DynamicConnectionHwStatus> const& dynamicConnectionHwStatus,
   Ptr<Ip::Nat::HwCapabilities const> const& hwCapabilities,
   Ptr<UloHelper::UloHelperNat> const& natHelper, Ptr<MrouteLib::StaticNatInfo> const& staticNatInfo,
   Ptr<NatSmStatus> const& natSmStatus, Ptr<NatSmStatusNotif> const& natSmStatusNotif,
   Ptr<Dov::TaskScheduler> const& taskScheduler, VrfId vrfId,
   Ptr<NatMulticastAdapter> const& multicastAdapter);

} // namespace Ulo
