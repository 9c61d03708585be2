// Reads packetized H.264 as a viewer does (RFC 6184, packetization mode 1, without STAP-A).
#ifndef SIGNALCONN_TESTS_H264_DEPACKETIZER_H
#define SIGNALCONN_TESTS_H264_DEPACKETIZER_H

#include <cstdint>
#include <optional>
#include <vector>

#include "media_frame.h"

namespace kovra {

using Nal = std::vector<std::uint8_t>;

// The NAL units of a frame. nullopt when its payloads break the rules: fragments out of order or not joined, a
// marker anywhere but on the last packet.
std::optional<std::vector<Nal>> Depacketize(const MediaFrame& frame);

}  // namespace kovra

#endif  // SIGNALCONN_TESTS_H264_DEPACKETIZER_H
