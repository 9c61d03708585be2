// A flag that threads wait for, timed on the monotonic clock.
#ifndef SIGNALCONN_MONOTONIC_EVENT_H
#define SIGNALCONN_MONOTONIC_EVENT_H

#include <pthread.h>

// std::condition_variable waits on the wall clock where the C library has no pthread_cond_clockwait, and a
// camera's wall clock jumps. Any thread may call any operation.
class MonotonicEvent {
 public:
  MonotonicEvent();
  ~MonotonicEvent();
  MonotonicEvent(const MonotonicEvent&) = delete;
  MonotonicEvent& operator=(const MonotonicEvent&) = delete;

  void Set();
  void Reset();
  bool IsSet();
  // Waits until the flag is set, for milliseconds at most. Returns whether it is.
  bool WaitFor(int milliseconds);

 private:
  pthread_mutex_t mutex_;
  pthread_cond_t condition_;
  bool set_ = false;
};

#endif  // SIGNALCONN_MONOTONIC_EVENT_H
