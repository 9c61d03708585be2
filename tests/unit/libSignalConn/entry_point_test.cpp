#include <gmock/gmock.h>
#include <libwebsockets.h>
#include <signal.h>
#include <signal_conn.h>

#include <filesystem>

#include "captured_output.h"
#include "fake_engine.h"
#include "kovra_main.h"
#include "recording_server.h"
#include "temporary_directory.h"

namespace {

using support::CapturedOutput;
using support::Clock;
using support::EngineCall;
using support::EngineOperation;
using support::FakeEngine;
using support::RecordingServer;
using testing::HasSubstr;

std::atomic<bool> serviceFails{false};

}  // namespace

extern "C" int __real_lws_service(lws_context* context, int timeout);
extern "C" int __wrap_lws_service(lws_context* context, int timeout);

// The library's service calls pass here (--wrap in CMakeLists.txt).
int __wrap_lws_service(lws_context* context, int timeout) {
  return serviceFails ? -1 : __real_lws_service(context, timeout);
}

namespace {

char* Text(const char* text) { return const_cast<char*>(text); }

// The process ends up to one heartbeat sleep after the test.
class EntryPoint : public testing::Test {
 protected:
  int Init(int port, const char* server = "127.0.0.1") {
    return kovraInit(Text(server), port, Text("SN0001"), Text("the key"), Text("the secret"), Text("02:00:00:00:00:01"),
                     2, Text(""), 1, Text(""));
  }
  // kovraRun(false) on a thread.
  void Run() {
    runner_ = std::thread([this] {
      kovraRun(false);
      returned_ = true;
    });
  }
  void JoinRunner() {
    runner_.join();
    EXPECT_EQ(support::CountOf("-----to exit\n", output_.Text()), 1);
  }

  CapturedOutput output_;
  FakeEngine& engine_ = FakeEngine::Get();
  RecordingServer server_;
  std::thread runner_;
  std::atomic<bool> returned_{false};
};

const char kSignIn[] =
    R"({"opcode":"signin","key":"the key","secret":"the secret","loginType":1,"authType":2,"authCode":"",)"
    R"("serialCode":"SN0001","mac":"02:00:00:00:00:01","mustPermitCode":1,"permitCode":""})";

TEST_F(EntryPoint, TheSignInHasItsTenKeysInOrder) {
  EXPECT_EQ(Init(server_.Port()), 0);
  Run();
  ASSERT_TRUE(server_.WaitForTexts(1));
  EXPECT_EQ(server_.Texts().front(), kSignIn);
  interrupted = 1;
  JoinRunner();
}

TEST_F(EntryPoint, TextsAreCopiedAndEscaped) {
  std::string key = "a\"b\\c\n\xc2\xb5";
  EXPECT_EQ(kovraInit(Text("127.0.0.1"), server_.Port(), Text("SN"), key.data(), Text("S"), Text("M"), -1, Text("A"), 0,
                      Text("P")),
            0);
  key.assign(key.size(), 'x');
  Run();
  ASSERT_TRUE(server_.WaitForTexts(1));
  EXPECT_EQ(server_.Texts().front(),
            R"({"opcode":"signin","key":"a\"b\\c\n)"
            "\xc2\xb5"
            R"(","secret":"S","loginType":1,"authType":-1,"authCode":"A","serialCode":"SN","mac":"M",)"
            R"("mustPermitCode":0,"permitCode":"P"})");
  interrupted = 1;
  JoinRunner();
}

TEST_F(EntryPoint, InitSetsUpTheEngineLibraryBeforeTheObject) {
  EXPECT_EQ(Init(server_.Port()), 0);
  const std::vector<EngineCall> calls = engine_.Calls();
  ASSERT_EQ(calls.size(), 3U);
  EXPECT_EQ(calls[0].operation, EngineOperation::kInitLibrary);
  EXPECT_EQ(calls[0].level, 3U);
  EXPECT_EQ(calls[1].operation, EngineOperation::kConstruct);
  EXPECT_EQ(calls[2].operation, EngineOperation::kRegisterCallback);
}

