// The engine against a viewer that misbehaves, and against what browsers do too seldom to test it with them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/rand.h>
#include <pthread.h>

#include <atomic>
#include <memory>
#include <thread>

#include "engine_events.h"
#include "loopback_viewer.h"
#include "session_table.h"

namespace kovra {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Not;

using Bytes = std::vector<std::uint8_t>;

// What looks like an access unit of that video type: its number ends each NAL unit.
Bytes AccessUnit(int videoType, bool isKeyFrame) {
  const auto number = static_cast<std::uint8_t>(videoType);
  const auto filler = static_cast<std::uint8_t>(0xA0 | number);
  Bytes unit = {0, 0, 0, 1, 0x41};
  if (isKeyFrame) {
    const auto sps = static_cast<std::uint8_t>(0x40 | number);
    const auto pps = static_cast<std::uint8_t>(0x80 | number);
    unit = {0, 0, 0, 1,    0x67, 0x42, 0xE0, 0x1F, 0xDA, 0x02, 0xD0, sps, 0,
            0, 0, 1, 0x68, 0xCE, 0x38, pps,  0,    0,    0,    1,    0x65};
  }
  unit.resize(unit.size() + (isKeyFrame ? 5000 : 1500), filler);
  return unit;
}

int VideoType(const LoopbackViewer::Received& packet) { return packet.payload.back() & 0x0F; }

// A camera that writes two streams side by side, a frame of each in quick succession: key frames whenever one is
// wanted, and now and then.
class TwoStreamCamera {
 public:
  explicit TwoStreamCamera(KovraStreamer& streamer)
      : thread_([this, &streamer] {
          constexpr int kKeyFrameInterval = 5;
          bool wanted[3] = {};
          for (int i = 0; !stop_; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
            for (int type = 1; type <= 2; ++type) {
              Bytes unit = AccessUnit(type, wanted[type] || i % kKeyFrameInterval == 0);
              wanted[type] = streamer.writeVideoData(unit.data(), unit.size(), 0, 0, type) != 0;
            }
          }
        }) {}
  ~TwoStreamCamera() {
    stop_ = true;
    thread_.join();
  }
  TwoStreamCamera(const TwoStreamCamera&) = delete;
  TwoStreamCamera& operator=(const TwoStreamCamera&) = delete;

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// A camera that writes what looks like H.264: a key frame whenever one is wanted, audio beside it.
class Camera {
 public:
  explicit Camera(KovraStreamer& streamer)
      : thread_([this, &streamer] {
          Bytes key = AccessUnit(1, true);
          Bytes delta = AccessUnit(1, false);
          Bytes audio(160, 0x55);
          for (bool wanted = true; !stop_; std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
            Bytes& frame = wanted && makesKeyFrames_ ? key : delta;
            wanted = streamer.writeVideoData(frame.data(), frame.size(), 0, 0, 1) != 0;
            streamer.writeAudioData(audio.data(), audio.size(), 0, 0);
          }
        }) {}
  ~Camera() {
    stop_ = true;
    thread_.join();
  }
  // Whether it heeds the wish for key frames.
  void makeKeyFrames(bool make) { makesKeyFrames_ = make; }
  Camera(const Camera&) = delete;
  Camera& operator=(const Camera&) = delete;

 private:
  std::atomic<bool> stop_{false};
  std::atomic<bool> makesKeyFrames_{true};
  std::thread thread_;
};

class EngineLoopbackTest : public testing::Test {
 protected:
  EngineLoopbackTest() {
    initKovraLibrary(1);
    streamer_->registerCallback(&events_);
    camera_.emplace(*streamer_);
  }
  ~EngineLoopbackTest() override { camera_.reset(); }

  // A viewer that watches.
  std::unique_ptr<LoopbackViewer> watch(const ViewerOffer& offer = {}) {
    auto viewer = std::make_unique<LoopbackViewer>(*streamer_, events_);
    EXPECT_TRUE(viewer->call(offer));
    EXPECT_TRUE(viewer->waitUntilConnected());
    EXPECT_GE(viewer->packets(kViewerH264, 10).size(), 10u);
    return viewer;
  }

