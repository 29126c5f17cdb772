#include "TestTypes.h"
#include <gtest/gtest.h>
TEST(Smoke, Builds) {
   auto t = Kel::makePtr<KelTest::Thing>(1);
   t->countIs(3);
   EXPECT_EQ(t->count(), 3u);
}
