// The heartbeat in real time: its seconds are the behaviour.
#include "captured_output.h"
#include "client_test.h"
#include "kovra_main.h"
#include "recording_server.h"

namespace {

using support::CapturedOutput;
using support::Clock;
using support::RecordingServer;

const std::chrono::duration<double> kSlack{4};  // for a busy machine

const char kHeartbeat[] = R"({"opcode":"heartbeat"})";

class Heartbeat : public ClientTest {
 protected:
  ~Heartbeat() override {
    interrupted = 1;
    JoinHeartbeat();
  }

  void StartHeartbeat() {
    start_ = Clock::now();
    heartbeat_ = std::thread([this] { EXPECT_EQ(SendHeartbeatThread(&client_), nullptr); });
  }
  void JoinHeartbeat() {
    if (heartbeat_.joinable()) heartbeat_.join();
  }

  std::string SendLine(int index) {
    char line[100];
    snprintf(line, sizeof line, "----send heartbeat index:%d %p\n", index, static_cast<void*>(&client_));
    return line;
  }

  // Seconds from the heartbeat's start to the arrival of each heartbeat.
  std::vector<double> Arrivals() {
    std::vector<double> seconds;
    for (const support::ReceivedText& received : server_.Received()) {
      if (received.text == kHeartbeat) {
        seconds.push_back(std::chrono::duration<double>(received.time - start_).count());
      }
    }
    return seconds;
  }

  CapturedOutput output_;
  RecordingServer server_;
  Clock::time_point start_;
  std::thread heartbeat_;
};

TEST_F(Heartbeat, EndsAtOnceWhenInterruptedBeforeAndCountsAllTheSame) {
  interrupted = 1;
  StartHeartbeat();
  JoinHeartbeat();
  EXPECT_EQ(output_.Take(), "----HeartbeatThread exit\n");
  interrupted = 0;
  Connect("127.0.0.1", server_.Port());
  StartService();
  StartHeartbeat();
  EXPECT_TRUE(output_.WaitFor(SendLine(3)));  // the second thread of this process
}

TEST_F(Heartbeat, LeavesAt15And35And55SecondsWithTheSameIndex) {
  Connect("127.0.0.1", server_.Port());
  StartService();
  ASSERT_TRUE(server_.WaitForTexts(1));
  StartHeartbeat();
  ASSERT_TRUE(server_.WaitForTexts(4, std::chrono::seconds(70)));
  const std::vector<double> arrivals = Arrivals();
  ASSERT_EQ(arrivals.size(), 3U);
  EXPECT_NEAR(arrivals[0], 15, kSlack.count());
  EXPECT_NEAR(arrivals[1], 35, kSlack.count());
  EXPECT_NEAR(arrivals[2], 55, kSlack.count());
  EXPECT_EQ(output_.Text(), SendLine(2) + SendLine(2) + SendLine(2));
}

TEST_F(Heartbeat, ALinkThatComesAfter16SecondsGetsItsFirstAt35) {
  StartHeartbeat();
  std::this_thread::sleep_until(start_ + std::chrono::seconds(16));
  Connect("127.0.0.1", server_.Port());
  StartService();
  ASSERT_TRUE(server_.WaitForTexts(2, std::chrono::seconds(40)));
  const std::vector<double> arrivals = Arrivals();
  ASSERT_EQ(arrivals.size(), 1U);
  EXPECT_NEAR(arrivals[0], 35, kSlack.count());
}

TEST_F(Heartbeat, SendsNothingWithoutALinkAndRunsUntilInterrupted) {
  StartHeartbeat();
  std::this_thread::sleep_until(start_ + std::chrono::seconds(17));
  EXPECT_EQ(output_.Text(), "");
  const auto stopped = Clock::now();
  interrupted = 1;
  JoinHeartbeat();
  EXPECT_LT(Clock::now() - stopped, std::chrono::seconds(5) + kSlack);
  EXPECT_EQ(output_.Text(), "----HeartbeatThread exit\n");
  EXPECT_EQ(client_.sendMessage("the queue holds nothing else"), 0);
  Connect("127.0.0.1", server_.Port());
  StartService();
  ASSERT_TRUE(server_.WaitForTexts(2));
  EXPECT_EQ(server_.Texts().at(1), "the queue holds nothing else");
}

TEST_F(Heartbeat, EndsAtItsNextPassOnceTheClientIsInterrupted) {
  StartHeartbeat();
  std::this_thread::sleep_until(start_ + std::chrono::milliseconds(500));
  EXPECT_EQ(output_.Text(), "");
  client_.toInterruped();
  JoinHeartbeat();
  const std::chrono::duration<double> lasted = Clock::now() - start_;
  EXPECT_GE(lasted.count(), 4.5);
  EXPECT_LT(Clock::now() - start_, std::chrono::seconds(5) + kSlack);
  EXPECT_EQ(output_.Text(), "----HeartbeatThread exit\n");
  EXPECT_EQ(interrupted, 0);
}

}  // namespace
