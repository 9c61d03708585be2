// The answer's text for a negotiated offer (RFC 8829, 5.3).
#ifndef SIGNALCONN_ENGINE_SDP_ANSWER_H
#define SIGNALCONN_ENGINE_SDP_ANSWER_H

#include <cstdint>
#include <string>
#include <vector>

#include "ice_candidate.h"
#include "sdp_negotiation.h"
#include "sdp_offer.h"

namespace kovra {

// Our side of the connection.
struct SdpAnswerParameters {
  std::uint64_t sessionId = 0;  // random, below 2^63
  std::string iceUfrag;
  std::string icePassword;
  SdpFingerprint fingerprint;
  std::string cname;     // also of SDES
  std::string streamId;  // MediaStream id; the tracks are "video" and "audio" behind it
  std::uint32_t videoSsrc = 0;
  std::uint32_t videoRtxSsrc = 0;  // used only when RTX was negotiated
  std::uint32_t audioSsrc = 0;
  bool trickle = true;                   // more candidates follow the answer
  std::vector<IceCandidate> candidates;  // those known already
};

// With CRLF line ends. Without trickle the answer ends its candidates.
std::string WriteSdpAnswer(const SdpOffer& offer, const SdpNegotiation& negotiation,
                           const SdpAnswerParameters& parameters);

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_SDP_ANSWER_H
