#include "dtls_transport.h"

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <deque>
#include <memory>
#include <thread>
#include <vector>

namespace {

std::atomic<std::time_t> clockSetBack{0};

}  // namespace

// In place of the system's, for OpenSSL to use.
extern "C" int gettimeofday(timeval* out, void*) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  out->tv_sec = now.tv_sec - clockSetBack;
  out->tv_usec = now.tv_nsec / 1000;
  return 0;
}

namespace kovra {
namespace {

using Datagram = std::vector<std::uint8_t>;

// One side: its association and what it sent and nobody has carried over yet.
struct Side {
  explicit Side(DtlsTransport::Role role, SdpFingerprint expected = DtlsIdentity::Get()->fingerprint())
      : transport(*DtlsIdentity::Get(), role, {std::move(expected)},
                  [this](ByteView datagram) { sent.emplace_back(datagram.data, datagram.data + datagram.size); }) {}

  std::deque<Datagram> sent;
  DtlsTransport transport;
};

// Carries everything that one side has sent to the other; returns whether there was anything.
bool Carry(Side& from, Side& to) {
  const std::deque<Datagram> datagrams = std::exchange(from.sent, {});
  for (const Datagram& datagram : datagrams) to.transport.receive(ByteView(datagram));
  return !datagrams.empty();
}

void CarryAll(Side& one, Side& other) {
  for (bool busy = true; busy;) {
    const bool there = Carry(one, other);
    const bool back = Carry(other, one);
    busy = there || back;
  }
}

struct Connection {
  Side client{DtlsTransport::Role::kClient};
  Side server{DtlsTransport::Role::kServer};

