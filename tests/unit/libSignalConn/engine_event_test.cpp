#include "connection_test.h"

namespace {

std::string PeerMessage(const char* type, int sid, int toSid, const std::string& payload) {
  return std::string(R"({"opcode":"message","messageType":")") + type + R"(","sid":)" + std::to_string(sid) +
         R"(,"serialCode":"SN0001","toSid":)" + std::to_string(toSid) + R"(,"toSerialCode":"","message":")" + payload +
         R"("})";
}

// The engine's events, on its own threads.
class EngineEvent : public ConnectedTest {
 protected:
  void Answer(KOVRA_SESSION_ID sid, const std::string& sdp) {
    engine_.EmitAndWait([&](KovraStreamerCallback& callback) { callback.onAnswer(sid, sdp); });
  }
  void Candidate(KOVRA_SESSION_ID sid, const std::string& candidate) {
    engine_.EmitAndWait([&](KovraStreamerCallback& callback) { callback.onIceCandidate(sid, candidate); });
  }
  void State(KOVRA_SESSION_ID sid, int state) {
    engine_.EmitAndWait(
        [&](KovraStreamerCallback& callback) { callback.onStateChange(sid, static_cast<KOVRA_STATE>(state)); });
  }
};

TEST_F(EngineEvent, AnAnswerIsSentToItsViewerWithEveryKeyInOrder) {
  SignIn(1001);
  connection_->addSessionRecord(7, 2002);
  Answer(7, "v=0");
  EXPECT_EQ(Sent(1), R"({"opcode":"message","messageType":"callResponse","sid":1001,"serialCode":"SN0001",)"
                     R"("toSid":2002,"toSerialCode":"","message":"v=0"})");
}

TEST_F(EngineEvent, ALongAnswerIsLoggedInPartAndSentWhole) {
  connection_->addSessionRecord(7, 2002);
  std::string sdp;
  for (int i = 0; i < 250; ++i) sdp.push_back(static_cast<char>('a' + i % 26));
  output_.Take();
  Answer(7, sdp);
  EXPECT_EQ(output_.Take(), "answer sdp: \n " + sdp.substr(0, 100) + "\n");
  EXPECT_EQ(Sent(1), PeerMessage("callResponse", 0, 2002, sdp));
}

TEST_F(EngineEvent, AShortAnswerIsLoggedWhole) {
  connection_->addSessionRecord(7, 2002);
  output_.Take();
  Answer(7, "v=0 short");
  EXPECT_EQ(output_.Take(), "answer sdp: \n v=0 short\n");
}

TEST_F(EngineEvent, AnAnswerBeforeAnySignInResponseCarriesSidZero) {
  connection_->addSessionRecord(7, 2002);
  Answer(7, "v=0");
  EXPECT_EQ(Sent(1), PeerMessage("callResponse", 0, 2002, "v=0"));
}

TEST_F(EngineEvent, LineBreaksAndQuotesTravelEscaped) {
  connection_->addSessionRecord(7, 2002);
  Answer(7, "v=0\r\ns=\"x\"\r\n");
  EXPECT_EQ(Sent(1), PeerMessage("callResponse", 0, 2002, R"(v=0\r\ns=\"x\"\r\n)"));
}

TEST_F(EngineEvent, ACandidateIsLoggedAndSentAsTheViewersRemoteOne) {
  SignIn(1001);
  connection_->addSessionRecord(7, 2002);
  output_.Take();
  Candidate(7, "candidate:1 1 udp");
  EXPECT_EQ(output_.Take(), "local candidate: \n candidate:1 1 udp\n");
  EXPECT_EQ(Sent(1), PeerMessage("remoteCandidate", 1001, 2002, "candidate:1 1 udp"));
}

TEST_F(EngineEvent, ACandidateWithoutARecordIsDroppedWithTwoLines) {
  output_.Take();
  Candidate(9, "candidate:1");
  EXPECT_EQ(output_.Take(),
            "local candidate: \n candidate:1\ncan't find session id: 9\ncan't find peerd for session 9");
  connection_->addSessionRecord(7, 2002);
  Candidate(7, "candidate:2");
  EXPECT_EQ(Sent(1), PeerMessage("remoteCandidate", 0, 2002, "candidate:2"));
}

