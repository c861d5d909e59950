// The asynchronous pipeline end to end: root, interface engines, the
// asynchronous helper, the shadow on a shared-memory table, and the
// simulated programmer on a chip that outlives the agent. Restarts of either
// side, and a randomized run that checks the chip against the configuration.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <set>

#include "sim/SimAsyncViews.h"
#include "sim/SimSystem.h"

namespace {

using Sim::SimOptions;
using Sim::SimSystem;
using Ulo::NatHwKey;

Lumet::IpAndPort ipp(Vor::U32 ip) { return Lumet::IpAndPort(Lumet::IpAddr(ip), 0); }
Lumet::IpAddrWithFullMask filter(Vor::U32 ip) { return Lumet::IpAddrWithFullMask(Lumet::IpAddr(ip), 0xffffff00u); }

Ip::Nat::NatStaticConnection rule(Vor::U32 local, Vor::U32 global, std::vector<Vor::U32> filters, Vor::U16 vlan) {
   Ip::Nat::NatStaticConnection conn(Ip::Nat::StaticKey(ipp(local)), ipp(global), Ip::Nat::source_, 0, vlan, true);
   for (Vor::U32 f : filters) conn.filterAddressIs(filter(f), true);
   return conn;
}

// The two hardware keys of a static connection (entry 0 of each).
std::pair<NatHwKey, NatHwKey> keysOf(Ip::Nat::NatStaticConnection const& conn) {
   NatHwKey src;
   NatHwKey dst;
   src.keyTypeIs(NatHwKey::staticSnat);
   dst.keyTypeIs(NatHwKey::staticDnat);
   Ulo::NatHwData srcData;
   Ulo::NatHwData dstData;
   Ulo::NatAsyncHelper::doPopulateStaticNatHwKeyAndData(src, srcData, dst, dstData, conn, conn.vlanId(), conn.key(),
                                                        nullptr, nullptr, nullptr, false, false);
   return {src, dst};
}

// Every field, filterAddrId included.
struct KeyLess {
   bool operator()(NatHwKey const& a, NatHwKey const& b) const {
      if (a < b) return true;
      if (b < a) return false;
      return a.filterAddrId() < b.filterAddrId();
   }
};

struct TempDir {
   std::string path;
   TempDir() {
      char tmpl[] = "/tmp/ulonat-async-XXXXXX";
      path = mkdtemp(tmpl);
   }
   ~TempDir() { std::filesystem::remove_all(path); }
};

class AsyncPipelineTest : public ::testing::Test {
 protected:
   void build(double delay = 0.0, std::size_t capacity = 100000) {
      SimOptions options;
      options.async = true;
      options.shadowRoot = dir.path;
      options.capacity = capacity;
      options.programmerDelay = delay;
      sys_ = std::make_unique<SimSystem>(options);
      for (int i = 0; i < kIntfs; ++i) sys().intfIs(intf(i), "default", intf(i).stringValue(), {{intf(i), vlan(i)}});
      sys().vrfIs("default", 0);
      sys().start();
   }
   static Lumet::IntfId intf(int i) { return Lumet::IntfId("Ethernet" + std::to_string(i + 1)); }
   static Vor::U16 vlan(int i) { return static_cast<Vor::U16>(10 + i); }
   void settle() {
      sys().runFor(60.0);
      sys().runUntilIdle();
   }
   SimSystem& sys() { return *sys_; }

