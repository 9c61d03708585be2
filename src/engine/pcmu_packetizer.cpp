#include "pcmu_packetizer.h"

#include <algorithm>
#include <utility>

namespace kovra {

namespace {

constexpr Micros kSampleTime{125};

}  // namespace

PcmuPacketizer::PcmuPacketizer(std::shared_ptr<FramePool> pool) : pool_(std::move(pool)) {}

FrameRef PcmuPacketizer::packetize(ByteView& audio, Micros now) {
  if (audio.empty()) return {};
  const ByteView payload = audio.from(0, kMaxPacketBytes);
  audio = audio.from(payload.size);
  const bool firstOfTalkspurt = passPause(now);
  FrameRef frame = pool_->take(payload.size);
  frame.edit().setTimestamp(timestamp_);
  frame.edit().add({}, payload, firstOfTalkspurt);
  timestamp_ += static_cast<std::uint32_t>(payload.size);
  // A caller whose clock is a little fast runs ahead without end; its pauses are to be seen all the same.
  end_ = std::min(*end_ + kSampleTime * static_cast<std::int64_t>(payload.size), now + kPause);
  return frame;
}

// Whether a talkspurt begins at now.
bool PcmuPacketizer::passPause(Micros now) {
  const bool first = !end_;
  const bool paused = end_ && now - *end_ > kPause;
  if (paused) timestamp_ += ToRtpTicks(now - *end_, kPcmuClockRate);
  end_ = std::max(end_.value_or(now), now);
  return first || paused;
}

}  // namespace kovra
