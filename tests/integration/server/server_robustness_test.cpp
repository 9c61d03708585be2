// What a party may send or leave undone without harm to anybody else.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "server_program.h"
#include "signalling_texts.h"
#include "websocket_client.h"

namespace support {
namespace {

using ::testing::HasSubstr;

// A camera and a viewer in a call, which must still be up at the end of each test.
class ServerRobustness : public ::testing::Test {
 protected:
  void SetUp() override {
    camera.SendText(CameraSignIn("SN1"));
    ASSERT_TRUE(camera.ReceiveText());
    viewer.SendText(ViewerSignIn("bob"));
    viewerSid = SidIn(viewer.ReceiveText().value_or(""));
    viewer.SendText(FromViewer("callRequest", "SN1", "offer"));
    ASSERT_TRUE(camera.ReceiveText());
    ASSERT_TRUE(viewer.ReceiveText());  // the list of the cameras
  }

  void TearDown() override {
    camera.SendText(FromCamera("callResponse", viewerSid, "answer"));
    EXPECT_THAT(viewer.ReceiveText().value_or(""), HasSubstr(R"("messageType":"callResponse","message":"answer"})"));
    viewer.SendText(FromViewer("remoteCandidate", "SN1", "candidate"));
    EXPECT_THAT(camera.ReceiveText().value_or(""), HasSubstr(R"("messageType":"remoteCandidate")"));
  }

  ServerProgram server{SIGNALCONN_SERVER_PROGRAM};
  WebSocketClient camera{server.Port()};
  WebSocketClient viewer{server.Port()};
  WebSocketClient rude{server.Port()};
  int viewerSid = 0;
};

TEST_F(ServerRobustness, MalformedMessagesAreRefusedUntilTheTwentieth) {
  for (int i = 0; i < 20; ++i) {
    rude.SendText(i % 2 == 0 ? "hello" : "{\"opcode\":\"\xff\"}");
    EXPECT_THAT(rude.ReceiveText().value_or(""), HasSubstr(R"({"code":400,)"));
  }
  EXPECT_EQ(rude.WaitForClose(), 1008);
}

TEST_F(ServerRobustness, MessagesOutOfTurnAreRefused) {
  rude.SendText(FromViewer("callRequest", "SN1", "offer"));
  EXPECT_THAT(rude.ReceiveText().value_or(""), HasSubstr(R"({"code":409,)"));
  rude.SendText(FromCamera("callResponse", viewerSid, "forged"));
  EXPECT_THAT(rude.ReceiveText().value_or(""), HasSubstr(R"({"code":409,)"));
}

TEST_F(ServerRobustness, BinaryMessagesAreRefusedInFragmentsToo) {
  rude.SendFrame({kBinary, true, 0, true, kHeartbeat});
  EXPECT_EQ(rude.ReceiveText(), R"({"code":400,"opcode":"","message":"a binary message"})");
  rude.SendFrame({kBinary, false, 0, true, std::string(5000, '\0')});
  rude.SendFrame({kContinuation, true, 0, true, std::string(5000, '\0')});
  EXPECT_EQ(rude.ReceiveText(), R"({"code":400,"opcode":"","message":"a binary message"})");
  rude.SendText(kHeartbeat);
  EXPECT_EQ(rude.ReceiveText(), kHeartbeatReply);
}

TEST_F(ServerRobustness, MessageThatIsTooLongIsRefused) {
  const std::string text = R"({"opcode":"heartbeat","filler":")";
  rude.SendText(text + std::string(262144 - text.size() - 1, 'x') + R"("})");
  EXPECT_EQ(rude.ReceiveText(), R"({"code":413,"opcode":"","message":"the message is too long"})");
  EXPECT_EQ(rude.WaitForClose(), 1009);
}

TEST_F(ServerRobustness, FragmentsThatAreTooLongTogetherAreRefused) {
  rude.SendFrame({kText, false, 0, true, std::string(200000, 'x')});
  rude.SendFrame({kContinuation, false, 0, true, std::string(62144, 'x')});
  rude.SendFrame({kContinuation, false, 0, true, "x"});
  EXPECT_EQ(rude.ReceiveText(), R"({"code":413,"opcode":"","message":"the message is too long"})");
  EXPECT_EQ(rude.WaitForClose(), 1009);
}

