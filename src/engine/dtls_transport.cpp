#include "dtls_transport.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <sys/time.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "clock.h"
#include "log.h"

namespace kovra {

namespace {

// The first flight is repeated sooner than RFC 6347 suggests (1 s): a lost packet is not to delay the first
// picture much. It doubles from there.
constexpr unsigned int kFirstTimeoutMicros = 150'000;
constexpr unsigned int kLongestTimeoutMicros = 3'000'000;

constexpr char kExporterLabel[] = "EXTRACTOR-dtls_srtp";

std::optional<SrtpProfile> ToProfile(unsigned long id) {
  switch (id) {
    case SRTP_AEAD_AES_128_GCM:
      return SrtpProfile::kAeadAes128Gcm;
    case SRTP_AES128_CM_SHA1_80:
      return SrtpProfile::kAes128CmSha1_80;
    default:
      return std::nullopt;
  }
}

}  // namespace

DtlsTransport::DtlsTransport(const DtlsIdentity& identity, Role role, std::vector<SdpFingerprint> fingerprints,
                             Send send)
    : role_(role), fingerprints_(std::move(fingerprints)), send_(std::move(send)), ssl_(SSL_new(identity.context())) {
  BIO* bio = BIO_new(DatagramMethod());
  if (!ssl_ || bio == nullptr) {
    BIO_free(bio);
    ssl_.reset();
    fail("out of memory");
    return;
  }
  BIO_set_data(bio, this);
  BIO_set_init(bio, 1);
  SSL_set_bio(ssl_.get(), bio, bio);
  DTLS_set_link_mtu(ssl_.get(), kMaxDatagramBytes);
  DTLS_set_timer_cb(ssl_.get(), NextTimeout);
  if (role == Role::kClient) {
    SSL_set_connect_state(ssl_.get());
  } else {
    SSL_set_accept_state(ssl_.get());
  }
}

DtlsTransport::~DtlsTransport() = default;

void DtlsTransport::start() {
  if (state_ != DtlsTransportState::kNew || role_ != Role::kClient) return;
  state_ = DtlsTransportState::kConnecting;
  proceed();
}

void DtlsTransport::receive(ByteView datagram) {
  if (state_ == DtlsTransportState::kFailed || state_ == DtlsTransportState::kClosed || datagram.empty()) return;
  if (state_ == DtlsTransportState::kNew) state_ = DtlsTransportState::kConnecting;
  inbound_ = datagram;
  flightIsOver_ = true;
  proceed();
  inbound_ = {};
  if (state_ != DtlsTransportState::kConnecting) flight_ = {};
}

std::optional<Micros> DtlsTransport::timeLeft() const {
  timeval left{};
  if (state_ != DtlsTransportState::kConnecting || DTLSv1_get_timeout(ssl_.get(), &left) != 1) return std::nullopt;
  const Micros latest = std::max(repeatBy_ - MonotonicNow(), Micros{0});
  // tv_sec may have 32 bits, too few for an hour in microseconds.
  return std::min<Micros>(std::chrono::seconds(left.tv_sec) + Micros(left.tv_usec), latest);
}

void DtlsTransport::onTimeout() {
  if (state_ != DtlsTransportState::kConnecting) return;
  ERR_clear_error();
  flightIsOver_ = true;
  const long handled = DTLSv1_handle_timeout(ssl_.get());
  if (handled < 0) return fail("no reply");
  if (handled == 0 && MonotonicNow() >= repeatBy_) repeatFlight();
}

// What the other side has already is dropped there as repeated; what it lacks was lost on the way.
void DtlsTransport::repeatFlight() {
  for (const auto& datagram : flight_) send_(ByteView(datagram));
  repeatBy_ = MonotonicNow() + Micros(kLongestTimeoutMicros);
}

void DtlsTransport::close() {
  if (state_ != DtlsTransportState::kConnected) return;
  ERR_clear_error();
  SSL_shutdown(ssl_.get());
  state_ = DtlsTransportState::kClosed;
}

std::optional<SrtpKeys> DtlsTransport::srtpKeys() const {
  if (state_ != DtlsTransportState::kConnected) return std::nullopt;
  const SRTP_PROTECTION_PROFILE* selected = SSL_get_selected_srtp_profile(ssl_.get());
  const auto profile = selected == nullptr ? std::nullopt : ToProfile(selected->id);
  if (!profile) return std::nullopt;

  const std::size_t keyBytes = kSrtpKeyBytes;
  const std::size_t saltBytes = SrtpSaltBytes(*profile);
  std::uint8_t material[2 * (kSrtpKeyBytes + kMaxSrtpSaltBytes)];
  const std::size_t size = 2 * (keyBytes + saltBytes);
  if (SSL_export_keying_material(ssl_.get(), material, size, kExporterLabel, sizeof(kExporterLabel) - 1, nullptr, 0,
                                 0) != 1) {
    return std::nullopt;
  }
  // Both keys, then both salts, the client's first (RFC 5764, 4.2).
  SrtpKeys keys;
  keys.profile = *profile;
  const std::size_t ours = role_ == Role::kClient ? 0 : 1;
  const std::size_t theirs = 1 - ours;
  const auto join = [&](std::size_t side, SrtpMasterKey& out) {
    std::memcpy(out.data(), material + side * keyBytes, keyBytes);
    std::memcpy(out.data() + keyBytes, material + 2 * keyBytes + side * saltBytes, saltBytes);
  };
  join(ours, keys.send);
  join(theirs, keys.receive);
  OPENSSL_cleanse(material, sizeof(material));
  return keys;
}

// Takes the handshake as far as it goes, then whatever the viewer has to say after it.
void DtlsTransport::proceed() {
  ERR_clear_error();
  if (state_ == DtlsTransportState::kConnecting) {
    const int result = SSL_do_handshake(ssl_.get());
    if (result == 1) {
      if (!isExpectedCertificate()) return fail("the certificate is not the one of the offer");
      state_ = DtlsTransportState::kConnected;
      if (!srtpKeys()) return fail("no common SRTP profile");
    } else {
      const int error = SSL_get_error(ssl_.get(), result);
      if (error == SSL_ERROR_ZERO_RETURN) {
        state_ = DtlsTransportState::kClosed;
      } else if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) {
        const char* reason = ERR_reason_error_string(ERR_peek_error());
        fail(reason == nullptr ? "handshake failed" : reason);
      }
      return;
    }
  }
  if (state_ == DtlsTransportState::kConnected) readAlerts();
}

