#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "switchboard_bench.h"

namespace signalconn::server {
namespace {

using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

std::string callError(int code, const std::string& messageType, const std::string& words,
                      const std::string& serialCode = "SN1") {
  return R"({"code":)" + std::to_string(code) + R"(,"opcode":"message","messageType":")" + messageType +
         R"(","toSerialCode":")" + serialCode + R"(","message":")" + words + R"("})";
}

// A camera SN1 (sid 1000) and a viewer bob (sid 1001).
class Call : public ::testing::Test {
 protected:
  void open() {
    bench.say(bob, fromViewer("callRequest", "SN1", "offer"));
    bench.heard(camera);
  }

  SwitchboardBench bench;
  ConnectionId camera = bench.camera("SN1");
  ConnectionId bob = bench.viewer("bob");
};

TEST_F(Call, RequestReachesTheCameraStampedWithTheViewer) {
  bench.say(bob, R"({"opcode":"message","messageType":"callRequest","toSerialCode":"SN1","sid":1,"serialCode":"eve",)"
                 R"("permitCode":"not for you","message":"v=0\r\no=-"})");
  EXPECT_THAT(bench.heard(camera), ElementsAre(peerText(1001, "bob", "callRequest", R"(v=0\r\no=-)")));
  EXPECT_THAT(bench.heard(bob), IsEmpty());
}

TEST_F(Call, ViewerWithoutANameIsNamedAfterItsSid) {
  const ConnectionId nameless = bench.viewer();
  bench.say(nameless, fromViewer("callRequest", "SN1", "offer"));
  EXPECT_THAT(bench.heard(camera), ElementsAre(peerText(1002, "viewer-1002", "callRequest", "offer")));
}

TEST_F(Call, AnswerAndCandidatesReachTheViewerStampedWithTheCamera) {
  open();
  bench.say(camera, fromCamera("callResponse", 1001, "answer"));
  bench.say(camera, fromCamera("remoteCandidate", 1001, R"({\"candidate\":\"a\"})"));
  EXPECT_THAT(bench.heard(bob), ElementsAre(peerText(1000, "SN1", "callResponse", "answer"),
                                            peerText(1000, "SN1", "remoteCandidate", R"({\"candidate\":\"a\"})")));
  EXPECT_THAT(bench.heard(camera), IsEmpty());
}

TEST_F(Call, CameraNeedNotSayWhoItIs) {
  open();
  bench.say(camera, R"({"opcode":"message","messageType":"callResponse","toSid":1001,"message":"answer"})");
  EXPECT_THAT(bench.heard(bob), SizeIs(1));
}

TEST_F(Call, ViewersOtherMessagesReachTheCamera) {
  open();
  bench.say(bob, fromViewer("remoteCandidate", "SN1", "c"));
  bench.say(bob, fromViewer("switchAudio", "SN1", R"({\"type\":2})"));
  bench.say(bob, fromViewer("switchVideo", "SN1", R"({ \"x\":0, \"type\":-1})"));
  bench.say(bob, fromViewer("hangup", "SN1", "bye"));
  EXPECT_THAT(bench.heard(camera), ElementsAre(peerText(1001, "bob", "remoteCandidate", "c"),
                                               peerText(1001, "bob", "switchAudio", R"({\"type\":2})"),
                                               peerText(1001, "bob", "switchVideo", R"({ \"x\":0, \"type\":-1})"),
                                               peerText(1001, "bob", "hangup", "bye")));
  EXPECT_THAT(bench.heard(bob), IsEmpty());
}

TEST_F(Call, SwitchThatACameraCouldNotReadIsRefused) {
  open();
  for (const char* payload : {"", "1", "type", R"({\"type\":\"1\"})", R"({\"Type\":1})", R"({\"type\":1}x)", "{}",
                              R"({\"type\":3000000000})"}) {
    bench.say(bob, fromViewer("switchAudio", "SN1", payload));
    bench.say(bob, fromViewer("switchVideo", "SN1", payload));
    EXPECT_THAT(bench.heard(bob), ElementsAre(HasSubstr(R"({"code":400,)"), HasSubstr(R"({"code":400,)"))) << payload;
  }
  EXPECT_THAT(bench.heard(camera), IsEmpty());
}

