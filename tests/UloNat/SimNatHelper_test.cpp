#include "sim/SimNatHelper.h"

#include <gtest/gtest.h>

#include <ostream>

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

// The entry of `kind` for the one key and filter address of these tests; a
// default entry when there is none.
ChipEntry entryAt(Sim::SimNatHelper const& chip, ChipEntryKey::Kind kind) {
   auto it = chip.entries().find(ChipEntryKey{kind, vrf, vlan, key, filter, 0, {}});
   EXPECT_NE(it, chip.entries().end());
   return it == chip.entries().end() ? ChipEntry{} : it->second;
}

} // namespace

namespace Sim {

void PrintTo(ChipEntry const& e, std::ostream* os) {
   *os << e.oldIpAndPort.stringValue() << ">" << e.newIpAndPort.stringValue() << " proto "
       << static_cast<int>(e.protocol) << " vlan " << e.vlan << (e.forward ? " fwd" : " rev") << " nexthop "
       << e.nextHopId << (e.multicast ? " multicast" : "");
}

} // namespace Sim

namespace {

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

   EXPECT_EQ(entryAt(*chip, ChipEntryKey::Kind::staticSrc), (ChipEntry{local, global, 6, vlan, true, 0, false, {}, {}, {}}));
   EXPECT_EQ(entryAt(*chip, ChipEntryKey::Kind::staticDst),
             (ChipEntry{global, local, 17, vlan, false, 4001, false, {}, {}, {}}));

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

   EXPECT_EQ(entryAt(*chip, ChipEntryKey::Kind::staticSrc), (ChipEntry{local, other, 6, vlan, false, 4001, true, {}, {}, {}}));
   EXPECT_EQ(entryAt(*chip, ChipEntryKey::Kind::staticDst), (ChipEntry{other, local, 6, vlan, true, 0, true, {}, {}, {}}));

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

// A platform's add for a connection it already holds is a replace: the
// engine changes a rule by adding it again, without deleting it first. A
// rule cut from three filter addresses to one must leave two entries, not
// six, and a full chip must still take a rule changed in place.
TEST(SimNatHelper, AnAddForAHeldConnectionReplacesItsEntries) {
   IpAddrWithFullMask const filters[] = {filter, IpAddrWithFullMask(IpAddr(0xcb007100u), 0xffffff00u),
                                         IpAddrWithFullMask(IpAddr(0xc0a80000u), 0xffff0000u)};
   auto rule = [&](IpAndPort g, std::size_t nFilters) {
      Ip::Nat::NatStaticConnection conn(key, g, Ip::Nat::source_, 6, 10, true);
      for (std::size_t i = 0; i < nFilters; ++i) conn.filterAddressIs(filters[i], true);
      return conn;
   };
   IpAndPort const other(IpAddr(0xc0000202u), 8081);
   for (bool immediate : {true, false}) {
      SCOPED_TRACE(immediate ? "immediate" : "batch");
      auto chip = Sim::simNatHelperFactory("chip", 6, immediate);
      auto add = [&](Ip::Nat::NatStaticConnection const& conn) {
         bool const ok = chip->addStaticIpTranslations(conn, vlan, key, nullptr, nullptr, vrf, false);
         return immediate ? ok : ok && chip->commitHwTranslations();
      };
      ASSERT_TRUE(add(rule(global, 3)));
      EXPECT_EQ(chip->entriesOf(key, vrf, vlan), 6u);

      // The chip is full, yet the same connection with another translated
      // address fits: its old entries make the room.
      ASSERT_TRUE(add(rule(other, 3)));
      EXPECT_EQ(chip->entries().size(), 6u);
      EXPECT_EQ(entryAt(*chip, ChipEntryKey::Kind::staticSrc).newIpAndPort, other);

      // Fewer filter addresses: the dropped ones' entries go.
      ASSERT_TRUE(add(rule(global, 1)));
      EXPECT_EQ(chip->entries().size(), 2u);
      EXPECT_EQ(entryAt(*chip, ChipEntryKey::Kind::staticDst).oldIpAndPort, global);
      EXPECT_EQ(chip->counts().deletes, 0u);
      EXPECT_EQ(chip->counts().adds, 14u);

      if (!immediate) {
         // A replace whose commit fails leaves the chip with the rule it held.
         chip->failNextCommitIs(1);
         EXPECT_FALSE(add(rule(other, 3)));
         EXPECT_EQ(chip->entries().size(), 2u);
         EXPECT_EQ(entryAt(*chip, ChipEntryKey::Kind::staticDst).oldIpAndPort, global);
      }
   }
}

} // namespace
