// The hardware shadow's own instantiation of the table.

#include "UloNat/UloNatHwShadowTable.h"
#include "tests/Zaffa/ZaffaTestTypes.h"

#include <gtest/gtest.h>

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
