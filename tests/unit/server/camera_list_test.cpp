// The list of the cameras online, as viewers are told it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "switchboard_bench.h"

namespace signalconn::server {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

std::string list(const std::string& entries) { return R"({"code":0,"opcode":"cameras","cameras":[)" + entries + "]}"; }

std::string entry(const std::string& serialCode, int mustPermit) {
  return R"({"serialCode":")" + serialCode + R"(","mustPermitCode":)" + std::to_string(mustPermit) + "}";
}

std::string permitUpdate(int mustPermit, const std::string& code) {
  return R"({"opcode":"permitCode","mustPermitCode":)" + std::to_string(mustPermit) + R"(,"permitCode":")" + code +
         R"("})";
}

class CameraList : public ::testing::Test {
 protected:
  SwitchboardBench bench;
};

TEST_F(CameraList, ComesInTheOrderOfTheSerialCodes) {
  bench.camera("b");
  bench.camera("B", "1");
  bench.camera("a");
  const ConnectionId viewer = bench.connect();
  bench.say(viewer, viewerSignIn(""));
  EXPECT_EQ(bench.heard(viewer).back(), list(entry("B", 1) + "," + entry("a", 0) + "," + entry("b", 0)));
}

TEST_F(CameraList, ComesAgainWhenACameraComesAndGoes) {
  const ConnectionId viewer = bench.viewer();
  const ConnectionId camera = bench.camera("SN1");
  EXPECT_THAT(bench.heard(viewer), ElementsAre(list(entry("SN1", 0))));
  bench.hangUpLine(camera);
  EXPECT_THAT(bench.heard(viewer), ElementsAre(list("")));
}

TEST_F(CameraList, ComesAgainWhenACameraIsDroppedOrClosed) {
  const ConnectionId viewer = bench.viewer();
  bench.overflow(bench.camera("SN1"));
  EXPECT_EQ(bench.heard(viewer).back(), list(""));
  bench.sayTooMuch(bench.camera("SN2"));
  EXPECT_EQ(bench.heard(viewer).back(), list(""));
}

TEST_F(CameraList, ComesAgainWhenACamerasPermitSettingChanges) {
  const ConnectionId viewer = bench.viewer();
  const ConnectionId camera = bench.camera("SN1");
  bench.heard(viewer);
  bench.say(camera, permitUpdate(1, "1"));
  EXPECT_THAT(bench.heard(viewer), ElementsAre(list(entry("SN1", 1))));
  bench.say(camera, permitUpdate(7, "2"));
  EXPECT_THAT(bench.heard(viewer), IsEmpty());
  bench.say(camera, permitUpdate(0, ""));
  EXPECT_THAT(bench.heard(viewer), ElementsAre(list(entry("SN1", 0))));
}

TEST_F(CameraList, DoesNotComeAgainWhenACameraIsReplacedUnchanged) {
  const ConnectionId viewer = bench.viewer();
  bench.camera("SN1");
  bench.heard(viewer);
  bench.camera("SN1");
  EXPECT_THAT(bench.heard(viewer), IsEmpty());
  bench.camera("SN1", "1");
  EXPECT_THAT(bench.heard(viewer), ElementsAre(list(entry("SN1", 1))));
}

TEST_F(CameraList, IsThatOfTheViewersAccount) {
  const ConnectionId home = bench.viewer();
  const ConnectionId work = bench.connect();
  bench.say(work, viewerSignIn("", "work", "desk"));
  bench.heard(work);
  bench.camera("SN1");
  EXPECT_THAT(bench.heard(work), IsEmpty());
  EXPECT_THAT(bench.heard(home), Not(IsEmpty()));
}

TEST_F(CameraList, NeverGoesToCameras) {
  const ConnectionId camera = bench.camera("SN1");
  bench.camera("SN2");
  EXPECT_THAT(bench.heard(camera), IsEmpty());
}

TEST_F(CameraList, IsMarkedSoThatOnlyTheLatestNeedReachASlowViewer) {
  const ConnectionId viewer = bench.viewer();
  bench.camera("SN1");
  bench.camera("SN2");
  EXPECT_EQ(bench.superseding(viewer), 2);
  bench.say(viewer, fromViewer("callRequest", "SN9", ""));
  bench.say(viewer, kHeartbeat);
  EXPECT_EQ(bench.superseding(viewer), 2);
}

TEST_F(CameraList, HoldsNamesInOtherScripts) {
  const ConnectionId viewer = bench.viewer();
  bench.camera(R"(\u00fc\"\\)");
  EXPECT_EQ(bench.heard(viewer).back(), list("{\"serialCode\":\"\xC3\xBC\\\"\\\\\",\"mustPermitCode\":0}"));
}

}  // namespace
}  // namespace signalconn::server
