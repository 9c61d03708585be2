#include "rtcp.h"

#include <algorithm>

namespace kovra {

namespace {

constexpr std::uint8_t kSenderReport = 200;
constexpr std::uint8_t kReceiverReport = 201;
constexpr std::uint8_t kSourceDescription = 202;
constexpr std::uint8_t kBye = 203;
constexpr std::uint8_t kTransportFeedback = 205;
constexpr std::uint8_t kPayloadFeedback = 206;

constexpr std::uint8_t kFormatNack = 1;
constexpr std::uint8_t kFormatPli = 1;
constexpr std::uint8_t kFormatFir = 4;

constexpr std::size_t kHeaderBytes = 4;
constexpr std::size_t kSsrcBytes = 4;
constexpr std::size_t kSenderInfoBytes = 20;
constexpr std::size_t kReportBlockBytes = 24;
constexpr std::size_t kFeedbackHeaderBytes = 8;  // SSRCs of sender and media
constexpr std::size_t kNackItemBytes = 4;
constexpr std::size_t kFirItemBytes = 8;
constexpr std::size_t kMaxCount = 31;

constexpr std::uint8_t kCnameItem = 1;
constexpr std::size_t kMaxSdesText = 255;

// One packet of a compound, behind its header and without padding.
struct RtcpPacket {
  std::uint8_t type = 0;
  std::uint8_t count = 0;  // or the format of feedback
  ByteView body;
};

// Takes the first packet off rest.
std::optional<RtcpPacket> TakePacket(ByteView& rest) {
  if (rest.size < kHeaderBytes || (rest[0] & 0xC0) != 0x80) return std::nullopt;
  const std::size_t size = kHeaderBytes + std::size_t{4} * ReadU16(rest.data + 2);
  if (size > rest.size) return std::nullopt;
  RtcpPacket packet;
  packet.type = rest[1];
  packet.count = rest[0] & 0x1F;
  packet.body = rest.from(kHeaderBytes, size - kHeaderBytes);
  if ((rest[0] & 0x20) != 0) {
    if (packet.body.empty()) return std::nullopt;
    const std::size_t padding = packet.body[packet.body.size - 1];
    if (padding == 0 || padding > packet.body.size) return std::nullopt;
    packet.body.size -= padding;
  }
  rest = rest.from(size);
  return packet;
}

RtcpReportBlock ReadReportBlock(const std::uint8_t* in) {
  RtcpReportBlock block;
  block.ssrc = ReadU32(in);
  block.fractionLost = in[4];
  const auto lost = static_cast<std::int32_t>(ReadU24(in + 5));
  block.cumulativeLost = (lost & 0x800000) != 0 ? lost - 0x1000000 : lost;
  block.highestSequence = ReadU32(in + 8);
  block.jitter = ReadU32(in + 12);
  block.lastSenderReport = ReadU32(in + 16);
  block.delaySinceLastReport = ReadU32(in + 20);
  return block;
}

bool ReadReportBlocks(ByteView bytes, std::size_t count, RtcpCompound& result) {
  for (; count > 0; --count, bytes = bytes.from(kReportBlockBytes)) {
    if (bytes.size < kReportBlockBytes) return false;
    result.reportBlocks.push_back(ReadReportBlock(bytes.data));
  }
  return true;
}

bool ReadSenderReport(const RtcpPacket& packet, RtcpCompound& result) {
  const std::uint8_t* in = packet.body.data;
  if (packet.body.size < kSsrcBytes + kSenderInfoBytes) return false;
  RtcpSenderReport report;
  report.ssrc = ReadU32(in);
  report.info.ntp = static_cast<NtpTime>(ReadU32(in + 4)) << 32 | ReadU32(in + 8);
  report.info.rtpTimestamp = ReadU32(in + 12);
  report.info.packets = ReadU32(in + 16);
  report.info.octets = ReadU32(in + 20);
  result.senderReports.push_back(report);
  return ReadReportBlocks(packet.body.from(kSsrcBytes + kSenderInfoBytes), packet.count, result);
}

bool ReadBye(const RtcpPacket& packet, RtcpCompound& result) {
  if (packet.body.size < packet.count * kSsrcBytes) return false;
  for (std::size_t i = 0; i < packet.count; ++i) result.byes.push_back(ReadU32(packet.body.data + i * kSsrcBytes));
  return true;
}

// Each item names a packet and, bit by bit, the sixteen after it (RFC 4585, 6.2.1).
void ReadNack(std::uint32_t mediaSsrc, ByteView items, RtcpCompound& result) {
  for (; items.size >= kNackItemBytes; items = items.from(kNackItemBytes)) {
    const std::uint16_t first = ReadU16(items.data);
    const std::uint16_t following = ReadU16(items.data + 2);
    result.nacks.push_back({mediaSsrc, first});
    for (unsigned bit = 0; bit < 16; ++bit) {
      if ((following >> bit & 1) != 0) result.nacks.push_back({mediaSsrc, static_cast<std::uint16_t>(first + bit + 1)});
    }
  }
}

void ReadFir(ByteView items, RtcpCompound& result) {
  for (; items.size >= kFirItemBytes; items = items.from(kFirItemBytes)) {
    result.firs.push_back({ReadU32(items.data), items[4]});
  }
}

bool ReadFeedback(const RtcpPacket& packet, RtcpCompound& result) {
  if (packet.body.size < kFeedbackHeaderBytes) return false;
  const std::uint32_t mediaSsrc = ReadU32(packet.body.data + kSsrcBytes);
  const ByteView items = packet.body.from(kFeedbackHeaderBytes);
  if (packet.type == kTransportFeedback) {
    if (packet.count == kFormatNack) ReadNack(mediaSsrc, items, result);
  } else if (packet.count == kFormatPli) {
    result.plis.push_back(mediaSsrc);
  } else if (packet.count == kFormatFir) {
    ReadFir(items, result);
  }
  return true;
}

bool ReadPacket(const RtcpPacket& packet, RtcpCompound& result) {
  switch (packet.type) {
    case kSenderReport:
      return ReadSenderReport(packet, result);
    case kReceiverReport:
      return packet.body.size >= kSsrcBytes && ReadReportBlocks(packet.body.from(kSsrcBytes), packet.count, result);
    case kBye:
      return ReadBye(packet, result);
    case kTransportFeedback:
    case kPayloadFeedback:
      return ReadFeedback(packet, result);
    default:
      return true;
  }
}

void AppendU32(std::uint32_t value, std::vector<std::uint8_t>& out) {
  std::uint8_t bytes[4];
  WriteU32(value, bytes);
  out.insert(out.end(), bytes, bytes + sizeof bytes);
}

// bodyBytes is a multiple of four.
void AppendHeader(std::uint8_t type, std::size_t count, std::size_t bodyBytes, std::vector<std::uint8_t>& out) {
  std::uint8_t bytes[kHeaderBytes] = {static_cast<std::uint8_t>(0x80 | count), type};
  WriteU16(static_cast<std::uint16_t>(bodyBytes / 4), bytes + 2);
  out.insert(out.end(), bytes, bytes + sizeof bytes);
}

void AppendReportBlock(const RtcpReportBlock& block, std::vector<std::uint8_t>& out) {
  AppendU32(block.ssrc, out);
  AppendU32(std::uint32_t{block.fractionLost} << 24 | (static_cast<std::uint32_t>(block.cumulativeLost) & 0xFFFFFF),
            out);
  AppendU32(block.highestSequence, out);
  AppendU32(block.jitter, out);
  AppendU32(block.lastSenderReport, out);
  AppendU32(block.delaySinceLastReport, out);
}

void AppendReportBlocks(const std::vector<RtcpReportBlock>& blocks, std::size_t count, std::vector<std::uint8_t>& out) {
  for (std::size_t i = 0; i < count; ++i) AppendReportBlock(blocks[i], out);
}

}  // namespace

void RtcpCompound::clear() {
  senderReports.clear();
  reportBlocks.clear();
  nacks.clear();
  plis.clear();
  firs.clear();
  byes.clear();
}

bool ReadRtcp(ByteView packet, RtcpCompound& result) {
  result.clear();
  if (packet.empty()) return false;
  while (!packet.empty()) {
    const std::optional<RtcpPacket> part = TakePacket(packet);
    if (!part || !ReadPacket(*part, result)) return false;
  }
  return true;
}

void WriteSenderReport(std::uint32_t ssrc, const RtcpSenderInfo& info, const std::vector<RtcpReportBlock>& blocks,
                       std::vector<std::uint8_t>& out) {
  const std::size_t count = std::min(blocks.size(), kMaxCount);
  AppendHeader(kSenderReport, count, kSsrcBytes + kSenderInfoBytes + count * kReportBlockBytes, out);
  AppendU32(ssrc, out);
  AppendU32(static_cast<std::uint32_t>(info.ntp >> 32), out);
  AppendU32(static_cast<std::uint32_t>(info.ntp), out);
  AppendU32(info.rtpTimestamp, out);
  AppendU32(info.packets, out);
  AppendU32(info.octets, out);
  AppendReportBlocks(blocks, count, out);
}

void WriteReceiverReport(std::uint32_t ssrc, const std::vector<RtcpReportBlock>& blocks,
                         std::vector<std::uint8_t>& out) {
  const std::size_t count = std::min(blocks.size(), kMaxCount);
  AppendHeader(kReceiverReport, count, kSsrcBytes + count * kReportBlockBytes, out);
  AppendU32(ssrc, out);
  AppendReportBlocks(blocks, count, out);
}

void WriteSdes(std::uint32_t ssrc, const std::string& cname, std::vector<std::uint8_t>& out) {
  const std::size_t text = std::min(cname.size(), kMaxSdesText);
  const std::size_t items = 2 + text;
  const std::size_t end = 4 - items % 4;  // at least one zero byte ends the list
  AppendHeader(kSourceDescription, 1, kSsrcBytes + items + end, out);
  AppendU32(ssrc, out);
  out.push_back(kCnameItem);
  out.push_back(static_cast<std::uint8_t>(text));
  out.insert(out.end(), cname.begin(), cname.begin() + static_cast<std::ptrdiff_t>(text));
  out.insert(out.end(), end, 0);
}

void WriteBye(const std::vector<std::uint32_t>& ssrcs, std::vector<std::uint8_t>& out) {
  const std::size_t count = std::min(ssrcs.size(), kMaxCount);
  AppendHeader(kBye, count, count * kSsrcBytes, out);
  for (std::size_t i = 0; i < count; ++i) AppendU32(ssrcs[i], out);
}

std::optional<Micros> RoundTripTime(const RtcpReportBlock& block, NtpTime wallClock) {
  constexpr std::int32_t kTicksPerSecond = 65536;
  constexpr std::int32_t kLongest = 60 * kTicksPerSecond;
  // Rounding on both sides may make a short way look like less than none.
  constexpr std::int32_t kRounding = kTicksPerSecond / 1000;
  if (block.lastSenderReport == 0) return std::nullopt;
  const auto ticks =
      static_cast<std::int32_t>(CompactNtp(wallClock) - block.lastSenderReport - block.delaySinceLastReport);
  if (ticks < -kRounding || ticks > kLongest) return std::nullopt;
  return Micros(std::int64_t{std::max(ticks, 0)} * 1000000 / kTicksPerSecond);
}

}  // namespace kovra
