#include "rtp_reception.h"

#include <algorithm>

namespace kovra {

namespace {

constexpr std::int64_t kMaxCumulativeLost = 0x7FFFFF;
constexpr std::int64_t kMinCumulativeLost = -0x800000;
constexpr std::uint64_t kFirstCycle = 0x10000;  // where SequenceExtender begins

}  // namespace

void RtpReception::onPacket(const RtpHeader& header, Micros now) {
  if (ssrc_ != header.ssrc) {
    *this = RtpReception(clockRate_);
    ssrc_ = header.ssrc;
  }
  const std::uint64_t sequence = extender_.extend(header.sequence);
  const std::uint32_t transit = ToRtpTicks(now, clockRate_) - header.timestamp;
  if (received_ == 0) {
    first_ = sequence;
    highest_ = sequence;
  } else {
    highest_ = std::max(highest_, sequence);
    const auto difference = static_cast<std::int32_t>(transit - transit_);
    const auto distance = static_cast<std::uint32_t>(std::abs(std::int64_t{difference}));
    jitterSixteenths_ += distance - ((jitterSixteenths_ + 8) >> 4);
  }
  transit_ = transit;
  ++received_;
}

void RtpReception::onSenderReport(std::uint32_t ssrc, const RtcpSenderInfo& info, Micros now) {
  if (ssrc_ != ssrc) return;
  lastSenderReport_ = CompactNtp(info.ntp);
  lastSenderReportAt_ = now;
}

std::optional<RtcpReportBlock> RtpReception::report(Micros now) {
  if (!ssrc_) return std::nullopt;
  const std::uint64_t expected = highest_ - first_ + 1;
  const auto lost = static_cast<std::int64_t>(expected) - static_cast<std::int64_t>(received_);
  const auto expectedNow = static_cast<std::int64_t>(expected - expectedBefore_);
  const std::int64_t lostNow = expectedNow - static_cast<std::int64_t>(received_ - receivedBefore_);
  expectedBefore_ = expected;
  receivedBefore_ = received_;

  RtcpReportBlock block;
  block.ssrc = *ssrc_;
  if (lostNow > 0)
    block.fractionLost = static_cast<std::uint8_t>(std::min<std::int64_t>(255, 256 * lostNow / expectedNow));
  block.cumulativeLost = static_cast<std::int32_t>(std::clamp(lost, kMinCumulativeLost, kMaxCumulativeLost));
  block.highestSequence = static_cast<std::uint32_t>(highest_ - kFirstCycle);
  block.jitter = jitterSixteenths_ >> 4;
  block.lastSenderReport = lastSenderReport_;
  if (lastSenderReport_ != 0) block.delaySinceLastReport = ToRtpTicks(now - lastSenderReportAt_, 65536);
  return block;
}

}  // namespace kovra
