#include "framework/IpNatHwCapabilities.h"

#include <gtest/gtest.h>

namespace {

using Ip::Nat::HwCapabilities;

// Platforms set these flags by name: the names are the contract. Their
// notification is the attribute generator's (VorAttribute_test.cpp).
TEST(IpNatHwCapabilities, FlagsAreSetByName) {
   Vor::Ptr<HwCapabilities> caps(new HwCapabilities());

   EXPECT_FALSE(caps->setByName("natCountersSupported", "true").has_value());
   EXPECT_TRUE(caps->natCountersSupported());
   EXPECT_EQ(caps->getByName("natCountersSupported"), "true");

   for (char const* name : {"dynamicNatSupported", "dynamicTwiceNatSupported", "destinationNatNextHopNeeded",
                            "natOutsideVrfSupported", "natVrfHopStaticSupported"}) {
      EXPECT_EQ(caps->getByName(name), "false") << name;
      EXPECT_FALSE(caps->setByName(name, "true").has_value()) << name;
      EXPECT_EQ(caps->getByName(name), "true") << name;
   }
   EXPECT_TRUE(caps->dynamicNatSupported());
   EXPECT_TRUE(caps->dynamicTwiceNatSupported());
   EXPECT_TRUE(caps->destinationNatNextHopNeeded());
   EXPECT_TRUE(caps->natOutsideVrfSupported());
   EXPECT_TRUE(caps->natVrfHopStaticSupported());

   // Bad input names what is wrong and changes nothing.
   auto error = caps->setByName("natCountersSupported", "maybe");
   ASSERT_TRUE(error.has_value());
   EXPECT_NE(error->find("maybe"), std::string::npos);
   EXPECT_TRUE(caps->natCountersSupported());
   EXPECT_TRUE(caps->setByName("noSuchFlag", "true").has_value());
}

} // namespace
