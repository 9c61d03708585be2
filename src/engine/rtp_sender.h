// One RTP stream to one viewer: headers, counts for sender reports, retransmission (RFC 3550, 4588).
#ifndef SIGNALCONN_ENGINE_RTP_SENDER_H
#define SIGNALCONN_ENGINE_RTP_SENDER_H

#include <cstddef>
#include <cstdint>
#include <optional>

#include "media_frame.h"
#include "media_time.h"
#include "repair_delay.h"
#include "rtcp.h"
#include "rtp_history.h"
#include "rtp_packet.h"

namespace kovra {

struct RtxConfig {
  std::uint32_t ssrc = 0;
  std::uint8_t payloadType = 0;
  std::uint16_t firstSequence = 0;
};

// The numbers that RFC 3550 wants random come from the caller.
struct RtpSenderConfig {
  std::uint32_t ssrc = 0;
  std::uint8_t payloadType = 0;
  std::uint32_t clockRate = 0;
  std::uint16_t firstSequence = 0;
  std::uint32_t timestampOffset = 0;
  std::size_t historyPackets = 0;              // 0: no retransmission
  std::optional<RtxConfig> rtx;                // without it, packets are sent again as they were: SRTP must allow that
  std::optional<std::uint8_t> playoutDelayId;  // of the header extension; without it, or RTX, no delay is asked for
};

// One thread at a time.
class RtpSender {
 public:
  explicit RtpSender(const RtpSenderConfig& config);

  // Writes the frame's packet to out (kMaxRtpPacketBytes), counts and remembers it. Returns its length. The packets of
  // a frame follow each other, from 0 on.
  // time: what the timestamp stands for, for sender reports. timestampShift is added to the frame's timestamp. A frame
  // that would not come after the one before is moved there: streams that take turns must not go backward.
  std::size_t writePacket(const FrameRef& frame, std::size_t index, Micros time, std::uint8_t* out,
                          std::uint32_t timestampShift = 0);

  // Writes the packet of that sequence number again. Returns its length, or 0 when there is nothing to send.
  // roundTrip: the last measured, 0 when unknown.
  std::size_t writeRetransmission(std::uint16_t sequence, Micros now, Micros roundTrip, std::uint8_t* out);

  // What a sender report at this time says; nullopt before the first packet.
  std::optional<RtcpSenderInfo> senderInfo(Micros now, NtpTime wallClock) const;

  std::uint32_t ssrc() const { return config_.ssrc; }
  std::uint32_t retransmittedPackets() const { return retransmitted_; }

 private:
  std::size_t write(const RtpHeader& header, ByteView prefix, ByteView payload, Micros now, std::uint8_t* out);
  std::uint32_t advanceTo(std::uint32_t timestamp) const;

  const RtpSenderConfig config_;
  RtpHistory history_;
  RepairDelay repairDelay_;
  std::uint16_t nextSequence_;
  std::uint16_t nextRtxSequence_;
  std::uint32_t packets_ = 0;
  std::uint32_t octets_ = 0;
  std::uint32_t retransmitted_ = 0;
  std::uint32_t lastTimestamp_ = 0;
  Micros lastTime_{0};  // that lastTimestamp_ stands for
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_RTP_SENDER_H
