#include "video_input.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace kovra {
namespace {

using Bytes = std::vector<std::uint8_t>;

const Bytes kKeyFrame = {0, 0, 0,    1,    0x67, 0x42, 0xE0, 0x1F, 0xDA, 0x02, 0xD0, 0,    0,
                         0, 1, 0x68, 0xCE, 0x38, 0x80, 0,    0,    0,    1,    0x65, 0x88, 0x11};
const Bytes kFrame = {0, 0, 0, 1, 0x41, 0x9A, 0x22};

class VideoInputTest : public testing::Test {
 protected:
  bool write(const Bytes& unit, int videoType = 1, bool isWatched = true) {
    return input_.write(ByteView(unit), videoType, isWatched, Micros{++frames_ * 50'000});
  }
  // When the last frame was written.
  Micros now() const { return Micros{frames_ * 50'000}; }
  std::vector<QueuedFrame> queued() {
    std::vector<QueuedFrame> frames;
    queue_.take(frames);
    return frames;
  }

  FrameQueue queue_;
  VideoInput input_{FramePool::Create(1 << 20), queue_};
  std::int64_t frames_ = 0;
};

TEST_F(VideoInputTest, QueuesEveryFrameWithItsTypeAndNumber) {
  EXPECT_TRUE(write(kKeyFrame, 1));
  EXPECT_FALSE(write(kFrame, 2));
  EXPECT_FALSE(write(kFrame, 1));
  const auto frames = queued();
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(frames[0].type, 1);
  EXPECT_EQ(frames[1].type, 2);
  EXPECT_EQ(frames[0].medium, QueuedFrame::Medium::kVideo);
  EXPECT_LT(frames[0].media.number, frames[1].media.number);
  EXPECT_LT(frames[1].media.number, frames[2].media.number);
  EXPECT_EQ(frames[2].media.arrived, Micros{150'000});
}

TEST_F(VideoInputTest, RemembersForNewcomersWhatNobodyWatched) {
  write(kKeyFrame, 1, false);
  write(kFrame, 1, false);
  EXPECT_TRUE(queued().empty());
  EXPECT_EQ(input_.recent(1, now()).size(), 2u);
  EXPECT_TRUE(input_.recent(2, now()).empty());
}

TEST_F(VideoInputTest, ShowsNewcomersNoPictureOfAStreamThatHasStopped) {
  write(kKeyFrame, 1);
  write(kFrame, 1);
  EXPECT_EQ(input_.recent(1, now() + RecentFrames::kMaxAge).size(), 2u);
  EXPECT_TRUE(input_.recent(1, now() + RecentFrames::kMaxAge + Micros{1}).empty());
  EXPECT_TRUE(input_.recent(1, now()).empty()) << "it is forgotten, not hidden";
}

TEST_F(VideoInputTest, ForgetsOnlyTheStreamsThatHaveStopped) {
  write(kKeyFrame, 1, false);
  const Micros first = now();
  write(kKeyFrame, 2, false);
  input_.forgetStale(first + RecentFrames::kMaxAge + Micros{1});
  EXPECT_TRUE(input_.recent(1, first).empty());
  EXPECT_EQ(input_.recent(2, first).size(), 1u);
}

TEST_F(VideoInputTest, IgnoresWhatIsNoPicture) {
  EXPECT_FALSE(write({}));
  EXPECT_FALSE(write({1, 2, 3}));
  EXPECT_TRUE(queued().empty());
}

TEST_F(VideoInputTest, TellsWhenAFrameIsTooLargeToBeSent) {
  Bytes huge = kKeyFrame;
  huge.resize(H264Packetizer::kMaxAccessUnitBytes + 1, 0x77);
  write(kKeyFrame, 1);
  write(kKeyFrame, 2);
  queued();
  EXPECT_FALSE(write(huge, 1));
  EXPECT_FALSE(write(kFrame, 1));
  const auto frames = queued();
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0].type, 1);
  EXPECT_FALSE(frames[0].media.frame) << "one is lost";
  EXPECT_LT(frames[0].media.number, frames[1].media.number);
  EXPECT_TRUE(frames[1].media.frame);
  EXPECT_TRUE(input_.recent(1, now()).empty()) << "what follows is of no use without it";
  EXPECT_EQ(input_.recent(2, now()).size(), 1u);
}

TEST_F(VideoInputTest, ComplainsOnceAboutFramesThatAreTooLarge) {
  const Bytes huge(H264Packetizer::kMaxAccessUnitBytes + 1, 0x77);
  testing::internal::CaptureStderr();
  for (int i = 0; i < 3; ++i) write(huge, 1);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
  EXPECT_NE(log.find("video type 1"), std::string::npos) << log;
}

TEST_F(VideoInputTest, TakesABoundedNumberOfStreams) {
  for (int type = 0; type < static_cast<int>(VideoInput::kMaxStreams); ++type) EXPECT_TRUE(write(kKeyFrame, type));
  EXPECT_FALSE(write(kKeyFrame, 1000));
  EXPECT_TRUE(write(kKeyFrame, 3));
}

}  // namespace
}  // namespace kovra
