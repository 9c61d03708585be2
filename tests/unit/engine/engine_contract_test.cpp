#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <limits>
#include <mutex>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kovra.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::chrono::seconds kPatience{60};  // far beyond what anything here takes

constexpr char kSessionPart[] =
    "v=0\r\no=- 4611 2 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\na=group:BUNDLE 0 1\r\na=msid-semantic: WMS\r\n";
constexpr char kTransportPart[] =
    "c=IN IP4 0.0.0.0\r\na=rtcp:9 IN IP4 0.0.0.0\r\na=ice-ufrag:vW1x\r\na=ice-pwd:q5jKJb0Cz9wZK3lq1t2u3v4w\r\n"
    "a=ice-options:trickle\r\n"
    "a=fingerprint:sha-256 0F:1E:2D:3C:4B:5A:69:78:87:96:A5:B4:C3:D2:E1:F0:0F:1E:2D:3C:4B:5A:69:78:87:96:A5:B4:C3:D2:"
    "E1:F0\r\na=setup:actpass\r\n";
constexpr char kVideoPart[] =
    "a=mid:0\r\na=recvonly\r\na=rtcp-mux\r\na=rtcp-rsize\r\na=rtpmap:96 VP8/90000\r\na=rtcp-fb:96 nack pli\r\n"
    "a=rtpmap:102 H264/90000\r\na=rtcp-fb:102 ccm fir\r\na=rtcp-fb:102 nack\r\na=rtcp-fb:102 nack pli\r\n"
    "a=fmtp:102 level-asymmetry-allowed=1;packetization-mode=1;profile-level-id=42e01f\r\n";
constexpr char kAudioPart[] =
    "a=mid:1\r\na=sendrecv\r\na=rtcp-mux\r\na=rtpmap:111 opus/48000/2\r\na=rtpmap:0 PCMU/8000\r\n"
    "a=ssrc:7 cname:v\r\n";

// An offer as browsers make it, of a viewer that wants to watch and to talk.
std::string makeOffer() {
  return std::string(kSessionPart) + "m=video 9 UDP/TLS/RTP/SAVPF 96 102\r\n" + kTransportPart + kVideoPart +
         "m=audio 9 UDP/TLS/RTP/SAVPF 111 0\r\n" + kTransportPart + kAudioPart;
}

std::string without(std::string text, const std::string& part) {
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part)) {
    text.erase(at, text.find("\r\n", at) + 2 - at);
  }
  return text;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

bool eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// Keeps what the engine tells, and may act from inside a callback.
class Recorder : public KovraStreamerCallback {
 public:
  struct Told {
    std::string what;  // "answer", "candidate" or "state"
    KOVRA_SESSION_ID session;
    std::string text;
    KOVRA_STATE state;
  };

  void onAnswer(KOVRA_SESSION_ID sid, const std::string& sdp) override {
    record({"answer", sid, sdp, KOVRA_STATE_NONE});
  }
  void onIceCandidate(KOVRA_SESSION_ID sid, const std::string& candidate) override {
    record({"candidate", sid, candidate, KOVRA_STATE_NONE});
  }
  void onStateChange(KOVRA_SESSION_ID sid, KOVRA_STATE state) override { record({"state", sid, "", state}); }
  void onAudioFrame(KOVRA_SESSION_ID, void*, unsigned int) override {}

  // Called inside every callback; set before the first session.
  std::function<void(const Told&)> react = [](const Told&) {};

  // Waits for the first thing of this kind that is told about the session.
  Told waitFor(const std::string& what, KOVRA_SESSION_ID sid) {
    std::unique_lock<std::mutex> lock(mutex_);
    Told found{};
    const auto came = [&] {
      for (const Told& told : all_) {
        if (told.what != what || told.session != sid) continue;
        found = told;
        return true;
      }
      return false;
    };
    EXPECT_TRUE(changed_.wait_for(lock, kPatience, came)) << "no " << what << " came";
    return found;
  }

