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
  constexpr Micros kLongRoundTrip{500000};
  admitKeyFrame(Micros(0));
  gate_.onPli(Micros(499999), kLongRoundTrip);
  EXPECT_FALSE(gate_.wantsKeyFrame());
  EXPECT_EQ(gate_.deadline(), std::nullopt);
  gate_.onPli(Micros(500000), kLongRoundTrip);
  EXPECT_TRUE(gate_.wantsKeyFrame());
}

TEST_F(KeyFrameGateTest, HoldsARequestThatComesSoonAfterAKeyFrame) {
  admitKeyFrame(Micros(0));
  gate_.onPli(Micros(100000), kRoundTrip);
  EXPECT_FALSE(gate_.wantsKeyFrame());
  EXPECT_EQ(gate_.deadline(), KeyFrameGate::kMinInterval);
  gate_.onPli(Micros(200000), kRoundTrip);
  EXPECT_EQ(gate_.deadline(), KeyFrameGate::kMinInterval);
  gate_.onTime(KeyFrameGate::kMinInterval - Micros(1));
  EXPECT_FALSE(gate_.wantsKeyFrame());
  gate_.onTime(KeyFrameGate::kMinInterval);
  EXPECT_TRUE(gate_.wantsKeyFrame());
  EXPECT_EQ(gate_.deadline(), std::nullopt);
}

TEST_F(KeyFrameGateTest, HoldsRequestsAlsoWhileTheRoundTripIsUnknown) {
  admitKeyFrame(Micros(0));
  gate_.onPli(Micros(0), Micros(0));
  EXPECT_FALSE(gate_.wantsKeyFrame());
  EXPECT_EQ(gate_.deadline(), KeyFrameGate::kMinInterval);
}

TEST_F(KeyFrameGateTest, TakesAKeyFrameForTheAnswerToARequestThatIsHeld) {
  admitKeyFrame(Micros(0));
  gate_.onPli(Micros(150000), kRoundTrip);
  admitKeyFrame(Micros(200000));
  EXPECT_EQ(gate_.deadline(), std::nullopt);
  gate_.onTime(Micros(1'000'000));
  EXPECT_FALSE(gate_.wantsKeyFrame());
}

TEST_F(KeyFrameGateTest, HoldsNothingBeforeTheFirstKeyFrameNorAfterALoss) {
  gate_.onPli(Micros(0), Micros(0));
  EXPECT_TRUE(gate_.wantsKeyFrame());
  admitKeyFrame(Micros(1000));
  gate_.onPli(Micros(2000), Micros(0));
  gate_.close();
  EXPECT_TRUE(gate_.wantsKeyFrame());
  EXPECT_EQ(gate_.deadline(), std::nullopt);
}

TEST_F(KeyFrameGateTest, SpacesTheKeyFramesOfAViewerThatAsksAllTheTime) {
  int keyFrames = 0;
  for (Micros now{0}; now < Micros(3'000'000); now += Micros(20'000)) {
    gate_.onPli(now, Micros(0));
    gate_.onTime(now);
    if (!gate_.wantsKeyFrame()) continue;
    admitKeyFrame(now);
    ++keyFrames;
  }
  EXPECT_EQ(keyFrames, 10);
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

TEST_F(KeyFrameGateTest, AnswersTheRepetitionOfAFullIntraRequestThatItTookForAnswered) {
  admitKeyFrame(Micros(0));
  gate_.onFir(0, Micros(99999), kRoundTrip);
  gate_.onFir(0, Micros(400000), kRoundTrip);
  EXPECT_TRUE(gate_.wantsKeyFrame());
}

TEST_F(KeyFrameGateTest, AnswersAFullIntraRequestThatItHeldOnce) {
  admitKeyFrame(Micros(0));
  gate_.onFir(0, Micros(150000), kRoundTrip);
  EXPECT_EQ(gate_.deadline(), KeyFrameGate::kMinInterval);
  gate_.onTime(KeyFrameGate::kMinInterval);
  admitKeyFrame(Micros(310000));
  gate_.onFir(0, Micros(900000), kRoundTrip);
  EXPECT_FALSE(gate_.wantsKeyFrame());
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
