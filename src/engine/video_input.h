// Where the camera's video comes in: access units of several streams side by side, told apart by their video type.
#ifndef SIGNALCONN_ENGINE_VIDEO_INPUT_H
#define SIGNALCONN_ENGINE_VIDEO_INPUT_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "frame_queue.h"
#include "h264_packetizer.h"
#include "media_frame.h"
#include "recent_frames.h"

namespace kovra {

// Any thread.
class VideoInput {
 public:
  static constexpr std::size_t kMaxStreams = 16;

  // queue outlives this.
  VideoInput(std::shared_ptr<FramePool> pool, FrameQueue& queue);

  // Cuts an access unit, borrowed for the call, into packets, queues the frame when somebody watches and remembers it
  // for newcomers. Returns whether it was a key frame. One that is too large is queued as lost.
  bool write(ByteView accessUnit, int videoType, bool isWatched, Micros now);

  // The stream's frames since its last key frame; none of a stream that has stopped. All that were queued by now are
  // among them or before them.
  std::vector<RecentFrame> recent(int videoType, Micros now);

  // Lets go of what is remembered of streams that have stopped.
  void forgetStale(Micros now);

 private:
  struct Stream {
    explicit Stream(std::shared_ptr<FramePool> pool);
    H264Packetizer packetizer;
    RecentFrames recent;
    bool complained = false;
  };

  void lose(Stream& stream, int videoType, bool isWatched, Micros now);

  const std::shared_ptr<FramePool> pool_;
  FrameQueue& queue_;
  std::mutex mutex_;  // guards what follows
  std::map<int, Stream> streams_;
  std::uint64_t lastNumber_ = 0;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_VIDEO_INPUT_H
