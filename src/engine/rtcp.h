// RTCP: compound packets read (RFC 3550, 4585, 5104, 5506) and the reports that we write.
#ifndef SIGNALCONN_ENGINE_RTCP_H
#define SIGNALCONN_ENGINE_RTCP_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bytes.h"
#include "media_time.h"

namespace kovra {

struct RtcpSenderInfo {
  NtpTime ntp = 0;
  std::uint32_t rtpTimestamp = 0;
  std::uint32_t packets = 0;
  std::uint32_t octets = 0;
};

struct RtcpReportBlock {
  std::uint32_t ssrc = 0;           // the stream that it is about
  std::uint8_t fractionLost = 0;    // in 1/256
  std::int32_t cumulativeLost = 0;  // 24 bits, signed
  std::uint32_t highestSequence = 0;
  std::uint32_t jitter = 0;                // timestamp units
  std::uint32_t lastSenderReport = 0;      // compact NTP of the sender report, 0: none yet
  std::uint32_t delaySinceLastReport = 0;  // in 2^-16 s
};

struct RtcpSenderReport {
  std::uint32_t ssrc = 0;
  RtcpSenderInfo info;
};

struct RtcpNack {
  std::uint32_t mediaSsrc = 0;
  std::uint16_t sequence = 0;
};

struct RtcpFir {
  std::uint32_t mediaSsrc = 0;
  std::uint8_t commandSequence = 0;  // the same number again is a repetition, not a new request
};

// All that one compound packet told. Reuse the object: its memory is kept.
struct RtcpCompound {
  std::vector<RtcpSenderReport> senderReports;
  std::vector<RtcpReportBlock> reportBlocks;  // of sender and receiver reports
  std::vector<RtcpNack> nacks;                // one for each lost packet
  std::vector<std::uint32_t> plis;            // media SSRCs
  std::vector<RtcpFir> firs;
  std::vector<std::uint32_t> byes;  // SSRCs that end

  void clear();
};

// Reads a decrypted packet, compound or of reduced size. Unknown kinds are skipped. Returns false when the
// lengths do not fit together; what stood before that point is in result all the same.
bool ReadRtcp(ByteView packet, RtcpCompound& result);

// Each appends one packet to out. A compound packet begins with a report, followed by SDES (RFC 3550, 6.1).
void WriteSenderReport(std::uint32_t ssrc, const RtcpSenderInfo& info, const std::vector<RtcpReportBlock>& blocks,
                       std::vector<std::uint8_t>& out);
void WriteReceiverReport(std::uint32_t ssrc, const std::vector<RtcpReportBlock>& blocks,
                         std::vector<std::uint8_t>& out);
void WriteSdes(std::uint32_t ssrc, const std::string& cname, std::vector<std::uint8_t>& out);
void WriteBye(const std::vector<std::uint32_t>& ssrcs, std::vector<std::uint8_t>& out);

// The round trip time that a viewer's report block about our stream shows. wallClock: when it arrived, on the
// clock of our sender reports. nullopt when the block refers to none of them, or to nonsense.
std::optional<Micros> RoundTripTime(const RtcpReportBlock& block, NtpTime wallClock);

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_RTCP_H
