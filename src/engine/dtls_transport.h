// The DTLS 1.2 association with one viewer, over datagrams that somebody else carries (RFC 6347, 5764, 8842).
#ifndef SIGNALCONN_ENGINE_DTLS_TRANSPORT_H
#define SIGNALCONN_ENGINE_DTLS_TRANSPORT_H

#include <openssl/ssl.h>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "bytes.h"
#include "connection_state.h"
#include "dtls_identity.h"
#include "srtp_transport.h"

namespace kovra {

// One thread at a time. Malformed datagrams change nothing.
class DtlsTransport {
 public:
  // Largest datagram that we send: within 1280 bytes with IPv6, UDP and a relay's header.
  static constexpr long kMaxDatagramBytes = 1200;

  enum class Role { kClient, kServer };
  using Send = std::function<void(ByteView datagram)>;

  // identity outlives this. fingerprints: one of them must be that of the viewer's certificate. send takes every
  // datagram that is to go to the viewer, from inside the other calls; it must not call back.
  DtlsTransport(const DtlsIdentity& identity, Role role, std::vector<SdpFingerprint> fingerprints, Send send);
  ~DtlsTransport();
  DtlsTransport(const DtlsTransport&) = delete;
  DtlsTransport& operator=(const DtlsTransport&) = delete;

  // The way to the viewer is there: a client greets.
  void start();
  // One datagram of the viewer's.
  void receive(ByteView datagram);
  // When the last flight is to be sent again, counted from now; nullopt: nothing is under way. Never far ahead, even
  // when the wall clock is set back.
  std::optional<Micros> timeLeft() const;
  void onTimeout();
  // Tells the viewer that the association ends.
  void close();

  DtlsTransportState state() const { return state_; }
  // Whether the handshake has begun: a datagram went out or came in.
  bool isUnderWay() const { return state_ == DtlsTransportState::kConnecting; }
  // The keys for SRTP; nullopt before the handshake is done.
  std::optional<SrtpKeys> srtpKeys() const;

 private:
  struct FreeSsl {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
  };

  void repeatFlight();
  void proceed();
  void readAlerts();
  bool isExpectedCertificate() const;
  void fail(const char* reason);

  static BIO_METHOD* DatagramMethod();
  static int WriteDatagram(BIO* bio, const char* data, int size);
  static int ReadDatagram(BIO* bio, char* out, int size);
  static long Control(BIO* bio, int command, long number, void* pointer);
  static unsigned int NextTimeout(SSL* ssl, unsigned int microseconds);

  const Role role_;
  const std::vector<SdpFingerprint> fingerprints_;
  const Send send_;
  ByteView inbound_;  // the datagram being received, until it is read
  std::unique_ptr<SSL, FreeSsl> ssl_;
  DtlsTransportState state_ = DtlsTransportState::kNew;
  // OpenSSL's timer follows the wall clock: when that was set back, the last flight is repeated from here.
  std::vector<std::vector<std::uint8_t>> flight_;
  bool flightIsOver_ = false;  // the next datagram begins another
  Micros repeatBy_{0};
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_DTLS_TRANSPORT_H