TEST_F(Call, OnlyACallRequestOpensIt) {
  for (const char* type : {"remoteCandidate", "hangup"}) {
    bench.say(bob, fromViewer(type, "SN1", "x"));
    EXPECT_THAT(bench.heard(bob), ElementsAre(callError(409, type, "there is no call with this camera")));
  }
  EXPECT_THAT(bench.heard(camera), IsEmpty());
}

TEST_F(Call, HangupEndsIt) {
  open();
  bench.say(bob, fromViewer("hangup", "SN1", ""));
  bench.heard(camera);
  bench.say(bob, fromViewer("remoteCandidate", "SN1", "c"));
  EXPECT_EQ(lastCode(bench.heard(bob)), 409);
  bench.say(camera, fromCamera("callResponse", 1001, "answer"));
  EXPECT_EQ(lastCode(bench.heard(camera)), 404);
  EXPECT_THAT(bench.heard(bob), IsEmpty());
}

TEST_F(Call, SecondRequestReplacesTheFirst) {
  open();
  bench.say(bob, fromViewer("callRequest", "SN1", "again"));
  EXPECT_THAT(bench.heard(camera),
              ElementsAre(peerText(1001, "bob", "hangup", ""), peerText(1001, "bob", "callRequest", "again")));
}

TEST_F(Call, RefusedSecondRequestLeavesTheFirst) {
  open();
  bench.say(camera, R"({"opcode":"permitCode","mustPermitCode":1,"permitCode":"1"})");
  bench.say(bob, fromViewer("callRequest", "SN1", "again"));
  EXPECT_EQ(lastCode(bench.heard(bob)), 403);
  EXPECT_THAT(bench.heard(camera), IsEmpty());
  bench.say(bob, fromViewer("remoteCandidate", "SN1", "c"));
  EXPECT_THAT(bench.heard(camera), SizeIs(1));
}

TEST_F(Call, CameraThatIsUnknownOrOfAnotherAccountIsNotReachable) {
  const ConnectionId work = bench.connect();
  bench.say(work, cameraSignIn("SN-work", "", "work", "desk"));
  for (const char* serialCode : {"SN2", "SN-work", ""}) {
    bench.say(bob, fromViewer("callRequest", serialCode, "offer"));
    EXPECT_THAT(bench.heard(bob), ElementsAre(callError(404, "callRequest", "the camera is offline", serialCode)));
    bench.say(bob, fromViewer("hangup", serialCode, ""));
    EXPECT_THAT(bench.heard(bob), ElementsAre(callError(404, "hangup", "the camera is offline", serialCode)));
  }
}

TEST_F(Call, CameraReachesOnlyViewersInACallWithIt) {
  open();
  const ConnectionId other = bench.camera("SN2");
  const ConnectionId idle = bench.viewer();
  for (const int sid : {1001, 1003, 1000, 5, 0, -1}) {
    bench.say(other, fromCamera("callResponse", sid, "answer"));
    EXPECT_THAT(bench.heard(other), ElementsAre(R"({"code":404,"opcode":"message","messageType":"callResponse",)"
                                                R"("toSerialCode":"","message":"no such viewer in a call"})"));
  }
  EXPECT_THAT(bench.heard(bob), ElementsAre(HasSubstr("cameras")));
  EXPECT_THAT(bench.heard(idle), IsEmpty());
}

TEST_F(Call, LateMessagesOfACameraNeverCloseItsConnection) {
  for (int i = 0; i < 50; ++i) bench.say(camera, fromCamera("remoteCandidate", 1001, "c"));
  EXPECT_TRUE(bench.isOpen(camera));
}

