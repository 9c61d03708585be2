// Frames on their way from the callers' threads to the network thread.
#ifndef SIGNALCONN_ENGINE_FRAME_QUEUE_H
#define SIGNALCONN_ENGINE_FRAME_QUEUE_H

#include <cstddef>
#include <mutex>
#include <vector>

#include "recent_frames.h"

namespace kovra {

struct QueuedFrame {
  enum class Medium { kVideo, kAudio, kLoss };  // kLoss: no frame, but the place where some of any stream were lost

  RecentFrame media;  // video without a frame: one of this stream was lost before it came here
  Medium medium = Medium::kVideo;
  int type = 0;  // video or audio type
};

// Any thread. Bounded, and allocates nothing in the long run.
class FrameQueue {
 public:
  static constexpr std::size_t kMaxFrames = 256;

  // False when the queue was full: the frame is lost, and take tells where.
  bool push(QueuedFrame frame);

  // Moves all frames to the empty out. What was lost since the call before came after all of them.
  void take(std::vector<QueuedFrame>& out);

 private:
  std::mutex mutex_;  // guards what follows
  std::vector<QueuedFrame> frames_;
  bool lost_ = false;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_FRAME_QUEUE_H
