#include "network_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "clock.h"

namespace kovra {
namespace {

using testing::ElementsAre;

TEST(NetworkThread, RunsTasksInOrder) {
  std::vector<int> order;
  std::promise<void> done;
  NetworkThread network([] {});
  network.start();
  for (int i = 0; i < 100; ++i) network.post([&order, i] { order.push_back(i); });
  network.post([&done] { done.set_value(); });
  done.get_future().wait();
  network.stop([&order] { order.push_back(100); });
  ASSERT_EQ(order.size(), 101u);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(NetworkThread, DropsTheTasksThatWaitWhenItStops) {
  std::promise<void> entered;
  std::promise<void> leave;
  std::vector<int> order;
  NetworkThread network([] {});
  network.start();
  network.post([&] {
    entered.set_value();
    leave.get_future().wait();
  });
  entered.get_future().wait();
  network.post([&order] { order.push_back(1); });
  std::thread stopping([&] { network.stop([&order] { order.push_back(2); }); });
  // Once it refuses tasks it has dropped those that waited: the refused one is destroyed at once.
  for (std::weak_ptr<int> refused;; std::this_thread::yield()) {
    auto token = std::make_shared<int>(0);
    refused = token;
    network.post([held = std::move(token)] {});
    if (refused.expired()) break;
  }
  leave.set_value();
  stopping.join();
  EXPECT_THAT(order, ElementsAre(2));
}

TEST(NetworkThread, RunsNoTaskPostedAfterStop) {
  NetworkThread network([] {});
  network.start();
  network.stop([] {});
  bool ran = false;
  network.post([&ran] { ran = true; });
  EXPECT_FALSE(ran);
}

TEST(NetworkThread, StopsWithoutEverHavingStarted) {
  NetworkThread network([] {});
  network.stop([] {});
}

TEST(NetworkThread, TakesTasksFromItsOwnTasks) {
  std::promise<void> done;
  NetworkThread network([] {});
  network.start();
  network.post([&] { network.post([&] { done.set_value(); }); });
  done.get_future().wait();
  network.stop([] {});
}

TEST(NetworkThread, WakesForEveryWake) {
  std::atomic<int> wakes{0};
  NetworkThread network([&] { ++wakes; });
  network.start();
  for (int i = 1; i <= 100; ++i) {
    const int before = wakes;
    network.wake();
    while (wakes == before) std::this_thread::yield();
  }
  network.stop([] {});
}

TEST(LoopTimer, CallsAtItsTimeAndOnlyOnce) {
  NetworkThread network([] {});
  network.start();
  std::promise<Micros> called;
  std::unique_ptr<LoopTimer> timer;
  const Micros due = MonotonicNow() + Micros{20'000};
  network.post([&] {
    timer = std::make_unique<LoopTimer>(network.context(), [&] { called.set_value(MonotonicNow()); });
    timer->set(due);
  });
  EXPECT_GE(called.get_future().get(), due);
  network.stop([&] { timer.reset(); });
}

TEST(LoopTimer, CanBeSetAgainFromItsOwnCall) {
  NetworkThread network([] {});
  network.start();
  std::promise<void> done;
  int calls = 0;
  std::unique_ptr<LoopTimer> timer;
  network.post([&] {
    timer = std::make_unique<LoopTimer>(network.context(), [&] {
      if (++calls == 3) return done.set_value();
      timer->set(MonotonicNow());
    });
    timer->set(MonotonicNow());
  });
  done.get_future().wait();
  network.stop([&] { timer.reset(); });
  EXPECT_EQ(calls, 3);
}

TEST(LoopTimer, DoesNotCallOnceItIsUnset) {
  NetworkThread network([] {});
  network.start();
  std::promise<void> done;
  bool called = false;
  std::unique_ptr<LoopTimer> unset;
  std::unique_ptr<LoopTimer> later;
  network.post([&] {
    unset = std::make_unique<LoopTimer>(network.context(), [&] { called = true; });
    later = std::make_unique<LoopTimer>(network.context(), [&] { done.set_value(); });
    unset->set(MonotonicNow() + Micros{5'000});
    unset->set(std::nullopt);
    later->set(MonotonicNow() + Micros{30'000});
  });
  done.get_future().wait();
  network.stop([&] {
    unset.reset();
    later.reset();
  });
  EXPECT_FALSE(called);
}

}  // namespace
}  // namespace kovra
