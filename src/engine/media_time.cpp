#include "media_time.h"

namespace kovra {

namespace {

constexpr std::int64_t kSecondsFrom1900To1970 = 2208988800;
constexpr std::int64_t kMicrosPerSecond = 1000000;

}  // namespace

NtpTime ToNtpTime(Micros unixTime) {
  const std::int64_t seconds = unixTime.count() / kMicrosPerSecond;
  const auto micros = static_cast<std::uint64_t>(unixTime.count() % kMicrosPerSecond);
  return static_cast<NtpTime>(seconds + kSecondsFrom1900To1970) << 32 | (micros << 32) / kMicrosPerSecond;
}

std::uint32_t ToRtpTicks(Micros span, std::uint32_t clockRate) {
  // Seconds and their fraction apart: the product of both would leave 64 bits after a few years of uptime.
  const std::int64_t rate = clockRate;
  const std::int64_t seconds = span.count() / kMicrosPerSecond;
  const std::int64_t micros = span.count() % kMicrosPerSecond;
  return static_cast<std::uint32_t>(seconds * rate + micros * rate / kMicrosPerSecond);
}

}  // namespace kovra
