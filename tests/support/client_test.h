// A KovraSignalClient with a service thread and an observer that writes down what it is told.
#ifndef SIGNALCONN_TESTS_CLIENT_TEST_H
#define SIGNALCONN_TESTS_CLIENT_TEST_H

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "scripted_server.h"
#include "signal_client.h"

class RecordingObserver : public SignalClientCallback {
 public:
  void onMessage(const std::string& message) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    messages_.push_back(message);
    changed_.notify_all();
  }
  std::vector<std::string> Messages() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
  }
  bool WaitForMessages(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, support::kPatience, [this, count] { return messages_.size() >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> messages_;
};

class ClientTest : public testing::Test {
 protected:
  ClientTest() { client_.registerObserver(&observer_); }
  ~ClientTest() override { StopService(); }

  int Connect(const std::string& server, int port) {
    const int result = client_.connect(server, port);
    client_.setLoginMessage("sign-in");
    return result;
  }
  void StartService() {
    service_ = std::thread([this] {
      while (!stop_ && client_.lwsService() >= 0) {
      }
    });
  }
  void StopService() {
    stop_ = true;
    if (service_.joinable()) service_.join();
    stop_ = false;
  }

  // Connects to server and starts the service. The connection has its sign-in behind it.
  std::unique_ptr<support::ServerConnection> ConnectTo(support::ScriptedServer& server) {
    EXPECT_GE(Connect(server.Address(), server.Port()), 0);
    StartService();
    return SignedIn(server);
  }
  // The next connection, opened and with the sign-in read.
  static std::unique_ptr<support::ServerConnection> SignedIn(support::ScriptedServer& server) {
    std::unique_ptr<support::ServerConnection> connection = server.AcceptWebSocket();
    EXPECT_NE(connection, nullptr);
    if (connection) {
      EXPECT_EQ(connection->ReceiveText(), "sign-in");
    }
    return connection;
  }

  static bool Eventually(const std::function<bool()>& condition) {
    const auto deadline = support::Clock::now() + support::kPatience;
    while (!condition()) {
      if (support::Clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
  }

  RecordingObserver observer_;
  KovraSignalClient client_;
  std::thread service_;
  std::atomic<bool> stop_{false};
};

#endif  // SIGNALCONN_TESTS_CLIENT_TEST_H
