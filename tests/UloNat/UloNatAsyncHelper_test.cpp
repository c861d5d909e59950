// The asynchronous helper's per-key state machine, driven through its
// translation operations, with the framework programmer (which only counts)
// on the far side and the test deciding each answer. pump() plays the root's
// relay: every change of a key's answer, and every answer that goes, is
// handed to doHandleAsyncHwStatus.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unordered_map>

#include "UloNat/UloNatAsyncHelper.h"
#include "UloNat/UloNatAsyncProgrammerSm.h"
#include "framework/VorLog.h"

namespace {

using namespace Ulo;
using OpType = NatRequestQueue::OpType;
using State = NatAsyncHwStatus::State;
using Dirty = NatHwShadowEntry::Dirty;

Lumet::IpAndPort ipp(U32 ip, U16 port = 0) { return Lumet::IpAndPort(Lumet::IpAddr(ip), port); }
Lumet::IpAddrWithFullMask filter(U32 ip) { return Lumet::IpAddrWithFullMask(Lumet::IpAddr(ip), 0xffffff00u); }

Ip::Nat::NatStaticConnection rule(U32 local, U32 global, std::vector<U32> filters = {0xc6336400u, 0xcb007100u}) {
   Ip::Nat::NatStaticConnection conn(Ip::Nat::StaticKey(ipp(local)), ipp(global), Ip::Nat::source_, 0, 10, true);
   for (U32 f : filters) conn.filterAddressIs(filter(f), true);
   return conn;
}

// The programmer side: records each command handed to it, answers nothing
// by itself.
class TestProgrammer : public NatAsyncProgrammerSm {
 public:
   using NatAsyncProgrammerSm::NatAsyncProgrammerSm;
   std::vector<std::pair<OpType, NatHwKey>> commands;
   void doAdd(NatHwKey const& key) override {
      NatAsyncProgrammerSm::doAdd(key);
      commands.emplace_back(NatRequestQueue::add, key);
   }
   void doUpdate(NatHwKey const& key) override {
      NatAsyncProgrammerSm::doUpdate(key);
      commands.emplace_back(NatRequestQueue::update, key);
   }
   void doDel(NatHwKey const& key) override {
      NatAsyncProgrammerSm::doDel(key);
      commands.emplace_back(NatRequestQueue::del, key);
   }
};

class AsyncHelperTest : public ::testing::Test {
 protected:
   void SetUp() override { build(natHwShadowFactory("natHwShadow")); }

   // A fresh agent side (helper, directories, programmer) on `shadow`.
   void build(Vor::Ptr<NatHwShadow> const& shadow) {
      programmer = nullptr;
      configDir = natAsyncHwConfigDirFactory();
      statusDir = natAsyncHwStatusDirFactory();
      hwShadow = shadow;
      helper = natAsyncHelperFactory();
      helper->asyncHwConfigDirIs(configDir);
      helper->asyncHwStatusDirIs(statusDir);
      helper->hwShadowIs(hwShadow);
      aclConfig = natAclConfigFactory();
      helper->aclHelperIs(natAclHelperFactory(aclConfig, natAclStatusFactory()));
      helper->hwInit();
      programmer = Vor::Ptr<TestProgrammer>(new TestProgrammer(configDir, statusDir));
      programmer->hasNotificationActiveIs(true);
      programmer->initializedIs(true);
      seen.clear();
   }

   // Hands every changed or vanished answer to the helper until none changes.
   void pump() {
      for (bool changed = true; changed;) {
         changed = false;
         for (auto const& m : statusDir->status()) {
            auto it = seen.find(m.key());
            if (it != seen.end() && it->second == m.value()->state()) continue;
            seen[m.key()] = m.value()->state();
            helper->doHandleAsyncHwStatus(m.key());
            changed = true;
            break;
         }
         if (changed) continue;
         for (auto it = seen.begin(); it != seen.end(); ++it) {
            if (statusDir->status(it->first)) continue;
            NatHwKey const key = it->first;
            seen.erase(it);
            helper->doHandleAsyncHwStatus(key);
            changed = true;
            break;
         }
      }
   }
   // The programmer's answer to the running command of `key`.
   void finish(NatHwKey const& key, State state = NatAsyncHwStatus::success) {
      pump();
      ASSERT_TRUE(statusDir->status(key)) << key.stringValue();
      ASSERT_EQ(statusDir->status(key)->state(), NatAsyncHwStatus::inProgress) << key.stringValue();
      statusDir->status(key)->stateIs(state);
      pump();
   }

