// The verify command end to end on the simulated chip: silent on a correct
// run, one line per disagreement planted behind the engine's back, and the
// end of the process in simulation.

#include <cstdlib>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sim/SimSystem.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

Lumet::IpAndPort ipp(char const* text) { return *Sim::parseIpAndPort(text); }
Lumet::IpAddr ip(char const* text) { return *Lumet::IpAddr::parse(text); }

Lumet::IntfId const eth1("Ethernet1");
Lumet::IntfId const eth2("Ethernet2");

Ip::Nat::NatStaticConnection rule(char const* local, char const* global,
                                  Ip::Nat::NatTarget target = Ip::Nat::source_) {
   Ip::Nat::NatStaticConnection conn(Ip::Nat::StaticKey(ipp(local)), ipp(global), target, 0, 10, true);
   conn.filterAddressIs(*Sim::parseFilter("198.51.100.0/24"), true);
   return conn;
}

class NatVerifyTest : public ::testing::Test {
 protected:
   void SetUp() override {
      ::unsetenv("SIMULATION_VMID");
      Sim::SimOptions options;
      options.destinationNatNextHopNeeded = true;
      sys_ = std::make_unique<Sim::SimSystem>(options);
      sys().vrfIs("default", 0);
      sys().intfIs(eth1, "default", "Ethernet1", {{eth1, 10}});
      sys().intfIs(eth2, "default", "Ethernet2", {{eth2, 20}});
      sys().start();
      // Two interfaces share the watched address 10.0.0.1; a destination
      // rule watches its global address; a twice rule watches two.
      sys().staticIs(eth1, rule("10.0.0.1", "192.0.2.1"));
      sys().staticIs(eth2, rule("10.0.0.1", "192.0.2.9"));
      sys().staticIs(eth1, rule("10.0.0.2", "192.0.2.2", Ip::Nat::destination));
      sys().twiceIs(eth1, Ip::Nat::NatTwiceConnection(3, ipp("10.1.0.1"), ipp("20.1.0.1"), ipp("1.1.1.1"),
                                                      ipp("2.2.2.2"), 0, 10));
      sys().runUntilIdle();
   }
   Sim::SimSystem& sys() { return *sys_; }
   Ulo::Ptr<Ulo::NatSmStatusVrf> vrf() { return sys().root()->natSmStatus()->natSmStatusVrf(0); }
   std::unique_ptr<Sim::SimSystem> sys_;
};

TEST_F(NatVerifyTest, CorrectRunFindsNothingAndDisabledVerifyAsksNothing) {
   ASSERT_EQ(sys().hwStaticCount(), 3u);
   ASSERT_EQ(sys().hwTwiceCount(), 1u);
   EXPECT_THAT(sys().verify(), IsEmpty());

   // A refused rule holds no reference and is not in hardware status:
   // nothing to find either.
   // A full chip refuses it.
   sys().helper()->capacityIs(sys().helper()->entries().size());
   sys().staticIs(eth1, rule("10.0.0.3", "192.0.2.3"));
   sys().runUntilIdle();
   ASSERT_EQ(sys().unprogrammedStaticCount(), 1u);
   EXPECT_THAT(sys().verify(), IsEmpty());

   // With verification disabled even a planted leak goes unreported.
   vrf()->ipAddrIntfInfoIs(ip("10.9.9.9"));
   sys().root()->disableVerifyIs(true);
   EXPECT_THAT(sys().verify(), IsEmpty());
   sys().root()->disableVerifyIs(false);
   EXPECT_THAT(sys().verify(), ElementsAre("VRF 0 addr 10.9.9.9 has no intfInfo, possible leak"));
}

TEST_F(NatVerifyTest, EachPlantedDisagreementIsOneLine) {
   // A reference count off by one, on an address two interfaces share: only
   // the interface whose count is wrong is reported.
   auto const shared = vrf()->ipAddrIntfInfo(ip("10.0.0.1"));
   ASSERT_TRUE(shared);
   shared->intfIs(eth2, 2);
   EXPECT_THAT(sys().verify(),
               ElementsAre("Ref Count check failed, addr 10.0.0.1 intf Ethernet2, expected 2 found 1"));
   shared->intfIs(eth2, 1);
   EXPECT_THAT(sys().verify(), IsEmpty());

   // Hardware status edited: the engine's rule and its record differ.
   auto const hw = sys().hwStatus()->intfStatus(eth1);
   Ip::Nat::StaticKey const key(ipp("10.0.0.1"));
   auto const original = hw->staticConnectionHw(key);
   hw->staticConnectionHwDel(key);
   hw->staticConnectionHwIs(key, ipp("192.0.2.77"), Ip::Nat::source_, 0, 10, true);
   auto lines = sys().verify();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0],
             "Static connection mismatch in hwStatus for intf Ethernet1 localIP:10.0.0.1:0 global: "
             "192.0.2.1:0 hwGlobal: 192.0.2.77:0 target: 0 hwTarget: 0 protocol: 0 hwProtocol: 0 "
             "filterAddresss: 1 hwFilterAddresss: 0");

   // The record removed: the rule no longer counts its reference, which
   // ipAddrIntfInfo still holds.
   hw->staticConnectionHwDel(key);
   EXPECT_THAT(sys().verify(),
               ElementsAre("Ref Count check failed, addr 10.0.0.1 intf Ethernet1, expected 1 found 0"));

   // A twice group gone from hardware status: both its addresses.
   auto const twice = hw->twiceNatConnectionHw(3);
   ASSERT_TRUE(twice);
   hw->twiceNatConnectionHwDel(3);
   lines = sys().verify();
   EXPECT_EQ(lines.size(), 3u);
   EXPECT_THAT(lines, ::testing::Contains(HasSubstr("addr 10.1.0.1 intf Ethernet1, expected 1 found 0")));
   EXPECT_THAT(lines, ::testing::Contains(HasSubstr("addr 2.2.2.2 intf Ethernet1, expected 1 found 0")));
}

TEST_F(NatVerifyTest, AnAddressLostFromItsVrfRecordIsAnAssertion) {
   // ipAddrIntfInfo lost the destination rule's address altogether.
   vrf()->ipAddrIntfInfoDel(ip("192.0.2.2"));
   EXPECT_DEATH(sys().verify(), "vrfStatus\\(\\)->ipAddrIntfInfoHas\\( watchedAddr \\)");
}

TEST_F(NatVerifyTest, LeakWithoutEngineIsFatalAndSimulationEndsAtTheFirstFinding) {
   vrf()->ipAddrIntfInfoIs(ip("10.9.9.9"))->intfIs(Lumet::IntfId("Ethernet7"), 1);
   EXPECT_DEATH(sys().verify(), "natIntfStatusSmHas\\( intfIter.key\\(\\) \\)");
   vrf()->ipAddrIntfInfoDel(ip("10.9.9.9"));

   vrf()->ipAddrIntfInfoIs(ip("10.9.9.9"));
   EXPECT_DEATH(
      {
         ::setenv("SIMULATION_VMID", "", 1);
         sys().verify();
      },
      "uloAssert failed: 0\n");
}

} // namespace