  std::vector<Told> all() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return all_;
  }

  bool hasOverlapped() const { return hasOverlapped_; }

 private:
  void record(const Told& told) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (!active_.insert(told.session).second) hasOverlapped_ = true;
      all_.push_back(told);
      changed_.notify_all();
    }
    react(told);
    const std::lock_guard<std::mutex> lock(mutex_);
    active_.erase(told.session);
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Told> all_;
  std::set<KOVRA_SESSION_ID> active_;
  std::atomic<bool> hasOverlapped_{false};
};

class EngineTest : public testing::Test {
 protected:
  EngineTest() { streamer_.registerCallback(&recorder_); }

  KOVRA_SESSION_ID createSession() { return streamer_.createSession(KovraSessionConfig()); }

  // For what happens inside callbacks, which may still run when the test's body has ended.
  std::atomic<int> result_{-2};
  std::atomic<KOVRA_SESSION_ID> inner_{0};

  Recorder recorder_;
  KovraStreamer streamer_;
};

TEST(EngineSetUp, CanBeRepeatedWithAnyLevel) {
  for (const unsigned int level : {0U, 1U, 4U, 17U, 2U}) EXPECT_EQ(initKovraLibrary(level), 0);
}

TEST(EngineConfig, DefaultsToTrickleOverAnyPathWithoutServers) {
  const KovraSessionConfig config;
  EXPECT_FALSE(config.isAlexaCall);
  EXPECT_TRUE(config.trickleIce);
  EXPECT_FALSE(config.relayOnly);
  EXPECT_TRUE(config.iceServers.empty());
}

TEST_F(EngineTest, GivesEverySessionItsOwnId) {
  std::set<KOVRA_SESSION_ID> ids;
  for (int i = 0; i < 100; ++i) ids.insert(createSession());
  EXPECT_EQ(ids.size(), 100U);
  EXPECT_EQ(ids.count(0), 0U);
}

TEST_F(EngineTest, KnowsNoSessionThatWasNotCreated) {
  const KOVRA_SESSION_ID sid = createSession();
  for (const KOVRA_SESSION_ID unknown :
       {0, -1, sid + 1, std::numeric_limits<KOVRA_SESSION_ID>::min(), std::numeric_limits<KOVRA_SESSION_ID>::max()}) {
    EXPECT_NE(streamer_.setRemoteOffer(unknown, makeOffer()), 0);
    EXPECT_NE(streamer_.addRemoteCandidate(unknown, ""), 0);
    EXPECT_NE(streamer_.setAudioVideoType(unknown, 0, 1), 0);
    EXPECT_NE(streamer_.closeSession(unknown), 0);
  }
  EXPECT_EQ(streamer_.closeSession(sid), 0);
}

TEST_F(EngineTest, KnowsASessionNoMoreOnceItIsClosed) {
  const KOVRA_SESSION_ID sid = createSession();
  EXPECT_EQ(streamer_.closeSession(sid), 0);
  EXPECT_NE(streamer_.closeSession(sid), 0);
  EXPECT_NE(streamer_.setRemoteOffer(sid, makeOffer()), 0);
  EXPECT_NE(streamer_.addRemoteCandidate(sid, ""), 0);
  EXPECT_NE(streamer_.setAudioVideoType(sid, 0, 1), 0);
}

TEST_F(EngineTest, AnswersAnOffer) {
  const KOVRA_SESSION_ID sid = createSession();
  ASSERT_EQ(streamer_.setRemoteOffer(sid, makeOffer()), 0);
  const std::string answer = recorder_.waitFor("answer", sid).text;
  EXPECT_EQ(answer.rfind("v=0\r\n", 0), 0U) << answer;
  EXPECT_THAT(answer, HasSubstr("a=mid:0\r\n"));
  EXPECT_THAT(answer, HasSubstr("a=mid:1\r\n"));
  EXPECT_THAT(answer, HasSubstr("H264/90000"));
  EXPECT_THAT(answer, HasSubstr("PCMU/8000"));
  EXPECT_EQ(answer.find("VP8"), std::string::npos);
  EXPECT_EQ(answer.find("opus"), std::string::npos);
}

