// The GStreamer pipeline of one session.
#ifndef SIGNALCONN_ENGINE_WEBRTCBIN_PIPELINE_H
#define SIGNALCONN_ENGINE_WEBRTCBIN_PIPELINE_H

#include <gst/webrtc/webrtc.h>

#include <cstdint>
#include <optional>

#include "kovra.h"
#include "webrtcbin_gstreamer.h"
#include "webrtcbin_offer.h"

namespace engine {

// One medium on its way out: RTP packets pushed into source go to the viewer.
struct SendingTrack {
  Owned<GstElement> source;  // an appsrc
  Owned<GstWebRTCRTPTransceiver> transceiver;
  int payloadType = 0;
  std::uint32_t ssrc = 0;
};

struct Pipeline {
  Owned<GstElement> bin;
  GstElement* webrtc = nullptr;  // belongs to bin
  std::optional<SendingTrack> video;
  std::optional<SendingTrack> audio;
};

// Makes the pipeline that can answer offer, with the servers and paths of config. It stands still.
// Throws nothing; a track that webrtcbin does not take is left out.
Pipeline buildPipeline(const KovraSessionConfig& config, const Offer& offer);

}  // namespace engine

#endif  // SIGNALCONN_ENGINE_WEBRTCBIN_PIPELINE_H
