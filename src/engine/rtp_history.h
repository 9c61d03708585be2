// What one viewer was sent lately, for retransmission. The payloads are the shared frames'.
#ifndef SIGNALCONN_ENGINE_RTP_HISTORY_H
#define SIGNALCONN_ENGINE_RTP_HISTORY_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "media_frame.h"
#include "media_time.h"

namespace kovra {

// A ring of the last packets, by sequence number. One thread at a time.
class RtpHistory {
 public:
  struct Packet {
    FrameRef frame;  // empty: no packet
    std::uint32_t index = 0;
    std::uint16_t sequence = 0;
    std::uint32_t timestamp = 0;
    std::uint8_t resends = 0;
    Micros lastResent{0};
  };

  static constexpr std::uint8_t kMaxResends = 10;  // viewers give up after as many requests

  // capacity: packets kept; rounded up to a power of two, at most 32768.
  explicit RtpHistory(std::size_t capacity);

  void add(FrameRef frame, std::size_t index, std::uint16_t sequence, std::uint32_t timestamp);

  // The packet to send again, counted as sent now; null when it is gone, was sent again less than minInterval ago
  // (the request crossed it) or too often. Valid until the next add.
  const Packet* resend(std::uint16_t sequence, Micros now, Micros minInterval);

 private:
  std::vector<Packet> ring_;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_RTP_HISTORY_H
