#include "webrtcbin_session.h"

#include <gst/app/gstappsink.h>
#include <gst/rtp/gstrtpbuffer.h>

#include <utility>

#include "webrtcbin_candidate.h"
#include "webrtcbin_fingerprint.h"

namespace engine {
namespace {

constexpr std::chrono::seconds kSetUpTimeout{30};
// After this an answer without trickle goes out with the candidates that there are: a server that is not there can
// keep webrtcbin gathering for ever.
constexpr std::chrono::seconds kGatheringTimeout{10};
constexpr std::size_t kMaxEarlyCandidates = 100;

using SessionRef = std::shared_ptr<Session>;

SessionRef* newRef(Session& session) { return new SessionRef(session.shared_from_this()); }
void deleteRef(gpointer ref) { delete static_cast<SessionRef*>(ref); }
void deleteRefOfClosure(gpointer ref, GClosure*) { deleteRef(ref); }
Session& sessionOf(gpointer ref) { return **static_cast<SessionRef*>(ref); }

void connectSignal(gpointer object, const char* signal, GCallback handler, Session& session) {
  g_signal_connect_data(object, signal, handler, newRef(session), deleteRefOfClosure, GConnectFlags(0));
}

void handleCandidate(GstElement*, guint mlineIndex, gchar* line, gpointer ref) {
  sessionOf(ref).onLocalCandidate(mlineIndex, line);
}

void handleConnectionState(GObject* webrtc, GParamSpec*, gpointer ref) {
  GstWebRTCPeerConnectionState state;
  g_object_get(webrtc, "connection-state", &state, nullptr);
  sessionOf(ref).onConnectionState(state);
}

void handleGatheringState(GObject* webrtc, GParamSpec*, gpointer ref) {
  GstWebRTCICEGatheringState state;
  g_object_get(webrtc, "ice-gathering-state", &state, nullptr);
  if (state == GST_WEBRTC_ICE_GATHERING_STATE_COMPLETE) sessionOf(ref).onGatheringComplete();
}

void handleDtlsState(GObject* transport, GParamSpec*, gpointer ref) {
  GstWebRTCDTLSTransportState state;
  g_object_get(transport, "state", &state, nullptr);
  if (state == GST_WEBRTC_DTLS_TRANSPORT_STATE_CLOSED) sessionOf(ref).onDtlsClosed();
}

void handlePad(GstElement*, GstPad* pad, gpointer ref) {
  if (GST_PAD_DIRECTION(pad) == GST_PAD_SRC) sessionOf(ref).onIncomingPad(pad);
}

GstBusSyncReply handleMessage(GstBus*, GstMessage* message, gpointer ref) {
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    GError* error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    sessionOf(ref).onPipelineError(error->message);
    g_error_free(error);
  }
  gst_message_unref(message);
  return GST_BUS_DROP;
}

GstFlowReturn handleVoice(GstAppSink* sink, gpointer ref) {
  GstSample* sample = gst_app_sink_pull_sample(sink);
  if (sample == nullptr) return GST_FLOW_EOS;
  sessionOf(ref).onVoicePacket(gst_sample_get_buffer(sample));
  gst_sample_unref(sample);
  return GST_FLOW_OK;
}

// rtpsession asks for a key frame this way when a PLI or a FIR comes in.
GstPadProbeReturn handleUpstreamEvent(GstPad*, GstPadProbeInfo* info, gpointer ref) {
  if (gst_event_has_name(GST_PAD_PROBE_INFO_EVENT(info), "GstForceKeyUnit")) sessionOf(ref).media().requireKeyFrame();
  return GST_PAD_PROBE_OK;
}

bool carriesPcmu(GstPad* pad) {
  const Owned<GstCaps> caps(gst_pad_get_current_caps(pad));
  if (!caps) return false;
  const gchar* encoding = gst_structure_get_string(gst_caps_get_structure(caps.get(), 0), "encoding-name");
  return g_strcmp0(encoding, "PCMU") == 0;
}

GstElement* makeVoiceSink(Session& session) {
  GstElement* sink = gst_element_factory_make("appsink", nullptr);
  g_object_set(sink, "sync", FALSE, "async", FALSE, nullptr);
  GstAppSinkCallbacks callbacks = {};
  callbacks.new_sample = handleVoice;
  gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, newRef(session), deleteRef);
  return sink;
}

GstElement* makeSilentSink() {
  GstElement* sink = gst_element_factory_make("fakesink", nullptr);
  g_object_set(sink, "sync", FALSE, "async", FALSE, nullptr);
  return sink;
}

