// The interface engine on its own: one Ulo::NatIntfStatusSm built directly
// over its entities and a recording helper, without the root state machine.
// Static connections through add, re-delivery, in-place edits, refusal,
// review, next-hop changes, batch commits and deletion, with the watched-
// address references checked against what the configured rules need.

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "RecordingHelper.h"
#include "UloNat/UloNatIntfSm.h"
#include "framework/VorLog.h"

namespace {

using Ip::Nat::NatStaticConnection;
using Ip::Nat::StaticKey;
using Lumet::IpAddr;
using Lumet::IpAndPort;
using UloTest::RecordingHelper;

Lumet::IntfId const eth1("Ethernet1");
Ulo::VrfId const vrf = 3;

IpAndPort ipp(IpAddr addr, Vor::U16 port = 0) { return IpAndPort(addr, port); }

NatStaticConnection rule(IpAndPort local, IpAndPort global, Ip::Nat::NatTarget target,
                         StaticKey::Table table = StaticKey::ingress, Vor::U8 protocol = 0) {
   NatStaticConnection conn(StaticKey(local, Vor::String(), table), global, target, protocol, 10, true);
   conn.filterAddressIs(Lumet::IpAddrWithFullMask(IpAddr(198, 51, 100, 0), 0xffffff00u), true);
   return conn;
}

IpAddr const localA(10, 0, 0, 1);
IpAddr const localB(10, 0, 0, 2);
IpAddr const globalA(192, 0, 2, 1);
IpAddr const globalB(192, 0, 2, 2);
IpAddr const multicast(239, 1, 1, 1);

class NatIntfStatusSmTest : public ::testing::Test {
 protected:
   void SetUp() override {
      scheduler_ = Vor::Ptr<Dov::TaskScheduler>(new Dov::TaskScheduler());
      scheduler_->virtualTimeIs(true, 0.0);
      Dov::TaskSchedulerRoot::schedulerIs(scheduler_);
      status_ = Vor::Ptr<Ip::Nat::Status>(new Ip::Nat::Status());
      intfStatus_ = status_->intfStatusIs(eth1);
      hwStatus_ = Vor::Ptr<Ip::Nat::HwStatus>(new Ip::Nat::HwStatus());
      hwStatus_->intfStatusIs("Ethernet1", eth1);
      nhMapConfig_ = Vor::Ptr<Ulo::NextHopMapConfig>(new Ulo::NextHopMapConfig());
      nhMapStatus_ = Vor::Ptr<Ulo::NextHopMapStatus>(new Ulo::NextHopMapStatus());
      natSmStatus_ = Ulo::natSmStatusFactory(nhMapConfig_, nhMapStatus_);
      natSmStatus_->destinationNatNextHopNeededIs(true);
      vrfStatus_ = natSmStatus_->natSmStatusVrfIs(vrf);
      notif_ = Ulo::natSmStatusNotifFactory();
      helper_ = Vor::Ptr<RecordingHelper>(new RecordingHelper());
      helper_->staticTranslationsAre(RecordingHelper::succeed);
      helper_->commit = RecordingHelper::succeed;
      helper_->immediate = true;
      helper_->hwInit();
   }
   void TearDown() override {
      if (engine_) engine_->doCleanup();
      engine_ = nullptr;
      Dov::TaskSchedulerRoot::schedulerIs(nullptr);
   }

   void start() {
      engine_ = Ulo::NatIntfStatusSmIs(
         Vor::Ptr<Ulo::UloCommonSmData>(new Ulo::UloCommonSmData()), intfStatus_, status_, hwStatus_,
         Vor::Ptr<Ip::Nat::DynamicConnectionStatus>(new Ip::Nat::DynamicConnectionStatus()),
         Vor::Ptr<Ip::Nat::DynamicConnectionHwStatus>(new Ip::Nat::DynamicConnectionHwStatus()),
         Vor::Ptr<Ip::Nat::HwCapabilities>(new Ip::Nat::HwCapabilities()), helper_,
         Vor::Ptr<MrouteLib::StaticNatInfo>(new MrouteLib::StaticNatInfo()), natSmStatus_, notif_,
         scheduler_, vrf, Vor::Ptr<Ulo::NatMulticastAdapter>());
      engine_->initializedIs(true);
   }

