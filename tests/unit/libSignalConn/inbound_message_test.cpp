#include <cjson/cJSON.h>
#include <gmock/gmock.h>

#include "connection_test.h"

namespace {

using support::EngineCall;
using support::EngineOperation;
using testing::EndsWith;
using testing::ExitedWithCode;
using testing::IsEmpty;

const char kStart[] = "-------------------- OnMessage start -----------------\n";
const char kEnd[] = "-------------------- OnMessage end ------------------\n";

std::string Escaped(const std::string& text) {
  cJSON* json = cJSON_CreateString(text.c_str());
  char* printed = cJSON_PrintUnformatted(json);
  const std::string escaped = printed;
  cJSON_free(printed);
  cJSON_Delete(json);
  return escaped;
}

std::string PeerMessage(const std::string& type, int sid, const std::string& payload, int code = 0) {
  return R"({"code":)" + std::to_string(code) + R"(,"opcode":"message","sid":)" + std::to_string(sid) +
         R"(,"serialCode":"V1","messageType":)" + Escaped(type) + R"(,"message":)" + Escaped(payload) + "}";
}

const char kSignIn[] =
    R"({"code":0,"opcode":"signin","sid":1001,"stunAddr":["stun:a:3478","stun:b:3478"],"turnAddr":["turn:c:3478"],)"
    R"("turnUser":["u"],"turnPass":["p"]})";
const char kSignInWithoutTurn[] =
    R"({"code":0,"opcode":"signin","sid":1002,"stunAddr":["stun:a:3478"],"turnAddr":[],"turnUser":[],"turnPass":[]})";

class InboundMessage : public ConnectionTest {
 protected:
  // Handles message and returns what was logged.
  std::string Handle(const std::string& message, int expectedResult = 0) {
    output_.Take();
    EXPECT_EQ(connection_->handleSignalMessage(message), expectedResult);
    return output_.Take();
  }

  // As Handle, by the observer's way.
  std::string Observe(const std::string& message) {
    output_.Take();
    static_cast<SignalClientCallback&>(*connection_).onMessage(message);
    return output_.Take();
  }

  std::vector<EngineCall> Asked() { return engine_.Calls(); }

