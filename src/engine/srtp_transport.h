// Protects RTP and RTCP to one viewer and opens what it sends (RFC 3711, 7714).
#ifndef SIGNALCONN_ENGINE_SRTP_TRANSPORT_H
#define SIGNALCONN_ENGINE_SRTP_TRANSPORT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

struct srtp_ctx_t_;

namespace kovra {

enum class SrtpProfile { kAeadAes128Gcm, kAes128CmSha1_80 };

constexpr std::size_t kSrtpKeyBytes = 16;
constexpr std::size_t kMaxSrtpSaltBytes = 14;
constexpr std::size_t SrtpSaltBytes(SrtpProfile profile) {
  return profile == SrtpProfile::kAeadAes128Gcm ? 12 : kMaxSrtpSaltBytes;
}

// A master key with its salt behind it.
using SrtpMasterKey = std::array<std::uint8_t, kSrtpKeyBytes + kMaxSrtpSaltBytes>;

struct SrtpKeys {
  SrtpProfile profile = SrtpProfile::kAeadAes128Gcm;
  SrtpMasterKey send{};
  SrtpMasterKey receive{};
};

// What protection appends to a packet at most: authentication tag, and the index of RTCP.
constexpr std::size_t kMaxSrtpTrailerBytes = 16 + 4;

// One thread at a time. Works in place: packet has room for kMaxSrtpTrailerBytes more. Each call returns the
// packet's new length, or 0 when it is to be dropped: not authentic, seen before, or malformed.
class SrtpTransport {
 public:
  // nullopt when libsrtp refuses the keys.
  static std::optional<SrtpTransport> Create(const SrtpKeys& keys);
  SrtpTransport(SrtpTransport&& other) noexcept;
  SrtpTransport& operator=(SrtpTransport&& other) noexcept;
  ~SrtpTransport();

  std::size_t protectRtp(std::uint8_t* packet, std::size_t size);
  std::size_t protectRtcp(std::uint8_t* packet, std::size_t size);
  std::size_t unprotectRtp(std::uint8_t* packet, std::size_t size);
  std::size_t unprotectRtcp(std::uint8_t* packet, std::size_t size);

 private:
  SrtpTransport() = default;

  srtp_ctx_t_* send_ = nullptr;
  srtp_ctx_t_* receive_ = nullptr;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_SRTP_TRANSPORT_H