   // The references that the configured rules need, address by address,
   // must be exactly those held: the interface's count in ipAddrIntfInfo,
   // the route reference count, one route request, and the engine's forward
   // and reverse maps. An empty `expected` means nothing is left anywhere.
   void expectReferences(std::map<IpAddr, Vor::U32> const& expected) {
      auto const& index = engine_->staticWatchedAddr();
      EXPECT_EQ(vrfStatus_->ipAddrIntfInfos(), expected.size());
      EXPECT_EQ(vrfStatus_->routeResolverRefCount().size(), expected.size());
      EXPECT_EQ(nhMapConfig_->routeResolverRequest().size(), expected.size());
      EXPECT_EQ(index.watchedAddrKey().size(), expected.size());
      Vor::U32 keys = 0;
      for (auto const& [addr, count] : expected) {
         SCOPED_TRACE(addr.stringValue());
         auto const info = vrfStatus_->ipAddrIntfInfo(addr);
         ASSERT_TRUE(info);
         EXPECT_EQ(info->intf(eth1), count);
         EXPECT_EQ(vrfStatus_->routeResolverRefCount(addr), count);
         EXPECT_TRUE(nhMapConfig_->routeResolverRequestHas(Ulo::VrfAndIpAddr(vrf, addr)));
         ASSERT_TRUE(index.watchedAddrKey(addr));
         EXPECT_EQ(index.watchedAddrKey(addr)->mappedAddr().size(), count);
         keys += count;
      }
      EXPECT_EQ(index.keyWatchedAddr().size(), keys);
   }

   std::size_t calls(std::string const& prefix) const {
      std::size_t n = 0;
      for (auto const& c : helper_->calls) n += c.rfind(prefix, 0) == 0;
      return n;
   }
   Vor::Ptr<Ip::Nat::HwIntfStatus> hw() const { return hwStatus_->intfStatus(eth1); }
   Vor::Ptr<Ulo::NatUnprogrammedEntries> unprogrammed() const {
      return natSmStatus_->unprogrammedEntries(eth1);
   }

