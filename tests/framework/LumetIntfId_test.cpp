#include "framework/LumetIntfId.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "framework/VorException.h"

using Lumet::IntfId;
using Vor::U64;

TEST(LumetIntfId, NamesRoundTripThroughTheIntegerForm) {
   for (char const* name : {"Ethernet3", "Ethernet0", "Ethernet3/1", "Ethernet3/1/2", "Ethernet65534",
                            "Vlan10", "Vlan4094", "Port-Channel5", "Loopback0", "Management1/1",
                            "Tunnel7", "NatProfile12"}) {
      IntfId id(name);
      EXPECT_EQ(id.stringValue(), name);
      EXPECT_EQ(IntfId::fromIntId(id.intId()), id) << name;
   }
   EXPECT_EQ(IntfId("Ethernet3").intId(), (U64(IntfId::ethernet) << 56) | (U64(4) << 32));
   EXPECT_EQ(IntfId("Vlan10").kind(), IntfId::vlan);
   EXPECT_EQ(IntfId("Vlan10").number(), 10u);
   EXPECT_EQ(IntfId().stringValue(), "");
}

TEST(LumetIntfId, IntegerOrderIsTheNaturalOrderOfNames) {
   std::vector<IntfId> ids;
   for (char const* name : {"Vlan1", "Ethernet10", "Ethernet3/2", "Port-Channel1", "Ethernet3",
                            "Ethernet2", "Ethernet3/1", "Ethernet3/1/1"}) {
      ids.emplace_back(name);
   }
   std::sort(ids.begin(), ids.end());
   std::vector<std::string> names;
   for (auto const& id : ids) names.push_back(id.stringValue());
   EXPECT_EQ(names, (std::vector<std::string>{"Ethernet2", "Ethernet3", "Ethernet3/1", "Ethernet3/1/1",
                                              "Ethernet3/2", "Ethernet10", "Port-Channel1", "Vlan1"}));
}

TEST(LumetIntfId, BadNamesAreRefused) {
   for (char const* name : {"", "Ethernet", "ethernet3", "Ethernet03", "Ethernet65535", "Ethernet3/",
                            "Ethernet3/1/2/3", "Vlan10/1", "Port-Channel5.100", "Ethernet-1",
                            "Eth3", "Ethernet3x", "NatProfile"}) {
      EXPECT_FALSE(IntfId::parse(name)) << '"' << name << '"';
   }
   EXPECT_THROW(IntfId("Bogus1"), Vor::RangeException);
   try {
      IntfId("Bogus1");
   } catch (Vor::RangeException const& e) {
      EXPECT_STREQ(e.what(), "IntfId::name Bogus1 not allowed");
   }
   // An integer that no name produces still prints something an operator can
   // report, never a wrong name.
   EXPECT_EQ(IntfId::fromIntId(0x0900000100000000ull).stringValue(), "IntfId(0x0900000100000000)");
   EXPECT_EQ(IntfId::fromIntId((U64(IntfId::vlan) << 56) | (U64(11) << 32) | (U64(2) << 16)).stringValue(),
             "IntfId(0x0300000b00020000)");
}

TEST(LumetNatIntfId, ProfilesAreTheirOwnKind) {
   IntfId profile = Lumet::NatIntfId::natProfileIntfId(7);
   EXPECT_EQ(profile.stringValue(), "NatProfile7");
   EXPECT_TRUE(Lumet::NatIntfId::isNatProfileIntfId(profile));
   EXPECT_EQ(Lumet::NatIntfId::profileId(profile), 7);
   EXPECT_EQ(Lumet::NatIntfId::profileId(IntfId("NatProfile0")), 0);
   for (char const* name : {"Ethernet7", "Vlan7", "Port-Channel7"}) {
      EXPECT_FALSE(Lumet::NatIntfId::isNatProfileIntfId(IntfId(name))) << name;
   }
   EXPECT_FALSE(Lumet::NatIntfId::isNatProfileIntfId(IntfId()));
   EXPECT_DEATH(Lumet::NatIntfId::profileId(IntfId("Vlan7")), "isNatProfileIntfId\\(intf\\)");
}
