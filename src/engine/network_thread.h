// The thread on which all sessions live: a GLib main context with the sockets and timers of all viewers.
#ifndef SIGNALCONN_ENGINE_NETWORK_THREAD_H
#define SIGNALCONN_ENGINE_NETWORK_THREAD_H

#include <glib.h>

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "media_time.h"

namespace kovra {

class NetworkThread {
 public:
  using Task = std::function<void()>;

  // onWake runs on the thread after every wake(), and may cover several of them.
  explicit NetworkThread(Task onWake);
  // The thread has ended by then, or was never started.
  ~NetworkThread();
  NetworkThread(const NetworkThread&) = delete;
  NetworkThread& operator=(const NetworkThread&) = delete;

  // Once, but again after a failure: false when the system has no thread left.
  bool start();
  // Drops the tasks that wait, runs last, ends the thread and waits for it. Not from the thread itself.
  void stop(Task last);

  // Any thread. Tasks run in order; those posted after stop never do.
  void post(Task task);
  // Any thread. Allocates nothing.
  void wake();

  GMainContext* context() const { return context_; }

 private:
  struct Inbox;
  static const Inbox& InboxOf(GSource* source);
  void run();
  void runTasks();

  const Task onWake_;
  GMainContext* const context_;
  GSource* const inbox_;
  std::atomic<bool> woken_{false};
  std::mutex mutex_;  // guards what follows
  std::deque<Task> tasks_;
  bool stopping_ = false;
  std::thread thread_;
};

// Calls a function on a context's thread at a set time. Belongs to that thread.
class LoopTimer {
 public:
  LoopTimer(GMainContext* context, std::function<void()> function);
  ~LoopTimer();
  LoopTimer(const LoopTimer&) = delete;
  LoopTimer& operator=(const LoopTimer&) = delete;

  // The next time to call, once; in place of an earlier one. nullopt: never.
  void set(std::optional<Micros> time);

 private:
  struct Source;

  const std::function<void()> function_;
  GSource* const source_;
  std::optional<Micros> time_;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_NETWORK_THREAD_H
