#include "framework/IpNatHwCapabilities.h"

#include <gtest/gtest.h>

#include "framework/VorReactor.h"

namespace {

using Ip::Nat::HwCapabilities;

struct Counter {
   int counters = 0;
   int dynamic = 0;
   void onCounters() { ++counters; }
   void onDynamic() { ++dynamic; }
};

struct CapabilitiesReactor : Vor::Reactor<HwCapabilities, Counter> {
   static Bindings const& table() {
      static Bindings const b{onScalar<&Counter::onCounters>(HwCapabilities::natCountersSupportedId),
                              onScalar<&Counter::onDynamic>(HwCapabilities::dynamicNatSupportedId)};
      return b;
   }
   explicit CapabilitiesReactor(Counter* c) : Reactor(c, table()) {}
};

TEST(IpNatHwCapabilities, FlagsSetByNameNotifyOnlyOnChange) {
   Vor::Ptr<HwCapabilities> caps(new HwCapabilities());
   Counter c;
   CapabilitiesReactor reactor(&c);
   reactor.notifierIs(caps);

   EXPECT_FALSE(caps->setByName("natCountersSupported", "true").has_value());
   EXPECT_TRUE(caps->natCountersSupported());
   EXPECT_FALSE(caps->setByName("natCountersSupported", "1").has_value());   // same value
   EXPECT_EQ(c.counters, 1);
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
   EXPECT_EQ(c.dynamic, 1);

   // Bad input names what is wrong and changes nothing.
   auto error = caps->setByName("natCountersSupported", "maybe");
   ASSERT_TRUE(error.has_value());
   EXPECT_NE(error->find("maybe"), std::string::npos);
   EXPECT_TRUE(caps->natCountersSupported());
   EXPECT_TRUE(caps->setByName("noSuchFlag", "true").has_value());
   EXPECT_EQ(c.counters, 1);
}

} // namespace
