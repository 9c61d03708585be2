// Cameras and viewers through the running server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "server_program.h"
#include "signalling_texts.h"
#include "websocket_client.h"

namespace support {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class ServerSignalling : public ::testing::Test {
 protected:
  // Signs a client in. Returns its sid.
  static int SignIn(WebSocketClient& client, const std::string& request) {
    client.SendText(request);
    const std::string response = client.ReceiveText().value_or("");
    EXPECT_THAT(response, StartsWith(R"({"code":0,"opcode":"signin","sid":)"));
    return SidIn(response);
  }

  ServerProgram server{SIGNALCONN_SERVER_PROGRAM};
};

TEST_F(ServerSignalling, CarriesACallFromListToHangup) {
  WebSocketClient viewer(server.Port());
  const int viewerSid = SignIn(viewer, ViewerSignIn("bob"));
  EXPECT_EQ(viewer.ReceiveText(), R"({"code":0,"opcode":"cameras","cameras":[]})");
  WebSocketClient camera(server.Port());
  const int cameraSid = SignIn(camera, CameraSignIn("SN1"));
  EXPECT_EQ(viewer.ReceiveText(),
            R"({"code":0,"opcode":"cameras","cameras":[{"serialCode":"SN1","mustPermitCode":0}]})");

  const std::string stampOfViewer =
      R"({"code":0,"opcode":"message","sid":)" + std::to_string(viewerSid) + R"(,"serialCode":"bob","messageType":")";
  const std::string stampOfCamera =
      R"({"code":0,"opcode":"message","sid":)" + std::to_string(cameraSid) + R"(,"serialCode":"SN1","messageType":")";
  viewer.SendText(FromViewer("callRequest", "SN1", "offer"));
  EXPECT_EQ(camera.ReceiveText(), stampOfViewer + R"(callRequest","message":"offer"})");
  camera.SendText(FromCamera("callResponse", viewerSid, "answer"));
  EXPECT_EQ(viewer.ReceiveText(), stampOfCamera + R"(callResponse","message":"answer"})");
  viewer.SendText(FromViewer("hangup", "SN1", ""));
  EXPECT_EQ(camera.ReceiveText(), stampOfViewer + R"(hangup","message":""})");
  EXPECT_TRUE(server.Process().WaitForOutput("viewer \"bob\" (sid " + std::to_string(viewerSid) +
                                             ") hung up on camera \"SN1\"\n"));
}

TEST_F(ServerSignalling, HangsUpForAViewerThatVanishes) {
  WebSocketClient camera(server.Port());
  SignIn(camera, CameraSignIn("SN1"));
  WebSocketClient viewer(server.Port());
  SignIn(viewer, ViewerSignIn("bob"));
  viewer.SendText(FromViewer("callRequest", "SN1", "offer"));
  ASSERT_TRUE(camera.ReceiveText());
  viewer.Reset();
  EXPECT_THAT(camera.ReceiveText().value_or(""), HasSubstr(R"("messageType":"hangup","message":"")"));
}

TEST_F(ServerSignalling, ClosesTheFormerConnectionOfACameraThatSignsInAnew) {
  WebSocketClient former(server.Port());
  SignIn(former, CameraSignIn("SN1"));
  WebSocketClient latter(server.Port());
  SignIn(latter, CameraSignIn("SN1"));
  EXPECT_EQ(former.WaitForClose(), 1008);
  latter.SendText(kHeartbeat);
  EXPECT_EQ(latter.ReceiveText(), kHeartbeatReply);
}

TEST_F(ServerSignalling, ClosesAfterARefusedSignIn) {
  WebSocketClient camera(server.Port());
  camera.SendText(CameraSignIn("SN1", "guess"));
  EXPECT_EQ(camera.ReceiveText(), R"({"code":401,"opcode":"signin","message":"unknown key or wrong secret"})");
  EXPECT_EQ(camera.WaitForClose(), 1008);
  ASSERT_TRUE(server.Process().WaitForOutput("401 unknown key or wrong secret\n"));
  EXPECT_THAT(server.Process().Output(), Not(HasSubstr("guess")));
}

TEST_F(ServerSignalling, WantsASignInWithinTenSeconds) {
  WebSocketClient client(server.Port());
  EXPECT_EQ(client.ReceiveText(), R"({"code":408,"opcode":"","message":"no sign-in within 10 s"})");
  EXPECT_EQ(client.WaitForClose(), 1008);
}

