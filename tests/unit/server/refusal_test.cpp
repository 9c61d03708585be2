// What is wrong with a message, and what that costs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "switchboard_bench.h"

namespace signalconn::server {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class Refused : public ::testing::Test {
 protected:
  SwitchboardBench bench;
  ConnectionId camera = bench.camera("SN1");
  ConnectionId viewer = bench.viewer("bob");
};

std::string error(int code, const std::string& rest) { return R"({"code":)" + std::to_string(code) + "," + rest + "}"; }

TEST_F(Refused, WhatIsNoJsonObject) {
  for (const char* text :
       {"", "hello", "[]", "5", "{\"opcode\":\"heartbeat\"", "{}{}", "\xff", "{\"opcode\":\"\x01\"}"}) {
    bench.say(viewer, text);
    EXPECT_THAT(bench.heard(viewer), ElementsAre(error(400, R"("opcode":"","message":"not a JSON object in UTF-8")")));
  }
}

TEST_F(Refused, OpcodeThatIsMissingOrNoTextOrUnknown) {
  bench.say(viewer, "{}");
  bench.say(viewer, R"({"opcode":5})");
  bench.say(viewer, R"({"opcode":"dance"})");
  bench.say(viewer, R"({"opcode":""})");
  bench.say(viewer, R"({"opcode":"cameras"})");
  EXPECT_THAT(bench.heard(viewer), ElementsAre(error(400, R"("opcode":"","message":"\"opcode\" is missing")"),
                                               error(400, R"("opcode":"","message":"\"opcode\" is not a string")"),
                                               error(400, R"("opcode":"dance","message":"unknown opcode")"),
                                               error(400, R"("opcode":"","message":"unknown opcode")"),
                                               error(400, R"("opcode":"cameras","message":"unknown opcode")")));
}

TEST_F(Refused, PeerMessageWithoutItsKeys) {
  bench.say(viewer, R"({"opcode":"message"})");
  bench.say(viewer, R"({"opcode":"message","messageType":1})");
  bench.say(viewer, R"({"opcode":"message","messageType":"hangup"})");
  bench.say(viewer, R"({"opcode":"message","messageType":"hangup","toSerialCode":"SN1"})");
  bench.say(viewer, R"({"opcode":"message","messageType":"hangup","toSerialCode":"SN1","message":{"type":1}})");
  EXPECT_THAT(bench.heard(viewer),
              ElementsAre(error(400, R"("opcode":"message","message":"\"messageType\" is missing")"),
                          error(400, R"("opcode":"message","message":"\"messageType\" is not a string")"),
                          error(400, R"("opcode":"message","messageType":"hangup",)"
                                     R"("message":"\"toSerialCode\" is missing")"),
                          error(400, R"("opcode":"message","messageType":"hangup","toSerialCode":"SN1",)"
                                     R"("message":"\"message\" is missing")"),
                          error(400, R"("opcode":"message","messageType":"hangup","toSerialCode":"SN1",)"
                                     R"("message":"\"message\" is not a string")")));
}

TEST_F(Refused, PermitCodeOfACallThatIsNoText) {
  bench.say(viewer,
            R"({"opcode":"message","messageType":"callRequest","toSerialCode":"SN1","permitCode":1,"message":""})");
  EXPECT_EQ(lastCode(bench.heard(viewer)), 400);
  EXPECT_THAT(bench.heard(camera), IsEmpty());
}

TEST_F(Refused, CamerasPeerMessageWithoutItsKeys) {
  bench.say(camera, R"({"opcode":"message","messageType":"callResponse","message":""})");
  bench.say(camera, R"({"opcode":"message","messageType":"callResponse","toSid":"1001","message":""})");
  bench.say(camera, R"({"opcode":"message","messageType":"callResponse","toSid":1001})");
  EXPECT_THAT(bench.heard(camera),
              ElementsAre(HasSubstr(R"(\"toSid\" is missing)"), HasSubstr(R"(\"toSid\" is not an integer in 32 bits)"),
                          HasSubstr(R"(\"message\" is missing)")));
}

TEST_F(Refused, PermitUpdateWithoutItsKeysChangesNothing) {
  bench.say(camera, R"({"opcode":"permitCode","mustPermitCode":1})");
  bench.say(camera, R"({"opcode":"permitCode","permitCode":"1"})");
  bench.say(camera, R"({"opcode":"permitCode","mustPermitCode":1,"permitCode":")" + std::string(257, '1') + R"("})");
  EXPECT_THAT(bench.heard(camera),
              ElementsAre(error(400, R"("opcode":"permitCode","message":"\"permitCode\" is missing")"),
                          error(400, R"("opcode":"permitCode","message":"\"mustPermitCode\" is missing")"),
                          error(400, R"("opcode":"permitCode","message":"\"permitCode\" is too long")")));
  bench.say(viewer, fromViewer("callRequest", "SN1", "offer"));
  EXPECT_THAT(bench.heard(viewer), IsEmpty());
}

TEST_F(Refused, PermitUpdateOfAViewer) {
  bench.say(viewer, R"({"opcode":"permitCode","mustPermitCode":1,"permitCode":"1"})");
  EXPECT_THAT(bench.heard(viewer),
              ElementsAre(error(409, R"("opcode":"permitCode","message":"only a camera has a permit code")")));
}

TEST_F(Refused, BinaryMessage) {
  bench.sayBinary(viewer);
  EXPECT_THAT(bench.heard(viewer), ElementsAre(error(400, R"("opcode":"","message":"a binary message")")));
  EXPECT_TRUE(bench.isOpen(viewer));
}

TEST_F(Refused, MessageThatIsTooLongClosesItsConnection) {
  bench.sayTooMuch(viewer);
  EXPECT_THAT(bench.heard(viewer), ElementsAre(error(413, R"("opcode":"","message":"the message is too long")")));
  EXPECT_EQ(bench.closeStatus(viewer), 1009);
  EXPECT_TRUE(bench.isOpen(camera));
}

TEST_F(Refused, TwentiethFaultClosesTheConnection) {
  for (int i = 0; i < 9; ++i) bench.say(viewer, "x");
  for (int i = 0; i < 9; ++i) bench.say(viewer, fromViewer("hangup", "SN1", ""));
  bench.sayBinary(viewer);
  EXPECT_TRUE(bench.isOpen(viewer));
  bench.heard(viewer);
  bench.say(viewer, viewerSignIn(""));
  EXPECT_EQ(lastCode(bench.heard(viewer)), 409);
  EXPECT_EQ(bench.closeStatus(viewer), 1008);
  EXPECT_TRUE(bench.isOpen(camera));
}

TEST_F(Refused, TwentiethFaultClosesAConnectionThatIsNotSignedInToo) {
  const ConnectionId party = bench.connect();
  for (int i = 0; i < 19; ++i) bench.say(party, "x");
  EXPECT_TRUE(bench.isOpen(party));
  bench.say(party, "x");
  EXPECT_EQ(bench.closeStatus(party), 1008);
}

TEST_F(Refused, CallsOfCamerasThatAreOfflineCostNothing) {
  for (int i = 0; i < 50; ++i) bench.say(viewer, fromViewer("callRequest", "SN9", "offer"));
  EXPECT_TRUE(bench.isOpen(viewer));
}

TEST_F(Refused, MessagesGoUnnoticedByEverybodyElse) {
  const ConnectionId other = bench.viewer();
  bench.say(other, "x");
  bench.sayBinary(other);
  bench.say(other, R"({"opcode":"dance"})");
  bench.sayTooMuch(other);
  EXPECT_THAT(bench.heard(viewer), IsEmpty());
  EXPECT_THAT(bench.heard(camera), IsEmpty());
}

TEST_F(Refused, NothingIsHeardOfAConnectionThatIsClosed) {
  bench.sayTooMuch(viewer);
  bench.heard(viewer);
  bench.say(viewer, kHeartbeat);
  bench.sayBinary(viewer);
  bench.sayTooMuch(viewer);
  bench.pong(viewer);
  bench.overflow(viewer);
  bench.hangUpLine(viewer);
  EXPECT_THAT(bench.heard(viewer), IsEmpty());
}

TEST_F(Refused, MessagesAreLoggedWithoutTheirText) {
  bench.say(viewer, R"({"opcode":"da\nce\u001b[2J"})");
  EXPECT_THAT(bench.log(), HasSubstr("refused viewer \"bob\" (sid 1001): 400 unknown opcode\n"));
  EXPECT_THAT(bench.log(), Not(HasSubstr("\x1b")));
}

TEST_F(Refused, MessagesDoNotFillTheLog) {
  for (int i = 0; i < 20; ++i) bench.say(viewer, fromViewer("callRequest", "SN9", "offer"));
  EXPECT_THAT(bench.log(), HasSubstr("further refusals of viewer \"bob\" (sid 1001) are not logged\n"));
  const std::string before = bench.log();
  for (int i = 0; i < 20; ++i) bench.say(viewer, fromViewer("callRequest", "SN9", "offer"));
  EXPECT_EQ(bench.log(), before);
}

}  // namespace
}  // namespace signalconn::server
