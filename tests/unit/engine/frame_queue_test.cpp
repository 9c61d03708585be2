#include "frame_queue.h"

#include <gtest/gtest.h>

namespace kovra {
namespace {

QueuedFrame Frame(int type) {
  QueuedFrame frame;
  frame.type = type;
  return frame;
}

TEST(FrameQueue, KeepsTheOrder) {
  FrameQueue queue;
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(queue.push(Frame(i)));
  std::vector<QueuedFrame> taken;
  queue.take(taken);
  ASSERT_EQ(taken.size(), 3u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(taken[static_cast<std::size_t>(i)].type, i);
}

TEST(FrameQueue, GivesEveryFrameOnce) {
  FrameQueue queue;
  queue.push(Frame(1));
  std::vector<QueuedFrame> taken;
  queue.take(taken);
  taken.clear();
  queue.take(taken);
  EXPECT_TRUE(taken.empty());
}

TEST(FrameQueue, DropsWhatIsTooMuchAndTellsSoOnceBehindWhatCameBefore) {
  FrameQueue queue;
  for (std::size_t i = 0; i < FrameQueue::kMaxFrames; ++i) ASSERT_TRUE(queue.push(Frame(0)));
  EXPECT_FALSE(queue.push(Frame(0)));
  EXPECT_FALSE(queue.push(Frame(0)));
  std::vector<QueuedFrame> taken;
  queue.take(taken);
  ASSERT_EQ(taken.size(), FrameQueue::kMaxFrames + 1);
  for (std::size_t i = 0; i < FrameQueue::kMaxFrames; ++i) EXPECT_NE(taken[i].medium, QueuedFrame::Medium::kLoss);
  EXPECT_EQ(taken.back().medium, QueuedFrame::Medium::kLoss);
  taken.clear();
  EXPECT_TRUE(queue.push(Frame(0)));
  queue.take(taken);
  ASSERT_EQ(taken.size(), 1u);
  EXPECT_NE(taken.front().medium, QueuedFrame::Medium::kLoss);
}

}  // namespace
}  // namespace kovra
