#include "rtp_sender.h"

#include <algorithm>
#include <cstring>

namespace kovra {

namespace {

// A viewer asks again after a round trip; where that is not known, not sooner than this.
constexpr Micros kMinResendInterval{10000};

void Copy(ByteView bytes, std::uint8_t* out) {
  if (!bytes.empty()) std::memcpy(out, bytes.data, bytes.size);
}

}  // namespace

RtpSender::RtpSender(const RtpSenderConfig& config)
    : config_(config),
      history_(config.historyPackets),
      nextSequence_(config.firstSequence),
      nextRtxSequence_(config.rtx ? config.rtx->firstSequence : std::uint16_t{0}) {}

std::size_t RtpSender::write(const RtpHeader& header, ByteView prefix, ByteView payload, Micros now,
                             std::uint8_t* out) {
  WriteRtpHeader(header, out);
  std::size_t size = kRtpHeaderBytes;
  // Without RTX a packet is sent again under the nonce that it had: not a bit of it may differ.
  const bool mayAsk = config_.playoutDelayId && config_.rtx;
  const std::optional<Micros> delay = mayAsk ? repairDelay_.wanted(now) : std::nullopt;
  if (delay) {
    WritePlayoutDelay({*config_.playoutDelayId, *delay}, out);
    size += kPlayoutDelayBytes;
  }
  Copy(prefix, out + size);
  size += prefix.size;
  Copy(payload, out + size);
  return size + payload.size;
}

std::size_t RtpSender::writePacket(const FrameRef& frame, std::size_t index, Micros time, std::uint8_t* out,
                                   std::uint32_t timestampShift) {
  if (index == 0) lastTimestamp_ = advanceTo(frame->timestamp() + config_.timestampOffset + timestampShift);
  lastTime_ = time;
  RtpHeader header;
  header.marker = frame->marker(index);
  header.payloadType = config_.payloadType;
  header.sequence = nextSequence_++;
  header.timestamp = lastTimestamp_;
  header.ssrc = config_.ssrc;

  const ByteView payload = frame->payload(index);
  history_.add(frame, index, header.sequence, header.timestamp);
  ++packets_;
  octets_ += static_cast<std::uint32_t>(payload.size);
  return write(header, {}, payload, time, out);
}

std::uint32_t RtpSender::advanceTo(std::uint32_t timestamp) const {
  // Only a little behind: after hours without a frame the difference of wrapped timestamps means nothing.
  const bool behind = packets_ > 0 && lastTimestamp_ - timestamp < config_.clockRate;
  return behind ? lastTimestamp_ + 1 : timestamp;
}

std::size_t RtpSender::writeRetransmission(std::uint16_t sequence, Micros now, Micros roundTrip, std::uint8_t* out) {
  const RtpHistory::Packet* packet = history_.resend(sequence, now, std::max(roundTrip, kMinResendInterval));
  if (packet == nullptr) return 0;
  repairDelay_.onRepair(now, roundTrip);

  RtpHeader header;
  header.marker = packet->frame->marker(packet->index);
  header.payloadType = config_.payloadType;
  header.sequence = sequence;
  header.timestamp = packet->timestamp;
  header.ssrc = config_.ssrc;
  const ByteView payload = packet->frame->payload(packet->index);
  ++retransmitted_;
  if (!config_.rtx) return write(header, {}, payload, now, out);

  std::uint8_t original[kRtxHeaderBytes];
  WriteU16(sequence, original);
  header.payloadType = config_.rtx->payloadType;
  header.sequence = nextRtxSequence_++;
  header.ssrc = config_.rtx->ssrc;
  return write(header, {original, kRtxHeaderBytes}, payload, now, out);
}

std::optional<RtcpSenderInfo> RtpSender::senderInfo(Micros now, NtpTime wallClock) const {
  if (packets_ == 0) return std::nullopt;
  RtcpSenderInfo info;
  info.ntp = wallClock;
  info.rtpTimestamp = lastTimestamp_ + ToRtpTicks(now - lastTime_, config_.clockRate);
  info.packets = packets_;
  info.octets = octets_;
  return info;
}

}  // namespace kovra