std::string toText(const GstSDPMessage* sdp) { return OwnedText(gst_sdp_message_as_text(sdp)).get(); }

// The error in a promise's reply; empty when it is none.
std::string errorOf(const GstStructure* reply) {
  GError* error = nullptr;
  if (reply == nullptr || !gst_structure_get(reply, "error", G_TYPE_ERROR, &error, nullptr)) return "";
  const std::string text = error->message;
  g_error_free(error);
  return text.empty() ? "unknown error" : text;
}

std::optional<RtpTrack> makeRtpTrack(std::optional<SendingTrack>& track) {
  if (!track) return std::nullopt;
  return RtpTrack(std::move(track->source), track->payloadType, track->ssrc);
}

}  // namespace

Session::Session(SessionHost& host, KOVRA_SESSION_ID sid, KovraSessionConfig config)
    : host_(host), sid_(sid), config_(std::move(config)) {}

void Session::say(LogLevel level, const std::string& text) const {
  log(level, "session " + std::to_string(sid_) + ": " + text);
}

bool Session::acceptOffer(const std::string& sdp) {
  std::string whyNot;
  std::optional<Offer> offer = readOffer(sdp, whyNot);
  if (!offer) {
    say(LogLevel::kWarning, "offer refused: " + whyNot);
    return false;
  }
  if (offered_.exchange(true)) {
    say(LogLevel::kWarning, "offer refused: not the first one");
    return false;
  }
  post([self = shared_from_this(), shared = std::make_shared<Offer>(std::move(*offer))] { self->begin(*shared); });
  return true;
}

bool Session::addCandidate(const std::string& text) {
  const RemoteCandidate candidate = readRemoteCandidate(text);
  switch (candidate.kind) {
    case RemoteCandidate::Kind::kMalformed:
      say(LogLevel::kWarning, "candidate refused, it cannot be read: " + text);
      return false;
    case RemoteCandidate::Kind::kDropped:
      say(LogLevel::kEverything, "candidate dropped: " + text);
      return true;
    case RemoteCandidate::Kind::kUsable:
      break;
  }
  post([self = shared_from_this(), line = candidate.line] { self->giveCandidate(line); });
  return true;
}

void Session::close() {
  if (closed_.exchange(true)) return;
  post([self = shared_from_this()] {
    self->say(LogLevel::kSession, "closed");
    self->takeDown();
  });
}

void Session::begin(Offer& offer) {
  if (closed_) return;
  host_.pipelineBegan();
  pipeline_ = buildPipeline(config_, offer);
  mids_ = offer.mids;
  fingerprint_ = offer.fingerprint;
  enter(KOVRA_STATE_NEW);
  host_.control().postAt(Control::Clock::now() + kSetUpTimeout, [weak = weak_from_this()] {
    if (const SessionRef self = weak.lock()) self->failUnlessConnected();
  });
  watchPipeline();
  gst_element_set_state(pipeline_.bin.get(), GST_STATE_PLAYING);
  GstWebRTCSessionDescription* description =
      gst_webrtc_session_description_new(GST_WEBRTC_SDP_TYPE_OFFER, offer.sdp.release());
  negotiate("set-remote-description", description, &Session::createAnswer);
  gst_webrtc_session_description_free(description);
}

void Session::watchPipeline() {
  GstElement* webrtc = pipeline_.webrtc;
  if (config_.trickleIce) {
    connectSignal(webrtc, "on-ice-candidate", G_CALLBACK(handleCandidate), *this);
  } else {
    connectSignal(webrtc, "notify::ice-gathering-state", G_CALLBACK(handleGatheringState), *this);
  }
  connectSignal(webrtc, "notify::connection-state", G_CALLBACK(handleConnectionState), *this);
  connectSignal(webrtc, "pad-added", G_CALLBACK(handlePad), *this);
  const Owned<GstBus> bus(gst_element_get_bus(pipeline_.bin.get()));
  gst_bus_set_sync_handler(bus.get(), handleMessage, newRef(*this), deleteRef);
  if (!pipeline_.video) return;
  const Owned<GstPad> out(gst_element_get_static_pad(pipeline_.video->source.get(), "src"));
  gst_pad_add_probe(out.get(), GST_PAD_PROBE_TYPE_EVENT_UPSTREAM, handleUpstreamEvent, newRef(*this), deleteRef);
}

