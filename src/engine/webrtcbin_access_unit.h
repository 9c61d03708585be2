// From H.264 access units to RTP payloads (RFC 6184), once for all sessions.
#ifndef SIGNALCONN_ENGINE_WEBRTCBIN_ACCESS_UNIT_H
#define SIGNALCONN_ENGINE_WEBRTCBIN_ACCESS_UNIT_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "webrtcbin_gstreamer.h"

namespace engine {

// Payload bytes of one RTP packet, less than what a packet may have on any usual path.
constexpr std::size_t kMaxPayload = 1200;

// One access unit as RTP payloads in packetization-mode 1: the last payload's packet carries the marker.
struct AccessUnit {
  std::vector<Owned<GstMemory>> payloads;
  bool isKeyFrame = false;  // an IDR picture, with SPS and PPS before it as far as any were seen
};

// Cuts the access units of one stream. Keeps the latest parameter sets, for an encoder that does not repeat
// them before every IDR picture. Not thread-safe.
class Packetizer {
 public:
  // Bytes that hold no picture yield no payloads.
  AccessUnit packetize(const std::uint8_t* data, std::size_t size);

 private:
  std::vector<std::vector<std::uint8_t>> parameterSets_;
};

Owned<GstMemory> copyToMemory(const std::uint8_t* data, std::size_t size);

}  // namespace engine

#endif  // SIGNALCONN_ENGINE_WEBRTCBIN_ACCESS_UNIT_H
