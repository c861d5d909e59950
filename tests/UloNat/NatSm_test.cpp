// The root state machine and the static path end to end, through the
// simulated chip: readiness of interfaces and VRFs, start and stop of the
// hardware, next hops, refusal and review, batches, cleanup.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sim/SimSystem.h"

namespace {

using Sim::SimOptions;
using Sim::SimSystem;

Lumet::IpAndPort ipp(char const* text) { return *Sim::parseIpAndPort(text); }
Lumet::IpAddrWithFullMask filter(char const* text) { return *Sim::parseFilter(text); }

Ip::Nat::NatStaticConnection rule(char const* local, char const* global,
                                  Ip::Nat::NatTarget target = Ip::Nat::source_,
                                  std::vector<char const*> filters = {"198.51.100.0/24", "203.0.113.0/24"},
                                  Ip::Nat::StaticKey::Table table = Ip::Nat::StaticKey::ingress,
                                  Vor::U16 vlan = 10, Vor::U8 protocol = 0) {
   Ip::Nat::NatStaticConnection conn(Ip::Nat::StaticKey(ipp(local), Vor::String(), table), ipp(global),
                                     target, protocol, vlan, true);
   for (auto f : filters) conn.filterAddressIs(filter(f), true);
   return conn;
}

Lumet::IntfId const eth1("Ethernet1");
Lumet::IntfId const eth2("Ethernet2");

class NatSmTest : public ::testing::Test {
 protected:
   void build(SimOptions options = SimOptions()) { sys_ = std::make_unique<SimSystem>(options); }
   // The common stage: VRF "default" (id 0) with Ethernet1 in it on VLAN 10,
   // started.
   void startWithEth1(SimOptions options = SimOptions()) {
      build(options);
      sys().vrfIs("default", 0);
      sys().intfIs(eth1, "default", "Ethernet1", {{eth1, 10}});
      sys().start();
   }
   SimSystem& sys() { return *sys_; }
   std::unique_ptr<SimSystem> sys_;
};

TEST_F(NatSmTest, InterfaceWaitsForItsVrfNameAndId) {
   build();
   sys().vrfIs("default", 0);
   sys().vrfIs("red", 0);
   sys().intfIs(eth1, "", "Ethernet1", {{eth1, 10}});
   sys().intfIs(eth2, "red", "Ethernet2", {{eth2, 20}});
   sys().start();
   // An unnamed VRF and a VRF without id make no engine, and touch no hardware.
   EXPECT_EQ(sys().root()->natIntfStatusSms().size(), 0u);
   EXPECT_EQ(sys().helper()->counts().hwInit, 0u);
   EXPECT_FALSE(sys().hwStatus()->intfStatus(eth1));

   sys().intfVrfIs(eth1, "default");   // "default" is ready with id 0
   ASSERT_TRUE(sys().root()->natIntfStatusSm(eth1));
   EXPECT_EQ(sys().root()->natIntfStatusSm(eth1)->vrfId(), Ulo::VrfId(0));
   EXPECT_FALSE(sys().root()->natIntfStatusSm(eth2));

   sys().vrfIs("red", 5);
   ASSERT_TRUE(sys().root()->natIntfStatusSm(eth2));
   EXPECT_EQ(sys().root()->natIntfStatusSm(eth2)->vrfId(), Ulo::VrfId(5));
   EXPECT_TRUE(sys().root()->natSmStatus()->natSmStatusVrf(5));

   // A later change of the VRF's id rebuilds nothing: the engine stays in
   // the VRF it was born in, and hwInit is simply called again.
   auto const engine = sys().root()->natIntfStatusSm(eth2);
   auto const inits = sys().helper()->counts().hwInit;
   sys().vrfIs("red", 6);
   EXPECT_EQ(sys().root()->natIntfStatusSm(eth2), engine);
   EXPECT_EQ(engine->vrfId(), Ulo::VrfId(5));
   EXPECT_EQ(sys().helper()->counts().hwInit, inits + 1);
   EXPECT_EQ(sys().root()->natIntfStatusSms().size(), 2u);
}

TEST_F(NatSmTest, StartReplaysInsideReplayModeInItsOrder) {
   build();
   sys().vrfIs("default", 0);
   sys().intfIs(eth1, "default", "Ethernet1", {{eth1, 10}});
   sys().staticIs(eth1, rule("10.0.0.1", "192.0.2.1"));
   sys().start();
   // Every add of the start-up happened in replay mode, and the helper saw
   // hwInit in replay, then the reconcile after it.
   EXPECT_EQ(sys().helper()->counts().addsDuringReplay, 4u);
   EXPECT_THAT(sys().helper()->lifecycle(),
               ::testing::ElementsAre("updateCounterStatus(off)", "hwInit(replay)", "replayReconcile"));
   EXPECT_EQ(sys().hwStaticCount(eth1), 1u);
   EXPECT_EQ(sys().helper()->entries().size(), 4u);
}

TEST_F(NatSmTest, LastInterfaceGoesThenHardwareIsReleased) {
   build();
   sys().vrfIs("default", 0);
   sys().vrfIs("red", 3);
   sys().vrfIs("blue", 0);
   sys().intfIs(eth1, "default", "Ethernet1", {{eth1, 10}});
   sys().intfIs(eth2, "red", "Ethernet2", {{eth2, 20}});
   sys().intfIs(Lumet::IntfId("Ethernet3"), "blue", "Ethernet3", {});
   sys().start();
   sys().staticIs(eth2, rule("10.1.0.1", "192.0.2.9"));
   ASSERT_EQ(sys().helper()->entries().size(), 4u);

   // The last interface of VRF red takes its VRF record along and its rules
   // out of the chip.
   sys().intfDel(eth2);
   EXPECT_FALSE(sys().root()->natSmStatus()->natSmStatusVrf(3));
   EXPECT_FALSE(sys().hwStatus()->intfStatus(eth2));
   EXPECT_EQ(sys().helper()->counts().hwCleanup, 0u);

   // An interface that never had an engine still loses its status entry.
   sys().intfDel(Lumet::IntfId("Ethernet3"));
   EXPECT_EQ(sys().helper()->counts().hwCleanup, 0u);

   sys().intfDel(eth1);
   EXPECT_EQ(sys().helper()->counts().hwCleanup, 1u);
   EXPECT_EQ(sys().helper()->lifecycle().back(), "hwCleanup");
   EXPECT_FALSE(sys().hwStatus()->intfStatus(eth1));
   EXPECT_EQ(sys().root()->natIntfStatusSms().size(), 0u);
}

TEST_F(NatSmTest, StaticRuleAddReplaceDeleteWithFilterAddresses) {
   startWithEth1();

   auto conn = rule("10.0.0.1", "192.0.2.1");
   sys().staticIs(eth1, conn);
   auto hw = sys().hwStatus()->intfStatus(eth1);
   ASSERT_TRUE(hw);
   auto entry = hw->staticConnectionHw(conn.key());
   ASSERT_TRUE(entry);
   EXPECT_EQ(entry->filterAddress().size(), 2u);
   // Two filter addresses, both directions.
   EXPECT_EQ(sys().helper()->entries().size(), 4u);
   EXPECT_EQ(sys().helper()->entriesOf(conn.key(), 0, 10), 4u);

   // Replacing: a third filter and another global address.
   auto changed = rule("10.0.0.1", "192.0.2.2", Ip::Nat::source_,
                       {"198.51.100.0/24", "203.0.113.0/24", "100.64.0.1"});
   sys().staticIs(eth1, changed);
   entry = hw->staticConnectionHw(conn.key());
   ASSERT_TRUE(entry);
   EXPECT_EQ(entry->globalAddress(), ipp("192.0.2.2"));
   EXPECT_EQ(entry->filterAddress().size(), 3u);
   EXPECT_EQ(sys().helper()->entries().size(), 6u);
   EXPECT_EQ(sys().root()->natIntfStatusSm(eth1)->cachedStaticConnection().at(conn.key()), changed);

   // No filter address: one empty filter on the chip, none in status.
   auto plain = rule("10.0.0.5", "192.0.2.5", Ip::Nat::source_, {});
   sys().staticIs(eth1, plain);
   EXPECT_EQ(hw->staticConnectionHw(plain.key())->filterAddress().size(), 0u);
   EXPECT_EQ(sys().helper()->entriesOf(plain.key(), 0, 10), 2u);

   sys().staticDel(eth1, conn.key());
   sys().staticDel(eth1, plain.key());
   EXPECT_FALSE(hw->staticConnectionHw(conn.key()));
   EXPECT_EQ(sys().helper()->entries().size(), 0u);
   EXPECT_TRUE(sys().root()->natIntfStatusSm(eth1)->cachedStaticConnection().empty());
}

TEST_F(NatSmTest, EgressAndMulticastProgramOnlyTheirDirection) {
   SimOptions options;
   options.destinationNatNextHopNeeded = true;
   startWithEth1(options);

   auto egress = rule("10.0.0.1", "192.0.2.1", Ip::Nat::source_, {"198.51.100.0/24"},
                      Ip::Nat::StaticKey::egress);
   sys().staticIs(eth1, egress);
   EXPECT_EQ(sys().helper()->entriesOf(egress.key(), 0, 10), 1u);
   // An egress connection watches no address.
   EXPECT_TRUE(sys().root()->natIntfStatusSm(eth1)->staticWatchedAddr().empty());
   EXPECT_EQ(sys().nhMapConfig()->routeResolverRequest().size(), 0u);

   // A multicast translated source never gets a source translation, and a
   // multicast address is not watched.
   auto mcast = rule("10.0.0.2", "239.1.1.1", Ip::Nat::source_, {"198.51.100.0/24"});
   sys().staticIs(eth1, mcast);
   EXPECT_EQ(sys().helper()->entriesOf(mcast.key(), 0, 10), 1u);
   EXPECT_EQ(sys().hwStaticCount(eth1), 2u);
   EXPECT_EQ(sys().helper()->entries().size(), sys().expectedChipEntries());
}

TEST_F(NatSmTest, NextHopRequestsAreCountedPerVrfAndAddress) {
   SimOptions options;
   options.destinationNatNextHopNeeded = true;
   build(options);
   sys().vrfIs("default", 0);
   sys().vrfIs("red", 4);
   sys().intfIs(eth1, "default", "Ethernet1", {{eth1, 10}});
   sys().intfIs(eth2, "red", "Ethernet2", {{eth2, 20}});
   sys().start();

   // Two destination rules translating to the same inside address watch it
   // once; the same address in another VRF is a request of its own.
   auto a = rule("192.0.2.10", "10.0.0.10", Ip::Nat::destination);
   auto b = rule("192.0.2.11", "10.0.0.10", Ip::Nat::destination);
   auto c = rule("192.0.2.10", "10.0.0.10", Ip::Nat::destination, {"198.51.100.0/24"},
                 Ip::Nat::StaticKey::ingress, 20);
   sys().staticIs(eth1, a);
   sys().staticIs(eth1, b);
   sys().staticIs(eth2, c);
   Ulo::VrfAndIpAddr const inDefault(0, Lumet::IpAddr(10, 0, 0, 10));
   Ulo::VrfAndIpAddr const inRed(4, Lumet::IpAddr(10, 0, 0, 10));
   EXPECT_EQ(sys().nhMapConfig()->routeResolverRequest().size(), 2u);
   EXPECT_EQ(sys().root()->natSmStatus()->natSmStatusVrf(0)->routeResolverRefCount(inDefault.ipAddr()), 2u);

   // The answer reaches the chip's destination entries of VRF default only.
   sys().nextHopIs(inDefault, 4001);
   for (auto const& [key, entry] : sys().helper()->entries()) {
      if (key.kind == Sim::ChipEntryKey::Kind::staticDst) {
         EXPECT_EQ(entry.nextHopId, key.vrfId == Ulo::VrfId(0) ? 4001u : 0u) << key.stringValue();
      }
   }

   sys().staticDel(eth1, a.key());
   EXPECT_TRUE(sys().nhMapConfig()->routeResolverRequest(inDefault));
   sys().staticDel(eth1, b.key());
   EXPECT_FALSE(sys().nhMapConfig()->routeResolverRequest(inDefault));
   EXPECT_TRUE(sys().nhMapConfig()->routeResolverRequest(inRed));
   EXPECT_EQ(sys().root()->natSmStatus()->natSmStatusVrf(0)->routeResolverRefCount().size(), 0u);
}

// A rule edited in place gives its old address back: answers for the old
// address no longer reach the engine, and nothing is left once it goes.
TEST_F(NatSmTest, ARuleEditedInPlaceFollowsOnlyItsNewAddress) {
   SimOptions options;
   options.destinationNatNextHopNeeded = true;
   startWithEth1(options);
   Ulo::VrfAndIpAddr const oldAddr(0, Lumet::IpAddr(10, 0, 0, 10));
   Ulo::VrfAndIpAddr const newAddr(0, Lumet::IpAddr(10, 0, 0, 11));
   auto const before = rule("192.0.2.10", "10.0.0.10", Ip::Nat::destination);
   auto const after = rule("192.0.2.10", "10.0.0.11", Ip::Nat::destination);
   sys().staticIs(eth1, before);
   sys().root()->natIntfStatusSm(eth1)->handleStaticConnection(before.key());   // delivered again
   sys().staticIs(eth1, after);
   auto const vrf0 = sys().root()->natSmStatus()->natSmStatusVrf(0);
   EXPECT_FALSE(sys().nhMapConfig()->routeResolverRequest(oldAddr));
   EXPECT_TRUE(sys().nhMapConfig()->routeResolverRequest(newAddr));
   EXPECT_FALSE(vrf0->ipAddrIntfInfo(oldAddr.ipAddr()));
   EXPECT_EQ(vrf0->routeResolverRefCount(newAddr.ipAddr()), 1u);

   auto const updates = sys().helper()->counts().updates;
   sys().nextHopIs(oldAddr, 4001);
   EXPECT_EQ(sys().helper()->counts().updates, updates);
   sys().nextHopIs(newAddr, 4002);
   EXPECT_GT(sys().helper()->counts().updates, updates);

   sys().staticDel(eth1, after.key());
   EXPECT_EQ(sys().nhMapConfig()->routeResolverRequest().size(), 0u);
   EXPECT_EQ(vrf0->routeResolverRefCount().size(), 0u);
   EXPECT_EQ(vrf0->ipAddrIntfInfos(), 0u);
}

TEST_F(NatSmTest, RefusedRulesWaitAndAreRetriedEveryFiveSeconds) {
   SimOptions options;
   options.capacity = 4;
   startWithEth1(options);

   auto first = rule("10.0.0.1", "192.0.2.1");
   auto second = rule("10.0.0.2", "192.0.2.2");
   auto third = rule("10.0.0.3", "192.0.2.3");
   sys().staticIs(eth1, first);
   sys().staticIs(eth1, second);
   sys().staticIs(eth1, third);
   // The first fills the chip; the others leave nothing half programmed.
   EXPECT_EQ(sys().helper()->entries().size(), 4u);
   EXPECT_EQ(sys().hwStaticCount(eth1), 1u);
   EXPECT_EQ(sys().unprogrammedStaticCount(eth1), 2u);
   EXPECT_EQ(sys().logs().count("NAT_HW_RESOURCE_FULL"), 1u);
   EXPECT_TRUE(sys().root()->natSmStatus()->fullTable());

   // The kick runs the review at once; afterwards one retry every 5 s.
   sys().runUntilIdle();
   auto const refusedAfterKick = sys().helper()->counts().refused;
   sys().runFor(4.9);
   EXPECT_EQ(sys().helper()->counts().refused, refusedAfterKick);
   sys().runFor(0.2);
   EXPECT_EQ(sys().helper()->counts().refused, refusedAfterKick + 2);
   EXPECT_EQ(sys().logs().count("NAT_HW_RESOURCE_FULL"), 1u);

   // Room on the chip (with space for one more rule after the three): the
   // next review programs what waited, once NORMAL.
   sys().helper()->capacityIs(16);
   sys().runFor(5.0);
   EXPECT_EQ(sys().hwStaticCount(eth1), 3u);
   EXPECT_EQ(sys().unprogrammedStaticCount(), 0u);
   EXPECT_EQ(sys().logs().count("NAT_HW_RESOURCE_NORMAL"), 1u);
   EXPECT_FALSE(sys().root()->natSmStatus()->fullTable());
   EXPECT_EQ(sys().helper()->entries().size(), sys().expectedChipEntries());

   // Nothing left: the tasks go idle.
   auto const runs = sys().root()->unprogrammedTask(Ulo::NatType::staticNat)->taskRuns();
   sys().runFor(30.0);
   EXPECT_EQ(sys().root()->unprogrammedTask(Ulo::NatType::staticNat)->taskRuns(), runs);

   // A second full episode logs again, once.
   sys().helper()->refuseNextIs(1);
   sys().staticIs(eth1, rule("10.0.0.4", "192.0.2.4"));
   EXPECT_EQ(sys().logs().count("NAT_HW_RESOURCE_FULL"), 2u);
   sys().runFor(5.1);
   EXPECT_EQ(sys().logs().count("NAT_HW_RESOURCE_NORMAL"), 2u);
}

TEST_F(NatSmTest, DeletingAnUnprogrammedRuleForgetsIt) {
   SimOptions options;
   options.capacity = 0;
   startWithEth1(options);
   auto conn = rule("10.0.0.1", "192.0.2.1");
   sys().staticIs(eth1, conn);
   ASSERT_EQ(sys().unprogrammedStaticCount(eth1), 1u);
   sys().staticDel(eth1, conn.key());
   EXPECT_EQ(sys().unprogrammedStaticCount(), 0u);
   EXPECT_EQ(sys().logs().count("NAT_HW_RESOURCE_NORMAL"), 1u);
}

TEST_F(NatSmTest, BatchesReachHardwareStatusOnlyAfterTheCommit) {
   SimOptions options;
   options.immediate = false;
   startWithEth1(options);

   auto a = rule("10.0.0.1", "192.0.2.1");
   auto b = rule("10.0.0.2", "192.0.2.2");
   sys().staticIs(eth1, a);
   sys().staticIs(eth1, b);
   auto engine = sys().root()->natIntfStatusSm(eth1);
   EXPECT_TRUE(engine->pendingCommit());
   EXPECT_EQ(sys().hwStaticCount(eth1), 0u);
   EXPECT_EQ(sys().helper()->entries().size(), 0u);

   sys().runUntilIdle();   // one task run, one commit for both
   EXPECT_EQ(sys().helper()->counts().commits, 1u);
   EXPECT_EQ(sys().hwStaticCount(eth1), 2u);
   EXPECT_EQ(sys().helper()->entries().size(), 8u);
   EXPECT_FALSE(engine->pendingCommit());
   EXPECT_EQ(engine->deferredStaticNatConnectionHw().size(), 0u);

   // A failed commit: the delete is recorded at once, the add goes to the
   // unprogrammed set; the review that this kicks (priority 3) retries it
   // before the re-issued delete's commit (priority 2), so one more commit
   // lands both.
   sys().staticDel(eth1, a.key());
   auto c = rule("10.0.0.3", "192.0.2.3");
   sys().staticIs(eth1, c);
   sys().helper()->failNextCommitIs(1);
   sys().runUntilIdle();
   EXPECT_EQ(sys().helper()->counts().failedCommits, 1u);
   EXPECT_EQ(sys().helper()->counts().commits, 3u);
   EXPECT_EQ(sys().logs().count("NAT_HW_RESOURCE_FULL"), 1u);
   EXPECT_EQ(sys().logs().count("NAT_HW_RESOURCE_NORMAL"), 1u);
   EXPECT_FALSE(sys().hwStatus()->intfStatus(eth1)->staticConnectionHw(a.key()));
   EXPECT_TRUE(sys().hwStatus()->intfStatus(eth1)->staticConnectionHw(c.key()));
   EXPECT_EQ(sys().unprogrammedStaticCount(), 0u);
   EXPECT_FALSE(engine->pendingCommit());
   EXPECT_EQ(sys().helper()->entries().size(), sys().expectedChipEntries());
}

TEST_F(NatSmTest, AclSharingChangeReprogramsEveryStaticRule) {
   startWithEth1();
   sys().staticIs(eth1, rule("10.0.0.1", "192.0.2.1"));
   auto const adds = sys().helper()->counts().adds;
   auto const deletes = sys().helper()->counts().deletes;
   sys().staticAclSharingStatusIs(true);
   EXPECT_EQ(sys().helper()->counts().deletes, deletes + 2);
   EXPECT_EQ(sys().helper()->counts().adds, adds + 4);
   EXPECT_EQ(sys().hwStaticCount(eth1), 1u);
}

TEST_F(NatSmTest, DroppingTheRootLeavesHardwareUntouchedButForgetsReviewState) {
   SimOptions options;
   options.capacity = 2;
   startWithEth1(options);
   sys().staticIs(eth1, rule("10.0.0.1", "192.0.2.1"));
   auto natSmStatus = sys().root()->natSmStatus();
   ASSERT_EQ(natSmStatus->unprogrammedEntries().size(), 1u);
   sys().root()->doCleanup();
   EXPECT_EQ(natSmStatus->unprogrammedEntries().size(), 0u);
   EXPECT_EQ(sys().root()->natIntfStatusSms().size(), 0u);
   EXPECT_EQ(sys().helper()->counts().hwCleanup, 0u);
}

TEST_F(NatSmTest, DynamicCapabilityDecidesPollingTaskAndDynamicHardwareStatus) {
   Ip::Nat::DynamicConnectionKey const key(eth1, Lumet::ConnTuple(ipp("10.0.0.1:1000"),
                                                                    ipp("198.51.100.1:80"), 6));
   for (double interval : {0.0, 2.5}) {
      for (bool dynamicNat : {false, true}) {
         build();
         sys().hwCapabilities()->dynamicNatSupportedIs(dynamicNat);
         sys().helper()->counterPollingIntervalIs(interval);
         sys().dynamicConnectionHwStatus()->dynamicConnectionHwIs(
            Ip::Nat::DynamicConnectionHw(key, ipp("192.0.2.1:1000")));
         sys().vrfIs("default", 0);
         sys().start();
         auto const root = sys().root();
         // Without dynamic NAT there is no polling task and whatever the
         // dynamic hardware status holds is left alone.
         EXPECT_EQ(static_cast<bool>(root->dynamicCountersPollingTask()), dynamicNat);
         EXPECT_EQ(sys().dynamicConnectionHwStatus()->dynamicConnectionHws(), dynamicNat ? 0u : 1u);
         EXPECT_EQ(root->dynamicCountersPollingInterval(), dynamicNat && interval != 0.0 ? 2.5 : 5.0);
         if (dynamicNat) {
            EXPECT_TRUE(root->dynamicCountersPollingTask()->timerPending());
            EXPECT_DOUBLE_EQ(root->dynamicCountersPollingTask()->timerExpiry(),
                             sys().now() + root->dynamicCountersPollingInterval());
         }
         sys_.reset();
      }
   }
}

TEST_F(NatSmTest, RelaysIgnoreEventsBeforeStartAndWithoutAnEngine) {
   build();
   sys().vrfIs("default", 0);
   sys().intfIs(eth1, "default", "Ethernet1", {{eth1, 10}});
   Ulo::NatHwKey const hwKey;
   // Asynchronous status before start is ignored, and start does not go
   // looking for it afterwards.
   sys().root()->handleAsyncHwStatus(hwKey);
   sys().start();
   EXPECT_EQ(sys().helper()->counts().asyncHwStatus, 0u);
   sys().root()->handleAsyncHwStatus(hwKey);
   sys().helper()->asyncHwStatusResultIs(false);
   sys().root()->handleAsyncHwStatus(hwKey);   // a refusal is the helper's business
   EXPECT_EQ(sys().helper()->counts().asyncHwStatus, 2u);

   // A dynamic connection of an interface without an engine is dropped: the
   // configuration keeps it and the shared state knows nothing of it.
   Lumet::IntfId const eth9("Ethernet9");
   Ip::Nat::DynamicConnectionKey const key(eth9, Lumet::ConnTuple(ipp("10.0.0.1:1000"),
                                                                    ipp("198.51.100.1:80"), 6));
   sys().dynamicConnectionStatus()->dynamicConnectionIs(
      Ip::Nat::DynamicConnection(key, ipp("192.0.2.1:1000")));
   EXPECT_TRUE(sys().dynamicConnectionStatus()->dynamicConnectionHas(key));
   EXPECT_FALSE(sys().root()->natSmStatus()->unprogrammedEntries(eth9));
   EXPECT_EQ(sys().root()->natSmStatus()->natSmStatusVrfs(), 1u);
   EXPECT_EQ(sys().dynamicConnectionHwStatus()->dynamicConnectionHws(), 0u);
}

TEST_F(NatSmTest, ProgrammerStatusChangesReachTheHelperPerKey) {
   build();
   sys().vrfIs("default", 0);
   sys().intfIs(eth1, "default", "Ethernet1", {{eth1, 10}});
   Vor::Ptr<Ulo::NatAsyncHwStatusDir> dir = Ulo::natAsyncHwStatusDirFactory();
   Ulo::NatHwKey const first(Ulo::NatHwKey::staticSnat, ipp("10.0.0.1:0"), ipp("192.0.2.1:0"), {}, {});
   Ulo::NatHwKey sibling = first;   // the same connection's second filter address
   sibling.filterAddrIdIs(1);
   dir->statusIs(first);
   // The agent sets the directory from outside: reactors for what it holds.
   sys().root()->asyncHwStatusDirIs(dir);
   EXPECT_EQ(sys().root()->asyncHwStatusReactors(), 1u);
   auto const& counts = sys().helper()->counts();
   dir->status(first)->stateIs(Ulo::NatAsyncHwStatus::success);
   EXPECT_EQ(counts.asyncHwStatus, 0u) << "nothing is handed on before start";

   sys().start();
   dir->status(first)->stateIs(Ulo::NatAsyncHwStatus::inProgress);
   EXPECT_EQ(counts.asyncHwStatus, 1u);
   dir->status(first)->stateIs(Ulo::NatAsyncHwStatus::inProgress);   // no change, no hand-off
   EXPECT_EQ(counts.asyncHwStatus, 1u);
   // A new key: the directory's handler runs, then its own reactor exists.
   // Keys that differ only in their filter position are different keys.
   dir->statusIs(sibling);
   EXPECT_EQ(counts.asyncHwStatus, 2u);
   EXPECT_EQ(sys().root()->asyncHwStatusReactors(), 2u);
   dir->status(sibling)->stateIs(Ulo::NatAsyncHwStatus::failed);
   EXPECT_EQ(counts.asyncHwStatus, 3u);
   // A removed key: handed on once more, and its reactor goes.
   dir->statusDel(first);
   EXPECT_EQ(counts.asyncHwStatus, 4u);
   EXPECT_EQ(sys().root()->asyncHwStatusReactors(), 1u);

   // Re-pointing to another directory hands on each of its keys and
   // reconciles the per-key reactors with it.
   Vor::Ptr<Ulo::NatAsyncHwStatusDir> other = Ulo::natAsyncHwStatusDirFactory();
   other->statusIs(first);
   other->statusIs(sibling);
   sys().root()->asyncHwStatusDirIs(other);
   EXPECT_EQ(counts.asyncHwStatus, 6u);
   EXPECT_EQ(sys().root()->asyncHwStatusReactors(), 2u);
   dir->statusIs(first);   // the old directory is no longer watched
   EXPECT_EQ(counts.asyncHwStatus, 6u);
   sys().root()->asyncHwStatusDirIs(Vor::Ptr<Ulo::NatAsyncHwStatusDir const>());
   EXPECT_EQ(sys().root()->asyncHwStatusReactors(), 0u);
}

using NatSmDeathTest = NatSmTest;

TEST_F(NatSmDeathTest, ReleasingAnAddressNobodyWatchesEndsTheProcess) {
   SimOptions options;
   options.destinationNatNextHopNeeded = true;
   startWithEth1(options);
   auto natSmStatus = sys().root()->natSmStatus();
   EXPECT_DEATH(natSmStatus->removeRouteConfigWatchedAddr(Lumet::IpAddr(10, 9, 9, 9), 0), "refCount");
   EXPECT_DEATH(natSmStatus->addRouteConfigWatchedAddr(Lumet::IpAddr(10, 9, 9, 9), 77), "vrfStatus");
}

TEST_F(NatSmDeathTest, CleanupOfConnectionsNeedsHardwareDown) {
   startWithEth1();
   auto engine = sys().root()->natIntfStatusSm(eth1);
   EXPECT_DEATH(engine->doCleanupConnections(), "HW needs to be disabled before cleanup");
}

} // namespace
