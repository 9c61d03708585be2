// The clocks that the sessions read and pass down.
#ifndef SIGNALCONN_ENGINE_CLOCK_H
#define SIGNALCONN_ENGINE_CLOCK_H

#include <chrono>

#include "media_time.h"

namespace kovra {

// GLib's timers run on the same clock.
inline Micros MonotonicNow() {
  return std::chrono::duration_cast<Micros>(std::chrono::steady_clock::now().time_since_epoch());
}

// The Unix time when the monotonic clock was 0, as the wall clock has it now. Whoever measures with it takes it once:
// the wall clock is stepped.
inline Micros WallClockAtZero() {
  return std::chrono::duration_cast<Micros>(std::chrono::system_clock::now().time_since_epoch()) - MonotonicNow();
}

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_CLOCK_H