  Connection() {
    client.transport.start();
    CarryAll(client, server);
  }
};

void WaitForTimeout(const DtlsTransport& transport) {
  while (transport.timeLeft() != Micros{0}) std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

TEST(DtlsTransport, ConnectsAndBothSidesExportTheSameKeys) {
  Connection connection;
  ASSERT_EQ(connection.client.transport.state(), DtlsTransportState::kConnected);
  ASSERT_EQ(connection.server.transport.state(), DtlsTransportState::kConnected);
  const auto client = connection.client.transport.srtpKeys();
  const auto server = connection.server.transport.srtpKeys();
  ASSERT_TRUE(client && server);
  EXPECT_EQ(client->profile, SrtpProfile::kAeadAes128Gcm);
  EXPECT_EQ(server->profile, client->profile);
  EXPECT_EQ(client->send, server->receive);
  EXPECT_EQ(client->receive, server->send);
  EXPECT_NE(client->send, client->receive);
}

TEST(DtlsTransport, HasNoKeysBeforeItIsConnected) {
  Side client(DtlsTransport::Role::kClient);
  client.transport.start();
  EXPECT_FALSE(client.transport.srtpKeys());
}

TEST(DtlsTransport, SendsNoDatagramLargerThanTheLimit) {
  Side client(DtlsTransport::Role::kClient);
  Side server(DtlsTransport::Role::kServer);
  client.transport.start();
  std::size_t largest = 0;
  for (int i = 0; i < 10; ++i) {
    for (const Side* side : {&client, &server}) {
      for (const Datagram& datagram : side->sent) largest = std::max(largest, datagram.size());
    }
    Carry(client, server);
    Carry(server, client);
  }
  ASSERT_EQ(client.transport.state(), DtlsTransportState::kConnected);
  EXPECT_GT(largest, 0u);
  EXPECT_LE(largest, static_cast<std::size_t>(DtlsTransport::kMaxDatagramBytes));
}

TEST(DtlsTransport, FailsWhenTheCertificateIsNotTheOneOfTheOffer) {
  SdpFingerprint other = DtlsIdentity::Get()->fingerprint();
  other.digest.back() ^= 1;
  Side client(DtlsTransport::Role::kClient);
  Side server(DtlsTransport::Role::kServer, other);
  client.transport.start();
  CarryAll(client, server);
  EXPECT_EQ(server.transport.state(), DtlsTransportState::kFailed);
  EXPECT_FALSE(server.transport.srtpKeys());
}

TEST(DtlsTransport, FailsWithoutAnyFingerprint) {
  Side client(DtlsTransport::Role::kClient);
  Side server(DtlsTransport::Role::kServer, SdpFingerprint{"sha-256", {}});
  client.transport.start();
  CarryAll(client, server);
  EXPECT_EQ(server.transport.state(), DtlsTransportState::kFailed);
}

TEST(DtlsTransport, RepeatsALostFlight) {
  Side client(DtlsTransport::Role::kClient);
  Side server(DtlsTransport::Role::kServer);
  client.transport.start();
  client.sent.clear();
  ASSERT_TRUE(client.transport.timeLeft());
  WaitForTimeout(client.transport);
  client.transport.onTimeout();
  EXPECT_FALSE(client.sent.empty());
  CarryAll(client, server);
  EXPECT_EQ(client.transport.state(), DtlsTransportState::kConnected);
  EXPECT_EQ(server.transport.state(), DtlsTransportState::kConnected);
}

TEST(DtlsTransport, RepeatsItsLastFlightWhenTheOtherSideMissedIt) {
  Side client(DtlsTransport::Role::kClient);
  Side server(DtlsTransport::Role::kServer);
  client.transport.start();
  while (server.transport.state() != DtlsTransportState::kConnected) {
    Carry(client, server);
    if (server.transport.state() != DtlsTransportState::kConnected) Carry(server, client);
  }
  server.sent.clear();
  WaitForTimeout(client.transport);
  client.transport.onTimeout();
  CarryAll(client, server);
  EXPECT_EQ(client.transport.state(), DtlsTransportState::kConnected);
  EXPECT_EQ(server.transport.state(), DtlsTransportState::kConnected);
}

TEST(DtlsTransport, RepeatsALostFlightWhenTheClockWasSetBack) {
  Side client(DtlsTransport::Role::kClient);
  Side server(DtlsTransport::Role::kServer);
  client.transport.start();
  Carry(client, server);
  ASSERT_FALSE(server.sent.empty());
  server.sent.clear();
  clockSetBack = 3600;
  WaitForTimeout(server.transport);
  server.transport.onTimeout();
  EXPECT_FALSE(server.sent.empty());
  CarryAll(server, client);
  clockSetBack = 0;
  EXPECT_EQ(client.transport.state(), DtlsTransportState::kConnected);
  EXPECT_EQ(server.transport.state(), DtlsTransportState::kConnected);
}

TEST(DtlsTransport, WaitsForNothingOnceItIsConnected) {
  Connection connection;
  EXPECT_FALSE(connection.client.transport.timeLeft());
  EXPECT_FALSE(connection.server.transport.timeLeft());
}

TEST(DtlsTransport, IgnoresMalformedDatagrams) {
  Side client(DtlsTransport::Role::kClient);
  Side server(DtlsTransport::Role::kServer);
  const std::vector<Datagram> nonsense = {{20},
                                          {22, 254, 253},
                                          Datagram(13, 22),
                                          Datagram(1500, 23),
                                          Datagram(64, 63),
                                          {22, 254, 253, 0, 0, 0, 0, 0, 0, 0, 0, 255, 255}};
  for (const Datagram& datagram : nonsense) server.transport.receive(ByteView(datagram));
  client.transport.start();
  for (int i = 0; i < 10; ++i) {
    Carry(client, server);
    for (const Datagram& datagram : nonsense) server.transport.receive(ByteView(datagram));
    Carry(server, client);
    for (const Datagram& datagram : nonsense) client.transport.receive(ByteView(datagram));
  }
  EXPECT_EQ(client.transport.state(), DtlsTransportState::kConnected);
  EXPECT_EQ(server.transport.state(), DtlsTransportState::kConnected);
}

TEST(DtlsTransport, TellsTheOtherSideThatItCloses) {
  Connection connection;
  connection.server.transport.close();
  Carry(connection.server, connection.client);
  EXPECT_EQ(connection.client.transport.state(), DtlsTransportState::kClosed);
}

TEST(DtlsTransport, StaysClosed) {
  Connection connection;
  connection.client.transport.close();
  CarryAll(connection.client, connection.server);
  ASSERT_EQ(connection.server.transport.state(), DtlsTransportState::kClosed);
  Side another(DtlsTransport::Role::kClient);
  another.transport.start();
  Carry(another, connection.server);
  EXPECT_TRUE(connection.server.sent.empty());
  EXPECT_EQ(connection.server.transport.state(), DtlsTransportState::kClosed);
}

// A viewer with settings of its own, in plain OpenSSL.
class ForeignClient {
 public:
  explicit ForeignClient(const char* srtpProfiles, bool withCertificate = true) : context_(SSL_CTX_new(DTLS_method())) {
    if (withCertificate) {
      SSL_CTX* ours = DtlsIdentity::Get()->context();
      SSL_CTX_use_certificate(context_, SSL_CTX_get0_certificate(ours));
      SSL_CTX_use_PrivateKey(context_, SSL_CTX_get0_privatekey(ours));
    }
    if (srtpProfiles != nullptr) {
      EXPECT_EQ(SSL_CTX_set_tlsext_use_srtp(context_, srtpProfiles), 0);
    }
    ssl_ = SSL_new(context_);
    in_ = BIO_new(BIO_s_mem());
    out_ = BIO_new(BIO_s_mem());
    BIO_set_mem_eof_return(in_, -1);
    SSL_set_bio(ssl_, in_, out_);
    SSL_set_options(ssl_, SSL_OP_NO_QUERY_MTU);
    DTLS_set_link_mtu(ssl_, 1400);
    SSL_set_connect_state(ssl_);
  }
  ~ForeignClient() {
    SSL_free(ssl_);
    SSL_CTX_free(context_);
  }
  ForeignClient(const ForeignClient&) = delete;
  ForeignClient& operator=(const ForeignClient&) = delete;

  void connectTo(Side& server) {
    for (int i = 0; i < 10; ++i) {
      SSL_do_handshake(ssl_);
      ERR_clear_error();
      char* bytes = nullptr;
      const long size = BIO_get_mem_data(out_, &bytes);
      const Datagram datagram(bytes, bytes + size);
      BIO_reset(out_);
      server.transport.receive(ByteView(datagram));
      for (const Datagram& reply : std::exchange(server.sent, {})) {
        BIO_write(in_, reply.data(), static_cast<int>(reply.size()));
        SSL_do_handshake(ssl_);
        ERR_clear_error();
      }
    }
  }

 private:
  SSL_CTX* context_;
  SSL* ssl_;
  BIO* in_;
  BIO* out_;
};

TEST(DtlsTransport, ChoosesGcmWhateverTheViewerPrefers) {
  Side server(DtlsTransport::Role::kServer);
  ForeignClient("SRTP_AES128_CM_SHA1_80:SRTP_AEAD_AES_128_GCM").connectTo(server);
  ASSERT_TRUE(server.transport.srtpKeys());
  EXPECT_EQ(server.transport.srtpKeys()->profile, SrtpProfile::kAeadAes128Gcm);
}

TEST(DtlsTransport, TakesAViewerThatKnowsOnlyCounterMode) {
  Side server(DtlsTransport::Role::kServer);
  ForeignClient("SRTP_AES128_CM_SHA1_80").connectTo(server);
  ASSERT_TRUE(server.transport.srtpKeys());
  EXPECT_EQ(server.transport.srtpKeys()->profile, SrtpProfile::kAes128CmSha1_80);
}

TEST(DtlsTransport, FailsWithoutACommonSrtpProfile) {
  Side server(DtlsTransport::Role::kServer);
  ForeignClient("SRTP_AES128_CM_SHA1_32").connectTo(server);
  EXPECT_EQ(server.transport.state(), DtlsTransportState::kFailed);
}

TEST(DtlsTransport, FailsForAViewerWithoutSrtp) {
  Side server(DtlsTransport::Role::kServer);
  ForeignClient(nullptr).connectTo(server);
  EXPECT_EQ(server.transport.state(), DtlsTransportState::kFailed);
}

TEST(DtlsTransport, FailsForAViewerWithoutACertificate) {
  Side server(DtlsTransport::Role::kServer);
  ForeignClient("SRTP_AEAD_AES_128_GCM", false).connectTo(server);
  EXPECT_EQ(server.transport.state(), DtlsTransportState::kFailed);
}

TEST(CertificateDigest, KnowsTheDigestsOfSdp) {
  const X509* certificate = SSL_CTX_get0_certificate(DtlsIdentity::Get()->context());
  EXPECT_EQ(CertificateDigest(certificate, "sha-256").size(), 32u);
  EXPECT_EQ(CertificateDigest(certificate, "sha-384").size(), 48u);
  EXPECT_EQ(CertificateDigest(certificate, "sha-512").size(), 64u);
  EXPECT_TRUE(CertificateDigest(certificate, "md5").empty());
}

}  // namespace
}  // namespace kovra
