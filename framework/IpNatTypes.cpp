#include "framework/IpNatTypes.h"

#include <tuple>

namespace Ip::Nat {

char const* natTargetName(NatTarget target) { return target == destination ? "destination" : "source"; }

// ---------------------------------------------------------------------------
// StaticKey

bool operator<(StaticKey const& a, StaticKey const& b) {
   if (!(a.localAddress_ == b.localAddress_)) return a.localAddress_ < b.localAddress_;
   if (!(a.aclName_ == b.aclName_)) return a.aclName_ < b.aclName_;
   return a.table_ < b.table_;
}

std::string StaticKey::stringValue() const {
   std::string text = localAddress_.stringValue();
   if (!aclName_.empty()) text += " acl " + aclName_.stdString();
   text += table_ == egress ? " egress" : " ingress";
   return text;
}

U32 StaticKey::hash(U32 seed) const {
   U32 h = Vor::hashMix(seed, localAddress_.addrPortHash());
   h = Vor::hashMix(h, aclName_.hash(0));
   return Vor::hashFinish(Vor::hashMix(h, table_));
}

// ---------------------------------------------------------------------------
// NatStaticConnection

void NatStaticConnection::filterAddressIs(Lumet::IpAddrWithFullMask const& addr, bool present) {
   if (present) {
      filterAddress_.insert(addr);
   } else {
      filterAddress_.erase(addr);
   }
}

std::string NatStaticConnection::stringValue() const {
   std::string text = key_.stringValue() + " global " + globalAddress_.stringValue() + " target " +
                      natTargetName(target_) + " proto " + std::to_string(protocol_) + " vlan " +
                      std::to_string(vlanId_) + (forward_ ? " forward" : "");
   if (!filterAddress_.empty()) {
      text += " filter [";
      bool first = true;
      for (auto const& addr : filterAddress_) {
         text += (first ? " " : ", ") + addr.stringValue();
         first = false;
      }
      text += " ]";
   }
   return text;
}

// ---------------------------------------------------------------------------
// Twice

std::string NatTwiceConnection::stringValue() const {
   return "group " + std::to_string(group_) + " src " + srcOld_.stringValue() + " -> " +
          srcNew_.stringValue() + " dst " + dstOld_.stringValue() + " -> " + dstNew_.stringValue() +
          " proto " + std::to_string(protocol_) + " vlan " + std::to_string(vlanId_);
}

std::string HwNatTwiceAddr::stringValue() const {
   return "srcNew: " + srcNew_.stringValue() + " dstNew: " + dstNew_.stringValue();
}

// ---------------------------------------------------------------------------
// Dynamic rules

std::string DynamicKey::stringValue() const {
   return "acl " + aclName_.stdString() + " group " + std::to_string(group_);
}

bool operator<(NatTrapFilter const& a, NatTrapFilter const& b) {
   auto fields = [](NatTrapFilter const& f) {
      return std::make_tuple(f.seqNum_, f.srcIpAndMask_.ip().value(), f.srcIpAndMask_.mask(),
                             f.dstIpAndMask_.ip().value(), f.dstIpAndMask_.mask(), f.deny_,
                             f.filterFlag_, f.srcPort_, f.dstPort_, f.proto_);
   };
   auto fa = fields(a);
   auto fb = fields(b);
   if (fa != fb) return fa < fb;
   if (!(a.srcPortSpec_ == b.srcPortSpec_)) return a.srcPortSpec_ < b.srcPortSpec_;
   return a.dstPortSpec_ < b.dstPortSpec_;
}

std::string NatTrapFilter::stringValue() const {
   return "SeqNum: " + std::to_string(seqNum_) + ", src: " + srcIpAndMask_.stringValue() +
          ", dst: " + dstIpAndMask_.stringValue() + ", proto: " + std::to_string(proto_);
}

// ---------------------------------------------------------------------------
// Dynamic connections

std::string DynamicConnection::stringValue() const {
   std::string text = key_.stringValue() + " global " + globalAddress_.stringValue() + " target " +
                      natTargetName(target());
   if (connMark_) text += " connMark " + std::to_string(connMark_);
   if (fullCone()) text += " fullCone";
   if (addrOnly()) text += " addrOnly";
   if (twiceNat()) text += " twiceNat";
   return text;
}

std::string DynamicConnectionHw::stringValue() const {
   std::string text = key_.stringValue() + " global " + globalAddress_.stringValue() + " target " +
                      natTargetName(target_);
   if (fullCone_) text += " fullCone";
   if (addrOnly_) text += " addrOnly";
   return text;
}

std::string NatCounter::stringValue() const {
   return "pktCount: " + std::to_string(pktCount_) + " pktCountReply: " + std::to_string(pktCountReply_);
}

} // namespace Ip::Nat
