#include "rtcp.h"

#include <gtest/gtest.h>

#include <vector>

namespace kovra {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// A packet around body, whose length is a multiple of four.
Bytes Packet(std::uint8_t type, std::uint8_t count, const Bytes& body) {
  const auto words = static_cast<std::uint8_t>(body.size() / 4);
  return Bytes{static_cast<std::uint8_t>(0x80 | count), type, 0, words} + body;
}

const Bytes kSender = {0, 0, 0, 1};
const Bytes kMedia = {0xAB, 0xCD, 0xEF, 0x01};
const Bytes kReceiverReport = Packet(201, 0, kSender);
const Bytes kPli = Packet(206, 1, kSender + kMedia);

RtcpReportBlock SomeBlock() {
  RtcpReportBlock block;
  block.ssrc = 0x01020304;
  block.fractionLost = 77;
  block.cumulativeLost = -3;
  block.highestSequence = 0x00012345;
  block.jitter = 99;
  block.lastSenderReport = 0xDEADBEEF;
  block.delaySinceLastReport = 65536;
  return block;
}

void ExpectSame(const RtcpReportBlock& a, const RtcpReportBlock& b) {
  EXPECT_EQ(a.ssrc, b.ssrc);
  EXPECT_EQ(a.fractionLost, b.fractionLost);
  EXPECT_EQ(a.cumulativeLost, b.cumulativeLost);
  EXPECT_EQ(a.highestSequence, b.highestSequence);
  EXPECT_EQ(a.jitter, b.jitter);
  EXPECT_EQ(a.lastSenderReport, b.lastSenderReport);
  EXPECT_EQ(a.delaySinceLastReport, b.delaySinceLastReport);
}

class RtcpTest : public testing::Test {
 protected:
  bool read(const Bytes& packet) { return ReadRtcp(ByteView(packet), compound_); }
  RtcpCompound compound_;
};

TEST_F(RtcpTest, ReadsTheSenderReportThatItWrites) {
  RtcpSenderInfo info;
  info.ntp = 0x1122334455667788u;
  info.rtpTimestamp = 0x99AABBCC;
  info.packets = 1000;
  info.octets = 123456;
  Bytes packet;
  WriteSenderReport(0xCAFEBABE, info, {SomeBlock(), SomeBlock()}, packet);
  ASSERT_TRUE(read(packet));
  ASSERT_EQ(compound_.senderReports.size(), 1u);
  EXPECT_EQ(compound_.senderReports[0].ssrc, 0xCAFEBABEu);
  EXPECT_EQ(compound_.senderReports[0].info.ntp, info.ntp);
  EXPECT_EQ(compound_.senderReports[0].info.rtpTimestamp, info.rtpTimestamp);
  EXPECT_EQ(compound_.senderReports[0].info.packets, info.packets);
  EXPECT_EQ(compound_.senderReports[0].info.octets, info.octets);
  ASSERT_EQ(compound_.reportBlocks.size(), 2u);
  ExpectSame(compound_.reportBlocks[1], SomeBlock());
}

TEST_F(RtcpTest, WritesTheReceiverReportByteForByte) {
  Bytes packet;
  WriteReceiverReport(0x00000001, {SomeBlock()}, packet);
  EXPECT_EQ(packet, (Bytes{0x81, 201,  0,    7,    0,  0,    0,    1,     //
                           1,    2,    3,    4,    77, 0xFF, 0xFF, 0xFD,  //
                           0,    1,    0x23, 0x45, 0,  0,    0,    99,    //
                           0xDE, 0xAD, 0xBE, 0xEF, 0,  1,    0,    0}));
  ASSERT_TRUE(read(packet));
  ASSERT_EQ(compound_.reportBlocks.size(), 1u);
  ExpectSame(compound_.reportBlocks[0], SomeBlock());
}

TEST_F(RtcpTest, ReadsTheLimitsOfTheCumulativeLoss) {
  RtcpReportBlock most = SomeBlock();
  most.cumulativeLost = 0x7FFFFF;
  RtcpReportBlock least = SomeBlock();
  least.cumulativeLost = -0x800000;
  Bytes packet;
  WriteReceiverReport(1, {most, least}, packet);
  ASSERT_TRUE(read(packet));
  EXPECT_EQ(compound_.reportBlocks[0].cumulativeLost, 0x7FFFFF);
  EXPECT_EQ(compound_.reportBlocks[1].cumulativeLost, -0x800000);
}

TEST_F(RtcpTest, WritesNoMoreBlocksThanTheCountCanTell) {
  Bytes packet;
  WriteReceiverReport(1, std::vector<RtcpReportBlock>(40), packet);
  ASSERT_TRUE(read(packet));
  EXPECT_EQ(compound_.reportBlocks.size(), 31u);
}

TEST_F(RtcpTest, WritesSdesPaddedToWords) {
  Bytes packet;
  WriteSdes(0x01020304, "abc", packet);
  EXPECT_EQ(packet, (Bytes{0x81, 202, 0, 3, 1, 2, 3, 4, 1, 3, 'a', 'b', 'c', 0, 0, 0}));
  for (std::size_t length = 0; length < 9; ++length) {
    packet.clear();
    WriteSdes(1, std::string(length, 'x'), packet);
    EXPECT_EQ(packet.size() % 4, 0u) << length;
    EXPECT_EQ(packet.size(), 4u * ReadU16(packet.data() + 2) + 4u) << length;
    EXPECT_EQ(packet.back(), 0) << length;
  }
}

TEST_F(RtcpTest, CutsACnameThatIsTooLong) {
  Bytes packet;
  WriteSdes(1, std::string(300, 'x'), packet);
  EXPECT_EQ(packet[9], 255);
  EXPECT_EQ(packet.size(), 4u * ReadU16(packet.data() + 2) + 4u);
  EXPECT_TRUE(read(packet));
}

TEST_F(RtcpTest, ReadsTheByeThatItWrites) {
  Bytes packet;
  WriteBye({7, 8}, packet);
  EXPECT_EQ(packet, (Bytes{0x82, 203, 0, 2, 0, 0, 0, 7, 0, 0, 0, 8}));
  ASSERT_TRUE(read(packet));
  EXPECT_EQ(compound_.byes, (std::vector<std::uint32_t>{7, 8}));
}

TEST_F(RtcpTest, ReadsAByeWithAReason) {
  ASSERT_TRUE(read(Packet(203, 1, kMedia + Bytes{3, 'e', 'n', 'd'})));
  EXPECT_EQ(compound_.byes, (std::vector<std::uint32_t>{0xABCDEF01}));
}

TEST_F(RtcpTest, ReadsNacksBitByBitOverTheWrap) {
  ASSERT_TRUE(read(Packet(205, 1, kSender + kMedia + Bytes{0xFF, 0xFE, 0x80, 0x03, 0x00, 0x10, 0, 0})));
  std::vector<std::uint16_t> sequences;
  for (const RtcpNack& nack : compound_.nacks) {
    EXPECT_EQ(nack.mediaSsrc, 0xABCDEF01u);
    sequences.push_back(nack.sequence);
  }
  EXPECT_EQ(sequences, (std::vector<std::uint16_t>{0xFFFE, 0xFFFF, 0x0000, 0x000E, 0x0010}));
}

TEST_F(RtcpTest, ReadsPictureLossIndications) {
  ASSERT_TRUE(read(kPli));
  EXPECT_EQ(compound_.plis, (std::vector<std::uint32_t>{0xABCDEF01}));
}

TEST_F(RtcpTest, ReadsFullIntraRequests) {
  // The media SSRC stands in each entry, not in the header.
  ASSERT_TRUE(
      read(Packet(206, 4, kSender + Bytes(4, 0) + kMedia + Bytes{9, 0, 0, 0} + Bytes{0, 0, 0, 2, 10, 0, 0, 0})));
  ASSERT_EQ(compound_.firs.size(), 2u);
  EXPECT_EQ(compound_.firs[0].mediaSsrc, 0xABCDEF01u);
  EXPECT_EQ(compound_.firs[0].commandSequence, 9);
  EXPECT_EQ(compound_.firs[1].mediaSsrc, 2u);
  EXPECT_EQ(compound_.firs[1].commandSequence, 10);
}

TEST_F(RtcpTest, ReadsAllPacketsOfACompound) {
  Bytes packet = kReceiverReport;
  WriteSdes(1, "cname", packet);
  ASSERT_TRUE(read(packet + kPli + Packet(205, 1, kSender + kMedia + Bytes{0, 5, 0, 0}) + Packet(203, 1, kSender)));
  EXPECT_EQ(compound_.plis.size(), 1u);
  EXPECT_EQ(compound_.nacks.size(), 1u);
  EXPECT_EQ(compound_.byes.size(), 1u);
}

TEST_F(RtcpTest, SkipsKindsAndFormatsThatItDoesNotKnow) {
  const Bytes remb = Packet(206, 15, kSender + Bytes(4, 0) + Bytes{'R', 'E', 'M', 'B', 1, 0, 0, 0} + kMedia);
  const Bytes transportWide = Packet(205, 15, kSender + kMedia + Bytes(12, 0x11));
  const Bytes application = Packet(204, 0, kSender + Bytes{'n', 'a', 'm', 'e'});
  const Bytes extended = Packet(207, 0, kSender);
  ASSERT_TRUE(read(kReceiverReport + remb + transportWide + application + extended + kPli));
  EXPECT_EQ(compound_.plis.size(), 1u);
  EXPECT_TRUE(compound_.nacks.empty());
}

TEST_F(RtcpTest, ForgetsWhatWasReadBefore) {
  read(kPli);
  ASSERT_TRUE(read(kReceiverReport));
  EXPECT_TRUE(compound_.plis.empty());
}

TEST_F(RtcpTest, LeavesPaddingOut) {
  Bytes packet = Packet(205, 1, kSender + kMedia + Bytes{0, 5, 0, 0} + Bytes{0, 0, 0, 4});
  packet[0] |= 0x20;
  ASSERT_TRUE(read(packet));
  EXPECT_EQ(compound_.nacks.size(), 1u);
}

TEST_F(RtcpTest, RefusesPaddingThatDoesNotFit) {
  Bytes packet = Packet(206, 1, kSender + kMedia);
  packet[0] |= 0x20;
  packet.back() = 0;
  EXPECT_FALSE(read(packet));
  packet.back() = 9;
  EXPECT_FALSE(read(packet));
  EXPECT_FALSE(read({0xA0, 204, 0, 0}));
}

TEST_F(RtcpTest, RefusesLengthsThatDoNotFit) {
  EXPECT_FALSE(read({}));
  EXPECT_FALSE(read({0x80, 201, 0}));
  EXPECT_FALSE(read({0x80, 201, 0, 1}));
  EXPECT_FALSE(read({0x80, 201, 0xFF, 0xFF, 0, 0, 0, 1}));
  EXPECT_FALSE(read(Packet(200, 0, kSender)));
  EXPECT_FALSE(read(Packet(200, 1, Bytes(24, 0))));
  EXPECT_FALSE(read(Packet(201, 1, Bytes(24, 0))));
  EXPECT_FALSE(read(Packet(201, 0, {})));
  EXPECT_FALSE(read(Packet(203, 2, kSender)));
  EXPECT_FALSE(read(Packet(205, 1, kSender)));
  EXPECT_FALSE(read(Packet(206, 1, kSender)));
}

TEST_F(RtcpTest, RefusesAnotherVersion) {
  Bytes packet = kReceiverReport;
  packet[0] = 0x40;
  EXPECT_FALSE(read(packet));
}

TEST_F(RtcpTest, KeepsWhatStoodBeforeTheDamage) {
  EXPECT_FALSE(read(kPli + Bytes{0x80, 201}));
  EXPECT_EQ(compound_.plis.size(), 1u);
}

TEST_F(RtcpTest, IgnoresHalfAnItem) {
  ASSERT_TRUE(read(Packet(206, 4, kSender + Bytes(4, 0) + kMedia)));
  EXPECT_TRUE(compound_.firs.empty());
}

TEST(RoundTripTime, IsWhatPassedSinceTheReportWithoutTheViewersDelay) {
  RtcpReportBlock block;
  block.lastSenderReport = 0x00010000;
  block.delaySinceLastReport = 0x8000;                // 0.5 s
  const NtpTime arrival = NtpTime{0x0001C000} << 16;  // 0.75 s after the report
  EXPECT_EQ(RoundTripTime(block, arrival), Micros(250000));
}

TEST(RoundTripTime, CountsOverTheWrapOfTheCompactTime) {
  RtcpReportBlock block;
  block.lastSenderReport = 0xFFFF8000;
  EXPECT_EQ(RoundTripTime(block, NtpTime{0x00008000} << 16), Micros(1000000));
}

TEST(RoundTripTime, IsUnknownWithoutASenderReport) {
  EXPECT_EQ(RoundTripTime(RtcpReportBlock{}, NtpTime{0x00010000} << 16), std::nullopt);
}

TEST(RoundTripTime, TakesRoundingForZeroButNoNonsense) {
  RtcpReportBlock block;
  block.lastSenderReport = 0x00010000;
  block.delaySinceLastReport = 10;
  EXPECT_EQ(RoundTripTime(block, NtpTime{0x00010000} << 16), Micros(0));
  block.delaySinceLastReport = 6554;  // 0.1 s more than passed
  EXPECT_EQ(RoundTripTime(block, NtpTime{0x00010000} << 16), std::nullopt);
  block.delaySinceLastReport = 0;
  EXPECT_EQ(RoundTripTime(block, NtpTime{0x00010000 + 60 * 65536} << 16), Micros(60'000'000));
  EXPECT_EQ(RoundTripTime(block, NtpTime{0x00010001 + 60 * 65536} << 16), std::nullopt);
}

}  // namespace
}  // namespace kovra
