#include "repair_delay.h"

#include <gtest/gtest.h>

namespace kovra {
namespace {

constexpr Micros kSecond{1'000'000};

// Two repairs, of which the second tells that the path loses packets.
void Repair(RepairDelay& delay, Micros now, Micros roundTrip) {
  delay.onRepair(now, roundTrip);
  delay.onRepair(now, roundTrip);
}

TEST(RepairDelay, AsksForNothingWithoutLoss) {
  RepairDelay delay;
  EXPECT_EQ(delay.wanted(kSecond), std::nullopt);
}

TEST(RepairDelay, AsksForNothingForALossNowAndThen) {
  RepairDelay delay;
  for (int i = 1; i < 10; ++i) delay.onRepair(i * (RepairDelay::kMemory + kSecond), Micros{100'000});
  EXPECT_EQ(delay.wanted(200 * kSecond), std::nullopt);
}

TEST(RepairDelay, CoversTheWayOfARepair) {
  RepairDelay delay;
  Repair(delay, kSecond, Micros{100'000});
  EXPECT_EQ(delay.wanted(kSecond), Micros{230'000});
}

TEST(RepairDelay, IsInWholeStepsOfTenMilliseconds) {
  RepairDelay delay;
  Repair(delay, kSecond, Micros{1});
  EXPECT_EQ(delay.wanted(kSecond), Micros{90'000});
}

TEST(RepairDelay, GrowsWithTheRoundTripButNotWithoutEnd) {
  RepairDelay delay;
  Repair(delay, kSecond, Micros{20'000});
  Repair(delay, kSecond, Micros{60'000});
  EXPECT_EQ(delay.wanted(kSecond), Micros{170'000});
  Repair(delay, kSecond, Micros{30'000});
  EXPECT_EQ(delay.wanted(kSecond), Micros{170'000});
  Repair(delay, kSecond, Micros{5'000'000});
  EXPECT_EQ(delay.wanted(kSecond), RepairDelay::kLongest);
}

TEST(RepairDelay, WaitsForARoundTripThatWasMeasured) {
  RepairDelay delay;
  Repair(delay, kSecond, Micros{0});
  EXPECT_EQ(delay.wanted(kSecond), std::nullopt);
}

TEST(RepairDelay, IsTakenBackWhenThePathHasRecovered) {
  RepairDelay delay;
  Repair(delay, kSecond, Micros{100'000});
  EXPECT_EQ(delay.wanted(kSecond + RepairDelay::kRecovery), Micros{230'000});
  EXPECT_EQ(delay.wanted(kSecond + RepairDelay::kRecovery + kSecond), Micros{0});
  Repair(delay, 100 * kSecond, Micros{20'000});
  EXPECT_EQ(delay.wanted(100 * kSecond), Micros{110'000});
}

}  // namespace
}  // namespace kovra