   // Everything at rest: the chip holds exactly the configured connections
   // that are not failed keys, each as the shadow says; every connection's
   // entry 0 in the shadow is clean;
   // every command is idle and confirmed; no request waits.
   void expectConsistent() {
      std::set<NatHwKey, KeyLess> wanted;
      for (auto const& [intfId, is] : sys().status()->intfStatus()) {
         for (auto const& [key, conn] : is->staticConnection()) {
            auto const [src, dst] = keysOf(conn);
            for (NatHwKey const& k : {src, dst}) {
               if (!sys().asyncHelper()->failedHwKey()->entryHas(k)) wanted.insert(k);
            }
         }
      }
      std::set<NatHwKey, KeyLess> onChip;
      sys().chip()->forEach([&](NatHwKey const& key, Ulo::NatHwData const& data) {
         Ulo::NatHwShadowEntry const entry = sys().hwShadow()->entry(key);
         EXPECT_EQ(entry.key(), key) << "on the chip, not in the shadow: " << key.stringValue();
         EXPECT_EQ(entry.data(), data) << key.stringValue();
         if (key.filterAddrId() == 0) onChip.insert(key);
      });
      EXPECT_EQ(onChip, wanted);
      std::size_t shadowEntries = 0;
      sys().hwShadow()->entryForEach([&](Ulo::NatHwShadowEntry const& entry) {
         ++shadowEntries;
         // An update sets every sibling dirty, and only entry 0 is cleared on
         // success: a connection is judged by its entry 0.
         if (entry.key().filterAddrId() == 0) {
            EXPECT_EQ(entry.dirty(), Ulo::NatHwShadowEntry::clean) << entry.key().stringValue();
         }
         return true;
      });
      EXPECT_EQ(shadowEntries, sys().chip()->entries());
      for (auto const& m : sys().asyncHwConfigDir()->config()) {
         EXPECT_EQ(m.value()->opType(), Ulo::NatRequestQueue::idle) << m.key().stringValue();
         auto status = sys().asyncHwStatusDir()->status(m.key());
         ASSERT_TRUE(status) << m.key().stringValue();
         EXPECT_EQ(status->state(), Ulo::NatAsyncHwStatus::idle) << m.key().stringValue();
      }
      EXPECT_EQ(sys().asyncHwStatusDir()->statuss(), sys().asyncHwConfigDir()->configs());
      for (auto const& m : sys().asyncHelper()->requestQueueDir()->requestQ()) {
         EXPECT_TRUE(m.value()->pendingEmpty()) << m.key().stringValue();
      }
      EXPECT_EQ(sys().programmer()->pending(), 0u);
   }

