#include "rtp_packet.h"

#include <algorithm>

namespace kovra {

namespace {

constexpr std::uint8_t kVersionMask = 0xC0;
constexpr std::uint8_t kVersion2 = 0x80;
constexpr std::uint8_t kPaddingBit = 0x20;
constexpr std::uint8_t kExtensionBit = 0x10;
constexpr std::uint8_t kCsrcCountMask = 0x0F;
constexpr std::uint8_t kMarkerBit = 0x80;
constexpr std::size_t kExtensionHeaderBytes = 4;
constexpr std::uint8_t kFirstRtcpType = 192;
constexpr std::uint8_t kLastRtcpType = 223;
constexpr std::uint64_t kSequenceCycle = 0x10000;

}  // namespace

bool IsRtcp(ByteView packet) { return packet.size >= 2 && packet[1] >= kFirstRtcpType && packet[1] <= kLastRtcpType; }

std::optional<RtpPacket> ReadRtpPacket(ByteView packet) {
  if (packet.size < kRtpHeaderBytes || (packet[0] & kVersionMask) != kVersion2 || IsRtcp(packet)) return std::nullopt;

  std::size_t begin = kRtpHeaderBytes + std::size_t{4} * (packet[0] & kCsrcCountMask);
  if ((packet[0] & kExtensionBit) != 0) {
    if (packet.size < begin + kExtensionHeaderBytes) return std::nullopt;
    begin += kExtensionHeaderBytes + std::size_t{4} * ReadU16(packet.data + begin + 2);
  }
  if (packet.size < begin) return std::nullopt;

  std::size_t end = packet.size;
  if ((packet[0] & kPaddingBit) != 0) {
    const std::size_t padding = packet[packet.size - 1];
    if (padding == 0 || padding > end - begin) return std::nullopt;
    end -= padding;
  }

  RtpPacket result;
  result.header.marker = (packet[1] & kMarkerBit) != 0;
  result.header.payloadType = static_cast<std::uint8_t>(packet[1] & ~kMarkerBit);
  result.header.sequence = ReadU16(packet.data + 2);
  result.header.timestamp = ReadU32(packet.data + 4);
  result.header.ssrc = ReadU32(packet.data + 8);
  result.payload = packet.from(begin, end - begin);
  return result;
}

void WriteRtpHeader(const RtpHeader& header, std::uint8_t* out) {
  out[0] = kVersion2;
  out[1] = static_cast<std::uint8_t>(header.payloadType | (header.marker ? kMarkerBit : 0));
  WriteU16(header.sequence, out + 2);
  WriteU32(header.timestamp, out + 4);
  WriteU32(header.ssrc, out + 8);
}

void WritePlayoutDelay(const PlayoutDelay& wanted, std::uint8_t* packet) {
  constexpr std::uint16_t kOneByteForm = 0xBEDE;
  constexpr std::uint8_t kElementBytes = 3;
  constexpr std::uint32_t kLargest = 0xFFF;  // 12 bits each for the least and the largest delay, in 10 ms
  const auto steps = static_cast<std::uint32_t>(wanted.delay.count() / 10'000);
  packet[0] |= kExtensionBit;
  std::uint8_t* extension = packet + kRtpHeaderBytes;
  WriteU16(kOneByteForm, extension);
  WriteU16(1, extension + 2);  // words that follow
  WriteU32(
      (std::uint32_t{wanted.id} << 28U) | ((kElementBytes - 1U) << 24U) | (std::min(steps, kLargest) << 12U) | kLargest,
      extension + 4);
}

std::uint64_t SequenceExtender::extend(std::uint16_t sequence) {
  if (!highest_) {
    highest_ = kSequenceCycle + sequence;
    return *highest_;
  }
  const auto step = static_cast<std::int16_t>(sequence - static_cast<std::uint16_t>(*highest_));
  const std::uint64_t extended = *highest_ + static_cast<std::uint64_t>(std::int64_t{step});
  if (step > 0) highest_ = extended;
  return extended;
}

}  // namespace kovra
