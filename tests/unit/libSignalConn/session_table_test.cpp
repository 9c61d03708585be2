#include "connection_test.h"

namespace {

class SessionTable : public ConnectionTest {
 protected:
  void Fill(const std::vector<SignalConn::SessionRecord>& records) {
    for (const SignalConn::SessionRecord& record : records) {
      connection_->addSessionRecord(record.sessionId, record.peerId);
    }
    output_.Take();
  }

  // The table in order, as printRecord writes it.
  std::string Contents() {
    output_.Take();
    connection_->printRecord();
    return output_.Take();
  }
};

TEST_F(SessionTable, AddingLogsTheSessionAndItsPeer) {
  connection_->addSessionRecord(7, 100);
  EXPECT_EQ(output_.Take(), "new session: 7 created, peeid: 100\n");
  EXPECT_EQ(connection_->getPeerId(7), 100);
  EXPECT_EQ(connection_->getSessionId(100), 7);
}

TEST_F(SessionTable, AnEmptyTableFindsNothingAndRemovesSilently) {
  EXPECT_EQ(connection_->getPeerId(5), 0);
  EXPECT_EQ(output_.Take(), "can't find session id: 5\n");
  EXPECT_EQ(connection_->getSessionId(42), 0);
  EXPECT_EQ(output_.Take(), "can't find peerid: 42\n");
  connection_->removeSessionRecord(5);
  EXPECT_EQ(output_.Take(), "");
}

TEST_F(SessionTable, RemovingNamesThePeerThatMovedUp) {
  Fill({{7, 100}, {8, 200}});
  connection_->removeSessionRecord(7);
  EXPECT_EQ(output_.Take(), "remove session record: 7, peer 200\n");
  EXPECT_EQ(Contents(), "session: 8, peer 200\n");
}

TEST_F(SessionTable, RemovingTheLastRecordNamesItsOwnPeer) {
  Fill({{7, 100}});
  connection_->removeSessionRecord(7);
  EXPECT_EQ(output_.Take(), "remove session record: 7, peer 100\n");
  EXPECT_EQ(Contents(), "");
}

TEST_F(SessionTable, RemovingTakesEveryRecordOfTheSession) {
  Fill({{7, 100}, {7, 300}, {8, 200}});
  connection_->removeSessionRecord(7);
  EXPECT_EQ(output_.Take(), "remove session record: 7, peer 300\nremove session record: 7, peer 200\n");
  EXPECT_EQ(Contents(), "session: 8, peer 200\n");
}

TEST_F(SessionTable, RemovingPassesOverOtherSessions) {
  Fill({{8, 200}, {7, 100}, {9, 300}, {7, 400}});
  connection_->removeSessionRecord(7);
  EXPECT_EQ(output_.Take(), "remove session record: 7, peer 300\nremove session record: 7, peer 400\n");
  EXPECT_EQ(Contents(), "session: 8, peer 200\nsession: 9, peer 300\n");
}

TEST_F(SessionTable, EqualRecordsAreKeptAndRemovedTogether) {
  Fill({{7, 100}, {7, 100}});
  EXPECT_EQ(Contents(), "session: 7, peer 100\nsession: 7, peer 100\n");
  EXPECT_EQ(connection_->getPeerId(7), 100);
  connection_->removeSessionRecord(7);
  EXPECT_EQ(output_.Take(), "remove session record: 7, peer 100\nremove session record: 7, peer 100\n");
  EXPECT_EQ(Contents(), "");
}

TEST_F(SessionTable, LookUpsGiveTheOldestMatch) {
  Fill({{7, 100}, {9, 100}, {9, 200}});
  EXPECT_EQ(connection_->getSessionId(100), 7);
  EXPECT_EQ(connection_->getPeerId(9), 100);
  EXPECT_EQ(output_.Take(), "");
}

TEST_F(SessionTable, APeerIdOfZeroIsFoundWithoutALogLine) {
  Fill({{7, 0}});
  EXPECT_EQ(connection_->getPeerId(7), 0);
  EXPECT_EQ(output_.Take(), "");
}

TEST_F(SessionTable, ANegativeSessionIsASession) {
  Fill({{-5, 100}});
  EXPECT_EQ(connection_->getSessionId(100), -5);
  EXPECT_EQ(connection_->getPeerId(-5), 100);
}

TEST_F(SessionTable, StandsManyThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (int id = 1; id <= 4; ++id) {
    threads.emplace_back([this, id] {
      for (int round = 0; round < 500; ++round) {
        connection_->addSessionRecord(id, 100 * id);
        EXPECT_EQ(connection_->getPeerId(id), 100 * id);
        EXPECT_EQ(connection_->getSessionId(100 * id), id);
        connection_->removeSessionRecord(id);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(Contents(), "");
}

TEST(ConnectionObject, RegistersItselfWithTheEngineAndLogsNothing) {
  support::CapturedOutput output;
  support::FakeEngine& engine = support::FakeEngine::Get();
  engine.Reset();
  const ZeroedConnection connection;
  EXPECT_EQ(engine.Callback(), static_cast<KovraStreamerCallback*>(&*connection));
  const std::vector<support::EngineCall> calls = engine.Calls();
  ASSERT_EQ(calls.size(), 2U);
  EXPECT_EQ(calls[0].operation, support::EngineOperation::kConstruct);
  EXPECT_EQ(calls[1].operation, support::EngineOperation::kRegisterCallback);
  EXPECT_EQ(output.Text(), "");
}

TEST(ConnectionObject, DestructionWithoutThreadsWritesItsLinesAndStops) {
  support::CapturedOutput output;
  interrupted = 0;
  { const ZeroedConnection connection; }
  EXPECT_EQ(output.Text(), "source releasing..\nsource released\n");
  EXPECT_EQ(interrupted, 1);
}

TEST(ConnectionObject, TheEngineGoesLast) {
  support::CapturedOutput output;
  support::FakeEngine::Get().Reset();
  std::string before;
  support::FakeEngine::Get().On(support::EngineOperation::kDestroy, [&](const support::EngineCall&) {
    before = output.Text();
    return 0;
  });
  { const ZeroedConnection connection; }
  EXPECT_EQ(before, "source releasing..\nsource released\n");
  EXPECT_EQ(support::FakeEngine::Get().Calls(support::EngineOperation::kDestroy).size(), 1U);
  EXPECT_TRUE(support::FakeEngine::Get().Calls(support::EngineOperation::kCloseSession).empty());
}

}  // namespace
