#pragma once
// ACL values of the NAT hardware layer.
//
//   NatAclId              the number by which a hardware key names its ACL
//   NatAclNameIdTable     ACL names to ids and back
//   NatAclIdFilterTable   ACL id to the filter addresses of that ACL
//   NatTrapKey, NatTrapRule, NatTrapAcl, NatTrapConfig
//                         the published form of a dynamic rule's trap ACL
//   natPortSpecValueMasks, natTrapPortMatches
//                         the port half of expanding one trap filter into
//                         single hardware rules of value/mask pairs
//
// Thread safety: values, and two tables that follow the one-thread rule of
// the library; const operations may run concurrently.
//
// Invariants:
//  1. NatAclId 0 means "no ACL"; no ACL name is ever given id 0.
//  2. NatAclNameIdTable is a bijection between the names it holds and the ids
//     it gave them; an id is never given to a second name.
//  3. In a NatTrapAcl built from a rule, sequence 1 is the catch-all and the
//     filter with seqNum n is at sequence n + 2, so the filters keep their
//     order behind the catch-all.

#include <map>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "framework/AclPortSpec.h"
#include "framework/IpNatTypes.h"
#include "framework/LumetIpAddr.h"
#include "framework/LumetRangeMaskGen.h"
#include "framework/VorEntity.h"
#include "framework/VorHash.h"
#include "framework/VorString.h"

namespace Ulo {

using Vor::U16;
using Vor::U32;
using Vor::U8;

// A 32-bit ACL number; stored inside hardware keys in shared memory.
class NatAclId {
 public:
   constexpr NatAclId() = default;
   constexpr explicit NatAclId(U32 value) : value_(value) {}

   constexpr U32 value() const { return value_; }
   constexpr explicit operator bool() const { return value_ != 0; }

   friend constexpr bool operator==(NatAclId a, NatAclId b) { return a.value_ == b.value_; }
   friend constexpr auto operator<=>(NatAclId a, NatAclId b) { return a.value_ <=> b.value_; }

   std::string stringValue() const { return std::to_string(value_); }
   U32 hash(U32 seed = 0) const { return Vor::hashIntegral(seed, value_); }

 private:
   U32 value_ = 0;
};

static_assert(sizeof(NatAclId) == 4 && std::is_trivially_copyable_v<NatAclId>);

// ---------------------------------------------------------------------------
// ACL name and filter tables

// ACL names to ids. Ids are handed out from 1 upwards in order of first
// allocation and are not reused within the life of the table: a hardware key
// that still carries an old id can then never be taken for another ACL.
class NatAclNameIdTable : public Vor::Entity {
 public:
   explicit NatAclNameIdTable(Vor::String name = Vor::String()) : Vor::Entity(std::move(name)) {}

   // The id of `aclName`, given now if it has none.
   // REQUIRES: aclName is not empty.
   NatAclId allocateAclId(Vor::String const& aclName);
   // The id of `aclName`; NatAclId() (0) when it has none.
   NatAclId getAclId(Vor::String const& aclName) const;
   // The name behind `aclId`; empty for 0 or an id never given.
   Vor::String getAclName(NatAclId aclId) const;
   std::size_t aclIds() const { return idByName_.size(); }

 private:
   std::map<Vor::String, NatAclId> idByName_;
   std::map<NatAclId, Vor::String> nameById_;
   U32 lastId_ = 0;
};

// The filter addresses of one shared ACL.
class NatAclIdFilterTableEntry {
 public:
   using FilterAddrSet = std::set<Lumet::IpAddrWithFullMask>;

   FilterAddrSet const& filterAddrTable() const { return filterAddrTable_; }
   bool filterAddrTableHas(Lumet::IpAddrWithFullMask const& addr) const {
      return filterAddrTable_.count(addr) != 0;
   }
   void filterAddrTableIs(Lumet::IpAddrWithFullMask const& addr) { filterAddrTable_.insert(addr); }
   void filterAddrTableDel(Lumet::IpAddrWithFullMask const& addr) { filterAddrTable_.erase(addr); }
   std::size_t filterAddrTables() const { return filterAddrTable_.size(); }