   OpType op(NatHwKey const& key) const {
      auto c = configDir->config(key);
      return c ? c->opType() : NatRequestQueue::unknown;
   }
   bool hasConfig(NatHwKey const& key) const { return static_cast<bool>(configDir->config(key)); }
   Dirty dirty(NatHwKey const& key) const { return hwShadow->entry(key).dirty(); }
   std::vector<NatRequestQueue::Request> queue(NatHwKey const& key) const {
      std::vector<NatRequestQueue::Request> out;
      if (auto q = helper->requestQueueDir()->requestQ(key)) {
         for (U32 i = q->pendingMetadata().head; i < q->pendingMetadata().tail; ++i) out.push_back(q->pending(i));
      }
      return out;
   }

   static std::pair<NatHwKey, NatHwKey> keysOf(Ip::Nat::NatStaticConnection const& conn, U16 vlan = 10) {
      NatHwKey src;
      NatHwKey dst;
      src.keyTypeIs(NatHwKey::staticSnat);
      dst.keyTypeIs(NatHwKey::staticDnat);
      NatHwData srcData;
      NatHwData dstData;
      NatAsyncHelper::doPopulateStaticNatHwKeyAndData(src, srcData, dst, dstData, conn, vlan, conn.key(),
                                                      nullptr, nullptr, nullptr, false, false);
      return {src, dst};
   }
   static NatHwKey sibling(NatHwKey key, U32 i) {
      key.filterAddrIdIs(i);
      return key;
   }
   void addStatic(Ip::Nat::NatStaticConnection const& conn, U16 vlan = 10) {
      helper->addStaticIpTranslations(conn, vlan, conn.key(), nullptr, nullptr, 0, false);
      pump();
   }
   void delStatic(Ip::Nat::NatStaticConnection const& conn, U16 vlan = 10) {
      helper->deleteStaticIpTranslations(conn, vlan, conn.key(), 0);
      pump();
   }
   // A twice NAT key: one entry, simple to put through every state.
   NatHwKey twiceKey() const {
      NatHwKey key(NatHwKey::twiceNatForward, ipp(1), ipp(2), ipp(3), ipp(4));
      key.groupIdIs(5);
      return key;
   }
   void addTwice(U16 vlan) {
      helper->addTwiceNatTranslation(ipp(1), ipp(2), ipp(3), ipp(4), 6, vlan, nullptr, nullptr, true, 5, 0, false);
      pump();
   }
   void delTwice(U16 vlan) {
      helper->delTwiceNatTranslation(ipp(1), ipp(2), ipp(3), ipp(4), vlan, true, 5, 0);
      pump();
   }

