#include "tests/Zaffa/ZaffaTestTypes.h"

#include <gtest/gtest.h>

using namespace ZaffaTest;

TEST(ZaffaWriter, Smoke) {
   TempDir dir;
   Writer w(config(dir.path()));
   w.attach();
   for (U64 i = 0; i < 200; ++i) w.write(TestValue::of(i, 1), true);
   EXPECT_EQ(w.members(), 200u);
   EXPECT_TRUE(w.validate()) << w.lastValidationMessage();
}