TEST_F(EngineTest, TellsTheNewStateAndTheAnswerBeforeTheFirstCandidate) {
  const KOVRA_SESSION_ID sid = createSession();
  ASSERT_EQ(streamer_.setRemoteOffer(sid, makeOffer()), 0);
  recorder_.waitFor("candidate", sid);
  std::vector<std::string> order;
  KOVRA_STATE firstState = KOVRA_STATE_NONE;
  for (const auto& told : recorder_.all()) {
    if (std::find(order.begin(), order.end(), told.what) == order.end()) order.push_back(told.what);
    if (firstState == KOVRA_STATE_NONE) firstState = told.state;
  }
  EXPECT_THAT(order, ElementsAre("state", "answer", "candidate"));
  EXPECT_EQ(firstState, KOVRA_STATE_NEW);
}

TEST_F(EngineTest, RefusesASecondOffer) {
  const KOVRA_SESSION_ID sid = createSession();
  ASSERT_EQ(streamer_.setRemoteOffer(sid, makeOffer()), 0);
  EXPECT_NE(streamer_.setRemoteOffer(sid, makeOffer()), 0);
  recorder_.waitFor("answer", sid);
  EXPECT_NE(streamer_.setRemoteOffer(sid, makeOffer()), 0);
}

struct BadOffer {
  std::string name;
  std::string sdp;
  friend std::ostream& operator<<(std::ostream& out, const BadOffer& offer) { return out << offer.name; }
};

class EngineBadOfferTest : public EngineTest, public testing::WithParamInterface<BadOffer> {};

TEST_P(EngineBadOfferTest, IsRefusedAndLeavesTheSessionOpen) {
  const KOVRA_SESSION_ID sid = createSession();
  EXPECT_NE(streamer_.setRemoteOffer(sid, GetParam().sdp), 0);
  EXPECT_EQ(streamer_.setAudioVideoType(sid, 0, 1), 0);

  const KOVRA_SESSION_ID other = createSession();
  EXPECT_EQ(streamer_.setRemoteOffer(other, makeOffer()), 0);
  recorder_.waitFor("answer", other);
  EXPECT_EQ(streamer_.closeSession(sid), 0);
  for (const auto& told : recorder_.all()) EXPECT_EQ(told.session, other);
}

INSTANTIATE_TEST_SUITE_P(
    All, EngineBadOfferTest,
    testing::Values(
        BadOffer{"Empty", ""}, BadOffer{"Garbage", "garbage"}, BadOffer{"Json", "{\"type\":\"offer\"}"},
        BadOffer{"NoSections", kSessionPart}, BadOffer{"Binary", std::string("v=0\r\n\0\xff\x80m=video", 15)},
        BadOffer{"NoFingerprint", without(makeOffer(), "a=fingerprint")},
        BadOffer{"NoUfrag", without(makeOffer(), "a=ice-ufrag")},
        BadOffer{"NoPassword", without(makeOffer(), "a=ice-pwd")},
        BadOffer{"NoCommonFormat", replaced(replaced(replaced(makeOffer(), "H264", "H265"), "PCMU/8000", "G722/8000"),
                                            " 111 0\r\na=rtpmap:0", " 111 9\r\na=rtpmap:9")},
        BadOffer{"DataOnly", std::string(kSessionPart) + "m=application 9 UDP/DTLS/SCTP webrtc-datachannel\r\n" +
                                 kTransportPart + "a=mid:0\r\na=sctp-port:5000\r\n"}),
    [](const auto& suite) { return suite.param.name; });

struct CandidateCase {
  std::string name;
  std::string text;
  bool accepted;
  friend std::ostream& operator<<(std::ostream& out, const CandidateCase& candidate) { return out << candidate.name; }
};

class EngineCandidateTest : public EngineTest, public testing::WithParamInterface<CandidateCase> {};

