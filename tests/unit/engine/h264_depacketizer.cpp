#include "h264_depacketizer.h"

namespace kovra {

namespace {

constexpr std::uint8_t kFuA = 28;

// Adds one payload to nals; open tells whether a fragmented NAL unit waits for more.
bool AddPayload(ByteView payload, std::vector<Nal>& nals, bool& open) {
  if (payload.empty()) return false;
  const std::uint8_t type = payload[0] & 0x1F;
  if (type != kFuA) {
    if (open || type == 0 || type > 23) return false;
    nals.emplace_back(payload.data, payload.data + payload.size);
    return true;
  }
  if (payload.size < 3) return false;
  const bool start = (payload[1] & 0x80) != 0;
  const bool end = (payload[1] & 0x40) != 0;
  const auto header = static_cast<std::uint8_t>((payload[0] & 0xE0) | (payload[1] & 0x1F));
  if (start == open || (start && end) || (payload[1] & 0x20) != 0) return false;
  if (start) nals.push_back({header});
  if (nals.back()[0] != header) return false;
  nals.back().insert(nals.back().end(), payload.data + 2, payload.data + payload.size);
  open = !end;
  return true;
}

}  // namespace

std::optional<std::vector<Nal>> Depacketize(const MediaFrame& frame) {
  std::vector<Nal> nals;
  bool open = false;
  for (std::size_t i = 0; i < frame.packetCount(); ++i) {
    const bool last = i + 1 == frame.packetCount();
    if (frame.marker(i) != last || !AddPayload(frame.payload(i), nals, open)) return std::nullopt;
  }
  if (open) return std::nullopt;
  return nals;
}

}  // namespace kovra
