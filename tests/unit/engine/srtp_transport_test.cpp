#include "srtp_transport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "rtcp.h"
#include "rtp_packet.h"

namespace kovra {
namespace {

using Packet = std::vector<std::uint8_t>;

SrtpMasterKey Key(std::uint8_t seed) {
  SrtpMasterKey key;
  for (std::size_t i = 0; i < key.size(); ++i) key[i] = static_cast<std::uint8_t>(seed + i);
  return key;
}

class SrtpTransportTest : public testing::TestWithParam<SrtpProfile> {
 protected:
  SrtpTransport camera_ = *SrtpTransport::Create({GetParam(), Key(1), Key(101)});
  SrtpTransport viewer_ = *SrtpTransport::Create({GetParam(), Key(101), Key(1)});
};

Packet Rtp(std::uint16_t sequence, std::uint32_t ssrc = 7) {
  Packet packet(kRtpHeaderBytes + 100, 0x5A);
  WriteRtpHeader({false, 102, sequence, 3000, ssrc}, packet.data());
  return packet;
}

Packet Protected(SrtpTransport& transport, Packet packet) {
  const std::size_t size = packet.size();
  packet.resize(size + kMaxSrtpTrailerBytes);
  packet.resize(transport.protectRtp(packet.data(), size));
  return packet;
}

// Empty when the packet was refused.
Packet Opened(SrtpTransport& transport, Packet packet) {
  packet.resize(transport.unprotectRtp(packet.data(), packet.size()));
  return packet;
}

TEST_P(SrtpTransportTest, CarriesRtpBothWays) {
  const Packet there = Protected(camera_, Rtp(1));
  EXPECT_GT(there.size(), Rtp(1).size());
  EXPECT_EQ(Opened(viewer_, there), Rtp(1));
  EXPECT_EQ(Opened(camera_, Protected(viewer_, Rtp(5))), Rtp(5));
}

TEST_P(SrtpTransportTest, WorksWhereverThePacketLies) {
  for (std::size_t offset = 0; offset < 4; ++offset) {
    const Packet plain = Rtp(static_cast<std::uint16_t>(offset));
    Packet room(offset + plain.size() + kMaxSrtpTrailerBytes);
    std::uint8_t* const packet = room.data() + offset;
    std::copy(plain.begin(), plain.end(), packet);
    const std::size_t size = viewer_.unprotectRtp(packet, camera_.protectRtp(packet, plain.size()));
    EXPECT_EQ(Packet(packet, packet + size), plain) << offset;
  }
}

TEST_P(SrtpTransportTest, HidesThePayload) {
  const Packet packet = Protected(camera_, Rtp(1));
  EXPECT_NE(Packet(packet.begin() + kRtpHeaderBytes, packet.begin() + kRtpHeaderBytes + 100), Packet(100, 0x5A));
}

TEST_P(SrtpTransportTest, CarriesRtcp) {
  Packet packet;
  WriteReceiverReport(9, {}, packet);
  const Packet plain = packet;
  packet.resize(plain.size() + kMaxSrtpTrailerBytes);
  packet.resize(camera_.protectRtcp(packet.data(), plain.size()));
  ASSERT_GT(packet.size(), plain.size());
  packet.resize(viewer_.unprotectRtcp(packet.data(), packet.size()));
  EXPECT_EQ(packet, plain);
}

TEST_P(SrtpTransportTest, RefusesWhatWasChanged) {
  Packet packet = Protected(camera_, Rtp(1));
  for (const std::size_t position : {std::size_t{3}, kRtpHeaderBytes + 5, packet.size() - 1}) {
    packet[position] ^= 1;
    EXPECT_TRUE(Opened(viewer_, packet).empty()) << position;
    packet[position] ^= 1;
  }
  EXPECT_EQ(Opened(viewer_, packet), Rtp(1));
}

TEST_P(SrtpTransportTest, RefusesReplays) {
  const Packet packet = Protected(camera_, Rtp(1));
  EXPECT_FALSE(Opened(viewer_, packet).empty());
  EXPECT_TRUE(Opened(viewer_, packet).empty());
}

TEST_P(SrtpTransportTest, RefusesWhatIsTooShort) {
  for (std::size_t size = 0; size < 40; ++size) {
    Packet packet(size, 0x80);
    packet.reserve(64);
    EXPECT_EQ(viewer_.unprotectRtp(packet.data(), size), 0u) << size;
    EXPECT_EQ(viewer_.unprotectRtcp(packet.data(), size), 0u) << size;
  }
}

TEST_P(SrtpTransportTest, SendsARepeatedPacketAsItWas) {
  const Packet first = Protected(camera_, Rtp(1));
  Protected(camera_, Rtp(2));
  EXPECT_EQ(Protected(camera_, Rtp(1)), first);
}

TEST_P(SrtpTransportTest, GoesOnOverTheWrapOfTheSequenceNumber) {
  for (std::uint32_t sequence = 65000; sequence < 67000; ++sequence) {
    const Packet packet = Rtp(static_cast<std::uint16_t>(sequence));
    ASSERT_EQ(Opened(viewer_, Protected(camera_, packet)), packet) << sequence;
  }
}

TEST_P(SrtpTransportTest, KeepsStreamsApart) {
  EXPECT_EQ(Opened(viewer_, Protected(camera_, Rtp(1, 7))), Rtp(1, 7));
  EXPECT_EQ(Opened(viewer_, Protected(camera_, Rtp(1, 8))), Rtp(1, 8));
}

TEST_P(SrtpTransportTest, DoesNotOpenItsOwnPackets) {
  EXPECT_TRUE(Opened(camera_, Protected(camera_, Rtp(1))).empty());
}

INSTANTIATE_TEST_SUITE_P(Profiles, SrtpTransportTest,
                         testing::Values(SrtpProfile::kAeadAes128Gcm, SrtpProfile::kAes128CmSha1_80),
                         [](const auto& profile) {
                           return profile.param == SrtpProfile::kAeadAes128Gcm ? "Gcm" : "CounterMode";
                         });

}  // namespace
}  // namespace kovra
