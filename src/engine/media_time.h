// The two clocks of the engine. Nothing below the sessions reads a clock: the time is passed in.
#ifndef SIGNALCONN_ENGINE_MEDIA_TIME_H
#define SIGNALCONN_ENGINE_MEDIA_TIME_H

#include <chrono>
#include <cstdint>

namespace kovra {

// Time on the monotonic clock since any fixed point, and spans of it.
using Micros = std::chrono::microseconds;

// Wall clock in NTP's 64-bit form: seconds since 1900 in the upper half, fractions of 2^-32 s in the lower.
using NtpTime = std::uint64_t;

// unixTime: microseconds since 1970-01-01 UTC.
NtpTime ToNtpTime(Micros unixTime);

// The middle 32 bits, in units of 2^-16 s, that RTCP reports refer to (RFC 3550, 4).
inline std::uint32_t CompactNtp(NtpTime time) { return static_cast<std::uint32_t>(time >> 16); }

// span in ticks of a clock of clockRate Hz, cut to 32 bits as RTP timestamps are.
std::uint32_t ToRtpTicks(Micros span, std::uint32_t clockRate);

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_MEDIA_TIME_H
