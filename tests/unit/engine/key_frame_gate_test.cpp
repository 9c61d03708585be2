#include "key_frame_gate.h"

#include <gtest/gtest.h>

namespace kovra {
namespace {

constexpr Micros kRoundTrip{100000};

class KeyFrameGateTest : public testing::Test {
 protected:
  KeyFrameGateTest() { keyFrame_.edit().setKeyFrame(true); }

  bool admitKeyFrame(Micros now) { return gate_.admit(*keyFrame_, now); }
  bool admitOther(Micros now) { return gate_.admit(*other_, now); }

  FrameRef keyFrame_ = FramePool::Create(0)->take(1);
  FrameRef other_ = FramePool::Create(0)->take(1);
  KeyFrameGate gate_;
};

TEST_F(KeyFrameGateTest, LetsNothingPassBeforeAKeyFrame) {
  EXPECT_TRUE(gate_.wantsKeyFrame());
  EXPECT_FALSE(admitOther(Micros(0)));
  EXPECT_TRUE(gate_.wantsKeyFrame());
}

TEST_F(KeyFrameGateTest, OpensWithAKeyFrame) {
  EXPECT_TRUE(admitKeyFrame(Micros(0)));
  EXPECT_FALSE(gate_.wantsKeyFrame());
  EXPECT_TRUE(admitOther(Micros(0)));
}

TEST_F(KeyFrameGateTest, WantsAKeyFrameWhenAskedAndLetsOthersPassMeanwhile) {
  admitKeyFrame(Micros(0));
  gate_.onPli(Micros(500000), kRoundTrip);
  EXPECT_TRUE(gate_.wantsKeyFrame());
  EXPECT_TRUE(admitOther(Micros(500000)));
  EXPECT_TRUE(gate_.wantsKeyFrame());
  EXPECT_TRUE(admitKeyFrame(Micros(500000)));
  EXPECT_FALSE(gate_.wantsKeyFrame());
}

TEST_F(KeyFrameGateTest, TakesARequestThatCrossedTheKeyFrameForAnswered) {
  admitKeyFrame(Micros(0));
  gate_.onPli(Micros(99999), kRoundTrip);
  EXPECT_FALSE(gate_.wantsKeyFrame());
  gate_.onPli(Micros(100000), kRoundTrip);
  EXPECT_TRUE(gate_.wantsKeyFrame());
}

TEST_F(KeyFrameGateTest, BelievesEachRequestWhileTheRoundTripIsUnknown) {
  admitKeyFrame(Micros(0));
  gate_.onPli(Micros(0), Micros(0));
  EXPECT_TRUE(gate_.wantsKeyFrame());
}

TEST_F(KeyFrameGateTest, AnswersAFullIntraRequestOnce) {
  admitKeyFrame(Micros(0));
  gate_.onFir(0, Micros(500000), kRoundTrip);
  EXPECT_TRUE(gate_.wantsKeyFrame());
  admitKeyFrame(Micros(600000));
  gate_.onFir(0, Micros(900000), kRoundTrip);
  EXPECT_FALSE(gate_.wantsKeyFrame());
  gate_.onFir(1, Micros(900000), kRoundTrip);
  EXPECT_TRUE(gate_.wantsKeyFrame());
}

TEST_F(KeyFrameGateTest, LetsNothingPassAfterALossOnOurSide) {
  admitKeyFrame(Micros(0));
  gate_.close();
  EXPECT_TRUE(gate_.wantsKeyFrame());
  EXPECT_FALSE(admitOther(Micros(1)));
  EXPECT_TRUE(admitKeyFrame(Micros(2)));
  EXPECT_TRUE(admitOther(Micros(3)));
}

}  // namespace
}  // namespace kovra
