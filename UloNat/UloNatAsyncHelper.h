#pragma once
// Ulo::NatAsyncHelper: the hardware helper that never touches hardware.
//
// Every translation request becomes a desired state per NatHwKey, written
// into the shared-memory shadow (hwShadow), and a command (opType) in the
// key's NatAsyncHwConfig for a programmer that may run in another process
// (Ulo::NatAsyncProgrammerSm). The programmer answers in the key's
// NatAsyncHwStatus; the root hands each answer back through
// doHandleAsyncHwStatus(key).
//
// Who writes what:
//   hwShadow          helper only; the programmer reads what to program here
//   asyncHwConfigDir  helper only; one command per key
//   asyncHwStatusDir  programmer only; one answer per key
//   requestQueueDir   helper only; what waits behind the operation in flight
//   failedHwKey       helper only; keys that hardware refused
//
// One connection, several keys. A static connection with n filter addresses
// is n shadow entries whose keys differ only in filterAddrId 0 .. n-1; each
// entry's data.filterAddr is its address and data.numFilterAddrs is n. Only
// filterAddrId 0 has a command, an answer, VLAN references and a cache entry,
// and only entry 0's `dirty` means anything: judge a connection by entry 0.
//
// A key's state is the pair (command opType, entry 0's dirty), plus its
// queue and whether it is a failed key:
//
//   (none, none)      --add-->                 (add, setting)
//   (none, clean)     --add, same data-->      (idle, clean)     restart: nothing to do
//   (none, dirty)     --add, same data-->      (add, dirty)      restart: reprogram
//   (none, any)       --add, other data-->     (del, clearing)   the add waits in the queue
//   (add|update, setting) --success-->         (idle, clean)
//   (add|update, setting) --failed-->          (idle, setting)   queue re-planned, or failed key
//   (idle, clean)     --data change-->         (update, setting)
//   (idle, any)       --last reference gone--> (del, clearing)   entry 0 is a tombstone
//   (del, clearing)   --success-->             (none, none)      command removed
//   (idle, any)       --forceAdd-->            (add, setting)
//   (add|update|del, any) --any change-->      queued, unchanged
//   (idle, any) with status idle and a queue   the head is played
//
// At most one operation per key is in flight: the next starts only when the
// programmer has confirmed `idle`, or has dropped the status of a deleted
// key. A shadow write for a key always comes before its opType changes, so
// the programmer reads complete data.
//
// Results. Every translation operation answers success at once
// (immediateCommit() is true): a refusal comes back later through
// failedHwKey, never through a return value.
//
// Thread safety: none. One thread per side; this helper runs on the agent's
// scheduler thread with all its callers.
//
// Invariants (assertion texts in quotes; each is a disagreement between the
// helper and the shadow or the programmer, and ends the agent):
//  1. "!!shadowEntry.key()": the default key is never written to the shadow.
//  2. A key with a running operation has a dirty entry 0
//     ("isShadowEntryDirty && \"shadow entry not dirty\"").
//  3. A key is in failedHwKey only while it has VLAN references or a queued
//     delete; a delete never answers failed.
//  4. Handlers copy the key they were given before acting: an answer can
//     remove the record that holds the caller's key while it is handled.

#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>

#include "UloNat/UloHelperNat.h"
#include "UloNat/UloNatAclHelper.h"
#include "UloNat/UloNatAclTypes.h"
#include "UloNat/UloNatAsyncEntities.h"
#include "UloNat/UloNatAsyncTypes.h"
#include "framework/BridgingVlanId.h"
#include "framework/IpNatTypes.h"
#include "framework/LumetConnTuple.h"

