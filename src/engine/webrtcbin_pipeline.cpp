#include "webrtcbin_pipeline.h"

#include <string>

#include "webrtcbin_log.h"

namespace engine {
namespace {

constexpr guint kJitterBufferMs = 60;  // of the viewer's voice

std::string escape(const std::string& text) {
  return OwnedText(g_uri_escape_string(text.c_str(), nullptr, FALSE)).get();
}

// Turns RFC 7064 and 7065 URLs into those that webrtcbin wants. It takes one STUN server and any number of
// TURN servers.
void addIceServers(GstElement* webrtc, const std::vector<KovraIceServer>& servers) {
  bool hasStun = false;
  for (const KovraIceServer& server : servers) {
    const std::size_t colon = server.url.find(':');
    const std::string scheme = server.url.substr(0, colon);
    const std::string rest = colon == std::string::npos ? "" : server.url.substr(colon + 1);
    gboolean taken = FALSE;
    if (scheme == "stun" && !rest.empty()) {
      if (!hasStun) g_object_set(webrtc, "stun-server", ("stun://" + rest).c_str(), nullptr);
      taken = TRUE;
      hasStun = true;
    } else if (scheme == "turn" && !rest.empty()) {
      const std::string url = "turn://" + escape(server.username) + ":" + escape(server.credential) + "@" + rest;
      g_signal_emit_by_name(webrtc, "add-turn-server", url.c_str(), &taken);
    }
    if (taken == FALSE) log(LogLevel::kWarning, "ICE server left out, its URL cannot be read: " + server.url);
  }
}

// libnice leaves loopback interfaces out, and a relay on this machine's loopback is reached from there only.
bool hasLoopbackRelay(const KovraSessionConfig& config) {
  for (const KovraIceServer& server : config.iceServers) {
    if (server.url.compare(0, 9, "turn:127.") == 0) return true;
  }
  return false;
}

void configureIce(GstElement* webrtc, const KovraSessionConfig& config) {
  GObject* ice = nullptr;
  g_object_get(webrtc, "ice-agent", &ice, nullptr);
  const Owned<GObject> ownedIce(ice);
  GObject* agent = nullptr;
  g_object_get(ice, "agent", &agent, nullptr);
  // UPnP opens sockets of its own and makes the answer wait; a vanished viewer shows by unanswered checks.
  g_object_set(agent, "upnp", FALSE, "keepalive-conncheck", TRUE, nullptr);
  g_object_unref(agent);
  g_object_set(ice, "ice-tcp", FALSE, nullptr);
  if (config.relayOnly && hasLoopbackRelay(config)) {
    gboolean added = FALSE;
    g_signal_emit_by_name(ice, "add-local-ip-address", "127.0.0.1", &added);
  }
}

Owned<GstElement> makeWebrtc(const KovraSessionConfig& config) {
  Owned<GstElement> webrtc(GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("webrtcbin", nullptr))));
  g_object_set(webrtc.get(), "bundle-policy", GST_WEBRTC_BUNDLE_POLICY_MAX_BUNDLE, "latency", kJitterBufferMs,
               "ice-transport-policy",
               config.relayOnly ? GST_WEBRTC_ICE_TRANSPORT_POLICY_RELAY : GST_WEBRTC_ICE_TRANSPORT_POLICY_ALL, nullptr);
  configureIce(webrtc.get(), config);
  addIceServers(webrtc.get(), config.iceServers);
  return webrtc;
}

// The SSRC has to stand in the caps before the answer is made: without it the answer announces SSRC 0.
Owned<GstCaps> makeCaps(const OfferedTrack& track, bool isVideo, std::uint32_t ssrc) {
  Owned<GstCaps> caps(gst_caps_new_simple("application/x-rtp", "media", G_TYPE_STRING, isVideo ? "video" : "audio",
                                          "encoding-name", G_TYPE_STRING, isVideo ? "H264" : "PCMU", "clock-rate",
                                          G_TYPE_INT, isVideo ? 90000 : 8000, "payload", G_TYPE_INT, track.payloadType,
                                          "ssrc", G_TYPE_UINT, ssrc, nullptr));
  if (!isVideo) return caps;
  gst_caps_set_simple(caps.get(), "packetization-mode", G_TYPE_STRING, "1", nullptr);
  if (!track.profileLevelId.empty()) {
    gst_caps_set_simple(caps.get(), "profile-level-id", G_TYPE_STRING, track.profileLevelId.c_str(), nullptr);
  }
  return caps;
}

Owned<GstElement> makeSource(GstCaps* caps) {
  Owned<GstElement> source(GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("appsrc", nullptr))));
  // The queue has no bound of its own: whoever writes looks at its level first.
  g_object_set(source.get(), "caps", caps, "format", GST_FORMAT_TIME, "is-live", TRUE, "do-timestamp", TRUE,
               "max-bytes", G_GUINT64_CONSTANT(0), nullptr);
  return source;
}

std::optional<SendingTrack> addTrack(Pipeline& pipeline, const OfferedTrack& offered, bool isVideo) {
  SendingTrack track;
  track.payloadType = offered.payloadType;
  do track.ssrc = g_random_int();
  while (track.ssrc == 0);
  const Owned<GstCaps> caps = makeCaps(offered, isVideo, track.ssrc);

  GstPadTemplate* padTemplate = gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(pipeline.webrtc), "sink_%u");
  const std::string padName = "sink_" + std::to_string(offered.mlineIndex);
  const Owned<GstPad> sink(gst_element_request_pad(pipeline.webrtc, padTemplate, padName.c_str(), caps.get()));
  if (!sink) return std::nullopt;
  GstWebRTCRTPTransceiver* transceiver = nullptr;
  g_object_get(sink.get(), "transceiver", &transceiver, nullptr);
  track.transceiver.reset(transceiver);
  g_object_set(transceiver, "codec-preferences", caps.get(), "direction",
               isVideo ? GST_WEBRTC_RTP_TRANSCEIVER_DIRECTION_SENDONLY : GST_WEBRTC_RTP_TRANSCEIVER_DIRECTION_SENDRECV,
               "do-nack", isVideo ? TRUE : FALSE, nullptr);

  track.source = makeSource(caps.get());
  gst_bin_add(GST_BIN(pipeline.bin.get()), track.source.get());
  const Owned<GstPad> out(gst_element_get_static_pad(track.source.get(), "src"));
  gst_pad_link(out.get(), sink.get());
  return track;
}

}  // namespace

Pipeline buildPipeline(const KovraSessionConfig& config, const Offer& offer) {
  Pipeline pipeline;
  pipeline.bin.reset(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr))));
  const Owned<GstElement> webrtc = makeWebrtc(config);
  gst_bin_add(GST_BIN(pipeline.bin.get()), webrtc.get());
  pipeline.webrtc = webrtc.get();
  if (offer.video) pipeline.video = addTrack(pipeline, *offer.video, true);
  if (offer.audio) pipeline.audio = addTrack(pipeline, *offer.audio, false);
  return pipeline;
}

}  // namespace engine
