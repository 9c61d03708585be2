// Heartbeats, pings and what becomes of a connection on which nothing arrives or from which nothing is read.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "switchboard_bench.h"

namespace signalconn::server {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class ConnectionLife : public ::testing::Test {
 protected:
  SwitchboardBench bench;
};

TEST_F(ConnectionLife, HeartbeatIsAnsweredToEverybody) {
  for (const ConnectionId party : {bench.connect(), bench.camera(), bench.viewer()}) {
    bench.say(party, kHeartbeat);
    EXPECT_THAT(bench.heard(party), ElementsAre(kHeartbeatReply));
  }
}

TEST_F(ConnectionLife, SilentPartyIsPingedOnceHalfWay) {
  const ConnectionId camera = bench.camera();
  bench.pass(milliseconds(29999));
  EXPECT_EQ(bench.pings(camera), 0);
  bench.pass(milliseconds(1));
  EXPECT_EQ(bench.pings(camera), 1);
  bench.pass(seconds(10));
  EXPECT_EQ(bench.pings(camera), 1);
}

TEST_F(ConnectionLife, SilentPartyIsDroppedAfterAMinute) {
  const ConnectionId camera = bench.camera();
  bench.pass(seconds(30));
  bench.pass(milliseconds(29999));
  EXPECT_TRUE(bench.isOpen(camera));
  bench.pass(milliseconds(1));
  EXPECT_TRUE(bench.isDropped(camera));
  EXPECT_THAT(bench.log(), HasSubstr("dropped camera \"SN1\" (sid 1000): nothing was heard of it for 60 s\n"));
}

TEST_F(ConnectionLife, NobodyIsDroppedUnpingedWhenTheServerItselfStoodStill) {
  const ConnectionId camera = bench.camera();
  bench.pass(seconds(3600));
  EXPECT_EQ(bench.pings(camera), 1);
  bench.pass(milliseconds(29999));
  EXPECT_TRUE(bench.isOpen(camera));
  bench.pass(milliseconds(1));
  EXPECT_TRUE(bench.isDropped(camera));
}

TEST_F(ConnectionLife, PartyThatAnswersPingsLivesOn) {
  const ConnectionId viewer = bench.viewer();
  for (int i = 1; i <= 5; ++i) {
    bench.pass(seconds(30));
    EXPECT_EQ(bench.pings(viewer), i);
    bench.pong(viewer);
  }
  EXPECT_TRUE(bench.isOpen(viewer));
}

TEST_F(ConnectionLife, PartyThatSendsMessagesLivesOnWithoutPings) {
  const ConnectionId camera = bench.camera();
  for (int i = 0; i < 10; ++i) {
    bench.pass(seconds(20));
    bench.say(camera, kHeartbeat);
  }
  EXPECT_TRUE(bench.isOpen(camera));
  EXPECT_EQ(bench.pings(camera), 0);
}

TEST_F(ConnectionLife, EvenMalformedMessagesAreSignsOfLife) {
  const ConnectionId viewer = bench.viewer();
  bench.pass(seconds(59));
  bench.sayBinary(viewer);
  bench.pass(seconds(59));
  bench.say(viewer, "x");
  bench.pass(seconds(59));
  EXPECT_TRUE(bench.isOpen(viewer));
}

TEST_F(ConnectionLife, PartyThatReadsTooSlowlyIsDropped) {
  const ConnectionId camera = bench.camera();
  bench.overflow(camera);
  EXPECT_TRUE(bench.isDropped(camera));
  EXPECT_THAT(bench.log(), HasSubstr("dropped camera \"SN1\" (sid 1000): it reads too slowly\n"));
}

TEST_F(ConnectionLife, DroppedViewersCallsEnd) {
  const ConnectionId camera = bench.camera();
  const ConnectionId viewer = bench.viewer("bob");
  bench.say(viewer, fromViewer("callRequest", "SN1", "offer"));
  bench.heard(camera);
  bench.passSpeaking(seconds(60), {camera});
  EXPECT_TRUE(bench.isDropped(viewer));
  EXPECT_THAT(bench.heard(camera), ElementsAre(peerText(1001, "bob", "hangup", "")));
}

TEST_F(ConnectionLife, DroppedCamerasViewersAreToldAMinuteLater) {
  const ConnectionId camera = bench.camera();
  const ConnectionId viewer = bench.viewer("bob");
  bench.say(viewer, fromViewer("callRequest", "SN1", "offer"));
  bench.passSpeaking(seconds(60), {viewer});
  EXPECT_TRUE(bench.isDropped(camera));
  EXPECT_EQ(bench.heard(viewer).back(), R"({"code":0,"opcode":"cameras","cameras":[]})");
  bench.passSpeaking(seconds(60), {viewer});
  EXPECT_THAT(bench.heard(viewer), ElementsAre(HasSubstr("hangup")));
}

}  // namespace
}  // namespace signalconn::server
