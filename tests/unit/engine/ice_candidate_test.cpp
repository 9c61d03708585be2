#include "ice_candidate.h"

#include <gtest/gtest.h>

namespace kovra {
namespace {

TEST(ReadIceCandidate, ReadsAHostCandidateOfABrowser) {
  const auto candidate = ReadIceCandidate(
      "candidate:1467250027 1 udp 2122260223 192.168.0.196 46243 typ host generation 0 ufrag EsAw network-id 1 "
      "network-cost 50");
  ASSERT_TRUE(candidate);
  EXPECT_EQ(candidate->foundation, "1467250027");
  EXPECT_EQ(candidate->component, 1);
  EXPECT_EQ(candidate->transport, IceTransport::kUdp);
  EXPECT_EQ(candidate->priority, 2122260223u);
  EXPECT_EQ(candidate->address, "192.168.0.196");
  EXPECT_EQ(candidate->port, 46243);
  EXPECT_EQ(candidate->type, IceCandidateType::kHost);
  EXPECT_EQ(candidate->relatedAddress, "");
  EXPECT_EQ(candidate->tcpType, "");
  EXPECT_EQ(candidate->usernameFragment, "EsAw");
  EXPECT_TRUE(candidate->hasIpAddress());
  EXPECT_FALSE(candidate->hasLocalName());
}

TEST(ReadIceCandidate, ReadsReflexiveAndRelayedCandidates) {
  const auto reflexive =
      ReadIceCandidate("candidate:842163049 1 UDP 1677729535 203.0.113.7 50000 typ srflx raddr 10.0.0.2 rport 40000");
  ASSERT_TRUE(reflexive);
  EXPECT_EQ(reflexive->type, IceCandidateType::kServerReflexive);
  EXPECT_EQ(reflexive->relatedAddress, "10.0.0.2");
  EXPECT_EQ(reflexive->relatedPort, 40000);
  const auto relayed = ReadIceCandidate("candidate:a+/ 1 udp 41885695 2001:db8::7 3479 typ relay raddr :: rport 0");
  ASSERT_TRUE(relayed);
  EXPECT_EQ(relayed->type, IceCandidateType::kRelayed);
  EXPECT_EQ(relayed->address, "2001:db8::7");
  EXPECT_TRUE(relayed->hasIpAddress());
  EXPECT_EQ(ReadIceCandidate("candidate:1 1 udp 1 192.0.2.1 9 typ prflx")->type, IceCandidateType::kPeerReflexive);
}

TEST(ReadIceCandidate, ReadsTcp) {
  const auto candidate = ReadIceCandidate("candidate:1 1 tcp 1518280447 192.0.2.1 9 typ host tcptype active");
  ASSERT_TRUE(candidate);
  EXPECT_EQ(candidate->transport, IceTransport::kTcp);
  EXPECT_EQ(candidate->tcpType, "active");
  EXPECT_FALSE(ReadIceCandidate("candidate:1 1 tcp 1518280447 192.0.2.1 9 typ host tcptype eager"));
}

TEST(ReadIceCandidate, RecognisesNamesOfMulticastDns) {
  for (const char* name : {"6e3c5d3e-2d1b-4b5c-9f5e-0a1b2c3d4e5f.local", "HOST.LOCAL", "host.local."}) {
    const auto candidate = ReadIceCandidate(std::string("candidate:1 1 udp 1 ") + name + " 9 typ host");
    ASSERT_TRUE(candidate) << name;
    EXPECT_TRUE(candidate->hasLocalName()) << name;
    EXPECT_FALSE(candidate->hasIpAddress()) << name;
  }
  for (const char* name : {"example.org", "local", ".local", "host.local.example", "hostlocal"}) {
    const auto candidate = ReadIceCandidate(std::string("candidate:1 1 udp 1 ") + name + " 9 typ host");
    ASSERT_TRUE(candidate) << name;
    EXPECT_FALSE(candidate->hasLocalName()) << name;
  }
}

TEST(ReadIceCandidate, AcceptsTheFormOfALineInADescription) {
  EXPECT_TRUE(ReadIceCandidate("a=candidate:1 1 udp 1 192.0.2.1 9 typ host\r\n"));
}

TEST(ReadIceCandidate, AcceptsTheLimitsOfEachNumber) {
  EXPECT_EQ(ReadIceCandidate("candidate:1 256 udp 4294967295 192.0.2.1 65535 typ host")->priority, 4294967295u);
  EXPECT_TRUE(ReadIceCandidate("candidate:1 1 udp 0 192.0.2.1 0 typ host"));
  EXPECT_TRUE(ReadIceCandidate("candidate:" + std::string(32, 'f') + " 1 udp 1 192.0.2.1 9 typ host"));
}

TEST(ReadIceCandidate, RefusesWhatIsNoCandidate) {
  const char* const kTexts[] = {
      "",
      "candidate:",
      "candidate",
      "1 1 udp 1 192.0.2.1 9 typ host",
      "candidate: 1 1 udp",
      "candidate:1 1 udp 1 192.0.2.1 9",
      "candidate:1 1 udp 1 192.0.2.1 9 typ",
      "candidate:1 1 udp 1 192.0.2.1 9 host",
      "candidate:1 1 udp 1 192.0.2.1 9 typ best",
      "candidate:1 0 udp 1 192.0.2.1 9 typ host",
      "candidate:1 257 udp 1 192.0.2.1 9 typ host",
      "candidate:1 -1 udp 1 192.0.2.1 9 typ host",
      "candidate:1 1 sctp 1 192.0.2.1 9 typ host",
      "candidate:1 1 udp 4294967296 192.0.2.1 9 typ host",
      "candidate:1 1 udp x 192.0.2.1 9 typ host",
      "candidate:1 1 udp 1 192.0.2.1 65536 typ host",
      "candidate:1 1 udp 1 192.0.2.1\r\n 9 typ host",
      "candidate:1 1 udp 1 <script> 9 typ host",
      "candidate:1! 1 udp 1 192.0.2.1 9 typ host",
      "candidate:1 1 udp 1 192.0.2.1 9 typ host raddr",
      "candidate:1 1 udp 1 192.0.2.1 9 typ host rport many",
      "candidate:1 1 udp 1 192.0.2.1 9 typ host ufrag a:b",
      "candidate:1 1 udp 1 192.0.2.1 9 typ host generation",
  };
  for (const char* text : kTexts) EXPECT_FALSE(ReadIceCandidate(text)) << text;
  EXPECT_FALSE(ReadIceCandidate("candidate:" + std::string(33, 'f') + " 1 udp 1 192.0.2.1 9 typ host"));
  EXPECT_FALSE(ReadIceCandidate("candidate:1 1 udp 1 " + std::string(256, 'a') + " 9 typ host"));
  EXPECT_FALSE(ReadIceCandidate("candidate:1 1 udp 1 192.0.2.1 9 typ host" + std::string(kMaxCandidateBytes, ' ')));
}

TEST(WriteIceCandidate, WritesWhatIsReadBack) {
  const char* const kLines[] = {
      "candidate:1 1 udp 2122260223 192.0.2.1 46243 typ host",
      "candidate:a+/ 1 udp 1677729535 203.0.113.7 50000 typ srflx raddr 10.0.0.2 rport 40000",
      "candidate:3 2 udp 7 2001:db8::1 1 typ prflx raddr :: rport 0",
      "candidate:4 1 tcp 1518280447 192.0.2.1 9 typ host tcptype passive",
      "candidate:5 1 udp 41885695 203.0.113.9 3479 typ relay raddr 203.0.113.7 rport 50000 ufrag EsAw",
  };
  for (const char* line : kLines) {
    const auto candidate = ReadIceCandidate(line);
    ASSERT_TRUE(candidate) << line;
    EXPECT_EQ(WriteIceCandidate(*candidate), line);
  }
}

TEST(ReadIceCandidateInit, ReadsTheJsonOfABrowser) {
  const auto init = ReadIceCandidateInit(
      R"({"candidate":"candidate:1 1 udp 1 192.0.2.1 9 typ host generation 0","sdpMid":"0","sdpMLineIndex":2,)"
      R"("usernameFragment":"EsAw"})");
  ASSERT_TRUE(init);
  ASSERT_TRUE(init->candidate);
  EXPECT_EQ(init->candidate->address, "192.0.2.1");
  EXPECT_EQ(init->candidate->usernameFragment, "EsAw");
}

TEST(ReadIceCandidateInit, PrefersTheFragmentInTheLine) {
  const auto init = ReadIceCandidateInit(
      R"({"candidate":"candidate:1 1 udp 1 192.0.2.1 9 typ host ufrag line","usernameFragment":"member"})");
  EXPECT_EQ(init->candidate->usernameFragment, "line");
}

TEST(ReadIceCandidateInit, AcceptsMissingAndNullMembers) {
  auto init = ReadIceCandidateInit(
      R"({"candidate":"candidate:1 1 udp 1 192.0.2.1 9 typ host","sdpMid":null,"sdpMLineIndex":null,)"
      R"("usernameFragment":null})");
  ASSERT_TRUE(init);
  EXPECT_TRUE(init->candidate);
  init = ReadIceCandidateInit(R"({"candidate":"candidate:1 1 udp 1 192.0.2.1 9 typ host"})");
  ASSERT_TRUE(init);
  EXPECT_TRUE(init->candidate);
}

TEST(ReadIceCandidateInit, ReadsABareLine) {
  const auto init = ReadIceCandidateInit("candidate:1 1 udp 1 192.0.2.1 9 typ host\n");
  ASSERT_TRUE(init);
  EXPECT_TRUE(init->candidate);
}

TEST(ReadIceCandidateInit, ReadsTheEndOfCandidates) {
  for (const char* text : {"", " \n", R"({"candidate":"","sdpMid":"0","sdpMLineIndex":0})", R"({"candidate":null})",
                           "null", "end-of-candidates", "a=end-of-candidates\r\n"}) {
    const auto init = ReadIceCandidateInit(text);
    ASSERT_TRUE(init) << text;
    EXPECT_FALSE(init->candidate) << text;
  }
}

TEST(ReadIceCandidateInit, RefusesWhatIsNeither) {
  const char* const kTexts[] = {
      "garbage",
      "{",
      "{}",
      "[]",
      R"({"candidate":5})",
      R"({"candidate":"garbage"})",
      R"({"sdpMid":"0"})",
      R"({"candidate":"candidate:1 1 udp 1 192.0.2.1 9 typ host"} trailing)",
      R"({"candidate":"candidate:1 1 udp 1 192.0.2.1 9 typ host","sdpMid":7})",
      R"({"candidate":"candidate:1 1 udp 1 192.0.2.1 9 typ host","sdpMLineIndex":-1})",
      R"({"candidate":"candidate:1 1 udp 1 192.0.2.1 9 typ host","sdpMLineIndex":65536})",
      R"({"candidate":"candidate:1 1 udp 1 192.0.2.1 9 typ host","sdpMLineIndex":"0"})",
      R"({"candidate":"candidate:1 1 udp 1 192.0.2.1 9 typ host","usernameFragment":"a b"})",
  };
  for (const char* text : kTexts) EXPECT_FALSE(ReadIceCandidateInit(text)) << text;
  EXPECT_FALSE(ReadIceCandidateInit(std::string(kMaxCandidateBytes + 1, ' ')));
  EXPECT_FALSE(ReadIceCandidateInit(std::string(kMaxCandidateBytes, '{')));
  EXPECT_FALSE(ReadIceCandidateInit(std::string("{\"candidate\":\"\"}\0x", 18)));
}

TEST(WriteIceCandidateInit, WritesTheThreeMembers) {
  const auto candidate = ReadIceCandidate("candidate:1 1 udp 7 192.0.2.1 9 typ host");
  EXPECT_EQ(WriteIceCandidateInit(*candidate, "video", 3),
            R"({"candidate":"candidate:1 1 udp 7 192.0.2.1 9 typ host","sdpMid":"video","sdpMLineIndex":3})");
}

TEST(WriteIceCandidateInit, EscapesTheMid) {
  const auto candidate = ReadIceCandidate("candidate:1 1 udp 7 192.0.2.1 9 typ host");
  EXPECT_EQ(WriteIceCandidateInit(*candidate, "\"\\", 0),
            R"({"candidate":"candidate:1 1 udp 7 192.0.2.1 9 typ host","sdpMid":"\"\\","sdpMLineIndex":0})");
}

}  // namespace
}  // namespace kovra
