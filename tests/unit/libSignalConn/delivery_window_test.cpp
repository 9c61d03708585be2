#include "delivery_window.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(DeliveryWindow, AnEmptyOneWantsNoPingAndHasNothingToRepeat) {
  DeliveryWindow window;
  EXPECT_FALSE(window.IsFull());
  EXPECT_FALSE(window.PingDue(true));
  EXPECT_FALSE(window.AwaitsPong());
  EXPECT_THAT(window.TakeBack(), IsEmpty());
}

TEST(DeliveryWindow, WhatWasWrittenIsRepeatedInOrderUntilConfirmed) {
  DeliveryWindow window;
  window.Written("a");
  window.Written("b");
  const std::uint64_t ping = window.Ping();
  window.Written("c");
  EXPECT_TRUE(window.AwaitsPong());
  window.Pong(ping);
  EXPECT_FALSE(window.AwaitsPong());
  EXPECT_THAT(window.TakeBack(), ElementsAre("c"));
}

TEST(DeliveryWindow, TakingBackStartsAnew) {
  DeliveryWindow window;
  window.Written("a");
  const std::uint64_t old = window.Ping();
  EXPECT_THAT(window.TakeBack(), ElementsAre("a"));
  EXPECT_FALSE(window.AwaitsPong());
  window.Written("b");
  window.Pong(old);  // a pong of the former link confirms nothing
  EXPECT_THAT(window.TakeBack(), ElementsAre("b"));
}

TEST(DeliveryWindow, AsksOnceWritingHasSettledAndOnePingAtATime) {
  DeliveryWindow window;
  window.Written("a");
  EXPECT_FALSE(window.PingDue(false));
  EXPECT_TRUE(window.PingDue(true));
  const std::uint64_t ping = window.Ping();
  EXPECT_FALSE(window.PingDue(true));
  window.Written("b");
  EXPECT_FALSE(window.PingDue(true));
  window.Pong(ping);
  EXPECT_TRUE(window.PingDue(true));
}

TEST(DeliveryWindow, AsksAtHalfAWindowWhileWritingGoesOn) {
  DeliveryWindow window;
  for (std::size_t i = 0; i < kDeliveryWindowMessages / 2; ++i) {
    EXPECT_FALSE(window.PingDue(false));
    window.Written("x");
  }
  EXPECT_TRUE(window.PingDue(false));
}

TEST(DeliveryWindow, IsFullByMessages) {
  DeliveryWindow window;
  for (std::size_t i = 0; i < kDeliveryWindowMessages; ++i) {
    EXPECT_FALSE(window.IsFull());
    window.Written("x");
  }
  EXPECT_TRUE(window.IsFull());
  EXPECT_TRUE(window.PingDue(false));
  window.Pong(window.Ping());
  EXPECT_FALSE(window.IsFull());
}

TEST(DeliveryWindow, IsFullByBytes) {
  DeliveryWindow window;
  window.Written(std::string(kDeliveryWindowBytes - 1, 'x'));
  EXPECT_FALSE(window.IsFull());
  window.Written("x");
  EXPECT_TRUE(window.IsFull());
  EXPECT_TRUE(window.PingDue(false));
  window.Pong(window.Ping());
  EXPECT_FALSE(window.IsFull());
}

TEST(DeliveryWindow, PongsThatNobodyAskedForAreIgnored) {
  DeliveryWindow window;
  window.Written("a");
  window.Pong(1);
  window.Pong(0xffffffffffffffff);
  const std::uint64_t ping = window.Ping();
  window.Pong(ping + 1);
  EXPECT_TRUE(window.AwaitsPong());
  window.Pong(ping);
  window.Pong(ping);
  window.Pong(0);
  EXPECT_FALSE(window.AwaitsPong());
  EXPECT_THAT(window.TakeBack(), IsEmpty());
}

TEST(DeliveryWindow, WithoutConfirmationWhatWasWrittenCountsAsDelivered) {
  DeliveryWindow window;
  window.Written("a");
  const std::uint64_t ping = window.Ping();
  window.GiveUpConfirming();
  EXPECT_FALSE(window.AwaitsPong());
  for (std::size_t i = 0; i < 2 * kDeliveryWindowMessages; ++i) window.Written("x");
  EXPECT_FALSE(window.IsFull());
  EXPECT_FALSE(window.PingDue(true));
  window.Pong(ping);
  EXPECT_THAT(window.TakeBack(), IsEmpty());
}

TEST(DeliveryWindow, TheNextLinkIsConfirmedAgain) {
  DeliveryWindow window;
  window.GiveUpConfirming();
  window.TakeBack();
  window.Written("a");
  EXPECT_TRUE(window.PingDue(true));
  EXPECT_THAT(window.TakeBack(), ElementsAre("a"));
}

}  // namespace
