#include "rtp_sender.h"

#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <vector>

namespace kovra {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr Micros kNoRoundTrip{0};

class RtpSenderTest : public testing::Test {
 protected:
  static RtpSenderConfig config() {
    RtpSenderConfig config;
    config.ssrc = 0x11111111;
    config.payloadType = 102;
    config.clockRate = 90000;
    config.firstSequence = 65534;
    config.timestampOffset = 0xFFFFFF00;
    config.historyPackets = 8;
    config.rtx = RtxConfig{0x22222222, 103, 500};
    return config;
  }

  // A frame of packets of one byte each: 0, 1, 2, …
  FrameRef makeFrame(std::size_t packets, std::uint32_t timestamp) {
    FrameRef frame = pool_->take(packets);
    frame.edit().setTimestamp(timestamp);
    for (std::size_t i = 0; i < packets; ++i) {
      const auto byte = static_cast<std::uint8_t>(i);
      frame.edit().add({}, {&byte, 1}, false);
    }
    frame.edit().setMarkerOnLast();
    return frame;
  }

  RtpPacket read(std::size_t size) {
    const auto packet = ReadRtpPacket({out_.data(), size});
    EXPECT_TRUE(packet.has_value());
    return packet.value_or(RtpPacket{});
  }

  // Sends all of a frame; returns the last packet.
  RtpPacket sendAll(RtpSender& sender, const FrameRef& frame, Micros now) {
    RtpPacket last;
    for (std::size_t i = 0; i < frame->packetCount(); ++i) last = read(sender.writePacket(frame, i, now, out_.data()));
    return last;
  }

