// Packets that are sent together, one behind the other in one block of memory.
#ifndef SIGNALCONN_ENGINE_PACKET_BATCH_H
#define SIGNALCONN_ENGINE_PACKET_BATCH_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "bytes.h"
#include "rtp_packet.h"
#include "srtp_transport.h"

namespace kovra {

// Holds its memory for good. One thread at a time.
class PacketBatch {
 public:
  static constexpr std::size_t kMaxPackets = 64;
  static constexpr std::size_t kPacketRoom = kMaxRtpPacketBytes + kMaxSrtpTrailerBytes;

  PacketBatch() : bytes_(kMaxPackets * kPacketRoom) {}

  bool isFull() const { return count_ == kMaxPackets; }
  // kPacketRoom bytes for the next packet. Not full.
  std::uint8_t* room() { return bytes_.data() + end(count_); }
  // The next packet is the first size bytes of room(); nothing is added when size is 0.
  void add(std::size_t size) {
    if (size == 0) return;
    ends_[count_] = end(count_) + size;
    ++count_;
  }

  std::size_t count() const { return count_; }
  ByteView packet(std::size_t index) const { return span(index, index + 1); }
  // The packets from first up to, not with, last.
  ByteView span(std::size_t first, std::size_t last) const {
    return {bytes_.data() + end(first), end(last) - end(first)};
  }
  void clear() { count_ = 0; }

 private:
  std::size_t end(std::size_t count) const { return count == 0 ? 0 : ends_[count - 1]; }

  std::vector<std::uint8_t> bytes_;
  std::array<std::size_t, kMaxPackets> ends_{};
  std::size_t count_ = 0;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_PACKET_BATCH_H