// Its state alone tells at once that the viewer has closed its peer connection.
void Session::watchDtls() {
  const SendingTrack& track = pipeline_.video ? *pipeline_.video : *pipeline_.audio;
  GstWebRTCRTPSender* sender = nullptr;
  g_object_get(track.transceiver.get(), "sender", &sender, nullptr);
  const Owned<GstWebRTCRTPSender> ownedSender(sender);
  GstWebRTCDTLSTransport* transport = nullptr;
  g_object_get(sender, "transport", &transport, nullptr);
  if (transport == nullptr) return;
  dtls_.reset(transport);
  connectSignal(transport, "notify::state", G_CALLBACK(handleDtlsState), *this);
}

void Session::negotiate(const char* signal, gpointer argument, Step next) {
  struct Pending {
    SessionRef session;
    Step next;
  };
  const auto replied = [](GstPromise* promise, gpointer data) {
    const auto* pending = static_cast<Pending*>(data);
    const GstStructure* reply = gst_promise_get_reply(promise);
    pending->session->onReply(reply == nullptr ? nullptr : gst_structure_copy(reply), pending->next);
  };
  const auto destroy = [](gpointer data) { delete static_cast<Pending*>(data); };
  awaitsReply_ = true;
  GstPromise* promise = gst_promise_new_with_change_func(replied, new Pending{shared_from_this(), next}, destroy);
  g_signal_emit_by_name(pipeline_.webrtc, signal, argument, promise);
  gst_promise_unref(promise);
}

void Session::onReply(GstStructure* reply, Step next) {
  const std::shared_ptr<GstStructure> owned(reply, [](GstStructure* s) {
    if (s != nullptr) gst_structure_free(s);
  });
  post([self = shared_from_this(), owned, next] {
    self->awaitsReply_ = false;
    if (self->closed_) {
      self->takeDown();
      return;
    }
    const std::string error = errorOf(owned.get());
    if (error.empty()) {
      (*self.*next)(owned.get());
    } else {
      self->say(LogLevel::kWarning, "offer cannot be answered: " + error);
      self->enter(KOVRA_STATE_FAILED);
    }
  });
}

void Session::createAnswer(const GstStructure*) { negotiate("create-answer", nullptr, &Session::applyAnswer); }

void Session::applyAnswer(const GstStructure* reply) {
  GstWebRTCSessionDescription* answer = nullptr;
  gst_structure_get(reply, "answer", GST_TYPE_WEBRTC_SESSION_DESCRIPTION, &answer, nullptr);
  if (answer == nullptr) {
    enter(KOVRA_STATE_FAILED);
    return;
  }
  // Before it is applied, since gathering begins then, and no candidate may overtake the answer.
  if (config_.trickleIce) deliverAnswer(answer->sdp);
  negotiate("set-local-description", answer, &Session::finishNegotiation);
  gst_webrtc_session_description_free(answer);
}

void Session::deliverAnswer(const GstSDPMessage* sdp) {
  KovraStreamerCallback* callback = host_.callback();
  if (std::exchange(answered_, true)) return;
  if (callback != nullptr && !closed_) callback->onAnswer(sid_, toText(sdp));
}

void Session::finishNegotiation(const GstStructure*) {
  negotiated_ = true;
  watchDtls();
  if (!config_.trickleIce) {
    host_.control().postAt(Control::Clock::now() + kGatheringTimeout, [weak = weak_from_this()] {
      if (const SessionRef self = weak.lock()) self->deliverGatheredAnswer();
    });
  }
  for (const std::string& line : earlyCandidates_) giveCandidate(line);
  earlyCandidates_.clear();
}

void Session::giveCandidate(const std::string& line) {
  if (closed_) return;
  if (negotiated_) {
    // Everything is bundled onto the first section's transport.
    g_signal_emit_by_name(pipeline_.webrtc, "add-ice-candidate", 0U, line.c_str());
  } else if (earlyCandidates_.size() < kMaxEarlyCandidates) {
    earlyCandidates_.push_back(line);
  }
}

void Session::onLocalCandidate(unsigned int mlineIndex, const std::string& line) {
  post([self = shared_from_this(), mlineIndex, line] {
    KovraStreamerCallback* callback = self->host_.callback();
    if (self->closed_ || callback == nullptr || mlineIndex >= self->mids_.size()) return;
    callback->onIceCandidate(self->sid_, toCandidateInit(line, self->mids_[mlineIndex], mlineIndex));
  });
}

void Session::onGatheringComplete() {
  post([self = shared_from_this()] { self->deliverGatheredAnswer(); });
}

void Session::deliverGatheredAnswer() {
  if (closed_) return;
  GstWebRTCSessionDescription* answer = nullptr;
  g_object_get(pipeline_.webrtc, "local-description", &answer, nullptr);
  if (answer == nullptr) return;
  deliverAnswer(answer->sdp);
  gst_webrtc_session_description_free(answer);
}

