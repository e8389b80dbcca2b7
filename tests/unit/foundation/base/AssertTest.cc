#include <velantrix/Assert.h>

#include <gtest/gtest.h>

namespace {

TEST(AssertDeathTest, Assert_ConditionFalse_AbortsWithExpressionAndPlaceInEveryBuildType) {
  const int* px = nullptr;
  EXPECT_DEATH(PKX509_ASSERT(px != 0), "AssertTest\\.cc:[0-9]+: .*Assertion `px != 0' failed\\.");
}

TEST(Assert, Assert_ConditionTrue_EvaluatesOnceAndGoesOn) {
  int evaluations = 0;
  PKX509_ASSERT(++evaluations == 1);
  EXPECT_EQ(evaluations, 1);
}

}  // namespace
