// The two small things that threads wait with: an event, and the gate in front of an object that goes away.
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <thread>
#include <vector>

#include "exit_gate.h"
#include "monotonic_event.h"

namespace {

using Clock = std::chrono::steady_clock;

TEST(MonotonicEvent, TimesOutUnset) {
  MonotonicEvent event;
  const auto start = Clock::now();
  EXPECT_FALSE(event.WaitFor(50));
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(50));
  EXPECT_FALSE(event.IsSet());
}

TEST(MonotonicEvent, TimesOutAcrossASecondsBoundary) {
  MonotonicEvent event;
  const auto start = Clock::now();
  EXPECT_FALSE(event.WaitFor(1001));
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(1001));
}

TEST(MonotonicEvent, WakesEveryWaiter) {
  MonotonicEvent event;
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i) waiters.emplace_back([&event] { EXPECT_TRUE(event.WaitFor(30000)); });
  event.Set();
  for (std::thread& waiter : waiters) waiter.join();
}

TEST(MonotonicEvent, StaysSetUntilReset) {
  MonotonicEvent event;
  event.Set();
  EXPECT_TRUE(event.WaitFor(0));
  EXPECT_TRUE(event.WaitFor(0));
  event.Reset();
  EXPECT_FALSE(event.WaitFor(0));
}

TEST(ExitGate, IsOpenUntilShut) {
  ExitGate gate;
  EXPECT_TRUE(static_cast<bool>(ExitGate::Pass(&gate)));
  gate.ShutAndWait(0);
  EXPECT_FALSE(static_cast<bool>(ExitGate::Pass(&gate)));
}

TEST(ExitGate, WaitsForThoseInside) {
  ExitGate gate;
  MonotonicEvent entered;
  std::atomic<bool> left{false};
  std::thread inside([&] {
    const ExitGate::Pass pass(&gate);
    EXPECT_TRUE(static_cast<bool>(pass));
    entered.Set();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    left = true;
  });
  ASSERT_TRUE(entered.WaitFor(30000));
  gate.ShutAndWait(30000);
  EXPECT_TRUE(left);
  inside.join();
}

TEST(ExitGate, WaitsNoLongerThanTold) {
  ExitGate gate;
  MonotonicEvent entered;
  MonotonicEvent leave;
  std::thread inside([&] {
    const ExitGate::Pass pass(&gate);
    entered.Set();
    leave.WaitFor(30000);
  });
  ASSERT_TRUE(entered.WaitFor(30000));
  gate.ShutAndWait(20);
  leave.Set();
  inside.join();
}

TEST(ExitGate, DoesNotWaitForTheCallingThreadItself) {
  ExitGate gate;
  const ExitGate::Pass outer(&gate);
  const ExitGate::Pass inner(&gate);
  const auto start = Clock::now();
  gate.ShutAndWait(30000);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
}

TEST(ExitGate, LetsNobodyPassOnceItHasWaited) {
  for (int round = 0; round < 200; ++round) {
    ExitGate gate;
    std::atomic<bool> gone{false};
    std::vector<std::thread> callers;
    for (int i = 0; i < 3; ++i) {
      callers.emplace_back([&] {
        for (bool open = true; open;) {
          const ExitGate::Pass pass(&gate);
          open = static_cast<bool>(pass);
          EXPECT_FALSE(open && gone);
        }
      });
    }
    gate.ShutAndWait(30000);
    gone = true;
    for (std::thread& caller : callers) caller.join();
  }
}

}  // namespace
