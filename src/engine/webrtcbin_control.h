// The thread on which sessions change their state.
#ifndef SIGNALCONN_ENGINE_WEBRTCBIN_CONTROL_H
#define SIGNALCONN_ENGINE_WEBRTCBIN_CONTROL_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace engine {

// Runs tasks one at a time, in the order in which they fall due. Tasks may post further ones.
class Control {
 public:
  using Clock = std::chrono::steady_clock;
  using Task = std::function<void()>;

  // isIdle is asked on the control thread, after stop: the thread ends once it answers true and no task is due.
  explicit Control(std::function<bool()> isIdle);
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;

  // Any thread. A task that falls due after the thread has ended is dropped.
  void post(Task task) { postAt(Clock::now(), std::move(task)); }
  void postAt(Clock::time_point due, Task task);

  // Lets the thread end; waits for it, or with wait false leaves it to end by itself, with this object still
  // there. Called once.
  void stop(bool wait);

 private:
  void run();

  const std::function<bool()> isIdle_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::multimap<Clock::time_point, Task> tasks_;  // equal times keep the order of posting
  bool stopping_ = false;
  bool ended_ = false;
  std::thread thread_;
};

// Marks the calling thread as one of the engine's own while the mark lives.
class EngineThreadMark {
 public:
  EngineThreadMark() { ++depth(); }
  ~EngineThreadMark() { --depth(); }
  EngineThreadMark(const EngineThreadMark&) = delete;
  EngineThreadMark& operator=(const EngineThreadMark&) = delete;

  static bool isSet() { return depth() > 0; }

 private:
  static int& depth();
};

}  // namespace engine

#endif  // SIGNALCONN_ENGINE_WEBRTCBIN_CONTROL_H