namespace Ulo {

// Map keys of type NatHwKey: each map seeds its hash with the process seed
// and a constant of its own, so that no two maps share a bucket order.
template <U32 Salt>
struct NatHwKeyHash {
   std::size_t operator()(NatHwKey const& key) const noexcept { return key.hash(Vor::hashSeed32() ^ Salt); }
};

// ---- free functions on the pipeline's records ----

// The only way into a request queue.
//  - Static key with a connection: opType must be add
//    (0 && "optype not add"); one Request{add, data} per filter address, in
//    the queue of the sibling key (filterAddrId key's + i), data.filterAddr
//    set to the address.
//  - Static key without a connection: update, or del with default data
//    (0 && "invalid optype in doEnqueueIpTranslation", "!data").
//  - Twice and dynamic keys: no connection ("!connEntry").
//  - Any other type: 0 && "invalid translation type".
void doEnqueueIpTranslation(Vor::Ptr<NatRequestQueueDir> const& requestQueueDir, NatHwKey const& key,
                            NatHwData const& data, Ip::Nat::NatStaticConnection const& connEntry,
                            NatRequestQueue::OpType opType);
// Entry 0 goes `setting`. REQUIRES: "hwShadow->entryHas( hwKey )".
void doSetDirtyInHwShadowEntry(Vor::Ptr<NatHwShadow> const& hwShadow, NatHwKey const& hwKey);
// `setting` becomes `clean`; a `clearing` tombstone is removed; `clean` is
// 0 && "shadow state inconsistency".
void doClearDirtyInHwShadowEntry(Vor::Ptr<NatHwShadow> const& hwShadow, NatHwKey const& hwKey);
// Entry 0 becomes a tombstone (default data, `clearing`) and its siblings
// are removed. Does nothing when entry 0 says there are no filter addresses.
void doCleanupHwShadowEntry(Vor::Ptr<NatHwShadow> const& hwShadow, NatHwKey const& hwKey);
// Rebuilds a static connection's filter addresses from a dequeued first add
// and the heads of its siblings' queues (which must exist, and stay, empty).
void doConstructConnEntry(Ip::Nat::NatStaticConnection& connEntry,
                          Vor::Ptr<NatRequestQueueDir> const& requestQueueDir, NatHwKey const& key,
                          NatRequestQueue::Request const& request);

class NatAsyncHelper : public UloHelper::UloHelperNat {
 public:
   // The VLANs that want one key, ascending.
   class VlanSet {
    public:
      VlanSet() = default;
      explicit VlanSet(NatHwKey const& key) : key_(key) {}
      NatHwKey const& key() const { return key_; }
      std::set<Bridging::VlanId> const& id() const { return id_; }
      bool idHas(Bridging::VlanId vlanId) const { return id_.count(vlanId) != 0; }
      std::size_t ids() const { return id_.size(); }
      void idIs(Bridging::VlanId vlanId) { id_.insert(vlanId); }
      void idDel(Bridging::VlanId vlanId) { id_.erase(vlanId); }
      friend bool operator==(VlanSet const&, VlanSet const&) = default;
      explicit operator bool() const { return !(*this == VlanSet()); }
      std::string genericText() const;

    private:
      NatHwKey key_;
      std::set<Bridging::VlanId> id_;
   };
   // The last desired data and connection of a key.
   class Cache {
    public:
      Cache() = default;
      Cache(NatHwKey const& key, NatHwData const& data, Ip::Nat::NatStaticConnection const& conn)
          : key_(key), data_(data), conn_(conn) {}
      NatHwKey const& key() const { return key_; }
      NatHwData const& data() const { return data_; }
      Ip::Nat::NatStaticConnection const& conn() const { return conn_; }
      std::string genericText() const;

    private:
      NatHwKey key_;
      NatHwData data_;
      Ip::Nat::NatStaticConnection conn_;
   };
   // The VLANs that share one trap ACL.
   class TrapVlanSet {
    public:
      TrapVlanSet() = default;
      explicit TrapVlanSet(Vor::String aclName) : aclName_(std::move(aclName)) {}
      Vor::String const& aclName() const { return aclName_; }
      std::set<U16> const& vlanId() const { return vlanId_; }
      bool vlanIdHas(U16 vlan) const { return vlanId_.count(vlan) != 0; }
      void vlanIdIs(U16 vlan) { vlanId_.insert(vlan); }
      void vlanIdDel(U16 vlan) { vlanId_.erase(vlan); }
      std::string genericText() const;

