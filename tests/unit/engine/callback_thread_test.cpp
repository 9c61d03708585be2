#include "callback_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kovra {
namespace {

using testing::ElementsAre;

// Writes down what it is told, and does what the test wants on the way.
class Receiver : public KovraStreamerCallback {
 public:
  void onAnswer(KOVRA_SESSION_ID sid, const std::string& sdp) override { note(sid, "answer " + sdp); }
  void onIceCandidate(KOVRA_SESSION_ID sid, const std::string& text) override { note(sid, "candidate " + text); }
  void onStateChange(KOVRA_SESSION_ID sid, KOVRA_STATE state) override { note(sid, "state " + std::to_string(state)); }
  void onAudioFrame(KOVRA_SESSION_ID sid, void* data, unsigned int len) override {
    note(sid, "audio " + std::to_string(len) + " of " + std::to_string(*static_cast<std::uint8_t*>(data)));
  }

  std::vector<std::string> notes() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return notes_;
  }

  // Set it before anything is posted.
  std::function<void(const std::string&)> during = [](const std::string&) {};
  std::promise<void> last;  // set by the answer "last"

 private:
  void note(KOVRA_SESSION_ID sid, const std::string& text) {
    during(text);
    const std::lock_guard<std::mutex> lock(mutex_);
    notes_.push_back(std::to_string(sid) + " " + text);
    if (text == "answer last") last.set_value();
  }

  mutable std::mutex mutex_;
  std::vector<std::string> notes_;
};

class CallbackThreadTest : public testing::Test {
 protected:
  CallbackThreadTest() {
    thread_->setReceiver(&receiver_);
    CallbackThread::Start(thread_);
  }
  ~CallbackThreadTest() override { thread_->stop(); }

  // Returns when everything posted so far has been delivered.
  void settle() {
    thread_->postAnswer(session(0), "last");
    receiver_.last.get_future().wait();
    thread_->stop();
  }

  static SessionHandle session(KOVRA_SESSION_ID id) {
    return std::make_shared<SharedSession>(id, KovraSessionConfig(), std::make_shared<std::atomic<std::size_t>>(0));
  }

  Receiver receiver_;
  const std::shared_ptr<CallbackThread> thread_ = std::make_shared<CallbackThread>();
};

TEST_F(CallbackThreadTest, DeliversInOrder) {
  JitterBuffer::Frame frame;
  frame.fill(7);
  thread_->postAnswer(session(1), "sdp");
  thread_->postCandidate(session(1), "host");
  thread_->postState(session(2), KOVRA_STATE_CONNECTED);
  thread_->postAudio(session(2), frame);
  settle();
  EXPECT_THAT(receiver_.notes(),
              ElementsAre("1 answer sdp", "1 candidate host", "2 state 3", "2 audio 160 of 7", "0 answer last"));
}

TEST_F(CallbackThreadTest, SaysNothingAboutASessionThatItsOwnerClosed) {
  const SessionHandle closed = session(1);
  closed->markClosedByOwner();
  thread_->postState(closed, KOVRA_STATE_CONNECTED);
  settle();
  EXPECT_THAT(receiver_.notes(), ElementsAre("0 answer last"));
}

TEST_F(CallbackThreadTest, DropsAudioThatNobodyTakes) {
  std::promise<void> entered;
  std::promise<void> leave;
  receiver_.during = [&](const std::string& text) {
    if (text != "answer hold") return;
    entered.set_value();
    leave.get_future().wait();
  };
  thread_->postAnswer(session(1), "hold");
  entered.get_future().wait();
  const SessionHandle talking = session(2);
  for (int i = 0; i < 10000; ++i) thread_->postAudio(talking, {});
  leave.set_value();
  settle();
  EXPECT_LT(receiver_.notes().size(), 100u);
  EXPECT_GT(receiver_.notes().size(), 10u);
}

TEST_F(CallbackThreadTest, StopsFromInsideACallback) {
  std::promise<void> stopped;
  receiver_.during = [&](const std::string&) {
    thread_->stop();
    stopped.set_value();
  };
  thread_->postAnswer(session(1), "one");
  thread_->postAnswer(session(1), "two");
  stopped.get_future().wait();
  // The thread holds its object until it has ended.
  while (thread_.use_count() > 1) std::this_thread::yield();
  EXPECT_THAT(receiver_.notes(), ElementsAre("1 answer one"));
}

TEST_F(CallbackThreadTest, StopWaitsForTheCallbackUnderWay) {
  std::promise<void> entered;
  std::promise<void> leave;
  receiver_.during = [&](const std::string&) {
    entered.set_value();
    leave.get_future().wait();
  };
  thread_->postAnswer(session(1), "one");
  entered.get_future().wait();
  const auto stopping = std::async(std::launch::async, [this] { thread_->stop(); });
  EXPECT_EQ(stopping.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  leave.set_value();
  stopping.wait();
  EXPECT_THAT(receiver_.notes(), ElementsAre("1 answer one"));
}

TEST_F(CallbackThreadTest, DeliversNothingAfterStop) {
  thread_->stop();
  thread_->postAnswer(session(1), "late");
  EXPECT_TRUE(receiver_.notes().empty());
}

}  // namespace
}  // namespace kovra