// There is no application data: reading serves repeated handshake messages and alerts.
void DtlsTransport::readAlerts() {
  char ignored[256];
  int result = 0;
  do {
    ERR_clear_error();
    result = SSL_read(ssl_.get(), ignored, sizeof(ignored));
  } while (result > 0);
  const int error = SSL_get_error(ssl_.get(), result);
  if (error == SSL_ERROR_ZERO_RETURN) {
    SSL_shutdown(ssl_.get());
    state_ = DtlsTransportState::kClosed;
  } else if (error == SSL_ERROR_SSL) {
    fail("the viewer sent an alert");
  }
}

bool DtlsTransport::isExpectedCertificate() const {
  const X509* certificate = SSL_get0_peer_certificate(ssl_.get());
  if (certificate == nullptr) return false;
  return std::any_of(fingerprints_.begin(), fingerprints_.end(), [&](const SdpFingerprint& expected) {
    return !expected.digest.empty() && CertificateDigest(certificate, expected.algorithm) == expected.digest;
  });
}

void DtlsTransport::fail(const char* reason) {
  Log(LogLevel::kEverything, "engine: DTLS: %s", reason);
  state_ = DtlsTransportState::kFailed;
}

BIO_METHOD* DtlsTransport::DatagramMethod() {
  static BIO_METHOD* const method = [] {
    BIO_METHOD* made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "datagrams");
    if (made == nullptr) return made;
    BIO_meth_set_write(made, WriteDatagram);
    BIO_meth_set_read(made, ReadDatagram);
    BIO_meth_set_ctrl(made, Control);
    return made;
  }();
  return method;
}

int DtlsTransport::WriteDatagram(BIO* bio, const char* data, int size) {
  auto* transport = static_cast<DtlsTransport*>(BIO_get_data(bio));
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(data);
  if (transport->state_ == DtlsTransportState::kConnecting) {
    if (std::exchange(transport->flightIsOver_, false)) transport->flight_.clear();
    transport->flight_.emplace_back(bytes, bytes + size);
    transport->repeatBy_ = MonotonicNow() + Micros(kLongestTimeoutMicros);
  }
  transport->send_({bytes, static_cast<std::size_t>(size)});
  return size;
}

int DtlsTransport::ReadDatagram(BIO* bio, char* out, int size) {
  auto* transport = static_cast<DtlsTransport*>(BIO_get_data(bio));
  BIO_clear_retry_flags(bio);
  if (transport->inbound_.empty()) {
    BIO_set_retry_read(bio);
    return -1;
  }
  const std::size_t taken = std::min(transport->inbound_.size, static_cast<std::size_t>(size));
  std::memcpy(out, transport->inbound_.data, taken);
  transport->inbound_ = {};
  return static_cast<int>(taken);
}

long DtlsTransport::Control(BIO*, int command, long, void*) {
  switch (command) {
    case BIO_CTRL_FLUSH:
    case BIO_CTRL_DGRAM_SET_NEXT_TIMEOUT:
      return 1;
    case BIO_CTRL_DGRAM_QUERY_MTU:
    case BIO_CTRL_DGRAM_GET_FALLBACK_MTU:
      return kMaxDatagramBytes;
    default:
      return 0;
  }
}

unsigned int DtlsTransport::NextTimeout(SSL*, unsigned int microseconds) {
  return microseconds == 0 ? kFirstTimeoutMicros : std::min(microseconds * 2, kLongestTimeoutMicros);
}

}  // namespace kovra