    private:
      Vor::String aclName_;
      std::set<U16> vlanId_;
   };
   // A dynamic flow, by the half (source or destination) it translates.
   class DynamicFlowKey {
    public:
      DynamicFlowKey() = default;
      DynamicFlowKey(Ip::Nat::NatTarget target, Lumet::ConnTuple const& flow) : target_(target), flow_(flow) {}
      Ip::Nat::NatTarget target() const { return target_; }
      Lumet::ConnTuple const& flow() const { return flow_; }
      friend bool operator==(DynamicFlowKey const& a, DynamicFlowKey const& b) {
         return a.target_ == b.target_ && a.flow_ == b.flow_;
      }
      friend bool operator<(DynamicFlowKey const& a, DynamicFlowKey const& b);
      U32 hash(U32 seed) const;
      std::string genericText() const;

    private:
      Ip::Nat::NatTarget target_ = Ip::Nat::source_;
      Lumet::ConnTuple flow_;
   };

   using VlanRefMap = std::unordered_map<NatHwKey, VlanSet, NatHwKeyHash<0x5a17e3c1u>>;
   using CacheMap = std::unordered_map<NatHwKey, Cache, NatHwKeyHash<0x2c9b41f7u>>;

   static constexpr U32 maxVlans = 64;

   explicit NatAsyncHelper(Vor::String name);

   // ---- attributes ----
   Vor::Ptr<NatAsyncHwConfigDir> const& asyncHwConfigDir() const { return asyncHwConfigDir_; }
   void asyncHwConfigDirIs(Vor::Ptr<NatAsyncHwConfigDir> const& dir) { asyncHwConfigDir_ = dir; }
   Vor::Ptr<NatAsyncHwStatusDir const> const& asyncHwStatusDir() const { return asyncHwStatusDir_; }
   void asyncHwStatusDirIs(Vor::Ptr<NatAsyncHwStatusDir const> const& dir) { asyncHwStatusDir_ = dir; }
   Vor::Ptr<NatHwShadow> const& hwShadow() const { return hwShadow_; }
   void hwShadowIs(Vor::Ptr<NatHwShadow> const& shadow) { hwShadow_ = shadow; }
   Vor::Ptr<NatRequestQueueDir> const& requestQueueDir() const { return requestQueueDir_; }
   // Makes the queue directory (an empty one) when there is none.
   void requestQueueDirIs();
   Vor::Ptr<NatAclNameIdTable> const& aclNameIdTable() const { return aclNameIdTable_; }
   void aclNameIdTableIs(Vor::Ptr<NatAclNameIdTable> const& t) { aclNameIdTable_ = t; }
   Vor::Ptr<NatAclIdFilterTable> const& aclIdFilterTable() const { return aclIdFilterTable_; }
   void aclIdFilterTableIs(Vor::Ptr<NatAclIdFilterTable> const& t) { aclIdFilterTable_ = t; }
   // May be null: then no ACL is counted.
   Vor::Ptr<NatAclHelper> const& aclHelper() const { return aclHelper_; }
   void aclHelperIs(Vor::Ptr<NatAclHelper> const& h) { aclHelper_ = h; }
   Vor::Ptr<NatFailedHwKeyStatus> const& failedHwKey() const { return failedHwKey_; }

   VlanRefMap const& vlanRef() const { return vlanRef_; }
   bool vlanRefHas(NatHwKey const& key) const { return vlanRef_.count(key) != 0; }
   // The empty set when there is none.
   VlanSet vlanRef(NatHwKey const& key) const;
   CacheMap const& cache() const { return cache_; }
   bool cacheHas(NatHwKey const& key) const { return cache_.count(key) != 0; }
   Cache cache(NatHwKey const& key) const;
   void cacheIs(Cache const& c) { cache_.insert_or_assign(c.key(), c); }
   std::map<Vor::String, TrapVlanSet> const& trapVlanSet() const { return trapVlanSet_; }
   void trapVlanSetIs(TrapVlanSet const& set) { trapVlanSet_.insert_or_assign(set.aclName(), set); }
   void trapVlanSetDel(Vor::String const& aclName) { trapVlanSet_.erase(aclName); }
   std::map<DynamicFlowKey, NatHwKey> const& dynamicFlowMap() const { return dynamicFlowMap_; }
   bool dynamicFlowMapHas(DynamicFlowKey const& k) const { return dynamicFlowMap_.count(k) != 0; }