TEST_F(Call, CamerasAndViewersMessageTypesAreTheirOwn) {
  open();
  for (const char* type : {"callRequest", "hangup", "switchAudio", "switchVideo", "", "CallResponse"}) {
    bench.say(camera, fromCamera(type, 1001, R"({\"type\":1})"));
    EXPECT_EQ(lastCode(bench.heard(camera)), 400) << type;
  }
  for (const char* type : {"callResponse", "", "callrequest"}) {
    bench.say(bob, fromViewer(type, "SN1", "x"));
    EXPECT_THAT(bench.heard(bob), ElementsAre(callError(400, type, "unknown message type")));
  }
}

TEST_F(Call, ViewersConnectionThatGoesAwayHangsUp) {
  open();
  bench.hangUpLine(bob);
  EXPECT_THAT(bench.heard(camera), ElementsAre(peerText(1001, "bob", "hangup", "")));
}

TEST_F(Call, ViewerThatIsClosedOrDroppedHangsUp) {
  open();
  bench.sayTooMuch(bob);
  EXPECT_THAT(bench.heard(camera), ElementsAre(peerText(1001, "bob", "hangup", "")));
  const ConnectionId ann = bench.viewer("ann");
  bench.say(ann, fromViewer("callRequest", "SN1", "offer"));
  bench.heard(camera);
  bench.overflow(ann);
  EXPECT_THAT(bench.heard(camera), ElementsAre(peerText(1002, "ann", "hangup", "")));
}

TEST_F(Call, ViewerWithoutACallLeavesInSilence) {
  bench.hangUpLine(bob);
  EXPECT_THAT(bench.heard(camera), IsEmpty());
}

TEST_F(Call, StaysOpenWhenTheCamerasSignInReplacesTheFormer) {
  open();
  const ConnectionId again = bench.camera("SN1");
  bench.say(bob, fromViewer("remoteCandidate", "SN1", "c"));
  EXPECT_THAT(bench.heard(again), ElementsAre(peerText(1001, "bob", "remoteCandidate", "c")));
  bench.say(again, fromCamera("callResponse", 1001, "answer"));
  EXPECT_THAT(bench.heard(bob), ElementsAre(peerText(1002, "SN1", "callResponse", "answer")));
  EXPECT_THAT(bench.heard(camera), IsEmpty());
}

TEST_F(Call, StaysOpenWhileTheCameraIsAwayForLessThanAMinute) {
  open();
  bench.hangUpLine(camera);
  bench.passSpeaking(seconds(59), {bob});
  const ConnectionId again = bench.camera("SN1");
  bench.passSpeaking(seconds(120), {bob, again});
  bench.heard(bob);
  bench.say(again, fromCamera("remoteCandidate", 1001, "c"));
  EXPECT_THAT(bench.heard(bob), ElementsAre(peerText(1002, "SN1", "remoteCandidate", "c")));
}

TEST_F(Call, EndsForTheViewerWhenTheCameraIsAwayForAMinute) {
  open();
  bench.hangUpLine(camera);
  bench.passSpeaking(seconds(59), {bob});
  bench.heard(bob);
  bench.passSpeaking(seconds(1), {bob});
  EXPECT_THAT(bench.heard(bob), ElementsAre(peerText(1000, "SN1", "hangup", "the camera has been offline for 60 s")));

  const ConnectionId again = bench.camera("SN1");
  EXPECT_THAT(bench.heard(again), IsEmpty());
  bench.heard(bob);
  bench.say(bob, fromViewer("remoteCandidate", "SN1", "c"));
  EXPECT_EQ(lastCode(bench.heard(bob)), 409);
}

TEST_F(Call, MinuteCountsFromTheLastTimeThatTheCameraWentAway) {
  open();
  bench.hangUpLine(camera);
  bench.passSpeaking(seconds(40), {bob});
  bench.hangUpLine(bench.camera("SN1"));
  bench.heard(bob);
  bench.passSpeaking(seconds(59), {bob});
  EXPECT_THAT(bench.heard(bob), IsEmpty());
  bench.passSpeaking(seconds(1), {bob});
  EXPECT_THAT(bench.heard(bob), SizeIs(1));
}