  const std::shared_ptr<FramePool> pool_ = FramePool::Create(1 << 16);
  std::array<std::uint8_t, kMaxRtpPacketBytes> out_{};
};

TEST_F(RtpSenderTest, WritesHeaderAndPayload) {
  RtpSender sender(config());
  const FrameRef frame = makeFrame(2, 0x200);
  const RtpPacket first = read(sender.writePacket(frame, 0, Micros(0), out_.data()));
  EXPECT_FALSE(first.header.marker);
  EXPECT_EQ(first.header.payloadType, 102);
  EXPECT_EQ(first.header.ssrc, 0x11111111u);
  EXPECT_EQ(first.header.sequence, 65534);
  EXPECT_EQ(first.header.timestamp, 0x100u);
  ASSERT_EQ(first.payload.size, 1u);
  EXPECT_EQ(first.payload[0], 0);
  const RtpPacket second = read(sender.writePacket(frame, 1, Micros(0), out_.data()));
  EXPECT_TRUE(second.header.marker);
  EXPECT_EQ(second.header.sequence, 65535);
  EXPECT_EQ(second.payload[0], 1);
}

TEST_F(RtpSenderTest, CountsSequenceNumbersOverTheWrap) {
  RtpSender sender(config());
  EXPECT_EQ(sendAll(sender, makeFrame(3, 0), Micros(0)).header.sequence, 0);
}

TEST_F(RtpSenderTest, ShiftsTheTimestampOfAWholeFrame) {
  RtpSender sender(config());
  const FrameRef frame = makeFrame(2, 0x200);
  EXPECT_EQ(read(sender.writePacket(frame, 0, Micros(0), out_.data(), 0x1000)).header.timestamp, 0x1100u);
  EXPECT_EQ(read(sender.writePacket(frame, 1, Micros(0), out_.data(), 0x1000)).header.timestamp, 0x1100u);
  const RtpPacket repeated = read(sender.writeRetransmission(65535, Micros(0), kNoRoundTrip, out_.data()));
  EXPECT_EQ(repeated.header.timestamp, 0x1100u);
}

TEST_F(RtpSenderTest, NeverSendsAFrameBeforeTheOneBefore) {
  RtpSender sender(config());
  EXPECT_EQ(sendAll(sender, makeFrame(1, 0x200), Micros(0)).header.timestamp, 0x100u);
  EXPECT_EQ(sendAll(sender, makeFrame(2, 0x200), Micros(0)).header.timestamp, 0x101u);
  EXPECT_EQ(sendAll(sender, makeFrame(2, 0x1F0), Micros(0)).header.timestamp, 0x102u);
  EXPECT_EQ(sendAll(sender, makeFrame(1, 0x300), Micros(0)).header.timestamp, 0x200u);
}

TEST_F(RtpSenderTest, BelievesTheTimestampAfterHoursWithoutAFrame) {
  RtpSender sender(config());
  sendAll(sender, makeFrame(1, 0x200), Micros(0));
  EXPECT_EQ(sendAll(sender, makeFrame(1, 0x90000200), Micros(0)).header.timestamp, 0x90000100u);
}

TEST_F(RtpSenderTest, RetransmitsOverItsOwnStreamWithTheOriginalNumber) {
  RtpSender sender(config());
  sendAll(sender, makeFrame(3, 0x200), Micros(0));
  const RtpPacket packet = read(sender.writeRetransmission(65535, Micros(50000), kNoRoundTrip, out_.data()));
  EXPECT_EQ(packet.header.ssrc, 0x22222222u);
  EXPECT_EQ(packet.header.payloadType, 103);
  EXPECT_EQ(packet.header.sequence, 500);
  EXPECT_EQ(packet.header.timestamp, 0x100u);
  EXPECT_FALSE(packet.header.marker);
  ASSERT_EQ(packet.payload.size, 3u);
  EXPECT_EQ(ReadU16(packet.payload.data), 65535);
  EXPECT_EQ(packet.payload[2], 1);

  const RtpPacket last = read(sender.writeRetransmission(0, Micros(50000), kNoRoundTrip, out_.data()));
  EXPECT_EQ(last.header.sequence, 501);
  EXPECT_TRUE(last.header.marker);
  EXPECT_EQ(sender.retransmittedPackets(), 2u);
}

TEST_F(RtpSenderTest, RetransmitsTheSamePacketWhereNoStreamForItWasNegotiated) {
  RtpSenderConfig withoutRtx = config();
  withoutRtx.rtx.reset();
  RtpSender sender(withoutRtx);
  const FrameRef frame = makeFrame(1, 0x200);
  const std::size_t size = sender.writePacket(frame, 0, Micros(0), out_.data());
  const Bytes original(out_.data(), out_.data() + size);
  out_.fill(0);
  ASSERT_EQ(sender.writeRetransmission(65534, Micros(50000), kNoRoundTrip, out_.data()), size);
  EXPECT_EQ(Bytes(out_.data(), out_.data() + size), original);
}

TEST_F(RtpSenderTest, DoesNotRetransmitWhatWasNeverSentOrIsForgotten) {
  RtpSender sender(config());
  EXPECT_EQ(sender.writeRetransmission(65534, Micros(0), kNoRoundTrip, out_.data()), 0u);
  sendAll(sender, makeFrame(9, 0), Micros(0));
  EXPECT_EQ(sender.writeRetransmission(65534, Micros(0), kNoRoundTrip, out_.data()), 0u);  // pushed out by the ninth
  EXPECT_NE(sender.writeRetransmission(65535, Micros(0), kNoRoundTrip, out_.data()), 0u);
  EXPECT_EQ(sender.writeRetransmission(7, Micros(0), kNoRoundTrip, out_.data()), 0u);  // not sent yet
}

TEST_F(RtpSenderTest, DoesNotRetransmitAPacketAgainBeforeARoundTrip) {
  RtpSender sender(config());
  sendAll(sender, makeFrame(1, 0), Micros(0));
  const Micros roundTrip(80000);
  EXPECT_NE(sender.writeRetransmission(65534, Micros(1000), roundTrip, out_.data()), 0u);
  EXPECT_EQ(sender.writeRetransmission(65534, Micros(80999), roundTrip, out_.data()), 0u);
  EXPECT_NE(sender.writeRetransmission(65534, Micros(81000), roundTrip, out_.data()), 0u);
}

TEST_F(RtpSenderTest, SpacesRetransmissionsAlsoWithoutAMeasuredRoundTrip) {
  RtpSender sender(config());
  sendAll(sender, makeFrame(1, 0), Micros(0));
  EXPECT_NE(sender.writeRetransmission(65534, Micros(1000), kNoRoundTrip, out_.data()), 0u);
  EXPECT_EQ(sender.writeRetransmission(65534, Micros(1000), kNoRoundTrip, out_.data()), 0u);
}

TEST_F(RtpSenderTest, StopsRetransmittingAPacketThatIsAskedForWithoutEnd) {
  RtpSender sender(config());
  sendAll(sender, makeFrame(1, 0), Micros(0));
  int sent = 0;
  for (int second = 1; second < 60; ++second) {
    const Micros now = std::chrono::seconds(second);
    if (sender.writeRetransmission(65534, now, kNoRoundTrip, out_.data()) > 0) ++sent;
  }
  EXPECT_EQ(sent, RtpHistory::kMaxResends);
}

TEST_F(RtpSenderTest, RemembersNothingWithoutHistory) {
  RtpSenderConfig withoutHistory = config();
  withoutHistory.historyPackets = 0;
  RtpSender sender(withoutHistory);
  sendAll(sender, makeFrame(1, 0), Micros(0));
  EXPECT_EQ(pool_->idleBytes() > 0, true);
  EXPECT_EQ(sender.writeRetransmission(65534, Micros(0), kNoRoundTrip, out_.data()), 0u);
}

TEST_F(RtpSenderTest, LetsGoOfFramesThatLeaveTheHistory) {
  RtpSender sender(config());
  sendAll(sender, makeFrame(1, 0), Micros(0));
  EXPECT_EQ(pool_->idleBytes(), 0u);
  sendAll(sender, makeFrame(8, 0), Micros(0));
  EXPECT_GT(pool_->idleBytes(), 0u);
}

TEST_F(RtpSenderTest, SharesTheFrameBetweenSenders) {
  std::optional<RtpSender> first(config());
  RtpSender second(config());
  FrameRef frame = makeFrame(1, 0);
  first->writePacket(frame, 0, Micros(0), out_.data());
  second.writePacket(frame, 0, Micros(0), out_.data());
  frame.reset();
  first.reset();
  EXPECT_EQ(pool_->idleBytes(), 0u);
  EXPECT_NE(second.writeRetransmission(65534, Micros(0), kNoRoundTrip, out_.data()), 0u);
}

TEST_F(RtpSenderTest, KeepsAHistoryOfAPowerOfTwo) {
  RtpSenderConfig five = config();
  five.historyPackets = 5;
  RtpSender sender(five);
  sendAll(sender, makeFrame(9, 0), Micros(0));
  EXPECT_EQ(sender.writeRetransmission(65534, Micros(0), kNoRoundTrip, out_.data()), 0u);
  EXPECT_NE(sender.writeRetransmission(65535, Micros(0), kNoRoundTrip, out_.data()), 0u);
}

TEST_F(RtpSenderTest, ReportsNothingBeforeTheFirstPacket) {
  EXPECT_FALSE(RtpSender(config()).senderInfo(Micros(0), 0));
}

TEST_F(RtpSenderTest, ReportsCountsAndTheTimestampOfNow) {
  RtpSender sender(config());
  sendAll(sender, makeFrame(3, 0x200), Micros(1'000'000));
  sender.writeRetransmission(65534, Micros(1'000'000), kNoRoundTrip, out_.data());
  const auto info = sender.senderInfo(Micros(1'500'000), 0xAABBCCDD00112233u);
  ASSERT_TRUE(info);
  EXPECT_EQ(info->ntp, 0xAABBCCDD00112233u);
  EXPECT_EQ(info->packets, 3u);
  EXPECT_EQ(info->octets, 3u);
  EXPECT_EQ(info->rtpTimestamp, 0x100u + 45000u);
}

class RtpSenderDelayTest : public RtpSenderTest {
 protected:
  static constexpr Micros kRoundTrip{100'000};

  // Sends a packet at this time, and again on request.
  void repair(RtpSender& sender, Micros now) {
    const RtpPacket sent = sendAll(sender, makeFrame(1, 0), now);
    EXPECT_GT(sender.writeRetransmission(sent.header.sequence, now + kRoundTrip, kRoundTrip, out_.data()), 0u);
  }

  bool asksForDelay(RtpSender& sender, Micros now) {
    const std::size_t size = sender.writePacket(makeFrame(1, 0), 0, now, out_.data());
    return size == kRtpHeaderBytes + kPlayoutDelayBytes + 1 && (out_[0] & 0x10) != 0 && read(size).payload.size == 1;
  }
};

TEST_F(RtpSenderDelayTest, AsksForDelayOnceRepairsFollowOneAnother) {
  RtpSenderConfig withDelay = config();
  withDelay.playoutDelayId = 3;
  RtpSender sender(withDelay);
  EXPECT_FALSE(asksForDelay(sender, Micros(0)));
  repair(sender, Micros(1'000'000));
  EXPECT_FALSE(asksForDelay(sender, Micros(1'500'000)));
  repair(sender, Micros(2'000'000));
  EXPECT_TRUE(asksForDelay(sender, Micros(2'500'000)));
}

TEST_F(RtpSenderDelayTest, AsksInRetransmissionsToo) {
  RtpSenderConfig withDelay = config();
  withDelay.playoutDelayId = 3;
  RtpSender sender(withDelay);
  repair(sender, Micros(1'000'000));
  const RtpPacket sent = sendAll(sender, makeFrame(1, 0), Micros(2'000'000));
  const std::size_t size = sender.writeRetransmission(sent.header.sequence, Micros(2'100'000), kRoundTrip, out_.data());
  EXPECT_EQ(size, kRtpHeaderBytes + kPlayoutDelayBytes + kRtxHeaderBytes + 1);
  EXPECT_EQ(ReadU16(read(size).payload.data), sent.header.sequence);
}

TEST_F(RtpSenderDelayTest, RepeatsAPacketByteForByteWhereNoStreamForItWasNegotiated) {
  // SRTP encrypts it with the same nonce again, which must never see two different packets.
  RtpSenderConfig withoutRtx = config();
  withoutRtx.playoutDelayId = 3;
  withoutRtx.rtx.reset();
  RtpSender sender(withoutRtx);
  const FrameRef frame = makeFrame(1, 0x200);
  const std::size_t size = sender.writePacket(frame, 0, Micros(0), out_.data());
  const Bytes original(out_.data(), out_.data() + size);
  for (int second = 1; second <= 3; ++second) {
    out_.fill(0);
    ASSERT_EQ(sender.writeRetransmission(65534, std::chrono::seconds(second), Micros(100'000), out_.data()), size);
    EXPECT_EQ(Bytes(out_.data(), out_.data() + size), original);
  }
}

TEST_F(RtpSenderDelayTest, AsksForNothingThatTheViewerDidNotOffer) {
  RtpSender sender(config());
  for (int second = 1; second < 10; ++second) repair(sender, Micros(second * 1'000'000));
  EXPECT_FALSE(asksForDelay(sender, Micros(10'000'000)));
}

TEST_F(RtpSenderDelayTest, FillsTheLargestPacketAndItsRetransmission) {
  RtpSenderConfig withDelay = config();
  withDelay.playoutDelayId = 3;
  RtpSender sender(withDelay);
  repair(sender, Micros(1'000'000));
  repair(sender, Micros(2'000'000));
  FrameRef frame = pool_->take(kMaxRtpPayloadBytes);
  frame.edit().add({}, ByteView(Bytes(kMaxRtpPayloadBytes, 0x5A)), true);
  const Micros now(3'000'000);
  EXPECT_EQ(sender.writePacket(frame, 0, now, out_.data()), kMaxRtpPacketBytes - kRtxHeaderBytes);
  const std::uint16_t sequence = ReadU16(out_.data() + 2);
  EXPECT_EQ(sender.writeRetransmission(sequence, now, kNoRoundTrip, out_.data()), kMaxRtpPacketBytes);
}

}  // namespace
}  // namespace kovra