   // ---- the pipeline ----

   // The add of a key that has no command yet: compares the desired state
   // with the shadow, which may hold an earlier life of the agent, and
   // commands add, idle (unchanged and clean), or del with the add queued
   // (the shadow holds something else).
   void doMaybeAddIpTranslation(NatHwKey const& key, NatHwData data, Ip::Nat::NatStaticConnection const& connEntry);
   // First add of a key. A no-op for a failed key and during a replay; an
   // add behind a running delete is queued.
   void addSrcOrDstIpTranslations(NatHwKey const& key, NatHwData const& data,
                                  Ip::Nat::NatStaticConnection const& connEntry);
   // The last reference has gone: tombstone and del, or queued.
   void deleteSrcOrDstIpTranslations(NatHwKey const& key);
   // The data of an existing key changed: every sibling rewritten `setting`
   // and update commanded, or queued behind a running operation.
   void updateIpTranslation(NatHwKey const& key, NatHwData const& data);
   // Entry points of the translations: a new VLAN reference (the first one
   // adds, the others update; the 65th is refused with NAT_RULE_IF_MAX and
   // kept as a reference), an update on a held VLAN, a lost VLAN reference
   // (the last one deletes).
   void doAddOrUpdateIpTranslation(NatHwKey const& key, NatHwData data, Ip::Nat::NatStaticConnection const& connEntry,
                                   U16 vlanId);
   void doUpdateIpTranslation(NatHwKey const& key, NatHwData data, Ip::Nat::NatStaticConnection const& connEntry,
                              U16 vlanId);
   void doDeleteOrUpdateIpTranslation(NatHwKey const& key, U16 vlanId);
   // REQUIRES: the VLAN is not yet referenced ("!vlanSet.idHas( vlanId )").
   void addVlanRef(NatHwKey const& key, U16 vlanId);
   // A missing reference is tolerated only before hwInit ("!hwInitialized()").
   void delVlanRef(NatHwKey const& key, U16 vlanId);
   // Clears data's VLAN array and writes the set's VLANs ascending; the 65th
   // raises the NatVlanIdIndex range exception.
   static void doPopulateNatHwDataVlanArray(NatHwData& data, VlanSet const& vlanSet);

   // ---- the return path ----

   // The programmer's answer for `key` changed or went away. Returns false
   // when the key failed with no new attempt planned (it is then in
   // failedHwKey if it still has references).
   bool doHandleAsyncHwStatus(NatHwKey const& key) override;
   // Re-plans the waiting requests of a refused key: del, then the last add,
   // then the last update. True when a new attempt is planned.
   bool doHandleAsyncHwStatusFailure(NatHwKey const& key);
   // After a replay: every cached key is compared with the shadow (unchanged
   // clean keys go idle with no hardware work), then every shadow entry 0
   // that nothing wants any more is deleted.
   void replayReconcile() override;

