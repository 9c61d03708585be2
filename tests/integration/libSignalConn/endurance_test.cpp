// Load, and what a link that breaks often costs.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>

#include "client_test.h"
#include "delivery_window.h"

// Of the sanitizers' own memory allocators; null without one.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using support::Clock;
using support::ScriptedServer;
using support::ServerConnection;

const int kThreads = 8;
const int kMessages = 10000;  // of each thread
const auto kLinkLife = milliseconds(200);

std::ptrdiff_t CountOfEntries(const char* directory) {
  return std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator());
}

std::size_t AllocatedBytes() {
  if (__sanitizer_get_current_allocated_bytes != nullptr) return __sanitizer_get_current_allocated_bytes();
  return mallinfo2().uordblks;
}

// The text names its thread and number; the rest is there to be torn.
std::string Message(int thread, int number) {
  std::string text = std::to_string(thread) + ":" + std::to_string(number) + ":";
  return text + std::string(static_cast<std::size_t>(100 + number % 400), static_cast<char>('a' + number % 26));
}

// What arrived, per thread. Every thread's messages must come without a gap; going back is a repetition.
class Arrivals {
 public:
  void NewLink() { repeatedOnThisLink_ = 0; }

  void Take(const std::string& text) {
    int thread = -1;
    int number = -1;
    ASSERT_EQ(sscanf(text.c_str(), "%d:%d:", &thread, &number), 2) << text;
    ASSERT_TRUE(thread >= 0 && thread < kThreads) << text;
    ASSERT_EQ(text, Message(thread, number));
    int& next = next_[static_cast<std::size_t>(thread)];
    int& expected = expected_[static_cast<std::size_t>(thread)];
    if (number < next) {
      mostRepeated_ = std::max(mostRepeated_, ++repeatedOnThisLink_);
    } else {
      ASSERT_EQ(number, next) << "a gap in thread " << thread;
      ++next;
      ++total_;
    }
    if (number != expected) {
      ASSERT_LT(number, expected) << "a gap in what is repeated";
    }
    expected = number + 1;
  }

  int Total() const { return total_; }
  std::size_t MostRepeated() const { return mostRepeated_; }

 private:
  std::array<int, kThreads> next_{};      // the first number that has not arrived
  std::array<int, kThreads> expected_{};  // the number behind the latest
  int total_ = 0;
  std::size_t repeatedOnThisLink_ = 0;
  std::size_t mostRepeated_ = 0;
};

class Endurance : public ClientTest {
 protected:
  void SendAll(int thread) {
    for (int number = 0; number < kMessages && !giveUp_; ++number) {
      while (client_.sendMessage(Message(thread, number)) < 0 && !giveUp_) {
        std::this_thread::sleep_for(milliseconds(1));  // the queue is full
      }
    }
  }

  // Reads from one link until it has lived long enough, or everything is there, and resets it.
  static void ServeLink(ServerConnection& connection, Arrivals* arrivals) {
    arrivals->NewLink();
    ASSERT_EQ(connection.ReceiveText(), "sign-in");
    ASSERT_TRUE(connection.SendText("proof"));  // the next failure is a first one again
    const auto end = Clock::now() + kLinkLife;
    while (Clock::now() < end && arrivals->Total() < kThreads * kMessages) {
      const std::optional<std::string> text = connection.ReceiveText(milliseconds(20));
      if (!text) continue;
      ASSERT_NO_FATAL_FAILURE(arrivals->Take(*text));
    }
    if (arrivals->Total() < kThreads * kMessages) connection.Reset();
  }

  std::atomic<bool> giveUp_{false};
};

TEST_F(Endurance, EveryMessageArrivesInOrderAndWholeWhileTheLinkKeepsBreaking) {
  ScriptedServer server;
  ASSERT_EQ(Connect(server.Address(), server.Port()), 0);
  StartService();
  std::vector<std::thread> senders;
  for (int thread = 0; thread < kThreads; ++thread) senders.emplace_back([this, thread] { SendAll(thread); });

  Arrivals arrivals;
  const auto deadline = Clock::now() + seconds(240);
  int links = 0;
  while (arrivals.Total() < kThreads * kMessages && Clock::now() < deadline && !HasFatalFailure()) {
    const auto connection = server.AcceptWebSocket();
    ASSERT_NE(connection, nullptr);
    ++links;
    ServeLink(*connection, &arrivals);
  }
  giveUp_ = true;
  for (std::thread& sender : senders) sender.join();
  EXPECT_EQ(arrivals.Total(), kThreads * kMessages);
  EXPECT_LE(arrivals.MostRepeated(), kDeliveryWindowMessages);
  EXPECT_GT(links, 1);
}

TEST_F(Endurance, AThousandLinksLeaveNothingBehind) {
  ScriptedServer server;
  ASSERT_EQ(Connect(server.Address(), server.Port()), 0);
  StartService();
  std::ptrdiff_t descriptors = 0;
  std::ptrdiff_t threads = 0;
  std::size_t bytes = 0;
  std::unique_ptr<ServerConnection> connection = SignedIn(server);
  for (int link = 0; link < 1000; ++link) {
    std::thread application([&] { EXPECT_EQ(client_.connect(server.Address(), server.Port()), 0); });
    std::unique_ptr<ServerConnection> next = SignedIn(server);
    application.join();
    ASSERT_NE(next, nullptr);
    ASSERT_EQ(client_.sendMessage("on link " + std::to_string(link)), 0);
    std::optional<std::string> text;
    do {  // the last ones of the former link may be repeated
      text = next->ReceiveText();
    } while (text && text != "on link " + std::to_string(link));
    ASSERT_TRUE(text);
    ASSERT_TRUE(connection->WaitForEnd());
    connection = std::move(next);
    if (link == 100) {  // warmed up
      descriptors = CountOfEntries("/proc/self/fd");
      threads = CountOfEntries("/proc/self/task");
      bytes = AllocatedBytes();
    }
  }
  EXPECT_LE(CountOfEntries("/proc/self/fd"), descriptors);
  EXPECT_LE(CountOfEntries("/proc/self/task"), threads);
  EXPECT_LE(AllocatedBytes(), bytes + 16384);  // 18 bytes a link would be more
}

TEST_F(Endurance, AHundredLostLinksLeaveNothingBehind) {
  ScriptedServer server;
  ASSERT_EQ(Connect(server.Address(), server.Port()), 0);
  StartService();
  std::ptrdiff_t descriptors = 0;
  std::size_t bytes = 0;
  for (int link = 0; link < 100; ++link) {
    std::unique_ptr<ServerConnection> connection = SignedIn(server);
    ASSERT_NE(connection, nullptr);
    ASSERT_TRUE(connection->SendText("proof"));
    ASSERT_TRUE(observer_.WaitForMessages(static_cast<std::size_t>(link) + 1));
    if (link == 20) {
      descriptors = CountOfEntries("/proc/self/fd");
      bytes = AllocatedBytes();
    }
    if (link == 99) {
      EXPECT_LE(CountOfEntries("/proc/self/fd"), descriptors);
      EXPECT_LE(AllocatedBytes(), bytes + 16384);
    }
    connection->Reset();
  }
}

}  // namespace
