// The thread on which the engine calls back, so that no callback ever holds up the network.
#ifndef SIGNALCONN_ENGINE_CALLBACK_THREAD_H
#define SIGNALCONN_ENGINE_CALLBACK_THREAD_H

#include <kovra.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "jitter_buffer.h"
#include "session_table.h"

namespace kovra {

// Calls in the order of the posts. Nothing is delivered about a session that its owner has closed.
class CallbackThread {
 public:
  CallbackThread() = default;
  CallbackThread(const CallbackThread&) = delete;
  CallbackThread& operator=(const CallbackThread&) = delete;

  // Keeps itself alive in the thread. False when the system has no thread left. May be called again then, and after
  // stop.
  static bool Start(const std::shared_ptr<CallbackThread>& self);
  // Nothing is delivered any more. Waits for the callback under way, unless called from inside it.
  void stop();

  void setReceiver(KovraStreamerCallback* receiver) { receiver_.store(receiver, std::memory_order_release); }

  // Any thread.
  void postAnswer(SessionHandle session, std::string sdp);
  void postCandidate(SessionHandle session, std::string candidate);
  void postState(SessionHandle session, KOVRA_STATE state);
  // Dropped when the receiver does not keep up. Allocates nothing in the long run.
  void postAudio(SessionHandle session, const JitterBuffer::Frame& frame);

 private:
  enum class Kind { kAnswer, kCandidate, kState, kAudio };
  struct Event {
    Kind kind;
    SessionHandle session;
    KOVRA_STATE state;
    std::string text;
    JitterBuffer::Frame audio;
  };

  void post(Event event);
  void run();
  bool takeEvents();
  void deliver(Event& event);

  std::atomic<KovraStreamerCallback*> receiver_{nullptr};
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  std::mutex mutex_;  // guards what follows
  std::condition_variable posted_;
  std::vector<Event> events_;
  std::size_t waitingAudio_ = 0;
  std::vector<Event> delivering_;  // the thread's own
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_CALLBACK_THREAD_H
