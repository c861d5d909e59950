#include "UloNat/UloNatAsyncHelper.h"

#include <source_location>

#include "UloNat/UloNatTypes.h"
#include "framework/UloAssert.h"
#include "framework/VorLog.h"
#include "framework/VorTrace.h"

namespace Ulo {

VOR_TRACE_HANDLE("UloNatAsyncHelper");

namespace {

Vor::LogHandle NAT_RULE_IF_MAX = natRuleIfMaxLogHandle();

using OpType = NatRequestQueue::OpType;
using Request = NatRequestQueue::Request;

// An invariant whose text names operations the code spells differently
// (an enumerator written as a call, or a negation of a whole record): the
// text is given as the operator reads it.
void assertThat(bool holds, char const* expression,
                std::source_location where = std::source_location::current()) {
   if (!holds) assertFailed(expression, where.file_name(), static_cast<int>(where.line()), where.function_name());
}

bool isDefault(Ip::Nat::NatStaticConnection const& connEntry) {
   return connEntry == Ip::Nat::NatStaticConnection();
}

NatHwKey withFilterAddrId(NatHwKey key, U32 filterAddrId) {
   key.filterAddrIdIs(filterAddrId);
   return key;
}

} // namespace

// ---------------------------------------------------------------------------
// Free functions on the records

void doEnqueueIpTranslation(Vor::Ptr<NatRequestQueueDir> const& requestQueueDir, NatHwKey const& key,
                            NatHwData const& data, Ip::Nat::NatStaticConnection const& connEntry, OpType opType) {
   switch (key.keyType()) {
   case NatHwKey::staticSnat:
   case NatHwKey::staticDnat:
      if (!isDefault(connEntry)) {
         if (opType != NatRequestQueue::add) uloAssert(0 && "optype not add");
         // One request per filter address, each in its sibling's queue: an
         // add of n addresses lands in n queues; queue 0 is the one read.
         NatHwKey sibling = key;
         NatHwData siblingData = data;
         for (auto const& filterAddr : connEntry.filterAddress()) {
            siblingData.filterAddrIs(filterAddr);
            requestQueueDir->requestQIs(sibling)->pendingEnq(Request(NatRequestQueue::add, siblingData));
            sibling.filterAddrIdIs(sibling.filterAddrId() + 1);
         }
         return;
      }
      if (opType != NatRequestQueue::update && opType != NatRequestQueue::del) {
         uloAssert(0 && "invalid optype in doEnqueueIpTranslation");
      }
      if (opType == NatRequestQueue::del) assertThat(data == NatHwData(), "!data");
      requestQueueDir->requestQIs(key)->pendingEnq(Request(opType, data));
      return;
   case NatHwKey::twiceNatForward:
   case NatHwKey::twiceNatReverse:
   case NatHwKey::dynamicSnat:
   case NatHwKey::dynamicDnat:
      assertThat(isDefault(connEntry), "!connEntry");
      requestQueueDir->requestQIs(key)->pendingEnq(Request(opType, data));
      return;
   default:
      uloAssert(0 && "invalid translation type");
   }
}

void doSetDirtyInHwShadowEntry(Vor::Ptr<NatHwShadow> const& hwShadow, NatHwKey const& hwKey) {
   uloAssert(hwShadow->entryHas( hwKey ));
   NatHwShadowEntry entry = hwShadow->entry(hwKey);
   entry.dirtyIs(NatHwShadowEntry::setting);
   hwShadow->entryIs(entry);
}

void doClearDirtyInHwShadowEntry(Vor::Ptr<NatHwShadow> const& hwShadow, NatHwKey const& hwKey) {
   NatHwShadowEntry entry = hwShadow->entry(hwKey);
   switch (entry.dirty()) {
   case NatHwShadowEntry::setting:
      entry.dirtyIs(NatHwShadowEntry::clean);
      hwShadow->entryIs(entry);
      return;
   case NatHwShadowEntry::clearing:
      hwShadow->entryDel(hwKey);
      return;
   case NatHwShadowEntry::clean:
      uloAssert(0 && "shadow state inconsistency");
   }
}

void doCleanupHwShadowEntry(Vor::Ptr<NatHwShadow> const& hwShadow, NatHwKey const& hwKey) {
   NatHwKey key = withFilterAddrId(hwKey, 0);
   U32 const numFilterAddrs = hwShadow->entry(key).data().numFilterAddrs();
   for (U32 i = 0; i < numFilterAddrs; ++i) {
      key.filterAddrIdIs(i);
      if (i == 0) {
         // Entry 0 stays as the tombstone until hardware confirms the delete.
         hwShadow->entryIs(NatHwShadowEntry(key, NatHwData(), NatHwShadowEntry::clearing));
      } else {
         hwShadow->entryDel(key);
      }
   }
}

void doConstructConnEntry(Ip::Nat::NatStaticConnection& connEntry,
                          Vor::Ptr<NatRequestQueueDir> const& requestQueueDir, NatHwKey const& key,
                          Request const& request) {
   connEntry.filterAddressIs(request.data().filterAddr(), true);
   for (U32 i = 1; i < request.data().numFilterAddrs(); ++i) {
      Vor::Ptr<NatRequestQueue> const siblingQ = requestQueueDir->requestQ(withFilterAddrId(key, i));
      uloAssert(siblingQ && "sibling queue does not exist");
      connEntry.filterAddressIs(siblingQ->pendingDeq().data().filterAddr(), true);
   }
}

// ---------------------------------------------------------------------------
// Value types

std::string NatAsyncHelper::VlanSet::genericText() const {
   std::string ids = "[";
   for (auto const& v : id_) ids += (ids.size() > 1 ? ", " : "") + v.stringValue();
   return "Value('Ulo::NatAsyncHelper::VlanSet', ** {'key': " + key_.stringValue() + ", 'id': " + ids + "]})";
}

std::string NatAsyncHelper::Cache::genericText() const {
   return "Value('Ulo::NatAsyncHelper::Cache', ** {'key': " + key_.stringValue() + ", 'data': " +
          data_.stringValue() + ", 'conn': " + conn_.stringValue() + "})";
}

std::string NatAsyncHelper::TrapVlanSet::genericText() const {
   std::string ids = "[";
   for (auto v : vlanId_) ids += (ids.size() > 1 ? ", " : "") + std::to_string(v);
   return "Value('Ulo::NatAsyncHelper::TrapVlanSet', ** {'aclName': " + aclName_.stdString() + ", 'vlanId': " + ids +
          "]})";
}

bool operator<(NatAsyncHelper::DynamicFlowKey const& a, NatAsyncHelper::DynamicFlowKey const& b) {
   if (a.target_ != b.target_) return a.target_ < b.target_;
   return a.flow_ < b.flow_;
}

U32 NatAsyncHelper::DynamicFlowKey::hash(U32 seed) const { return flow_.hash(Vor::hashMix(seed, target_)); }

std::string NatAsyncHelper::DynamicFlowKey::genericText() const {
   return std::string("Value('Ulo::NatAsyncHelper::DynamicFlowKey', ** {'target': ") +
          Ip::Nat::natTargetName(target_) + ", 'flow': " + flow_.stringValue() + "})";
}

// ---------------------------------------------------------------------------
// Construction and attributes

NatAsyncHelper::NatAsyncHelper(Vor::String name)
    : UloHelper::UloHelperNat(std::move(name)),
      aclNameIdTable_(new NatAclNameIdTable("aclNameIdTable")),
      aclIdFilterTable_(new NatAclIdFilterTable("aclIdFilterTable")),
      failedHwKey_(natFailedHwKeyStatusFactory("failedHwKey")) {
   requestQueueDirIs();
}

void NatAsyncHelper::requestQueueDirIs() {
   if (!requestQueueDir_) requestQueueDir_ = natRequestQueueDirFactory();
}

NatAsyncHelper::VlanSet NatAsyncHelper::vlanRef(NatHwKey const& key) const {
   auto it = vlanRef_.find(key);
   return it == vlanRef_.end() ? VlanSet() : it->second;
}

NatAsyncHelper::Cache NatAsyncHelper::cache(NatHwKey const& key) const {
   auto it = cache_.find(key);
   return it == cache_.end() ? Cache() : it->second;
}

// ---------------------------------------------------------------------------
// The pipeline

void NatAsyncHelper::doPopulateNatHwDataVlanArray(NatHwData& data, VlanSet const& vlanSet) {
   data.vlanIdDelAll();
   U32 index = 0;
   for (auto const& vlan : vlanSet.id()) data.vlanIdIs(NatVlanIdIndex(index++), vlan.value());
}

void NatAsyncHelper::addVlanRef(NatHwKey const& key, U16 vlanId) {
   auto it = vlanRef_.find(key);
   if (it == vlanRef_.end()) it = vlanRef_.emplace(key, VlanSet(key)).first;
   VlanSet& vlanSet = it->second;
   Bridging::VlanId const id(vlanId);
   uloAssert(!vlanSet.idHas( vlanId ));
   vlanSet.idIs(id);
}

void NatAsyncHelper::delVlanRef(NatHwKey const& key, U16 vlanId) {
   auto it = vlanRef_.find(key);
   Bridging::VlanId const id(vlanId);
   if (it == vlanRef_.end() || !it->second.idHas(id)) {
      // Only a teardown before hardware came up may find nothing to drop.
      uloAssert(!hwInitialized());
      if (it == vlanRef_.end()) return;
   }
   it->second.idDel(id);
   if (it->second.ids() == 0) vlanRef_.erase(it);
}

void NatAsyncHelper::doMaybeAddIpTranslation(NatHwKey const& hwKey, NatHwData data,
                                             Ip::Nat::NatStaticConnection const& connEntry) {
   NatHwShadowEntry const shadowEntry0 = hwShadow_->entry(hwKey);
   bool const existed = static_cast<bool>(shadowEntry0.key());
   NatHwShadowEntry::Dirty const wasDirty = shadowEntry0.dirty();
   bool needsProgramming = false;

   if (hwKey.isStaticNat()) {
      U32 i = 0;
      for (auto const& filterAddr : connEntry.filterAddress()) {
         NatHwKey const key = withFilterAddrId(hwKey, i);
         uloAssert(!asyncHwConfigDir()->configHas( key ));
         data.filterAddrIs(filterAddr);
         NatHwShadowEntry current = hwShadow_->entry(key);
         if (!current.key()) current = NatHwShadowEntry(key, NatHwData(), NatHwShadowEntry::clean);
         if (current.data() == data) {
            ++i;
            continue;
         }
         if (existed) {
            // The hardware holds another version of this connection: it is
            // replaced whole, so the later siblings need no comparing.
            needsProgramming = true;
            break;
         }
         NatHwShadowEntry const shadowEntry(key, data,
                                            i == 0 ? NatHwShadowEntry::setting : NatHwShadowEntry::clean);
         uloAssert(!!shadowEntry.key());
         hwShadow_->entryIs(shadowEntry);
         needsProgramming = true;
         ++i;
      }
   } else if (hwKey.isTwiceNat() || hwKey.isDynamicNat()) {
      assertThat(isDefault(connEntry), "!connEntry");
      if (!(shadowEntry0.data() == data)) {
         VOR_TRACE(8, "data mismatch for key to shadowData: " << data.stringValue());
         needsProgramming = true;
         if (!existed) {
            NatHwShadowEntry const shadowEntry(hwKey, data, NatHwShadowEntry::setting);
            uloAssert(!!shadowEntry.key());
            hwShadow_->entryIs(shadowEntry);
         }
      }
   } else {
      uloAssert(0 && "invalid translation type");
   }

   NatHwKey const key0 = withFilterAddrId(hwKey, 0);
   Vor::Ptr<NatAsyncHwConfig> const config = asyncHwConfigDir_->configIs(key0);
   OpType opType;
   if (!existed) {
      uloAssert(needsProgramming);
      opType = NatRequestQueue::add;
   } else if (needsProgramming) {
      // Old state out first; the new one follows from the queue.
      doEnqueueIpTranslation(requestQueueDir_, key0, data, connEntry, NatRequestQueue::add);
      doCleanupHwShadowEntry(hwShadow_, key0);
      opType = NatRequestQueue::del;
   } else {
      opType = wasDirty == NatHwShadowEntry::clean ? NatRequestQueue::idle : NatRequestQueue::add;
   }
   config->opTypeIs(opType);
}

void NatAsyncHelper::addSrcOrDstIpTranslations(NatHwKey const& hwKey, NatHwData const& data,
                                               Ip::Nat::NatStaticConnection const& connEntry) {
   if (failedHwKey_->entryHas(hwKey)) {
      uloAssert(vlanRefHas( hwKey ) && vlanRef( hwKey ).ids() > 1);
      VOR_TRACE(7, " no-op for failed key " << hwKey.stringValue());
      return;
   }
   if (replay()) {
      VOR_TRACE(8, " no-op for " << hwKey.stringValue());
      return;
   }
   Vor::Ptr<NatAsyncHwConfig> const config = hwConfig(hwKey);
   if (!config) {
      doMaybeAddIpTranslation(hwKey, data, connEntry);
      return;
   }
   // A delete of this key's previous life is under way (or queued behind
   // the operation in flight); the add waits for it.
   if (config->opType() != NatRequestQueue::del) {
      Vor::Ptr<NatRequestQueue> const q = requestQueueDir_->requestQ(hwKey);
      if (!q || q->pendingEmpty()) uloAssert(0 && "unexpected ongoing opType");
   }
   doEnqueueIpTranslation(requestQueueDir_, hwKey, data, connEntry, NatRequestQueue::add);
}

void NatAsyncHelper::deleteSrcOrDstIpTranslations(NatHwKey const& hwKey) {
   uloAssert(asyncHwConfigDir()->configHas( hwKey ));
   uloAssert(hwShadow()->entryHas( hwKey ) && "shadow entry does not exist");
   Vor::Ptr<NatAsyncHwConfig> const hwConfig = this->hwConfig(hwKey);
   uloAssert(hwConfig && "hwConfig does not exist");
   switch (hwConfig->opType()) {
   case NatRequestQueue::idle:
      doCleanupHwShadowEntry(hwShadow_, hwKey);
      hwConfig->opTypeIs(NatRequestQueue::del);
      return;
   case NatRequestQueue::unknown:
      uloAssert(0 && "invalid optype");
      return;
   default: {
      bool const isShadowEntryDirty = hwShadow_->entry(hwKey).dirty() != NatHwShadowEntry::clean;
      uloAssert(isShadowEntryDirty && "shadow entry not dirty");
      doEnqueueIpTranslation(requestQueueDir_, hwKey, NatHwData(), Ip::Nat::NatStaticConnection(),
                             NatRequestQueue::del);
   }
   }
}

void NatAsyncHelper::updateIpTranslation(NatHwKey const& hwKey, NatHwData const& data) {
   if (replay()) {
      uloAssert(cacheHas( hwKey ));
      VOR_TRACE(8, " no-op for " << hwKey.stringValue());
      return;
   }
   if (failedHwKey_->entryHas(hwKey)) {
      VOR_TRACE(7, " no-op for failed key " << hwKey.stringValue());
      return;
   }
   uloAssert(hwShadow()->entryHas( hwKey ) && "shadow entry does not exist");
   Vor::Ptr<NatAsyncHwConfig> const hwConfig = this->hwConfig(hwKey);
   uloAssert(hwConfig && "hwConfig does not exist");
   switch (hwConfig->opType()) {
   case NatRequestQueue::unknown:
      uloAssert(0 && "invalid optype");
      return;
   case NatRequestQueue::add:
   case NatRequestQueue::update:
   case NatRequestQueue::del:
      doEnqueueIpTranslation(requestQueueDir_, hwKey, data, Ip::Nat::NatStaticConnection(),
                             NatRequestQueue::update);
      return;
   case NatRequestQueue::idle:
      break;
   }
   // Only what follows the connection's placement changes; the entry keeps
   // its own protocol, filter address, count and ACL sharing.
   auto rewrite = [&](NatHwShadowEntry entry) {
      NatHwData d = entry.data();
      d.nextHopIdIs(data.nextHopId());
      d.vlanIdDelAll();
      for (U32 v = 0; v < data.vlanIds(); ++v) d.vlanIdIs(NatVlanIdIndex(v), data.vlanId(NatVlanIdIndex(v)));
      d.mcastGroupIdIs(data.mcastGroupId());
      d.multicastIs(data.multicast());
      copyNatHwDataEgrIntfArray(data, d);
      entry.dataIs(d);
      entry.dirtyIs(NatHwShadowEntry::setting);
      hwShadow_->entryIs(entry);
   };
   if (hwKey.isStaticNat()) {
      NatHwKey key = withFilterAddrId(hwKey, 0);
      uloAssert(hwShadow()->entryHas( key ) && "shadow entry does not exist");
      U32 const numFilterAddrs = hwShadow_->entry(key).data().numFilterAddrs();
      while (hwShadow_->entryHas(key)) {
         rewrite(hwShadow_->entry(key));
         key.filterAddrIdIs(key.filterAddrId() + 1);
      }
      uloAssert(numFilterAddrs == key.filterAddrId());
   } else if (hwKey.isTwiceNat() || hwKey.isDynamicNat()) {
      rewrite(hwShadow_->entry(hwKey));
   } else {
      uloAssert(0 && "invalid translation type");
   }
   hwConfig->opTypeIs(NatRequestQueue::update);
}

void NatAsyncHelper::doAddOrUpdateIpTranslation(NatHwKey const& key, NatHwData data,
                                                Ip::Nat::NatStaticConnection const& connEntry, U16 vlanId) {
   if (vlanRefHas(key)) uloAssert(!vlanRef( key ).idHas( vlanId ));
   if (!vlanRefHas(key)) {
      addVlanRef(key, vlanId);
      if (key.aclId()) addStaticAcl(key, connEntry);
      addSrcOrDstIpTranslations(key, data, connEntry);
   } else {
      addVlanRef(key, vlanId);
      VlanSet const& vlanSet = vlanRef_.at(key);
      if (vlanSet.ids() <= maxVlans) {
         doPopulateNatHwDataVlanArray(data, vlanSet);
         updateIpTranslation(key, data);
      } else {
         // Hardware data names at most 64 VLANs: the reference is kept, and
         // the operator is told; hardware is left as it is.
         VOR_TRACE(3, " cannot add " << key.stringValue() << " current vlan count: " << vlanSet.ids()
                                     << " max vlan count: " << maxVlans);
         Vor::log(NAT_RULE_IF_MAX, key.stringLogValue().c_str(), static_cast<int>(vlanId),
                  static_cast<int>(vlanSet.ids()), static_cast<int>(maxVlans));
      }
   }
   if (aclHelper_ && key.aclId()) aclHelper_->addAclReference(key, vlanId);
   cacheIs(Cache(key, data, connEntry));
}

void NatAsyncHelper::doUpdateIpTranslation(NatHwKey const& key, NatHwData data,
                                           Ip::Nat::NatStaticConnection const& connEntry, U16 vlanId) {
   VOR_TRACE(7, "; key=" << key.stringValue() << " vlanId=" << vlanId << "; data=" << data.stringValue());
   uloAssert(vlanRefHas( key ) && vlanRef( key ).idHas( vlanId ));
   doPopulateNatHwDataVlanArray(data, vlanRef_.at(key));
   updateIpTranslation(key, data);
   cacheIs(Cache(key, data, connEntry));
}

void NatAsyncHelper::doDeleteOrUpdateIpTranslation(NatHwKey const& key, U16 vlanId) {
   delVlanRef(key, vlanId);
   if (key.aclId() && aclHelper_) aclHelper_->delAclReference(key, vlanId);
   if (failedHwKey_->entryHas(key)) {
      if (Vor::Ptr<NatAsyncHwConfig> const hwConfig = this->hwConfig(key)) {
         VOR_TRACE(7, "opType is " << NatRequestQueue::opTypeName(hwConfig->opType()));
         assertThat(hwConfig->opType() == NatRequestQueue::del, "hwConfig->opType() == NatRequestQueue::del()");
      }
      if (vlanRefHas(key)) {
         VOR_TRACE(7, " no-op for " << key.stringValue());
         return;
      }
      VOR_TRACE(7, " deleting failed key " << key.stringValue());
      failedHwKey_->entryDel(key);
      return;
   }
   if (!vlanRefHas(key)) {
      if (replay()) {
         // Within the replay nothing has been issued for any key: the add
         // that announced this one was a no-op, and so is its withdrawal
         // (the engine withdraws a rule's earlier version when the replay
         // delivers the rule again). The key leaves the cache so that the
         // reconcile does not issue it; whatever the shadow still holds of
         // it goes with the stale-key sweep.
         VOR_TRACE(8, " no-op for " << key.stringValue());
         cache_.erase(key);
         return;
      }
      // The cache entry stays: a later add of the key overwrites it.
      deleteSrcOrDstIpTranslations(key);
      return;
   }
   uloAssert(cacheHas( key ));
   NatHwData data = cache_.at(key).data();
   doPopulateNatHwDataVlanArray(data, vlanRef_.at(key));
   updateIpTranslation(key, data);
}

// ---------------------------------------------------------------------------
// The return path

bool NatAsyncHelper::doHandleAsyncHwStatus(NatHwKey const& hwKey) {
   // A copy: what is done below can remove the record that holds the
   // caller's key (the status, and with it the root's reactor).
   NatHwKey const key = hwKey;
   Vor::Ptr<NatAsyncHwStatus const> const status = asyncHwStatusDir_->status(key);
   if (!status) {
      // The programmer has dropped the key after its delete: the key is free
      // for what waited.
      VOR_TRACE(7, " cleanup for " << key.stringValue());
      uloAssert(!asyncHwConfigDir()->configHas( key ));
   } else {
      Vor::Ptr<NatAsyncHwConfig> const hwConfig = this->hwConfig(key);
      uloAssert(hwConfig);
      OpType const opType = hwConfig->opType();
      NatAsyncHwStatus::State const state = status->state();
      VOR_TRACE(7, " for " << key.stringValue() << " op " << NatRequestQueue::opTypeName(opType) << " state "
                           << NatAsyncHwStatus::stateName(state));
      switch (state) {
      case NatAsyncHwStatus::unknown:
      case NatAsyncHwStatus::inProgress:
         return true;
      case NatAsyncHwStatus::idle:
         // Only the programmer's confirmation of idle lets the next operation start.
         assertThat(opType == NatRequestQueue::idle, "opType == NatRequestQueue::idle()");
         break;
      case NatAsyncHwStatus::success:
         switch (opType) {
         case NatRequestQueue::unknown:
            uloAssert(0 && "opType cannot be unknown");
            return true;
         case NatRequestQueue::idle:
            uloAssert(0 && "opType cannot be idle");
            return true;
         case NatRequestQueue::add:
         case NatRequestQueue::update:
            doClearDirtyInHwShadowEntry(hwShadow_, key);
            hwConfig->opTypeIs(NatRequestQueue::idle);
            return true;
         case NatRequestQueue::del:
            doClearDirtyInHwShadowEntry(hwShadow_, key);
            asyncHwConfigDir_->configDel(key);
            return true;
         default:
            uloAssert(0 && "Unexpected opType");
            return true;
         }
      case NatAsyncHwStatus::failed:
         assertThat(opType == NatRequestQueue::add || opType == NatRequestQueue::update,
                    "opType == NatRequestQueue::add() || opType == NatRequestQueue::update()");
         if (doHandleAsyncHwStatusFailure(key)) {
            hwConfig->opTypeIs(NatRequestQueue::idle);
            return true;
         }
         uloAssert(!failedHwKey()->entryHas( key ));
         hwConfig->opTypeIs(NatRequestQueue::idle);
         if (vlanRefHas(key)) failedHwKey_->entryIs(key);
         return false;
      case NatAsyncHwStatus::forceAdd:
         assertThat(opType != NatRequestQueue::add, "opType != NatRequestQueue::add()");
         doSetDirtyInHwShadowEntry(hwShadow_, key);
         hwConfig->opTypeIs(NatRequestQueue::add);
         return true;
      }
   }

   // Serve the queue: one request per answer.
   Vor::Ptr<NatRequestQueue> const q = requestQueueDir_->requestQ(key);
   if (!q || q->pendingEmpty()) return true;
   Request const request = q->pendingDeq();
   switch (request.type()) {
   case NatRequestQueue::unknown:
      uloAssert(0 && "invalid optype unknown found while dequeuing");
      break;
   case NatRequestQueue::idle:
      uloAssert(0 && "invalid optype idle found while dequeuing");
      break;
   case NatRequestQueue::update:
      uloAssert(asyncHwConfigDir()->configHas( key ));
      assertThat(asyncHwConfigDir()->config(key)->opType() == NatRequestQueue::idle,
                 "asyncHwConfigDir()->config( key )->opType() == NatRequestQueue::idle()");
      updateIpTranslation(key, request.data());
      break;
   case NatRequestQueue::del:
      uloAssert(asyncHwConfigDir()->configHas( key ));
      assertThat(asyncHwConfigDir()->config(key)->opType() == NatRequestQueue::idle,
                 "asyncHwConfigDir()->config( key )->opType() == NatRequestQueue::idle()");
      deleteSrcOrDstIpTranslations(key);
      break;
   case NatRequestQueue::add: {
      uloAssert(!asyncHwConfigDir()->configHas( key ));
      Ip::Nat::NatStaticConnection connEntry;
      if (key.isStaticNat()) doConstructConnEntry(connEntry, requestQueueDir_, key, request);
      addSrcOrDstIpTranslations(key, request.data(), connEntry);
      break;
   }
   }
   VOR_TRACE(7, "dequeued req: " << request.stringValue());
   if (q->pendingEmpty()) requestQueueDir_->requestQDel(key);
   return true;
}

bool NatAsyncHelper::doHandleAsyncHwStatusFailure(NatHwKey const& hwKey) {
   Vor::Ptr<NatRequestQueue> const q = requestQueueDir_->requestQIs(hwKey);
   Request lastReq;
   Request lastAddReq;
   Ip::Nat::NatStaticConnection connEntry;
   while (!q->pendingEmpty()) {
      Request const request = q->pendingDeq();
      if (request.type() < NatRequestQueue::add) uloAssert(0 && "invalid optype idle found while dequeuing");
      lastReq = request;
      if (request.type() == NatRequestQueue::add) {
         lastAddReq = request;
         if (hwKey.isStaticNat()) {
            connEntry = Ip::Nat::NatStaticConnection();
            doConstructConnEntry(connEntry, requestQueueDir_, hwKey, request);
         }
      }
   }
   // Hardware starts again from nothing: the delete is the next step.
   doEnqueueIpTranslation(requestQueueDir_, hwKey, NatHwData(), Ip::Nat::NatStaticConnection(), NatRequestQueue::del);
   uloAssert(hwShadow()->entryHas( hwKey ));
   NatHwShadowEntry const entry = hwShadow_->entry(withFilterAddrId(hwKey, 0));
   if (entry.dirty() == NatHwShadowEntry::clearing) return false;
   if (lastReq == Request()) return false;
   if (lastReq.type() == NatRequestQueue::del) return true;
   if (!(lastAddReq == Request())) {
      doEnqueueIpTranslation(requestQueueDir_, hwKey, lastAddReq.data(), connEntry, NatRequestQueue::add);
      if (lastReq.type() == NatRequestQueue::update) {
         doEnqueueIpTranslation(requestQueueDir_, hwKey, lastReq.data(), Ip::Nat::NatStaticConnection(),
                                NatRequestQueue::update);
      }
      return true;
   }
   assertThat(lastReq.type() == NatRequestQueue::update, "lastReq.type() == NatRequestQueue::update()");
   return false;
}

void NatAsyncHelper::replayReconcile() {
   for (auto const& [hwKey, entry] : cache_) {
      NatHwData data = entry.data();
      data.vlanIdDelAll();
      uloAssert(vlanRefHas( hwKey ));
      doPopulateNatHwDataVlanArray(data, vlanRef_.at(hwKey));
      doMaybeAddIpTranslation(hwKey, data, entry.conn());
   }
   // Every wanted key has a command now; a shadow entry 0 without one is
   // from a rule that is gone.
   std::vector<NatHwKey> stale;
   hwShadow_->entryForEach([&](NatHwShadowEntry const& entry) {
      if (entry.key().filterAddrId() == 0 && !asyncHwConfigDir_->configHas(entry.key())) {
         stale.push_back(entry.key());
      }
      return true;
   });
   for (NatHwKey const& key : stale) {
      VOR_TRACE(5, "cleaning up stale key " << key.stringValue());
      doCleanupHwShadowEntry(hwShadow_, key);
      asyncHwConfigDir_->configIs(key)->opTypeIs(NatRequestQueue::del);
   }
}

// ---------------------------------------------------------------------------
// Static translations

void NatAsyncHelper::doPopulateStaticNatHwKeyAndData(NatHwKey& srcKey, NatHwData& srcData, NatHwKey& dstKey,
                                                     NatHwData& dstData, Ip::Nat::NatStaticConnection const& connEntry,
                                                     U16 vlan, Ip::Nat::StaticKey const& staticKey,
                                                     NextHop const& nextHop, MulticastInfo const& multicastData,
                                                     Vor::Ptr<NatAclNameIdTable> const& aclNameIdTable,
                                                     bool fillData, bool aclSharing) {
   Lumet::IpAndPort const local = staticKey.localAddress();
   Lumet::IpAndPort const global = connEntry.globalAddress();
   bool const sourceTarget = connEntry.target() == Ip::Nat::source_;
   Lumet::IpAndPort const a = sourceTarget ? local : global;
   Lumet::IpAndPort const b = sourceTarget ? global : local;
   NatAclId const aclId = staticKey.aclName().empty() ? NatAclId() : aclNameIdTable->getAclId(staticKey.aclName());
   srcKey.srcIpAndPortOldIs(a);
   srcKey.srcIpAndPortNewIs(b);
   srcKey.aclIdIs(aclId);
   srcKey.reverseIs(!sourceTarget);
   dstKey.dstIpAndPortOldIs(b);
   dstKey.dstIpAndPortNewIs(a);
   dstKey.aclIdIs(aclId);
   dstKey.reverseIs(sourceTarget);
   srcData.vlanIdIs(NatVlanIdIndex(0), vlan);
   dstData.vlanIdIs(NatVlanIdIndex(0), vlan);
   if (!fillData) return;
   for (NatHwData* data : {&srcData, &dstData}) {
      data->protocolIs(connEntry.protocol());
      data->numFilterAddrsIs(connEntry.filterAddresss());
      data->staticAclSharingIs(aclSharing);
      if (multicastData) {
         data->mcastGroupIdIs(multicastData->groupId());
         data->multicastIs(multicastData->multicast());
         doPopulateNatHwDataEgrIntfArray(multicastData->oifSet(), *data);
      }
   }
   dstData.nextHopIdIs(natHwNextHopId(nextHop));
}

bool NatAsyncHelper::addStaticIpTranslations(Ip::Nat::NatStaticConnection const& connEntry, U16 vlan,
                                             Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                             MulticastInfo multicastInfo, VrfId, bool aclSharing) {
   uloAssert(connEntry.filterAddresss() && "no filterAddr in connEntry");
   uloAssert(hwInitialized());
   // The engine delivers a changed rule as another add of the same rule on
   // the same VLAN. The version it replaces gives up its references first:
   // its keys may differ from the new ones (another global address) and
   // would stay in hardware, or be the same and take this VLAN twice.
   auto const held = staticRule_.find(StaticRuleKey(vlan, staticKey));
   if (held != staticRule_.end()) {
      Ip::Nat::NatStaticConnection const previous = held->second;
      deleteStaticIpTranslations(previous, vlan, staticKey, VrfId());
   }
   if (!staticKey.aclName().empty()) aclNameIdTable_->allocateAclId(staticKey.aclName());
   NatHwKey srcKey;
   NatHwKey dstKey;
   srcKey.keyTypeIs(NatHwKey::staticSnat);
   dstKey.keyTypeIs(NatHwKey::staticDnat);
   NatHwData srcData;
   NatHwData dstData;
   doPopulateStaticNatHwKeyAndData(srcKey, srcData, dstKey, dstData, connEntry, vlan, staticKey, nextHop,
                                   multicastInfo, aclNameIdTable_, true, aclSharing);
   doAddOrUpdateIpTranslation(srcKey, srcData, connEntry, vlan);
   doAddOrUpdateIpTranslation(dstKey, dstData, connEntry, vlan);
   staticRule_.insert_or_assign(StaticRuleKey(vlan, staticKey), connEntry);
   return true;
}

// The single-address forms are not used through this helper: a connection's
// filter addresses travel together as sibling entries of one key, so a change
// of one of them is a change of the whole connection. False tells the engine
// that nothing was done.
bool NatAsyncHelper::updateStaticDstIpTranslation(IpAndPort const&, IpAndPort const&, IpAddrWithFullMask const&, U8,
                                                  U16, Ip::Nat::StaticKey const&, NextHop, MulticastInfo, bool,
                                                  VrfId) {
   return false;
}

bool NatAsyncHelper::updateStaticSrcIpTranslation(IpAndPort const&, IpAndPort const&, IpAddrWithFullMask const&, U8,
                                                  U16, Ip::Nat::StaticKey const&, NextHop, MulticastInfo, bool,
                                                  VrfId) {
   return false;
}

bool NatAsyncHelper::updateStaticDstIpTranslations(Ip::Nat::NatStaticConnection const& connEntry, U16 vlan,
                                                   Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                                   MulticastInfo multicastInfo, VrfId) {
   updateStaticIpTranslationHalf(NatHwKey::staticDnat, connEntry, vlan, staticKey, nextHop, multicastInfo);
   return true;
}

bool NatAsyncHelper::updateStaticSrcIpTranslations(Ip::Nat::NatStaticConnection const& connEntry, U16 vlan,
                                                   Ip::Nat::StaticKey const& staticKey, NextHop nextHop,
                                                   MulticastInfo multicastInfo, VrfId) {
   updateStaticIpTranslationHalf(NatHwKey::staticSnat, connEntry, vlan, staticKey, nextHop, multicastInfo);
   return true;
}

void NatAsyncHelper::updateStaticIpTranslationHalf(NatHwKey::NatKeyType half,
                                                   Ip::Nat::NatStaticConnection const& connEntry, U16 vlan,
                                                   Ip::Nat::StaticKey const& staticKey, NextHop const& nextHop,
                                                   MulticastInfo const& multicastInfo) {
   uloAssert(hwInitialized());
   NatHwKey srcKey;
   NatHwKey dstKey;
   srcKey.keyTypeIs(NatHwKey::staticSnat);
   dstKey.keyTypeIs(NatHwKey::staticDnat);
   NatHwData srcData;
   NatHwData dstData;
   // The ACL sharing flag is written at the add only; an update keeps the
   // entry's own.
   doPopulateStaticNatHwKeyAndData(srcKey, srcData, dstKey, dstData, connEntry, vlan, staticKey, nextHop,
                                   multicastInfo, aclNameIdTable_, true, false);
   if (half == NatHwKey::staticSnat) {
      doUpdateIpTranslation(srcKey, srcData, connEntry, vlan);
   } else {
      doUpdateIpTranslation(dstKey, dstData, connEntry, vlan);
   }
}

void NatAsyncHelper::deleteStaticIpTranslations(Ip::Nat::NatStaticConnection const& connEntry, U16 vlan,
                                                Ip::Nat::StaticKey const& staticKey, VrfId) {
   NatHwKey srcKey;
   NatHwKey dstKey;
   srcKey.keyTypeIs(NatHwKey::staticSnat);
   dstKey.keyTypeIs(NatHwKey::staticDnat);
   NatHwData srcData;
   NatHwData dstData;
   staticRule_.erase(StaticRuleKey(vlan, staticKey));
   doPopulateStaticNatHwKeyAndData(srcKey, srcData, dstKey, dstData, connEntry, vlan, staticKey, NextHop(),
                                   MulticastInfo(), aclNameIdTable_, false, false);
   if (srcKey) doDeleteOrUpdateIpTranslation(srcKey, vlan);
   doDeleteOrUpdateIpTranslation(dstKey, vlan);
}

void NatAsyncHelper::addStaticAcl(NatHwKey const& key, Ip::Nat::NatStaticConnection const& connEntry) {
   if (!key.isStaticNat() || !key.aclId()) return;
   NatAclIdFilterTableEntry& entry = aclIdFilterTable_->entryIs(key.aclId());
   for (auto const& filterAddr : connEntry.filterAddress()) entry.filterAddrTableIs(filterAddr);
}

bool NatAsyncHelper::addTrapAllRule(U32, Vor::String, U32, bool, bool, U16, U32, Ip::Nat::NatTarget) {
   uloAssert(hwInitialized());
   return true;
}

// ---------------------------------------------------------------------------
// Twice NAT

void NatAsyncHelper::doPopulateTwiceNatHwKeyAndData(NatHwKey& key, NatHwData& data, IpAndPort srcIpAndPortOld,
                                                    IpAndPort srcIpAndPortNew, IpAndPort dstIpAndPortOld,
                                                    IpAndPort dstIpAndPortNew, U8 protocol, U16 vlan,
                                                    NextHop const& nextHop, MulticastInfo const& multicastData,
                                                    U16 groupId, bool fillData) {
   key.srcIpAndPortOldIs(srcIpAndPortOld);
   key.srcIpAndPortNewIs(srcIpAndPortNew);
   key.dstIpAndPortOldIs(dstIpAndPortOld);
   key.dstIpAndPortNewIs(dstIpAndPortNew);
   key.groupIdIs(groupId);
   data.vlanIdIs(NatVlanIdIndex(0), vlan);
   if (!fillData) return;
   if (multicastData) {
      doPopulateNatHwDataEgrIntfArray(multicastData->oifSet(), data);
      data.multicastIs(multicastData->multicast());
      data.mcastGroupIdIs(multicastData->groupId());
   }
   data.protocolIs(protocol);
   data.nextHopIdIs(natHwNextHopId(nextHop));
   data.numFilterAddrsIs(1);
}

UloHelper::NatHwResult NatAsyncHelper::addTwiceNatTranslation(IpAndPort srcIpAndPortOld, IpAndPort srcIpAndPortNew,
                                                              IpAndPort dstIpAndPortOld, IpAndPort dstIpAndPortNew,
                                                              U8 protocol, U16 vlan, NextHop nextHop,
                                                              MulticastInfo multicastInfo, bool forward,
                                                              U16 natGroupId, VrfId, bool) {
   uloAssert(hwInitialized());
   NatHwKey key;
   key.keyTypeIs(forward ? NatHwKey::twiceNatForward : NatHwKey::twiceNatReverse);
   NatHwData data;
   doPopulateTwiceNatHwKeyAndData(key, data, srcIpAndPortOld, srcIpAndPortNew, dstIpAndPortOld, dstIpAndPortNew,
                                  protocol, vlan, nextHop, multicastInfo, natGroupId, true);
   doAddOrUpdateIpTranslation(key, data, Ip::Nat::NatStaticConnection(), vlan);
   return UloHelper::NatHwResult::success;
}

UloHelper::NatHwResult NatAsyncHelper::updateTwiceNatTranslation(IpAndPort srcIpAndPortOld,
                                                                 IpAndPort srcIpAndPortNew,
                                                                 IpAndPort dstIpAndPortOld,
                                                                 IpAndPort dstIpAndPortNew, U8 protocol, U16 vlan,
                                                                 NextHop nextHop, MulticastInfo multicastInfo,
                                                                 bool forward, U16 natGroupId, VrfId, bool) {
   uloAssert(hwInitialized());
   NatHwKey key;
   key.keyTypeIs(forward ? NatHwKey::twiceNatForward : NatHwKey::twiceNatReverse);
   NatHwData data;
   doPopulateTwiceNatHwKeyAndData(key, data, srcIpAndPortOld, srcIpAndPortNew, dstIpAndPortOld, dstIpAndPortNew,
                                  protocol, vlan, nextHop, multicastInfo, natGroupId, true);
   doUpdateIpTranslation(key, data, Ip::Nat::NatStaticConnection(), vlan);
   return UloHelper::NatHwResult::success;
}

bool NatAsyncHelper::delTwiceNatTranslation(IpAndPort srcIpAndPortOld, IpAndPort srcIpAndPortNew,
                                            IpAndPort dstIpAndPortOld, IpAndPort dstIpAndPortNew, U16 vlan,
                                            bool forward, U16 natGroupId, VrfId) {
   NatHwKey key;
   key.keyTypeIs(forward ? NatHwKey::twiceNatForward : NatHwKey::twiceNatReverse);
   NatHwData data;
   doPopulateTwiceNatHwKeyAndData(key, data, srcIpAndPortOld, srcIpAndPortNew, dstIpAndPortOld, dstIpAndPortNew, 0,
                                  vlan, NextHop(), MulticastInfo(), natGroupId, false);
   doDeleteOrUpdateIpTranslation(key, vlan);
   return true;
}

// ---------------------------------------------------------------------------
// Dynamic translations

namespace {

NatHwKey dynamicKey(NatHwKey::NatKeyType type, Lumet::ConnTuple const& flowKey, Lumet::IpAndPort srcOld,
                    Lumet::IpAndPort srcNew, Lumet::IpAndPort dstOld, Lumet::IpAndPort dstNew) {
   NatHwKey key(type, srcOld, srcNew, dstOld, dstNew);
   key.dynProtoIs(flowKey.protocol());
   return key;
}

} // namespace

bool NatAsyncHelper::addDynamicSrcIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const& srcIpAndPort,
                                                IpAndPort const& dstIpAndPort, IpAndPort const& newSrcIpAndPort,
                                                U16 vlan, VrfId) {
   uloAssert(hwInitialized());
   U16 const vlanId = vlan;
   uloAssert(vlanId);
   NatHwKey const key =
      dynamicKey(NatHwKey::dynamicSnat, flowKey, srcIpAndPort, newSrcIpAndPort, dstIpAndPort, dstIpAndPort);
   addDynamicIpTranslation(Ip::Nat::source_, flowKey, key, vlan, 0);
   return true;
}

