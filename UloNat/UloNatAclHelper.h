#pragma once
// Ulo::NatAclHelper: counts, per shared ACL, the (hardware key, VLAN) pairs
// that use it, and publishes in NatAclConfig which ACLs the platform must
// hold. An ACL is published with its first reference and withdrawn with its
// last, so several static connections on several VLANs share one ACL in
// hardware.
//
//   NatAclReferenceKey   one user of an ACL: a hardware key on a VLAN
//   NatAclReferenceSet   the users of one ACL
//   NatAclConfig         the ACL ids the platform is to hold
//   NatAclStatus         the platform's answer per ACL id
//   NatAclHelper         the reference counting itself
//
// The helper keeps nothing across a restart: the asynchronous helper's
// replay rebuilds every reference.
//
// Thread safety: none; used from the asynchronous helper's thread only.
//
// Invariants (assertion texts in quotes):
//  1. An id is in aclConfig()->acl() exactly while aclReferenceSet(id)
//     exists, and a reference set that exists is never empty.
//  2. Only keys with a non-zero aclId take references ("aclId").
//  3. A reference is deleted only when it exists ("aclReferenceSetHas( aclId )",
//     "referenceSet->referenceHas( referenceKey )").

#include <map>
#include <set>
#include <string>

#include "UloNat/UloNatAsyncTypes.h"
#include "framework/VorEntity.h"
#include "framework/VorPtr.h"

namespace Ulo {

// One user of a shared ACL. Ordered by the key's every field (filterAddrId
// included, unlike NatHwKey's own order), then by VLAN.
class NatAclReferenceKey {
 public:
   NatAclReferenceKey() = default;
   NatAclReferenceKey(NatHwKey const& hwKey, U16 vlanId) : hwKey_(hwKey), vlanId_(vlanId) {}

   NatHwKey const& hwKey() const { return hwKey_; }
   U16 vlanId() const { return vlanId_; }

   friend bool operator==(NatAclReferenceKey const& a, NatAclReferenceKey const& b) {
      return a.hwKey_ == b.hwKey_ && a.vlanId_ == b.vlanId_;
   }
   friend bool operator<(NatAclReferenceKey const& a, NatAclReferenceKey const& b);

   U32 hash(U32 seed) const;
   // "Value('Ulo::NatAclReferenceKey', ** {'hwKey': <key>, 'vlanId': <vlan>})"
   std::string genericText() const;

 private:
   NatHwKey hwKey_;
   U16 vlanId_ = 0;
};

class NatAclReferenceSet : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId referenceId = 1;

   explicit NatAclReferenceSet(NatAclId aclId) : Vor::Entity("natAclReferenceSet"), aclId_(aclId) {}

   NatAclId aclId() const { return aclId_; }
   std::set<NatAclReferenceKey> const& reference() const { return reference_; }
   bool referenceHas(NatAclReferenceKey const& key) const { return reference_.count(key) != 0; }
   std::size_t references() const { return reference_.size(); }
   // Adding a reference that is there changes nothing and notifies nobody.
   void referenceIs(NatAclReferenceKey const& key);
   void referenceDel(NatAclReferenceKey const& key);
   void referenceDelAll();

 private:
   NatAclId const aclId_;
   std::set<NatAclReferenceKey> reference_;
};

// What the platform is to hold.
class NatAclConfig : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId aclId = 1;

   NatAclConfig() : Vor::Entity("natAclConfig") {}

   std::set<NatAclId> const& acl() const { return acl_; }
   bool aclHas(NatAclId id) const { return acl_.count(id) != 0; }
   std::size_t acls() const { return acl_.size(); }
   void aclIs(NatAclId id);
   void aclDel(NatAclId id);
   void aclDelAll();

 private:
   std::set<NatAclId> acl_;
};

// The platform's answer per ACL.
class NatAclStatus : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId aclId = 1;
   enum State : U32 { unknown = 0, idle = 1, failed = 2 };

   NatAclStatus() : Vor::Entity("natAclStatus") {}

   std::map<NatAclId, State> const& acl() const { return acl_; }
   // unknown when the id has no answer.
   State acl(NatAclId id) const;
   void aclIs(NatAclId id, State state);
   void aclDel(NatAclId id);
   void aclDelAll();

 private:
   std::map<NatAclId, State> acl_;
};

class NatAclHelper : public Vor::Entity {
 public:
   static constexpr Vor::AttributeId aclReferenceSetId = 1;

   NatAclHelper(Vor::Ptr<NatAclConfig> const& aclConfig, Vor::Ptr<NatAclStatus const> const& aclStatus);

   Vor::Ptr<NatAclConfig> const& aclConfig() const { return aclConfig_; }
   Vor::Ptr<NatAclStatus const> const& aclStatus() const { return aclStatus_; }
   std::map<NatAclId, Vor::Ptr<NatAclReferenceSet>> const& aclReferenceSet() const { return aclReferenceSet_; }
   // Null when `id` has no reference.
   Vor::Ptr<NatAclReferenceSet> aclReferenceSet(NatAclId id) const;
   bool aclReferenceSetHas(NatAclId id) const { return aclReferenceSet_.count(id) != 0; }
   Vor::Ptr<NatAclReferenceSet> aclReferenceSetIs(NatAclId id);
   void aclReferenceSetDel(NatAclId id);
   void aclReferenceSetDelAll();

   // Records that `hwKey` uses its ACL on `vlanId`; the first reference of
   // an ACL publishes it in aclConfig. Idempotent for a pair already held.
   // REQUIRES: hwKey.aclId() is not 0 ("aclId").
   void addAclReference(NatHwKey const& hwKey, U16 vlanId);
   // Drops the pair; the last reference of an ACL withdraws it.
   // REQUIRES: the pair is held ("aclId", "aclReferenceSetHas( aclId )",
   // "referenceSet->referenceHas( referenceKey )").
   void delAclReference(NatHwKey const& hwKey, U16 vlanId);

 private:
   Vor::Ptr<NatAclConfig> aclConfig_;
   Vor::Ptr<NatAclStatus const> aclStatus_;
   std::map<NatAclId, Vor::Ptr<NatAclReferenceSet>> aclReferenceSet_;
};

// Factories; each returns its entity with notification active.
Vor::Ptr<NatAclConfig> natAclConfigFactory();
Vor::Ptr<NatAclStatus> natAclStatusFactory();
Vor::Ptr<NatAclHelper> natAclHelperFactory(Vor::Ptr<NatAclConfig> const& aclConfig,
                                           Vor::Ptr<NatAclStatus const> const& aclStatus);

} // namespace Ulo