TEST_F(EntryPoint, AnEarlierEntryPointBuildsTheObjectBeforeTheEngineLibraryIsSetUp) {
  kovraRegisterAudioCB(nullptr);
  EXPECT_EQ(Init(server_.Port()), 0);
  const std::vector<EngineCall> calls = engine_.Calls();
  ASSERT_EQ(calls.size(), 3U);
  EXPECT_EQ(calls[0].operation, EngineOperation::kConstruct);
  EXPECT_EQ(calls[1].operation, EngineOperation::kRegisterCallback);
  EXPECT_EQ(calls[2].operation, EngineOperation::kInitLibrary);
}

TEST_F(EntryPoint, AnUnreachableServerIsLoggedAndSignedInToLater) {
  engine_.On(EngineOperation::kInitLibrary, [](const EngineCall&) { return -1; });
  support::ServerOptions options;
  options.listening = false;
  support::ScriptedServer server(options);
  EXPECT_EQ(Init(server.Port()), 0);
  EXPECT_THAT(output_.Text(), testing::MatchesRegex("connect failed, but run continue.ret:-[0-9]+\n"));
  Run();
  server.Listen();
  const auto connection = server.AcceptWebSocket();
  ASSERT_NE(connection, nullptr);
  EXPECT_EQ(connection->ReceiveText(), kSignIn);
  interrupted = 1;
  JoinRunner();
}

TEST_F(EntryPoint, APermitSettingIsSentAtOnceAndUsedForLaterSignIns) {
  EXPECT_EQ(Init(server_.Port()), 0);
  Run();
  ASSERT_TRUE(server_.WaitForTexts(1));
  kovraSetPermitMsg(0, Text("4711"));
  ASSERT_TRUE(server_.WaitForTexts(2));
  EXPECT_EQ(server_.Texts().at(1), R"({"opcode":"permitCode","mustPermitCode":0,"permitCode":"4711"})");
  server_.ResetAll();
  ASSERT_TRUE(server_.WaitForTexts(3));
  EXPECT_EQ(server_.Received().at(2).connection, 1);
  EXPECT_EQ(server_.Texts().at(2),
            R"({"opcode":"signin","key":"the key","secret":"the secret","loginType":1,"authType":2,"authCode":"",)"
            R"("serialCode":"SN0001","mac":"02:00:00:00:00:01","mustPermitCode":0,"permitCode":"4711"})");
  interrupted = 1;
  JoinRunner();
}

TEST_F(EntryPoint, APermitSettingBeforeTheLinkIsQueuedBehindTheSignIn) {
  EXPECT_EQ(Init(server_.Port()), 0);
  kovraSetPermitMsg(1, Text("P"));
  Run();
  ASSERT_TRUE(server_.WaitForTexts(2));
  EXPECT_THAT(server_.Texts().at(0), HasSubstr(R"("mustPermitCode":1,"permitCode":"P"})"));
  EXPECT_EQ(server_.Texts().at(1), R"({"opcode":"permitCode","mustPermitCode":1,"permitCode":"P"})");
  interrupted = 1;
  JoinRunner();
}

TEST_F(EntryPoint, AWholeRunWritesItsOwnLinesAndNothingElse) {
  EXPECT_EQ(Init(server_.Port()), 0);
  Run();
  ASSERT_TRUE(server_.WaitForTexts(1));
  server_.Send(
      R"({"code":0,"opcode":"signin","sid":1001,"stunAddr":["stun:a"],"turnAddr":[],"turnUser":[],"turnPass":[]})");
  ASSERT_TRUE(output_.WaitFor("OnMessage end"));
  raise(SIGINT);
  JoinRunner();
  EXPECT_EQ(output_.Text(),
            "-------------------- OnMessage start -----------------\n---------opcode == [signin]\nGOT local uid 1001\n"
            "stun:a\n-------------------- OnMessage end ------------------\ninterrupted.\n-----to exit\n");
}

