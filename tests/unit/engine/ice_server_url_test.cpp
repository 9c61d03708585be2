#include "ice_server_url.h"

#include <gtest/gtest.h>

namespace kovra {
namespace {

struct Case {
  const char* text;
  IceServerScheme scheme;
  const char* host;
  std::uint16_t port;
  IceTransport transport;
};

void PrintTo(const Case& c, std::ostream* out) { *out << c.text; }

class ReadIceServerUrlTest : public testing::TestWithParam<Case> {};

TEST_P(ReadIceServerUrlTest, ReadsEachPart) {
  const auto url = ReadIceServerUrl(GetParam().text);
  ASSERT_TRUE(url);
  EXPECT_EQ(url->scheme, GetParam().scheme);
  EXPECT_EQ(url->host, GetParam().host);
  EXPECT_EQ(url->port, GetParam().port);
  EXPECT_EQ(url->transport, GetParam().transport);
}

INSTANTIATE_TEST_SUITE_P(
    Urls, ReadIceServerUrlTest,
    testing::Values(
        Case{"stun:stun.example.org", IceServerScheme::kStun, "stun.example.org", 3478, IceTransport::kUdp},
        Case{"stun:192.0.2.1:19302", IceServerScheme::kStun, "192.0.2.1", 19302, IceTransport::kUdp},
        Case{"stuns:example.org", IceServerScheme::kStuns, "example.org", 5349, IceTransport::kTcp},
        Case{"turn:example.org", IceServerScheme::kTurn, "example.org", 3478, IceTransport::kUdp},
        Case{"turn:example.org:3479?transport=udp", IceServerScheme::kTurn, "example.org", 3479, IceTransport::kUdp},
        Case{"turn:example.org?transport=tcp", IceServerScheme::kTurn, "example.org", 3478, IceTransport::kTcp},
        Case{"turn:[2001:db8::1]:80?transport=tcp", IceServerScheme::kTurn, "2001:db8::1", 80, IceTransport::kTcp},
        Case{"stun:[::1]", IceServerScheme::kStun, "::1", 3478, IceTransport::kUdp},
        Case{"turns:example.org", IceServerScheme::kTurns, "example.org", 5349, IceTransport::kTcp},
        Case{"turns:example.org:443?transport=tcp", IceServerScheme::kTurns, "example.org", 443, IceTransport::kTcp},
        Case{"turns:example.org?transport=udp", IceServerScheme::kTurns, "example.org", 5349, IceTransport::kUdp},
        Case{"TURN:Example.ORG?Transport=TCP", IceServerScheme::kTurn, "Example.ORG", 3478, IceTransport::kTcp},
        Case{"stun://example.org:1", IceServerScheme::kStun, "example.org", 1, IceTransport::kUdp},
        Case{" turn:my_relay-1:65535\n", IceServerScheme::kTurn, "my_relay-1", 65535, IceTransport::kUdp}));

TEST(IceServerUrl, TellsRelaysAndTls) {
  EXPECT_FALSE(ReadIceServerUrl("stun:h")->isRelay());
  EXPECT_FALSE(ReadIceServerUrl("stun:h")->isSecure());
  EXPECT_TRUE(ReadIceServerUrl("turn:h")->isRelay());
  EXPECT_FALSE(ReadIceServerUrl("turn:h")->isSecure());
  EXPECT_TRUE(ReadIceServerUrl("turns:h")->isRelay());
  EXPECT_TRUE(ReadIceServerUrl("turns:h")->isSecure());
  EXPECT_TRUE(ReadIceServerUrl("stuns:h")->isSecure());
}

TEST(ReadIceServerUrl, RefusesWhatIsNoServer) {
  const char* const kTexts[] = {
      "",
      "stun",
      "stun:",
      "example.org:3478",
      "http://example.org",
      "stun:example.org:",
      "stun:example.org:0",
      "stun:example.org:65536",
      "stun:example.org:port",
      "stun:example.org?transport=udp",
      "turn:example.org?",
      "turn:example.org?transport=",
      "turn:example.org?transport=sctp",
      "turn:example.org?transport=udp&x=1",
      "turn:example.org?ttl=5",
      "turn:user@example.org",
      "turn::3478",
      "turn:2001:db8::1",
      "turn:[2001:db8::1",
      "turn:[example.org]:80",
      "turn:[]:80",
      "turn:[::1]80",
      "turn:exa mple.org",
      "turn:example.org/path",
  };
  for (const char* text : kTexts) EXPECT_FALSE(ReadIceServerUrl(text)) << text;
  EXPECT_FALSE(ReadIceServerUrl("stun:" + std::string(256, 'a')));
  EXPECT_FALSE(ReadIceServerUrl(std::string("turn:[::\0@]", 11)));
}

}  // namespace
}  // namespace kovra
