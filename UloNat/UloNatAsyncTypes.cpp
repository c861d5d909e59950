#include "UloNat/UloNatAsyncTypes.h"

#include <tuple>

#include "framework/UloAssert.h"
#include "framework/VorException.h"

namespace Ulo {

namespace {

std::string boolText(bool v) { return v ? "True" : "False"; }

std::tuple<U32, Lumet::IpAndPort const&, Lumet::IpAndPort const&, Lumet::IpAndPort const&,
           Lumet::IpAndPort const&, U32, bool, U8, U16>
orderFields(NatHwKey const& k, Lumet::IpAndPort const& a, Lumet::IpAndPort const& b,
            Lumet::IpAndPort const& c, Lumet::IpAndPort const& d) {
   return {k.keyType(), a, b, c, d, k.aclId().value(), k.reverse(), k.dynProto(), k.groupId()};
}

} // namespace

// ---------------------------------------------------------------------------
// NatHwKey

char const* NatHwKey::keyTypeName(NatKeyType type) {
   switch (type) {
   case unknown: return "unknown";
   case staticSnat: return "staticSnat";
   case staticDnat: return "staticDnat";
   case twiceNatForward: return "twiceNatForward";
   case twiceNatReverse: return "twiceNatReverse";
   case dynamicSnat: return "dynamicSnat";
   case dynamicDnat: return "dynamicDnat";
   }
   return "unknown";
}

char const* NatHwKey::keyTypeLogWord(NatKeyType type) {
   switch (type) {
   case unknown: return "Unknown";
   case staticSnat: return "Static SNAT";
   case staticDnat: return "Static DNAT";
   case twiceNatForward: return "Twice NAT";
   case twiceNatReverse: return "Twice NAT";
   case dynamicSnat: return "Dynamic SNAT";
   case dynamicDnat: return "Dynamic DNAT";
   }
   return "Unknown";
}

bool NatHwKey::isAddrOnlyNat() const {
   return keyType_ != unknown && srcIpAndPortOld_.port() == 0 && srcIpAndPortNew_.port() == 0 &&
          dstIpAndPortOld_.port() == 0 && dstIpAndPortNew_.port() == 0;
}

bool operator==(NatHwKey const& a, NatHwKey const& b) {
   return a.keyType_ == b.keyType_ && a.srcIpAndPortOld_ == b.srcIpAndPortOld_ &&
          a.srcIpAndPortNew_ == b.srcIpAndPortNew_ && a.dstIpAndPortOld_ == b.dstIpAndPortOld_ &&
          a.dstIpAndPortNew_ == b.dstIpAndPortNew_ && a.aclId_ == b.aclId_ &&
          a.reverse_ == b.reverse_ && a.dynProto_ == b.dynProto_ && a.groupId_ == b.groupId_ &&
          a.filterAddrId_ == b.filterAddrId_;
}

bool operator<(NatHwKey const& a, NatHwKey const& b) {
   // The addresses are copied out first: IpAndPort members sit at 2-byte
   // alignment inside the key and are handed around by value.
   Lumet::IpAndPort const a0 = a.srcIpAndPortOld_, a1 = a.srcIpAndPortNew_,
                          a2 = a.dstIpAndPortOld_, a3 = a.dstIpAndPortNew_;
   Lumet::IpAndPort const b0 = b.srcIpAndPortOld_, b1 = b.srcIpAndPortNew_,
                          b2 = b.dstIpAndPortOld_, b3 = b.dstIpAndPortNew_;
   return orderFields(a, a0, a1, a2, a3) < orderFields(b, b0, b1, b2, b3);
}

U32 NatHwKey::hash(U32 seed) const {
   U32 h = seed;
   h = Vor::hashMix(h, keyType_);
   h = Vor::hashMix(h, srcIpAndPortOld_.addrPortHash());
   h = Vor::hashMix(h, srcIpAndPortNew_.addrPortHash());
   h = Vor::hashMix(h, dstIpAndPortOld_.addrPortHash());
   h = Vor::hashMix(h, dstIpAndPortNew_.addrPortHash());
   h = Vor::hashMix(h, aclId_.value());
   h = Vor::hashMix(h, reverse_ ? 1u : 0u);
   h = Vor::hashMix(h, dynProto_);
   h = Vor::hashMix(h, groupId_);
   h = Vor::hashMix(h, filterAddrId_);
   return Vor::hashFinish(h);
}

std::string NatHwKey::stringValue() const {
   std::string text = std::string("type: ") + keyTypeName(keyType_) + ",";
   auto address = [&text](char const* label, Lumet::IpAndPort const& a) {
      if (a.isSet()) text += label + a.stringValue() + ",";
   };
   address(" old sip: ", srcIpAndPortOld_);
   address(" new sip: ", srcIpAndPortNew_);
   address(" old dip: ", dstIpAndPortOld_);
   address(" new dip: ", dstIpAndPortNew_);
   if (aclId_) text += " aclId: " + aclId_.stringValue();
   if (reverse_) text += " reverse: 1";
   if (dynProto_) text += " proto: " + std::to_string(dynProto_);
   if (filterAddrId_) text += " faId: " + std::to_string(filterAddrId_);
   return text;
}

std::string NatHwKey::stringLogValue() const {
   std::string text = std::string("type: ") + keyTypeLogWord(keyType_);
   auto address = [&text](char const* label, Lumet::IpAndPort const& a) {
      if (a.isSet()) text += label + a.stringValue();
   };
   address(", old SIP: ", srcIpAndPortOld_);
   address(", new SIP: ", srcIpAndPortNew_);
   address(", old DIP: ", dstIpAndPortOld_);
   text += ", new DIP: " + dstIpAndPortNew().stringValue();
   return text;
}

std::string NatHwKey::genericText() const {
   return std::string("Value('Ulo::NatHwKey', ** {'keyType': ") + keyTypeName(keyType_) +
          ", 'srcIpAndPortOld': " + srcIpAndPortOld().stringValue() +
          ", 'srcIpAndPortNew': " + srcIpAndPortNew().stringValue() +
          ", 'dstIpAndPortOld': " + dstIpAndPortOld().stringValue() +
          ", 'dstIpAndPortNew': " + dstIpAndPortNew().stringValue() +
          ", 'aclId': " + aclId_.stringValue() + ", 'reverse': " + boolText(reverse_) +
          ", 'dynProto': " + std::to_string(dynProto_) + ", 'groupId': " + std::to_string(groupId_) +
          ", 'filterAddrId': " + std::to_string(filterAddrId_) + "})";
}

// ---------------------------------------------------------------------------
// NatHwData

bool operator==(NatHwData const& a, NatHwData const& b) {
   return a.protocol_ == b.protocol_ && a.filterAddr_ == b.filterAddr_ &&
          a.numFilterAddrs_ == b.numFilterAddrs_ && a.nextHopId_ == b.nextHopId_ &&
          a.vlanId_ == b.vlanId_ && a.staticAclSharing_ == b.staticAclSharing_ &&
          a.mcastGroupId_ == b.mcastGroupId_ && a.multicast_ == b.multicast_ &&
          a.egressIntf_ == b.egressIntf_;
}

std::string NatHwData::stringValue() const {
   std::string text = "vlan: [ ";
   for (U32 i = 0; i < vlanIds(); ++i) text += std::to_string(vlanId(i)) + " ";
   text += "]";
   if (protocol_) text += " proto: " + std::to_string(protocol_);
   if (!filterAddr_.isDefault()) text += " faddr: " + filterAddr_.stringValue();
   if (numFilterAddrs_) text += " #faddrs: " + std::to_string(numFilterAddrs_);
   if (nextHopId_) text += " nhid: " + std::to_string(nextHopId_);
   if (mcastGroupId_) text += " mcastGroupId: " + std::to_string(mcastGroupId_);
   if (staticAclSharing_) text += " staticAclSharing: 1";
   if (multicast_) {
      text += " multicast: 1";
      text += " egressIntf: [ ";
      for (U32 i = 0; i < egressIntfs(); ++i) {
         if (i) text += ", ";
         text += egressIntf(i).stringValue();
      }
      text += " ] ";
   }
   return text;
}

std::string NatHwData::genericText() const {
   std::string vlans = "[";
   for (U32 i = 0; i < vlanIds(); ++i) vlans += (i ? ", " : "") + std::to_string(vlanId(i));
   vlans += "]";
   std::string intfs = "[";
   for (U32 i = 0; i < egressIntfs(); ++i) intfs += (i ? ", " : "") + egressIntf(i).stringValue();
   intfs += "]";
   return "Value('Ulo::NatHwData', ** {'protocol': " + std::to_string(protocol_) +
          ", 'filterAddr': " + filterAddr_.stringValue() +
          ", 'numFilterAddrs': " + std::to_string(numFilterAddrs_) +
          ", 'nextHopId': " + std::to_string(nextHopId_) + ", 'vlanId': " + vlans +
          ", 'staticAclSharing': " + boolText(staticAclSharing_) +
          ", 'mcastGroupId': " + std::to_string(mcastGroupId_) +
          ", 'multicast': " + boolText(multicast_) + ", 'egressIntf': " + intfs + "})";
}

NatHwData NatHwData::fromGenericText(std::string_view) {
   uloAssert(!"No String constructor for NatHwData - has collection");
   __builtin_unreachable();
}

// ---------------------------------------------------------------------------
// NatHwShadowEntry

char const* NatHwShadowEntry::dirtyName(Dirty dirty) {
   switch (dirty) {
   case clean: return "clean";
   case setting: return "setting";
   case clearing: return "clearing";
   }
   return "unknown";
}

std::string NatHwShadowEntry::genericText() const {
   return "Value('Ulo::NatHwShadowEntry', ** {'key': " + key_.genericText() +
          ", 'data': " + data_.genericText() + ", 'dirty': " + dirtyName(dirty_) + "})";
}

// ---------------------------------------------------------------------------
// Next hops and multicast

U64 natHwNextHopId(Vor::Ptr<NatNextHopInfo const> const& nextHop) {
   auto id = dynamic_cast<NatNextHopId const*>(nextHop.ptr());
   return id ? id->nextHopId() : 0;
}

void doPopulateNatHwDataEgrIntfArray(NatMrouteOifSet const& oifSet, NatHwData& data) {
   data.egressIntfDelAll();
   U32 index = 0;
   for (auto const& intf : oifSet.oif()) data.egressIntfIs(index++, intf);
}

void copyNatHwDataEgrIntfArray(NatHwData const& from, NatHwData& to) {
   to.egressIntfDelAll();
   for (U32 i = 0; i < from.egressIntfs(); ++i) to.egressIntfIs(i, from.egressIntf(i));
}

} // namespace Ulo