TEST_F(EntryPoint, TestDataModeClearsWhatSigintSet) {
  const support::TemporaryDirectory directory;
  directory.Write("20s.pcmu", std::string(96160, 'a'));
  std::filesystem::current_path(directory.Path());
  EXPECT_EQ(Init(server_.Port()), 0);
  raise(SIGINT);
  EXPECT_EQ(interrupted, 1);
  EXPECT_EQ(output_.Text(), "interrupted.\n");
  runTestDataMode(true);
  EXPECT_EQ(interrupted, 0);
  EXPECT_TRUE(engine_.WaitForCalls(EngineOperation::kWriteAudioData, 1));
  runTestDataMode(false);
  EXPECT_EQ(interrupted, 1);
  std::filesystem::current_path("/");
}

TEST_F(EntryPoint, SigintEndsRun) {
  EXPECT_EQ(Init(server_.Port()), 0);
  Run();
  ASSERT_TRUE(server_.WaitForTexts(1));
  EXPECT_FALSE(returned_);
  raise(SIGINT);
  EXPECT_EQ(interrupted, 1);
  EXPECT_THAT(output_.Text(), HasSubstr("interrupted.\n"));
  JoinRunner();
}

TEST_F(EntryPoint, TestDataModeEndsRun) {
  EXPECT_EQ(Init(server_.Port()), 0);
  Run();
  ASSERT_TRUE(server_.WaitForTexts(1));
  EXPECT_FALSE(returned_);
  const auto start = Clock::now();
  EXPECT_EQ(runTestDataMode(false), 0);
  JoinRunner();
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(250) + std::chrono::seconds(2));  // 2 s for a busy machine
}

TEST_F(EntryPoint, AFailingServiceEndsRun) {
  EXPECT_EQ(Init(server_.Port()), 0);
  Run();
  ASSERT_TRUE(server_.WaitForTexts(1));
  serviceFails = true;
  JoinRunner();
  EXPECT_EQ(interrupted, 0);
}

TEST_F(EntryPoint, RunOnAThreadReturnsAtOnceAndBeginsSixSecondsLater) {
  EXPECT_EQ(Init(server_.Port()), 0);
  const auto start = Clock::now();
  kovraRun(true);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
  EXPECT_TRUE(output_.WaitFor("--------webrtc in  runThread.\n", 1, std::chrono::seconds(3)));
  ASSERT_TRUE(server_.WaitForTexts(1));
  const std::chrono::duration<double> signedIn = server_.Received().front().time - start;
  EXPECT_GE(signedIn.count(), 6.0);
  EXPECT_LT(signedIn.count(), 10.0);
  interrupted = 1;
  EXPECT_TRUE(output_.WaitFor("-----to exit\n"));
}

TEST_F(EntryPoint, AServerErrorBehindTheSignInIsLogged) {
  EXPECT_EQ(Init(server_.Port()), 0);
  Run();
  ASSERT_TRUE(server_.WaitForTexts(1));
  server_.Send(R"({"code":4,"opcode":"signin"})");
  EXPECT_TRUE(output_.WaitFor("code error [4], please check"));
  interrupted = 1;
  JoinRunner();
}

TEST_F(EntryPoint, ASecondInitConnectsAnewAndStartsAnotherHeartbeat) {
  EXPECT_EQ(Init(server_.Port()), 0);
  Run();
  ASSERT_TRUE(server_.WaitForTexts(1));
  RecordingServer second;
  EXPECT_EQ(Init(second.Port()), 0);
  ASSERT_TRUE(second.WaitForTexts(3));
  EXPECT_EQ(second.Texts().at(0), kSignIn);
  EXPECT_EQ(second.Texts().at(1), R"({"opcode":"heartbeat"})");
  EXPECT_EQ(second.Texts().at(2), R"({"opcode":"heartbeat"})");
  EXPECT_THAT(output_.Text(), HasSubstr("----send heartbeat index:2 0x"));
  EXPECT_THAT(output_.Text(), HasSubstr("----send heartbeat index:3 0x"));
  interrupted = 1;
  JoinRunner();
}

}  // namespace
