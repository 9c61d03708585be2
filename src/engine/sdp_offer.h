// A viewer's SDP offer (RFC 8866, 8829) as far as the engine needs it. Says what stands there, judges nothing.
#ifndef SIGNALCONN_ENGINE_SDP_OFFER_H
#define SIGNALCONN_ENGINE_SDP_OFFER_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ice_candidate.h"

namespace kovra {

enum class SdpDirection { kSendRecv, kSendOnly, kRecvOnly, kInactive };
enum class SdpSetup { kActPass, kActive, kPassive };  // RFC 8842

struct SdpFingerprint {
  std::string algorithm;             // lower case: "sha-256"
  std::vector<std::uint8_t> digest;  // of the certificate; its length fits the algorithm

  bool operator==(const SdpFingerprint& other) const { return algorithm == other.algorithm && digest == other.digest; }
};

// A header extension (RFC 8285).
struct SdpExtmap {
  std::uint8_t id = 0;  // of the one-byte form
  SdpDirection direction = SdpDirection::kSendRecv;
};

// One payload type of a section.
struct SdpCodec {
  std::uint8_t payloadType = 0;
  std::string name;  // as written: "H264"; empty when there is no rtpmap and the type is not a static one we know
  std::uint32_t clockRate = 0;
  std::uint32_t channels = 1;
  std::string parameters;  // of fmtp; empty: none
  // Of rtcp-fb, also for all types ("*"): "nack", "nack pli" and "ccm fir".
  bool nack = false;
  bool pli = false;
  bool fir = false;

  // The value of one fmtp parameter, by its name in any case; nullopt when it is not there.
  std::optional<std::string> parameter(std::string_view key) const;
  bool isNamed(std::string_view codecName) const;  // in any case
};

// What may stand at session level too already holds the value that is in force for the section.
struct SdpSection {
  std::string media;  // "video", "audio", "application", …
  std::uint16_t port = 0;
  std::string protocol;  // "UDP/TLS/RTP/SAVPF"
  std::string formats;   // the rest of the m= line
  std::string mid;       // empty: none
  SdpDirection direction = SdpDirection::kSendRecv;
  std::vector<SdpCodec> codecs;  // in the order of the m= line; empty for other protocols than RTP
  std::string iceUfrag;          // empty: none, or one longer than ICE allows
  std::string icePassword;
  std::vector<SdpFingerprint> fingerprints;  // of algorithms that we can check: sha-256, sha-384, sha-512
  std::optional<SdpSetup> setup;
  bool rtcpMux = false;
  bool bundleOnly = false;
  std::optional<SdpExtmap> playoutDelay;  // for kPlayoutDelayUri, where the viewer takes it from us
  std::vector<IceCandidate> candidates;

  bool isRejected() const { return port == 0 && !bundleOnly; }
  const SdpCodec* findCodec(std::uint8_t payloadType) const;  // null: not in the section
};

struct SdpOffer {
  std::vector<SdpSection> sections;
  std::vector<std::vector<std::string>> bundleGroups;  // mids; none stands twice
  bool iceLite = false;
};

constexpr std::size_t kMaxSdpBytes = std::size_t{256} << 10;

// Reads an offer; line ends may be CRLF or LF. nullopt with a reason when it is no SDP, contradicts itself or
// counts absurdly many of something.
std::optional<SdpOffer> ReadSdpOffer(std::string_view text, std::string& reason);

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_SDP_OFFER_H