TEST_F(Call, WithACameraThatIsAwayTakesOnlyAHangup) {
  open();
  bench.hangUpLine(camera);
  bench.heard(bob);
  for (const char* type : {"callRequest", "remoteCandidate"}) {
    bench.say(bob, fromViewer(type, "SN1", "x"));
    EXPECT_THAT(bench.heard(bob), ElementsAre(callError(404, type, "the camera is offline")));
  }
  bench.say(bob, fromViewer("hangup", "SN1", ""));
  EXPECT_THAT(bench.heard(bob), IsEmpty());
  bench.passSpeaking(seconds(61), {bob});
  EXPECT_THAT(bench.heard(bob), IsEmpty());
}

TEST_F(Call, HangupsWaitForACameraThatIsAway) {
  open();
  const ConnectionId ann = bench.viewer("ann");
  bench.say(ann, fromViewer("callRequest", "SN1", "offer"));
  bench.hangUpLine(camera);
  bench.say(bob, fromViewer("hangup", "SN1", "bye"));
  bench.hangUpLine(ann);
  const ConnectionId again = bench.connect();
  bench.say(again, cameraSignIn("SN1"));
  EXPECT_THAT(bench.heard(again), ElementsAre(HasSubstr(R"("opcode":"signin")"), peerText(1001, "bob", "hangup", ""),
                                              peerText(1002, "ann", "hangup", "")));
  const ConnectionId thirdTime = bench.camera("SN1");
  EXPECT_THAT(bench.heard(thirdTime), IsEmpty());
}

TEST_F(Call, HangupsDoNotWaitLongerThanAMinute) {
  open();
  bench.hangUpLine(camera);
  bench.hangUpLine(bob);
  bench.passSpeaking(seconds(60), {});
  const ConnectionId again = bench.connect();
  bench.say(again, cameraSignIn("SN1"));
  EXPECT_THAT(bench.heard(again), SizeIs(1));
}

TEST_F(Call, NeedsThePermitCodeWhenTheCameraSaysSo) {
  const ConnectionId guarded = bench.camera("SN2", "4711");
  bench.heard(bob);
  bench.say(bob, fromViewer("callRequest", "SN2", "offer"));
  bench.say(bob, callWithPermit("SN2", "4712"));
  bench.say(bob, callWithPermit("SN2", ""));
  EXPECT_THAT(bench.heard(bob), ElementsAre(callError(403, "callRequest", "the permit code is missing", "SN2"),
                                            callError(403, "callRequest", "the permit code is wrong", "SN2"),
                                            callError(403, "callRequest", "the permit code is wrong", "SN2")));
  EXPECT_THAT(bench.heard(guarded), IsEmpty());
  bench.say(bob, callWithPermit("SN2", "4711"));
  EXPECT_THAT(bench.heard(guarded), ElementsAre(peerText(1001, "bob", "callRequest", "offer")));
}

TEST_F(Call, NeedsNoPermitCodeWhenTheCameraAsksForNone) {
  bench.say(bob, callWithPermit("SN1", "anything"));
  EXPECT_THAT(bench.heard(camera), SizeIs(1));
}

TEST_F(Call, AnyNumberButZeroAsksForThePermitCode) {
  bench.say(camera, R"({"opcode":"permitCode","mustPermitCode":-1,"permitCode":"1"})");
  bench.heard(bob);
  bench.say(bob, fromViewer("callRequest", "SN1", "offer"));
  EXPECT_EQ(lastCode(bench.heard(bob)), 403);
}

TEST_F(Call, PermitUpdateCountsForLaterCallsOnly) {
  open();
  bench.say(camera, R"({"opcode":"permitCode","mustPermitCode":1,"permitCode":"new"})");
  EXPECT_THAT(bench.heard(camera), IsEmpty());
  bench.say(bob, fromViewer("remoteCandidate", "SN1", "c"));
  EXPECT_THAT(bench.heard(camera), SizeIs(1));
  const ConnectionId ann = bench.viewer("ann");
  bench.say(ann, callWithPermit("SN1", "old"));
  EXPECT_EQ(lastCode(bench.heard(ann)), 403);
  bench.say(ann, callWithPermit("SN1", "new"));
  EXPECT_THAT(bench.heard(ann), IsEmpty());
}

