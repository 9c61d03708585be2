// The frames of a video stream since its last key frame: with them a newcomer sees the picture at once.
#ifndef SIGNALCONN_ENGINE_RECENT_FRAMES_H
#define SIGNALCONN_ENGINE_RECENT_FRAMES_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "media_frame.h"
#include "media_time.h"

namespace kovra {

struct RecentFrame {
  FrameRef frame;
  std::uint64_t number = 0;  // rises from frame to frame
  Micros arrived{0};
};

// Bounded: of a group of pictures that grows beyond the limits nothing is kept, since its end is of no use without its
// beginning. One thread at a time.
class RecentFrames {
 public:
  static constexpr std::size_t kMaxFrames = 100;   // a decoder catches up with them in well under a second
  static constexpr std::size_t kMaxPackets = 768;  // three seconds at 2 Mbit/s
  static constexpr Micros kMaxAge{2'000'000};      // of the last frame: what is older is no picture of now

  void add(RecentFrame frame);
  // Lets go of all frames of a stream that has stopped.
  void forgetStale(Micros now);
  // Lets go of all frames: one that was to follow is missing.
  void clear();
  // From the key frame on; empty when there is none.
  const std::vector<RecentFrame>& frames() const { return frames_; }

 private:
  std::vector<RecentFrame> frames_;
  std::size_t packets_ = 0;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_RECENT_FRAMES_H
