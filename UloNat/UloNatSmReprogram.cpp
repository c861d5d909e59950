// Ulo::NatSm: reprogramming of every static connection when the sharing of
// ACLs between them changes, of every static and twice connection when the
// multicast translation mode changes, and the two relays: asynchronous hardware status
// to the helper, dynamic connections to their interface's engine.

#include <vector>

#include "UloNat/UloNatSm.h"
#include "framework/UloAssert.h"
#include "framework/VorTrace.h"

VOR_TRACE_HANDLE("UloNatSmReprogram");

namespace Ulo {

void NatSm::handleStaticAclSharingStatus() {
   if (!initialized()) return;
   auto const st = status();
   VOR_TRACE(5, ", staticAclSharingStatus: " << (st && st->staticAclSharingStatus()));
   // Whatever the value: the helper lays out shared and unshared ACLs
   // differently, so everything goes out before anything comes back.
   doReprogramStaticConnections();
}

void NatSm::doReprogramStaticConnections() {
   VOR_TRACE(5, ", Blowing away ALL static connections");
   std::vector<Lumet::IntfId> const intfs = natIntfStatusSm_.keys();
   for (auto const& intf : intfs) {
      auto engine = natIntfStatusSm(intf);
      if (!engine) continue;
      std::vector<Ip::Nat::StaticKey> keys;
      for (auto const& [key, conn] : engine->cachedStaticConnection()) keys.push_back(key);
      for (auto const& key : keys) engine->deleteStaticConnection(key);
   }
   VOR_TRACE(5, ", Reprogramming ALL static connections");
   for (auto const& intf : intfs) {
      if (auto engine = natIntfStatusSm(intf)) engine->handleStaticConnection();
   }
}

void NatSm::handleMcastTranslationModeStatus() {
   if (!initialized()) return;
   uloAssert(mcastTranslationModeStatus());
   Vor::U32 const types = mcastTranslationModeStatus()->numTranslationTypes();
   VOR_TRACE(5, ", numTranslationTypes: " << types);
   // Only these two modes change how the helper lays out translations.
   if (types != 3 && types != 0) return;
   doReprogramStaticConnections();
   doReprogramTwiceConnections();
}

void NatSm::doReprogramTwiceConnections() {
   VOR_TRACE(5, ", Blowing away ALL twice connections");
   std::vector<Lumet::IntfId> const intfs = natIntfStatusSm_.keys();
   for (auto const& intf : intfs) {
      auto engine = natIntfStatusSm(intf);
      if (!engine) continue;
      // Hardware status, not configuration, is what stands in hardware.
      auto const hwIntfStatus = hwStatus_->intfStatus(engine->natIntf());
      uloAssert(hwIntfStatus);
      auto const& groups = hwIntfStatus->twiceNatConnectionHw();
      // Each delete may remove its group's record from the map being walked:
      // the walk finds its place again by group.
      for (auto it = groups.begin(); it != groups.end();) {
         Vor::U16 const group = it->first;
         auto const record = it->second;
         std::vector<Lumet::ConnTuple> tuples;
         tuples.reserve(record->entrys());
         for (auto const& [tuple, natAddr] : record->entry()) tuples.push_back(tuple);
         for (auto const& tuple : tuples) engine->deleteTwiceNatConnection(group, tuple);
         it = groups.upper_bound(group);
      }
   }
   VOR_TRACE(5, ", Reprogramming ALL twice connections");
   for (auto const& intf : intfs) {
      if (auto engine = natIntfStatusSm(intf)) engine->handleTwiceNatConnection();
   }
}

void NatSm::handleAsyncHwStatus(NatHwKey const& key) {
   if (!initialized()) return;
   if (!natHelper_->doHandleAsyncHwStatus(key)) {
      VOR_TRACE(5, " key failed " << key.stringValue());
   }
}

void NatSm::handleAsyncHwStatus() {
   if (!initialized()) return;
   Ptr<NatAsyncHwStatusDir const> dir = asyncHwStatusDir();
   if (!dir) return;
   // The helper may change the directory while it handles a key: walk a
   // copy of the keys.
   std::vector<NatHwKey> keys;
   keys.reserve(dir->statuss());
   for (auto const& m : dir->status()) keys.push_back(m.key());
   for (auto const& key : keys) handleAsyncHwStatus(key);
}

void NatSm::handleDynamicConnection(Ip::Nat::DynamicConnectionKey const& key) {
   VOR_TRACE(7, ", natIntf: " << key.intfId() << ", conn: " << key.connTuple().stringValue());
   if (auto engine = natIntfStatusSm(key.intfId())) {
      engine->handleDynamicConnection(key);
      return;
   }
   VOR_TRACE(5, "Missing intfStatusSm for " << key.intfId());
}

} // namespace Ulo