   friend bool operator==(NatAclIdFilterTableEntry const&, NatAclIdFilterTableEntry const&) = default;

 private:
   FilterAddrSet filterAddrTable_;
};

class NatAclIdFilterTable : public Vor::Entity {
 public:
   explicit NatAclIdFilterTable(Vor::String name = Vor::String()) : Vor::Entity(std::move(name)) {}

   // The entry of `aclId`, or null.
   NatAclIdFilterTableEntry const* entry(NatAclId aclId) const;
   NatAclIdFilterTableEntry* entry(NatAclId aclId);
   bool entryHas(NatAclId aclId) const { return entries_.count(aclId) != 0; }
   // The entry of `aclId`, created empty if there is none.
   NatAclIdFilterTableEntry& entryIs(NatAclId aclId) { return entries_[aclId]; }
   void entryDel(NatAclId aclId) { entries_.erase(aclId); }
   std::size_t entries() const { return entries_.size(); }

 private:
   std::map<NatAclId, NatAclIdFilterTableEntry> entries_;
};

// ---------------------------------------------------------------------------
// Published trap ACLs

// The name of a trap ACL.
class NatTrapKey {
 public:
   NatTrapKey() = default;
   explicit NatTrapKey(Vor::String aclName) : aclName_(std::move(aclName)) {}

   Vor::String const& aclName() const { return aclName_; }

   friend bool operator==(NatTrapKey const& a, NatTrapKey const& b) { return a.aclName_ == b.aclName_; }
   friend bool operator<(NatTrapKey const& a, NatTrapKey const& b) { return a.aclName_ < b.aclName_; }

   std::string stringValue() const { return aclName_.stdString(); }
   U32 hash(U32 seed = 0) const { return aclName_.hash(seed); }

 private:
   Vor::String aclName_;
};

// One line of a trap ACL. `permit` traps matching traffic to software;
// `deny` lets it through untranslated.
class NatTrapRule {
 public:
   enum Action : U8 { deny = 0, permit = 1 };

   // Matches every packet and traps it.
   NatTrapRule() = default;
   NatTrapRule(Lumet::IpAddrWithFullMask srcIpAndMask, Lumet::IpAddrWithFullMask dstIpAndMask, U8 proto,
               Acl::PortSpec srcPortSpec, Acl::PortSpec dstPortSpec, Action action)
       : srcIpAndMask_(srcIpAndMask), dstIpAndMask_(dstIpAndMask), proto_(proto),
         srcPortSpec_(std::move(srcPortSpec)), dstPortSpec_(std::move(dstPortSpec)), action_(action) {}

   // The rule of one filter: its addresses, protocol and ports, and permit
   // unless the filter denies. A filter's service port (a single port with no
   // port list) becomes an "eq" list, so one form describes both.
   static NatTrapRule fromFilter(Ip::Nat::NatTrapFilter const& filter);

   Lumet::IpAddrWithFullMask srcIpAndMask() const { return srcIpAndMask_; }
   Lumet::IpAddrWithFullMask dstIpAndMask() const { return dstIpAndMask_; }
   U8 proto() const { return proto_; }
   Acl::PortSpec const& srcPortSpec() const { return srcPortSpec_; }
   Acl::PortSpec const& dstPortSpec() const { return dstPortSpec_; }
   Action action() const { return action_; }

   friend bool operator==(NatTrapRule const&, NatTrapRule const&) = default;

   // "permit src 10.0.0.0/8 any dst 0.0.0.0/0 eq 80 proto 6"
   std::string stringValue() const;

 private:
   Lumet::IpAddrWithFullMask srcIpAndMask_;
   Lumet::IpAddrWithFullMask dstIpAndMask_;
   U8 proto_ = 0;
   Acl::PortSpec srcPortSpec_;
   Acl::PortSpec dstPortSpec_;
   Action action_ = permit;
};

// A trap ACL: rules by sequence number, walked in ascending sequence.
class NatTrapAcl {
 public:
   using RuleMap = std::map<U32, NatTrapRule>;

