// Starting, configuring and ending the program.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

#include "child_process.h"
#include "server_program.h"
#include "signalling_texts.h"
#include "temporary_directory.h"
#include "websocket_client.h"

namespace support {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;

const std::string kProgram = SIGNALCONN_SERVER_PROGRAM;
const std::chrono::seconds kPatience{30};

// Waits until the program has ended. Returns its exit status, -1 when it did not end in time.
int StatusOf(ChildProcess& process, std::chrono::seconds patience = kPatience) {
  const auto end = process.WaitForEnd(patience);
  return end ? end->status : -1;
}

ChildProcess Start(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), kProgram);
  return ChildProcess(arguments);
}

class ServerEnd : public ::testing::TestWithParam<int> {};

TEST(ServerStart, SaysWhereItListensOnALineOfItsOwn) {
  const TemporaryDirectory web;
  ServerProgram server(kProgram, {"--web", web.Path().string()});
  EXPECT_THAT(server.Process().Output(), MatchesRegex("listening on http://127\\.0\\.0\\.1:[0-9]+/\n"));
  EXPECT_THAT(server.Process().Errors(), IsEmpty());
}

TEST(ServerStart, ListensOnIpv6) {
  ServerProgram server(kProgram, {"--host", "::1"});
  EXPECT_THAT(server.Process().Output(), HasSubstr("listening on http://[::1]:"));
}

TEST(ServerStart, NumberingOfThePartiesDiffersFromRunToRun) {
  int sids[2];
  for (int& sid : sids) {
    const ServerProgram server(kProgram);
    WebSocketClient viewer(server.Port());
    viewer.SendText(ViewerSignIn(""));
    sid = SidIn(viewer.ReceiveText().value_or(""));
    EXPECT_GT(sid, 0);
  }
  EXPECT_NE(sids[0], sids[1]);
}

TEST(ServerStart, HelpGoesToStandardOutput) {
  ChildProcess process = Start({"--help"});
  EXPECT_EQ(StatusOf(process), 0);
  EXPECT_THAT(process.Output(), HasSubstr("--config FILE"));
}

TEST(ServerStart, UnknownOptionIsRefused) {
  ChildProcess process = Start({"--prot", "0"});
  EXPECT_EQ(StatusOf(process), 2);
  EXPECT_EQ(process.Errors(), "signalconn-server: unknown option --prot; --help tells the options\n");
}

TEST(ServerStart, DemoAccountStaysOnLoopback) {
  for (const char* host : {"0.0.0.0", "::"}) {
    ChildProcess process = Start({"--host", host, "--port", "0"});
    EXPECT_EQ(StatusOf(process), 1);
    EXPECT_THAT(process.Errors(), HasSubstr("without --config there is only the demo account"));
    EXPECT_THAT(process.Output(), Not(HasSubstr("listening")));
  }
}

TEST(ServerStart, HostThatDoesNotExistIsRefused) {
  ChildProcess process = Start({"--host", "no such host", "--port", "0"});
  EXPECT_EQ(StatusOf(process), 1);
  EXPECT_THAT(process.Errors(), HasSubstr("--host \"no such host\": "));
}

TEST(ServerStart, PortInUseIsRefused) {
  const ServerProgram first(kProgram);
  ChildProcess second = Start({"--port", std::to_string(first.Port())});
  EXPECT_EQ(StatusOf(second), 1);
  EXPECT_THAT(
      second.Errors(),
      HasSubstr("signalconn-server: cannot listen on http://127.0.0.1:" + std::to_string(first.Port()) + "/\n"));
}

TEST(ServerStart, WebDirectoryThatIsNotThereIsRefused) {
  ChildProcess process = Start({"--web", "/nonexistent", "--port", "0"});
  EXPECT_EQ(StatusOf(process), 1);
  EXPECT_EQ(process.Errors(), "signalconn-server: --web: \"/nonexistent\" is not a directory\n");
}