bool NatAsyncHelper::addDynamicDstIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const& srcIpAndPort,
                                                IpAndPort const& dstIpAndPort, IpAndPort const& newDstIpAndPort,
                                                NextHop nextHop, U16 vlan, bool, VrfId) {
   uloAssert(hwInitialized());
   U16 const vlanId = vlan;
   uloAssert(vlanId);
   NatHwKey const key =
      dynamicKey(NatHwKey::dynamicDnat, flowKey, srcIpAndPort, srcIpAndPort, dstIpAndPort, newDstIpAndPort);
   addDynamicIpTranslation(Ip::Nat::destination, flowKey, key, vlan, natHwNextHopId(nextHop));
   return true;
}

void NatAsyncHelper::addDynamicIpTranslation(Ip::Nat::NatTarget target, Lumet::ConnTuple const& flowKey,
                                             NatHwKey const& key, U16 vlanId, U64 nextHopId) {
   uloAssert(vlanId);
   uloAssert(!vlanRefHas( key ));
   NatHwData data;
   TrapVlanSet const* trap = nullptr;
   for (auto const& [name, set] : trapVlanSet_) {
      if (set.vlanIdHas(vlanId)) {
         trap = &set;
         break;
      }
   }
   if (trap) {
      // A flow that came in on one VLAN is in hardware on every VLAN that
      // shares the trap ACL.
      VOR_TRACE(7, "found trap " << trap->aclName());
      U32 index = 0;
      for (U16 vlan : trap->vlanId()) {
         addVlanRef(key, vlan);
         data.vlanIdIs(NatVlanIdIndex(index++), vlan);
      }
   } else {
      VOR_TRACE(7, "no trap found");
      addVlanRef(key, vlanId);
      data.vlanIdIs(NatVlanIdIndex(0), vlanId);
   }
   data.protocolIs(key.dynProto());
   if (key.isDynamicDstNat()) data.nextHopIdIs(nextHopId);
   data.numFilterAddrsIs(1);
   addSrcOrDstIpTranslations(key, data, Ip::Nat::NatStaticConnection());
   cacheIs(Cache(key, data, Ip::Nat::NatStaticConnection()));
   DynamicFlowKey const dynFlowKey(target, flowKey);
   uloAssert(!dynamicFlowMapHas( dynFlowKey ));
   dynamicFlowMap_.emplace(dynFlowKey, key);
}

