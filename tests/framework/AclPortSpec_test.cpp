#include "framework/AclPortSpec.h"

#include <gtest/gtest.h>

#include <vector>

using Acl::PortSpec;
using Acl::U16FieldRange;

namespace {

// Ranges of `portSpec` with room for `room`, or the negative result as one range
// {result, result} so that tests can compare whole outcomes.
std::vector<U16FieldRange> ranges(PortSpec const& portSpec, int room = 11) {
   U16FieldRange out[11];
   int n = Acl::portSpecToRanges(out, room, portSpec);
   if (n < 0) return {U16FieldRange{0xdead, static_cast<Vor::U16>(-n)}};
   return std::vector<U16FieldRange>(out, out + n);
}
U16FieldRange r(Vor::U16 low, Vor::U16 high) { return {low, high}; }
U16FieldRange error(int code) { return {0xdead, static_cast<Vor::U16>(-code)}; }

} // namespace

TEST(AclPortSpecToRanges, EachOperator) {
   EXPECT_EQ(ranges(PortSpec()), std::vector<U16FieldRange>{});
   EXPECT_EQ(ranges(PortSpec::eqPorts({443, 80, 81, 80})), (std::vector{r(80, 81), r(443, 443)}));
   EXPECT_EQ(ranges(PortSpec::neqPorts({22})), (std::vector{r(0, 21), r(23, 65535)}));
   EXPECT_EQ(ranges(PortSpec::neqPorts({0, 65535})), (std::vector{r(1, 65534)}));
   EXPECT_EQ(ranges(PortSpec::neqPorts({22, 23})), (std::vector{r(0, 21), r(24, 65535)}));
   EXPECT_EQ(ranges(PortSpec::ltPort(1024)), (std::vector{r(0, 1023)}));
   EXPECT_EQ(ranges(PortSpec::gtPort(1023)), (std::vector{r(1024, 65535)}));
   EXPECT_EQ(ranges(PortSpec::rangePorts(5, 5)), (std::vector{r(5, 5)}));
   // Everything is "any" to hardware.
   EXPECT_EQ(ranges(PortSpec::rangePorts(0, 65535)), std::vector<U16FieldRange>{});
   EXPECT_EQ(ranges(PortSpec::gtPort(0)), (std::vector{r(1, 65535)}));
}

TEST(AclPortSpecToRanges, Errors) {
   EXPECT_EQ(ranges(PortSpec::ltPort(0)), (std::vector{error(Acl::portSpecMatchesNothing)}));
   EXPECT_EQ(ranges(PortSpec::gtPort(65535)), (std::vector{error(Acl::portSpecMatchesNothing)}));
   EXPECT_EQ(ranges(PortSpec::rangePorts(9, 8)), (std::vector{error(Acl::portSpecMatchesNothing)}));
   // Twelve separate ports need twelve ranges; eleven fit.
   std::vector<Vor::U16> twelve;
   for (Vor::U16 p = 0; p < 12; ++p) twelve.push_back(p * 10);
   EXPECT_EQ(ranges(PortSpec(PortSpec::eq, twelve)), (std::vector{error(Acl::portSpecTooManyRanges)}));
   twelve.pop_back();
   EXPECT_EQ(ranges(PortSpec(PortSpec::eq, twelve)).size(), 11u);
   EXPECT_EQ(ranges(PortSpec::neqPorts({10, 20}), 2), (std::vector{error(Acl::portSpecTooManyRanges)}));
}

TEST(AclPortSpec, TextRoundTripOrderAndParseErrors) {
   for (char const* text : {"any", "eq 80 443", "neq 22", "lt 1024", "gt 1023", "range 1024 65535"}) {
      auto portSpec = PortSpec::parse(text);
      ASSERT_TRUE(portSpec) << text;
      EXPECT_EQ(portSpec->stringValue(), text);
   }
   EXPECT_EQ(*PortSpec::parse("eq 80 443"), PortSpec::eqPorts({80, 443}));
   for (char const* text : {"", "eq", "range 1", "range 1 2 3", "lt 1 2", "any 1", "eq 65536", "eq -1",
                            "le 10", "eq 8x"}) {
      EXPECT_FALSE(PortSpec::parse(text)) << '"' << text << '"';
   }
   EXPECT_LT(PortSpec(), PortSpec::eqPorts({1}));
   EXPECT_LT(PortSpec::eqPorts({1}), PortSpec::eqPorts({1, 2}));
   EXPECT_FALSE(PortSpec::eqPorts({1}) == PortSpec::neqPorts({1}));
}
