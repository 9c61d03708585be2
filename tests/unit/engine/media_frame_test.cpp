#include "media_frame.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace kovra {
namespace {

const std::vector<std::uint8_t> kBody = {1, 2, 3, 4};

TEST(MediaFrame, HoldsPayloadsOfPrefixAndBody) {
  FrameRef frame = FramePool::Create(0)->take(16);
  const std::uint8_t prefix[] = {9};
  frame.edit().add({prefix, 1}, ByteView(kBody), true);
  frame.edit().add({}, ByteView(kBody).from(2), false);
  ASSERT_EQ(frame->packetCount(), 2u);
  EXPECT_EQ(frame->payload(0).size, 5u);
  EXPECT_EQ(frame->payload(0)[0], 9);
  EXPECT_EQ(frame->payload(0)[4], 4);
  EXPECT_TRUE(frame->marker(0));
  EXPECT_EQ(frame->payload(1).size, 2u);
  EXPECT_EQ(frame->payload(1)[0], 3);
  EXPECT_FALSE(frame->marker(1));
}

TEST(MediaFrame, MarksTheLastPacketIfThereIsOne) {
  FrameRef frame = FramePool::Create(0)->take(16);
  frame.edit().setMarkerOnLast();
  frame.edit().add({}, ByteView(kBody), false);
  frame.edit().add({}, ByteView(kBody), false);
  frame.edit().setMarkerOnLast();
  EXPECT_FALSE(frame->marker(0));
  EXPECT_TRUE(frame->marker(1));
}

TEST(FrameRef, OutlivesThePool) {
  std::shared_ptr<FramePool> pool = FramePool::Create(1 << 16);
  FrameRef frame = pool->take(100);
  frame.edit().add({}, ByteView(kBody), true);
  pool.reset();
  EXPECT_EQ(frame->payload(0)[3], 4);
}

TEST(FrameRef, GivesTheFrameBackWithTheLastReference) {
  const std::shared_ptr<FramePool> pool = FramePool::Create(1 << 16);
  FrameRef first = pool->take(100);
  FrameRef second = first;
  const FrameRef third = std::move(second);
  EXPECT_FALSE(second);  // NOLINT(bugprone-use-after-move): a reference that was moved from is empty
  first.reset();
  EXPECT_EQ(pool->idleBytes(), 0u);
  EXPECT_TRUE(third);
  second = third;
  second = FrameRef();
  EXPECT_EQ(pool->idleBytes(), 0u);
  const_cast<FrameRef&>(third).reset();
  EXPECT_GE(pool->idleBytes(), 100u);
}

TEST(FrameRef, SurvivesAssignmentToItself) {
  FrameRef frame = FramePool::Create(0)->take(16);
  frame.edit().setTimestamp(7);
  const FrameRef& same = frame;
  frame = same;
  EXPECT_EQ(frame->timestamp(), 7u);
}

TEST(FramePool, LendsReturnedFramesEmptied) {
  const std::shared_ptr<FramePool> pool = FramePool::Create(1 << 16);
  FrameRef frame = pool->take(100);
  const MediaFrame* address = &*frame;
  frame.edit().add({}, ByteView(kBody), true);
  frame.edit().setTimestamp(5);
  frame.edit().setKeyFrame(true);
  frame.reset();
  frame = pool->take(100);
  EXPECT_EQ(&*frame, address);
  EXPECT_EQ(frame->packetCount(), 0u);
  EXPECT_EQ(frame->timestamp(), 0u);
  EXPECT_FALSE(frame->isKeyFrame());
  EXPECT_EQ(pool->idleBytes(), 0u);
}

TEST(FramePool, LendsTheSmallestIdleFrameThatIsLargeEnough) {
  const std::shared_ptr<FramePool> pool = FramePool::Create(1 << 20);
  FrameRef small = pool->take(1000);
  FrameRef middle = pool->take(3000);
  FrameRef large = pool->take(5000);
  const MediaFrame* address = &*middle;
  large.reset();
  middle.reset();
  small.reset();
  EXPECT_EQ(&*pool->take(2000), address);
}

TEST(FramePool, DoesNotSpendALargeBlockOnASmallFrame) {
  const std::shared_ptr<FramePool> pool = FramePool::Create(1 << 20);
  FrameRef large = pool->take(500000);
  large.reset();
  const std::size_t idle = pool->idleBytes();
  const FrameRef small = pool->take(1000);
  EXPECT_EQ(pool->idleBytes(), idle);
}

TEST(FramePool, KeepsNoMoreThanItsLimitAndDropsTheLongestUnused) {
  const std::shared_ptr<FramePool> pool = FramePool::Create(25000);
  FrameRef first = pool->take(10000);
  FrameRef second = pool->take(10000);
  FrameRef third = pool->take(10000);
  const MediaFrame* kept[] = {&*third, &*second};
  first.reset();
  second.reset();
  third.reset();
  EXPECT_LE(pool->idleBytes(), 25000u);
  const FrameRef one = pool->take(10000);
  const FrameRef other = pool->take(10000);
  EXPECT_TRUE(&*one == kept[0] || &*one == kept[1]);
  EXPECT_TRUE(&*other == kept[0] || &*other == kept[1]);
  EXPECT_EQ(pool->idleBytes(), 0u);
}

TEST(FramePool, FreesAFrameLargerThanItsLimit) {
  const std::shared_ptr<FramePool> pool = FramePool::Create(100);
  pool->take(1000).reset();
  EXPECT_EQ(pool->idleBytes(), 0u);
}

TEST(FramePool, FreesWhatIsIdleWhenTold) {
  const std::shared_ptr<FramePool> pool = FramePool::Create(1 << 20);
  FrameRef lent = pool->take(1000);
  pool->take(2000).reset();
  pool->freeIdle();
  EXPECT_EQ(pool->idleBytes(), 0u);
  lent.reset();
  EXPECT_GE(pool->idleBytes(), 1000u);
}

TEST(FramePool, ServesSeveralThreads) {
  const std::shared_ptr<FramePool> pool = FramePool::Create(1 << 16);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([pool, t] {
      for (int i = 0; i < 500; ++i) {
        FrameRef frame = pool->take(100);
        frame.edit().setTimestamp(static_cast<std::uint32_t>(t));
        const FrameRef copy = frame;
        frame.reset();
        EXPECT_EQ(copy->timestamp(), static_cast<std::uint32_t>(t));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_GT(pool->idleBytes(), 0u);
}

TEST(FramePool, SharesAFrameBetweenThreadsUntilTheLastLetsGo) {
  const std::shared_ptr<FramePool> pool = FramePool::Create(1 << 16);
  FrameRef frame = pool->take(100);
  frame.edit().add({}, ByteView(kBody), true);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([copy = frame] {
      for (int i = 0; i < 500; ++i) {
        // The count of references is what is tested.
        const FrameRef again = copy;  // NOLINT(performance-unnecessary-copy-initialization)
        EXPECT_EQ(again->payload(0)[0], 1);
      }
    });
  }
  frame.reset();
  for (std::thread& thread : threads) thread.join();
  threads.clear();
  EXPECT_GT(pool->idleBytes(), 0u);
}

}  // namespace
}  // namespace kovra