   Vor::CapturingLogSink logs_;
   Vor::Ptr<Dov::TaskScheduler> scheduler_;
   Vor::Ptr<Ip::Nat::Status> status_;
   Vor::Ptr<Ip::Nat::IntfStatus> intfStatus_;
   Vor::Ptr<Ip::Nat::HwStatus> hwStatus_;
   Vor::Ptr<Ulo::NextHopMapConfig> nhMapConfig_;
   Vor::Ptr<Ulo::NextHopMapStatus> nhMapStatus_;
   Vor::Ptr<Ulo::NatSmStatus> natSmStatus_;
   Vor::Ptr<Ulo::NatSmStatusVrf> vrfStatus_;
   Vor::Ptr<Ulo::NatSmStatusNotif> notif_;
   Vor::Ptr<RecordingHelper> helper_;
   Vor::Ptr<Ulo::NatIntfStatusSm> engine_;
};

TEST_F(NatIntfStatusSmTest, AStaticRuleIsProgrammedRecordedAndWatchedUntilDeleted) {
   start();
   auto const dst = rule(ipp(localA, 80), ipp(globalA, 8080), Ip::Nat::destination);
   intfStatus_->staticConnectionIs(dst);
   EXPECT_EQ(calls("dst "), 1u);
   ASSERT_TRUE(hw()->staticConnectionHw(dst.key()));
   EXPECT_EQ(hw()->staticConnectionHw(dst.key())->globalAddress(), dst.globalAddress());
   EXPECT_EQ(engine_->cachedStaticConnection().count(dst.key()), 1u);
   // A destination rule watches its global address.
   expectReferences({{globalA, 1}});

   // A source rule watches its local address; an egress rule watches none.
   auto const src = rule(ipp(localB), ipp(globalB), Ip::Nat::source_);
   auto const egress = rule(ipp(localA, 81), ipp(globalB), Ip::Nat::source_, StaticKey::egress);
   intfStatus_->staticConnectionIs(src);
   intfStatus_->staticConnectionIs(egress);
   EXPECT_EQ(hw()->staticConnectionHws(), 3u);
   expectReferences({{globalA, 1}, {localB, 1}});

   intfStatus_->staticConnectionDel(dst.key());
   intfStatus_->staticConnectionDel(src.key());
   intfStatus_->staticConnectionDel(egress.key());
   EXPECT_EQ(hw()->staticConnectionHws(), 0u);
   EXPECT_TRUE(engine_->cachedStaticConnection().empty());
   expectReferences({});
}

// However often a rule is delivered or edited, each configured connection
// holds one reference on the one address it watches now.
TEST_F(NatIntfStatusSmTest, EveryDeliveryAndEditLeavesOneReferencePerConnection) {
   start();
   auto dst = rule(ipp(localA, 80), ipp(globalA, 8080), Ip::Nat::destination);
   auto src = rule(ipp(localB), ipp(globalB), Ip::Nat::source_);
   intfStatus_->staticConnectionIs(dst);
   intfStatus_->staticConnectionIs(src);
   expectReferences({{globalA, 1}, {localB, 1}});

   // Delivered again, as a re-pointed reactor does: nothing more is taken.
   engine_->handleStaticConnection(dst.key());
   engine_->handleStaticConnection(src.key());
   engine_->handleStaticConnection();
   expectReferences({{globalA, 1}, {localB, 1}});

   // The destination rule's global address changed in place: the old
   // address is given back before the new one is taken.
   dst = rule(ipp(localA, 80), ipp(globalB, 8080), Ip::Nat::destination);
   intfStatus_->staticConnectionIs(dst);
   expectReferences({{globalB, 1}, {localB, 1}});
   EXPECT_EQ(hw()->staticConnectionHw(dst.key())->globalAddress(), ipp(globalB, 8080));

   // The source rule's global address changed in place: it still watches
   // its local address, once.
   src = rule(ipp(localB), ipp(globalA), Ip::Nat::source_);
   intfStatus_->staticConnectionIs(src);
   expectReferences({{globalB, 1}, {localB, 1}});

   // To a multicast address, which is not watched, and back.
   dst = rule(ipp(localA, 80), ipp(multicast), Ip::Nat::destination);
   intfStatus_->staticConnectionIs(dst);
   expectReferences({{localB, 1}});
   dst = rule(ipp(localA, 80), ipp(globalA, 8080), Ip::Nat::destination);
   intfStatus_->staticConnectionIs(dst);
   intfStatus_->staticConnectionIs(dst);
   expectReferences({{globalA, 1}, {localB, 1}});

   // Two connections on one address hold two references, and give them back
   // one by one.
   auto dst2 = rule(ipp(localA, 90), ipp(globalA, 9090), Ip::Nat::destination);
   intfStatus_->staticConnectionIs(dst2);
   intfStatus_->staticConnectionIs(dst2);
   expectReferences({{globalA, 2}, {localB, 1}});
   intfStatus_->staticConnectionDel(dst.key());
   expectReferences({{globalA, 1}, {localB, 1}});

   // Hardware down: a configured key takes the delete branch and gives its
   // reference back; a delete delivered twice gives back nothing more.
   intfStatus_->staticConnectionDel(dst2.key());
   engine_->handleStaticConnection(dst2.key());
   intfStatus_->staticConnectionDel(src.key());
   expectReferences({});
}

// A refused rule has no hardware or watched-address residue; its review
// takes the reference once, however often it is retried.
TEST_F(NatIntfStatusSmTest, RefusalAndReviewKeepReferencesToWhatIsProgrammed) {
   start();
   auto dst = rule(ipp(localA, 80), ipp(globalA, 8080), Ip::Nat::destination);
   intfStatus_->staticConnectionIs(dst);
   expectReferences({{globalA, 1}});

   // An edit that hardware refuses: the key goes to the unprogrammed set
   // and gives back the reference of the address it had.
   helper_->addDst = RecordingHelper::fail;
   dst = rule(ipp(localA, 80), ipp(globalB, 8080), Ip::Nat::destination);
   intfStatus_->staticConnectionIs(dst);
   ASSERT_TRUE(unprogrammed());
   EXPECT_TRUE(unprogrammed()->staticEntriesHas(dst.key()));
   EXPECT_FALSE(hw()->staticConnectionHw(dst.key()));
   EXPECT_TRUE(natSmStatus_->fullTable());
   EXPECT_EQ(notif_->logsFull(), 1u);
   EXPECT_EQ(logs_.count("NAT_HW_RESOURCE_FULL"), 1u);
   expectReferences({});

   // The review retries, refused again: still nothing held, no second log.
   engine_->handleStaticConnection(dst.key());
   EXPECT_EQ(notif_->logsFull(), 1u);
   expectReferences({});

   // Hardware takes it: the key leaves the unprogrammed set, the table is
   // no longer full, and the new address is watched once.
   helper_->addDst = RecordingHelper::succeed;
   engine_->handleStaticConnection(dst.key());
   engine_->handleStaticConnection(dst.key());
   EXPECT_FALSE(unprogrammed());
   EXPECT_FALSE(natSmStatus_->fullTable());
   EXPECT_EQ(notif_->logsNormal(), 1u);
   EXPECT_TRUE(hw()->staticConnectionHw(dst.key()));
   expectReferences({{globalB, 1}});

   // A next-hop update that hardware refuses sends the key back to review
   // and gives its reference back.
   helper_->updDst = RecordingHelper::fail;
   engine_->updateNextHop(Ulo::VrfAndIpAddr(vrf, globalB));
   EXPECT_TRUE(unprogrammed() && unprogrammed()->staticEntriesHas(dst.key()));
   expectReferences({});
   helper_->updDst = RecordingHelper::succeed;

   intfStatus_->staticConnectionDel(dst.key());
   EXPECT_FALSE(unprogrammed());
   expectReferences({});
}

TEST_F(NatIntfStatusSmTest, NextHopChangesReachTheConnectionsOfTheirAddressInTheirVrf) {
   start();
   auto a = rule(ipp(localA, 80), ipp(globalA, 8080), Ip::Nat::destination);
   auto b = rule(ipp(localA, 81), ipp(globalA, 8081), Ip::Nat::destination);
   auto other = rule(ipp(localB), ipp(globalB), Ip::Nat::destination);
   for (auto const& r : {a, b, other}) intfStatus_->staticConnectionIs(r);
   helper_->calls.clear();

   engine_->updateNextHop(Ulo::VrfAndIpAddr(vrf, globalA));
   EXPECT_EQ(calls("updDst "), 2u);
   engine_->updateNextHop(Ulo::VrfAndIpAddr(vrf + 1, globalA));   // another VRF
   engine_->updateNextHop(Ulo::VrfAndIpAddr(vrf, localA));        // watched by none
   EXPECT_EQ(calls("updDst "), 2u);
}

// A helper that commits in batches: the engine records hardware status only
// after the commit, and a next-hop change that arrives while an entry waits
// is applied after the entry has landed.
TEST_F(NatIntfStatusSmTest, ABatchCommitsOnceAndAppliesChangesThatArrivedWhileWaiting) {
   helper_->immediate = false;
   start();
   engine_->counterStatusIs(true);
   auto a = rule(ipp(localA, 80), ipp(globalA, 8080), Ip::Nat::destination);
   auto b = rule(ipp(localB), ipp(globalB), Ip::Nat::source_);
   intfStatus_->staticConnectionIs(a);
   intfStatus_->staticConnectionIs(b);
   EXPECT_TRUE(engine_->pendingCommit());
   EXPECT_EQ(engine_->deferredStaticNatConnectionHw().size(), 2u);
   EXPECT_EQ(hw()->staticConnectionHws(), 0u);
   expectReferences({{globalA, 1}, {localB, 1}});

   engine_->updateNextHop(Ulo::VrfAndIpAddr(vrf, globalA));
   EXPECT_EQ(calls("updDst "), 0u);
   ASSERT_TRUE(engine_->deferredStaticNatConnectionHw().entity(a.key()));
   EXPECT_TRUE(engine_->deferredStaticNatConnectionHw().entity(a.key())->updateNextHop());

   scheduler_->runUntilIdle();
   EXPECT_FALSE(engine_->pendingCommit());
   EXPECT_TRUE(engine_->deferredStaticNatConnectionHw().empty());
   EXPECT_EQ(hw()->staticConnectionHws(), 2u);
   // One update for the waiting change, and with counters on, one second
   // commit for it.
   EXPECT_EQ(calls("updDst "), 1u);
   EXPECT_EQ(calls("commit"), 2u);

   // A failed commit of a delete still removes it from hardware status, and
   // the delete is issued again with the next commit.
   helper_->calls.clear();
   helper_->failNextCommits = 1;
   intfStatus_->staticConnectionDel(b.key());
   scheduler_->runUntilIdle();
   EXPECT_FALSE(hw()->staticConnectionHw(b.key()));
   EXPECT_EQ(calls("commit"), 2u);
   EXPECT_FALSE(engine_->pendingCommit());
   EXPECT_TRUE(engine_->deferredStaticNatConnectionHw().empty());
   expectReferences({{globalA, 1}});
}

TEST_F(NatIntfStatusSmTest, CleanupRunsTheWaitingBatchAndForgetsTheUnprogrammed) {
   helper_->immediate = false;
   start();
   auto a = rule(ipp(localA, 80), ipp(globalA, 8080), Ip::Nat::destination);
   intfStatus_->staticConnectionIs(a);
   helper_->addDst = RecordingHelper::fail;
   auto b = rule(ipp(localA, 81), ipp(globalA, 8081), Ip::Nat::destination);
   intfStatus_->staticConnectionIs(b);
   ASSERT_TRUE(unprogrammed());

   // From outside the task, during cleanup only.
   engine_->doProcessBacklogStatic();
   EXPECT_TRUE(engine_->pendingCommit());
   engine_->doCleanup();
   EXPECT_FALSE(engine_->pendingCommit());
   EXPECT_TRUE(hw()->staticConnectionHw(a.key()));
   EXPECT_FALSE(unprogrammed());
}

} // namespace