TEST_F(Call, NextSignInBringsThePermitSettingAnew) {
  bench.camera("SN1", "4711");
  bench.heard(bob);
  bench.say(bob, fromViewer("callRequest", "SN1", "offer"));
  EXPECT_EQ(lastCode(bench.heard(bob)), 403);
}

TEST_F(Call, TenthWrongPermitCodeClosesTheViewersConnection) {
  const ConnectionId guarded = bench.camera("SN2", "4711");
  for (int i = 0; i < 9; ++i) bench.say(bob, callWithPermit("SN2", "1"));
  EXPECT_TRUE(bench.isOpen(bob));
  bench.heard(bob);
  bench.say(bob, callWithPermit("SN2", "1"));
  EXPECT_EQ(lastCode(bench.heard(bob)), 403);
  EXPECT_EQ(bench.closeStatus(bob), 1008);
  EXPECT_TRUE(bench.isOpen(guarded));
}

TEST_F(Call, ViewerHasAtMostSixteen) {
  std::vector<ConnectionId> cameras;
  for (int i = 0; i < 17; ++i) cameras.push_back(bench.camera("C" + std::to_string(i)));
  bench.heard(bob);
  for (int i = 0; i < 16; ++i) bench.say(bob, fromViewer("callRequest", "C" + std::to_string(i), "offer"));
  EXPECT_THAT(bench.heard(bob), IsEmpty());
  bench.say(bob, fromViewer("callRequest", "C16", "offer"));
  EXPECT_THAT(bench.heard(bob), ElementsAre(callError(429, "callRequest", "too many calls at once", "C16")));
  EXPECT_THAT(bench.heard(cameras[16]), IsEmpty());

  bench.say(bob, fromViewer("callRequest", "C3", "again"));
  EXPECT_THAT(bench.heard(bob), IsEmpty());
  bench.say(bob, fromViewer("hangup", "C3", ""));
  bench.say(bob, fromViewer("callRequest", "C16", "offer"));
  EXPECT_THAT(bench.heard(bob), IsEmpty());
}

TEST_F(Call, CameraHasAtMostSixtyFour) {
  std::vector<ConnectionId> viewers;
  for (int i = 0; i < 65; ++i) {
    viewers.push_back(bench.viewer());
    bench.say(viewers.back(), fromViewer("callRequest", "SN1", "offer"));
  }
  EXPECT_THAT(bench.heard(viewers[63]), IsEmpty());
  EXPECT_THAT(bench.heard(viewers[64]),
              ElementsAre(callError(429, "callRequest", "the camera has too many calls at once")));
  EXPECT_THAT(bench.heard(camera), SizeIs(64));
  bench.hangUpLine(viewers[0]);
  bench.say(viewers[64], fromViewer("callRequest", "SN1", "offer"));
  EXPECT_THAT(bench.heard(viewers[64]), IsEmpty());
}

TEST_F(Call, RepeatedAnswersArePassedOnEachTime) {
  open();
  bench.say(camera, fromCamera("callResponse", 1001, "answer"));
  bench.say(camera, fromCamera("callResponse", 1001, "answer"));
  EXPECT_THAT(bench.heard(bob), SizeIs(2));
}

TEST_F(Call, IsLogged) {
  open();
  bench.say(bob, fromViewer("hangup", "SN1", ""));
  EXPECT_THAT(bench.log(), HasSubstr("viewer \"bob\" (sid 1001) calls camera \"SN1\"\n"));
  EXPECT_THAT(bench.log(), HasSubstr("viewer \"bob\" (sid 1001) hung up on camera \"SN1\"\n"));
}

}  // namespace
}  // namespace signalconn::server
