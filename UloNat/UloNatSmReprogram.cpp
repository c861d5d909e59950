// Ulo::NatSm: reprogramming of every static connection when the sharing of
// ACLs between them changes.

#include <vector>

#include "UloNat/UloNatSm.h"
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

} // namespace Ulo
