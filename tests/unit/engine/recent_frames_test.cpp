#include "recent_frames.h"

#include <gtest/gtest.h>

namespace kovra {
namespace {

class RecentFramesTest : public testing::Test {
 protected:
  void add(bool keyFrame, std::size_t packets = 1) {
    FrameRef frame = pool_->take(packets * 4);
    const std::uint8_t payload[4] = {1, 2, 3, 4};
    for (std::size_t i = 0; i < packets; ++i) frame.edit().add({}, {payload, sizeof(payload)}, false);
    frame.edit().setKeyFrame(keyFrame);
    recent_.add({std::move(frame), ++number_, now_});
  }

  const std::shared_ptr<FramePool> pool_ = FramePool::Create(1 << 20);
  RecentFrames recent_;
  std::uint64_t number_ = 0;
  Micros now_{0};
};

TEST_F(RecentFramesTest, KeepsNothingBeforeTheFirstKeyFrame) {
  add(false);
  EXPECT_TRUE(recent_.frames().empty());
}

TEST_F(RecentFramesTest, KeepsAllFromTheLastKeyFrameOn) {
  add(true);
  add(false);
  add(true);
  add(false);
  add(false);
  ASSERT_EQ(recent_.frames().size(), 3u);
  EXPECT_TRUE(recent_.frames()[0].frame->isKeyFrame());
  EXPECT_EQ(recent_.frames()[0].number, 3u);
  EXPECT_EQ(recent_.frames()[2].number, 5u);
}

TEST_F(RecentFramesTest, KeepsNothingOfAGroupThatIsTooLong) {
  add(true);
  for (std::size_t i = 1; i < RecentFrames::kMaxFrames; ++i) add(false);
  EXPECT_EQ(recent_.frames().size(), RecentFrames::kMaxFrames);
  add(false);
  EXPECT_TRUE(recent_.frames().empty());
  add(false);
  EXPECT_TRUE(recent_.frames().empty());
  add(true);
  EXPECT_EQ(recent_.frames().size(), 1u);
}

TEST_F(RecentFramesTest, KeepsNothingOfAGroupThatIsTooLarge) {
  add(true, RecentFrames::kMaxPackets);
  EXPECT_EQ(recent_.frames().size(), 1u);
  add(false);
  EXPECT_TRUE(recent_.frames().empty());
  add(true, RecentFrames::kMaxPackets + 1);
  EXPECT_TRUE(recent_.frames().empty());
}

TEST_F(RecentFramesTest, KeepsNothingOfAStreamThatHasStopped) {
  add(true);
  now_ = Micros{5'000'000};
  add(false);
  recent_.forgetStale(now_ + RecentFrames::kMaxAge);
  EXPECT_EQ(recent_.frames().size(), 2u) << "the last frame counts, not the first";
  recent_.forgetStale(now_ + RecentFrames::kMaxAge + Micros{1});
  EXPECT_TRUE(recent_.frames().empty());
  EXPECT_GT(pool_->idleBytes(), 0u) << "their memory is given back";
  add(false);
  EXPECT_TRUE(recent_.frames().empty()) << "what follows is of no use without the beginning";
}

TEST_F(RecentFramesTest, ForgetsNothingWhereThereIsNothing) {
  recent_.forgetStale(Micros{5'000'000});
  EXPECT_TRUE(recent_.frames().empty());
}

}  // namespace
}  // namespace kovra