   Vor::Ptr<NatAsyncHwConfigDir> configDir;
   Vor::Ptr<NatAsyncHwStatusDir> statusDir;
   Vor::Ptr<NatHwShadow> hwShadow;
   Vor::Ptr<NatAsyncHelper> helper;
   Vor::Ptr<NatAclConfig> aclConfig;
   Vor::Ptr<TestProgrammer> programmer;
   std::unordered_map<NatHwKey, State> seen;
};

TEST_F(AsyncHelperTest, OneCommandProgramsEverySiblingAndSuccessCleansEntryZero) {
   auto const conn = rule(0x0a000001, 0xc0000201);
   auto const [src, dst] = keysOf(conn);
   addStatic(conn);
   for (NatHwKey const& key : {src, dst}) {
      EXPECT_EQ(op(key), NatRequestQueue::add);
      EXPECT_FALSE(hasConfig(sibling(key, 1))) << "siblings have no command of their own";
      EXPECT_EQ(dirty(key), NatHwShadowEntry::setting);
      ASSERT_TRUE(hwShadow->entryHas(sibling(key, 1)));
      EXPECT_EQ(dirty(sibling(key, 1)), NatHwShadowEntry::clean) << "only entry 0 carries the flag";
      EXPECT_EQ(hwShadow->entry(sibling(key, 1)).data().filterAddr(), filter(0xcb007100u));
      EXPECT_EQ(hwShadow->entry(key).data().numFilterAddrs(), 2u);
   }
   EXPECT_EQ(programmer->addCount(), 2u);
   finish(src);
   EXPECT_EQ(op(src), NatRequestQueue::idle);
   EXPECT_EQ(dirty(src), NatHwShadowEntry::clean);
   EXPECT_EQ(statusDir->status(src)->state(), NatAsyncHwStatus::idle);
   EXPECT_EQ(op(dst), NatRequestQueue::add) << "keys are independent";
   finish(dst);
   EXPECT_EQ(helper->requestQueueDir()->requestQs(), 0u);
}

TEST_F(AsyncHelperTest, AddWhileTheOldDeleteRunsWaitsUntilTheAnswerHasGone) {
   auto const conn = rule(0x0a000001, 0xc0000201);
   auto const [src, dst] = keysOf(conn);
   addStatic(conn);
   finish(src);
   finish(dst);
   delStatic(conn);
   EXPECT_EQ(op(src), NatRequestQueue::del);
   EXPECT_EQ(dirty(src), NatHwShadowEntry::clearing);
   EXPECT_EQ(hwShadow->entry(src).data(), NatHwData()) << "the tombstone carries no data";
   EXPECT_FALSE(hwShadow->entryHas(sibling(src, 1))) << "siblings go at once";

   addStatic(conn);
   EXPECT_EQ(op(src), NatRequestQueue::del) << "the add waits behind the delete";
   ASSERT_EQ(queue(src).size(), 1u);
   EXPECT_EQ(queue(src)[0].type(), NatRequestQueue::add);
   ASSERT_EQ(queue(sibling(src, 1)).size(), 1u) << "each filter address waits in its sibling's queue";

   // Success of the delete removes the tombstone and the command; only when
   // the programmer has dropped the answer too does the add start, with no
   // command left behind.
   finish(src);
   EXPECT_EQ(op(src), NatRequestQueue::add);
   EXPECT_EQ(dirty(src), NatHwShadowEntry::setting);
   EXPECT_TRUE(hwShadow->entryHas(sibling(src, 1)));
   EXPECT_FALSE(helper->requestQueueDir()->requestQ(src)) << "queue 0 goes when empty";
   finish(src);
   EXPECT_EQ(op(src), NatRequestQueue::idle);
}

TEST_F(AsyncHelperTest, DeleteWhileAnAddRunsIsPlayedAfterIt) {
   auto const conn = rule(0x0a000001, 0xc0000201, {0xc6336400u});
   auto const [src, dst] = keysOf(conn);
   addStatic(conn);
   delStatic(conn);
   EXPECT_EQ(op(src), NatRequestQueue::add) << "the running add is not disturbed";
   ASSERT_EQ(queue(src).size(), 1u);
   EXPECT_EQ(queue(src)[0].type(), NatRequestQueue::del);
   finish(src);
   EXPECT_EQ(op(src), NatRequestQueue::del) << "confirmed idle, then the delete plays";
   EXPECT_EQ(dirty(src), NatHwShadowEntry::clearing);
   finish(src);
   EXPECT_FALSE(hasConfig(src));
   EXPECT_FALSE(hwShadow->entryHas(src));
   EXPECT_FALSE(statusDir->status(src));
}

TEST_F(AsyncHelperTest, FailureCollapsesTheQueueToDeleteLastAddLastUpdate) {
   NatHwKey const key = twiceKey();
   addTwice(10);
   NatHwData d1;
   d1.nextHopIdIs(1);
   NatHwData d2;
   d2.nextHopIdIs(2);
   NatHwData d3;
   d3.nextHopIdIs(3);
   Ip::Nat::NatStaticConnection const none;
   doEnqueueIpTranslation(helper->requestQueueDir(), key, d1, none, NatRequestQueue::add);
   doEnqueueIpTranslation(helper->requestQueueDir(), key, d2, none, NatRequestQueue::update);
   doEnqueueIpTranslation(helper->requestQueueDir(), key, d3, none, NatRequestQueue::update);
   pump();
   statusDir->status(key)->stateIs(NatAsyncHwStatus::failed);
   seen[key] = NatAsyncHwStatus::failed;
   EXPECT_TRUE(helper->doHandleAsyncHwStatus(key)) << "a new attempt is planned";
   EXPECT_FALSE(helper->failedHwKey()->entryHas(key));
   auto const q = queue(key);
   ASSERT_EQ(q.size(), 3u);
   EXPECT_EQ(q[0], NatRequestQueue::Request(NatRequestQueue::del, NatHwData()));
   EXPECT_EQ(q[1], NatRequestQueue::Request(NatRequestQueue::add, d1));
   EXPECT_EQ(q[2], NatRequestQueue::Request(NatRequestQueue::update, d3));
   EXPECT_EQ(op(key), NatRequestQueue::idle);
}

TEST_F(AsyncHelperTest, FailureWithNothingWaitingLeavesAFailedKeyAndCleansHardware) {
   NatHwKey const key = twiceKey();
   addTwice(10);
   finish(key, NatAsyncHwStatus::failed);
   EXPECT_TRUE(helper->failedHwKey()->entryHas(key));
   // The queued delete plays on the programmer's idle: hardware may hold a
   // part of what it refused.
   EXPECT_EQ(op(key), NatRequestQueue::del);
   finish(key);
   EXPECT_FALSE(hwShadow->entryHas(key));
   EXPECT_FALSE(hasConfig(key));
   EXPECT_TRUE(helper->failedHwKey()->entryHas(key)) << "failed until the rule is deleted";

   // A new VLAN of a failed key touches nothing; only the last reference
   // clears the failure.
   auto const commands = programmer->commands.size();
   addTwice(20);
   EXPECT_EQ(programmer->commands.size(), commands);
   EXPECT_FALSE(hasConfig(key));
   delTwice(20);
   EXPECT_TRUE(helper->failedHwKey()->entryHas(key));
   delTwice(10);
   EXPECT_FALSE(helper->failedHwKey()->entryHas(key));
   EXPECT_EQ(programmer->commands.size(), commands);
}

TEST_F(AsyncHelperTest, TheSixtyFifthVlanIsReportedAndKeptOutOfHardware) {
   Vor::CapturingLogSink logs;
   NatHwKey const key = twiceKey();
   for (U16 vlan = 1; vlan <= 64; ++vlan) {
      addTwice(vlan);
      finish(key);
   }
   NatHwData const before = hwShadow->entry(key).data();
   ASSERT_EQ(before.vlanIds(), 64u);
   auto const commands = programmer->commands.size();
   addTwice(100);
   EXPECT_EQ(helper->vlanRef(key).ids(), 65u) << "the reference is kept";
   EXPECT_EQ(hwShadow->entry(key).data(), before);
   EXPECT_EQ(programmer->commands.size(), commands);
   EXPECT_EQ(op(key), NatRequestQueue::idle);
   ASSERT_EQ(logs.messages().size(), 1u);
   EXPECT_THAT(logs.messages()[0].text, ::testing::HasSubstr("Cannot add VLAN 100. Interface count: 65, Maximum interfaces: 64."));
   // Removing it updates hardware to the 64 others: no change of data.
   delTwice(100);
   EXPECT_EQ(op(key), NatRequestQueue::update);
   EXPECT_EQ(hwShadow->entry(key).data(), before);
}

TEST_F(AsyncHelperTest, ForceAddOnAnIdleKeyReprogramsIt) {
   NatHwKey const key = twiceKey();
   addTwice(10);
   finish(key);
   statusDir->status(key)->stateIs(NatAsyncHwStatus::forceAdd);
   pump();
   EXPECT_EQ(dirty(key), NatHwShadowEntry::setting);
   EXPECT_EQ(op(key), NatRequestQueue::add);
   EXPECT_EQ(programmer->commands.back(), std::make_pair(NatRequestQueue::add, key));
}

TEST_F(AsyncHelperTest, TwoVlansOnOneStaticConnectionMakeOneEntryWithBoth) {
   auto const conn = rule(0x0a000001, 0xc0000201, {0xc6336400u});
   auto const [src, dst] = keysOf(conn);
   addStatic(conn, 10);
   finish(src);
   addStatic(conn, 20);
   EXPECT_EQ(op(src), NatRequestQueue::update);
   NatHwData const data = hwShadow->entry(src).data();
   ASSERT_EQ(data.vlanIds(), 2u);
   EXPECT_EQ(data.vlanId(0), 10);
   EXPECT_EQ(data.vlanId(1), 20);
   EXPECT_EQ(op(dst), NatRequestQueue::add) << "the second VLAN waits behind the add in flight";
   ASSERT_EQ(queue(dst).size(), 1u);
   EXPECT_EQ(queue(dst)[0].type(), NatRequestQueue::update);
}

// ---- replay after a restart of the agent ----

class AsyncReplayTest : public AsyncHelperTest {
 protected:
   // Programs `conns` to clean, then builds a new agent side on the same
   // shadow, which replays `replayed`.
   void restartWith(std::vector<Ip::Nat::NatStaticConnection> const& replayed) {
      build(hwShadow);
      helper->replayIs(true);
      for (auto const& conn : replayed) addStatic(conn);
      EXPECT_EQ(configDir->configs(), 0u) << "nothing is commanded during the replay";
      helper->replayIs(false);
      helper->replayReconcile();
      pump();
   }
   void programClean(Ip::Nat::NatStaticConnection const& conn) {
      addStatic(conn);
      auto const [src, dst] = keysOf(conn);
      finish(src);
      finish(dst);
   }
};

TEST_F(AsyncReplayTest, UnchangedRulesGoIdleChangedAreReplacedRemovedAreSwept) {
   auto const same = rule(0x0a000001, 0xc0000201);
   auto const changed = rule(0x0a000002, 0xc0000202);
   auto const removed = rule(0x0a000003, 0xc0000203);
   programClean(same);
   programClean(changed);
   programClean(removed);
   auto changedNow = changed;
   changedNow.filterAddressIs(filter(0x0b000000u), true);   // a third filter address

   restartWith({same, changedNow});
   auto const [sameSrc, sameDst] = keysOf(same);
   auto const [chSrc, chDst] = keysOf(changed);
   auto const [rmSrc, rmDst] = keysOf(removed);
   EXPECT_EQ(op(sameSrc), NatRequestQueue::idle);
   EXPECT_EQ(op(sameDst), NatRequestQueue::idle);
   EXPECT_EQ(statusDir->status(sameSrc)->state(), NatAsyncHwStatus::idle);
   EXPECT_EQ(op(chSrc), NatRequestQueue::del) << "the old version leaves first";
   EXPECT_EQ(queue(chSrc).size(), 1u);
   EXPECT_EQ(queue(sibling(chSrc, 2)).size(), 1u);
   EXPECT_EQ(op(rmSrc), NatRequestQueue::del) << "swept: nothing wants it";
   EXPECT_EQ(dirty(rmSrc), NatHwShadowEntry::clearing);
   EXPECT_FALSE(hwShadow->entryHas(sibling(rmSrc, 1))) << "its siblings go at once";
   EXPECT_FALSE(hasConfig(sibling(sameSrc, 1))) << "the sweep looks at entry 0 only";
   for (auto const& [kind, key] : programmer->commands) {
      EXPECT_NE(key, sameSrc);
      EXPECT_NE(key, sameDst);
   }
   finish(chSrc);
   EXPECT_EQ(op(chSrc), NatRequestQueue::add);
   EXPECT_EQ(hwShadow->entry(chSrc).data().numFilterAddrs(), 3u);
   finish(rmSrc);
   EXPECT_FALSE(hwShadow->entryHas(rmSrc));
}

TEST_F(AsyncReplayTest, ADirtyEntryWithTheSameDataIsProgrammedAgain) {
   auto const conn = rule(0x0a000001, 0xc0000201);
   addStatic(conn);   // left `setting`: the agent died before the answer
   auto const [src, dst] = keysOf(conn);
   restartWith({conn});
   EXPECT_EQ(op(src), NatRequestQueue::add);
   EXPECT_TRUE(queue(src).empty());
   finish(src);
   EXPECT_EQ(op(src), NatRequestQueue::idle);
}

TEST_F(AsyncReplayTest, AClearingEntryGoesThroughTombstoneAndQueue) {
   auto const conn = rule(0x0a000001, 0xc0000201);
   programClean(conn);
   delStatic(conn);   // the agent dies with the delete in flight
   auto const [src, dst] = keysOf(conn);
   ASSERT_EQ(dirty(src), NatHwShadowEntry::clearing);
   restartWith({conn});
   EXPECT_EQ(op(src), NatRequestQueue::del);
   ASSERT_EQ(queue(src).size(), 1u);
   EXPECT_EQ(queue(src)[0].type(), NatRequestQueue::add);
   finish(src);
   finish(src);
   EXPECT_EQ(op(src), NatRequestQueue::idle);
   EXPECT_EQ(dirty(src), NatHwShadowEntry::clean);
   EXPECT_TRUE(hwShadow->entryHas(sibling(src, 1)));
}

TEST_F(AsyncReplayTest, TheFilterAddressWalkStopsAtTheFirstDifference) {
   auto const old = rule(0x0a000001, 0xc0000201, {0x01000000u, 0x02000000u, 0x03000000u});
   programClean(old);
   auto const now = rule(0x0a000001, 0xc0000201, {0x01000000u, 0x02000000u, 0x04000000u});
   auto const [src, dst] = keysOf(old);
   NatHwData const oldThird = hwShadow->entry(sibling(src, 2)).data();
   restartWith({now});
   // The whole old connection is replaced: tombstone, siblings gone, and
   // the new version queued in full.
   EXPECT_EQ(op(src), NatRequestQueue::del);
   EXPECT_FALSE(hwShadow->entryHas(sibling(src, 2)));
   EXPECT_EQ(queue(sibling(src, 2)).size(), 1u);
   EXPECT_NE(queue(sibling(src, 2))[0].data().filterAddr(), oldThird.filterAddr());
}

// ---- broken invariants ----

using AsyncHelperDeathTest = AsyncHelperTest;

TEST_F(AsyncHelperDeathTest, DisagreementsWithTheShadowEndTheAgent) {
   NatHwKey const key = twiceKey();
   EXPECT_DEATH(doClearDirtyInHwShadowEntry(hwShadow, key), "0 && \"shadow state inconsistency\"");
   EXPECT_DEATH(doSetDirtyInHwShadowEntry(hwShadow, key), "hwShadow->entryHas\\( hwKey \\)");
   addTwice(10);
   EXPECT_DEATH(addTwice(10), "!vlanRef\\( key \\).idHas\\( vlanId \\)");
   finish(key);
   // A delete never fails.
   delTwice(10);
   statusDir->status(key)->stateIs(NatAsyncHwStatus::failed);
   EXPECT_DEATH(helper->doHandleAsyncHwStatus(key),
                "opType == NatRequestQueue::add\\(\\) \\|\\| opType == NatRequestQueue::update\\(\\)");
}

TEST_F(AsyncHelperDeathTest, RequestsThatCannotBeQueuedEndTheAgent) {
   Ip::Nat::NatStaticConnection const conn = rule(1, 2);
   auto const [src, dst] = keysOf(conn);
   NatHwData data;
   data.nextHopIdIs(9);
   EXPECT_DEATH(doEnqueueIpTranslation(helper->requestQueueDir(), src, data, conn, NatRequestQueue::update),
                "optype not add");
   EXPECT_DEATH(doEnqueueIpTranslation(helper->requestQueueDir(), src, data, {}, NatRequestQueue::del), "!data");
   EXPECT_DEATH(doEnqueueIpTranslation(helper->requestQueueDir(), twiceKey(), data, conn, NatRequestQueue::add),
                "!connEntry");
   EXPECT_DEATH(doEnqueueIpTranslation(helper->requestQueueDir(), NatHwKey(), data, {}, NatRequestQueue::add),
                "invalid translation type");
   EXPECT_DEATH(helper->addStaticIpTranslations(rule(1, 2, {}), 10, conn.key(), nullptr, nullptr, 0, false),
                "no filterAddr in connEntry");
}

} // namespace