   NatTrapAcl() = default;
   explicit NatTrapAcl(NatTrapKey key) : key_(std::move(key)) {}

   NatTrapKey const& key() const { return key_; }
   RuleMap const& ruleBySequence() const { return rules_; }
   // The rule at `sequence`, or null.
   NatTrapRule const* ruleBySequence(U32 sequence) const;
   // Sets the rule at `sequence`, replacing one that is there.
   void ruleBySequenceIs(U32 sequence, NatTrapRule const& rule) { rules_[sequence] = rule; }
   void ruleBySequenceDel(U32 sequence) { rules_.erase(sequence); }
   std::size_t ruleBySequences() const { return rules_.size(); }

   friend bool operator==(NatTrapAcl const&, NatTrapAcl const&) = default;

   std::string stringValue() const;

 private:
   NatTrapKey key_;
   RuleMap rules_;
};

// The trap ACLs that the platform is to hold, by name.
class NatTrapConfig {
 public:
   using AclMap = std::map<NatTrapKey, NatTrapAcl>;

   AclMap const& trapAcl() const { return acls_; }
   NatTrapAcl const* trapAcl(NatTrapKey const& key) const;
   bool trapAclHas(NatTrapKey const& key) const { return acls_.count(key) != 0; }
   // Stores `acl` under its key, replacing an ACL of the same name.
   void trapAclIs(NatTrapAcl const& acl) { acls_.insert_or_assign(acl.key(), acl); }
   void trapAclDel(NatTrapKey const& key) { acls_.erase(key); }
   std::size_t trapAcls() const { return acls_.size(); }

 private:
   AclMap acls_;
};

// Sequence numbers of a published trap ACL.
constexpr U32 natTrapCatchAllSequence = 1;
constexpr U32 natTrapFilterSequence(U32 seqNum) { return seqNum + 2; }

// ---------------------------------------------------------------------------
// Expansion of a trap filter's ports into value/mask pairs

// The value/mask pairs of one port range.
using NatPortValueMask = Lumet::RangeMask<U16>;

// Turns `portSpec` into port ranges (at most 11) and each range into its
// value/mask pairs. Ports that match anything give one range 0..0 with
// the single pair {0, 0, mask 0}, so that callers loop over it like any
// other. Returns the number of ranges, or the negative result of
// Acl::portSpecToRanges with `ranges` and `pairs` empty.
int natPortSpecValueMasks(Acl::PortSpec const& portSpec, std::vector<Acl::U16FieldRange>& ranges,
                          std::vector<std::vector<NatPortValueMask>>& pairs);

// One single hardware rule's port match.
struct NatTrapPortMatch {
   U16 srcPort = 0;
   U16 srcPortMask = 0;
   U16 dstPort = 0;
   U16 dstPortMask = 0;
   friend bool operator==(NatTrapPortMatch const&, NatTrapPortMatch const&) = default;
};

// Every combination of a source pair and a destination pair, source ranges
// and their pairs being the outer loop. Returns the number of combinations,
// or the negative result of the failing side (source checked first) with
// `out` empty.
int natTrapPortMatches(Acl::PortSpec const& srcSpec, Acl::PortSpec const& dstSpec,
                       std::vector<NatTrapPortMatch>& out);

// Combines pairs already computed by natPortSpecValueMasks. Each range must
// have at least one pair: an empty one is a broken invariant ("srcSize",
// "dstSize", "srcVect[ iSrc ].size()", "dstVect[ iDst ].size()").
std::vector<NatTrapPortMatch> natTrapPortMatches(std::vector<std::vector<NatPortValueMask>> const& srcVect,
                                                 std::vector<std::vector<NatPortValueMask>> const& dstVect);

} // namespace Ulo