  void chooseVideo(const LoopbackViewer& viewer, int videoType) {
    EXPECT_EQ(streamer_->setAudioVideoType(viewer.session(), -1, videoType), 0);
  }
  // Until that video type comes.
  static void waitForVideo(LoopbackViewer& viewer, int videoType) {
    EXPECT_TRUE(viewer.waitForLast(kViewerH264, [&](const auto& packet) { return VideoType(packet) == videoType; }));
  }

  static void expectMoreVideo(LoopbackViewer& viewer) {
    const std::size_t before = viewer.packets(kViewerH264, 0).size();
    EXPECT_GE(viewer.packets(kViewerH264, before + 20).size(), before + 20);
  }

  EngineEvents events_;
  std::unique_ptr<KovraStreamer> streamer_ = std::make_unique<KovraStreamer>();
  std::optional<Camera> camera_;
};

// Asks for one packet, as many times as told.
Bytes Nack(std::uint32_t mediaSsrc, std::uint16_t sequence, std::size_t times = 1) {
  Bytes packet;
  WriteReceiverReport(kViewerSsrc, {}, packet);
  const std::size_t begin = packet.size();
  packet.resize(begin + 12 + 4 * times);
  packet[begin] = 0x81;
  packet[begin + 1] = 205;
  WriteU16(static_cast<std::uint16_t>(2 + times), &packet[begin + 2]);
  WriteU32(kViewerSsrc, &packet[begin + 4]);
  WriteU32(mediaSsrc, &packet[begin + 8]);
  for (std::size_t i = 0; i < times; ++i) WriteU16(sequence, &packet[begin + 12 + 4 * i]);
  return packet;
}

TEST_F(EngineLoopbackTest, AnswersANackByRtx) {
  const auto viewer = watch();
  const auto lost = viewer->packets(kViewerH264, 1).front();
  viewer->sendRtcp(Nack(lost.header.ssrc, lost.header.sequence));
  const auto repeated = viewer->packets(kViewerRtx, 1);
  ASSERT_FALSE(repeated.empty());
  EXPECT_NE(repeated[0].header.ssrc, lost.header.ssrc);
  EXPECT_EQ(repeated[0].header.timestamp, lost.header.timestamp);
  ASSERT_EQ(repeated[0].payload.size(), lost.payload.size() + 2);
  EXPECT_EQ(ReadU16(repeated[0].payload.data()), lost.header.sequence);
  EXPECT_EQ(Bytes(repeated[0].payload.begin() + 2, repeated[0].payload.end()), lost.payload);
}

TEST_F(EngineLoopbackTest, AnswersNoNackTwiceAtOnce) {
  const auto viewer = watch();
  const auto first = viewer->packets(kViewerH264, 2);
  viewer->sendRtcp(Nack(first[0].header.ssrc, first[0].header.sequence, 50));
  viewer->sendRtcp(Nack(first[1].header.ssrc, first[1].header.sequence));
  const auto repeated = viewer->packets(kViewerRtx, 2);
  ASSERT_EQ(repeated.size(), 2u) << "the last of the answers shows that there were no others";
  EXPECT_EQ(ReadU16(repeated[0].payload.data()), first[0].header.sequence);
  EXPECT_EQ(ReadU16(repeated[1].payload.data()), first[1].header.sequence);
}

TEST_F(EngineLoopbackTest, IgnoresNacksForWhatItNeverSent) {
  const auto viewer = watch();
  const auto sent = viewer->packets(kViewerH264, 1).front();
  viewer->sendRtcp(Nack(sent.header.ssrc, static_cast<std::uint16_t>(sent.header.sequence - 1000)));
  viewer->sendRtcp(Nack(sent.header.ssrc + 1, sent.header.sequence));
  expectMoreVideo(*viewer);
  EXPECT_TRUE(viewer->packets(kViewerRtx, 0).empty());
}

TEST_F(EngineLoopbackTest, ReportsBothStreamsAsASender) {
  const auto viewer = watch();
  const std::uint32_t video = viewer->packets(kViewerH264, 1).front().header.ssrc;
  const std::uint32_t audio = viewer->packets(0, 1).front().header.ssrc;
  for (const std::uint32_t ssrc : {video, audio}) {
    EXPECT_TRUE(viewer->waitForRtcp([&](const RtcpCompound& compound) {
      return std::any_of(
          compound.senderReports.begin(), compound.senderReports.end(),
          [&](const RtcpSenderReport& report) { return report.ssrc == ssrc && report.info.packets > 0; });
    })) << ssrc;
  }
}

TEST_F(EngineLoopbackTest, ReportsHowTheVoiceArrives) {
  const auto viewer = watch();
  for (std::uint16_t sequence = 1; sequence <= 10; ++sequence) viewer->sendVoice(sequence, 0x11);
  EXPECT_TRUE(viewer->waitForRtcp([](const RtcpCompound& compound) {
    return std::any_of(compound.reportBlocks.begin(), compound.reportBlocks.end(), [](const RtcpReportBlock& block) {
      return block.ssrc == kVoiceSsrc && (block.highestSequence & 0xFFFF) == 10;
    });
  }));
}

TEST_F(EngineLoopbackTest, SeesTheViewerLeave) {
  const auto viewer = watch();
  viewer->closeDtls();
  EXPECT_TRUE(events_.waitForState(viewer->session(), KOVRA_STATE_CLOSED));
  EXPECT_NE(streamer_->closeSession(viewer->session()), 0) << "the id names nothing any more";
}

TEST_F(EngineLoopbackTest, TellsTheViewerThatItCloses) {
  const auto viewer = watch();
  const std::uint32_t video = viewer->packets(kViewerH264, 1).front().header.ssrc;
  EXPECT_EQ(streamer_->closeSession(viewer->session()), 0);
  EXPECT_TRUE(viewer->waitForDtls(DtlsTransportState::kClosed));
  EXPECT_TRUE(viewer->waitForRtcp([&](const RtcpCompound& compound) {
    return std::find(compound.byes.begin(), compound.byes.end(), video) != compound.byes.end();
  }));
  EXPECT_THAT(events_.session(viewer->session()).states, Not(Contains(KOVRA_STATE_CLOSED)));
}

TEST_F(EngineLoopbackTest, TellsTheViewersThatItIsDestroyed) {
  const auto one = watch();
  const auto other = watch();
  camera_.reset();
  // The viewers keep a reference that they do not use any more.
  streamer_.reset();
  EXPECT_TRUE(one->waitForDtls(DtlsTransportState::kClosed));
  EXPECT_TRUE(other->waitForDtls(DtlsTransportState::kClosed));
}

TEST_F(EngineLoopbackTest, FailsWhenTheCertificateIsNotTheOneOfTheOffer) {
  LoopbackViewer viewer(*streamer_, events_);
  ViewerOffer offer;
  offer.wrongFingerprint = true;
  ASSERT_TRUE(viewer.call(offer));
  EXPECT_TRUE(events_.waitForState(viewer.session(), KOVRA_STATE_FAILED));
  EXPECT_THAT(events_.session(viewer.session()).states, Not(Contains(KOVRA_STATE_CONNECTED)));
  EXPECT_TRUE(viewer.packets(kViewerH264, 0).empty());
}

TEST_F(EngineLoopbackTest, IsTheDtlsClientOfAViewerThatWantsToBeServer) {
  ViewerOffer offer;
  offer.setup = "passive";
  watch(offer);
}

TEST_F(EngineLoopbackTest, IsTheDtlsServerOfAViewerThatWantsToBeClient) {
  ViewerOffer offer;
  offer.setup = "active";
  watch(offer);
}

TEST_F(EngineLoopbackTest, TakesControlOfALiteViewer) {
  ViewerOffer offer;
  offer.iceLite = true;
  watch(offer);
}

TEST_F(EngineLoopbackTest, RepeatsThePacketItselfWithoutRtx) {
  ViewerOffer offer;
  offer.rtx = false;
  const auto viewer = watch(offer);
  const RtpHeader lost = viewer->losePacket(kViewerH264);
  expectMoreVideo(*viewer);
  viewer->sendRtcp(Nack(lost.ssrc, lost.sequence));
  const auto repeated = viewer->waitForPacket(kViewerH264, lost.sequence);
  ASSERT_TRUE(repeated.has_value());
  EXPECT_EQ(repeated->header.timestamp, lost.timestamp);
  EXPECT_EQ(repeated->header.marker, lost.marker);
  EXPECT_EQ(repeated->header.ssrc, lost.ssrc);
  EXPECT_TRUE(viewer->packets(kViewerRtx, 0).empty());
}

TEST_F(EngineLoopbackTest, TakesNoVoiceTwice) {
  const auto viewer = watch();
  for (std::uint16_t sequence = 1; sequence <= 20; ++sequence) {
    viewer->sendVoice(sequence, static_cast<std::uint8_t>(sequence));
    viewer->repeatVoice();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_TRUE(events_.waitFor(viewer->session(), [](const EngineEvents::Session& session) {
    return std::any_of(session.audio.begin(), session.audio.end(), [](const Bytes& frame) { return frame[0] == 20; });
  }));
  const auto heard = events_.session(viewer->session()).audio;
  for (std::uint8_t sample = 1; sample <= 20; ++sample) {
    EXPECT_LE(std::count_if(heard.begin(), heard.end(), [&](const Bytes& frame) { return frame[0] == sample; }), 1)
        << int{sample};
  }
}

TEST_F(EngineLoopbackTest, HearsSeveralViewersAtOnce) {
  const auto one = watch();
  const auto other = watch();
  for (std::uint16_t sequence = 1; sequence <= 10; ++sequence) {
    one->sendVoice(sequence, 0x31);
    other->sendVoice(sequence, 0x32);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const auto hears = [&](KOVRA_SESSION_ID session, std::uint8_t sample) {
    return events_.waitFor(session, [&](const EngineEvents::Session& events) {
      return std::any_of(events.audio.begin(), events.audio.end(),
                         [&](const Bytes& frame) { return frame[0] == sample; });
    });
  };
  EXPECT_TRUE(hears(one->session(), 0x31));
  EXPECT_TRUE(hears(other->session(), 0x32));
}

TEST_F(EngineLoopbackTest, OutlivesAFloodOfSsrcs) {
  const auto viewer = watch();
  const auto other = watch();
  for (std::uint32_t ssrc = 1000; ssrc < 3000; ++ssrc) viewer->sendVoice(1, 0x22, ssrc);
  expectMoreVideo(*viewer);
  expectMoreVideo(*other);
}

TEST_F(EngineLoopbackTest, OutlivesAFloodOfNonsense) {
  const auto viewer = watch();
  const auto other = watch();
  for (int i = 0; i < 5000; ++i) {
    std::uint8_t size = 0;
    RAND_bytes(&size, 1);
    Bytes datagram(size + 1u);
    RAND_bytes(datagram.data(), static_cast<int>(datagram.size()));
    constexpr std::uint8_t kFirstBytes[] = {0, 1, 20, 22, 23, 63, 64, 128, 144, 191, 192, 255};
    datagram[0] = kFirstBytes[static_cast<std::size_t>(i) % sizeof(kFirstBytes)];
    viewer->sendRaw(std::move(datagram));
  }
  expectMoreVideo(*viewer);
  expectMoreVideo(*other);
  EXPECT_EQ(events_.session(viewer->session()).states.back(), KOVRA_STATE_CONNECTED);
}

TEST_F(EngineLoopbackTest, OutlivesAFloodOfAuthenticNonsense) {
  const auto viewer = watch();
  for (int i = 0; i < 2000; ++i) {
    Bytes compound(static_cast<std::size_t>(12 + i % 200));
    RAND_bytes(compound.data(), static_cast<int>(compound.size()));
    compound[0] = static_cast<std::uint8_t>(0x80 | (i & 0x3F));
    compound[1] = static_cast<std::uint8_t>(200 + i % 8);
    WriteU32(kViewerSsrc, &compound[4]);
    viewer->sendRtcp(std::move(compound));
  }
  expectMoreVideo(*viewer);
}

TEST_F(EngineLoopbackTest, BearsAViewerWithManyAddresses) {
  const auto viewer = watch();
  EXPECT_TRUE(viewer->checkFromPorts(40));
  expectMoreVideo(*viewer);
  EXPECT_EQ(events_.session(viewer->session()).states.back(), KOVRA_STATE_CONNECTED);
}

TEST_F(EngineLoopbackTest, EndsAViewerWithMoreAddressesThanAnyHas) {
  const auto viewer = watch();
  const auto other = watch();
  // libnice may have answered all of a burst before it tells of the first.
  viewer->checkFromPorts(300);
  EXPECT_TRUE(events_.waitForState(viewer->session(), KOVRA_STATE_FAILED));
  expectMoreVideo(*other);
  EXPECT_EQ(events_.session(other->session()).states.back(), KOVRA_STATE_CONNECTED);
}

TEST_F(EngineLoopbackTest, AFrozenViewerDoesNotDisturbTheOthers) {
  const auto frozen = watch();
  const auto other = watch();
  const auto thaw = frozen->freeze();
  expectMoreVideo(*other);
  expectMoreVideo(*other);
  thaw();
  expectMoreVideo(*frozen);
}

TEST_F(EngineLoopbackTest, BearsAHangUpRightBehindTheOffer) {
  LoopbackViewer viewer(*streamer_, events_);
  const std::string offer = viewer.makeOffer();
  KovraSessionConfig config;
  // The discard service: nobody answers.
  config.iceServers = {{"stun:127.0.0.1:9", "", ""}, {"turn:127.0.0.1:9?transport=udp", "user", "password"}};
  for (int i = 0; i < 20; ++i) {
    const KOVRA_SESSION_ID session = streamer_->createSession(config);
    EXPECT_EQ(streamer_->setRemoteOffer(session, offer), 0);
    EXPECT_TRUE(events_.waitFor(session, [](const EngineEvents::Session& events) { return !events.states.empty(); }));
    EXPECT_EQ(streamer_->closeSession(session), 0);
  }
  watch();
}

TEST_F(EngineLoopbackTest, StaysConnectedWhenAnAnswerAboutConsentIsLost) {
  const auto viewer = watch();
  viewer->loseConsentChecks(1);
  EXPECT_TRUE(viewer->waitForConsentChecks(5));
  EXPECT_THAT(events_.session(viewer->session()).states,
              ElementsAre(KOVRA_STATE_NEW, KOVRA_STATE_CONNECTING, KOVRA_STATE_CONNECTED));
  expectMoreVideo(*viewer);
}

TEST_F(EngineLoopbackTest, GivesUpAViewerThatFellSilent) {
  const auto viewer = watch();
  const auto thaw = viewer->freeze();
  const auto silentSince = std::chrono::steady_clock::now();
  EXPECT_TRUE(events_.waitForState(viewer->session(), KOVRA_STATE_FAILED));
  const auto silence = std::chrono::steady_clock::now() - silentSince;
  // A few seconds more than the rule for a machine that is busy.
  EXPECT_LT(silence, std::chrono::seconds(20));
  EXPECT_THAT(events_.session(viewer->session()).states,
              ElementsAre(KOVRA_STATE_NEW, KOVRA_STATE_CONNECTING, KOVRA_STATE_CONNECTED, KOVRA_STATE_DISCONNECTED,
                          KOVRA_STATE_FAILED));
  thaw();
}

TEST_F(EngineLoopbackTest, GivesUpAViewerThatTalksButDoesNotConsent) {
  const auto viewer = watch();
  viewer->loseConsentChecks(1000);
  std::atomic<bool> over{false};
  std::thread talk([&] {
    for (std::uint16_t sequence = 1; !over; ++sequence) {
      viewer->sendVoice(sequence, 0x44);
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
  });
  EXPECT_TRUE(events_.waitForState(viewer->session(), KOVRA_STATE_FAILED));
  over = true;
  talk.join();
  EXPECT_THAT(events_.session(viewer->session()).states,
              ElementsAre(KOVRA_STATE_NEW, KOVRA_STATE_CONNECTING, KOVRA_STATE_CONNECTED, KOVRA_STATE_FAILED));
}

TEST_F(EngineLoopbackTest, GoesOnWithAViewerThatThaws) {
  const auto viewer = watch();
  const auto thaw = viewer->freeze();
  std::this_thread::sleep_for(std::chrono::seconds(5));
  thaw();
  EXPECT_TRUE(viewer->waitForConsentChecks(3));
  expectMoreVideo(*viewer);
  EXPECT_EQ(events_.session(viewer->session()).states.back(), KOVRA_STATE_CONNECTED);
}

TEST_F(EngineLoopbackTest, TellsOnlyTheSessionsOwnStates) {
  const auto viewer = watch();
  EXPECT_THAT(events_.session(viewer->session()).states,
              ElementsAre(KOVRA_STATE_NEW, KOVRA_STATE_CONNECTING, KOVRA_STATE_CONNECTED));
}

TEST_F(EngineLoopbackTest, KnowsNoIdThatItDidNotGive) {
  EXPECT_NE(streamer_->setRemoteOffer(12345, "v=0\r\n"), 0);
  EXPECT_NE(streamer_->addRemoteCandidate(12345, ""), 0);
  EXPECT_NE(streamer_->setAudioVideoType(12345, 0, 1), 0);
  EXPECT_NE(streamer_->closeSession(12345), 0);
  EXPECT_NE(streamer_->closeSession(0), 0);
}

TEST_F(EngineLoopbackTest, ShowsANewcomerWhatItMissed) {
  const auto first = watch();
  // The camera makes no other key frame: nothing but the one that the first viewer got can begin the stream.
  camera_->makeKeyFrames(false);
  const auto newcomer = watch();
  const auto packets = newcomer->packets(kViewerH264, 20);
  ASSERT_GE(packets.size(), 20u);
  EXPECT_EQ(packets[0].payload[0] & 0x1F, 7) << "an SPS";
  for (std::size_t i = 1; i < packets.size(); ++i) {
    EXPECT_EQ(static_cast<std::uint16_t>(packets[i].header.sequence - packets[i - 1].header.sequence), 1) << i;
    const auto step = static_cast<std::int32_t>(packets[i].header.timestamp - packets[i - 1].header.timestamp);
    EXPECT_GE(step, 0) << i;
    EXPECT_EQ(step > 0, packets[i - 1].header.marker) << i;
  }
}

TEST_F(EngineLoopbackTest, SwitchesBetweenLiveStreamsWithoutAForeignFrame) {
  camera_.reset();
  const TwoStreamCamera camera(*streamer_);
  const auto viewer = watch();
  for (int i = 0; i < 30; ++i) {
    chooseVideo(*viewer, 1 + (i + 1) % 2);
    // Every third time it is there and back again.
    if (i % 3 == 0) {
      chooseVideo(*viewer, 1 + i % 2);
      chooseVideo(*viewer, 1 + (i + 1) % 2);
    }
    waitForVideo(*viewer, 1 + (i + 1) % 2);
    // A viewer that cannot keep up may miss every question for its consent: it is alive by its reports, as browsers
    // are.
    Bytes report;
    WriteReceiverReport(kViewerSsrc, {}, report);
    viewer->sendRtcp(std::move(report));
  }
  const auto packets = viewer->packets(kViewerH264, 0);
  int switches = 0;
  for (std::size_t i = 1; i < packets.size(); ++i) {
    const RtpHeader& before = packets[i - 1].header;
    const RtpHeader& header = packets[i].header;
    // A viewer that cannot keep up loses packets to its socket: nothing follows from what stands around them.
    if (static_cast<std::uint16_t>(header.sequence - before.sequence) != 1) continue;
    const auto step = static_cast<std::int32_t>(header.timestamp - before.timestamp);
    ASSERT_GE(step, 0) << i;
    ASSERT_EQ(step > 0, before.marker) << i;
    if (VideoType(packets[i]) == VideoType(packets[i - 1])) continue;
    ++switches;
    ASSERT_EQ(packets[i].payload[0] & 0x1F, 7) << i << ": a stream begins with an SPS";
  }
  EXPECT_GT(switches, 20);
}

// Each switch sends all that is kept of a stream.
TEST_F(EngineLoopbackTest, SwitchesTwiceASecondAtMostHoweverOftenItIsAskedTo) {
  camera_.reset();
  const TwoStreamCamera camera(*streamer_);
  const auto viewer = watch();
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 200; ++i) {
    chooseVideo(*viewer, 1 + (i + 1) % 2);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  chooseVideo(*viewer, 2);
  waitForVideo(*viewer, 2);
  const std::chrono::duration<double> lasted = std::chrono::steady_clock::now() - begin;
  const auto packets = viewer->packets(kViewerH264, 0);
  int switches = 0;
  for (std::size_t i = 1; i < packets.size(); ++i) {
    if (VideoType(packets[i]) != VideoType(packets[i - 1])) ++switches;
  }
  EXPECT_LE(switches, 2 * lasted.count() + 2);
}

TEST_F(EngineLoopbackTest, TakesOneOfferForASession) {
  const auto viewer = watch();
  LoopbackViewer second(*streamer_, events_);
  ASSERT_TRUE(second.call());
  EXPECT_NE(streamer_->setRemoteOffer(viewer->session(), "v=0\r\n"), 0);
  expectMoreVideo(*viewer);
}

TEST_F(EngineLoopbackTest, OpensNoSessionWhileTheSystemHasNoThread) {
  KovraStreamer streamer;
  pthread_attr_t usual;
  pthread_attr_t huge;
  pthread_getattr_default_np(&usual);
  pthread_getattr_default_np(&huge);
  // More stack than there are addresses: threads cannot be made.
  pthread_attr_setstacksize(&huge, std::size_t{1} << 50);
  ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
  EXPECT_EQ(streamer.createSession({}), 0);
  EXPECT_EQ(streamer.createSession({}), 0);
  pthread_setattr_default_np(&usual);
  EXPECT_NE(streamer.createSession({}), 0);
}

TEST_F(EngineLoopbackTest, OpensABoundedNumberOfSessions) {
  for (std::size_t i = 0; i < SessionTable::kMaxSessions; ++i) ASSERT_NE(streamer_->createSession({}), 0);
  EXPECT_EQ(streamer_->createSession({}), 0);
}

TEST_F(EngineLoopbackTest, RefusesEmptyAudioAndBearsEmptyVideo) {
  EXPECT_LT(streamer_->writeAudioData(nullptr, 0, 0, 0), 0);
  EXPECT_LT(streamer_->writeAudioData(nullptr, 160, 0, 0), 0);
  EXPECT_EQ(streamer_->writeVideoData(nullptr, 0, 0, 0, 1), 0);
  EXPECT_EQ(streamer_->writeVideoData(nullptr, 100, 0, 0, 1), 0);
}

}  // namespace
}  // namespace kovra
