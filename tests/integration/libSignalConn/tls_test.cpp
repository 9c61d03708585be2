// wss:// servers: the good one, and those that must be refused, each with the line that tells why.
#include <gtest/gtest.h>

#include <cstdlib>

#include "captured_output.h"
#include "certificates.h"
#include "client_test.h"
#include "fake_resolver.h"
#include "temporary_directory.h"

namespace {

using std::chrono::seconds;
using support::CapturedOutput;
using support::FakeResolver;
using support::ScriptedServer;
using support::ServerOptions;
using support::TemporaryDirectory;
using support::TestAuthority;
using support::TlsContext;
using support::Validity;

const char kName[] = "server.example";

// The process trusts one authority of the test's.
class Tls : public ClientTest {
 protected:
  Tls() {
    setenv("SSL_CERT_FILE", directory_.Write("authority.pem", trusted_.Pem()).c_str(), 1);
    FakeResolver::Get().Answer(kName, {"127.0.0.1"});
  }

  int ConnectTls(const ScriptedServer& server, const std::string& path = "/") {
    return Connect("wss://" + std::string(kName) + path, server.Port());
  }

  static ServerOptions With(TlsContext context) {
    ServerOptions options;
    options.tls = std::move(context);
    return options;
  }

  // Three attempts, none of which gets as far as a request; told once.
  void ExpectRefused(TlsContext context, const std::string& why) {
    ScriptedServer server(With(std::move(context)));
    ConnectTls(server);
    StartService();
    for (int attempt = 0; attempt < 3; ++attempt) {
      const auto connection = server.Accept();
      ASSERT_NE(connection, nullptr);
      EXPECT_FALSE(connection->ReadHandshake());
    }
    const std::string line = "signalling: cannot reach " + std::string(kName) + ":" + std::to_string(server.Port()) +
                             ": " + why + "; trying again\n";
    EXPECT_TRUE(errors_.WaitFor(line, 1, seconds(5))) << errors_.Text();
    StopService();
    EXPECT_EQ(support::CountOf("signalling: ", errors_.Text()), 1) << errors_.Text();
    EXPECT_EQ(support::CountOf(line, errors_.Text()), 1) << errors_.Text();
  }

  CapturedOutput errors_{STDERR_FILENO};
  TemporaryDirectory directory_;
  TestAuthority trusted_;
};

TEST_F(Tls, AGoodServerIsSignedInTo) {
  ScriptedServer server(With(trusted_.Issue(kName)));
  EXPECT_EQ(ConnectTls(server, "/cameras"), 0);
  StartService();
  const auto connection = server.Accept();
  ASSERT_NE(connection, nullptr);
  const auto request = connection->ReadHandshake();
  ASSERT_TRUE(request) << errors_.Text();
  EXPECT_EQ(request->path, "/cameras");
  EXPECT_EQ(request->headers.at("host"), kName + (":" + std::to_string(server.Port())));
  connection->SendBytes(support::SwitchingProtocols(request->headers.at("sec-websocket-key")));
  EXPECT_EQ(connection->ReceiveText(), "sign-in");
  const std::string text(100000, 't');
  connection->SendText(text);
  ASSERT_TRUE(observer_.WaitForMessages(1));
  EXPECT_EQ(observer_.Messages().front(), text);
  EXPECT_EQ(client_.sendMessage(text), 0);
  EXPECT_EQ(connection->ReceiveText(), text);
}

TEST_F(Tls, ALostLinkComesBack) {
  ScriptedServer server(With(trusted_.Issue(kName)));
  EXPECT_EQ(ConnectTls(server), 0);
  StartService();
  auto connection = SignedIn(server);
  ASSERT_NE(connection, nullptr);
  connection->Reset();
  EXPECT_NE(SignedIn(server), nullptr);
}

TEST_F(Tls, AnExpiredCertificateIsRefused) {
  ExpectRefused(trusted_.Issue(kName, Validity{-30, -1}),
                "the server's certificate has expired, or the device's clock is wrong");
}

TEST_F(Tls, ACertificateOfTheFutureIsRefused) {
  ExpectRefused(trusted_.Issue(kName, Validity{1, 30}),
                "the server's certificate is not yet valid: is the device's clock right?");
}

TEST_F(Tls, ACertificateForAnotherNameIsRefused) {
  ExpectRefused(trusted_.Issue("other.example"), "the server's certificate is for another host name");
}

TEST_F(Tls, ACertificateForAPartOfTheNameIsRefused) {
  ExpectRefused(trusted_.Issue("example"), "the server's certificate is for another host name");
}

TEST_F(Tls, ACertificateOfAnUnknownAuthorityIsRefused) {
  ExpectRefused(TestAuthority("Another authority").Issue(kName),
                "the server's certificate comes from an unknown authority");
}

TEST_F(Tls, ACertificateThatOnlyNamesATrustedAuthorityIsRefused) {
  ExpectRefused(TestAuthority().Issue(kName), "the server's certificate comes from an unknown authority");
}

TEST_F(Tls, OldVersionsOfTlsAreRefused) {
  TlsContext context = trusted_.Issue(kName);
  SSL_CTX_set_security_level(context.get(), 0);
  SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION);
  SSL_CTX_set_max_proto_version(context.get(), TLS1_1_VERSION);
  ScriptedServer server(With(context));
  ConnectTls(server);
  StartService();
  for (int attempt = 0; attempt < 2; ++attempt) {
    const auto connection = server.Accept();
    ASSERT_NE(connection, nullptr);
    EXPECT_FALSE(connection->ReadHandshake());
  }
  EXPECT_FALSE(client_.isConnected());
}

TEST_F(Tls, APlainServerGetsNoSignIn) {
  ScriptedServer server;
  ConnectTls(server);
  StartService();
  const auto connection = server.Accept();
  ASSERT_NE(connection, nullptr);
  EXPECT_FALSE(connection->ReadHandshake(seconds(1)));
  connection->SendBytes("HTTP/1.1 400 Bad Request\r\n\r\n");
  EXPECT_TRUE(connection->WaitForEndFrozen());
  EXPECT_FALSE(client_.isConnected());
  EXPECT_TRUE(errors_.WaitFor("signalling: cannot reach "));
}

TEST_F(Tls, ASilentServerIsGivenUpAfterTenSeconds) {
  ScriptedServer server;
  ConnectTls(server);
  StartService();
  const auto connection = server.Accept();
  ASSERT_NE(connection, nullptr);
  const auto start = support::Clock::now();
  ASSERT_TRUE(connection->WaitForEndFrozen());
  const std::chrono::duration<double> took = support::Clock::now() - start;
  EXPECT_NEAR(took.count(), 10, 3);
}

TEST_F(Tls, AServerThatBecomesTrustworthyIsReached) {
  ServerOptions options = With(TestAuthority("Another authority").Issue(kName));
  auto server = std::make_unique<ScriptedServer>(options);
  options.port = server->Port();
  ConnectTls(*server);
  StartService();
  const auto refused = server->Accept();
  ASSERT_NE(refused, nullptr);
  EXPECT_FALSE(refused->ReadHandshake());
  EXPECT_TRUE(errors_.WaitFor("unknown authority"));
  server.reset();
  options.tls = trusted_.Issue(kName);
  ScriptedServer good(options);
  EXPECT_NE(SignedIn(good), nullptr);
}

}  // namespace
