// What the engine takes of an offer: sections, codecs, directions, transport (RFC 8829, 8843, 8842, 6184).
#ifndef SIGNALCONN_ENGINE_SDP_NEGOTIATION_H
#define SIGNALCONN_ENGINE_SDP_NEGOTIATION_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sdp_offer.h"

namespace kovra {

// What becomes of a section of the offer.
enum class SectionFate {
  kServed,
  kInactive,  // stays in the description with a codec of ours, carries nothing
  kRejected,  // port 0, outside the BUNDLE group
};

struct NegotiatedVideo {
  std::size_t section = 0;  // index in the offer
  std::uint8_t payloadType = 0;
  std::optional<std::uint8_t> rtxPayloadType;
  bool nack = false;
  bool pli = false;
  bool fir = false;
  std::optional<std::uint8_t> playoutDelayId;  // of the header extension
};

struct NegotiatedAudio {
  std::size_t section = 0;
  std::uint8_t payloadType = 0;
  bool send = false;     // the viewer listens
  bool receive = false;  // the viewer may talk
};

struct SdpNegotiation {
  std::vector<SectionFate> fates;    // one for each section of the offer
  std::vector<std::uint8_t> codecs;  // the payload type answered in each section that is not rejected, else 0
  std::optional<NegotiatedVideo> video;
  std::optional<NegotiatedAudio> audio;

  // The one transport, that of the section transportSection; candidates carry its mid and index.
  std::size_t transportSection = 0;
  std::string mid;
  bool bundled = false;  // whether the answer has a BUNDLE group
  std::string iceUfrag;  // the viewer's
  std::string icePassword;
  bool iceLite = false;                      // then we are the controlling side
  SdpSetup setup = SdpSetup::kPassive;       // ours: kActive (DTLS client) or kPassive (server)
  std::vector<SdpFingerprint> fingerprints;  // of the strongest algorithm; the certificate must match one
  std::vector<IceCandidate> candidates;      // the viewer's, without duplicates
};

// Decides for one transport: the BUNDLE group with video in it, if any, or the first section that can be
// served alone. preferredSetup counts where the offer leaves the choice ("actpass"). nullopt with a reason when
// nothing of the offer can be served.
std::optional<SdpNegotiation> Negotiate(const SdpOffer& offer, SdpSetup preferredSetup, std::string& reason);

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_SDP_NEGOTIATION_H
