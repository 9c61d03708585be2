#include "back_off.h"

#include <gtest/gtest.h>

namespace {

const std::uint32_t kLeast = 0;
const std::uint32_t kMost = 0xffffffff;

TEST(BackOff, TheWidestWaitDoublesUpToHalfAMinute) {
  EXPECT_EQ(BackOffDelayMs(1, kMost), 2000U);
  EXPECT_EQ(BackOffDelayMs(2, kMost), 4000U);
  EXPECT_EQ(BackOffDelayMs(3, kMost), 8000U);
  EXPECT_EQ(BackOffDelayMs(4, kMost), 16000U);
  EXPECT_EQ(BackOffDelayMs(5, kMost), 30000U);
  EXPECT_EQ(BackOffDelayMs(6, kMost), 30000U);
}

TEST(BackOff, StaysAtHalfAMinuteForEver) {
  for (const unsigned failures : {31U, 32U, 33U, 64U, 1000000U, 0xffffffffU}) {
    EXPECT_EQ(BackOffDelayMs(failures, kMost), 30000U) << failures;
  }
}

TEST(BackOff, NoFailureCountsAsTheFirst) { EXPECT_EQ(BackOffDelayMs(0, kMost), 2000U); }

TEST(BackOff, TheShortestWaitIsNone) {
  for (unsigned failures = 0; failures < 10; ++failures) EXPECT_EQ(BackOffDelayMs(failures, kLeast), 0U);
}

TEST(BackOff, SpreadsEvenly) {
  const int buckets = 10;
  for (unsigned failures = 1; failures <= 6; ++failures) {
    const std::uint32_t widest = BackOffDelayMs(failures, kMost);
    int counts[buckets] = {};
    for (std::uint32_t i = 0; i < 10000; ++i) {
      const std::uint32_t delay = BackOffDelayMs(failures, i * (kMost / 10000));
      ASSERT_LE(delay, widest);
      ++counts[delay * buckets / (widest + 1)];
    }
    for (const int count : counts) EXPECT_NEAR(count, 1000, 20);
  }
}

}  // namespace
