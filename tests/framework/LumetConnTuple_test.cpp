#include "framework/LumetConnTuple.h"

#include <gtest/gtest.h>

#include <set>

using Lumet::ConnTuple;
using Lumet::IpAddr;
using Lumet::IpAndPort;

TEST(LumetConnTuple, TextRoundTripAndParseErrors) {
   auto t = ConnTuple::parse("10.0.0.1:1024 -> 20.0.0.1:80 proto 6");
   ASSERT_TRUE(t);
   EXPECT_EQ(t->srcAddr(), *IpAndPort::parse("10.0.0.1:1024"));
   EXPECT_EQ(t->dstAddr(), *IpAndPort::parse("20.0.0.1:80"));
   EXPECT_EQ(t->protocol(), 6);
   EXPECT_EQ(t->stringValue(), "10.0.0.1:1024 -> 20.0.0.1:80 proto 6");
   EXPECT_EQ(ConnTuple::parse("  1.1.1.1:1\t->  2.2.2.2:2 proto 255 ")->protocol(), 255);
   for (char const* text : {"", "10.0.0.1:1024 20.0.0.1:80 proto 6", "10.0.0.1:1024 -> 20.0.0.1:80",
                            "10.0.0.1:1024 -> 20.0.0.1:80 proto 256", "10.0.0.1 -> 20.0.0.1:80 proto 6",
                            "10.0.0.1:1024 -> 20.0.0.1:80 protocol 6", "10.0.0.1:1024 -> 20.0.0.1:80 proto x",
                            "10.0.0.1:1024 -> 20.0.0.1:80 proto 6 extra"}) {
      EXPECT_FALSE(ConnTuple::parse(text)) << text;
   }
}

TEST(LumetConnTuple, OrderAndHashSeeEveryField) {
   ConnTuple base(IpAndPort(IpAddr(0x0a000001u), 1000), IpAndPort(IpAddr(0x14000001u), 80), 6);
   ConnTuple otherSrc(IpAndPort(IpAddr(0x0a000001u), 1001), base.dstAddr(), 6);
   ConnTuple otherDst(base.srcAddr(), IpAndPort(IpAddr(0x14000001u), 81), 6);
   ConnTuple otherProto(base.srcAddr(), base.dstAddr(), 17);
   ConnTuple reversed(base.dstAddr(), base.srcAddr(), 6);
   std::set<ConnTuple> ordered{base, otherSrc, otherDst, otherProto, reversed};
   EXPECT_EQ(ordered.size(), 5u);
   EXPECT_LT(base, otherSrc);    // src first
   EXPECT_LT(otherDst, otherSrc);
   EXPECT_LT(base, otherProto);
   std::set<Vor::U32> hashes;
   for (auto const& t : ordered) hashes.insert(t.hash(7));
   EXPECT_EQ(hashes.size(), 5u);   // the reverse tuple in particular must not collide
}
