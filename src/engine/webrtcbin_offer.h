// What a viewer's SDP offer asks for.
#ifndef SIGNALCONN_ENGINE_WEBRTCBIN_OFFER_H
#define SIGNALCONN_ENGINE_WEBRTCBIN_OFFER_H

#include <gst/sdp/sdp.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace engine {

// A section that we can send on, and the format that we choose there.
struct OfferedTrack {
  unsigned int mlineIndex;
  int payloadType;
  std::string profileLevelId;  // of H.264, as offered; may be empty
};

struct FreeSdp {
  void operator()(GstSDPMessage* sdp) const { gst_sdp_message_free(sdp); }
};

struct Offer {
  std::unique_ptr<GstSDPMessage, FreeSdp> sdp;
  std::vector<std::string> mids;      // of every section
  std::string fingerprint;            // of the viewer's certificate, as in a=fingerprint
  std::optional<OfferedTrack> video;  // H.264 in packetization-mode 1
  std::optional<OfferedTrack> audio;  // PCMU
};

// Reads an offer with at least one of the two tracks. Otherwise returns nothing and says why in whyNot.
std::optional<Offer> readOffer(const std::string& text, std::string& whyNot);

}  // namespace engine

#endif  // SIGNALCONN_ENGINE_WEBRTCBIN_OFFER_H
