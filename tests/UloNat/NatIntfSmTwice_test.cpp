// Twice NAT on the interface engine, end to end through the simulated chip:
// pairs in hardware together or not at all, half rules that program nothing
// and lose nothing, group removal, watched addresses shared between entries,
// the review, batches, the reprogramming of every twice connection by the
// root, and a model-based random run.

#include <cstdlib>
#include <iostream>
#include <random>

#include <gtest/gtest.h>

#include "sim/SimSystem.h"

namespace {

using Sim::SimOptions;
using Sim::SimSystem;
template <typename T>
using Ptr = Vor::Ptr<T>;

Lumet::IpAndPort ipp(char const* text) { return *Sim::parseIpAndPort(text); }
Lumet::IpAddr ip(char const* text) { return *Lumet::IpAddr::parse(text); }

Lumet::IntfId const eth1("Ethernet1");
Lumet::IntfId const eth2("Ethernet2");

Ip::Nat::NatTwiceConnection twice(Vor::U16 group, char const* srcOld, char const* dstOld, char const* srcNew,
                                  char const* dstNew, Vor::U8 protocol = 0, Vor::U16 vlan = 10) {
   return Ip::Nat::NatTwiceConnection(group, ipp(srcOld), ipp(dstOld), ipp(srcNew), ipp(dstNew), protocol, vlan);
}

Lumet::ConnTuple tupleOf(Ip::Nat::NatTwiceConnection const& conn) {
   return Lumet::ConnTuple(conn.srcOld(), conn.dstOld(), conn.protocol());
}

class NatTwiceTest : public ::testing::Test {
 protected:
   void start(SimOptions options = SimOptions()) {
      sys_ = std::make_unique<SimSystem>(options);
      sys().vrfIs("default", 0);
      sys().intfIs(eth1, "default", "Ethernet1", {{eth1, 10}});
      sys().start();
   }
   SimSystem& sys() { return *sys_; }
   Ptr<Ulo::NatIntfStatusSm> engine() { return sys().root()->natIntfStatusSm(eth1); }
   Ptr<Ip::Nat::HwIntfStatus> hw() { return sys().hwStatus()->intfStatus(eth1); }
   Ptr<Ulo::NatUnprogrammedEntries> unprogrammed() {
      return sys().root()->natSmStatus()->unprogrammedEntries(eth1);
   }
   // References of Ethernet1 to a watched address of VRF 0.
   Vor::U32 refs(char const* addr) {
      auto vrf = sys().root()->natSmStatus()->natSmStatusVrf(0);
      auto info = vrf ? vrf->ipAddrIntfInfo(ip(addr)) : Ptr<Ulo::NatIntfInfo>();
      return info ? info->intf(eth1) : 0;
   }
   bool routeRequested(char const* addr) {
      return sys().nhMapConfig()->routeResolverRequestHas(Ulo::VrfAndIpAddr(0, ip(addr)));
   }
   void expectWholePairs() {
      EXPECT_EQ(sys().helper()->halfTwicePairs(), 0u);
      EXPECT_EQ(sys().helper()->twiceEntries(), 2 * sys().hwTwiceCount());
   }
   std::unique_ptr<SimSystem> sys_;
};

TEST_F(NatTwiceTest, CompleteRuleProgramsForwardAndReverseAndWatchesBothAddresses) {
   SimOptions options;
   options.destinationNatNextHopNeeded = true;
   start(options);
   sys().nextHopIs(Ulo::VrfAndIpAddr(0, ip("203.0.113.1")), 31);
   sys().nextHopIs(Ulo::VrfAndIpAddr(0, ip("10.0.0.1")), 32);
   auto const conn = twice(1, "10.0.0.1:1000", "198.51.100.1:80", "192.0.2.1:2000", "203.0.113.1:8080", 6);
   sys().twiceIs(eth1, conn);

   auto const* fwd = sys().helper()->twiceEntry(true, 0, 10, 1, ipp("10.0.0.1:1000"), ipp("198.51.100.1:80"));
   auto const* rev = sys().helper()->twiceEntry(false, 0, 10, 1, ipp("203.0.113.1:8080"), ipp("192.0.2.1:2000"));
   ASSERT_TRUE(fwd);
   ASSERT_TRUE(rev);
   EXPECT_EQ(fwd->newIpAndPort, ipp("192.0.2.1:2000"));
   EXPECT_EQ(fwd->dstNewIpAndPort, ipp("203.0.113.1:8080"));
   EXPECT_EQ(fwd->nextHopId, 31u);
   EXPECT_EQ(rev->newIpAndPort, ipp("198.51.100.1:80"));
   EXPECT_EQ(rev->dstNewIpAndPort, ipp("10.0.0.1:1000"));
   EXPECT_EQ(rev->nextHopId, 32u);
   EXPECT_EQ(rev->protocol, 6);

   ASSERT_TRUE(hw()->twiceNatConnectionHw(1));
   EXPECT_FALSE(hw()->twiceNatConnectionHw(1)->dynamic());
   EXPECT_EQ(hw()->twiceNatConnectionHw(1)->entry(tupleOf(conn)),
             Ip::Nat::HwNatTwiceAddr(ipp("192.0.2.1:2000"), ipp("203.0.113.1:8080")));
   EXPECT_TRUE(hw()->twiceNatConnectionHw(1)->lastChangedTimeHas(tupleOf(conn)));
   EXPECT_EQ(refs("10.0.0.1"), 1u);
   EXPECT_EQ(refs("203.0.113.1"), 1u);
   EXPECT_TRUE(routeRequested("203.0.113.1"));

   // Replacing the rule reprograms in place; removing it takes both halves,
   // the group's record and the watches.
   sys().twiceIs(eth1, conn);
   EXPECT_EQ(sys().helper()->twiceEntries(), 2u);
   sys().twiceDel(eth1, 1);
   EXPECT_EQ(sys().helper()->twiceEntries(), 0u);
   EXPECT_FALSE(hw()->twiceNatConnectionHw(1));
   EXPECT_EQ(refs("10.0.0.1"), 0u);
   EXPECT_EQ(refs("203.0.113.1"), 0u);
   EXPECT_FALSE(routeRequested("203.0.113.1"));
   EXPECT_EQ(engine()->twiceWatchedAddr().watchedAddrKey().size(), 0u);
}

TEST_F(NatTwiceTest, RefusedReverseTakesTheForwardHalfOutAgain) {
   SimOptions options;
   options.capacity = 3;
   start(options);
   sys().twiceIs(eth1, twice(1, "10.0.0.1", "198.51.100.1", "192.0.2.1", "203.0.113.1"));
   // The second group's forward half takes the last entry; its reverse is
   // refused, so the forward half must go.
   sys().twiceIs(eth1, twice(2, "10.0.0.2", "198.51.100.2", "192.0.2.2", "203.0.113.2"));
   expectWholePairs();
   EXPECT_EQ(sys().helper()->entries().size(), 2u);
   EXPECT_FALSE(hw()->twiceNatConnectionHw(2));
   ASSERT_TRUE(unprogrammed());
   auto const key = Ulo::TwiceNatKey(2, tupleOf(twice(2, "10.0.0.2", "198.51.100.2", "192.0.2.2", "203.0.113.2")));
   EXPECT_TRUE(unprogrammed()->twiceEntriesHas(key));
   EXPECT_EQ(sys().logs().count("NAT_HW_RESOURCE_FULL"), 1u);
   // Nothing of the refused entry is watched.
   EXPECT_EQ(refs("203.0.113.2"), 0u);
   EXPECT_EQ(engine()->twiceWatchedAddr().keyWatchedAddr().size(), 1u);

   // The review retries it once there is room.
   sys().helper()->capacityIs(4);
   sys().runFor(6.0);
   expectWholePairs();
   EXPECT_TRUE(hw()->twiceNatConnectionHw(2));
   EXPECT_FALSE(unprogrammed());
   EXPECT_EQ(sys().logs().count("NAT_HW_RESOURCE_NORMAL"), 1u);
   EXPECT_EQ(refs("203.0.113.2"), 1u);
}

TEST_F(NatTwiceTest, HalfRuleProgramsNothingAndItsRemovalLosesNothing) {
   start();
   sys().twiceIs(eth1, twice(3, "0.0.0.0", "198.51.100.3", "192.0.2.3", "203.0.113.3"));
   sys().twiceIs(eth1, twice(4, "10.0.0.4", "0.0.0.0", "192.0.2.4", "203.0.113.4"));
   EXPECT_EQ(sys().helper()->counts().twiceAdds, 0u);
   EXPECT_EQ(hw()->twiceNatConnectionHws(), 0u);
   EXPECT_FALSE(unprogrammed());
   sys().twiceDel(eth1, 3);
   EXPECT_EQ(sys().helper()->counts().twiceDeletes, 0u);

   // A dynamic group's entries in hardware outlive the rule: removal moves
   // them to the unprogrammed set without the table-full message.
   auto const conn = twice(4, "10.0.0.4", "0.0.0.0", "192.0.2.4", "203.0.113.4");
   Lumet::ConnTuple const t1(ipp("10.0.0.4"), ipp("198.51.100.41"), 0);
   Lumet::ConnTuple const t2(ipp("10.0.0.4"), ipp("198.51.100.42"), 0);
   engine()->addTwiceHwEntry(t1, conn, Ip::Nat::HwNatTwiceAddr(ipp("192.0.2.4"), ipp("203.0.113.4")));
   engine()->addTwiceHwEntry(t2, conn, Ip::Nat::HwNatTwiceAddr(ipp("192.0.2.4"), ipp("203.0.113.4")));
   ASSERT_TRUE(hw()->twiceNatConnectionHw(4)->dynamic());
   sys().twiceDel(eth1, 4);
   ASSERT_TRUE(unprogrammed());
   EXPECT_TRUE(unprogrammed()->twiceEntriesHas(Ulo::TwiceNatKey(4, t1)));
   EXPECT_TRUE(unprogrammed()->twiceEntriesHas(Ulo::TwiceNatKey(4, t2)));
   EXPECT_FALSE(hw()->twiceNatConnectionHw(4));
   EXPECT_EQ(sys().logs().count("NAT_HW_RESOURCE_FULL"), 0u);

   // The review drops keys of a group that has left the configuration,
   // without touching hardware.
   auto const deletes = sys().helper()->counts().twiceDeletes;
   sys().runFor(6.0);
   EXPECT_FALSE(unprogrammed());
   EXPECT_EQ(sys().helper()->counts().twiceDeletes, deletes);
}

TEST_F(NatTwiceTest, RemovedGroupWithoutHardwareRecordForgetsItsUnprogrammedKeys) {
   SimOptions options;
   options.capacity = 0;
   start(options);
   sys().twiceIs(eth1, twice(5, "10.0.0.5", "198.51.100.5", "192.0.2.5", "203.0.113.5"));
   sys().twiceIs(eth1, twice(6, "10.0.0.6", "198.51.100.6", "192.0.2.6", "203.0.113.6"));
   ASSERT_TRUE(unprogrammed());
   EXPECT_EQ(unprogrammed()->twiceEntries().size(), 2u);
   sys().twiceDel(eth1, 5);
   ASSERT_TRUE(unprogrammed());
   EXPECT_EQ(unprogrammed()->twiceEntries().size(), 1u);
   EXPECT_EQ(unprogrammed()->twiceEntries().begin().key().group(), 6);
   sys().twiceDel(eth1, 6);
   EXPECT_FALSE(unprogrammed());
   EXPECT_EQ(sys().logs().count("NAT_HW_RESOURCE_NORMAL"), 1u);
}

TEST_F(NatTwiceTest, MulticastDestinationWatchesNothingAndReverseHasNoNextHop) {
   SimOptions options;
   options.destinationNatNextHopNeeded = true;
   start(options);
   sys().nextHopIs(Ulo::VrfAndIpAddr(0, ip("10.0.0.7")), 77);
   sys().twiceIs(eth1, twice(7, "10.0.0.7", "198.51.100.7", "192.0.2.7", "239.1.1.7"));
   auto const* rev = sys().helper()->twiceEntry(false, 0, 10, 7, ipp("239.1.1.7"), ipp("192.0.2.7"));
   ASSERT_TRUE(rev);
   EXPECT_EQ(rev->nextHopId, 0u);
   EXPECT_EQ(engine()->twiceWatchedAddr().keyWatchedAddr().size(), 0u);
   EXPECT_EQ(refs("10.0.0.7"), 0u);
   EXPECT_FALSE(routeRequested("10.0.0.7"));
   EXPECT_FALSE(routeRequested("239.1.1.7"));
   sys().twiceDel(eth1, 7);
   EXPECT_EQ(sys().helper()->twiceEntries(), 0u);
}

TEST_F(NatTwiceTest, SharedWatchedAddressKeepsItsWatchUntilTheLastEntryGoes) {
   SimOptions options;
   options.destinationNatNextHopNeeded = true;
   start(options);
   sys().twiceIs(eth1, twice(1, "10.0.0.1", "198.51.100.1", "192.0.2.1", "203.0.113.9"));
   sys().twiceIs(eth1, twice(2, "10.0.0.2", "198.51.100.2", "192.0.2.2", "203.0.113.9"));
   EXPECT_EQ(refs("203.0.113.9"), 2u);
   ASSERT_TRUE(engine()->twiceWatchedAddr().watchedAddrKey(ip("203.0.113.9")));
   EXPECT_EQ(engine()->twiceWatchedAddr().watchedAddrKey(ip("203.0.113.9"))->mappedAddr().size(), 2u);

   // A next-hop change reaches both entries' forward halves.
   sys().nextHopIs(Ulo::VrfAndIpAddr(0, ip("203.0.113.9")), 90);
   for (Vor::U16 g : {1, 2}) {
      auto const src = g == 1 ? "10.0.0.1" : "10.0.0.2";
      auto const dst = g == 1 ? "198.51.100.1" : "198.51.100.2";
      auto const* fwd = sys().helper()->twiceEntry(true, 0, 10, g, ipp(src), ipp(dst));
      ASSERT_TRUE(fwd);
      EXPECT_EQ(fwd->nextHopId, 90u);
   }
   sys().twiceDel(eth1, 1);
   EXPECT_EQ(refs("203.0.113.9"), 1u);
   EXPECT_TRUE(routeRequested("203.0.113.9"));
   sys().twiceDel(eth1, 2);
   EXPECT_EQ(refs("203.0.113.9"), 0u);
   EXPECT_FALSE(routeRequested("203.0.113.9"));
   EXPECT_FALSE(engine()->twiceWatchedAddr().watchedAddrKey(ip("203.0.113.9")));
}

TEST_F(NatTwiceTest, RefusedUpdateTakesTheWholeEntryOut) {
   SimOptions options;
   options.destinationNatNextHopNeeded = true;
   start(options);
   sys().twiceIs(eth1, twice(1, "10.0.0.1", "198.51.100.1", "192.0.2.1", "203.0.113.1"));
   // A refused update: the entry goes out of hardware whole, and waits.
   auto const updates = sys().helper()->counts().twiceUpdates;
   sys().helper()->refuseNextIs(1);
   sys().nextHopIs(Ulo::VrfAndIpAddr(0, ip("203.0.113.1")), 5);
   EXPECT_GT(sys().helper()->counts().twiceUpdates, updates);
   EXPECT_EQ(sys().helper()->twiceEntries(), 0u);
   EXPECT_FALSE(hw()->twiceNatConnectionHw(1));
   ASSERT_TRUE(unprogrammed());
   EXPECT_EQ(unprogrammed()->twiceEntries().size(), 1u);
   sys().runFor(6.0);
   expectWholePairs();
   EXPECT_EQ(sys().hwTwiceCount(), 1u);
}

TEST_F(NatTwiceTest, BatchRecordsHardwareStatusOnlyAfterTheCommit) {
   SimOptions options;
   options.immediate = false;
   start(options);
   auto const conn = twice(1, "10.0.0.1", "198.51.100.1", "192.0.2.1", "203.0.113.1");
   sys().twiceIs(eth1, conn);
   EXPECT_EQ(engine()->deferredTwiceNatConnectionHw().size(), 1u);
   EXPECT_FALSE(hw()->twiceNatConnectionHw(1));
   sys().runUntilIdle();
   EXPECT_EQ(engine()->deferredTwiceNatConnectionHw().size(), 0u);
   ASSERT_TRUE(hw()->twiceNatConnectionHw(1));
   EXPECT_EQ(sys().helper()->twiceEntries(), 2u);

   // A failed commit of an add sends the entry to review, which the kick
   // starts at once: the retry's own commit brings it into force.
   sys().helper()->failNextCommitIs(1);
   sys().twiceIs(eth1, twice(2, "10.0.0.2", "198.51.100.2", "192.0.2.2", "203.0.113.2"));
   sys().runUntilIdle();
   EXPECT_EQ(sys().helper()->counts().failedCommits, 1u);
   EXPECT_EQ(sys().logs().count("NAT_HW_RESOURCE_FULL"), 1u);
   EXPECT_TRUE(hw()->twiceNatConnectionHw(2));
   EXPECT_FALSE(unprogrammed());
   expectWholePairs();

   // A delete is recorded after its commit too.
   sys().twiceDel(eth1, 1);
   EXPECT_TRUE(hw()->twiceNatConnectionHw(1));
   sys().runUntilIdle();
   EXPECT_FALSE(hw()->twiceNatConnectionHw(1));
   expectWholePairs();
}

TEST_F(NatTwiceTest, ReprogramTakesEverythingOutByHardwareStatusThenProgramsConfiguration) {
   start();
   for (Vor::U16 g = 1; g <= 4; ++g) {
      std::string const n = std::to_string(g);
      sys().twiceIs(eth1, twice(g, ("10.0.0." + n).c_str(), ("198.51.100." + n).c_str(),
                                ("192.0.2." + n).c_str(), ("203.0.113." + n).c_str()));
   }
   // An entry in hardware status that configuration no longer names (a
   // dynamic group's tuple) is taken out as well, and not programmed again.
   auto const extra = twice(9, "10.0.0.9", "198.51.100.9", "192.0.2.9", "203.0.113.9");
   engine()->addTwiceHwEntry(tupleOf(extra), extra, Ip::Nat::HwNatTwiceAddr(extra.srcNew(), extra.dstNew()));
   auto const before = sys().helper()->counts();
   sys().mcastTranslationModeIs(1);
   sys().mcastTranslationModeIs(2);
   EXPECT_EQ(sys().helper()->counts().twiceAdds, before.twiceAdds);
   EXPECT_EQ(sys().helper()->counts().twiceDeletes, before.twiceDeletes);

   sys().mcastTranslationModeIs(3);
   EXPECT_EQ(sys().helper()->counts().twiceDeletes, before.twiceDeletes + 2 * 5);
   EXPECT_EQ(sys().helper()->counts().twiceAdds, before.twiceAdds + 2 * 4);
   EXPECT_EQ(hw()->twiceNatConnectionHws(), 4u);
   EXPECT_FALSE(hw()->twiceNatConnectionHw(9));
   expectWholePairs();
   sys().mcastTranslationModeIs(0);
   EXPECT_EQ(sys().helper()->counts().twiceAdds, before.twiceAdds + 4 * 4);
   expectWholePairs();
}

TEST_F(NatTwiceTest, AclSharingChangeLeavesTwiceConnectionsInHardware) {
   start();
   sys().twiceIs(eth1, twice(1, "10.0.0.1", "198.51.100.1", "192.0.2.1", "203.0.113.1"));
   auto const before = sys().helper()->counts();
   sys().staticAclSharingStatusIs(true);
   EXPECT_EQ(sys().helper()->counts().twiceDeletes, before.twiceDeletes);
   EXPECT_EQ(sys().helper()->counts().twiceAdds, before.twiceAdds);
}

TEST(NatTwiceDeathTest, ModeChangeWithoutModeEntityIsABrokenInvariant) {
   SimSystem sys{SimOptions()};
   sys.start();
   sys.root()->mcastTranslationModeStatusIs(nullptr);
   EXPECT_DEATH(sys.root()->handleMcastTranslationModeStatus(), "mcastTranslationModeStatus\\(\\)");
}

// Random twice groups and static rules, added, replaced and removed, with
// refusals and capacity changes. After every step the chip holds exactly the
// halves of what hardware status says is in force, never half a pair, and
// every configured complete rule is either in hardware or unprogrammed.
TEST(NatTwiceRandom, ChipHoldsExactlyThePairsInHardwareStatus) {
   unsigned const seed = std::getenv("ULONAT_SEED") ? static_cast<unsigned>(std::atoi(std::getenv("ULONAT_SEED")))
                                                    : std::random_device{}();
   int const steps = std::getenv("ULONAT_LONG") ? 20000 : 600;
   std::cout << "NatTwiceRandom seed " << seed << " steps " << steps << std::endl;
   std::mt19937 rng(seed);
   auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };

