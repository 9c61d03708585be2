// Counts of one received RTP stream for receiver reports (RFC 3550, 6.4.1 and A.3, A.8).
#ifndef SIGNALCONN_ENGINE_RTP_RECEPTION_H
#define SIGNALCONN_ENGINE_RTP_RECEPTION_H

#include <cstdint>
#include <optional>

#include "media_time.h"
#include "rtcp.h"
#include "rtp_packet.h"

namespace kovra {

// One thread at a time. A packet of another SSRC begins anew.
class RtpReception {
 public:
  explicit RtpReception(std::uint32_t clockRate) : clockRate_(clockRate) {}

  void onPacket(const RtpHeader& header, Micros now);
  void onSenderReport(std::uint32_t ssrc, const RtcpSenderInfo& info, Micros now);

  // The report block for now; the loss fraction covers the time since the call before. nullopt while nothing
  // was received.
  std::optional<RtcpReportBlock> report(Micros now);

 private:
  std::uint32_t clockRate_;
  std::optional<std::uint32_t> ssrc_;
  SequenceExtender extender_;
  std::uint64_t first_ = 0;
  std::uint64_t highest_ = 0;
  std::uint64_t received_ = 0;
  std::uint64_t expectedBefore_ = 0;
  std::uint64_t receivedBefore_ = 0;
  std::uint32_t transit_ = 0;
  std::uint32_t jitterSixteenths_ = 0;  // timestamp units times 16
  std::uint32_t lastSenderReport_ = 0;
  Micros lastSenderReportAt_{0};
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_RTP_RECEPTION_H
