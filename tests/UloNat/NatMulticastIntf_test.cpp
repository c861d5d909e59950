// The multicast side of the interface engine: which rule a route change
// reaches (the key search order across the twice and static tables), what
// record goes to the helper (all interfaces for a destination rule, only the
// engine's own for a rule with a source), deferred records, and running
// without an adapter.

#include <gtest/gtest.h>

#include "sim/SimSystem.h"

namespace {

using Ulo::NatMrouteKey;
using Ulo::NatMrouteKeyType;
using Ulo::NatMrouteOifSet;
using Ulo::NatMulticastTransitionKind;

Lumet::IpAndPort ipp(char const* text) { return *Sim::parseIpAndPort(text); }
Lumet::IpAddr ip(char const* text) { return *Lumet::IpAddr::parse(text); }

Lumet::IntfId const eth1("Ethernet1");

NatMrouteOifSet oifs(std::initializer_list<char const*> names) {
   NatMrouteOifSet set;
   for (auto n : names) set.oifIs(Lumet::IntfId(n));
   return set;
}

NatMrouteKey route(char const* source, char const* group) {
   return NatMrouteKey{NatMrouteKeyType::mrouteKeyTypeRoute, eth1, 10, ip(source), ip(group)};
}

Ip::Nat::NatStaticConnection staticRule(char const* local, char const* global, Ip::Nat::NatTarget target) {
   return Ip::Nat::NatStaticConnection(Ip::Nat::StaticKey(ipp(local)), ipp(global), target, 0, 10, true);
}

class NatMulticastIntfTest : public ::testing::Test {
 protected:
   void start(bool multicast = true, bool immediate = true) {
      Sim::SimOptions options;
      options.multicast = multicast;
      options.immediate = immediate;
      sys_ = std::make_unique<Sim::SimSystem>(options);
      sys().vrfIs("default", 0);
      sys().intfIs(eth1, "default", "Ethernet1", {{eth1, 10}});
      sys().start();
   }
   Sim::SimSystem& sys() { return *sys_; }
   Vor::Ptr<Ulo::NatIntfStatusSm> engine() { return sys().root()->natIntfStatusSm(eth1); }
   // The destination entries of a static rule on the chip.
   std::vector<Sim::ChipEntry> dstEntries(char const* local) {
      std::vector<Sim::ChipEntry> out;
      for (auto const& [key, entry] : sys().helper()->entries()) {
         if (key.kind == Sim::ChipEntryKey::Kind::staticDst && key.staticKey == Ip::Nat::StaticKey(ipp(local))) {
            out.push_back(entry);
         }
      }
      return out;
   }
   std::unique_ptr<Sim::SimSystem> sys_;
};

TEST_F(NatMulticastIntfTest, WithoutAdapterAMulticastRuleProgramsAsUnicast) {
   start(false);
   sys().staticIs(eth1, staticRule("239.1.1.1", "239.2.2.2", Ip::Nat::destination));
   auto const entries = dstEntries("239.1.1.1");
   ASSERT_FALSE(entries.empty());
   for (auto const& e : entries) {
      EXPECT_FALSE(e.multicast);
      EXPECT_EQ(e.oifSet.oifs(), 0u);
   }
   auto const t = engine()->getMulticastTransition(10, Lumet::IpAddr(), ip("239.1.1.1"));
   EXPECT_EQ(t, Ulo::defaultMulticastTransition());
   EXPECT_TRUE(engine()->mrouteStaticKey().empty());
}

TEST_F(NatMulticastIntfTest, DestinationRuleGetsEveryInterfaceOfItsRouteAndKeepsMulticastWhenTheRouteGoes) {
   start();
   sys().staticIs(eth1, staticRule("239.1.1.1", "239.2.2.2", Ip::Nat::destination));
   ASSERT_EQ(engine()->mrouteStaticKey().size(), 1u);
   EXPECT_TRUE(sys().mrouteRequestSet()->mrouteReqHas(route("0.0.0.0", "239.1.1.1")));

   sys().mrouteResponseMap()->mrouteRespIs(route("0.0.0.0", "239.1.1.1"),
                                           oifs({"Ethernet2", "Ethernet3", "Ethernet4"}));
   for (auto const& e : dstEntries("239.1.1.1")) {
      EXPECT_TRUE(e.multicast);
      EXPECT_EQ(e.oifSet, oifs({"Ethernet2", "Ethernet3", "Ethernet4"}));
   }
   // A rule in force evaluated again reports an enable again.
   for (int i = 0; i < 2; ++i) {
      auto const t = engine()->getMulticastTransition(10, Lumet::IpAddr(), ip("239.1.1.1"));
      EXPECT_EQ(t->kind(), NatMulticastTransitionKind::mcastTransitionEnable);
      EXPECT_TRUE(t->mcastToProg()->multicast());
   }
   // The route goes: the helper gets an empty set, still marked multicast.
   sys().mrouteResponseMap()->mrouteRespDel(route("0.0.0.0", "239.1.1.1"));
   for (auto const& e : dstEntries("239.1.1.1")) {
      EXPECT_TRUE(e.multicast);
      EXPECT_EQ(e.oifSet.oifs(), 0u);
   }
   // Deleting the rule withdraws the request and clears the mark.
   sys().staticDel(eth1, Ip::Nat::StaticKey(ipp("239.1.1.1")));
   EXPECT_EQ(sys().mrouteRequestSet()->mrouteReqs(), 0u);
   EXPECT_TRUE(engine()->mrouteStaticKey().empty());
   EXPECT_EQ(sys().multicastAdapter()->mcastInfoCacheWrap()->caches(), 0u);
}

TEST_F(NatMulticastIntfTest, SourceRuleFollowsRoutesOfItsSourceAndProgramsOnlyItsOwnInterface) {
   start();
   sys().staticIs(eth1, staticRule("10.0.0.1", "192.0.2.1", Ip::Nat::source_));
   EXPECT_TRUE(sys().mrouteRequestSet()->mrouteReqHas(route("10.0.0.1", "0.0.0.0")));
   auto const updates = sys().helper()->counts().updates;

   // A route (S, G) that does not leave through Ethernet1: found through the
   // (S, 0) key, reprogrammed, but nothing comes into force.
   sys().mrouteResponseMap()->mrouteRespIs(route("10.0.0.1", "239.1.1.1"), oifs({"Ethernet2"}));
   EXPECT_GT(sys().helper()->counts().updates, updates);
   auto const t = engine()->getMulticastTransition(10, ip("10.0.0.1"), Lumet::IpAddr());
   EXPECT_EQ(t->kind(), NatMulticastTransitionKind::mcastTransitionNone);
   EXPECT_EQ(t->mcastToProg()->oifSet().oifs(), 0u);
   auto const cached = sys().multicastAdapter()->mcastInfoCacheWrap()->cache(
      Ulo::NatMcastCtxKey(NatMrouteKeyType::mrouteKeyTypeRoute, 10, ip("10.0.0.1"), Lumet::IpAddr()));
   ASSERT_TRUE(cached);
   EXPECT_FALSE(cached->multicast());

   // Through Ethernet1 among others: only Ethernet1 goes to the helper.
   sys().mrouteResponseMap()->mrouteRespIs(route("10.0.0.1", "239.1.1.1"), oifs({"Ethernet1", "Ethernet2"}));
   for (auto const& e : dstEntries("10.0.0.1")) EXPECT_EQ(e.oifSet, oifs({"Ethernet1"}));
   EXPECT_TRUE(cached->multicast());
}

TEST_F(NatMulticastIntfTest, TwiceRuleOnTheRouteItselfEndsTheSearchBeforeTheSourceRule) {
   start();
   sys().staticIs(eth1, staticRule("10.0.0.1", "192.0.2.1", Ip::Nat::source_));
   sys().twiceIs(eth1, Ip::Nat::NatTwiceConnection(1, ipp("10.0.0.1"), ipp("239.1.1.1"), ipp("192.0.2.9"),
                                                   ipp("239.9.9.9"), 0, 10));
   ASSERT_EQ(engine()->mrouteTwiceGroup().size(), 1u);
   ASSERT_EQ(engine()->mrouteTwiceAddr().size(), 1u);
   auto const before = sys().helper()->counts();
   sys().mrouteResponseMap()->mrouteRespIs(route("10.0.0.1", "239.1.1.1"), oifs({"Ethernet1"}));
   EXPECT_EQ(sys().helper()->counts().twiceUpdates, before.twiceUpdates + 2);
   EXPECT_EQ(sys().helper()->counts().updates, before.updates + 2);   // the twice halves alone
   auto const* fwd = sys().helper()->twiceEntry(true, 0, 10, 1, ipp("10.0.0.1"), ipp("239.1.1.1"));
   ASSERT_TRUE(fwd);
   EXPECT_EQ(fwd->oifSet, oifs({"Ethernet1"}));

   // Removing the twice rule leaves the static rule to be found by (S, 0).
   sys().twiceDel(eth1, 1);
   EXPECT_TRUE(engine()->mrouteTwiceGroup().empty());
   EXPECT_TRUE(engine()->mrouteTwiceAddr().empty());
   auto const updates = sys().helper()->counts().updates;
   sys().mrouteResponseMap()->mrouteRespIs(route("10.0.0.1", "239.1.1.1"), oifs({"Ethernet1", "Ethernet3"}));
   EXPECT_GT(sys().helper()->counts().updates, updates);
   EXPECT_EQ(sys().helper()->counts().twiceUpdates, before.twiceUpdates + 2);
}

TEST_F(NatMulticastIntfTest, DeferredRuleOnlyHasItsFlagSet) {
   start(true, false);
   sys().staticIs(eth1, staticRule("239.1.1.1", "239.2.2.2", Ip::Nat::destination));
   ASSERT_TRUE(engine()->deferredStaticNatConnectionHw().entity(Ip::Nat::StaticKey(ipp("239.1.1.1"))));
   auto const before = sys().helper()->counts();
   // The routing side knows the route, so that it keeps the answer written
   // here when it next looks (it withdraws answers no route backs).
   sys().mrouteIs(Sim::SimMrouteSide::Route{10, Lumet::IpAddr(), ip("239.1.1.1")}, oifs({"Ethernet2"}));
   sys().mrouteResponseMap()->mrouteRespIs(route("0.0.0.0", "239.1.1.1"), oifs({"Ethernet2"}));
   EXPECT_EQ(sys().helper()->counts().updates, before.updates);
   EXPECT_TRUE(engine()->deferredStaticNatConnectionHw().entity(Ip::Nat::StaticKey(ipp("239.1.1.1")))->updateMulticast());
   // The backlog reprograms the rule after its commit; without counters the
   // update rides on the next batch.
   sys().runUntilIdle();
   EXPECT_FALSE(engine()->deferredStaticNatConnectionHw().entity(Ip::Nat::StaticKey(ipp("239.1.1.1"))));
   EXPECT_GT(sys().helper()->counts().updates, before.updates);
   EXPECT_GT(sys().helper()->stagedCount(), 0u);
   for (auto const& e : dstEntries("239.1.1.1")) EXPECT_EQ(e.oifSet.oifs(), 0u) << "not committed yet";

   // The next batch, whatever it carries, commits the staged update: the
   // rule's outgoing interfaces then stand on the chip.
   sys().staticIs(eth1, staticRule("10.0.0.9", "192.0.2.9", Ip::Nat::source_));
   sys().runUntilIdle();
   EXPECT_EQ(sys().helper()->stagedCount(), 0u);
   auto const entries = dstEntries("239.1.1.1");
   ASSERT_FALSE(entries.empty());
   for (auto const& e : entries) EXPECT_EQ(e.oifSet, oifs({"Ethernet2"}));
}

TEST_F(NatMulticastIntfTest, RouteChangeBeforeHardwareIsUpOnlyUpdatesTheCache) {
   start();
   sys().staticIs(eth1, staticRule("239.1.1.1", "239.2.2.2", Ip::Nat::destination));
   sys().helper()->hwInitializedIs(false);
   auto const before = sys().helper()->counts();
   sys().mrouteResponseMap()->mrouteRespIs(route("0.0.0.0", "239.1.1.1"), oifs({"Ethernet2"}));
   EXPECT_EQ(sys().helper()->counts().updates, before.updates);
   EXPECT_TRUE(sys().multicastAdapter()->mcastInfoCacheWrap()->cache(
      Ulo::NatMcastCtxKey(NatMrouteKeyType::mrouteKeyTypeRoute, 10, Lumet::IpAddr(), ip("239.1.1.1"))));
}

TEST_F(NatMulticastIntfTest, WatchWithoutItsKeyIsABrokenInvariant) {
   start();
   EXPECT_DEATH(engine()->watchMulticast(10, ipp("10.0.0.1"), ipp("192.0.2.1"), ipp("239.1.1.1"),
                                         ipp("239.2.2.2"), 0, 0, Ip::Nat::StaticKey()),
                "group && \"Expecting non-zero group passed to watchMulticast\"");
   EXPECT_DEATH(engine()->watchMulticast(10, ipp("10.0.0.1"), ipp("192.0.2.1"), Lumet::IpAndPort(),
                                         Lumet::IpAndPort(), 0, 0, Ip::Nat::StaticKey()),
                "!!staticKey && \"Expecting staticKey passed to watchMulticast\"");
}

} // namespace