   // ---- translations ----
   bool addStaticIpTranslations(Ip::Nat::NatStaticConnection const& connEntry, U16 vlan,
                                Ip::Nat::StaticKey const& staticKey, NextHop nextHop, MulticastInfo multicastInfo,
                                VrfId vrfId, bool aclSharing) override;
   bool updateStaticDstIpTranslation(IpAndPort const& oldIpAndPort, IpAndPort const& newIpAndPort,
                                     IpAddrWithFullMask const& filterAddress, U8 protocol, U16 vlan,
                                     Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                     MulticastInfo multicastInfo, bool forward, VrfId vrfId) override;
   bool updateStaticSrcIpTranslation(IpAndPort const& oldIpAndPort, IpAndPort const& newIpAndPort,
                                     IpAddrWithFullMask const& filterAddress, U8 protocol, U16 vlan,
                                     Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                     MulticastInfo multicastInfo, bool forward, VrfId vrfId) override;
   bool updateStaticDstIpTranslations(Ip::Nat::NatStaticConnection const& connEntry, U16 vlan,
                                      Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                      MulticastInfo multicastInfo, VrfId vrfId) override;
   bool updateStaticSrcIpTranslations(Ip::Nat::NatStaticConnection const& connEntry, U16 vlan,
                                      Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                      MulticastInfo multicastInfo, VrfId vrfId) override;
   void deleteStaticIpTranslations(Ip::Nat::NatStaticConnection const& connEntry, U16 vlan,
                                   Ip::Nat::StaticKey const& staticKey, VrfId vrfId) override;
   bool addTrapAllRule(U32 vlanId, Vor::String aclName, U32 ruleId, bool addrOnly, bool fullCone, U16 group,
                       U32 poolId, Ip::Nat::NatTarget target) override;
   bool addDynamicSrcIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const& srcIpAndPort,
                                   IpAndPort const& dstIpAndPort, IpAndPort const& newSrcIpAndPort, U16 vlan,
                                   VrfId vrfId) override;
   bool addDynamicDstIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const& srcIpAndPort,
                                   IpAndPort const& dstIpAndPort, IpAndPort const& newDstIpAndPort, NextHop nextHop,
                                   U16 vlan, bool forward, VrfId vrfId) override;
   bool updateDynamicDstIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const& srcIpAndPort,
                                      IpAndPort const& dstIpAndPort, IpAndPort const& newDstIpAndPort,
                                      NextHop nextHop, U16 vlan, bool forward, VrfId vrfId) override;
   bool deleteDynamicSrcIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const& srcIpAndPort,
                                      IpAndPort const& dstIpAndPort, IpAndPort const& newSrcIpAndPort, U16 vlan,
                                      VrfId vrfId) override;
   bool deleteDynamicDstIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const& srcIpAndPort,
                                      IpAndPort const& dstIpAndPort, IpAndPort const& newDstIpAndPort, U16 vlan,
                                      bool forward, VrfId vrfId) override;
   UloHelper::NatHwResult addTwiceNatTranslation(IpAndPort srcIpAndPortOld, IpAndPort srcIpAndPortNew,
                                                 IpAndPort dstIpAndPortOld, IpAndPort dstIpAndPortNew,
                                                 U8 protocol, U16 vlan, NextHop nextHop,
                                                 MulticastInfo multicastInfo, bool forward, U16 natGroupId,
                                                 VrfId vrfId, bool dynamic) override;
   bool delTwiceNatTranslation(IpAndPort srcIpAndPortOld, IpAndPort srcIpAndPortNew, IpAndPort dstIpAndPortOld,
                               IpAndPort dstIpAndPortNew, U16 vlan, bool forward, U16 natGroupId,
                               VrfId vrfId) override;
   UloHelper::NatHwResult updateTwiceNatTranslation(IpAndPort srcIpAndPortOld, IpAndPort srcIpAndPortNew,
                                                    IpAndPort dstIpAndPortOld, IpAndPort dstIpAndPortNew,
                                                    U8 protocol, U16 vlan, NextHop nextHop,
                                                    MulticastInfo multicastInfo, bool forward, U16 natGroupId,
                                                    VrfId vrfId, bool dynamic) override;

   // No verification and no counters run through this helper.
   void handleVerifyInit() override {}
   void verifyStaticNat(Ip::Nat::StaticKey const&, Ip::Nat::NatTarget, IpAndPort, IpAndPort,
                        IpAddrWithFullMask const&, U8, U16, bool) override {}
   void verifyDynamicNat(Vor::Ptr<Ip::Nat::Status const>, Vor::Ptr<Ip::Nat::HwStatus>) override {}
   void verifyTwiceNat(IpAndPort, IpAndPort, IpAndPort, IpAndPort, U8, U16, bool, bool) override {}
   void updateCounterStatus(bool) override {}
   // Each request enters the pipeline as it is made: no batch to commit.
   bool commitHwTranslations() override { return true; }
   bool immediateCommit() const override { return true; }

   // Fills the source and destination key (types preset by the caller) and
   // data of a static connection on `vlan`.
   static void doPopulateStaticNatHwKeyAndData(NatHwKey& srcKey, NatHwData& srcData, NatHwKey& dstKey,
                                               NatHwData& dstData, Ip::Nat::NatStaticConnection const& connEntry,
                                               U16 vlan, Ip::Nat::StaticKey const& staticKey, NextHop const& nextHop,
                                               MulticastInfo const& multicastData,
                                               Vor::Ptr<NatAclNameIdTable> const& aclNameIdTable, bool fillData,
                                               bool aclSharing);
   static void doPopulateTwiceNatHwKeyAndData(NatHwKey& key, NatHwData& data, IpAndPort srcIpAndPortOld,
                                              IpAndPort srcIpAndPortNew, IpAndPort dstIpAndPortOld,
                                              IpAndPort dstIpAndPortNew, U8 protocol, U16 vlan,
                                              NextHop const& nextHop, MulticastInfo const& multicastData,
                                              U16 groupId, bool fillData);

 private:
   void addStaticAcl(NatHwKey const& key, Ip::Nat::NatStaticConnection const& connEntry);
   // The update of one half (staticSnat or staticDnat) of a static connection.
   void updateStaticIpTranslationHalf(NatHwKey::NatKeyType half, Ip::Nat::NatStaticConnection const& connEntry,
                                      U16 vlan, Ip::Nat::StaticKey const& staticKey, NextHop const& nextHop,
                                      MulticastInfo const& multicastInfo);
   void addDynamicIpTranslation(Ip::Nat::NatTarget target, Lumet::ConnTuple const& flowKey, NatHwKey const& key,
                                U16 vlanId, U64 nextHopId);
   void deleteDynamicIpTranslation(NatHwKey const& key, U16 vlanId);
   bool deleteDynamicIpTranslation(Ip::Nat::NatTarget target, Lumet::ConnTuple const& flowKey, U16 vlan);
   // The command of `key`, or null.
   Vor::Ptr<NatAsyncHwConfig> hwConfig(NatHwKey const& key) const { return asyncHwConfigDir_->config(key); }

   Vor::Ptr<NatAsyncHwConfigDir> asyncHwConfigDir_;
   Vor::Ptr<NatAsyncHwStatusDir const> asyncHwStatusDir_;
   Vor::Ptr<NatHwShadow> hwShadow_;
   Vor::Ptr<NatRequestQueueDir> requestQueueDir_;
   Vor::Ptr<NatAclNameIdTable> aclNameIdTable_;
   Vor::Ptr<NatAclIdFilterTable> aclIdFilterTable_;
   Vor::Ptr<NatAclHelper> aclHelper_;
   Vor::Ptr<NatFailedHwKeyStatus> failedHwKey_;
   VlanRefMap vlanRef_;
   CacheMap cache_;
   std::map<Vor::String, TrapVlanSet> trapVlanSet_;
   std::map<DynamicFlowKey, NatHwKey> dynamicFlowMap_;
   // The static rules added and not deleted, by VLAN and rule, with the
   // connection last added: what a re-add of the same rule replaces.
   using StaticRuleKey = std::pair<U16, Ip::Nat::StaticKey>;
   std::map<StaticRuleKey, Ip::Nat::NatStaticConnection> staticRule_;
};

// The helper with notification active, its queue directory, ACL tables and
// failed-key record made; the command and status directories and the shadow
// are set by the owner.
Vor::Ptr<NatAsyncHelper> natAsyncHelperFactory();

} // namespace Ulo
