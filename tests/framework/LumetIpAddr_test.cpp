#include "framework/LumetIpAddr.h"

#include <gtest/gtest.h>

using Lumet::IpAddr;
using Lumet::IpAddrWithFullMask;
using Lumet::IpAndPort;
using Vor::U32;

TEST(LumetIpAddr, ParseAndPrintRoundTrip) {
   for (char const* text : {"0.0.0.0", "10.0.0.1", "255.255.255.255", "224.1.2.3", "1.22.203.4"}) {
      auto ip = IpAddr::parse(text);
      ASSERT_TRUE(ip) << text;
      EXPECT_EQ(ip->stringValue(), text);
   }
   EXPECT_EQ(IpAddr::parse("10.0.0.1")->value(), 0x0a000001u);
   EXPECT_EQ(IpAddr(0xc0a80101u).stringValue(), "192.168.1.1");
}

TEST(LumetIpAddr, ParseRejectsMalformedText) {
   for (char const* text : {"", "10.0.0", "10.0.0.1.2", "256.0.0.1", "10..0.1", "10.0.0.", ".10.0.0",
                            "10.0.0.1 ", " 10.0.0.1", "+1.0.0.1", "1.0.0.0001", "a.b.c.d", "10.0.0.-1"}) {
      EXPECT_FALSE(IpAddr::parse(text)) << '"' << text << '"';
   }
}

TEST(LumetIpAddr, ZeroMulticastAndNumericOrder) {
   EXPECT_TRUE(IpAddr().isZero());
   EXPECT_FALSE(IpAddr(1).isZero());
   EXPECT_FALSE(IpAddr::parse("223.255.255.255")->isMulticast());
   EXPECT_TRUE(IpAddr::parse("224.0.0.0")->isMulticast());
   EXPECT_TRUE(IpAddr::parse("239.255.255.255")->isMulticast());
   EXPECT_FALSE(IpAddr::parse("240.0.0.0")->isMulticast());
   // Numeric, not byte-wise on the little-endian machine and not textual.
   EXPECT_LT(*IpAddr::parse("9.255.255.255"), *IpAddr::parse("10.0.0.0"));
   EXPECT_LT(*IpAddr::parse("10.0.0.255"), *IpAddr::parse("10.0.1.0"));
}

TEST(LumetIpAndPort, ParsePrintAndErrors) {
   auto a = IpAndPort::parse("10.0.0.1:8080");
   ASSERT_TRUE(a);
   EXPECT_EQ(a->ip(), IpAddr(0x0a000001u));
   EXPECT_EQ(a->port(), 8080);
   EXPECT_EQ(a->stringValue(), "10.0.0.1:8080");
   EXPECT_EQ(IpAndPort::parse("1.2.3.4:65535")->port(), 65535);
   for (char const* text : {"10.0.0.1", "10.0.0.1:", "10.0.0.1:65536", ":80", "10.0.0.1:8a",
                            "10.0.0.1:-1", "10.0.0:80", "10.0.0.1:80:1"}) {
      EXPECT_FALSE(IpAndPort::parse(text)) << text;
   }
}

TEST(LumetIpAndPort, OrderIsAddressThenPortAndHashFollowsTheFixedSteps) {
   IpAndPort low(IpAddr(0x0a000001u), 9000);
   IpAndPort high(IpAddr(0x0a000002u), 1);
   EXPECT_LT(low, high);
   EXPECT_LT(IpAndPort(low.ip(), 1), low);
   EXPECT_FALSE(low < low);
   // The steps of the address-and-port hash, worked by hand for one value:
   // x = (80 ^ 0x0a000001) * 32767 - 1, then the three shift-multiply steps.
   U32 x = (80u ^ 0x0a000001u) * 32767u - 1u;
   x = (x ^ (x >> 12)) * 5u;
   x = (x ^ (x >> 4)) * 2057u;
   x ^= x >> 16;
   EXPECT_EQ(IpAndPort(IpAddr(0x0a000001u), 80).addrPortHash(), x);
   EXPECT_NE(IpAndPort(IpAddr(0x0a000001u), 80).addrPortHash(),
             IpAndPort(IpAddr(0x0a000001u), 81).addrPortHash());
}

TEST(LumetIpAddrWithFullMask, PrintsBitCountForAnyMask) {
   IpAddrWithFullMask contiguous(*IpAddr::parse("10.0.0.0"), 0xff000000u);
   IpAddrWithFullMask host(*IpAddr::parse("10.1.2.3"), 0xffffffffu);
   IpAddrWithFullMask sparse(*IpAddr::parse("10.0.0.1"), 0xff00ff00u);
   EXPECT_EQ(contiguous.stringValue(), "10.0.0.0/8");
   EXPECT_EQ(host.stringValue(), "10.1.2.3/32");
   EXPECT_EQ(sparse.stringValue(), "10.0.0.1/16");
   EXPECT_EQ(IpAddrWithFullMask().stringValue(), "0.0.0.0/0");
   EXPECT_TRUE(contiguous.isContiguous());
   EXPECT_TRUE(IpAddrWithFullMask().isContiguous());
   EXPECT_FALSE(sparse.isContiguous());
   EXPECT_FALSE(IpAddrWithFullMask(IpAddr(), 0x7fffffffu).isContiguous());
   // Same address, different masks: distinct and ordered by mask.
   IpAddrWithFullMask wide(*IpAddr::parse("10.0.0.0"), 0xffff0000u);
   EXPECT_FALSE(contiguous == wide);
   EXPECT_LT(contiguous, wide);
   EXPECT_TRUE(IpAddrWithFullMask().isDefault());
}

TEST(LumetIpGenAddr, FamiliesTextAndOrder) {
   Lumet::IpGenAddr v4(*IpAddr::parse("10.0.0.1"));
   EXPECT_TRUE(v4.isV4());
   EXPECT_EQ(v4.v4Addr(), *IpAddr::parse("10.0.0.1"));
   EXPECT_EQ(v4.stringValue(), "10.0.0.1");
   Vor::U8 bytes[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
   Lumet::IpGenAddr v6 = Lumet::IpGenAddr::fromV6Bytes(bytes);
   EXPECT_EQ(v6.stringValue(), "2001:db8::1");
   // The zero address of each family: equal to itself, not to the other one.
   Lumet::IpGenAddr zero4(Lumet::IpGenAddr::ipv4);
   Lumet::IpGenAddr zero6(Lumet::IpGenAddr::ipv6);
   EXPECT_TRUE(zero4.isZero() && zero6.isZero());
   EXPECT_EQ(zero4, Lumet::IpGenAddr(IpAddr()));
   EXPECT_FALSE(zero4 == zero6);
   EXPECT_NE(zero4.hash(0), zero6.hash(0));
   // Family first: every IPv4 address sorts before every IPv6 one.
   EXPECT_LT(Lumet::IpGenAddr(*IpAddr::parse("255.255.255.255")), zero6);
   EXPECT_LT(zero4, v4);
}
