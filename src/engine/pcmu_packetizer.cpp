#include "pcmu_packetizer.h"

#include <utility>

namespace kovra {

PcmuPacketizer::PcmuPacketizer(std::shared_ptr<FramePool> pool) : pool_(std::move(pool)) {}

FrameRef PcmuPacketizer::packetize(ByteView& audio) {
  if (audio.empty()) return {};
  const ByteView payload = audio.from(0, kMaxPacketBytes);
  audio = audio.from(payload.size);
  FrameRef frame = pool_->take(payload.size);
  frame.edit().setTimestamp(timestamp_);
  frame.edit().add({}, payload, false);
  timestamp_ += static_cast<std::uint32_t>(payload.size);
  return frame;
}

}  // namespace kovra
