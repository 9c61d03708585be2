#include "webrtcbin_control.h"

namespace engine {

int& EngineThreadMark::depth() {
  thread_local int depth = 0;
  return depth;
}

Control::Control(std::function<bool()> isIdle) : isIdle_(std::move(isIdle)), thread_([this] { run(); }) {}

void Control::postAt(Clock::time_point due, Task task) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (ended_) return;
  tasks_.emplace(due, std::move(task));
  changed_.notify_one();
}

void Control::stop(bool wait) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    changed_.notify_one();
  }
  if (wait) {
    thread_.join();
  } else {
    thread_.detach();
  }
}

void Control::run() {
  const EngineThreadMark mark;
  std::unique_lock<std::mutex> lock(mutex_);
  while (true) {
    if (!tasks_.empty() && tasks_.begin()->first <= Clock::now()) {
      Task task = std::move(tasks_.extract(tasks_.begin()).mapped());
      lock.unlock();
      task();
      task = nullptr;  // without the lock, since what the task held may post in turn
      lock.lock();
    } else if (stopping_ && isIdle_()) {
      ended_ = true;
      tasks_.clear();
      return;
    } else if (tasks_.empty()) {
      changed_.wait(lock);
    } else {
      const Clock::time_point due = tasks_.begin()->first;
      changed_.wait_until(lock, due);
    }
  }
}

}  // namespace engine
