#include "sim/SimNatHelper.h"

#include <gtest/gtest.h>

namespace {

using Ip::Nat::StaticKey;
using Lumet::IpAddr;
using Lumet::IpAddrWithFullMask;
using Lumet::IpAndPort;
using Sim::ChipEntry;
using Sim::ChipEntryKey;

IpAndPort const local(IpAddr(0x0a000001u), 80);
IpAndPort const global(IpAddr(0xc0000201u), 8080);
IpAddrWithFullMask const filter(IpAddr(0xc6336400u), 0xffffff00u);
StaticKey const key(local);
Ulo::VrfId const vrf(3);
Vor::U16 const vlan = 10;

ChipEntry const& entryAt(Sim::SimNatHelper const& chip, ChipEntryKey::Kind kind) {
   auto it = chip.entries().find(ChipEntryKey{kind, vrf, vlan, key, filter});
   EXPECT_NE(it, chip.entries().end());
   return it->second;
}

// Each single-address operation lands in the table of its own kind, with
// every field it was given, and counts as an add or as an update.
TEST(SimNatHelper, SingleAddressOperationsRecordWhatTheyWereGiven) {
   auto chip = Sim::simNatHelperFactory("chip", 8, true);
   auto nextHop = Ulo::natNextHopIdFactory(Ulo::VrfAndIpAddr(vrf, IpAddr(0x0a0000feu)));
   nextHop->nextHopIdIs(4001);
   auto mcast = Ulo::NatMulticastDataIs();
   mcast->multicastIs(true);

   ASSERT_TRUE(chip->addStaticSrcIpTranslation(local, global, filter, 6, vlan, key, true, vrf));
   ASSERT_TRUE(chip->addStaticDstIpTranslation(global, local, filter, 17, vlan, key, nextHop, nullptr, false,
                                               vrf));
   ASSERT_EQ(chip->entries().size(), 2u);
   EXPECT_EQ(chip->counts().adds, 2u);
   EXPECT_EQ(chip->counts().updates, 0u);

   ChipEntry const& src = entryAt(*chip, ChipEntryKey::Kind::staticSrc);
   EXPECT_EQ(src.oldIpAndPort, local);
   EXPECT_EQ(src.newIpAndPort, global);
   EXPECT_EQ(src.protocol, 6);
   EXPECT_EQ(src.vlan, vlan);
   EXPECT_TRUE(src.forward);
   EXPECT_EQ(src.nextHopId, 0u);
   EXPECT_FALSE(src.multicast);

   ChipEntry const& dst = entryAt(*chip, ChipEntryKey::Kind::staticDst);
   EXPECT_EQ(dst.oldIpAndPort, global);
   EXPECT_EQ(dst.newIpAndPort, local);
   EXPECT_EQ(dst.protocol, 17);
   EXPECT_FALSE(dst.forward);
   EXPECT_EQ(dst.nextHopId, 4001u);
   EXPECT_FALSE(dst.multicast);

   // Updates replace the entry of their own kind in place and take no room.
   chip->capacityIs(2);
   IpAndPort const other(IpAddr(0xc0000202u), 8081);
   ASSERT_TRUE(chip->updateStaticSrcIpTranslation(local, other, filter, 6, vlan, key, nextHop, mcast, false,
                                                  vrf));
   ASSERT_TRUE(chip->updateStaticDstIpTranslation(other, local, filter, 6, vlan, key, nullptr, mcast, true,
                                                  vrf));
   EXPECT_EQ(chip->entries().size(), 2u);
   EXPECT_EQ(chip->counts().adds, 2u);
   EXPECT_EQ(chip->counts().updates, 2u);

   ChipEntry const& src2 = entryAt(*chip, ChipEntryKey::Kind::staticSrc);
   EXPECT_EQ(src2.newIpAndPort, other);
   EXPECT_FALSE(src2.forward);
   EXPECT_EQ(src2.nextHopId, 4001u);
   EXPECT_TRUE(src2.multicast);
   ChipEntry const& dst2 = entryAt(*chip, ChipEntryKey::Kind::staticDst);
   EXPECT_EQ(dst2.oldIpAndPort, other);
   EXPECT_TRUE(dst2.forward);
   EXPECT_EQ(dst2.nextHopId, 0u);
   EXPECT_TRUE(dst2.multicast);

   // The table is full: a new address is refused, whichever kind asks.
   IpAddrWithFullMask const filter2(IpAddr(0xcb007100u), 0xffffff00u);
   EXPECT_FALSE(chip->addStaticDstIpTranslation(global, local, filter2, 6, vlan, key, nullptr, nullptr, true,
                                                vrf));
   EXPECT_FALSE(chip->updateStaticSrcIpTranslation(local, global, filter2, 6, vlan, key, nullptr, nullptr, true,
                                                   vrf));
   EXPECT_EQ(chip->counts().refused, 2u);

   // A delete takes only the entries of its own kind.
   EXPECT_TRUE(chip->deleteStaticSrcIpTranslation(vlan, key, true, vrf));
   ASSERT_EQ(chip->entries().size(), 1u);
   EXPECT_EQ(chip->entries().begin()->first.kind, ChipEntryKey::Kind::staticDst);
   EXPECT_EQ(chip->entriesOf(key, vrf, vlan), 1u);
}

} // namespace