TEST_F(ServerSignalling, PutsFragmentsTogetherAroundControlFrames) {
  WebSocketClient client(server.Port());
  client.SendFrame({kText, false, 0, true, R"({"opco)"});
  client.SendFrame({kPing, true, 0, true, "are you there"});
  client.SendFrame({kContinuation, false, 0, true, ""});
  client.SendFrame({kContinuation, false, 0, true, R"(de":"heart)"});
  client.SendFrame({kPong, true, 0, true, ""});
  client.SendFrame({kContinuation, true, 0, true, R"(beat"})"});
  const std::optional<Frame> pong = client.ReceiveFrame();
  ASSERT_TRUE(pong);
  EXPECT_EQ(pong->opcode, kPong);
  EXPECT_EQ(pong->payload, "are you there");
  EXPECT_EQ(client.ReceiveText(), kHeartbeatReply);
}

TEST_F(ServerSignalling, TakesSeveralMessagesInOnePacketInTheirOrder) {
  WebSocketClient camera(server.Port());
  SignIn(camera, CameraSignIn("SN1"));
  WebSocketClient viewer(server.Port());
  std::string bytes;
  for (const std::string& text :
       {ViewerSignIn("bob"), FromViewer("callRequest", "SN1", "offer"), FromViewer("remoteCandidate", "SN1", "a"),
        FromViewer("remoteCandidate", "SN1", "b")}) {
    bytes += EncodeFrame({kText, true, 0, true, text});
  }
  viewer.SendBytes(bytes);
  for (const char* payload : {"offer", "a", "b"}) {
    EXPECT_THAT(camera.ReceiveText().value_or(""), HasSubstr(R"("message":")" + std::string(payload) + R"("})"));
  }
}

TEST_F(ServerSignalling, CarriesTheLongestMessageWhole) {
  WebSocketClient camera(server.Port());
  SignIn(camera, CameraSignIn("SN1"));
  WebSocketClient viewer(server.Port());
  SignIn(viewer, ViewerSignIn("bob"));
  const std::size_t room = 262144 - FromViewer("callRequest", "SN1", "").size();
  viewer.SendText(FromViewer("callRequest", "SN1", std::string(room, 'x')));
  EXPECT_THAT(camera.ReceiveText().value_or(""), HasSubstr(R"("message":")" + std::string(room, 'x') + R"("})"));
}

TEST_F(ServerSignalling, ServesManyAtOnce) {
  std::vector<WebSocketClient> cameras;
  std::vector<WebSocketClient> viewers;
  for (int i = 0; i < 100; ++i) {
    SignIn(cameras.emplace_back(server.Port()), CameraSignIn("SN" + std::to_string(i)));
    SignIn(viewers.emplace_back(server.Port()), ViewerSignIn(""));
  }
  for (std::size_t i = 0; i < viewers.size(); ++i) {
    viewers[i].SendText(FromViewer("callRequest", "SN" + std::to_string(i), "offer " + std::to_string(i)));
  }
  for (std::size_t i = 0; i < cameras.size(); ++i) {
    EXPECT_THAT(cameras[i].ReceiveText().value_or(""), HasSubstr("offer " + std::to_string(i)));
  }
}

TEST(ServerLife, DropsTheSilentAndKeepsThoseThatAnswerPings) {
  ServerProgram server(SIGNALCONN_SERVER_PROGRAM, {"--idle-timeout", "2"});
  WebSocketClient silent(server.Port());
  silent.AnswerPings(false);
  silent.SendText(CameraSignIn("SN1"));
  WebSocketClient lively(server.Port());
  lively.SendText(ViewerSignIn("bob"));
  ASSERT_TRUE(lively.ReceiveText());
  ASSERT_THAT(lively.ReceiveText().value_or(""), HasSubstr("SN1"));
  EXPECT_THAT(lively.ReceiveText().value_or(""), HasSubstr(R"("cameras":[])"));
  EXPECT_EQ(silent.WaitForClose(), 0);
  EXPECT_EQ(silent.Pings(), 1);
  EXPECT_GE(lively.Pings(), 1);
  lively.SendText(kHeartbeat);
  EXPECT_EQ(lively.ReceiveText(), kHeartbeatReply);
}

}  // namespace
}  // namespace support