void NatAsyncHelper::deleteDynamicIpTranslation(NatHwKey const& key, U16 vlanId) {
   std::vector<U16> others;
   VlanSet const vlanSet = vlanRef(key);
   for (auto const& vlan : vlanSet.id()) {
      if (vlan.value() != vlanId) others.push_back(vlan.value());
   }
   for (U16 vlan : others) delVlanRef(key, vlan);
   doDeleteOrUpdateIpTranslation(key, vlanId);
}

bool NatAsyncHelper::deleteDynamicIpTranslation(Ip::Nat::NatTarget target, Lumet::ConnTuple const& flowKey,
                                                U16 vlan) {
   DynamicFlowKey const dynFlowKey(target, flowKey);
   uloAssert(dynamicFlowMapHas( dynFlowKey ));
   NatHwKey const key = dynamicFlowMap_.at(dynFlowKey);
   if (vlanRefHas(key)) {
      deleteDynamicIpTranslation(key, vlan);
   } else {
      uloAssert(!hwShadow()->entryHas( key ));
   }
   dynamicFlowMap_.erase(dynFlowKey);
   return true;
}

bool NatAsyncHelper::deleteDynamicSrcIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const&,
                                                   IpAndPort const&, IpAndPort const&, U16 vlan, VrfId) {
   return deleteDynamicIpTranslation(Ip::Nat::source_, flowKey, vlan);
}

