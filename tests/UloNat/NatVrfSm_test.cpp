// VRF-to-VRF NAT through the simulated chip: rules programmed as a pair of
// translations, rules waiting for VRF ids, refusals and their review in
// virtual time, the full and normal messages next to the interface engines',
// the source policer, and what the loss of a VRF's id or of a NAT VRF does.

#include <gtest/gtest.h>

#include "framework/VorException.h"
#include "sim/SimSystem.h"

namespace {

using Sim::SimOptions;
using Sim::SimSystem;
using Sim::VrfChipKey;

Lumet::IpAddr ip(char const* text) { return *Lumet::IpAddr::parse(text); }

Ip::Nat::NatVrfStaticConnection vrfRule(char const* oldAddr, char const* newAddr,
                                        char const* outsideVrf = "default") {
   Ip::Nat::NatVrfStaticConnection rule;
   rule.srcAddressOld = ip(oldAddr);
   rule.srcAddressNew = ip(newAddr);
   rule.outsideVrf = L3::VrfName(outsideVrf);
   return rule;
}

SimOptions vrfOptions(std::size_t capacity = 1024) {
   SimOptions options;
   options.capacity = capacity;
   options.natVrfHopStaticSupported = true;
   options.natOutsideVrfSupported = true;
   return options;
}

class NatVrfSmTest : public ::testing::Test {
 protected:
   // Hardware VRFs "default" (0), "red" (5) and "blue" (7); started.
   void start(SimOptions options = vrfOptions()) {
      sys_ = std::make_unique<SimSystem>(options);
      sys().vrfIs("default", 0);
      sys().vrfIs("red", 5);
      sys().vrfIs("blue", 7);
      sys().start();
   }
   SimSystem& sys() { return *sys_; }
   Vor::Ptr<Ip::Nat::HwNatVrfStaticConnection> hwRule(char const* vrf, char const* addr) {
      auto hw = sys().hwStatus()->vrfStatus(vrf);
      return hw ? hw->staticNat(ip(addr)) : Vor::Ptr<Ip::Nat::HwNatVrfStaticConnection>();
   }
   std::size_t full() { return sys().logs().count("NAT_HW_RESOURCE_FULL"); }
   std::size_t normal() { return sys().logs().count("NAT_HW_RESOURCE_NORMAL"); }
   std::unique_ptr<SimSystem> sys_;
};

TEST_F(NatVrfSmTest, RuleIsProgrammedAsAPairAndReplacedAndRemovedAsOne) {
   start();
   sys().vrfRuleIs("red", vrfRule("10.1.0.1", "172.16.0.1"));
   auto hw = hwRule("red", "10.1.0.1");
   ASSERT_TRUE(hw);
   EXPECT_EQ(hw->insideVrfId(), 5u);
   EXPECT_EQ(hw->outsideVrfId(), 0u);
   auto const& chip = sys().helper()->vrfEntries();
   ASSERT_EQ(chip.size(), 2u);
   auto src = chip.find(VrfChipKey{VrfChipKey::Kind::vrfSrc, 5, ip("10.1.0.1")});
   ASSERT_NE(src, chip.end());
   EXPECT_EQ(src->second.newAddr, ip("172.16.0.1"));
   EXPECT_TRUE(sys().vrfChipMismatches().empty());

   // The add path replaces: a new translated address and outside VRF.
   sys().vrfRuleIs("red", vrfRule("10.1.0.1", "172.16.0.9", "blue"));
   EXPECT_EQ(hwRule("red", "10.1.0.1")->outsideVrfId(), 7u);
   EXPECT_EQ(sys().helper()->vrfEntries().size(), 2u);
   EXPECT_TRUE(sys().vrfChipMismatches().empty());

   sys().vrfRuleDel("red", ip("10.1.0.1"));
   EXPECT_FALSE(hwRule("red", "10.1.0.1"));
   EXPECT_TRUE(sys().helper()->vrfEntries().empty());
   EXPECT_EQ(sys().helper()->counts().vrfDeletes, 2u);
   // Rules and the machine's state are kept apart from the interface side.
   EXPECT_EQ(full() + normal(), 0u);
}

TEST_F(NatVrfSmTest, RuleWaitsForTheIdOfEitherOfItsVrfs) {
   start();
   // Inside VRF unknown to hardware: pending under its own name.
   sys().vrfRuleIs("green", vrfRule("10.2.0.1", "172.16.0.2"));
   auto green = sys().natVrfSm("green");
   ASSERT_TRUE(green);
   ASSERT_TRUE(green->pendingNatRules("green"));
   EXPECT_TRUE(green->pendingNatRules("green")->srcAddrOldHas(ip("10.2.0.1")));
   EXPECT_EQ(sys().hwVrfRuleCount(), 0u);
   EXPECT_EQ(sys().helper()->counts().vrfAdds, 0u);

   // Outside VRF unknown: pending under the outside VRF's name.
   sys().vrfRuleIs("red", vrfRule("10.1.0.1", "172.16.0.1", "purple"));
   auto red = sys().natVrfSm("red");
   ASSERT_TRUE(red->pendingNatRules("purple"));
   EXPECT_EQ(sys().pendingVrfRuleCount(), 2u);

   sys().vrfIs("green", 9);
   ASSERT_TRUE(hwRule("green", "10.2.0.1"));
   EXPECT_EQ(hwRule("green", "10.2.0.1")->insideVrfId(), 9u);
   EXPECT_FALSE(green->pendingNatRules("green"));   // the collection is gone
   EXPECT_FALSE(hwRule("red", "10.1.0.1"));

   sys().vrfIs("purple", 11);
   ASSERT_TRUE(hwRule("red", "10.1.0.1"));
   EXPECT_EQ(hwRule("red", "10.1.0.1")->outsideVrfId(), 11u);
   EXPECT_EQ(sys().pendingVrfRuleCount(), 0u);
   EXPECT_TRUE(sys().vrfChipMismatches().empty());
}

TEST_F(NatVrfSmTest, VrfKnownWithoutIdNeitherProgramsNorFilesTheRule) {
   start();
   sys().vrfIs("green", 0);
   sys().vrfRuleIs("green", vrfRule("10.2.0.1", "172.16.0.2"));
   EXPECT_EQ(sys().pendingVrfRuleCount(), 0u);
   EXPECT_EQ(sys().hwVrfRuleCount(), 0u);
   // The id's arrival finds nothing pending: the rule comes back only when
   // it next changes.
   sys().vrfIs("green", 9);
   EXPECT_EQ(sys().hwVrfRuleCount(), 0u);
   sys().vrfRuleIs("green", vrfRule("10.2.0.1", "172.16.0.3"));
   EXPECT_EQ(sys().hwVrfRuleCount(), 1u);
}

TEST_F(NatVrfSmTest, RefusedHalfTakesTheWholePairOut) {
   start(vrfOptions(1));
   // Source refused: the destination is not tried.
   sys().helper()->refuseNextIs(1);
   sys().vrfRuleIs("red", vrfRule("10.1.0.1", "172.16.0.1"));
   EXPECT_EQ(sys().helper()->counts().vrfAdds, 0u);
   EXPECT_EQ(sys().helper()->counts().refused, 1u);
   EXPECT_FALSE(hwRule("red", "10.1.0.1"));
   EXPECT_EQ(sys().unprogrammedVrfRuleCount("red"), 1u);

   // Destination refused (one entry of room): the source half is deleted.
   sys().vrfRuleIs("blue", vrfRule("10.7.0.1", "172.16.7.1"));
   EXPECT_EQ(sys().helper()->counts().vrfAdds, 1u);
   EXPECT_EQ(sys().helper()->counts().vrfDeletes, 1u);
   EXPECT_TRUE(sys().helper()->vrfEntries().empty());
   EXPECT_FALSE(hwRule("blue", "10.7.0.1"));
   EXPECT_EQ(sys().unprogrammedVrfRuleCount(), 2u);
   EXPECT_EQ(full(), 1u);
}

TEST_F(NatVrfSmTest, ReviewRetriesEveryFiveSecondsAndStopsWhenDone) {
   start(vrfOptions(0));
   sys().runUntil(1.0);
   sys().vrfRuleIs("red", vrfRule("10.1.0.1", "172.16.0.1"));
   auto task = sys().natVrfSm("red")->unprgReviewTask();
   ASSERT_TRUE(task);
   EXPECT_EQ(task->taskName(), Vor::String("red"));
   EXPECT_EQ(task->taskPriority(), 3);
   EXPECT_TRUE(task->timerPending());
   EXPECT_DOUBLE_EQ(task->timerExpiry(), 6.0);
   auto attempts = [&] { return sys().helper()->counts().refused; };
   EXPECT_EQ(attempts(), 1u);

   sys().runUntil(5.999);
   EXPECT_EQ(attempts(), 1u);
   sys().runUntil(6.0);
   EXPECT_EQ(attempts(), 2u);
   sys().runUntil(10.999);
   EXPECT_EQ(attempts(), 2u);
   sys().runUntil(11.0);
   EXPECT_EQ(attempts(), 3u);

   // Room from 12 s: the retry at 16 s programs the rule, and no run follows.
   sys().runUntil(12.0);
   sys().helper()->capacityIs(10);
   sys().runUntil(15.999);
   EXPECT_EQ(sys().hwVrfRuleCount(), 0u);
   sys().runUntil(16.0);
   EXPECT_EQ(sys().hwVrfRuleCount(), 1u);
   EXPECT_EQ(sys().unprogrammedVrfRuleCount(), 0u);
   EXPECT_EQ(full(), 1u);
   EXPECT_EQ(normal(), 1u);
   auto const runs = task->taskRuns();
   EXPECT_EQ(runs, 3u);
   EXPECT_FALSE(task->timerPending());
   sys().runUntil(60.0);
   EXPECT_EQ(task->taskRuns(), runs);
}

TEST_F(NatVrfSmTest, ReviewGivesWayAfterItsBudgetAndComesBackFiveSecondsLater) {
   start(vrfOptions(0));
   for (int i = 1; i <= 5; ++i) {
      std::string const old = "10.1.0." + std::to_string(i);
      std::string const nw = "172.16.0." + std::to_string(i);
      sys().vrfRuleIs("red", vrfRule(old.c_str(), nw.c_str()));
   }
   EXPECT_EQ(sys().unprogrammedVrfRuleCount(), 5u);
   sys().helper()->capacityIs(100);
   sys().scheduler()->yieldBudgetIs(2);
   sys().runUntil(5.0);
   EXPECT_EQ(sys().hwVrfRuleCount(), 2u);
   sys().runUntil(9.999);
   EXPECT_EQ(sys().hwVrfRuleCount(), 2u);
   sys().runUntil(10.0);
   EXPECT_EQ(sys().hwVrfRuleCount(), 4u);
   sys().runUntil(15.0);
   EXPECT_EQ(sys().hwVrfRuleCount(), 5u);
   EXPECT_EQ(normal(), 1u);
   EXPECT_EQ(sys().natVrfSm("red")->unprgReviewTask()->taskWorkCount(), 5u);
}

TEST_F(NatVrfSmTest, ForceTableFullRefusesEveryRuleWithOneMessage) {
   start();
   sys().natVrfIs("red");
   sys().natVrfIs("blue");
   ASSERT_TRUE(sys().forceTableFullIs("red", true));
   ASSERT_TRUE(sys().forceTableFullIs("blue", true));
   sys().vrfRuleIs("red", vrfRule("10.1.0.1", "172.16.0.1"));
   sys().vrfRuleIs("red", vrfRule("10.1.0.2", "172.16.0.2"));
   sys().vrfRuleIs("blue", vrfRule("10.7.0.1", "172.16.7.1"));
   EXPECT_EQ(sys().unprogrammedVrfRuleCount(), 3u);
   EXPECT_EQ(sys().helper()->counts().vrfAdds + sys().helper()->counts().refused, 0u);
   EXPECT_EQ(full(), 1u);

   sys().forceTableFullIs("red", false);
   sys().runFor(5.0);
   EXPECT_EQ(sys().hwVrfRuleCount(), 2u);
   // Blue still holds a refused rule: the VRF side is still full.
   EXPECT_EQ(normal(), 0u);
   sys().forceTableFullIs("blue", false);
   sys().runFor(5.0);
   EXPECT_EQ(sys().hwVrfRuleCount(), 3u);
   EXPECT_EQ(full(), 1u);
   EXPECT_EQ(normal(), 1u);
}

TEST_F(NatVrfSmTest, FullAndNormalOnceForEachSideAcrossVrfsAndInterfaces) {
   start(vrfOptions(0));
   Lumet::IntfId const eth1("Ethernet1");
   sys().intfIs(eth1, "default", "Ethernet1", {{eth1, 10}});
   Ip::Nat::NatStaticConnection conn(
      Ip::Nat::StaticKey(*Sim::parseIpAndPort("192.0.2.1"), Vor::String(), Ip::Nat::StaticKey::ingress),
      *Sim::parseIpAndPort("10.9.0.1"), Ip::Nat::source_, 0, 10, true);
   conn.filterAddressIs(*Sim::parseFilter("198.51.100.0/24"), true);

   sys().vrfRuleIs("red", vrfRule("10.1.0.1", "172.16.0.1"));
   sys().vrfRuleIs("blue", vrfRule("10.7.0.1", "172.16.7.1"));
   sys().staticIs(eth1, conn);
   sys().runUntilIdle();
   EXPECT_EQ(sys().unprogrammedVrfRuleCount(), 2u);
   EXPECT_EQ(sys().unprogrammedStaticCount(), 1u);
   // One message for the VRF side whatever the number of VRFs, one for the
   // interface side; the interface side's counter counts only its own.
   EXPECT_EQ(full(), 2u);
   EXPECT_EQ(sys().root()->natSmStatusNotif()->logsFull(), 1u);

   // Room for everything: each side leaves the full state once.
   sys().helper()->capacityIs(100);
   sys().runFor(5.0);
   EXPECT_EQ(sys().hwVrfRuleCount(), 2u);
   EXPECT_EQ(sys().hwStaticCount(), 1u);
   EXPECT_EQ(normal(), 2u);
   EXPECT_EQ(sys().root()->natSmStatusNotif()->logsNormal(), 1u);

   // Full again only after the normal: a new refusal on the VRF side.
   sys().helper()->capacityIs(0);
   sys().vrfRuleIs("red", vrfRule("10.1.0.2", "172.16.0.2"));
   sys().vrfRuleIs("red", vrfRule("10.1.0.3", "172.16.0.3"));
   EXPECT_EQ(full(), 3u);
   EXPECT_EQ(sys().root()->natSmStatusNotif()->logsFull(), 1u);
}

TEST_F(NatVrfSmTest, PolicerWaitsForItsVrfIdAndIsClearedAsZero) {
   start();
   sys().vrfPolicerIs("green", 1000, 100);
   auto green = sys().natVrfSm("green");
   ASSERT_TRUE(green);
   ASSERT_TRUE(green->pendingVrfConfig());
   EXPECT_EQ(green->pendingVrfConfig()->snatRate(), 1000u);
   EXPECT_EQ(green->pendingVrfConfig()->snatBurst(), 100u);
   EXPECT_TRUE(sys().helper()->policers().empty());

   sys().vrfIs("green", 9);
   ASSERT_EQ(sys().helper()->policers().count(9), 1u);
   EXPECT_EQ(sys().helper()->policers().at(9), (Sim::VrfPolicerEntry{1000, 100}));
   EXPECT_FALSE(green->pendingVrfConfig());

   sys().vrfPolicerIs("green", 2000, 200);
   EXPECT_EQ(sys().helper()->policers().at(9), (Sim::VrfPolicerEntry{2000, 200}));
   sys().vrfPolicerIs("green", 0, 0);
   EXPECT_TRUE(sys().helper()->policers().empty());

   // The default VRF's policer has id 0 and never waits.
   sys().vrfPolicerIs("default", 50, 5);
   EXPECT_EQ(sys().helper()->policers().count(0), 1u);
   EXPECT_FALSE(sys().natVrfSm("default")->pendingVrfConfig());
}

TEST_F(NatVrfSmTest, RuleMovedToAnotherOutsideVrfFollowsThatVrfsId) {
   start();
   sys().vrfIs("green", 9);
   sys().vrfRuleIs("red", vrfRule("10.1.0.1", "172.16.0.1", "blue"));
   EXPECT_EQ(hwRule("red", "10.1.0.1")->outsideVrfId(), 7u);
   sys().vrfRuleIs("red", vrfRule("10.1.0.1", "172.16.0.1", "green"));
   EXPECT_EQ(hwRule("red", "10.1.0.1")->outsideVrfId(), 9u);
   EXPECT_TRUE(sys().vrfChipMismatches().empty());

   // The old outside VRF's id moving leaves the rule alone ...
   auto const deletes = sys().helper()->counts().vrfDeletes;
   sys().vrfIs("blue", 8);
   EXPECT_EQ(sys().helper()->counts().vrfDeletes, deletes);
   // ... the new one's moving deletes and reprograms it with the new id.
   sys().vrfIs("green", 10);
   EXPECT_EQ(sys().helper()->counts().vrfDeletes, deletes + 2);
   EXPECT_EQ(hwRule("red", "10.1.0.1")->outsideVrfId(), 10u);
   EXPECT_TRUE(sys().vrfChipMismatches().empty());

   // The inside VRF's id moving reprograms it too.
   sys().vrfIs("red", 6);
   EXPECT_EQ(hwRule("red", "10.1.0.1")->insideVrfId(), 6u);
   EXPECT_TRUE(sys().vrfChipMismatches().empty());
}

TEST_F(NatVrfSmTest, LossOfAnyVrfIdEmptiesEveryMachineUntilRulesChange) {
   start(vrfOptions(2));
   sys().vrfIs("green", 9);
   sys().vrfRuleIs("red", vrfRule("10.1.0.1", "172.16.0.1"));
   sys().vrfRuleIs("blue", vrfRule("10.7.0.1", "172.16.7.1"));   // refused: chip full
   EXPECT_EQ(sys().hwVrfRuleCount(), 1u);
   EXPECT_EQ(sys().unprogrammedVrfRuleCount(), 1u);
   EXPECT_EQ(full(), 1u);

   // An unrelated VRF loses its id.
   sys().vrfIs("green", 0);
   EXPECT_EQ(sys().hwVrfRuleCount(), 0u);
   EXPECT_TRUE(sys().helper()->vrfEntries().empty());
   EXPECT_EQ(sys().unprogrammedVrfRuleCount(), 0u);
   EXPECT_EQ(normal(), 1u);
   // Nothing comes back by itself, neither by review nor with the id.
   sys().vrfIs("green", 9);
   sys().runFor(30.0);
   EXPECT_EQ(sys().hwVrfRuleCount(), 0u);
   sys().vrfRuleIs("red", vrfRule("10.1.0.1", "172.16.0.5"));
   EXPECT_EQ(sys().hwVrfRuleCount(), 1u);
}

TEST_F(NatVrfSmTest, NatVrfThatGoesLeavesNothingBehind) {
   start(vrfOptions(2));
   sys().vrfRuleIs("red", vrfRule("10.1.0.1", "172.16.0.1"));
   sys().vrfRuleIs("red", vrfRule("10.1.0.2", "172.16.0.2"));   // refused
   auto task = sys().natVrfSm("red")->unprgReviewTask();
   EXPECT_TRUE(task->timerPending());

   sys().natVrfDel("red");
   EXPECT_FALSE(sys().natVrfSm("red"));
   EXPECT_FALSE(sys().hwStatus()->vrfStatus("red"));
   EXPECT_TRUE(sys().helper()->vrfEntries().empty());
   EXPECT_EQ(sys().unprogrammedVrfRuleCount(), 0u);
   EXPECT_EQ(normal(), 1u);
   EXPECT_FALSE(task->timerPending());
   auto const runs = task->taskRuns();
   sys().runFor(20.0);
   EXPECT_EQ(task->taskRuns(), runs);
}

TEST_F(NatVrfSmTest, RootStopTakesEveryVrfRuleOutOfHardware) {
   start();
   sys().vrfRuleIs("red", vrfRule("10.1.0.1", "172.16.0.1"));
   sys().vrfRuleIs("blue", vrfRule("10.7.0.1", "172.16.7.1", "red"));
   EXPECT_EQ(sys().helper()->vrfEntries().size(), 4u);
   sys().root()->doCleanup();
   EXPECT_TRUE(sys().helper()->vrfEntries().empty());
   EXPECT_EQ(sys().hwVrfRuleCount(), 0u);
}

TEST_F(NatVrfSmTest, RulesConfiguredBeforeStartAreProgrammedAtStart) {
   sys_ = std::make_unique<SimSystem>(vrfOptions());
   sys().vrfIs("default", 0);
   sys().vrfIs("red", 5);
   sys().vrfRuleIs("red", vrfRule("10.1.0.1", "172.16.0.1"));
   sys().vrfPolicerIs("red", 300, 30);
   EXPECT_TRUE(sys().helper()->vrfEntries().empty());
   sys().start();
   EXPECT_EQ(sys().hwVrfRuleCount("red"), 1u);
   EXPECT_EQ(sys().helper()->policers().count(5), 1u);
   EXPECT_TRUE(sys().vrfChipMismatches().empty());
}

TEST_F(NatVrfSmTest, WithoutVrfStaticSupportNothingIsMade) {
   SimOptions options = vrfOptions();
   options.natVrfHopStaticSupported = false;
   start(options);
   sys().vrfRuleIs("red", vrfRule("10.1.0.1", "172.16.0.1"));
   EXPECT_TRUE(sys().root()->natVrfRootSm());
   EXPECT_FALSE(sys().natVrfSm("red"));
   EXPECT_EQ(sys().helper()->counts().vrfAdds, 0u);
}

TEST_F(NatVrfSmTest, MachineOfAVrfIsMadeOnceForTheSameArguments) {
   start();
   sys().natVrfIs("red");
   auto root = sys().root()->natVrfRootSm();
   auto red = root->natVrfSm("red");
   ASSERT_TRUE(red);
   auto again = root->natVrfSmIs(root.ptr(), red->vrfStatus(), red->hwVrfStatus(), red->hwCapabilities(),
                                 red->routingHwRouteStatus(), red->natHelper(), red->scheduler());
   EXPECT_EQ(again, red);
   auto otherHw = Vor::Ptr<Ip::Nat::HwVrfStatus>(new Ip::Nat::HwVrfStatus("red"));
   EXPECT_THROW(root->natVrfSmIs(root.ptr(), red->vrfStatus(), otherHw, red->hwCapabilities(),
                                 red->routingHwRouteStatus(), red->natHelper(), red->scheduler()),
                Vor::ReinstantiationException);
   EXPECT_EQ(sys().root()->natVrfRootSmIs(sys().root()->scheduler()), root);
}

using NatVrfSmDeathTest = NatVrfSmTest;

TEST_F(NatVrfSmDeathTest, BrokenRulesEndTheProcess) {
   EXPECT_DEATH(
      {
         start();
         sys().vrfRuleIs("red", vrfRule("10.1.0.1", "224.0.0.5"));
      },
      "entry.srcAddressNew\\(\\).isMulticast\\(\\) == false");
   EXPECT_DEATH(
      {
         SimOptions options = vrfOptions();
         options.natOutsideVrfSupported = false;
         start(options);
         sys().vrfRuleIs("red", vrfRule("10.1.0.1", "172.16.0.1", "blue"));
      },
      "hwCapabilities\\(\\)->natOutsideVrfSupported\\(\\) == true");
}

} // namespace
