#include "pcmu_packetizer.h"

#include <algorithm>
#include <utility>

namespace kovra {

namespace {

Micros TimeOf(ByteView samples) { return Micros{125} * static_cast<std::int64_t>(samples.size); }

}  // namespace

PcmuPacketizer::PcmuPacketizer(std::shared_ptr<FramePool> pool) : pool_(std::move(pool)) {}

FrameRef PcmuPacketizer::packetize(ByteView& audio, Micros now) {
  if (audio.empty()) return {};
  const bool firstOfTalkspurt = !insideWrite_ && beginWrite(audio, now);
  const ByteView payload = audio.from(0, kMaxPacketBytes);
  audio = audio.from(payload.size);
  insideWrite_ = !audio.empty();
  FrameRef frame = pool_->take(payload.size);
  frame.edit().setTimestamp(timestamp_);
  frame.edit().add({}, payload, firstOfTalkspurt);
  timestamp_ += static_cast<std::uint32_t>(payload.size);
  return frame;
}

// Whether a talkspurt begins with what is written at now.
bool PcmuPacketizer::beginWrite(ByteView audio, Micros now) {
  const bool first = !end_;
  const bool paused = end_ && now - *end_ > kPause;
  if (first) timestamp_ = ToRtpTicks(now, kPcmuClockRate);
  if (paused) timestamp_ += ToRtpTicks(now - *end_, kPcmuClockRate);
  const Micros length = TimeOf(audio);
  // A caller whose clock is a little fast runs ahead without end; its pauses are to be seen all the same.
  end_ = std::min(std::max(end_.value_or(now), now) + length, now + std::max(length, kPause));
  return first || paused;
}

}  // namespace kovra
