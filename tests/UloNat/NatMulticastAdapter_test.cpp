// The multicast adapter: the cache's entry rules, the order of what a route
// answer does (cache first, engine after), the (S, G) and (S, 0) context
// keys, answers that stand before the adapter exists, and the key types.

#include <gtest/gtest.h>

#include "UloNat/UloNatMulticastAdapter.h"
#include "sim/SimSystem.h"

namespace {

using Ulo::NatMcastCtxKey;
using Ulo::NatMrouteKey;
using Ulo::NatMrouteKeyType;
using Ulo::NatMrouteOifSet;

Lumet::IpAddr ip(char const* text) { return *Lumet::IpAddr::parse(text); }

NatMcastCtxKey routeKey(Vor::U16 vlan, char const* source, char const* group) {
   return NatMcastCtxKey(NatMrouteKeyType::mrouteKeyTypeRoute, vlan, ip(source), ip(group));
}
NatMcastCtxKey groupKey(Vor::U16 vlan, char const* group) {
   return NatMcastCtxKey(NatMrouteKeyType::mrouteKeyTypeGroup, vlan, Lumet::IpAddr(), ip(group));
}

NatMrouteOifSet oifs(std::initializer_list<char const*> names) {
   NatMrouteOifSet set;
   for (auto n : names) set.oifIs(Lumet::IntfId(n));
   return set;
}

Lumet::IntfId const eth1("Ethernet1");

TEST(NatMcastCtxKey, TextFormsReadBackAndOrderIsLexical) {
   NatMcastCtxKey const key = routeKey(10, "10.0.0.1", "239.1.1.1");
   EXPECT_EQ(key.stringValue(), "NatMcastCtxKey {type=0 vlanId=10, sourceIp=10.0.0.1, groupIp=239.1.1.1}");
   EXPECT_EQ(key.valueToStrep(),
             "Value('Ulo::NatMcastCtxKey', ** {'keyType': 0, 'vlanId': 10, 'sourceIp': 10.0.0.1, "
             "'groupIp': 239.1.1.1})");
   for (auto const& k : {key, groupKey(4094, "239.255.0.1"), NatMcastCtxKey()}) {
      auto back = NatMcastCtxKey::fromStrep(k.valueToStrep());
      ASSERT_TRUE(back) << k.valueToStrep();
      EXPECT_EQ(*back, k);
      EXPECT_EQ(back->hash(7), k.hash(7));
   }
   EXPECT_FALSE(NatMcastCtxKey::fromStrep("Value('Ulo::NatMcastCtxKey', ** {'keyType': 2, 'vlanId': 1, "
                                          "'sourceIp': 1.1.1.1, 'groupIp': 0.0.0.0})"));
   EXPECT_FALSE(NatMcastCtxKey::fromStrep(key.valueToStrep() + " "));
   EXPECT_FALSE(NatMcastCtxKey::fromStrep("Value('Ulo::NatMcastCtxKey', ** {'keyType': 0, 'vlanId': 70000, "
                                          "'sourceIp': 1.1.1.1, 'groupIp': 0.0.0.0})"));
   // keyType first, then vlan, source, group.
   EXPECT_LT(routeKey(4000, "10.0.0.9", "239.9.9.9"), groupKey(1, "239.0.0.1"));
   EXPECT_LT(routeKey(1, "10.0.0.9", "239.9.9.9"), routeKey(2, "10.0.0.1", "239.0.0.1"));
   EXPECT_LT(routeKey(1, "10.0.0.1", "239.9.9.9"), routeKey(1, "10.0.0.2", "239.0.0.1"));
   EXPECT_NE(routeKey(1, "10.0.0.1", "0.0.0.0").hash(0), routeKey(1, "0.0.0.0", "10.0.0.1").hash(0));

   NatMrouteKey const mroute{NatMrouteKeyType::mrouteKeyTypeRoute, eth1, 10, ip("10.0.0.1"), ip("239.1.1.1")};
   EXPECT_EQ(mroute.stringValue(), "NatMrouteKey (I=Ethernet1, V=10, S=10.0.0.1, G=239.1.1.1), type=0");
}

TEST(NatMcastInfoCache, EntriesGoOnlyByTheirKindsRule) {
   auto cache = Ulo::natMcastInfoCacheFactory();
   NatMcastCtxKey const route = routeKey(10, "10.0.0.1", "239.1.1.1");
   NatMcastCtxKey const group = groupKey(10, "239.1.1.1");

   // get() of an absent key hands out the shared record and creates nothing.
   EXPECT_EQ(cache->get(route), Ulo::defaultMulticastData());
   EXPECT_EQ(cache->caches(), 0u);
   cache->unsetOifSet(route);
   cache->multicastDisable(route);
   cache->unsetGroup(route);
   EXPECT_EQ(cache->caches(), 0u);

   // A route entry in force survives losing its interfaces, and goes at the
   // following disable.
   cache->setOifSet(route, oifs({"Ethernet2"}));
   cache->multicastEnable(route);
   cache->unsetOifSet(route);
   ASSERT_TRUE(cache->cache(route));
   EXPECT_TRUE(cache->cache(route)->multicast());
   EXPECT_EQ(cache->cache(route)->oifSet().oifs(), 0u);
   cache->multicastDisable(route);
   EXPECT_FALSE(cache->cache(route));

   // A route entry's group id does not keep it; its interfaces do.
   cache->setGroup(route, 7);
   cache->setOifSet(route, oifs({"Ethernet2"}));
   cache->unsetGroup(route);
   ASSERT_TRUE(cache->cache(route));
   cache->unsetOifSet(route);
   EXPECT_FALSE(cache->cache(route));

   // A group entry with group id 0 goes at a disable whatever its interfaces.
   cache->setOifSet(group, oifs({"Ethernet2", "Ethernet3"}));
   cache->multicastEnable(group);
   cache->multicastDisable(group);
   EXPECT_FALSE(cache->cache(group));
   // ... and stays while it has a group id.
   cache->setGroup(group, 9);
   cache->multicastEnable(group);
   cache->multicastDisable(group);
   ASSERT_TRUE(cache->cache(group));
   // No set removes: a group id of 0 set directly leaves the entry.
   cache->setGroup(group, 0);
   EXPECT_TRUE(cache->cache(group));

   // A null record removes the key.
   cache->cacheIs(group, nullptr);
   EXPECT_FALSE(cache->cache(group));
}

// A started system with Ethernet1 on VLAN 10 and a multicast adapter.
class NatMulticastAdapterTest : public ::testing::Test {
 protected:
   void SetUp() override {
      Sim::SimOptions options;
      options.multicast = true;
      sys_ = std::make_unique<Sim::SimSystem>(options);
      sys().vrfIs("default", 0);
      sys().intfIs(eth1, "default", "Ethernet1", {{eth1, 10}});
      sys().start();
   }
   Sim::SimSystem& sys() { return *sys_; }
   Ulo::NatMulticastAdapter& adapter() { return *sys().multicastAdapter(); }
   Ulo::NatMcastInfoCache& cache() { return *adapter().mcastInfoCacheWrap(); }
   std::unique_ptr<Sim::SimSystem> sys_;
};

TEST_F(NatMulticastAdapterTest, RouteAnswerFeedsBothContextKeysAndItsRemovalEmptiesBoth) {
   NatMrouteKey const sg{NatMrouteKeyType::mrouteKeyTypeRoute, eth1, 10, ip("10.0.0.1"), ip("239.1.1.1")};
   sys().mrouteResponseMap()->mrouteRespIs(sg, oifs({"Ethernet2", "Ethernet3"}));
   ASSERT_TRUE(cache().cache(routeKey(10, "10.0.0.1", "239.1.1.1")));
   ASSERT_TRUE(cache().cache(routeKey(10, "10.0.0.1", "0.0.0.0")));
   EXPECT_EQ(cache().cache(routeKey(10, "10.0.0.1", "0.0.0.0"))->oifSet(), oifs({"Ethernet2", "Ethernet3"}));
   EXPECT_EQ(cache().caches(), 2u);

   // A change replaces the set under both keys.
   sys().mrouteResponseMap()->mrouteRespIs(sg, oifs({"Ethernet3"}));
   EXPECT_EQ(cache().cache(routeKey(10, "10.0.0.1", "239.1.1.1"))->oifSet(), oifs({"Ethernet3"}));
   EXPECT_EQ(cache().cache(routeKey(10, "10.0.0.1", "0.0.0.0"))->oifSet(), oifs({"Ethernet3"}));

   // The (S, 0) entry in force stays with an empty set; the other goes.
   cache().multicastEnable(routeKey(10, "10.0.0.1", "0.0.0.0"));
   sys().mrouteResponseMap()->mrouteRespDel(sg);
   EXPECT_FALSE(cache().cache(routeKey(10, "10.0.0.1", "239.1.1.1")));
   ASSERT_TRUE(cache().cache(routeKey(10, "10.0.0.1", "0.0.0.0")));
   EXPECT_EQ(cache().cache(routeKey(10, "10.0.0.1", "0.0.0.0"))->oifSet().oifs(), 0u);

   // (0, G) and (S, 0) answers feed one key each; an empty set is an answer.
   NatMrouteKey const g{NatMrouteKeyType::mrouteKeyTypeRoute, eth1, 10, Lumet::IpAddr(), ip("239.2.2.2")};
   NatMrouteKey const s{NatMrouteKeyType::mrouteKeyTypeRoute, eth1, 10, ip("10.0.0.5"), Lumet::IpAddr()};
   sys().mrouteResponseMap()->mrouteRespIs(g, oifs({"Ethernet2"}));
   sys().mrouteResponseMap()->mrouteRespIs(s, NatMrouteOifSet());
   EXPECT_TRUE(cache().cache(routeKey(10, "0.0.0.0", "239.2.2.2")));
   EXPECT_TRUE(cache().cache(routeKey(10, "10.0.0.5", "0.0.0.0")));
   EXPECT_EQ(cache().caches(), 3u);
}

TEST_F(NatMulticastAdapterTest, AnswerForAnInterfaceWithoutEngineChangesNothing) {
   NatMrouteKey const other{NatMrouteKeyType::mrouteKeyTypeRoute, Lumet::IntfId("Ethernet9"), 10,
                            Lumet::IpAddr(), ip("239.1.1.1")};
   sys().mrouteResponseMap()->mrouteRespIs(other, oifs({"Ethernet2"}));
   EXPECT_EQ(cache().caches(), 0u);
   // Nor is it taken up later when the response is walked again: it is
   // handled, and dropped, each time.
   adapter().handleMrouteResp();
   EXPECT_EQ(cache().caches(), 0u);
}

TEST_F(NatMulticastAdapterTest, GetMcastInfoAnswersDefaultFirstAndLeavesAnEntryForAGroup) {
   // Zero group: nothing is created.
   EXPECT_EQ(adapter().getMcastInfo(10, ip("10.0.0.1"), Lumet::IpAddr()), Ulo::defaultMulticastData());
   EXPECT_EQ(cache().caches(), 0u);

   cache().setGroup(groupKey(10, "239.1.1.1"), 42);
   auto const first = adapter().getMcastInfo(10, ip("10.0.0.1"), ip("239.1.1.1"));
   EXPECT_EQ(first, Ulo::defaultMulticastData());
   auto const second = adapter().getMcastInfo(10, ip("10.0.0.1"), ip("239.1.1.1"));
   EXPECT_NE(second, Ulo::defaultMulticastData());
   EXPECT_EQ(second->groupId(), 42u);
   EXPECT_EQ(second, cache().cache(routeKey(10, "10.0.0.1", "239.1.1.1")));

   // Enable marks route and group; the first disable clears both.
   adapter().enableMulticast(10, ip("10.0.0.1"), ip("239.1.1.1"));
   EXPECT_TRUE(cache().cache(groupKey(10, "239.1.1.1"))->multicast());
   adapter().disableMulticast(10, ip("10.0.0.1"), ip("239.1.1.1"));
   EXPECT_FALSE(cache().cache(groupKey(10, "239.1.1.1"))->multicast());
   // The route entry, without interfaces and out of force, is gone.
   EXPECT_FALSE(cache().cache(routeKey(10, "10.0.0.1", "239.1.1.1")));
}

TEST_F(NatMulticastAdapterTest, WatchAndUnwatchKeepTheRequestSet) {
   NatMrouteKey const key{NatMrouteKeyType::mrouteKeyTypeRoute, eth1, 10, Lumet::IpAddr(), ip("239.1.1.1")};
   NatMrouteKey const other{NatMrouteKeyType::mrouteKeyTypeRoute, eth1, 11, Lumet::IpAddr(), ip("239.1.1.1")};
   adapter().watchRoute(key);
   adapter().watchRoute(key);
   EXPECT_EQ(sys().mrouteRequestSet()->mrouteReqs(), 1u);
   adapter().unWatchRoute(other);
   EXPECT_EQ(sys().mrouteRequestSet()->mrouteReqs(), 1u);
   adapter().unWatchRoute(key);
   EXPECT_EQ(sys().mrouteRequestSet()->mrouteReqs(), 0u);
}

TEST_F(NatMulticastAdapterTest, AnswersStandingBeforeTheAdapterIsBuiltAreHandledByItsConstructor) {
   // A second adapter over a map that already holds answers: its cache is
   // filled by construction alone.
   auto responses = Vor::Ptr<Ulo::NatMrouteResponseMap>(new Ulo::NatMrouteResponseMap());
   NatMrouteKey const key{NatMrouteKeyType::mrouteKeyTypeRoute, eth1, 10, Lumet::IpAddr(), ip("239.3.3.3")};
   responses->mrouteRespIs(key, oifs({"Ethernet4"}));
   auto late = Ulo::natMulticastAdapterFactory(Vor::Ptr<Ulo::NatMrouteRequestSet>(new Ulo::NatMrouteRequestSet()),
                                               responses, Vor::Ptr<Ulo::NatMgroupRequestSet>(),
                                               Vor::Ptr<Ulo::NatMgroupResponseMap const>(), sys().root().ptr());
   ASSERT_TRUE(late->mcastInfoCache());
   EXPECT_EQ(late->mcastInfoCache()->cache(routeKey(10, "0.0.0.0", "239.3.3.3"))->oifSet(), oifs({"Ethernet4"}));
   // The reactor follows later answers, and the null-response-map adapter
   // is allowed and inert.
   responses->mrouteRespDel(key);
   EXPECT_FALSE(late->mcastInfoCache()->cache(routeKey(10, "0.0.0.0", "239.3.3.3")));
   auto inert = Ulo::natMulticastAdapterFactory(nullptr, nullptr, nullptr, nullptr, nullptr);
   EXPECT_FALSE(inert->mcastInfoCache());
}

TEST(NatMulticastAdapterDeathTest, AnswerWithoutRootIsABrokenInvariant) {
   auto responses = Vor::Ptr<Ulo::NatMrouteResponseMap>(new Ulo::NatMrouteResponseMap());
   auto adapter = Ulo::natMulticastAdapterFactory(nullptr, responses, nullptr, nullptr, nullptr);
   NatMrouteKey const key{NatMrouteKeyType::mrouteKeyTypeRoute, eth1, 10, Lumet::IpAddr(), ip("239.3.3.3")};
   EXPECT_DEATH(responses->mrouteRespIs(key, oifs({"Ethernet4"})),
                "!!natSm && \"Zero ptr is passed to NatMulticastAdapter\"");
}

} // namespace