TEST(ServerConfig, AccountsAndIceServersCount) {
  const TemporaryDirectory directory;
  const std::string config =
      directory.Write("config.json",
                      R"({"accounts":[{"key":"home","secret":"house"}],"stun":["stun:s.example:3478"],
          "turn":[{"url":"turn:t.example:3478","username":"anna","credential":"alpha"}]})");
  ServerProgram server(kProgram, {"--config", config});
  WebSocketClient viewer(server.Port());
  viewer.SendText(R"({"opcode":"signin","key":"home","secret":"house","loginType":2})");
  EXPECT_THAT(viewer.ReceiveText().value_or(""),
              HasSubstr(R"("stunAddr":["stun:s.example:3478"],"turnAddr":["turn:t.example:3478"],)"
                        R"("turnUser":["anna"],"turnPass":["alpha"]})"));

  WebSocketClient demo(server.Port());
  demo.SendText(ViewerSignIn(""));
  EXPECT_THAT(demo.ReceiveText().value_or(""), HasSubstr(R"({"code":401,)"));
  for (const char* secret : {"house", "alpha"}) EXPECT_THAT(server.Process().Output(), Not(HasSubstr(secret)));
}

TEST(ServerConfig, MayListenBeyondLoopback) {
  const TemporaryDirectory directory;
  const std::string config = directory.Write("config.json", R"({"accounts":[{"key":"home","secret":"house"}]})");
  ServerProgram server(kProgram, {"--config", config, "--host", "0.0.0.0"});
  EXPECT_THAT(server.Process().Output(), HasSubstr("listening on http://0.0.0.0:"));
}

TEST(ServerConfig, BadFileIsRefused) {
  const TemporaryDirectory directory;
  const std::string config = directory.Write("config.json", R"({"accounts":[{"key":"home","secret":""}]})");
  ChildProcess process = Start({"--port", "0", "--config", config});
  EXPECT_EQ(StatusOf(process), 1);
  EXPECT_EQ(process.Errors(),
            "signalconn-server: --config \"" + config + "\": accounts[0].secret must be a text that is not empty\n");
  EXPECT_THAT(process.Output(), Not(HasSubstr("listening")));
}

TEST(ServerConfig, MissingFileIsRefused) {
  ChildProcess process = Start({"--port", "0", "--config", "/nonexistent.json"});
  EXPECT_EQ(StatusOf(process), 1);
  EXPECT_THAT(process.Errors(), HasSubstr("No such file or directory"));
}

TEST_P(ServerEnd, ComesAtOnceAndInOrder) {
  ServerProgram server(kProgram);
  WebSocketClient viewer(server.Port());
  viewer.SendText(ViewerSignIn(""));
  ASSERT_TRUE(viewer.ReceiveText());
  server.Process().Signal(GetParam());
  EXPECT_EQ(viewer.WaitForClose(), 1001);
  EXPECT_EQ(StatusOf(server.Process()), 0);
  EXPECT_THAT(server.Process().Output(), HasSubstr("\nended\n"));
}

// Sends messages of 100 kB to the camera called serialCode, most at the most, until the server has dropped it.
// Returns how many.
int Flood(ServerProgram& server, const std::string& serialCode, int most) {
  WebSocketClient viewer(server.Port());
  viewer.SendText(ViewerSignIn(""));
  viewer.SendText(FromViewer("callRequest", serialCode, "offer"));
  const std::string candidate = FromViewer("remoteCandidate", serialCode, std::string(100000, 'x'));
  const std::string dropped = "dropped camera \"" + serialCode + "\"";
  int sent = 0;
  while (sent < most && server.Process().Output().find(dropped) == std::string::npos) {
    viewer.SendText(candidate);
    ++sent;
    viewer.SendText(kHeartbeat);
    while (viewer.ReceiveText().value_or(kHeartbeatReply) != kHeartbeatReply) {
    }
  }
  return sent;
}

TEST_P(ServerEnd, DoesNotWaitForClientsThatDoNotRead) {
  ServerProgram server(kProgram);
  WebSocketClient dropped(server.Port());
  dropped.SendText(CameraSignIn("SN1"));
  ASSERT_TRUE(dropped.ReceiveText());
  WebSocketClient camera(server.Port());
  camera.SendText(CameraSignIn("SN2"));
  ASSERT_TRUE(camera.ReceiveText());
  // So much fills the sockets' buffers and half of what may wait.
  const int bearable = Flood(server, "SN1", 1000) - 5;
  Flood(server, "SN2", bearable);
  server.Process().Signal(GetParam());
  EXPECT_EQ(StatusOf(server.Process(), std::chrono::seconds(15)), 0);
  EXPECT_THAT(server.Process().Output(), Not(HasSubstr("dropped camera \"SN2\"")));
}

INSTANTIATE_TEST_SUITE_P(BySignal, ServerEnd, ::testing::Values(SIGINT, SIGTERM),
                         [](const auto& test) { return test.param == SIGINT ? "Interrupt" : "Terminate"; });

}  // namespace
}  // namespace support
