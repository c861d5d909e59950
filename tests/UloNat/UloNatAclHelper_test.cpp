// Shared ACLs: published with their first (key, VLAN) reference, withdrawn
// with their last.

#include <gtest/gtest.h>

#include "UloNat/UloNatAclHelper.h"

namespace {

using namespace Ulo;

NatHwKey aclKey(U32 aclId, U32 local, U32 filterAddrId = 0) {
   NatHwKey key(NatHwKey::staticSnat, Lumet::IpAndPort(Lumet::IpAddr(local), 0),
                Lumet::IpAndPort(Lumet::IpAddr(0xc6336401u), 0), Lumet::IpAndPort(), Lumet::IpAndPort(),
                NatAclId(aclId));
   key.filterAddrIdIs(filterAddrId);
   return key;
}

struct AclHelperTest : ::testing::Test {
   Vor::Ptr<NatAclConfig> config = natAclConfigFactory();
   Vor::Ptr<NatAclStatus> status = natAclStatusFactory();
   Vor::Ptr<NatAclHelper> helper = natAclHelperFactory(config, status);
};

TEST_F(AclHelperTest, AnAclLivesFromItsFirstToItsLastReference) {
   // Two VLANs on one key, and a second key (and a sibling entry of the
   // first) on the same ACL: four references, one published ACL.
   helper->addAclReference(aclKey(7, 0x0a000001), 10);
   helper->addAclReference(aclKey(7, 0x0a000001), 20);
   helper->addAclReference(aclKey(7, 0x0a000002), 10);
   helper->addAclReference(aclKey(7, 0x0a000001, 1), 10);
   helper->addAclReference(aclKey(7, 0x0a000001), 10);   // again: idempotent
   helper->addAclReference(aclKey(9, 0x0a000003), 10);
   EXPECT_EQ(config->acl(), (std::set<NatAclId>{NatAclId(7), NatAclId(9)}));
   ASSERT_TRUE(helper->aclReferenceSetHas(NatAclId(7)));
   EXPECT_EQ(helper->aclReferenceSet(NatAclId(7))->references(), 4u);

   helper->delAclReference(aclKey(7, 0x0a000001), 10);
   helper->delAclReference(aclKey(7, 0x0a000001, 1), 10);
   helper->delAclReference(aclKey(7, 0x0a000002), 10);
   EXPECT_TRUE(config->aclHas(NatAclId(7))) << "one reference is left";
   helper->delAclReference(aclKey(7, 0x0a000001), 20);
   EXPECT_FALSE(config->aclHas(NatAclId(7)));
   EXPECT_FALSE(helper->aclReferenceSetHas(NatAclId(7)));
   EXPECT_TRUE(config->aclHas(NatAclId(9)));
}

TEST_F(AclHelperTest, ReferenceKeyTellsSiblingsAndVlansApart) {
   NatAclReferenceKey const a(aclKey(7, 1, 0), 10);
   NatAclReferenceKey const b(aclKey(7, 1, 1), 10);
   NatAclReferenceKey const c(aclKey(7, 1, 0), 11);
   EXPECT_TRUE(a < b || b < a);
   EXPECT_TRUE(a < c);
   EXPECT_NE(a.hash(0), c.hash(0));
   EXPECT_EQ(a.genericText().rfind("Value('Ulo::NatAclReferenceKey', ** {'hwKey': ", 0), 0u);
}

using AclHelperDeathTest = AclHelperTest;

TEST_F(AclHelperDeathTest, BrokenReferencesEndTheProcess) {
   EXPECT_DEATH(helper->addAclReference(aclKey(0, 1), 10), "aclId");
   EXPECT_DEATH(helper->delAclReference(aclKey(7, 1), 10), "aclReferenceSetHas\\( aclId \\)");
   helper->addAclReference(aclKey(7, 1), 10);
   EXPECT_DEATH(helper->delAclReference(aclKey(7, 1), 20), "referenceSet->referenceHas\\( referenceKey \\)");
}

} // namespace
