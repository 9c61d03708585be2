#include "viewer_media.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <vector>

#include "h264_packetizer.h"

namespace kovra {
namespace {

constexpr Micros kMillisecond{1000};
constexpr Micros kSecond{1'000'000};
constexpr Micros kStart = 1000 * kSecond;
constexpr Micros kWallClock = Micros{1'700'000'000'000'000};
constexpr std::size_t kEverything = std::numeric_limits<std::size_t>::max();
constexpr std::uint8_t kH264 = 102;
constexpr std::uint8_t kRtx = 103;
constexpr std::uint32_t kViewerSsrc = 77;

using Bytes = std::vector<std::uint8_t>;

SrtpMasterKey Key(std::uint8_t seed) {
  SrtpMasterKey key;
  for (std::size_t i = 0; i < key.size(); ++i) key[i] = static_cast<std::uint8_t>(seed + i);
  return key;
}

SdpNegotiation Negotiated() {
  SdpNegotiation negotiation;
  negotiation.video.emplace();
  negotiation.video->payloadType = kH264;
  negotiation.video->rtxPayloadType = kRtx;
  negotiation.video->nack = true;
  negotiation.audio.emplace();
  negotiation.audio->send = true;
  negotiation.audio->receive = true;
  return negotiation;
}

// The media of one viewer, with a path that takes as many packets as it is told to, and the viewer behind it.
class ViewerMediaTest : public testing::Test {
 protected:
  struct Received {
    RtpHeader header;
    Bytes payload;
  };

  static MediaIdentity identity() { return {0x11111111, 0x22222222, 0x33333333, "camera"}; }

  void connect() {
    media_.prepare(now_);
    media_.open(*SrtpTransport::Create({SrtpProfile::kAeadAes128Gcm, Key(1), Key(101)}));
  }

  FrameRef makeFrame(bool keyFrame, std::size_t packets, Micros arrived) {
    FrameRef frame = pool_->take(packets * 4);
    const std::uint8_t payload[4] = {1, 2, 3, 4};
    for (std::size_t i = 0; i < packets; ++i) frame.edit().add({}, {payload, sizeof(payload)}, false);
    frame.edit().setMarkerOnLast();
    frame.edit().setKeyFrame(keyFrame);
    frame.edit().setTimestamp(ToRtpTicks(arrived, kVideoClockRate));
    return frame;
  }
  void sendKeyFrame(std::size_t packets = 1) { media_.sendVideo(makeFrame(true, packets, now_), now_); }
  void sendFrame(std::size_t packets = 1) { media_.sendVideo(makeFrame(false, packets, now_), now_); }

  // A key frame and what follows it, a frame every 50 ms, the last of them so long ago.
  std::vector<RecentFrame> recentFrames(std::size_t count, Micros age, std::size_t packetsOfKeyFrame = 1) {
    std::vector<RecentFrame> frames;
    for (std::size_t i = 0; i < count; ++i) {
      const Micros arrived = now_ - age - 50 * kMillisecond * static_cast<std::int64_t>(count - 1 - i);
      frames.push_back({makeFrame(i == 0, i == 0 ? packetsOfKeyFrame : 1, arrived), i + 1, arrived});
    }
    return frames;
  }

  std::size_t take(const PacketBatch& batch, std::size_t first) {
    std::size_t next = first;
    for (; next < batch.count() && room_ > 0; ++next, --room_) receive(batch.packet(next));
    return next;
  }

  void receive(ByteView datagram) {
    Bytes packet(datagram.data, datagram.data + datagram.size);
    if (IsRtcp(datagram)) {
      packet.resize(viewer_.unprotectRtcp(packet.data(), packet.size()));
      ASSERT_TRUE(ReadRtcp(ByteView(packet), rtcp_.emplace_back()));
    } else {
      packet.resize(viewer_.unprotectRtp(packet.data(), packet.size()));
      const auto read = ReadRtpPacket(ByteView(packet));
      ASSERT_TRUE(read.has_value());
      rtp_.push_back({read->header, {read->payload.data, read->payload.data + read->payload.size}});
    }
  }

  std::vector<Received> received(std::uint8_t payloadType) const {
    std::vector<Received> found;
    std::copy_if(rtp_.begin(), rtp_.end(), std::back_inserter(found),
                 [&](const Received& packet) { return packet.header.payloadType == payloadType; });
    return found;
  }
  std::vector<Received> video() const { return received(kH264); }

  bool sendRtcp(Bytes compound) {
    const std::size_t size = compound.size();
    compound.resize(size + kMaxSrtpTrailerBytes);
    compound.resize(viewer_.protectRtcp(compound.data(), size));
    return media_.receive(compound.data(), compound.size(), now_);
  }

  // Feedback of RFC 4585: type and format, with what follows the SSRC of the media.
  static Bytes feedback(std::uint8_t type, std::uint8_t format, const Bytes& items = {}) {
    Bytes packet;
    WriteReceiverReport(kViewerSsrc, {}, packet);
    const std::size_t begin = packet.size();
    packet.resize(begin + 12);
    packet[begin] = static_cast<std::uint8_t>(0x80 | format);
    packet[begin + 1] = type;
    WriteU16(static_cast<std::uint16_t>(2 + items.size() / 4), &packet[begin + 2]);
    WriteU32(kViewerSsrc, &packet[begin + 4]);
    WriteU32(identity().videoSsrc, &packet[begin + 8]);
    packet.insert(packet.end(), items.begin(), items.end());
    return packet;
  }
  bool sendPli() { return sendRtcp(feedback(206, 1)); }
  bool sendNack(std::uint16_t sequence) {
    Bytes item(4);
    WriteU16(sequence, item.data());
    return sendRtcp(feedback(205, 1, item));
  }

  // Lets time pass, with all that is due meanwhile.
  void passTime(Micros span) {
    const Micros end = now_ + span;
    while (media_.deadline() && *media_.deadline() <= end) {
      now_ = std::max(now_, *media_.deadline());
      media_.onTime(now_);
    }
    now_ = end;
  }

  std::size_t room_ = kEverything;  // packets that the path takes before it is full
  std::vector<Received> rtp_;
  std::vector<RtcpCompound> rtcp_;
  std::vector<JitterBuffer::Frame> talk_;
  Micros now_ = kStart;
  const std::shared_ptr<FramePool> pool_ = FramePool::Create(1 << 20);
  SrtpTransport viewer_ = *SrtpTransport::Create({SrtpProfile::kAeadAes128Gcm, Key(101), Key(1)});
  PacketBatch batch_;
  ViewerMedia media_{Negotiated(),
                     identity(),
                     kWallClock,
                     batch_,
                     [this](const PacketBatch& batch, std::size_t first) { return take(batch, first); },
                     [this](const JitterBuffer::Frame& frame) { talk_.push_back(frame); }};
};

TEST_F(ViewerMediaTest, SendsFromAKeyFrameOn) {
  connect();
  sendFrame();
  EXPECT_TRUE(video().empty());
  EXPECT_TRUE(media_.wantsKeyFrame());
  EXPECT_EQ(media_.counts().droppedFrames, 1u);
  sendKeyFrame(3);
  EXPECT_FALSE(media_.wantsKeyFrame());
  sendFrame();
  const auto packets = video();
  ASSERT_EQ(packets.size(), 4u);
  EXPECT_EQ(packets[0].header.ssrc, identity().videoSsrc);
  EXPECT_EQ(media_.counts().videoPackets, 4u);
}

TEST_F(ViewerMediaTest, WantsAKeyFrameAsSoonAsItIsPrepared) {
  EXPECT_FALSE(media_.wantsKeyFrame());
  media_.prepare(now_);
  EXPECT_TRUE(media_.wantsKeyFrame());
  sendKeyFrame();
  EXPECT_FALSE(media_.wantsKeyFrame()) << "it is kept for the replay";
  EXPECT_TRUE(rtp_.empty());
}

TEST_F(ViewerMediaTest, SendsLaterWhatAFullPathDoesNotTake) {
  connect();
  room_ = 3;
  sendKeyFrame(100);
  now_ += 10 * kMillisecond;
  sendFrame(2);
  EXPECT_EQ(video().size(), 3u);
  ASSERT_TRUE(media_.deadline().has_value());
  passTime(20 * kMillisecond);
  EXPECT_EQ(video().size(), 3u) << "the path is still full";
  room_ = kEverything;
  passTime(20 * kMillisecond);
  const auto packets = video();
  ASSERT_EQ(packets.size(), 102u);
  for (std::size_t i = 1; i < packets.size(); ++i) {
    EXPECT_EQ(static_cast<std::uint16_t>(packets[i].header.sequence - packets[i - 1].header.sequence), 1) << i;
  }
  EXPECT_EQ(media_.deadline(), std::nullopt);
}

TEST_F(ViewerMediaTest, DropsWhatHasWaitedTooLongUpToTheNextKeyFrame) {
  connect();
  sendKeyFrame();
  room_ = 0;
  sendFrame();  // this one is encrypted already
  for (int i = 0; i < 3; ++i) sendFrame();
  passTime(ViewerMedia::kMaxWaiting);
  sendFrame();
  EXPECT_FALSE(media_.wantsKeyFrame());
  passTime(kMillisecond);
  sendFrame();
  EXPECT_TRUE(media_.wantsKeyFrame());
  EXPECT_EQ(media_.counts().droppedFrames, 5u);
  room_ = kEverything;
  passTime(kSecond);
  sendFrame();
  EXPECT_EQ(video().size(), 2u) << "what depends on the dropped frames is not sent";
  sendKeyFrame();
  EXPECT_FALSE(media_.wantsKeyFrame());
  const auto packets = video();
  ASSERT_EQ(packets.size(), 3u);
  EXPECT_EQ(static_cast<std::uint16_t>(packets[2].header.sequence - packets[1].header.sequence), 1);
}

TEST_F(ViewerMediaTest, SendsAKeyFrameInThePlaceOfWhatHasWaitedTooLong) {
  connect();
  sendKeyFrame();
  room_ = 0;
  for (int i = 0; i < 3; ++i) sendFrame();
  passTime(ViewerMedia::kMaxWaiting + kMillisecond);
  sendKeyFrame();
  EXPECT_FALSE(media_.wantsKeyFrame());
  room_ = kEverything;
  passTime(10 * kMillisecond);
  EXPECT_EQ(video().size(), 3u);
  EXPECT_EQ(media_.counts().droppedFrames, 2u);
}

TEST_F(ViewerMediaTest, KeepsABoundedNumberOfPackets) {
  connect();
  sendKeyFrame();
  room_ = 0;
  sendFrame();
  const std::size_t half = ViewerMedia::kMaxWaitingPackets / 2;
  sendFrame(half);
  sendFrame(half);
  EXPECT_FALSE(media_.wantsKeyFrame());
  sendFrame();
  EXPECT_TRUE(media_.wantsKeyFrame());
  EXPECT_EQ(media_.counts().droppedFrames, 3u);
}

TEST_F(ViewerMediaTest, BeginsAnewWhereFramesWereLost) {
  connect();
  sendKeyFrame();
  room_ = 0;
  sendFrame();
  sendFrame();
  media_.restartVideo(now_);
  EXPECT_TRUE(media_.wantsKeyFrame());
  room_ = kEverything;
  passTime(10 * kMillisecond);
  sendFrame();
  EXPECT_EQ(video().size(), 2u);
}

TEST_F(ViewerMediaTest, AnswersANackByRtxButNotWhileThePathIsFull) {
  connect();
  sendKeyFrame(2);
  const std::uint16_t lost = video()[0].header.sequence;
  EXPECT_TRUE(sendNack(lost));
  ASSERT_EQ(received(kRtx).size(), 1u);
  EXPECT_EQ(ReadU16(received(kRtx)[0].payload.data()), lost);
  room_ = 0;
  sendFrame();
  sendNack(static_cast<std::uint16_t>(lost + 1));
  room_ = kEverything;
  passTime(10 * kMillisecond);
  EXPECT_EQ(received(kRtx).size(), 1u);
}

TEST_F(ViewerMediaTest, RepeatsEveryPacketOfTheLargestReplay) {
  connect();
  media_.replayVideo(recentFrames(1, kMillisecond, RecentFrames::kMaxPackets), now_);
  ASSERT_EQ(video().size(), RecentFrames::kMaxPackets);
  const std::uint16_t first = video()[0].header.sequence;
  // By the time the viewer asks, a second of live video at 2 Mbit/s is out as well.
  for (int i = 0; i < 20; ++i) sendFrame(10);
  sendNack(first);
  ASSERT_EQ(received(kRtx).size(), 1u);
  EXPECT_EQ(ReadU16(received(kRtx)[0].payload.data()), first);
}

TEST_F(ViewerMediaTest, ReplayEndsWithTheTimestampOfNow) {
  connect();
  media_.replayVideo(recentFrames(20, 40 * kMillisecond), now_);
  const Micros replayed = now_;
  now_ += 10 * kMillisecond;
  sendFrame();
  const auto packets = video();
  ASSERT_EQ(packets.size(), 21u);
  EXPECT_EQ(packets[20].header.timestamp - packets[19].header.timestamp,
            ToRtpTicks(now_, kVideoClockRate) - ToRtpTicks(replayed, kVideoClockRate));
  for (std::size_t i = 1; i < packets.size(); ++i) {
    EXPECT_GT(static_cast<std::int32_t>(packets[i].header.timestamp - packets[i - 1].header.timestamp), 0) << i;
  }
}

TEST_F(ViewerMediaTest, TimestampsOfReplaysRiseWhateverWentBefore) {
  connect();
  sendKeyFrame();
  sendFrame();
  for (int i = 0; i < 3; ++i) {
    media_.restartVideo(now_);
    media_.replayVideo(recentFrames(20, 40 * kMillisecond), now_);
  }
  sendFrame();
  const auto packets = video();
  ASSERT_EQ(packets.size(), 63u);
  for (std::size_t i = 1; i < packets.size(); ++i) {
    EXPECT_GT(static_cast<std::int32_t>(packets[i].header.timestamp - packets[i - 1].header.timestamp), 0) << i;
  }
}

TEST_F(ViewerMediaTest, WantsNoOtherKeyFrameThanTheOneMadeForIt) {
  media_.prepare(now_);
  now_ += 30 * kMillisecond;
  const FrameRef made = makeFrame(true, 1, now_);
  media_.sendVideo(made, now_);
  const Micros arrived = now_;
  now_ += 400 * kMillisecond;
  connect();
  EXPECT_TRUE(media_.wantsKeyFrame());
  media_.replayVideo({{made, 1, arrived}}, now_);
  EXPECT_FALSE(media_.wantsKeyFrame());
  EXPECT_EQ(video().size(), 1u);
}

TEST_F(ViewerMediaTest, WantsAKeyFrameOfItsOwnAfterAReplayOfThePast) {
  connect();
  media_.replayVideo(recentFrames(10, 40 * kMillisecond), now_);
  EXPECT_TRUE(media_.wantsKeyFrame());
  sendFrame();
  EXPECT_EQ(video().size(), 11u) << "what follows passes meanwhile";
  sendKeyFrame();
  EXPECT_FALSE(media_.wantsKeyFrame());
}

TEST_F(ViewerMediaTest, WantsAKeyFrameAfterASwitchToAStreamThatBeganBefore) {
  connect();
  now_ += 10 * kSecond;
  sendKeyFrame();
  media_.restartVideo(now_);
  media_.replayVideo(recentFrames(10, 40 * kMillisecond), now_);
  EXPECT_TRUE(media_.wantsKeyFrame());
}

TEST_F(ViewerMediaTest, WishesAgainInTimeWhenAskedSoonAfterAKeyFrame) {
  connect();
  sendKeyFrame();
  now_ += 100 * kMillisecond;
  EXPECT_TRUE(sendPli());
  EXPECT_FALSE(media_.wantsKeyFrame());
  passTime(199 * kMillisecond);
  EXPECT_FALSE(media_.wantsKeyFrame());
  passTime(kMillisecond);
  EXPECT_TRUE(media_.wantsKeyFrame());
  EXPECT_EQ(media_.deadline(), std::nullopt);
}

TEST_F(ViewerMediaTest, SaysGoodbye) {
  connect();
  sendKeyFrame();
  media_.sayGoodbye(now_);
  ASSERT_FALSE(rtcp_.empty());
  EXPECT_EQ(rtcp_.back().byes, (std::vector<std::uint32_t>{identity().videoSsrc, identity().audioSsrc}));
}

TEST_F(ViewerMediaTest, GivesTalkBackWhenItIsDue) {
  connect();
  Bytes packet(kRtpHeaderBytes + kPcmuFrameBytes + kMaxSrtpTrailerBytes, 0x42);
  WriteRtpHeader({false, 0, 1, 160, kViewerSsrc}, packet.data());
  packet.resize(viewer_.protectRtp(packet.data(), kRtpHeaderBytes + kPcmuFrameBytes));
  ASSERT_TRUE(media_.receive(packet.data(), packet.size(), now_));
  EXPECT_TRUE(talk_.empty());
  passTime(JitterBuffer::kInitialDelay);
  ASSERT_EQ(talk_.size(), 1u);
  EXPECT_EQ(talk_[0][0], 0x42);
}

// The sender reports tell the viewer which timestamp belongs to which time. Frames carry the time of their arrival.
class ViewerMediaReportTest : public ViewerMediaTest {
 protected:
  // What the last report says of this stream; fails when there is none.
  RtcpSenderInfo lastReport(std::uint32_t ssrc) {
    for (auto compound = rtcp_.rbegin(); compound != rtcp_.rend(); ++compound) {
      for (const RtcpSenderReport& report : compound->senderReports) {
        if (report.ssrc == ssrc) return report.info;
      }
    }
    ADD_FAILURE() << "no report";
    return {};
  }
  // How much later than frame the video's last report was sent, by the timestamps.
  std::int32_t ticksSince(const Received& frame) {
    return static_cast<std::int32_t>(lastReport(identity().videoSsrc).rtpTimestamp - frame.header.timestamp);
  }
};

TEST_F(ViewerMediaReportTest, MapsTheTimestampsToTheTimesOfArrival) {
  connect();
  sendKeyFrame();
  passTime(500 * kMillisecond);
  media_.report(now_);
  EXPECT_EQ(lastReport(identity().videoSsrc).ntp, ToNtpTime(kWallClock + now_));
  EXPECT_EQ(ticksSince(video()[0]), 45000);
}

TEST_F(ViewerMediaReportTest, MapsRightAfterAReplay) {
  connect();
  media_.replayVideo(recentFrames(5, 400 * kMillisecond), now_);
  const RtcpSenderInfo first = lastReport(identity().videoSsrc);
  EXPECT_EQ(first.ntp, ToNtpTime(kWallClock + now_));
  passTime(100 * kMillisecond);
  sendFrame();
  EXPECT_EQ(video().back().header.timestamp - first.rtpTimestamp, 9000u);
}

TEST_F(ViewerMediaReportTest, MapsRightWhenThePathWasFull) {
  connect();
  sendKeyFrame();
  room_ = 0;
  for (int i = 0; i < 2; ++i) {
    now_ += 50 * kMillisecond;
    sendFrame();  // waits
  }
  passTime(500 * kMillisecond);
  room_ = kEverything;
  passTime(10 * kMillisecond);
  ASSERT_EQ(video().size(), 3u);
  media_.report(now_);
  EXPECT_EQ(ticksSince(video()[0]), 610 * 90);
}

TEST_F(ViewerMediaReportTest, MeasuresTheRoundTripByTheClockOfItsReports) {
  connect();
  sendKeyFrame();
  media_.report(now_);
  const NtpTime sent = lastReport(identity().videoSsrc).ntp;
  now_ += 180 * kMillisecond;
  RtcpReportBlock block;
  block.ssrc = identity().videoSsrc;
  block.lastSenderReport = CompactNtp(sent);
  block.delaySinceLastReport = 65536 / 10;
  Bytes packet;
  WriteReceiverReport(kViewerSsrc, {block}, packet);
  EXPECT_TRUE(sendRtcp(packet));
  EXPECT_NEAR(static_cast<double>(media_.counts().roundTrip.count()), 80'000, 100);
}

}  // namespace
}  // namespace kovra
