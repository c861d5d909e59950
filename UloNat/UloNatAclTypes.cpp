#include "UloNat/UloNatAclTypes.h"

#include "framework/UloAssert.h"

namespace Ulo {

// ---------------------------------------------------------------------------
// NatAclNameIdTable

NatAclId NatAclNameIdTable::allocateAclId(Vor::String const& aclName) {
   uloAssert(!aclName.empty());
   auto it = idByName_.find(aclName);
   if (it != idByName_.end()) return it->second;
   uloAssert(lastId_ != 0xffffffffu);
   NatAclId id(++lastId_);
   idByName_.emplace(aclName, id);
   nameById_.emplace(id, aclName);
   return id;
}

NatAclId NatAclNameIdTable::getAclId(Vor::String const& aclName) const {
   auto it = idByName_.find(aclName);
   return it == idByName_.end() ? NatAclId() : it->second;
}

Vor::String NatAclNameIdTable::getAclName(NatAclId aclId) const {
   auto it = nameById_.find(aclId);
   return it == nameById_.end() ? Vor::String() : it->second;
}

// ---------------------------------------------------------------------------
// NatAclIdFilterTable

NatAclIdFilterTableEntry const* NatAclIdFilterTable::entry(NatAclId aclId) const {
   auto it = entries_.find(aclId);
   return it == entries_.end() ? nullptr : &it->second;
}

NatAclIdFilterTableEntry* NatAclIdFilterTable::entry(NatAclId aclId) {
   auto it = entries_.find(aclId);
   return it == entries_.end() ? nullptr : &it->second;
}

// ---------------------------------------------------------------------------
// Trap ACLs

NatTrapRule NatTrapRule::fromFilter(Ip::Nat::NatTrapFilter const& filter) {
   Acl::PortSpec src = filter.srcPortSpec();
   Acl::PortSpec dst = filter.dstPortSpec();
   if (src.isAny() && filter.srcPort()) src = Acl::PortSpec::eqPorts({filter.srcPort()});
   if (dst.isAny() && filter.dstPort()) dst = Acl::PortSpec::eqPorts({filter.dstPort()});
   return NatTrapRule(filter.srcIpAndMask(), filter.dstIpAndMask(), filter.proto(), std::move(src),
                      std::move(dst), filter.deny() ? deny : permit);
}

std::string NatTrapRule::stringValue() const {
   return std::string(action_ == permit ? "permit" : "deny") + " src " + srcIpAndMask_.stringValue() + " " +
          srcPortSpec_.stringValue() + " dst " + dstIpAndMask_.stringValue() + " " +
          dstPortSpec_.stringValue() + " proto " + std::to_string(proto_);
}

NatTrapRule const* NatTrapAcl::ruleBySequence(U32 sequence) const {
   auto it = rules_.find(sequence);
   return it == rules_.end() ? nullptr : &it->second;
}

std::string NatTrapAcl::stringValue() const {
   std::string text = "acl " + key_.stringValue();
   for (auto const& [sequence, rule] : rules_) text += "\n  " + std::to_string(sequence) + " " + rule.stringValue();
   return text;
}

NatTrapAcl const* NatTrapConfig::trapAcl(NatTrapKey const& key) const {
   auto it = acls_.find(key);
   return it == acls_.end() ? nullptr : &it->second;
}

// ---------------------------------------------------------------------------
// Port expansion

int natPortSpecValueMasks(Acl::PortSpec const& portSpec, std::vector<Acl::U16FieldRange>& ranges,
                          std::vector<std::vector<NatPortValueMask>>& pairs) {
   constexpr int maxRanges = 11;
   ranges.clear();
   pairs.clear();
   Acl::U16FieldRange buffer[maxRanges];
   int count = Acl::portSpecToRanges(buffer, maxRanges, portSpec);
   if (count < 0) return count;
   if (count == 0) {
      // Any port: one "range" whose one pair matches everything.
      ranges.push_back(Acl::U16FieldRange{0, 0});
      pairs.push_back({NatPortValueMask{0, 0, 0}});
      return 1;
   }
   for (int i = 0; i < count; ++i) {
      ranges.push_back(buffer[i]);
      pairs.push_back(Lumet::RangeMaskGen<U16>::pairs(buffer[i].low, buffer[i].high));
   }
   return count;
}

std::vector<NatTrapPortMatch> natTrapPortMatches(std::vector<std::vector<NatPortValueMask>> const& srcVect,
                                                 std::vector<std::vector<NatPortValueMask>> const& dstVect) {
   std::size_t srcSize = srcVect.size();
   std::size_t dstSize = dstVect.size();
   uloAssert(srcSize);
   uloAssert(dstSize);
   std::vector<NatTrapPortMatch> out;
   for (std::size_t iSrc = 0; iSrc < srcSize; ++iSrc) {
      uloAssert(srcVect[ iSrc ].size());
      for (auto const& src : srcVect[iSrc]) {
         for (std::size_t iDst = 0; iDst < dstSize; ++iDst) {
            uloAssert(dstVect[ iDst ].size());
            for (auto const& dst : dstVect[iDst]) {
               out.push_back(NatTrapPortMatch{src.value, src.mask, dst.value, dst.mask});
            }
         }
      }
   }
   return out;
}

int natTrapPortMatches(Acl::PortSpec const& srcSpec, Acl::PortSpec const& dstSpec,
                       std::vector<NatTrapPortMatch>& out) {
   out.clear();
   std::vector<Acl::U16FieldRange> srcRanges, dstRanges;
   std::vector<std::vector<NatPortValueMask>> srcVect, dstVect;
   int n = natPortSpecValueMasks(srcSpec, srcRanges, srcVect);
   if (n < 0) return n;
   n = natPortSpecValueMasks(dstSpec, dstRanges, dstVect);
   if (n < 0) return n;
   out = natTrapPortMatches(srcVect, dstVect);
   return static_cast<int>(out.size());
}

} // namespace Ulo
