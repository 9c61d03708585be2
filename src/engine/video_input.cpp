#include "video_input.h"

#include <utility>

#include "log.h"
#include "rtp_packet.h"

namespace kovra {

VideoInput::Stream::Stream(std::shared_ptr<FramePool> pool) : packetizer(std::move(pool), kMaxRtpPayloadBytes) {}

VideoInput::VideoInput(std::shared_ptr<FramePool> pool, FrameQueue& queue) : pool_(std::move(pool)), queue_(queue) {}

bool VideoInput::write(ByteView accessUnit, int videoType, bool isWatched, Micros now) {
  const std::lock_guard<std::mutex> lock(mutex_);
  auto stream = streams_.find(videoType);
  if (stream == streams_.end()) {
    if (streams_.size() >= kMaxStreams) return false;
    stream = streams_.try_emplace(videoType, pool_).first;
  }
  if (accessUnit.size > H264Packetizer::kMaxAccessUnitBytes) {
    lose(stream->second, videoType, isWatched, now);
    return false;
  }
  const FrameRef frame = stream->second.packetizer.packetize(accessUnit, ToRtpTicks(now, kVideoClockRate));
  if (!frame) return false;
  const RecentFrame recent{frame, ++lastNumber_, now};
  stream->second.recent.add(recent);
  if (isWatched) queue_.push({recent, QueuedFrame::Medium::kVideo, videoType});
  return frame->isKeyFrame();
}

void VideoInput::lose(Stream& stream, int videoType, bool isWatched, Micros now) {
  if (!std::exchange(stream.complained, true)) {
    Log(LogLevel::kWarning, "engine: video type %d has frames of more than %zu bytes, which are not sent", videoType,
        H264Packetizer::kMaxAccessUnitBytes);
  }
  stream.recent.clear();
  if (isWatched) queue_.push({{FrameRef(), ++lastNumber_, now}, QueuedFrame::Medium::kVideo, videoType});
}

std::vector<RecentFrame> VideoInput::recent(int videoType, Micros now) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto stream = streams_.find(videoType);
  if (stream == streams_.end()) return {};
  stream->second.recent.forgetStale(now);
  return stream->second.recent.frames();
}

void VideoInput::forgetStale(Micros now) {
  const std::lock_guard<std::mutex> lock(mutex_);
  for (auto& [type, stream] : streams_) stream.recent.forgetStale(now);
}

}  // namespace kovra
