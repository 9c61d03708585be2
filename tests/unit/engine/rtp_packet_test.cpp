#include "rtp_packet.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

namespace kovra {
namespace {

using Bytes = std::vector<std::uint8_t>;

// Version 2, payload type 0, sequence 0x1234, timestamp 0x01020304, SSRC 0xA1A2A3A4.
Bytes Header(std::uint8_t first = 0x80, std::uint8_t second = 0) {
  return {first, second, 0x12, 0x34, 1, 2, 3, 4, 0xA1, 0xA2, 0xA3, 0xA4};
}

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

std::optional<Bytes> PayloadOf(const Bytes& packet) {
  const auto read = ReadRtpPacket(ByteView(packet));
  if (!read) return std::nullopt;
  return Bytes(read->payload.data, read->payload.data + read->payload.size);
}

TEST(ReadRtpPacket, ReadsTheHeaderFields) {
  const Bytes packet = Header(0x80, 0x80 | 96) + Bytes{7, 8};
  const auto read = ReadRtpPacket(ByteView(packet));
  ASSERT_TRUE(read);
  EXPECT_TRUE(read->header.marker);
  EXPECT_EQ(read->header.payloadType, 96);
  EXPECT_EQ(read->header.sequence, 0x1234);
  EXPECT_EQ(read->header.timestamp, 0x01020304u);
  EXPECT_EQ(read->header.ssrc, 0xA1A2A3A4u);
  EXPECT_EQ(PayloadOf(packet), (Bytes{7, 8}));
}

TEST(ReadRtpPacket, AcceptsAnEmptyPayload) { EXPECT_EQ(PayloadOf(Header()), Bytes{}); }

TEST(ReadRtpPacket, SkipsContributingSources) {
  EXPECT_EQ(PayloadOf(Header(0x82) + Bytes(8, 0xCC) + Bytes{7}), Bytes{7});
  EXPECT_EQ(PayloadOf(Header(0x82) + Bytes(7, 0xCC)), std::nullopt);
}

TEST(ReadRtpPacket, SkipsAHeaderExtension) {
  EXPECT_EQ(PayloadOf(Header(0x90) + Bytes{0xBE, 0xDE, 0, 1, 1, 2, 3, 4} + Bytes{7}), Bytes{7});
  EXPECT_EQ(PayloadOf(Header(0x90) + Bytes{0xBE, 0xDE, 0, 0} + Bytes{7}), Bytes{7});
  EXPECT_EQ(PayloadOf(Header(0x90) + Bytes{0xBE, 0xDE, 0, 2, 1, 2, 3, 4}), std::nullopt);
  EXPECT_EQ(PayloadOf(Header(0x90) + Bytes{0xBE, 0xDE, 0}), std::nullopt);
}

TEST(ReadRtpPacket, SkipsSourcesAndExtensionTogether) {
  EXPECT_EQ(PayloadOf(Header(0x91) + Bytes(4, 0xCC) + Bytes{0xBE, 0xDE, 0, 1, 1, 2, 3, 4, 7}), Bytes{7});
}

TEST(ReadRtpPacket, RemovesPadding) {
  EXPECT_EQ(PayloadOf(Header(0xA0) + Bytes{7, 8, 0, 0, 3}), (Bytes{7, 8}));
  EXPECT_EQ(PayloadOf(Header(0xA0) + Bytes{0, 0, 3}), Bytes{});
}

TEST(ReadRtpPacket, RefusesPaddingThatDoesNotFit) {
  EXPECT_EQ(PayloadOf(Header(0xA0) + Bytes{7, 8, 0, 0, 0}), std::nullopt);
  EXPECT_EQ(PayloadOf(Header(0xA0) + Bytes{7, 4}), std::nullopt);
  // The last byte of the header is none of padding.
  EXPECT_EQ(PayloadOf(Header(0xA0)), std::nullopt);
}

TEST(ReadRtpPacket, RefusesOtherVersionsAndShortPackets) {
  EXPECT_EQ(PayloadOf(Header(0x40)), std::nullopt);
  EXPECT_EQ(PayloadOf(Header(0x00)), std::nullopt);
  EXPECT_EQ(PayloadOf(Header(0xC0)), std::nullopt);
  Bytes shortOne = Header();
  shortOne.pop_back();
  EXPECT_EQ(PayloadOf(shortOne), std::nullopt);
  EXPECT_EQ(PayloadOf({}), std::nullopt);
}

TEST(ReadRtpPacket, RefusesRtcp) { EXPECT_EQ(PayloadOf(Header(0x80, 200)), std::nullopt); }

TEST(IsRtcp, TellsByThePacketTypeRange) {
  EXPECT_FALSE(IsRtcp({}));
  EXPECT_FALSE(IsRtcp(ByteView(Header(0x80, 191))));
  EXPECT_TRUE(IsRtcp(ByteView(Header(0x80, 192))));
  EXPECT_TRUE(IsRtcp(ByteView(Header(0x81, 205))));
  EXPECT_TRUE(IsRtcp(ByteView(Header(0x80, 223))));
  EXPECT_FALSE(IsRtcp(ByteView(Header(0x80, 224))));
  EXPECT_FALSE(IsRtcp(ByteView(Header(0x80, 0))));
}

TEST(WriteRtpHeader, WritesWhatIsReadBack) {
  RtpHeader header;
  header.marker = true;
  header.payloadType = 103;
  header.sequence = 0xFFFE;
  header.timestamp = 0xDEADBEEF;
  header.ssrc = 0x00C0FFEE;
  Bytes packet(kRtpHeaderBytes);
  WriteRtpHeader(header, packet.data());
  EXPECT_EQ(packet, (Bytes{0x80, 0x80 | 103, 0xFF, 0xFE, 0xDE, 0xAD, 0xBE, 0xEF, 0x00, 0xC0, 0xFF, 0xEE}));
  const auto read = ReadRtpPacket(ByteView(packet));
  ASSERT_TRUE(read);
  EXPECT_TRUE(read->header.marker);
  EXPECT_EQ(read->header.payloadType, 103);
  EXPECT_EQ(read->header.sequence, 0xFFFE);
}

TEST(SequenceExtender, CountsOnOverTheWrap) {
  SequenceExtender extender;
  const std::uint64_t first = extender.extend(65534);
  EXPECT_EQ(extender.extend(65535), first + 1);
  EXPECT_EQ(extender.extend(0), first + 2);
  EXPECT_EQ(extender.extend(1), first + 3);
}

TEST(SequenceExtender, PlacesOldNumbersBehind) {
  SequenceExtender extender;
  const std::uint64_t first = extender.extend(1);
  EXPECT_EQ(extender.extend(65535), first - 2);
  EXPECT_EQ(extender.extend(2), first + 1);
  EXPECT_EQ(extender.extend(1), first);
}

TEST(SequenceExtender, TakesEachNumberAsTheNearest) {
  SequenceExtender extender;
  const std::uint64_t first = extender.extend(0);
  EXPECT_EQ(extender.extend(32767), first + 32767);
  EXPECT_EQ(extender.extend(65534), first + 65534);
  EXPECT_EQ(extender.extend(40000), first + 40000);
  EXPECT_EQ(extender.extend(30000), first + 65536 + 30000);
}

TEST(SequenceExtender, DoesNotFallBelowZeroAtTheStart) {
  SequenceExtender extender;
  const std::uint64_t first = extender.extend(0);
  EXPECT_EQ(extender.extend(32768), first - 32768);
  EXPECT_GE(first, 32768u);
}

TEST(WritePlayoutDelay, AsksForAtLeastTheDelayInStepsOfTenMilliseconds) {
  std::array<std::uint8_t, kRtpHeaderBytes + kPlayoutDelayBytes + 1> packet{};
  WriteRtpHeader({true, 102, 7, 8, 9}, packet.data());
  WritePlayoutDelay({5, Micros{230'000}}, packet.data());
  packet.back() = 0x42;
  const std::vector<std::uint8_t> extension(packet.begin() + kRtpHeaderBytes, packet.end() - 1);
  // Element 5 of three bytes: 23 steps at least, 4095 at most.
  EXPECT_EQ(extension, (std::vector<std::uint8_t>{0xBE, 0xDE, 0, 1, 0x52, 0x01, 0x7F, 0xFF}));
  const auto read = ReadRtpPacket({packet.data(), packet.size()});
  ASSERT_TRUE(read);
  EXPECT_TRUE(read->header.marker);
  ASSERT_EQ(read->payload.size, 1u);
  EXPECT_EQ(read->payload[0], 0x42);
}

TEST(WritePlayoutDelay, AsksForNoMoreThanFits) {
  std::array<std::uint8_t, kRtpHeaderBytes + kPlayoutDelayBytes> packet{};
  WritePlayoutDelay({kMaxExtensionId, Micros{1'000'000'000}}, packet.data());
  EXPECT_EQ(ReadU32(packet.data() + kRtpHeaderBytes + 4), 0xE2FFFFFFu);
}

}  // namespace
}  // namespace kovra