void Session::onConnectionState(GstWebRTCPeerConnectionState state) {
  if (state == GST_WEBRTC_PEER_CONNECTION_STATE_NEW) return;  // told already, and only the first time counts
  post([self = shared_from_this(), state] { self->enter(static_cast<KOVRA_STATE>(state + KOVRA_STATE_NEW)); });
}

void Session::onDtlsClosed() {
  post([self = shared_from_this()] { self->enter(KOVRA_STATE_CLOSED); });
}

void Session::onPipelineError(const std::string& text) {
  post([self = shared_from_this(), text] {
    if (self->closed_) return;
    self->say(LogLevel::kWarning, "fails: " + text);
    self->enter(KOVRA_STATE_FAILED);
  });
}

void Session::failUnlessConnected() {
  if (closed_ || wasConnected_) return;
  say(LogLevel::kWarning, "gives up, no connection came about");
  enter(KOVRA_STATE_FAILED);
}

void Session::enter(KOVRA_STATE state) {
  if (closed_ || state == state_) return;
  if (state == KOVRA_STATE_CONNECTED && !wasConnected_) {
    if (!isOfferedCertificate()) {
      say(LogLevel::kWarning, "fails: the viewer's certificate is not the one that its offer announced");
      enter(KOVRA_STATE_FAILED);
      return;
    }
    beginMedia();
  }
  state_ = state;
  say(LogLevel::kEverything, "state " + std::to_string(state));
  if (state == KOVRA_STATE_FAILED || state == KOVRA_STATE_CLOSED) {
    if (closed_.exchange(true)) return;
    say(LogLevel::kSession, state == KOVRA_STATE_FAILED ? "failed" : "closed by the viewer");
    host_.forget(sid_);
    takeDown();  // first, so that no voice follows the final state
  }
  if (KovraStreamerCallback* callback = host_.callback()) callback->onStateChange(sid_, state);
}

void Session::beginMedia() {
  wasConnected_ = true;
  media_.open(makeRtpTrack(pipeline_.video), makeRtpTrack(pipeline_.audio));
}

// webrtcbin takes any certificate, so that whoever sits on the path could watch.
bool Session::isOfferedCertificate() const {
  if (!dtls_) return false;
  gchar* pem = nullptr;
  g_object_get(dtls_.get(), "remote-certificate", &pem, nullptr);
  const OwnedText owned(pem);
  return pem != nullptr && matchesFingerprint(pem, fingerprint_);
}

void Session::takeDown() {
  media_.close();
  // webrtcbin loses its ICE agent for good when it goes while it negotiates: the reply brings us back here.
  if (!pipeline_.bin || awaitsReply_) return;
  gst_element_set_state(pipeline_.bin.get(), GST_STATE_NULL);
  const Owned<GstBus> bus(gst_element_get_bus(pipeline_.bin.get()));
  gst_bus_set_sync_handler(bus.get(), nullptr, nullptr, nullptr);
  dtls_.reset();
  pipeline_ = Pipeline();
  host_.pipelineEnded();
}

void Session::onIncomingPad(GstPad* pad) {
  // An audio section without PCMU is received all the same, in whatever format: it must flow off somewhere.
  GstElement* sink = carriesPcmu(pad) ? makeVoiceSink(*this) : makeSilentSink();
  const Owned<GstElement> webrtc(gst_pad_get_parent_element(pad));
  const Owned<GstObject> bin(gst_object_get_parent(GST_OBJECT(webrtc.get())));
  gst_bin_add(GST_BIN(bin.get()), sink);
  const Owned<GstPad> in(gst_element_get_static_pad(sink, "sink"));
  gst_element_sync_state_with_parent(sink);
  gst_pad_link(pad, in.get());
}

void Session::onVoicePacket(GstBuffer* packet) {
  KovraStreamerCallback* callback = host_.callback();
  GstRTPBuffer rtp = GST_RTP_BUFFER_INIT;
  if (closed_ || !wasConnected_ || callback == nullptr || !gst_rtp_buffer_map(packet, GST_MAP_READ, &rtp)) return;
  const guint length = gst_rtp_buffer_get_payload_len(&rtp);
  if (length > 0) {
    const EngineThreadMark mark;
    callback->onAudioFrame(sid_, gst_rtp_buffer_get_payload(&rtp), length);
  }
  gst_rtp_buffer_unmap(&rtp);
}

}  // namespace engine
