// The watched-address index with the two-address dependencies of twice
// connections: references, route requests and both maps stay equal to what
// the watching keys need, whatever the order of watches and unwatches.

#include "UloNat/UloNatWatchedAddrIndex.h"

#include <gtest/gtest.h>

namespace {

using Lumet::IpAddr;
using Ulo::TwiceNatKey;
using Ulo::TwiceNatWatchedAddr;

Lumet::IntfId const eth1("Ethernet1");
Ulo::VrfId const vrf = 7;
IpAddr const a(10, 0, 0, 1);
IpAddr const b(10, 0, 0, 2);
IpAddr const c(10, 0, 0, 3);

TwiceNatKey key(Vor::U16 group) {
   return TwiceNatKey(group, Lumet::ConnTuple(Lumet::IpAndPort(a, 1), Lumet::IpAndPort(b, 2), 6));
}

class WatchedAddrIndexTest : public ::testing::Test {
 protected:
   WatchedAddrIndexTest() {
      natSmStatus_ = Ulo::natSmStatusFactory(nhMapConfig_, Vor::Ptr<Ulo::NextHopMapStatus>(
                                                              new Ulo::NextHopMapStatus()));
      natSmStatus_->destinationNatNextHopNeededIs(true);
      vrfStatus_ = natSmStatus_->natSmStatusVrfIs(vrf);
      references_.bind(natSmStatus_, vrfStatus_, eth1, vrf);
   }
   // The count of addr in every record that counts it; all must agree.
   Vor::U32 count(IpAddr const& addr) const {
      auto const info = vrfStatus_->ipAddrIntfInfo(addr);
      Vor::U32 const intfCount = info ? info->intf(eth1) : 0;
      EXPECT_EQ(vrfStatus_->routeResolverRefCount(addr), intfCount) << addr.stringValue();
      EXPECT_EQ(nhMapConfig_->routeResolverRequestHas(Ulo::VrfAndIpAddr(vrf, addr)), intfCount != 0)
         << addr.stringValue();
      EXPECT_EQ(static_cast<bool>(index_.watchedAddrKey(addr)), intfCount != 0) << addr.stringValue();
      return intfCount;
   }

   Vor::Ptr<Ulo::NextHopMapConfig> nhMapConfig_{new Ulo::NextHopMapConfig()};
   Vor::Ptr<Ulo::NatSmStatus> natSmStatus_;
   Vor::Ptr<Ulo::NatSmStatusVrf> vrfStatus_;
   Ulo::WatchedAddrReferences references_;
   Ulo::WatchedAddrIndex<TwiceNatKey, TwiceNatWatchedAddr> index_{references_};
};

TEST_F(WatchedAddrIndexTest, EachKeyHoldsOneReferencePerAddressItWatchesNow) {
   EXPECT_TRUE(index_.watch(key(1), {a, b}));
   EXPECT_FALSE(index_.watch(key(1), {a, b}));   // delivered again
   EXPECT_EQ(count(a), 1u);
   EXPECT_EQ(count(b), 1u);

   // Another key on a shared address; then the first key moves one address.
   index_.watch(key(2), {b, c});
   EXPECT_EQ(count(b), 2u);
   EXPECT_TRUE(index_.watch(key(1), {c, b}));
   EXPECT_EQ(count(a), 0u);
   EXPECT_EQ(count(b), 2u);
   EXPECT_EQ(count(c), 2u);
   EXPECT_EQ(index_.keysWatching(c), (std::vector<TwiceNatKey>{key(1), key(2)}));

   // One address named twice is counted twice, and given back twice.
   index_.watch(key(2), {c, c});
   EXPECT_EQ(count(b), 1u);
   EXPECT_EQ(count(c), 3u);
   EXPECT_EQ(index_.watchedAddrKey(c)->mappedAddr().size(), 2u);

   EXPECT_TRUE(index_.unwatch(key(2)));
   EXPECT_FALSE(index_.unwatch(key(2)));
   EXPECT_EQ(count(c), 1u);
   index_.unwatch(key(1));
   EXPECT_EQ(count(b), 0u);
   EXPECT_EQ(count(c), 0u);
   EXPECT_TRUE(index_.empty());
   EXPECT_TRUE(index_.watchedAddrKey().empty());
   EXPECT_EQ(vrfStatus_->ipAddrIntfInfos(), 0u);
   EXPECT_TRUE(vrfStatus_->routeResolverRefCount().empty());
   EXPECT_TRUE(nhMapConfig_->routeResolverRequest().empty());
}

TEST_F(WatchedAddrIndexTest, TheMapStepsAloneTakeNoReference) {
   index_.keyWatchedAddrIs(key(1), {a, b});
   ASSERT_TRUE(index_.keyWatchedAddr(key(1)));
   EXPECT_EQ(*index_.keyWatchedAddr(key(1)), (TwiceNatWatchedAddr{a, b}));
   EXPECT_EQ(vrfStatus_->ipAddrIntfInfos(), 0u);
   EXPECT_TRUE(nhMapConfig_->routeResolverRequest().empty());
   index_.keyWatchedAddrDel(key(1), {a, b});
   EXPECT_TRUE(index_.empty());
   EXPECT_TRUE(index_.watchedAddrKey().empty());
}

} // namespace
