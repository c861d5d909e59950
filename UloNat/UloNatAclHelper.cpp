#include "UloNat/UloNatAclHelper.h"

#include "framework/UloAssert.h"
#include "framework/VorHash.h"
#include "framework/VorTrace.h"

namespace Ulo {

VOR_TRACE_HANDLE("UloNatAclHelper");

bool operator<(NatAclReferenceKey const& a, NatAclReferenceKey const& b) {
   // NatHwKey's own order leaves filterAddrId out; two sibling entries of one
   // connection are two references, so it is compared here last.
   if (a.hwKey_ < b.hwKey_) return true;
   if (b.hwKey_ < a.hwKey_) return false;
   if (a.hwKey_.filterAddrId() != b.hwKey_.filterAddrId()) {
      return a.hwKey_.filterAddrId() < b.hwKey_.filterAddrId();
   }
   return a.vlanId_ < b.vlanId_;
}

U32 NatAclReferenceKey::hash(U32 seed) const { return Vor::hashMix(hwKey_.hash(seed), vlanId_); }

std::string NatAclReferenceKey::genericText() const {
   return "Value('Ulo::NatAclReferenceKey', ** {'hwKey': " + hwKey_.stringValue() +
          ", 'vlanId': " + std::to_string(vlanId_) + "})";
}

void NatAclReferenceSet::referenceIs(NatAclReferenceKey const& key) {
   if (reference_.insert(key).second) memberChanged(referenceId, key);
}

void NatAclReferenceSet::referenceDel(NatAclReferenceKey const& key) {
   if (reference_.erase(key)) memberChanged(referenceId, key);
}

void NatAclReferenceSet::referenceDelAll() {
   while (!reference_.empty()) referenceDel(NatAclReferenceKey(*reference_.begin()));
}

void NatAclConfig::aclIs(NatAclId id) {
   if (acl_.insert(id).second) memberChanged(aclId, id);
}

void NatAclConfig::aclDel(NatAclId id) {
   if (acl_.erase(id)) memberChanged(aclId, id);
}

void NatAclConfig::aclDelAll() {
   while (!acl_.empty()) aclDel(*acl_.begin());
}

NatAclStatus::State NatAclStatus::acl(NatAclId id) const {
   auto it = acl_.find(id);
   return it == acl_.end() ? unknown : it->second;
}

void NatAclStatus::aclIs(NatAclId id, State state) {
   auto [it, inserted] = acl_.try_emplace(id, state);
   if (!inserted) {
      if (it->second == state) return;
      it->second = state;
   }
   memberChanged(aclId, id);
}

void NatAclStatus::aclDel(NatAclId id) {
   if (acl_.erase(id)) memberChanged(aclId, id);
}

void NatAclStatus::aclDelAll() {
   while (!acl_.empty()) aclDel(acl_.begin()->first);
}

NatAclHelper::NatAclHelper(Vor::Ptr<NatAclConfig> const& aclConfig, Vor::Ptr<NatAclStatus const> const& aclStatus)
    : Vor::Entity("natAclHelper"), aclConfig_(aclConfig), aclStatus_(aclStatus) {}

Vor::Ptr<NatAclReferenceSet> NatAclHelper::aclReferenceSet(NatAclId id) const {
   auto it = aclReferenceSet_.find(id);
   return it == aclReferenceSet_.end() ? Vor::Ptr<NatAclReferenceSet>() : it->second;
}

Vor::Ptr<NatAclReferenceSet> NatAclHelper::aclReferenceSetIs(NatAclId id) {
   auto it = aclReferenceSet_.find(id);
   if (it != aclReferenceSet_.end()) return it->second;
   Vor::Ptr<NatAclReferenceSet> set(new NatAclReferenceSet(id));
   set->hasNotificationActiveIs(true);
   aclReferenceSet_.emplace(id, set);
   memberChanged(aclReferenceSetId, id);
   return set;
}

void NatAclHelper::aclReferenceSetDel(NatAclId id) {
   if (aclReferenceSet_.erase(id)) memberChanged(aclReferenceSetId, id);
}

void NatAclHelper::aclReferenceSetDelAll() {
   while (!aclReferenceSet_.empty()) aclReferenceSetDel(aclReferenceSet_.begin()->first);
}

namespace {

// " old sip: ... new dip: ... faId: ... reverse: ...", each part when set.
std::string referenceText(NatHwKey const& hwKey, U16 vlanId) {
   std::string text = " hwKey: ";
   auto addr = [&](char const* word, Lumet::IpAndPort const& ap) {
      if (ap == Lumet::IpAndPort()) return;
      text += word;
      text += ap.stringValue();
   };
   addr(" old sip: ", hwKey.srcIpAndPortOld());
   addr(" new sip: ", hwKey.srcIpAndPortNew());
   addr(" old dip: ", hwKey.dstIpAndPortOld());
   addr(" new dip: ", hwKey.dstIpAndPortNew());
   if (hwKey.filterAddrId()) text += " faId: " + std::to_string(hwKey.filterAddrId());
   if (hwKey.reverse()) text += " reverse: 1";
   text += " vlanId: " + std::to_string(vlanId);
   return text;
}

} // namespace

void NatAclHelper::addAclReference(NatHwKey const& hwKey, U16 vlanId) {
   VOR_TRACE(7, "NatAclHelper::" << "addAclReference" << referenceText(hwKey, vlanId));
   NatAclId const aclId = hwKey.aclId();
   uloAssert(aclId);
   bool const isFirst = !aclReferenceSetHas(aclId);
   Vor::Ptr<NatAclReferenceSet> const referenceSet = aclReferenceSetIs(aclId);
   referenceSet->referenceIs(NatAclReferenceKey(hwKey, vlanId));
   if (isFirst) {
      VOR_TRACE(7, " first reference to aclId: " << aclId.value());
      aclConfig_->aclIs(aclId);
   }
}

void NatAclHelper::delAclReference(NatHwKey const& hwKey, U16 vlanId) {
   VOR_TRACE(7, "NatAclHelper::" << "delAclReference" << referenceText(hwKey, vlanId));
   NatAclId const aclId = hwKey.aclId();
   uloAssert(aclId);
   uloAssert(aclReferenceSetHas( aclId ));
   Vor::Ptr<NatAclReferenceSet> const referenceSet = aclReferenceSet(aclId);
   NatAclReferenceKey const referenceKey(hwKey, vlanId);
   uloAssert(referenceSet->referenceHas( referenceKey ));
   referenceSet->referenceDel(referenceKey);
   if (referenceSet->references() == 0) {
      VOR_TRACE(7, " last reference to aclId: " << aclId.value());
      aclConfig_->aclDel(aclId);
      aclReferenceSetDel(aclId);
   }
}

Vor::Ptr<NatAclConfig> natAclConfigFactory() {
   Vor::Ptr<NatAclConfig> config(new NatAclConfig());
   config->hasNotificationActiveIs(true);
   return config;
}

Vor::Ptr<NatAclStatus> natAclStatusFactory() {
   Vor::Ptr<NatAclStatus> status(new NatAclStatus());
   status->hasNotificationActiveIs(true);
   return status;
}

Vor::Ptr<NatAclHelper> natAclHelperFactory(Vor::Ptr<NatAclConfig> const& aclConfig,
                                           Vor::Ptr<NatAclStatus const> const& aclStatus) {
   Vor::Ptr<NatAclHelper> helper(new NatAclHelper(aclConfig, aclStatus));
   helper->hasNotificationActiveIs(true);
   return helper;
}

} // namespace Ulo