   SimOptions options;
   options.capacity = 24;
   options.destinationNatNextHopNeeded = true;
   SimSystem sys(options);
   sys.vrfIs("default", 0);
   sys.intfIs(eth1, "default", "Ethernet1", {{eth1, 10}});
   sys.intfIs(eth2, "default", "Ethernet2", {{eth2, 20}});
   sys.start();
   Lumet::IntfId const intfs[] = {eth1, eth2};

   for (int step = 0; step < steps; ++step) {
      Lumet::IntfId const intf = intfs[pick(2)];
      Vor::U16 const vlan = intf == eth1 ? 10 : 20;
      int const action = pick(10);
      auto addr = [&](char const* prefix) {
         return std::string(prefix) + std::to_string(1 + pick(6));
      };
      if (action < 4) {
         auto const group = static_cast<Vor::U16>(1 + pick(12));
         // One in five is half a rule.
         std::string const srcOld = pick(5) == 0 ? "0.0.0.0" : addr("10.0.0.");
         sys.twiceIs(intf, twice(group, srcOld.c_str(), addr("198.51.100.").c_str(), addr("192.0.2.").c_str(),
                                 addr(pick(4) ? "203.0.113." : "239.1.1.").c_str(), 0, vlan));
      } else if (action < 6) {
         sys.twiceDel(intf, static_cast<Vor::U16>(1 + pick(12)));
      } else if (action == 6) {
         Ip::Nat::NatStaticConnection conn(Ip::Nat::StaticKey(ipp(addr("10.1.0.").c_str())),
                                           ipp(addr("192.0.3.").c_str()), Ip::Nat::source_, 0, vlan, true);
         sys.staticIs(intf, conn);
      } else if (action == 7) {
         sys.staticDel(intf, Ip::Nat::StaticKey(ipp(addr("10.1.0.").c_str())));
      } else if (action == 8) {
         sys.helper()->refuseNextIs(static_cast<Vor::U32>(pick(3)));
         sys.nextHopIs(Ulo::VrfAndIpAddr(0, ip(addr("203.0.113.").c_str())), static_cast<Vor::U64>(pick(4)));
      } else {
         sys.helper()->capacityIs(static_cast<std::size_t>(8 + pick(40)));
         if (pick(4) == 0) sys.mcastTranslationModeIs(static_cast<Vor::U32>(pick(4)));
      }
      sys.runFor(1.0 + pick(6));

      ASSERT_EQ(sys.helper()->halfTwicePairs(), 0u) << "seed " << seed << " step " << step;
      ASSERT_EQ(sys.helper()->twiceEntries(), 2 * sys.hwTwiceCount()) << "seed " << seed << " step " << step;
      ASSERT_EQ(sys.helper()->entries().size(), sys.expectedChipEntries()) << "seed " << seed << " step " << step;
      // Every complete configured rule is in force or waits for review.
      for (auto const i : intfs) {
         auto const is = sys.status()->intfStatus(i);
         auto const hw = sys.hwStatus()->intfStatus(i);
         auto const ue = sys.root()->natSmStatus()->unprogrammedEntries(i);
         for (auto const& [group, conn] : is->twiceNatConnection()) {
            if (conn.srcOld().ip().isZero() || conn.dstOld().ip().isZero()) {
               ASSERT_FALSE(hw && hw->twiceNatConnectionHw(group)) << "seed " << seed << " step " << step;
               continue;
            }
            bool const inHw = hw && hw->twiceNatConnectionHw(group) &&
                              hw->twiceNatConnectionHw(group)->entryHas(tupleOf(conn));
            bool const waiting = ue && ue->twiceEntriesHas(Ulo::TwiceNatKey(group, tupleOf(conn)));
            ASSERT_TRUE(inHw != waiting) << "seed " << seed << " step " << step << " group " << group;
         }
      }
   }
}

} // namespace
