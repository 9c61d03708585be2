// A SignalConn of the test's own, on the fake engine.
#ifndef SIGNALCONN_TESTS_CONNECTION_TEST_H
#define SIGNALCONN_TESTS_CONNECTION_TEST_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>
#include <thread>

#include "captured_output.h"
#include "fake_engine.h"
#include "kovra_main.h"
#include "recording_server.h"

// The object lives in zero-filled storage, as the library's own does: its constructor leaves members alone.
class ZeroedConnection {
 public:
  ZeroedConnection() : storage_(std::calloc(1, sizeof(SignalConn))), object_(new (storage_) SignalConn) {}
  ~ZeroedConnection() {
    object_->~SignalConn();
    std::free(storage_);
  }
  ZeroedConnection(const ZeroedConnection&) = delete;
  ZeroedConnection& operator=(const ZeroedConnection&) = delete;

  SignalConn& operator*() const { return *object_; }
  SignalConn* operator->() const { return object_; }

 private:
  void* storage_;
  SignalConn* object_;
};

class ConnectionTest : public testing::Test {
 protected:
  ConnectionTest() : engine_(support::FakeEngine::Get()) {
    engine_.Reset();
    interrupted = 0;
  }

  support::CapturedOutput output_;
  support::FakeEngine& engine_;
  ZeroedConnection connection_;
};

// Signed in at a server that records, with a service thread. The end takes up to one heartbeat sleep.
class ConnectedTest : public ConnectionTest {
 protected:
  ConnectedTest() {
    connection_->setLoginMessage(Text("SN0001"), Text("K"), Text("S"), Text("02:00:00:00:00:01"), 2, Text(""), 1,
                                 Text(""));
    EXPECT_EQ(connection_->init(Text("127.0.0.1"), server_.Port()), 0);
    service_ = std::thread([this] { connection_->run(); });
    EXPECT_TRUE(server_.WaitForTexts(1));
  }
  ~ConnectedTest() override {
    interrupted = 1;
    service_.join();
  }

  static char* Text(const char* text) { return const_cast<char*>(text); }

  void SignIn(int sid) {
    server_.Send(R"({"code":0,"opcode":"signin","sid":)" + std::to_string(sid) +
                 R"(,"stunAddr":[],"turnAddr":[],"turnUser":[],"turnPass":[]})");
    EXPECT_TRUE(output_.WaitFor("GOT local uid " + std::to_string(sid) + "\n"));
  }

  // The count'th text behind the sign-in request, from 1.
  std::string Sent(std::size_t count) {
    return server_.WaitForTexts(count + 1) ? server_.Texts().at(count) : "nothing came";
  }

  support::RecordingServer server_;
  std::thread service_;
};

#endif  // SIGNALCONN_TESTS_CONNECTION_TEST_H
