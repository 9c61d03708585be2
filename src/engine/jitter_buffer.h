// Brings the packets of a viewer's talk-back, G.711 u-law at 8 kHz, into order and into even time.
#ifndef SIGNALCONN_ENGINE_JITTER_BUFFER_H
#define SIGNALCONN_ENGINE_JITTER_BUFFER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "media_time.h"
#include "pcmu_packetizer.h"
#include "rtp_packet.h"

namespace kovra {

// A timeline of samples, played in frames of 20 ms, each at its due time. What is missing at that time is
// silence, so that loss shifts nothing; what comes later than that, or twice, is dropped.
//
// The delay begins at 40 ms and adapts, one frame at a time: it grows when a packet, or its beginning, came too late,
// and shrinks when for two seconds all packets came needlessly early. It never exceeds 100 ms: then the oldest samples
// go. Another SSRC, or a lasting jump of the timestamps, begins anew. When nothing was there to play for 200 ms, the
// output pauses until the next packet. One thread at a time.
class JitterBuffer {
 public:
  using Frame = std::array<std::uint8_t, kPcmuFrameBytes>;

  static constexpr Micros kFrameTime{20000};
  static constexpr Micros kInitialDelay{40000};
  static constexpr Micros kMaxDelay{100000};

  // Takes a packet of PCMU whose payload may have any length.
  void insert(const RtpPacket& packet, Micros now);

  // When the next frame is due; nullopt while the output pauses.
  std::optional<Micros> nextDue() const { return due_; }

  // Fills frame and returns true when one is due at now. Call it until it returns false: a caller who is late
  // gets the frames that became due, at most kMaxDelay of them.
  bool take(Micros now, Frame& frame);

 private:
  static constexpr std::int32_t kMaxDelaySamples = 800;
  static constexpr std::size_t kCapacity = 1024;  // samples; a power of two above kMaxDelaySamples
  struct Sample {
    std::uint8_t value;
    bool present;
  };

  bool noteSequence(const RtpHeader& header);
  void restart(const RtpPacket& packet, Micros now);
  void onLate(const RtpPacket& packet, Micros now);
  bool mayGrow(std::int64_t end, Micros now) const;
  void growDelay(Micros now);
  void store(const RtpPacket& packet, Micros now);
  void makeRoom(std::uint32_t end, Micros now);
  void skipFrame();
  void beginWindow(Micros start);
  void observeMargin(Micros margin, Micros now);
  void catchUp(Micros now);

  std::array<Sample, kCapacity> samples_{};
  std::optional<std::uint32_t> ssrc_;
  SequenceExtender extender_;
  std::uint64_t highestSequence_ = 0;
  std::optional<Micros> due_;
  std::uint32_t playTimestamp_ = 0;  // of the first sample of the next frame
  std::uint32_t endTimestamp_ = 0;   // behind the newest sample
  int lateInRow_ = 0;
  int silentInRow_ = 0;
  bool hold_ = false;  // the next frame is silence that takes nothing off the timeline
  Micros windowStart_{0};
  Micros leastMargin_{0};  // in the window
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_JITTER_BUFFER_H
