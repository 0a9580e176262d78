#include "support/support.h"
TEST(Smoke, Links) { EXPECT_NE(Quorval::loginstance, nullptr); }
