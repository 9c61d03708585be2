#include "media_time.h"

#include <gtest/gtest.h>

namespace kovra {
namespace {

TEST(NtpTime, CountsSecondsFrom1900AndBinaryFractions) {
  EXPECT_EQ(ToNtpTime(Micros(0)), std::uint64_t{2208988800} << 32);
  EXPECT_EQ(ToNtpTime(Micros(1'500'000)), (std::uint64_t{2208988801} << 32) | 0x80000000u);
  EXPECT_EQ(ToNtpTime(Micros(250'000)), (std::uint64_t{2208988800} << 32) | 0x40000000u);
}

TEST(NtpTime, CutsTheMiddleForReports) { EXPECT_EQ(CompactNtp(0x1234567890ABCDEFu), 0x567890ABu); }

TEST(RtpTicks, ScaleSpansToTheClockRate) {
  EXPECT_EQ(ToRtpTicks(Micros(1'000'000), 90000), 90000u);
  EXPECT_EQ(ToRtpTicks(Micros(20'000), 8000), 160u);
  EXPECT_EQ(ToRtpTicks(Micros(33'333), 90000), 2999u);
}

TEST(RtpTicks, WrapAround) {
  // 2^32 ticks at 8 kHz are 536870.912 s.
  EXPECT_EQ(ToRtpTicks(Micros(536'870'912'000), 8000), 0u);
  EXPECT_EQ(ToRtpTicks(Micros(536'870'912'125), 8000), 1u);
}

TEST(RtpTicks, GrowEvenlyAfterAHundredYearsOfUptime) {
  const Micros century(std::int64_t{100} * 365 * 86400 * 1'000'000);
  EXPECT_EQ(ToRtpTicks(century + Micros(1'000'000), 90000) - ToRtpTicks(century, 90000), 90000u);
}

TEST(RtpTicks, GoBackForNegativeSpans) { EXPECT_EQ(ToRtpTicks(Micros(-1'000'000), 8000), 0u - 8000u); }

}  // namespace
}  // namespace kovra
