// Sim::SimNatHelper: the chip's trap ACLs and their address-only slices.

#include <sstream>

#include "sim/SimNatHelper.h"

namespace Sim {

namespace {

char const* kindName(TrapChipEntry::Kind kind) {
   switch (kind) {
   case TrapChipEntry::Kind::trapAll: return "trapAll";
   case TrapChipEntry::Kind::trap: return "trap";
   case TrapChipEntry::Kind::protocol: return "protocol";
   case TrapChipEntry::Kind::service: return "service";
   case TrapChipEntry::Kind::addrOnly: return "addrOnly";
   case TrapChipEntry::Kind::addrOnlyDenyAll: return "addrOnlyDenyAll";
   }
   return "unknown";
}

} // namespace

std::string TrapChipEntry::stringValue() const {
   std::ostringstream out;
   out << kindName(kind) << " rule " << ruleId << " seq " << seqNum << " proto " << unsigned(proto) << " "
       << src.stringValue() << ":" << srcPort << "/0x" << std::hex << srcPortMask << std::dec << " > "
       << dst.stringValue() << ":" << dstPort << "/0x" << std::hex << dstPortMask << std::dec
       << (deny ? " deny" : " trap");
   return out.str();
}

std::string TrapAclKey::stringValue() const {
   return "vlan " + std::to_string(vlanId) + " acl " + aclName + (slice ? " slice" : "");
}

std::set<TrapChipEntry> const* SimNatHelper::trapAcl(U32 vlanId, std::string const& aclName, bool slice) const {
   auto it = trapAcls_.find(TrapAclKey{vlanId, aclName, slice});
   return it == trapAcls_.end() ? nullptr : &it->second;
}

bool SimNatHelper::putTrap(TrapAclKey const& key, TrapChipEntry const& entry) {
   ++counts_.trapAdds;
   if (refuseNow()) {
      ++counts_.trapRefused;
      return false;
   }
   auto acl = trapAcls_.find(key);
   if (acl != trapAcls_.end() && acl->second.count(entry)) return true;
   if (!roomForOne()) {
      ++counts_.refused;
      ++counts_.trapRefused;
      return false;
   }
   trapAcls_[key].insert(entry);
   ++trapEntryCount_;
   return true;
}

void SimNatHelper::eraseAcl(TrapAclKey const& key) {
   auto acl = trapAcls_.find(key);
   if (acl == trapAcls_.end()) return;
   ++counts_.trapDeletes;
   trapEntryCount_ -= acl->second.size();
   trapAcls_.erase(acl);
}

bool SimNatHelper::addTrapAllRule(U32 vlanId, Vor::String aclName, U32 ruleId, bool, bool, U16, U32,
                                  Ip::Nat::NatTarget) {
   TrapChipEntry entry;
   entry.kind = TrapChipEntry::Kind::trapAll;
   entry.ruleId = ruleId;
   return putTrap(TrapAclKey{vlanId, aclName.stdString(), false}, entry);
}

bool SimNatHelper::addTrapRule(U32 vlanId, Vor::String aclName, U32 ruleId, U32 seqNum,
                               IpAddrWithFullMask const& srcIpAndMask, IpAddrWithFullMask const& dstIpAndMask,
                               bool, bool deny, bool, bool, U16, U32, Ip::Nat::NatTarget) {
   TrapChipEntry entry;
   entry.kind = TrapChipEntry::Kind::trap;
   entry.ruleId = ruleId;
   entry.seqNum = seqNum;
   entry.src = srcIpAndMask;
   entry.dst = dstIpAndMask;
   entry.deny = deny;
   return putTrap(TrapAclKey{vlanId, aclName.stdString(), false}, entry);
}

bool SimNatHelper::addProtocolTrapRule(U32 vlanId, Vor::String aclName, U32 ruleId, U32 seqNum, U8 proto,
                                       IpAddrWithFullMask const& srcIpAndMask,
                                       IpAddrWithFullMask const& dstIpAndMask, U16 srcPort, U16 srcPortMask,
                                       U16 dstPort, U16 dstPortMask, bool, bool deny, bool, bool, U16, U32,
                                       Ip::Nat::NatTarget) {
   TrapChipEntry entry;
   entry.kind = TrapChipEntry::Kind::protocol;
   entry.ruleId = ruleId;
   entry.seqNum = seqNum;
   entry.proto = proto;
   entry.src = srcIpAndMask;
   entry.dst = dstIpAndMask;
   entry.srcPort = srcPort;
   entry.srcPortMask = srcPortMask;
   entry.dstPort = dstPort;
   entry.dstPortMask = dstPortMask;
   entry.deny = deny;
   return putTrap(TrapAclKey{vlanId, aclName.stdString(), false}, entry);
}

bool SimNatHelper::addServiceTrapRule(U32 vlanId, Vor::String aclName, U32 ruleId,
                                      IpAddrWithFullMask const& srcIpAndMask, U16 srcPort,
                                      IpAddrWithFullMask const& dstIpAndMask, U16 dstPort, bool, bool deny,
                                      Ip::Nat::NatTarget) {
   // A service port is one port: its mask is all ones, or none for no port.
   TrapChipEntry entry;
   entry.kind = TrapChipEntry::Kind::service;
   entry.ruleId = ruleId;
   entry.src = srcIpAndMask;
   entry.dst = dstIpAndMask;
   entry.srcPort = srcPort;
   entry.srcPortMask = srcPort ? 0xFFFF : 0;
   entry.dstPort = dstPort;
   entry.dstPortMask = dstPort ? 0xFFFF : 0;
   entry.deny = deny;
   return putTrap(TrapAclKey{vlanId, aclName.stdString(), false}, entry);
}

bool SimNatHelper::addAddrOnlyAclRule(U32 vlanId, Vor::String aclName, U32 ruleId,
                                      IpAddrWithFullMask const& srcIpAndMask,
                                      IpAddrWithFullMask const& dstIpAndMask, bool, Ip::Nat::NatTarget) {
   TrapChipEntry entry;
   entry.kind = TrapChipEntry::Kind::addrOnly;
   entry.ruleId = ruleId;
   entry.src = srcIpAndMask;
   entry.dst = dstIpAndMask;
   return putTrap(TrapAclKey{vlanId, aclName.stdString(), true}, entry);
}

bool SimNatHelper::addAddrOnlyDenyAllAcl(U32 vlanId, Vor::String aclName, U32 ruleId, Ip::Nat::NatTarget) {
   TrapChipEntry entry;
   entry.kind = TrapChipEntry::Kind::addrOnlyDenyAll;
   entry.ruleId = ruleId;
   entry.deny = true;
   return putTrap(TrapAclKey{vlanId, aclName.stdString(), true}, entry);
}

bool SimNatHelper::delAddrOnlyAclSliceRule(U32 vlanId, Vor::String aclName) {
   eraseAcl(TrapAclKey{vlanId, aclName.stdString(), true});
   return true;
}

bool SimNatHelper::delTrapRule(U32 vlanId, Ip::Nat::DynamicKey const& key) {
   eraseAcl(TrapAclKey{vlanId, key.aclName().stdString(), false});
   return true;
}

bool SimNatHelper::commitAddrOnlyAclSliceRules() {
   ++counts_.sliceCommits;
   if (failNextSliceCommit_ == 0) return true;
   --failNextSliceCommit_;
   ++counts_.failedTrapCommits;
   return false;
}

bool SimNatHelper::commitTrapRules() {
   ++counts_.trapCommits;
   if (failNextTrapCommit_ == 0) return true;
   --failNextTrapCommit_;
   ++counts_.failedTrapCommits;
   return false;
}

} // namespace Sim
