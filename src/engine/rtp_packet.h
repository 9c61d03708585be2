// RTP packets (RFC 3550, 5.1) and their sequence numbers.
#ifndef SIGNALCONN_ENGINE_RTP_PACKET_H
#define SIGNALCONN_ENGINE_RTP_PACKET_H

#include <cstddef>
#include <cstdint>
#include <optional>

#include "bytes.h"
#include "media_time.h"

namespace kovra {

constexpr std::size_t kRtpHeaderBytes = 12;    // as we write it: no CSRC, no extension
constexpr std::size_t kPlayoutDelayBytes = 8;  // a header extension with one element of three bytes (RFC 8285, 4.2)
constexpr std::size_t kRtxHeaderBytes = 2;     // the original sequence number (RFC 4588, 4)
// Whole RTP packet before SRTP: with SRTP, UDP, IPv6 and a relay's header it stays within 1280 bytes.
constexpr std::size_t kMaxRtpPacketBytes = 1200;
// What is left for the payload, so that it also fits into a retransmission.
constexpr std::size_t kMaxRtpPayloadBytes = kMaxRtpPacketBytes - kRtpHeaderBytes - kPlayoutDelayBytes - kRtxHeaderBytes;

struct RtpHeader {
  bool marker = false;
  std::uint8_t payloadType = 0;
  std::uint16_t sequence = 0;
  std::uint32_t timestamp = 0;
  std::uint32_t ssrc = 0;
};

struct RtpPacket {
  RtpHeader header;
  ByteView payload;  // into the bytes that were read
};

// Of the packets that share a port, whether this one is RTCP (RFC 5761, 4).
bool IsRtcp(ByteView packet);

// Reads a decrypted packet: CSRC, header extension and padding are skipped. nullopt for what is not RTP.
std::optional<RtpPacket> ReadRtpPacket(ByteView packet);

// Writes kRtpHeaderBytes bytes to out.
void WriteRtpHeader(const RtpHeader& header, std::uint8_t* out);

// Asks the viewer to show frames no sooner than this after they came, by the header extension of this URI.
constexpr char kPlayoutDelayUri[] = "http://www.webrtc.org/experiments/rtp-hdrext/playout-delay";
constexpr std::uint8_t kMaxExtensionId = 14;  // of the one-byte form; ids begin at 1
struct PlayoutDelay {
  std::uint8_t id = 0;
  Micros delay{0};
};

// Adds the extension behind the header that begins at packet: writes kPlayoutDelayBytes bytes behind it.
void WritePlayoutDelay(const PlayoutDelay& wanted, std::uint8_t* packet);

// Extends 16-bit sequence numbers over their wrap (RFC 3550, A.1): each is taken as the nearest to the
// highest so far.
class SequenceExtender {
 public:
  // The first number is placed in the second cycle, so that no result is ever negative.
  std::uint64_t extend(std::uint16_t sequence);

 private:
  std::optional<std::uint64_t> highest_;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_RTP_PACKET_H
