#include "monotonic_event.h"

#include <time.h>

namespace {

timespec FromNow(int milliseconds) {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  time.tv_sec += milliseconds / 1000;
  time.tv_nsec += (milliseconds % 1000) * 1000000L;
  if (time.tv_nsec >= 1000000000L) {
    time.tv_nsec -= 1000000000L;
    time.tv_sec += 1;
  }
  return time;
}

class Lock {
 public:
  explicit Lock(pthread_mutex_t* mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
  ~Lock() { pthread_mutex_unlock(mutex_); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

}  // namespace

MonotonicEvent::MonotonicEvent() {
  pthread_mutex_init(&mutex_, nullptr);
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  pthread_cond_init(&condition_, &attributes);
  pthread_condattr_destroy(&attributes);
}

MonotonicEvent::~MonotonicEvent() {
  pthread_cond_destroy(&condition_);
  pthread_mutex_destroy(&mutex_);
}

void MonotonicEvent::Set() {
  const Lock lock(&mutex_);
  set_ = true;
  pthread_cond_broadcast(&condition_);
}

void MonotonicEvent::Reset() {
  const Lock lock(&mutex_);
  set_ = false;
}

bool MonotonicEvent::IsSet() {
  const Lock lock(&mutex_);
  return set_;
}

bool MonotonicEvent::WaitFor(int milliseconds) {
  const timespec deadline = FromNow(milliseconds);
  const Lock lock(&mutex_);
  int error = 0;
  while (!set_ && error == 0) error = pthread_cond_timedwait(&condition_, &mutex_, &deadline);
  return set_;
}