TEST_F(ServerRobustness, FrameThatPromisesEndlessLengthIsRefusedOnceTheLimitIsPassed) {
  rude.SendBytes(EncodeHeader({kText, true, 0, true, ""}, std::uint64_t{1} << 40U) + std::string(262145, 'x'));
  EXPECT_EQ(rude.ReceiveText(), R"({"code":413,"opcode":"","message":"the message is too long"})");
  EXPECT_EQ(rude.WaitForClose(), 1009);
}

TEST_F(ServerRobustness, BrokenFramesCloseTheirOwnConnectionOnly) {
  const Frame broken[] = {
      {0x3, true, 0, true, "reserved opcode"},
      {kText, true, 7, true, "reserved bits"},
      {kContinuation, true, 0, true, "continues nothing"},
      {kPing, false, 0, true, "fragmented ping"},
  };
  for (const Frame& frame : broken) {
    WebSocketClient client(server.Port());
    client.SendFrame(frame);
    EXPECT_EQ(client.WaitForClose(), 1002) << frame.payload;
  }
}

TEST_F(ServerRobustness, ConnectionsThatEndInMidMessageAreNoMatter) {
  for (int i = 0; i < 20; ++i) {
    WebSocketClient client(server.Port());
    client.SendBytes(EncodeHeader({kText, true, 0, true, ""}, 100000) + std::string(5000, 'x'));
    client.Reset();
  }
}

TEST_F(ServerRobustness, MessagesThatAreNeverReadCostTheirReaderOnly) {
  rude.SendText(CameraSignIn("SN2"));
  ASSERT_TRUE(rude.ReceiveText());
  WebSocketClient caller(server.Port());
  caller.SendText(ViewerSignIn("ann"));
  caller.SendText(FromViewer("callRequest", "SN2", "offer"));
  // More than the sockets' buffers hold: 64 MiB at most, until the camera is given up.
  const std::string candidate = FromViewer("remoteCandidate", "SN2", std::string(262000, 'x'));
  for (int i = 0; i < 256 && server.Process().Output().find("reads too slowly") == std::string::npos; ++i) {
    ASSERT_TRUE(caller.SendText(candidate));
    caller.SendText(kHeartbeat);
    std::string text;
    while (text != kHeartbeatReply) {
      const auto received = caller.ReceiveText();
      ASSERT_TRUE(received);
      text = *received;
    }
  }
  EXPECT_TRUE(server.Process().WaitForOutput("dropped camera \"SN2\""));
  EXPECT_TRUE(rude.WaitForClose());
  // The list lost SN2 again: the viewer saw it come and go.
  EXPECT_THAT(viewer.ReceiveText().value_or(""), HasSubstr("SN2"));
  EXPECT_THAT(viewer.ReceiveText().value_or(""), HasSubstr(R"("cameras":[{"serialCode":"SN1","mustPermitCode":0}])"));
}

TEST(ServerSlowViewer, MissesListsOfTheCamerasButNotTheLast) {
  ServerProgram server(SIGNALCONN_SERVER_PROGRAM);
  WebSocketClient slow(server.Port());
  slow.SendText(ViewerSignIn("slow"));
  ASSERT_TRUE(server.Process().WaitForOutput("viewer \"slow\""));
  std::vector<WebSocketClient> cameras;
  for (int i = 100; i < 200; ++i) {
    cameras.emplace_back(server.Port()).SendText(CameraSignIn(std::to_string(i) + std::string(61, 'x')));
    ASSERT_TRUE(cameras.back().ReceiveText());
  }
  // Each update makes a list of 11 KB: together far more than the sockets' buffers and the limit hold.
  const int updates = 2001;
  for (int i = 1; i <= updates; ++i) {
    cameras.back().SendText(R"({"opcode":"permitCode","mustPermitCode":)" + std::to_string(i % 2) +
                            R"(,"permitCode":""})");
  }
  cameras.back().SendText(kHeartbeat);
  ASSERT_EQ(cameras.back().ReceiveText(), kHeartbeatReply);
  slow.SendText(kHeartbeat);

  std::string list;
  int lists = 0;
  for (std::string text; text != kHeartbeatReply; ++lists) {
    const auto received = slow.ReceiveText();
    ASSERT_TRUE(received) << server.Process().Output();
    list = text;
    text = *received;
  }
  EXPECT_THAT(list, HasSubstr(R"({"serialCode":"199)" + std::string(61, 'x') + R"(","mustPermitCode":1}]})"));
  EXPECT_LT(lists, updates);
}

}  // namespace
}  // namespace support