TEST_F(EngineEvent, APeerIdOfZeroOrBelowCountsAsMissing) {
  connection_->addSessionRecord(7, 0);
  connection_->addSessionRecord(8, -3);
  output_.Take();
  Candidate(7, "candidate:1");
  EXPECT_EQ(output_.Take(), "local candidate: \n candidate:1\ncan't find peerd for session 7");
  Candidate(8, "candidate:1");
  EXPECT_EQ(output_.Take(), "local candidate: \n candidate:1\ncan't find peerd for session 8");
  connection_->addSessionRecord(9, 2002);
  Candidate(9, "candidate:2");
  EXPECT_EQ(Sent(1), PeerMessage("remoteCandidate", 0, 2002, "candidate:2"));
}

TEST_F(EngineEvent, TheAnswerGoesToThePeerOfTheOlderRecord) {
  connection_->addSessionRecord(7, 2002);
  connection_->addSessionRecord(7, 3003);
  Answer(7, "v=0");
  EXPECT_EQ(Sent(1), PeerMessage("callResponse", 0, 2002, "v=0"));
}

TEST_F(EngineEvent, AfterAFailedStateTheNextCandidateIsDropped) {
  connection_->addSessionRecord(7, 2002);
  State(7, KOVRA_STATE_FAILED);
  output_.Take();
  Candidate(7, "candidate:1");
  EXPECT_EQ(output_.Take(),
            "local candidate: \n candidate:1\ncan't find session id: 7\ncan't find peerd for session 7");
}

TEST_F(EngineEvent, MessagesLeaveInTheOrderOfTheEvents) {
  connection_->addSessionRecord(7, 2002);
  Answer(7, "v=0");
  for (int i = 0; i < 20; ++i) Candidate(7, "candidate:" + std::to_string(i));
  EXPECT_EQ(Sent(1), PeerMessage("callResponse", 0, 2002, "v=0"));
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(Sent(static_cast<std::size_t>(2 + i)),
              PeerMessage("remoteCandidate", 0, 2002, "candidate:" + std::to_string(i)));
  }
}

TEST_F(EngineEvent, AViewersCallIsAnsweredFromInsideSetRemoteOffer) {
  engine_.On(support::EngineOperation::kSetRemoteOffer, [this](const support::EngineCall& call) {
    Answer(call.sid, "the answer to " + call.text);
    return 0;
  });
  SignIn(1001);
  server_.Send(R"({"code":0,"opcode":"message","sid":2002,"serialCode":"V1","messageType":"callRequest",)"
               R"("message":"v=0"})");
  EXPECT_EQ(Sent(1), PeerMessage("callResponse", 1001, 2002, "the answer to v=0"));
}

class StateChange : public ConnectionTest {};

TEST_F(StateChange, OnlyDisconnectedFailedAndClosedRemoveTheRecords) {
  for (int state = 0; state <= 7; ++state) {
    connection_->addSessionRecord(7, 100);
    connection_->addSessionRecord(7, 300);
    output_.Take();
    connection_->onStateChange(7, static_cast<KOVRA_STATE>(state));
    std::string expected = "New connection state " + std::to_string(state) + "\n";
    if (state >= 4 && state <= 6) {
      expected += "remove session record: 7, peer 300\nremove session record: 7, peer 300\n";
    }
    EXPECT_EQ(output_.Take(), expected);
    connection_->removeSessionRecord(7);
  }
  EXPECT_TRUE(engine_.Calls(support::EngineOperation::kCloseSession).empty());
}

TEST_F(StateChange, OtherSessionsStay) {
  connection_->addSessionRecord(7, 100);
  connection_->addSessionRecord(8, 200);
  connection_->onStateChange(7, KOVRA_STATE_CLOSED);
  output_.Take();
  connection_->printRecord();
  EXPECT_EQ(output_.Take(), "session: 8, peer 200\n");
}

}  // namespace
