// The hardware shadow's own instantiation of the table.

#include "UloNat/UloNatHwShadowTable.h"
#include "tests/Zaffa/ZaffaTestTypes.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace ZaffaTest;

namespace {

Ulo::NatHwShadowEntry entry(U32 i, U64 nextHop) {
   Ulo::NatHwKey key;
   key.keyTypeIs(i % 2 ? Ulo::NatHwKey::staticSnat : Ulo::NatHwKey::dynamicDnat);
   key.filterAddrIdIs(i);
   key.groupIdIs(static_cast<Vor::U16>(i % 7));
   Ulo::NatHwData data;
   data.nextHopIdIs(nextHop);
   return Ulo::NatHwShadowEntry(key, data, Ulo::NatHwShadowEntry::setting);
}

} // namespace

TEST(UloNatHwShadowTable, StoresShadowEntriesInTheFileFormat) {
   TempDir dir;
   Zaffa::WriterConfig c = config(dir.path(), 64, 1024);
   c.className = "NatHwShadow";
   {
      Zaffa::NatHwShadowWriter w(c);
      w.attach();
      auto const* h = w.slotTable().header();
      EXPECT_STREQ(h->valueType, "Ulo::NatHwShadowEntry");
      EXPECT_STREQ(h->classType, "NatHwShadow");
      EXPECT_EQ(h->version, 18u);
      EXPECT_EQ(h->platform, 2u);
      EXPECT_EQ(h->valueSize, 736u);
      EXPECT_EQ(h->slotSize, 752u);
      EXPECT_EQ(w.slotTable().fileSize(), 944u + 64u * 752u);
      for (U32 i = 0; i < 500; ++i) w.write(entry(i, i), true);
      for (U32 i = 0; i < 500; i += 3) w.write(entry(i, 1000 + i), true);
      Ulo::NatHwShadowEntry old;
      for (U32 i = 0; i < 500; i += 5) ASSERT_TRUE(w.remove(entry(i, 0).key(), old));
      Ulo::NatHwShadowEntry* d = w.directWrite(entry(9999, 0).key());
      d->dirtyIs(Ulo::NatHwShadowEntry::clearing);
      w.directCommit();
      EXPECT_TRUE(w.validate()) << w.lastValidationMessage();
   }
   Zaffa::NatHwShadowWriter w(c);
   w.attach();
   EXPECT_EQ(w.members(), 401u);
   for (U32 i = 0; i < 500; ++i) {
      auto const* v = w.lookup(entry(i, 0).key());
      if (i % 5 == 0) {
         EXPECT_EQ(v, nullptr) << i;
         continue;
      }
      ASSERT_NE(v, nullptr) << i;
      EXPECT_EQ(v->data().nextHopId(), i % 3 == 0 ? 1000u + i : i);
      EXPECT_EQ(v->dirty(), Ulo::NatHwShadowEntry::setting);
   }
   EXPECT_EQ(w.lookup(entry(9999, 0).key())->dirty(), Ulo::NatHwShadowEntry::clearing);
}

#ifdef ZAFFA_TOOL_PATH
// zaffa-tool gives a shadow entry field by field, so that a script selects
// entries by key type, address or VLAN; both JSON outputs say their format.
TEST(UloNatHwShadowTable, ZaffaToolGivesEntriesFieldByField) {
   TempDir dir;
   Zaffa::WriterConfig c = config(dir.path(), 64, 1024);
   c.className = "NatHwShadow";
   Ulo::NatHwKey const key(Ulo::NatHwKey::staticDnat, *Lumet::IpAndPort::parse("192.0.2.1:80"),
                           *Lumet::IpAndPort::parse("10.0.0.1:8080"), {}, {}, Ulo::NatAclId(7), true, 0, 0, 1);
   Ulo::NatHwData data(6, Lumet::IpAddrWithFullMask(*Lumet::IpAddr::parse("198.51.100.0"), 0xffffff00u), 2, 4001,
                       false, 0, true);
   data.vlanIdIs(0, 10);
   data.vlanIdIs(1, 20);
   data.egressIntfIs(0, Lumet::IntfId("Ethernet3"));
   {
      Zaffa::NatHwShadowWriter w(c);
      w.attach();
      w.write(Ulo::NatHwShadowEntry(key, data, Ulo::NatHwShadowEntry::clearing), true);
      w.write(entry(2, 5), true);
   }

   ToolRun dump = zaffaTool("dump --json " + dir.path());
   ASSERT_EQ(dump.status, 0) << dump.output;
   nlohmann::json doc;
   ASSERT_NO_THROW(doc = nlohmann::json::parse(dump.output)) << dump.output;
   EXPECT_EQ(doc["format"], 1);
   ASSERT_EQ(doc["entries"].size(), 2u) << dump.output;
   nlohmann::json const* mine = nullptr;
   for (auto const& e : doc["entries"]) {
      if (e["key"]["keyType"] == "staticDnat") mine = &e;
   }
   ASSERT_NE(mine, nullptr) << dump.output;
   nlohmann::json const& k = (*mine)["key"];
   EXPECT_EQ(k["srcIpAndPortOld"], "192.0.2.1:80");
   EXPECT_EQ(k["srcIpAndPortNew"], "10.0.0.1:8080");
   EXPECT_EQ(k["aclId"], 7);
   EXPECT_EQ(k["reverse"], true);
   EXPECT_EQ(k["filterAddrId"], 1);
   nlohmann::json const& d = (*mine)["data"];
   EXPECT_EQ(d["protocol"], 6);
   EXPECT_EQ(d["filterAddr"], "198.51.100.0/24");
   EXPECT_EQ(d["numFilterAddrs"], 2);
   EXPECT_EQ(d["nextHopId"], 4001);
   EXPECT_EQ(d["multicast"], true);
   EXPECT_EQ(d["vlanIds"], nlohmann::json({10, 20}));
   EXPECT_EQ(d["egressIntfs"], nlohmann::json({"Ethernet3"}));
   EXPECT_EQ((*mine)["dirty"], "clearing");

   ToolRun info = zaffaTool("info --json " + dir.path());
   ASSERT_EQ(info.status, 0) << info.output;
   ASSERT_NO_THROW(doc = nlohmann::json::parse(info.output)) << info.output;
   EXPECT_EQ(doc["format"], 1);
   EXPECT_EQ(doc["members"], 2);
   EXPECT_EQ(doc["valueType"], "Ulo::NatHwShadowEntry");
   EXPECT_EQ(doc["writerRunning"], false);
   EXPECT_EQ(doc["slotFile"]["cutShort"], false);
}
#endif
