#include "rtp_reception.h"

#include <gtest/gtest.h>

#include <initializer_list>

namespace kovra {
namespace {

class RtpReceptionTest : public testing::Test {
 protected:
  // A packet of 20 ms that arrives so much later than an even stream would bring it.
  void receive(std::uint16_t sequence, Micros delay = Micros(0), std::uint32_t ssrc = 1) {
    RtpHeader header;
    header.ssrc = ssrc;
    header.sequence = sequence;
    header.timestamp = sequence * 160u;
    reception_.onPacket(header, Micros(20000) * sequence + delay);
  }

  void receiveAll(std::initializer_list<std::uint16_t> sequences) {
    for (const std::uint16_t sequence : sequences) receive(sequence);
  }

  RtpReception reception_{8000};
};

TEST_F(RtpReceptionTest, ReportsNothingBeforeTheFirstPacket) { EXPECT_FALSE(reception_.report(Micros(0))); }

TEST_F(RtpReceptionTest, ReportsAnEvenStreamWithoutLossAndJitter) {
  for (std::uint16_t i = 10; i < 20; ++i) receive(i);
  const auto block = reception_.report(Micros(0));
  ASSERT_TRUE(block);
  EXPECT_EQ(block->ssrc, 1u);
  EXPECT_EQ(block->fractionLost, 0);
  EXPECT_EQ(block->cumulativeLost, 0);
  EXPECT_EQ(block->highestSequence, 19u);
  EXPECT_EQ(block->jitter, 0u);
  EXPECT_EQ(block->lastSenderReport, 0u);
  EXPECT_EQ(block->delaySinceLastReport, 0u);
}

TEST_F(RtpReceptionTest, CountsLossSinceTheReportBeforeAndInAll) {
  receiveAll({0, 1, 3});
  auto block = reception_.report(Micros(0));
  EXPECT_EQ(block->fractionLost, 64);  // one of four
  EXPECT_EQ(block->cumulativeLost, 1);
  receiveAll({4, 5, 6, 7});
  block = reception_.report(Micros(0));
  EXPECT_EQ(block->fractionLost, 0);
  EXPECT_EQ(block->cumulativeLost, 1);
  receive(11);
  block = reception_.report(Micros(0));
  EXPECT_EQ(block->fractionLost, 192);  // three of four
  EXPECT_EQ(block->cumulativeLost, 4);
}

TEST_F(RtpReceptionTest, CountsALatePacketAsReceived) {
  receiveAll({0, 2, 1, 3});
  const auto block = reception_.report(Micros(0));
  EXPECT_EQ(block->cumulativeLost, 0);
  EXPECT_EQ(block->highestSequence, 3u);
}

TEST_F(RtpReceptionTest, LetsDuplicatesMakeTheLossNegative) {
  receiveAll({0, 1, 1, 1});
  const auto block = reception_.report(Micros(0));
  EXPECT_EQ(block->fractionLost, 0);
  EXPECT_EQ(block->cumulativeLost, -2);
}

TEST_F(RtpReceptionTest, ReportsNoFractionWhenNothingCameSinceTheReportBefore) {
  receive(0);
  reception_.report(Micros(0));
  EXPECT_EQ(reception_.report(Micros(0))->fractionLost, 0);
}

TEST_F(RtpReceptionTest, CountsCyclesOfTheSequenceNumber) {
  receiveAll({65534, 65535, 0, 1});
  const auto block = reception_.report(Micros(0));
  EXPECT_EQ(block->highestSequence, 0x10001u);
  EXPECT_EQ(block->cumulativeLost, 0);
}

TEST_F(RtpReceptionTest, MeasuresJitter) {
  // Every other packet comes 10 ms, 80 units, later: the mean deviation approaches 80.
  for (std::uint16_t i = 0; i < 400; ++i) receive(i, Micros(i % 2 == 0 ? 0 : 10000));
  const auto block = reception_.report(Micros(0));
  EXPECT_GE(block->jitter, 75u);
  EXPECT_LE(block->jitter, 80u);
}

TEST_F(RtpReceptionTest, RefersToTheLastSenderReport) {
  receive(0);
  RtcpSenderInfo info;
  info.ntp = 0x1234567890ABCDEFu;
  reception_.onSenderReport(1, info, Micros(1'000'000));
  const auto block = reception_.report(Micros(1'500'000));
  EXPECT_EQ(block->lastSenderReport, 0x567890ABu);
  EXPECT_EQ(block->delaySinceLastReport, 32768u);
}

TEST_F(RtpReceptionTest, IgnoresReportsOfOtherSenders) {
  receive(0);
  RtcpSenderInfo info;
  info.ntp = 0x1234567890ABCDEFu;
  reception_.onSenderReport(2, info, Micros(1'000'000));
  EXPECT_EQ(reception_.report(Micros(1'500'000))->lastSenderReport, 0u);
}

TEST_F(RtpReceptionTest, BeginsAnewWithAnotherSsrc) {
  receiveAll({0, 5});
  receive(100, Micros(0), 2);
  receive(101, Micros(0), 2);
  const auto block = reception_.report(Micros(0));
  EXPECT_EQ(block->ssrc, 2u);
  EXPECT_EQ(block->cumulativeLost, 0);
  EXPECT_EQ(block->highestSequence, 101u);
}

}  // namespace
}  // namespace kovra
