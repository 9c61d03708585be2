#include "rtp_history.h"

#include <algorithm>
#include <utility>

namespace kovra {

namespace {

constexpr std::size_t kMaxCapacity = 32768;

std::size_t RoundUpToPowerOfTwo(std::size_t value) {
  std::size_t power = 1;
  while (power < value && power < kMaxCapacity) power *= 2;
  return value == 0 ? 0 : power;
}

}  // namespace

RtpHistory::RtpHistory(std::size_t capacity) : ring_(RoundUpToPowerOfTwo(capacity)) {}

void RtpHistory::add(FrameRef frame, std::size_t index, std::uint16_t sequence, std::uint32_t timestamp) {
  if (ring_.empty()) return;
  Packet& packet = ring_[sequence & (ring_.size() - 1)];
  packet.frame = std::move(frame);
  packet.index = static_cast<std::uint32_t>(index);
  packet.sequence = sequence;
  packet.timestamp = timestamp;
  packet.resends = 0;
}

const RtpHistory::Packet* RtpHistory::resend(std::uint16_t sequence, Micros now, Micros minInterval) {
  if (ring_.empty()) return nullptr;
  Packet& packet = ring_[sequence & (ring_.size() - 1)];
  if (!packet.frame || packet.sequence != sequence || packet.resends == kMaxResends) return nullptr;
  if (packet.resends > 0 && now - packet.lastResent < minInterval) return nullptr;
  ++packet.resends;
  packet.lastResent = now;
  return &packet;
}

}  // namespace kovra