  std::string Table() {
    output_.Take();
    connection_->printRecord();
    return output_.Take();
  }
};

TEST_F(InboundMessage, TextThatIsNoJsonFailsAndIsLoggedBetweenTheBanners) {
  EXPECT_EQ(Handle("hello", -1), "parse message failed: hello\n");
  EXPECT_EQ(Observe("hello"), std::string(kStart) + "parse message failed: hello\nonMessage failed: hello\n" + kEnd);
}

TEST_F(InboundMessage, ALongTextThatIsNoJsonIsCutToItsFirst100Characters) {
  std::string text;
  while (text.size() < 300) text += "x" + std::to_string(text.size());
  text.resize(300);
  EXPECT_EQ(Observe(text), std::string(kStart) + "parse message failed: " + text +
                               "\nonMessage failed: " + text.substr(0, 100) + "\n" + kEnd);
}

TEST_F(InboundMessage, AMessageThatWasHandledStandsBetweenTheBanners) {
  EXPECT_EQ(Observe(R"({"code":0,"opcode":"heartbeat"})"), std::string(kStart) +
                                                               "---------opcode == [heartbeat]\n----recv heartbeat " +
                                                               R"({"code":0,"opcode":"heartbeat"})" + "\n" + kEnd);
}

TEST_F(InboundMessage, AnErrorCodeEndsTheHandlingOfAnyMessage) {
  EXPECT_EQ(Handle(PeerMessage("callRequest", 100, "OFFER", 5)), "code error [5], please check");
  EXPECT_EQ(Handle(R"({"code":-1})"), "code error [-1], please check");
  EXPECT_EQ(Handle(R"({"code":7,"opcode":"signin","sid":9})"), "code error [7], please check");
  EXPECT_THAT(Asked(), IsEmpty());
  EXPECT_EQ(Table(), "");
}

TEST_F(InboundMessage, ASignInResponseLogsTheSidAndTheLists) {
  EXPECT_EQ(Handle(kSignIn),
            "---------opcode == [signin]\nGOT local uid 1001\nstun:a:3478\nstun:b:3478\nturn:c:3478\nu\np\n");
}

TEST_F(InboundMessage, TheLatestSignInResponseGivesTheServersOfTheNextCall) {
  Handle(kSignInWithoutTurn);
  Handle(kSignIn);
  EXPECT_EQ(Handle(PeerMessage("callRequest", 100, "OFFER")),
            "---------opcode == [message]\n---------messageType == [callRequest]\n"
            "new session: 1 created, peeid: 100\n---------messageType == [callRequest] end\n");
  const std::vector<EngineCall> calls = Asked();
  ASSERT_EQ(calls.size(), 2U);
  EXPECT_EQ(calls[0].operation, EngineOperation::kCreateSession);
  const KovraSessionConfig& config = calls[0].config;
  EXPECT_FALSE(config.isAlexaCall);
  EXPECT_FALSE(config.relayOnly);
  EXPECT_EQ(config.trickleIce, KovraSessionConfig().trickleIce);
  ASSERT_EQ(config.iceServers.size(), 3U);
  EXPECT_EQ(config.iceServers[0].url, "stun:a:3478");
  EXPECT_EQ(config.iceServers[0].username, "");
  EXPECT_EQ(config.iceServers[0].credential, "");
  EXPECT_EQ(config.iceServers[1].url, "stun:b:3478");
  EXPECT_EQ(config.iceServers[2].url, "turn:c:3478");
  EXPECT_EQ(config.iceServers[2].username, "u");
  EXPECT_EQ(config.iceServers[2].credential, "p");
  EXPECT_EQ(calls[1].operation, EngineOperation::kSetRemoteOffer);
  EXPECT_EQ(calls[1].sid, 1);
  EXPECT_EQ(calls[1].text, "OFFER");
}

TEST_F(InboundMessage, EmptyTurnListsAreValidAndYieldNoTurnServer) {
  Handle(kSignInWithoutTurn);
  Handle(PeerMessage("callRequest", 100, "OFFER"));
  ASSERT_EQ(Asked().size(), 2U);
  ASSERT_EQ(Asked()[0].config.iceServers.size(), 1U);
  EXPECT_EQ(Asked()[0].config.iceServers[0].url, "stun:a:3478");
}

TEST_F(InboundMessage, ARefusedSignInChangesNothing) {
  Handle(kSignIn);
  Handle(R"({"code":3,"opcode":"signin","sid":5,"stunAddr":[],"turnAddr":[],"turnUser":[],"turnPass":[]})");
  Handle(PeerMessage("callRequest", 100, "OFFER"));
  EXPECT_EQ(Asked().at(0).config.iceServers.size(), 3U);
}

TEST_F(InboundMessage, ACallBeforeAnySignInHasNoServers) {
  Handle(PeerMessage("callRequest", 100, "OFFER"));
  ASSERT_EQ(Asked().size(), 2U);
  EXPECT_THAT(Asked()[0].config.iceServers, IsEmpty());
}

TEST_F(InboundMessage, TheOfferReachesTheEngineUnchanged) {
  const std::string offer = "v=0\r\no=- 1 2 IN IP4 127.0.0.1\r\ns=\"\xc2\xb5\\\"\r\n";
  Handle(PeerMessage("callRequest", 100, offer));
  EXPECT_EQ(Asked().at(1).text, offer);
}

TEST_F(InboundMessage, TheRecordIsThereBeforeTheOfferIsSet) {
  int peerDuringOffer = 0;
  engine_.On(EngineOperation::kSetRemoteOffer, [&](const EngineCall& call) {
    peerDuringOffer = connection_->getPeerId(call.sid);
    return 0;
  });
  Handle(PeerMessage("callRequest", 100, "OFFER"));
  EXPECT_EQ(peerDuringOffer, 100);
}

TEST_F(InboundMessage, TheEngineMayCallBackFromInsideSetRemoteOffer) {
  engine_.On(EngineOperation::kSetRemoteOffer, [&](const EngineCall& call) {
    engine_.Callback()->onStateChange(call.sid, KOVRA_STATE_NEW);
    engine_.EmitAndWait([&](KovraStreamerCallback& callback) { callback.onStateChange(call.sid, KOVRA_STATE_FAILED); });
    return 0;
  });
  EXPECT_EQ(Handle(PeerMessage("callRequest", 100, "OFFER")),
            "---------opcode == [message]\n---------messageType == [callRequest]\n"
            "new session: 1 created, peeid: 100\nNew connection state 1\nNew connection state 5\n"
            "remove session record: 1, peer 100\n---------messageType == [callRequest] end\n");
}

TEST_F(InboundMessage, AFailedSessionAddsNoRecord) {
  engine_.On(EngineOperation::kCreateSession, [](const EngineCall&) { return 0; });
  EXPECT_EQ(Handle(PeerMessage("callRequest", 100, "OFFER")),
            "---------opcode == [message]\n---------messageType == [callRequest]\ncreate session failed.");
  EXPECT_EQ(Asked().size(), 1U);
  EXPECT_EQ(Table(), "");
}

TEST_F(InboundMessage, ANegativeSessionIdIsASession) {
  engine_.On(EngineOperation::kCreateSession, [](const EngineCall&) { return -5; });
  Handle(PeerMessage("callRequest", 100, "OFFER"));
  EXPECT_EQ(Table(), "session: -5, peer 100\n");
  EXPECT_EQ(Asked().at(1).sid, -5);
}

TEST_F(InboundMessage, ARefusedOfferKeepsTheRecordUntilTheHangUp) {
  engine_.On(EngineOperation::kSetRemoteOffer, [](const EngineCall&) { return 7; });
  EXPECT_EQ(Handle(PeerMessage("callRequest", 100, "OFFER")),
            "---------opcode == [message]\n---------messageType == [callRequest]\n"
            "new session: 1 created, peeid: 100\nsetRemoteOffer failed, peer 100, offer OFFER \n");
  EXPECT_EQ(Table(), "session: 1, peer 100\n");
  EXPECT_EQ(Handle(PeerMessage("hangup", 100, "")),
            "---------opcode == [message]\n---------messageType == [hangup]\n"
            "remove session record: 1, peer 100\nclose session: 1, peer 100\n"
            "---------messageType == [hangup] end\n");
  EXPECT_EQ(Table(), "");
  EXPECT_EQ(Asked().back().operation, EngineOperation::kCloseSession);
  EXPECT_EQ(Asked().back().sid, 1);
}

TEST_F(InboundMessage, ASecondCallOfThePeerAddsASecondRecordAndTheOldestIsHungUpFirst) {
  Handle(PeerMessage("callRequest", 100, "OFFER"));
  Handle(PeerMessage("callRequest", 100, "OFFER"));
  EXPECT_EQ(Table(), "session: 1, peer 100\nsession: 2, peer 100\n");
  Handle(PeerMessage("hangup", 100, ""));
  EXPECT_EQ(Table(), "session: 2, peer 100\n");
}

TEST_F(InboundMessage, ACandidateReachesThePeersSession) {
  connection_->addSessionRecord(9, 100);
  EXPECT_EQ(Handle(PeerMessage("remoteCandidate", 100, "candidate:1")),
            "---------opcode == [message]\n---------messageType == [remoteCandidate]\n"
            "session 100, got remote candidate candidate:1\n---------messageType == [remoteCandidate] end\n");
  ASSERT_EQ(Asked().size(), 1U);
  EXPECT_EQ(Asked()[0].operation, EngineOperation::kAddRemoteCandidate);
  EXPECT_EQ(Asked()[0].sid, 9);
  EXPECT_EQ(Asked()[0].text, "candidate:1");
}

TEST_F(InboundMessage, ACandidateWithoutASessionReachesNobody) {
  EXPECT_EQ(Handle(PeerMessage("remoteCandidate", 100, "candidate:1")),
            "---------opcode == [message]\n---------messageType == [remoteCandidate]\n"
            "can't find peerid: 100\naddRemoteCandidate, can't find peerId: 100\n");
  EXPECT_THAT(Asked(), IsEmpty());
}

TEST_F(InboundMessage, ARefusedCandidateHasNoEndLine) {
  connection_->addSessionRecord(9, 100);
  engine_.On(EngineOperation::kAddRemoteCandidate, [](const EngineCall&) { return -1; });
  EXPECT_EQ(Handle(PeerMessage("remoteCandidate", 100, "candidate:1")),
            "---------opcode == [message]\n---------messageType == [remoteCandidate]\n"
            "session 100, got remote candidate candidate:1\nsession 100, addRemoteCandidate failed. \n");
}

TEST_F(InboundMessage, AHangUpWithoutASessionStillHasItsEndLine) {
  EXPECT_EQ(Handle(PeerMessage("hangup", 100, "")),
            "---------opcode == [message]\n---------messageType == [hangup]\n"
            "can't find peerid: 100\nhangup. can't find peerid: 100\n---------messageType == [hangup] end\n");
  EXPECT_THAT(Asked(), IsEmpty());
}

TEST_F(InboundMessage, AHangUpRemovesTheRecordBeforeTheEngineCloses) {
  connection_->addSessionRecord(9, 100);
  engine_.On(EngineOperation::kCloseSession, [&](const EngineCall&) {
    EXPECT_EQ(connection_->getPeerId(9), 0);
    return -1;
  });
  EXPECT_EQ(Handle(PeerMessage("hangup", 100, "bye")),
            "---------opcode == [message]\n---------messageType == [hangup]\n"
            "remove session record: 9, peer 100\ncan't find session id: 9\nclose session: 9, peer 100\n"
            "---------messageType == [hangup] end\n");
}

TEST_F(InboundMessage, AVideoSwitchLeavesTheAudioTypeOpen) {
  connection_->addSessionRecord(9, 100);
  EXPECT_EQ(Handle(PeerMessage("switchVideo", 100, R"({"type":2})")),
            "---------opcode == [message]\n---------messageType == [switchVideo]\n"
            "session 100, setAudioVideoType audioType:-1 videoType:2\n---------messageType == [switchVideo] end\n");
  ASSERT_EQ(Asked().size(), 1U);
  EXPECT_EQ(Asked()[0].operation, EngineOperation::kSetAudioVideoType);
  EXPECT_EQ(Asked()[0].sid, 9);
  EXPECT_EQ(Asked()[0].audioType, -1);
  EXPECT_EQ(Asked()[0].videoType, 2);
}

TEST_F(InboundMessage, AnAudioSwitchLeavesTheVideoTypeOpen) {
  connection_->addSessionRecord(9, 100);
  EXPECT_EQ(Handle(PeerMessage("switchAudio", 100, R"({"type":1})")),
            "---------opcode == [message]\n---------messageType == [switchAudio]\n"
            "session 100, setAudioVideoType audioType:1 videoType:-1\n---------messageType == [switchAudio] end\n");
  EXPECT_EQ(Asked().at(0).audioType, 1);
  EXPECT_EQ(Asked().at(0).videoType, -1);
}

TEST_F(InboundMessage, ARefusedSwitchAndOneWithoutASessionHaveTheirEndLine) {
  EXPECT_EQ(Handle(PeerMessage("switchAudio", 100, R"({"type":1})")),
            "---------opcode == [message]\n---------messageType == [switchAudio]\ncan't find peerid: 100\n"
            "setAudioVideoType, can't find peerId: 100\n---------messageType == [switchAudio] end\n");
  connection_->addSessionRecord(9, 100);
  engine_.On(EngineOperation::kSetAudioVideoType, [](const EngineCall&) { return 1; });
  EXPECT_EQ(Handle(PeerMessage("switchVideo", 100, R"({"type":0})")),
            "---------opcode == [message]\n---------messageType == [switchVideo]\n"
            "session 100, setAudioVideoType audioType:-1 videoType:0\nsession 100, setAudioVideoType failed. \n"
            "---------messageType == [switchVideo] end\n");
}

TEST_F(InboundMessage, ASwitchWhosePayloadIsNoJsonLogsTheWholeFrame) {
  const std::string frame = PeerMessage("switchAudio", 100, "loud");
  EXPECT_EQ(Handle(frame),
            "---------opcode == [message]\n---------messageType == [switchAudio]\n"
            "parse message failed: " +
                frame + "\n");
  EXPECT_THAT(Asked(), IsEmpty());
}

TEST_F(InboundMessage, AnUnknownOpcodeIsLogged) {
  EXPECT_EQ(Handle(R"({"code":0,"opcode":"ping"})"), "---------opcode == [ping]\nunknown opcode ping\n");
  EXPECT_EQ(Handle(R"({"code":0,"opcode":"Signin"})"), "---------opcode == [Signin]\nunknown opcode Signin\n");
}

TEST_F(InboundMessage, AnUnknownMessageTypeIsLoggedAndHasNoEndLine) {
  EXPECT_EQ(Handle(PeerMessage("callrequest", 100, "x")),
            "---------opcode == [message]\n---------messageType == [callrequest]\nunknown messageType callrequest\n");
  EXPECT_THAT(Asked(), IsEmpty());
}

TEST_F(InboundMessage, KeysThatNobodyReadsAndTheirOrderDoNotMatter) {
  connection_->addSessionRecord(9, 100);
  EXPECT_THAT(Handle(R"({"message":"x","toSid":1,"messageType":"hangup","extra":[{}],"serialCode":"V","sid":100,)"
                     R"("toSerialCode":"SN","opcode":"message","code":0})"),
              EndsWith("---------messageType == [hangup] end\n"));
}

TEST_F(InboundMessage, PercentSignsInTextsAreLoggedAsTheyAre) {
  EXPECT_EQ(Handle(R"({"code":0,"opcode":"%s%n"})"), "---------opcode == [%s%n]\nunknown opcode %s%n\n");
}

// What the getters do with a message outside the format: the process ends, whatever the kind.
class MessageOutsideTheFormatDeathTest : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override { testing::FLAGS_gtest_death_test_style = "threadsafe"; }