bool NatAsyncHelper::deleteDynamicDstIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const&,
                                                   IpAndPort const&, IpAndPort const&, U16 vlan, bool, VrfId) {
   return deleteDynamicIpTranslation(Ip::Nat::destination, flowKey, vlan);
}

bool NatAsyncHelper::updateDynamicDstIpTranslation(Lumet::ConnTuple const& flowKey, IpAndPort const& srcIpAndPort,
                                                   IpAndPort const& dstIpAndPort, IpAndPort const& newDstIpAndPort,
                                                   NextHop nextHop, U16 vlan, bool, VrfId) {
   uloAssert(hwInitialized());
   NatHwKey const key =
      dynamicKey(NatHwKey::dynamicDnat, flowKey, srcIpAndPort, srcIpAndPort, dstIpAndPort, newDstIpAndPort);
   // An update of a flow that is not there is harmless.
   if (!vlanRefHas(key)) return true;
   NatHwData data;
   data.nextHopIdIs(natHwNextHopId(nextHop));
   data.numFilterAddrsIs(1);
   doUpdateIpTranslation(key, data, Ip::Nat::NatStaticConnection(), vlan);
   return true;
}

// ---------------------------------------------------------------------------

Vor::Ptr<NatAsyncHelper> natAsyncHelperFactory() {
   Vor::Ptr<NatAsyncHelper> helper(new NatAsyncHelper("natAsyncHelper"));
   helper->hasNotificationActiveIs(true);
   return helper;
}

} // namespace Ulo
