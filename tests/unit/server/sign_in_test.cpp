#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "switchboard_bench.h"

namespace signalconn::server {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

const std::string kIceServers =
    R"("stunAddr":["stun:s.example:3478"],"turnAddr":["turn:a.example:3478","turns:b.example:5349"],)"
    R"("turnUser":["anna","bert"],"turnPass":["alpha","beta"]})";

std::string signInError(int code, const std::string& words) {
  return R"({"code":)" + std::to_string(code) + R"(,"opcode":"signin","message":")" + words + R"("})";
}

// A sign-in with one key replaced by a fault; whole is a valid one.
std::string broken(std::string whole, const std::string& part, const std::string& fault) {
  const std::size_t at = whole.find(part);
  EXPECT_NE(at, std::string::npos) << part;
  return whole.replace(at, part.size(), fault);
}

class SignIn : public ::testing::Test {
 protected:
  void expectRefused(const std::string& request, int code, const std::string& words) {
    const ConnectionId party = bench.connect();
    bench.say(party, request);
    EXPECT_THAT(bench.heard(party), ElementsAre(signInError(code, words))) << request;
    EXPECT_EQ(bench.closeStatus(party), 1008) << request;
  }

  SwitchboardBench bench;
};

TEST_F(SignIn, CameraGetsItsSidAndTheIceServers) {
  const ConnectionId camera = bench.connect();
  bench.say(camera, cameraSignIn("SN1"));
  EXPECT_THAT(bench.heard(camera), ElementsAre(R"({"code":0,"opcode":"signin","sid":1000,)" + kIceServers));
}

TEST_F(SignIn, ViewerGetsItsSidTheIceServersAndTheCameras) {
  const ConnectionId viewer = bench.connect();
  bench.say(viewer, R"({"opcode":"signin","key":"home","secret":"house","loginType":2})");
  EXPECT_THAT(bench.heard(viewer), ElementsAre(R"({"code":0,"opcode":"signin","sid":1000,)" + kIceServers,
                                               R"({"code":0,"opcode":"cameras","cameras":[]})"));
}

TEST_F(SignIn, KeysMayStandInAnyOrderAndUnknownOnesAreIgnored) {
  const ConnectionId viewer = bench.connect();
  bench.say(viewer, R"({"x":{"opcode":1},"loginType":2,"secret":"house","code":7,"key":"home","opcode":"signin"})");
  EXPECT_EQ(lastCode(bench.heard(viewer)), 0);
}

TEST_F(SignIn, EverySidIsNew) {
  const ConnectionId first = bench.viewer();
  bench.hangUpLine(first);
  const ConnectionId second = bench.connect();
  bench.say(second, viewerSignIn(""));
  EXPECT_THAT(bench.heard(second).front(), HasSubstr(R"("sid":1001)"));
}

TEST(SignInNumbers, StartAgainAtOneAfterTheHighest) {
  SwitchboardBench bench(std::numeric_limits<int>::max());
  const ConnectionId highest = bench.connect();
  bench.say(highest, viewerSignIn(""));
  EXPECT_THAT(bench.heard(highest).front(), HasSubstr(R"("sid":2147483647)"));
  const ConnectionId next = bench.connect();
  bench.say(next, viewerSignIn(""));
  EXPECT_THAT(bench.heard(next).front(), HasSubstr(R"("sid":1,)"));
}

TEST_F(SignIn, UnknownKeyOrWrongSecretIsRefused) {
  expectRefused(cameraSignIn("SN1", "", "nobody", "house"), 401, "unknown key or wrong secret");
  expectRefused(cameraSignIn("SN1", "", "home", "desk"), 401, "unknown key or wrong secret");
  expectRefused(viewerSignIn("", "home", ""), 401, "unknown key or wrong secret");
}

TEST_F(SignIn, NamesTheKeyThatIsMissingOrOfTheWrongType) {
  const std::string camera = cameraSignIn("SN1");
  expectRefused(R"({"opcode":"signin"})", 400, R"(\"loginType\" is missing)");
  expectRefused(broken(camera, R"("loginType":1)", R"("loginType":"1")"), 400,
                R"(\"loginType\" is not an integer in 32 bits)");
  expectRefused(broken(camera, R"("loginType":1)", R"("loginType":3)"), 400, R"(\"loginType\" is neither 1 nor 2)");
  expectRefused(broken(camera, R"("key":"home")", R"("Key":"home")"), 400, R"(\"key\" is missing)");
  expectRefused(broken(camera, R"("secret":"house")", R"("secret":5)"), 400, R"(\"secret\" is not a string)");
  expectRefused(broken(camera, R"("authType":2)", R"("authType":2.5)"), 400,
                R"(\"authType\" is not an integer in 32 bits)");
  expectRefused(broken(camera, R"("authCode":"a",)", ""), 400, R"(\"authCode\" is missing)");
  expectRefused(broken(camera, R"("mac":"00:11",)", ""), 400, R"(\"mac\" is missing)");
  expectRefused(broken(camera, R"("mustPermitCode":0,)", ""), 400, R"(\"mustPermitCode\" is missing)");
  expectRefused(broken(camera, R"("permitCode":"")", R"("permitCode":null)"), 400, R"(\"permitCode\" is not a string)");
}

TEST_F(SignIn, CamerasSerialCodeHasBounds) {
  expectRefused(cameraSignIn(""), 400, R"(\"serialCode\" is empty)");
  expectRefused(cameraSignIn(std::string(65, 'x')), 400, R"(\"serialCode\" is longer than 64 bytes)");
  expectRefused(cameraSignIn(R"(a\nb)"), 400, R"(\"serialCode\" holds a control character)");
  bench.camera(std::string(64, 'x'));
  const ConnectionId viewer = bench.connect();
  bench.say(viewer, viewerSignIn(""));
  EXPECT_THAT(bench.heard(viewer).back(), HasSubstr(std::string(64, 'x')));
}

TEST_F(SignIn, ViewersNameHasTheSameBoundsButMayBeEmpty) {
  expectRefused(viewerSignIn(std::string(65, 'x')), 400, R"(\"serialCode\" is longer than 64 bytes)");
  expectRefused(broken(viewerSignIn("a"), R"("serialCode":"a")", R"("serialCode":1)"), 400,
                R"(\"serialCode\" is not a string)");
  const ConnectionId viewer = bench.connect();
  bench.say(viewer, viewerSignIn(""));
  EXPECT_EQ(lastCode(bench.heard(viewer)), 0);
}

TEST_F(SignIn, PermitCodeIsAtMost256BytesLong) {
  expectRefused(cameraSignIn("SN1", std::string(257, '1')), 400, R"(\"permitCode\" is too long)");
  const ConnectionId camera = bench.connect();
  bench.say(camera, cameraSignIn("SN1", std::string(256, '1')));
  EXPECT_EQ(lastCode(bench.heard(camera)), 0);
}

TEST_F(SignIn, SecondOneOnAConnectionIsOutOfTurnAndChangesNothing) {
  const ConnectionId camera = bench.camera("SN1");
  bench.say(camera, cameraSignIn("SN2"));
  EXPECT_THAT(bench.heard(camera), ElementsAre(signInError(409, "signed in already")));
  EXPECT_TRUE(bench.isOpen(camera));
  const ConnectionId viewer = bench.connect();
  bench.say(viewer, viewerSignIn(""));
  EXPECT_THAT(bench.heard(viewer).back(), AllOf(HasSubstr("SN1"), Not(HasSubstr("SN2"))));
}

TEST_F(SignIn, HeartbeatMayComeBefore) {
  const ConnectionId party = bench.connect();
  bench.say(party, kHeartbeat);
  EXPECT_THAT(bench.heard(party), ElementsAre(kHeartbeatReply));
  bench.say(party, viewerSignIn(""));
  EXPECT_EQ(lastCode(bench.heard(party)), 0);
}

TEST_F(SignIn, NothingElseMayComeBefore) {
  const ConnectionId party = bench.connect();
  bench.say(party, fromViewer("hangup", "SN1", ""));
  bench.say(party, R"({"opcode":"permitCode","mustPermitCode":1,"permitCode":"1"})");
  EXPECT_THAT(bench.heard(party),
              ElementsAre(R"({"code":409,"opcode":"message","messageType":"hangup","toSerialCode":"SN1",)"
                          R"("message":"not signed in yet"})",
                          R"({"code":409,"opcode":"permitCode","message":"not signed in yet"})"));
  EXPECT_TRUE(bench.isOpen(party));
}

TEST_F(SignIn, IsDueWithinTenSeconds) {
  const ConnectionId party = bench.connect();
  bench.pass(std::chrono::milliseconds(9999));
  bench.say(party, kHeartbeat);
  EXPECT_TRUE(bench.isOpen(party));
  bench.heard(party);
  bench.pass(std::chrono::milliseconds(1));
  EXPECT_THAT(bench.heard(party), ElementsAre(R"({"code":408,"opcode":"","message":"no sign-in within 10 s"})"));
  EXPECT_EQ(bench.closeStatus(party), 1008);
}

TEST_F(SignIn, SameSerialCodeAgainTakesTheFormersPlace) {
  const ConnectionId former = bench.camera("SN1");
  const ConnectionId latter = bench.connect();
  bench.say(latter, cameraSignIn("SN1"));
  EXPECT_EQ(lastCode(bench.heard(latter)), 0);
  EXPECT_EQ(bench.closeStatus(former), 1008);
  EXPECT_THAT(bench.heard(former), IsEmpty());

  bench.hangUpLine(former);
  const ConnectionId viewer = bench.connect();
  bench.say(viewer, viewerSignIn(""));
  EXPECT_THAT(bench.heard(viewer).back(), HasSubstr("SN1"));
}

TEST_F(SignIn, SameSerialCodeInAnotherAccountIsAnotherCamera) {
  const ConnectionId home = bench.camera("SN1");
  const ConnectionId work = bench.connect();
  bench.say(work, cameraSignIn("SN1", "", "work", "desk"));
  EXPECT_EQ(lastCode(bench.heard(work)), 0);
  EXPECT_TRUE(bench.isOpen(home));
}

TEST_F(SignIn, SameNameOfTwoViewersIsNoMatter) {
  const ConnectionId first = bench.viewer("bob");
  const ConnectionId second = bench.viewer("bob");
  EXPECT_TRUE(bench.isOpen(first));
  EXPECT_TRUE(bench.isOpen(second));
}

TEST_F(SignIn, IsLoggedWithoutSecretsAndPermitCodes) {
  bench.camera("SN1", "4711");
  const ConnectionId viewer = bench.viewer("bob");
  bench.say(viewer, callWithPermit("SN1", "0815"));
  bench.say(bench.connect(), viewerSignIn("", "attempted-key", "guessed-secret"));
  EXPECT_THAT(bench.log(), HasSubstr(R"(camera "SN1" (sid 1000) signed in to account "home" from 192.0.2.1)"));
  EXPECT_THAT(bench.log(), HasSubstr("refused the party at 192.0.2.1: 401 unknown key or wrong secret"));
  for (const char* secret : {"house", "4711", "0815", "attempted-key", "guessed-secret"}) {
    EXPECT_THAT(bench.log(), Not(HasSubstr(secret)));
  }
}

}  // namespace
}  // namespace signalconn::server
