#include "connection_state.h"

#include <gtest/gtest.h>

namespace kovra {
namespace {

constexpr Micros kSecond{1'000'000};

class ConnectionStateTest : public testing::Test {
 protected:
  void connectAt(Micros now) {
    state_.start();
    state_.onOffer(now);
    state_.onIce(IceTransportState::kConnected, now);
    ASSERT_EQ(state_.onDtls(DtlsTransportState::kConnected, now), KOVRA_STATE_CONNECTED);
  }

  ConnectionState state_;
};

TEST_F(ConnectionStateTest, IsNewOnceStarted) {
  EXPECT_EQ(state_.state(), KOVRA_STATE_NONE);
  EXPECT_EQ(state_.start(), KOVRA_STATE_NEW);
  EXPECT_EQ(state_.start(), std::nullopt);
}

TEST_F(ConnectionStateTest, WaitsForAnOfferWithoutEnd) {
  state_.start();
  EXPECT_EQ(state_.deadline(), std::nullopt);
  EXPECT_EQ(state_.onTime(3600 * kSecond), std::nullopt);
  EXPECT_EQ(state_.onOffer(3600 * kSecond), KOVRA_STATE_CONNECTING);
}

TEST_F(ConnectionStateTest, ConnectsWhenIceAndThenDtlsAre) {
  state_.start();
  EXPECT_EQ(state_.onOffer(kSecond), KOVRA_STATE_CONNECTING);
  EXPECT_EQ(state_.onIce(IceTransportState::kChecking, kSecond), std::nullopt);
  EXPECT_EQ(state_.onIce(IceTransportState::kConnected, kSecond), std::nullopt);
  EXPECT_EQ(state_.onDtls(DtlsTransportState::kConnecting, kSecond), std::nullopt);
  EXPECT_EQ(state_.onDtls(DtlsTransportState::kConnected, kSecond), KOVRA_STATE_CONNECTED);
  EXPECT_EQ(state_.onIce(IceTransportState::kConnected, 2 * kSecond), std::nullopt);
}

TEST_F(ConnectionStateTest, ConnectsAlsoWhenDtlsIsReadyFirst) {
  state_.start();
  state_.onOffer(kSecond);
  EXPECT_EQ(state_.onDtls(DtlsTransportState::kConnected, kSecond), std::nullopt);
  EXPECT_EQ(state_.onIce(IceTransportState::kConnected, kSecond), KOVRA_STATE_CONNECTED);
}

TEST_F(ConnectionStateTest, FailsWhenTheSetUpTakesTooLong) {
  state_.start();
  state_.onOffer(5 * kSecond);
  ASSERT_EQ(state_.deadline(), 35 * kSecond);
  EXPECT_EQ(state_.onTime(35 * kSecond - Micros(1)), std::nullopt);
  EXPECT_EQ(state_.onTime(35 * kSecond), KOVRA_STATE_FAILED);
  EXPECT_EQ(state_.deadline(), std::nullopt);
}

TEST_F(ConnectionStateTest, LetsNoSignOfLifeProlongTheSetUp) {
  state_.start();
  state_.onOffer(Micros(0));
  EXPECT_EQ(state_.onAlive(29 * kSecond), std::nullopt);
  EXPECT_EQ(state_.onTime(30 * kSecond), KOVRA_STATE_FAILED);
}

TEST_F(ConnectionStateTest, WaitsOnWhenIceFindsNoPairWhileCandidatesMayFollow) {
  state_.start();
  state_.onOffer(Micros(0));
  EXPECT_EQ(state_.onIce(IceTransportState::kFailed, kSecond), std::nullopt);
  state_.onIce(IceTransportState::kConnected, 2 * kSecond);
  EXPECT_EQ(state_.onDtls(DtlsTransportState::kConnected, 2 * kSecond), KOVRA_STATE_CONNECTED);
}

TEST_F(ConnectionStateTest, FailsWhenIceFailsLater) {
  connectAt(Micros(0));
  EXPECT_EQ(state_.onIce(IceTransportState::kFailed, kSecond), KOVRA_STATE_FAILED);
}

TEST_F(ConnectionStateTest, FailsWhenDtlsFails) {
  state_.start();
  state_.onOffer(Micros(0));
  EXPECT_EQ(state_.onDtls(DtlsTransportState::kFailed, kSecond), KOVRA_STATE_FAILED);
}

TEST_F(ConnectionStateTest, ClosesWhenTheViewerCloses) {
  connectAt(Micros(0));
  EXPECT_EQ(state_.onDtls(DtlsTransportState::kClosed, kSecond), KOVRA_STATE_CLOSED);
}

TEST_F(ConnectionStateTest, LosesAViewerInTwoSteps) {
  connectAt(10 * kSecond);
  ASSERT_EQ(state_.deadline(), 22 * kSecond);
  EXPECT_EQ(state_.onTime(22 * kSecond - Micros(1)), std::nullopt);
  EXPECT_EQ(state_.onTime(22 * kSecond), KOVRA_STATE_DISCONNECTED);
  ASSERT_EQ(state_.deadline(), Micros(24'500'000));
  EXPECT_EQ(state_.onTime(Micros(24'500'000 - 1)), std::nullopt);
  EXPECT_EQ(state_.onTime(Micros(24'500'000)), KOVRA_STATE_FAILED);
}

TEST_F(ConnectionStateTest, FailsAtOnceWhenTimeLeapt) {
  connectAt(Micros(0));
  EXPECT_EQ(state_.onTime(100 * kSecond), KOVRA_STATE_FAILED);
}

TEST_F(ConnectionStateTest, PutsOffTheLossWithEachSignOfLife) {
  connectAt(Micros(0));
  EXPECT_EQ(state_.onAlive(11 * kSecond), std::nullopt);
  EXPECT_EQ(state_.deadline(), 23 * kSecond);
  EXPECT_EQ(state_.onTime(12 * kSecond), std::nullopt);
}

TEST_F(ConnectionStateTest, ConnectsAgainWithASignOfLife) {
  connectAt(Micros(0));
  state_.onTime(12 * kSecond);
  EXPECT_EQ(state_.onAlive(13 * kSecond), KOVRA_STATE_CONNECTED);
  EXPECT_EQ(state_.onTime(15 * kSecond), std::nullopt);
  EXPECT_EQ(state_.onTime(25 * kSecond), KOVRA_STATE_DISCONNECTED);
}

TEST_F(ConnectionStateTest, FailsWithoutConsentInSpiteOfSignsOfLife) {
  connectAt(Micros(0));
  for (int i = 1; i < 30; ++i) {
    state_.onAlive(i * kSecond);
    EXPECT_EQ(state_.onTime(i * kSecond), std::nullopt);
  }
  EXPECT_EQ(state_.deadline(), 30 * kSecond);
  EXPECT_EQ(state_.onTime(30 * kSecond - Micros(1)), std::nullopt);
  EXPECT_EQ(state_.onTime(30 * kSecond), KOVRA_STATE_FAILED);
}

TEST_F(ConnectionStateTest, GoesOnWithConsentThatIsRenewed) {
  connectAt(Micros(0));
  for (int i = 1; i < 100; ++i) {
    if (i % 25 == 0) state_.onConsent(i * kSecond);
    state_.onAlive(i * kSecond);
    EXPECT_EQ(state_.onTime(i * kSecond), std::nullopt);
  }
}

TEST_F(ConnectionStateTest, TakesConsentAloneForNoSignOfLife) {
  connectAt(Micros(0));
  state_.onConsent(11 * kSecond);
  EXPECT_EQ(state_.onTime(12 * kSecond), KOVRA_STATE_DISCONNECTED);
}

TEST_F(ConnectionStateTest, FailsAtOnceWhenConsentIsRevoked) {
  connectAt(Micros(0));
  EXPECT_EQ(state_.onConsentRevoked(), KOVRA_STATE_FAILED);
}

TEST_F(ConnectionStateTest, SaysNothingAfterTheEnd) {
  connectAt(Micros(0));
  state_.onDtls(DtlsTransportState::kClosed, kSecond);
  EXPECT_TRUE(state_.isFinal());
  EXPECT_EQ(state_.onDtls(DtlsTransportState::kFailed, kSecond), std::nullopt);
  EXPECT_EQ(state_.onDtls(DtlsTransportState::kConnected, kSecond), std::nullopt);
  EXPECT_EQ(state_.onIce(IceTransportState::kFailed, kSecond), std::nullopt);
  EXPECT_EQ(state_.onAlive(kSecond), std::nullopt);
  EXPECT_EQ(state_.onConsentRevoked(), std::nullopt);
  EXPECT_EQ(state_.onOffer(kSecond), std::nullopt);
  EXPECT_EQ(state_.onTime(100 * kSecond), std::nullopt);
  EXPECT_EQ(state_.deadline(), std::nullopt);
}

TEST_F(ConnectionStateTest, TakesOneOfferOnly) {
  state_.start();
  state_.onOffer(Micros(0));
  EXPECT_EQ(state_.onOffer(10 * kSecond), std::nullopt);
  EXPECT_EQ(state_.deadline(), 30 * kSecond);
}

}  // namespace
}  // namespace kovra