TEST_P(EngineCandidateTest, IsJudgedBeforeAndAfterTheOffer) {
  const KOVRA_SESSION_ID sid = createSession();
  EXPECT_EQ(streamer_.addRemoteCandidate(sid, GetParam().text) == 0, GetParam().accepted);
  ASSERT_EQ(streamer_.setRemoteOffer(sid, makeOffer()), 0);
  recorder_.waitFor("answer", sid);
  EXPECT_EQ(streamer_.addRemoteCandidate(sid, GetParam().text) == 0, GetParam().accepted);
  EXPECT_EQ(streamer_.closeSession(sid), 0);
}

constexpr char kHost[] = "candidate:1 1 UDP 2113937151 192.0.2.1 50000 typ host";

INSTANTIATE_TEST_SUITE_P(
    All, EngineCandidateTest,
    testing::Values(
        CandidateCase{"Bare", kHost, true},
        CandidateCase{"Json", std::string(R"({"candidate":")") + kHost + R"(","sdpMid":"0","sdpMLineIndex":0})", true},
        CandidateCase{"JsonOfTheSecondSection",
                      std::string(R"({"candidate":")") + kHost + R"(","sdpMid":"1","sdpMLineIndex":1})", true},
        CandidateCase{"Reflexive",
                      "candidate:2 1 udp 1685987071 198.51.100.7 6000 typ srflx raddr 0.0.0.0 rport 0 generation 0",
                      true},
        CandidateCase{"VersionSix", "candidate:3 1 udp 2113937151 2001:db8::1 6000 typ host", true},
        CandidateCase{"Tcp", "candidate:4 1 tcp 1518280447 192.0.2.1 9 typ host tcptype active", true},
        CandidateCase{"LocalName",
                      "candidate:5 1 udp 2113937151 0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0.local 6000 typ host", true},
        CandidateCase{"End", "", true},
        CandidateCase{"JsonEnd", R"({"candidate":"","sdpMid":"0","sdpMLineIndex":0})", true},
        CandidateCase{"Word", "nonsense", false}, CandidateCase{"JsonWord", R"({"candidate":"nonsense"})", false},
        CandidateCase{"JsonWithoutCandidate", R"({"sdpMid":"0"})", false},
        CandidateCase{"JsonNumber", R"({"candidate":5})", false},
        CandidateCase{"BrokenJson", R"({"candidate":"candidate:)", false},
        CandidateCase{"Truncated", "candidate:1 1 UDP 2113", false},
        CandidateCase{"BadPort", "candidate:1 1 UDP 2113937151 192.0.2.1 70000 typ host", false},
        CandidateCase{"BadAddress", "candidate:1 1 UDP 2113937151 192.0.2.256 50000 typ host", false}),
    [](const auto& suite) { return suite.param.name; });

TEST_F(EngineTest, CanBeClosedFromInsideACallback) {
  recorder_.react = [this](const Recorder::Told& told) {
    if (told.what == "answer") result_ = streamer_.closeSession(told.session);
  };
  const KOVRA_SESSION_ID sid = createSession();
  ASSERT_EQ(streamer_.setRemoteOffer(sid, makeOffer()), 0);
  recorder_.waitFor("answer", sid);
  const KOVRA_SESSION_ID next = createSession();
  ASSERT_EQ(streamer_.setRemoteOffer(next, makeOffer()), 0);
  recorder_.waitFor("answer", next);
  EXPECT_EQ(result_, 0);
  for (const auto& told : recorder_.all()) EXPECT_FALSE(told.session == sid && told.what == "candidate");
}

TEST_F(EngineTest, TakesAnyCallFromInsideACallback) {
  recorder_.react = [this](const Recorder::Told& told) {
    std::uint8_t byte = 0xff;
    streamer_.addRemoteCandidate(told.session, kHost);
    streamer_.setAudioVideoType(told.session, 1, 2);
    streamer_.writeVideoData(&byte, 1, 0, 0, 1);
    streamer_.writeAudioData(&byte, 1, 0, 0);
    if (told.what != "answer" || inner_ != 0) return;
    inner_ = createSession();
    streamer_.setRemoteOffer(inner_, makeOffer());
  };
  const KOVRA_SESSION_ID sid = createSession();
  ASSERT_EQ(streamer_.setRemoteOffer(sid, makeOffer()), 0);
  recorder_.waitFor("answer", sid);
  for (const auto end = std::chrono::steady_clock::now() + kPatience; inner_ == 0;) {
    ASSERT_LT(std::chrono::steady_clock::now(), end);
    std::this_thread::yield();
  }
  recorder_.waitFor("answer", inner_);
}

TEST_F(EngineTest, NeverOverlapsTheCallbacksOfOneSession) {
  recorder_.react = [](const Recorder::Told&) { std::this_thread::sleep_for(std::chrono::milliseconds(5)); };
  std::vector<KOVRA_SESSION_ID> ids(5);
  for (KOVRA_SESSION_ID& sid : ids) sid = createSession();
  for (const KOVRA_SESSION_ID sid : ids) ASSERT_EQ(streamer_.setRemoteOffer(sid, makeOffer()), 0);
  for (const KOVRA_SESSION_ID sid : ids) recorder_.waitFor("candidate", sid);
  EXPECT_FALSE(recorder_.hasOverlapped());
}

TEST_F(EngineTest, WantsNoKeyFrameBeforeSomebodyCalls) {
  std::uint8_t idr[] = {0, 0, 0, 1, 0x67, 0x42, 0, 0x1f, 0, 0, 0, 1, 0x68, 0xce, 0, 0, 0, 1, 0x65, 0x88};
  EXPECT_EQ(streamer_.writeVideoData(idr, sizeof(idr), 0, 0, 1), 0);
  createSession();
  EXPECT_EQ(streamer_.writeVideoData(idr, sizeof(idr), 833333, 16, 1), 0);
  EXPECT_EQ(streamer_.writeVideoData(nullptr, 0, 0, 0, 1), 0);
}

// Without waiting for the connection: the camera makes it meanwhile.
TEST_F(EngineTest, WantsAKeyFrameAsSoonAsSomebodyCallsUntilItCame) {
  std::uint8_t slice[] = {0, 0, 0, 1, 0x41, 0x9a, 0x21};
  std::uint8_t idr[] = {0, 0, 0, 1, 0x67, 0x42, 0, 0x1f, 0, 0, 0, 1, 0x68, 0xce, 0, 0, 0, 1, 0x65, 0x88};
  const KOVRA_SESSION_ID sid = createSession();
  ASSERT_EQ(streamer_.setRemoteOffer(sid, makeOffer()), 0);
  EXPECT_TRUE(eventually([&] { return streamer_.writeVideoData(slice, sizeof(slice), 0, 0, 1) != 0; }));
  EXPECT_TRUE(eventually([&] { return streamer_.writeVideoData(idr, sizeof(idr), 0, 0, 1) == 0; }));
}

TEST_F(EngineTest, RefusesEmptyAudio) {
  std::uint8_t frame[160] = {};
  EXPECT_EQ(streamer_.writeAudioData(frame, sizeof(frame), 0, 0), 0);
  EXPECT_LT(streamer_.writeAudioData(frame, 0, 0, 0), 0);
  EXPECT_LT(streamer_.writeAudioData(nullptr, 0, 0, 0), 0);
}

TEST(EngineEnd, ClosesOpenSessionsAndCallsNobodyBackAfterwards) {
  Recorder recorder;
  std::size_t told = 0;
  {
    KovraStreamer streamer;
    streamer.registerCallback(&recorder);
    streamer.createSession(KovraSessionConfig());
    for (int i = 0; i < 3; ++i) {
      const KOVRA_SESSION_ID sid = streamer.createSession(KovraSessionConfig());
      ASSERT_EQ(streamer.setRemoteOffer(sid, makeOffer()), 0);
      if (i == 0) recorder.waitFor("candidate", sid);
    }
  }
  told = recorder.all().size();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(recorder.all().size(), told);
  for (const auto& one : recorder.all()) EXPECT_NE(one.state, KOVRA_STATE_CLOSED);
}

TEST(EngineEnd, CanBeFollowedByANewBeginning) {
  for (int i = 0; i < 3; ++i) {
    Recorder recorder;
    KovraStreamer streamer;
    streamer.registerCallback(&recorder);
    const KOVRA_SESSION_ID sid = streamer.createSession(KovraSessionConfig());
    ASSERT_EQ(streamer.setRemoteOffer(sid, makeOffer()), 0);
    recorder.waitFor("answer", sid);
  }
}

// One engine for the process, destroyed by exit as the library's is.
KovraStreamer& processWideStreamer() {
  static Recorder recorder;
  static KovraStreamer streamer;
  streamer.registerCallback(&recorder);
  return streamer;
}

[[noreturn]] void exitInsideCallback(const std::string& what) {
  static Recorder recorder;
  KovraStreamer& streamer = processWideStreamer();
  recorder.react = [&](const Recorder::Told& told) {
    if (told.what == what) std::exit(7);
  };
  streamer.registerCallback(&recorder);
  for (int i = 0; i < 3; ++i) streamer.setRemoteOffer(streamer.createSession(KovraSessionConfig()), makeOffer());
  std::this_thread::sleep_for(kPatience);
  std::_Exit(1);
}

[[noreturn]] void exitWhileOthersCall() {
  KovraStreamer& streamer = processWideStreamer();
  std::thread callers[4];
  for (std::thread& caller : callers) {
    caller = std::thread([&streamer] {
      std::uint8_t frame[] = {0, 0, 0, 1, 0x65, 0x88};
      while (true) {
        streamer.writeVideoData(frame, sizeof(frame), 0, 0, 1);
        streamer.writeAudioData(frame, sizeof(frame), 0, 0);
        const KOVRA_SESSION_ID sid = streamer.createSession(KovraSessionConfig());
        streamer.setRemoteOffer(sid, makeOffer());
        streamer.addRemoteCandidate(sid, kHost);
        streamer.setAudioVideoType(sid, 1, 1);
        streamer.closeSession(sid);
      }
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  std::exit(7);
}

class EngineExitTest : public testing::Test {
 protected:
  // Each death test runs in a process of its own, since the engine's threads do not outlive a fork.
  EngineExitTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(EngineExitTest, InsideOnAnswer) { EXPECT_EXIT(exitInsideCallback("answer"), testing::ExitedWithCode(7), ""); }

TEST_F(EngineExitTest, InsideOnStateChange) {
  EXPECT_EXIT(exitInsideCallback("state"), testing::ExitedWithCode(7), "");
}

TEST_F(EngineExitTest, InsideOnIceCandidate) {
  EXPECT_EXIT(exitInsideCallback("candidate"), testing::ExitedWithCode(7), "");
}

TEST_F(EngineExitTest, WhileOtherThreadsCallIn) { EXPECT_EXIT(exitWhileOthersCall(), testing::ExitedWithCode(7), ""); }

class EngineLogTest : public testing::TestWithParam<unsigned int> {};

TEST_P(EngineLogTest, WritesWarningsFromLevelTwoOnAndNeverToStandardOutput) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  ASSERT_EQ(initKovraLibrary(GetParam()), 0);
  {
    Recorder recorder;
    KovraStreamer streamer;
    streamer.registerCallback(&recorder);
    const KOVRA_SESSION_ID sid = streamer.createSession(KovraSessionConfig());
    EXPECT_NE(streamer.setRemoteOffer(sid, "garbage\nwith lines\n"), 0);
    EXPECT_EQ(streamer.setRemoteOffer(sid, makeOffer()), 0);
    recorder.waitFor("candidate", sid);
  }
  const std::string errors = testing::internal::GetCapturedStderr();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  const auto lines = std::count(errors.begin(), errors.end(), '\n');
  if (GetParam() < 2) {
    EXPECT_EQ(errors, "");
  } else if (GetParam() == 2) {
    EXPECT_EQ(lines, 1) << errors;
  } else {
    EXPECT_GT(lines, 2) << errors;
  }
}

INSTANTIATE_TEST_SUITE_P(Levels, EngineLogTest, testing::Values(0U, 1U, 2U, 3U, 4U));

}  // namespace