   static constexpr int kIntfs = 3;
   TempDir dir;
   std::unique_ptr<SimSystem> sys_;
};

TEST_F(AsyncPipelineTest, ARestartWithNothingChangedTouchesNothing) {
   build(0.5);
   sys().staticIs(intf(0), rule(0x0a000001, 0xc0000201, {0x01000000u, 0x02000000u}, vlan(0)));
   sys().staticIs(intf(1), rule(0x0a000002, 0xc0000202, {0x01000000u}, vlan(1)));
   EXPECT_EQ(sys().chip()->entries(), 0u) << "nothing is programmed before the answers";
   settle();
   ASSERT_EQ(sys().chip()->entries(), 6u);
   auto const before = sys().chip()->counts();
   sys().restart();
   settle();
   EXPECT_EQ(sys().chip()->counts(), before);
   EXPECT_EQ(sys().programmer()->addCount(), 0u);
   EXPECT_EQ(sys().programmer()->steadyStates(), 4u) << "each key only confirmed";
   expectConsistent();
}

TEST_F(AsyncPipelineTest, TheRestartedAgentReprogramsOnlyWhatChangedWhileItWasAway) {
   build();
   auto const same = rule(0x0a000001, 0xc0000201, {0x01000000u, 0x02000000u}, vlan(0));
   auto const changed = rule(0x0a000002, 0xc0000202, {0x01000000u}, vlan(0));
   auto const removed = rule(0x0a000003, 0xc0000203, {0x01000000u, 0x02000000u}, vlan(1));
   sys().staticIs(intf(0), same);
   sys().staticIs(intf(0), changed);
   sys().staticIs(intf(1), removed);
   settle();
   ASSERT_EQ(sys().chip()->entries(), 10u);

   // The central state store changes while the agent is away.
   sys().agentDown();
   auto changedNow = changed;
   changedNow.filterAddressIs(filter(0x03000000u), true);
   sys().staticIs(intf(0), changedNow);
   sys().staticDel(intf(1), removed.key());
   auto const before = sys().chip()->counts();
   sys().agentUp();
   settle();
   auto const after = sys().chip()->counts();
   auto const [sameSrc, sameDst] = keysOf(same);
   auto const [rmSrc, rmDst] = keysOf(removed);
   // Unchanged: its 4 entries untouched. Changed: its 2 old entries removed
   // and 4 new written (2 filter addresses, 2 halves). Removed: 4 entries
   // swept.
   EXPECT_EQ(after.removals - before.removals, 2u + 4u);
   EXPECT_EQ(after.writes - before.writes, 4u);
   EXPECT_EQ(after.rewrites - before.rewrites, 0u);
   EXPECT_TRUE(sys().chip()->connection(sameSrc));
   EXPECT_FALSE(sys().chip()->connection(rmSrc));
   EXPECT_FALSE(sys().chip()->connection(rmDst));
   expectConsistent();
}

// Two interfaces on one VLAN deliver the same rule twice, and the second
// delivery withdraws the first version's references before it adds. In the
// replay nothing has been issued yet, so the withdrawal must not reach the
// pipeline (it used to end the agent on "asyncHwConfigDir()->configHas( hwKey )").
TEST_F(AsyncPipelineTest, AReplayThatMeetsARuleTwiceOnOneVlanKeepsItUntouched) {
   build(0.2);
   Lumet::IntfId const twin("Ethernet9");
   sys().intfIs(twin, "default", twin.stringValue(), {{twin, vlan(0)}});
   auto const conn = rule(0x0a000001, 0xc0000201, {0x01000000u, 0x02000000u}, vlan(0));
   auto const other = rule(0x0a000002, 0xc0000202, {0x01000000u}, vlan(0));
   sys().staticIs(intf(0), conn);
   sys().staticIs(twin, conn);
   sys().staticIs(twin, other);
   settle();
   ASSERT_EQ(sys().chip()->entries(), 6u);
   auto const before = sys().chip()->counts();
   sys().restart();
   settle();
   EXPECT_EQ(sys().chip()->counts(), before);
   expectConsistent();

   // While the agent is away the twin's rule goes: the replay announces the
   // key once (from the first interface) and reprograms nothing.
   sys().agentDown();
   sys().staticDel(twin, conn.key());
   sys().agentUp();
   settle();
   EXPECT_EQ(sys().chip()->counts(), before);
   expectConsistent();
}

// Twice groups through the pipeline: each group a forward and a reverse key,
// programmed as the shadow says, kept untouched across a restart, and a
// group removed while the agent was away swept from the chip as a pair.
TEST_F(AsyncPipelineTest, TwiceGroupsGoThroughThePipelineAndSurviveARestart) {
   build(0.3);
   auto twice = [](Vor::U16 group, Vor::U32 n) {
      return Ip::Nat::NatTwiceConnection(group, ipp(0x0a000000u + n), ipp(0xc6336400u + n), ipp(0xc0000200u + n),
                                         ipp(0xcb007100u + n), 0, vlan(0));
   };
   sys().twiceIs(intf(0), twice(5, 7));
   sys().twiceIs(intf(0), twice(6, 8));
   sys().staticIs(intf(0), rule(0x0a000001, 0xc0000201, {0x01000000u}, vlan(0)));
   settle();
   EXPECT_EQ(sys().hwTwiceCount(), 2u);
   EXPECT_EQ(sys().chip()->entries(), 6u);
   EXPECT_TRUE(sys().asyncSettled());
   EXPECT_EQ(Sim::asyncChipMismatches(sys()), std::vector<std::string>());

   auto const before = sys().chip()->counts();
   sys().restart();
   settle();
   EXPECT_EQ(sys().chip()->counts(), before);
   EXPECT_EQ(sys().hwTwiceCount(), 2u);

   sys().agentDown();
   sys().twiceDel(intf(0), 6);
   sys().agentUp();
   settle();
   EXPECT_EQ(sys().chip()->counts().removals - before.removals, 2u);
   EXPECT_EQ(sys().chip()->counts().writes, before.writes);
   EXPECT_EQ(sys().chip()->entries(), 4u);
   EXPECT_TRUE(sys().asyncSettled());
   EXPECT_EQ(Sim::asyncChipMismatches(sys()), std::vector<std::string>());
}

TEST_F(AsyncPipelineTest, AProgrammerRestartRunsWhatArrivedWhileItWasStopped) {
   build();
   sys().programmer()->deInit();
   auto const conn = rule(0x0a000001, 0xc0000201, {0x01000000u, 0x02000000u}, vlan(0));
   sys().staticIs(intf(0), conn);
   settle();
   EXPECT_EQ(sys().chip()->entries(), 0u);
   sys().programmer()->initializedIs(true);
   settle();
   EXPECT_EQ(sys().chip()->entries(), 4u);
   expectConsistent();
}

TEST_F(AsyncPipelineTest, RefusalsBecomeFailedKeysAndForceAddProgramsAgain) {
   build(0.1);
   auto const conn = rule(0x0a000001, 0xc0000201, {0x01000000u}, vlan(0));
   auto const [src, dst] = keysOf(conn);
   sys().programmer()->failKeyIs(src, true);
   sys().staticIs(intf(0), conn);
   settle();
   EXPECT_TRUE(sys().asyncHelper()->failedHwKey()->entryHas(src));
   EXPECT_FALSE(sys().chip()->connection(src));
   EXPECT_TRUE(sys().chip()->connection(dst));
   expectConsistent();

   auto const before = sys().chip()->counts();
   sys().programmer()->forceAddIs(dst);
   settle();
   EXPECT_EQ(sys().chip()->counts().rewrites - before.rewrites, 1u);
   expectConsistent();

   sys().staticDel(intf(0), conn.key());
   settle();
   EXPECT_FALSE(sys().asyncHelper()->failedHwKey()->entryHas(src));
   EXPECT_EQ(sys().chip()->entries(), 0u);
   expectConsistent();
}

// Many rules added, changed and removed, with random programmer delays,
// refusals, and restarts of either side. Bounded for CI; ULONAT_LONG=1 runs
// longer, ULONAT_SEED picks the seed.
TEST_F(AsyncPipelineTest, RandomizedRunEndsWithTheChipMatchingTheConfiguration) {
   bool const longMode = std::getenv("ULONAT_LONG") != nullptr;
   unsigned const seed = std::getenv("ULONAT_SEED") ? static_cast<unsigned>(std::atoi(std::getenv("ULONAT_SEED")))
                                                    : std::random_device()();
   int const steps = longMode ? 20000 : 1500;
   std::printf("randomized async pipeline: seed %u, %d steps\n", seed, steps);
   std::mt19937 rng(seed);
   auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
   build(0.0);
   int restarts = 0;
   for (int step = 0; step < steps; ++step) {
      int const what = pick(100);
      int const i = pick(kIntfs);
      Vor::U32 const local = 0x0a000000u + static_cast<Vor::U32>(pick(40));
      if (what < 45) {
         std::vector<Vor::U32> filters;
         for (int f = 0, n = 1 + pick(3); f < n; ++f) filters.push_back(0x01000000u * static_cast<Vor::U32>(1 + pick(4)));
         sys().staticIs(intf(i), rule(local, 0xc0000200u + static_cast<Vor::U32>(pick(3)), filters, vlan(i)));
      } else if (what < 75) {
         sys().staticDel(intf(i), Ip::Nat::StaticKey(ipp(local)));
      } else if (what < 83) {
         sys().programmer()->delayIs(pick(3) * 0.2);
      } else if (what < 88) {
         sys().programmer()->refuseNextIs(static_cast<Vor::U32>(pick(3)));
      } else if (what < 90) {
         ++restarts;
         sys().restart();
      } else if (what < 92) {
         sys().programmer()->deInit();
         sys().runFor(0.3);
         sys().programmer()->initializedIs(true);
      } else {
         sys().runFor(pick(5) * 0.1);
      }
   }
   sys().programmer()->refuseNextIs(0);
   settle();
   std::printf("restarts %d, chip entries %zu, failed keys %zu\n", restarts, sys().chip()->entries(),
               sys().asyncHelper()->failedHwKey()->entrys());
   expectConsistent();
}

} // namespace