  static void HandleInAProcessOfItsOwn(const char* message) {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    const ZeroedConnection connection;
    connection->onMessage(message);
  }
};

TEST_P(MessageOutsideTheFormatDeathTest, EndsTheProcess) {
  EXPECT_EXIT(HandleInAProcessOfItsOwn(GetParam()), ExitedWithCode(255), "json key \"");
}

INSTANTIATE_TEST_SUITE_P(
    Messages, MessageOutsideTheFormatDeathTest,
    testing::Values(R"({"opcode":"heartbeat"})", R"({"code":"0","opcode":"heartbeat"})", R"({"code":0})", "[]", "7",
                    R"({"code":0,"opcode":"signin","stunAddr":[],"turnAddr":[],"turnUser":[],"turnPass":[]})",
                    R"({"code":0,"opcode":"signin","sid":1,"turnAddr":[],"turnUser":[],"turnPass":[]})",
                    R"({"code":0,"opcode":"signin","sid":1,"stunAddr":[],"turnAddr":[],"turnUser":[]})",
                    R"({"code":0,"opcode":"message","serialCode":"V","messageType":"hangup","message":""})",
                    R"({"code":0,"opcode":"message","sid":1,"messageType":"hangup","message":""})",
                    R"({"code":0,"opcode":"message","sid":1,"serialCode":"V","message":""})",
                    R"({"code":0,"opcode":"message","sid":1,"serialCode":"V","messageType":"hangup"})",
                    R"({"code":0,"opcode":"message","sid":1,"serialCode":"V","messageType":"switchVideo",)"
                    R"("message":{"type":1}})",
                    R"({"code":0,"opcode":"message","sid":1,"serialCode":"V","messageType":"switchVideo",)"
                    R"("message":"{}"})"));

}  // namespace
