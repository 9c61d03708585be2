// G.711 u-law as RTP payloads (RFC 3551, 4.5.14): the bytes as they are, one timestamp unit a byte.
#ifndef SIGNALCONN_ENGINE_PCMU_PACKETIZER_H
#define SIGNALCONN_ENGINE_PCMU_PACKETIZER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "bytes.h"
#include "media_frame.h"
#include "media_time.h"

namespace kovra {

constexpr std::uint32_t kPcmuClockRate = 8000;
constexpr std::size_t kPcmuFrameBytes = 160;  // 20 ms
constexpr std::uint8_t kPcmuSilence = 0xFF;   // u-law for zero

// One per audio stream (audio type). One thread at a time.
class PcmuPacketizer {
 public:
  // Most bytes of one packet, 100 ms.
  static constexpr std::size_t kMaxPacketBytes = 800;
  // A caller who has written nothing for so much longer than its last bytes last has paused.
  static constexpr Micros kPause{200000};

  explicit PcmuPacketizer(std::shared_ptr<FramePool> pool);

  // Takes at most kMaxPacketBytes off the front of audio, written at now: a frame of one packet, whose timestamp
  // follows the one before. Call it until audio is empty; then it returns an empty reference. The first timestamp is
  // that of its time, so that a viewer may change from stream to stream. After a pause the timestamp has advanced by
  // its length, and the packet has the marker of a talkspurt's first.
  FrameRef packetize(ByteView& audio, Micros now);

 private:
  bool beginWrite(ByteView audio, Micros now);

  const std::shared_ptr<FramePool> pool_;
  std::uint32_t timestamp_ = 0;
  std::optional<Micros> end_;  // when the bytes written so far will have been played; nullopt: none yet
  bool insideWrite_ = false;   // the audio at hand was not empty yet
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_PCMU_PACKETIZER_H
