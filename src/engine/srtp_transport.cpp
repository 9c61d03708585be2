#include "srtp_transport.h"

#include <srtp2/srtp.h>

#include <array>
#include <cstring>
#include <utility>

#include "log.h"

namespace kovra {

namespace {

// Packets that may be overtaken, or sent again, and still be taken.
constexpr unsigned long kWindowPackets = 1024;

bool InitializeLibrary() {
  static const bool initialized = [] {
    const bool done = srtp_init() == srtp_err_status_ok;
    if (!done) Log(LogLevel::kError, "engine: libsrtp cannot be initialized");
    return done;
  }();
  return initialized;
}

srtp_t CreateContext(SrtpProfile profile, SrtpMasterKey key, srtp_ssrc_type_t direction) {
  srtp_policy_t policy{};
  if (profile == SrtpProfile::kAeadAes128Gcm) {
    srtp_crypto_policy_set_aes_gcm_128_16_auth(&policy.rtp);
    srtp_crypto_policy_set_aes_gcm_128_16_auth(&policy.rtcp);
  } else {
    srtp_crypto_policy_set_aes_cm_128_hmac_sha1_80(&policy.rtp);
    srtp_crypto_policy_set_aes_cm_128_hmac_sha1_80(&policy.rtcp);
  }
  policy.ssrc.type = direction;
  policy.key = key.data();
  policy.window_size = kWindowPackets;
  // Without RTX a packet is sent again as it was: same index, same bytes.
  policy.allow_repeat_tx = 1;
  srtp_t context = nullptr;
  return srtp_create(&context, &policy) == srtp_err_status_ok ? context : nullptr;
}

// libsrtp reads and writes words: not every processor does that anywhere.
constexpr std::size_t kAlignment = 4;
constexpr std::size_t kMaxPacketBytes = 2048;

template <typename Operation>
std::size_t Apply(Operation operation, srtp_t context, std::uint8_t* packet, std::size_t size) {
  alignas(kAlignment) std::array<std::uint8_t, kMaxPacketBytes> aligned;
  if (size > aligned.size() - kMaxSrtpTrailerBytes) return 0;
  int length = static_cast<int>(size);
  if (reinterpret_cast<std::uintptr_t>(packet) % kAlignment == 0) {
    return operation(context, packet, &length) == srtp_err_status_ok ? static_cast<std::size_t>(length) : 0;
  }
  std::memcpy(aligned.data(), packet, size);
  if (operation(context, aligned.data(), &length) != srtp_err_status_ok) return 0;
  std::memcpy(packet, aligned.data(), static_cast<std::size_t>(length));
  return static_cast<std::size_t>(length);
}

}  // namespace

std::optional<SrtpTransport> SrtpTransport::Create(const SrtpKeys& keys) {
  if (!InitializeLibrary()) return std::nullopt;
  SrtpTransport transport;
  transport.send_ = CreateContext(keys.profile, keys.send, ssrc_any_outbound);
  transport.receive_ = CreateContext(keys.profile, keys.receive, ssrc_any_inbound);
  if (transport.send_ == nullptr || transport.receive_ == nullptr) return std::nullopt;
  return transport;
}

SrtpTransport::SrtpTransport(SrtpTransport&& other) noexcept
    : send_(std::exchange(other.send_, nullptr)), receive_(std::exchange(other.receive_, nullptr)) {}

SrtpTransport& SrtpTransport::operator=(SrtpTransport&& other) noexcept {
  std::swap(send_, other.send_);
  std::swap(receive_, other.receive_);
  return *this;
}

SrtpTransport::~SrtpTransport() {
  if (send_ != nullptr) srtp_dealloc(send_);
  if (receive_ != nullptr) srtp_dealloc(receive_);
}

std::size_t SrtpTransport::protectRtp(std::uint8_t* packet, std::size_t size) {
  return Apply(srtp_protect, send_, packet, size);
}

std::size_t SrtpTransport::protectRtcp(std::uint8_t* packet, std::size_t size) {
  return Apply(srtp_protect_rtcp, send_, packet, size);
}

std::size_t SrtpTransport::unprotectRtp(std::uint8_t* packet, std::size_t size) {
  return Apply(srtp_unprotect, receive_, packet, size);
}

std::size_t SrtpTransport::unprotectRtcp(std::uint8_t* packet, std::size_t size) {
  return Apply(srtp_unprotect_rtcp, receive_, packet, size);
}

}  // namespace kovra
