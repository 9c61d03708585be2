// One viewer's session: negotiation, connection state, talk-back.
#ifndef SIGNALCONN_ENGINE_WEBRTCBIN_SESSION_H
#define SIGNALCONN_ENGINE_WEBRTCBIN_SESSION_H

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "kovra.h"
#include "webrtcbin_control.h"
#include "webrtcbin_log.h"
#include "webrtcbin_media.h"
#include "webrtcbin_pipeline.h"

namespace engine {

// What sessions need of the object that holds them. It outlives them all.
class SessionHost {
 public:
  virtual Control& control() = 0;
  virtual KovraStreamerCallback* callback() = 0;  // may be null
  virtual void forget(KOVRA_SESSION_ID sid) = 0;  // the id names nothing from here on
  // Count pipelines that still have to be taken down. Control thread.
  virtual void pipelineBegan() = 0;
  virtual void pipelineEnded() = 0;

 protected:
  ~SessionHost() = default;
};

// The public operations may be called from any thread; everything else happens on the control thread, except
// for the voice, which goes from GStreamer's thread straight to the callback. Whatever GStreamer holds on to
// (signal handlers, promises) owns the session, so it lives until its pipeline is gone.
class Session : public std::enable_shared_from_this<Session> {
 public:
  Session(SessionHost& host, KOVRA_SESSION_ID sid, KovraSessionConfig config);

  bool acceptOffer(const std::string& sdp);
  bool addCandidate(const std::string& text);
  // No callback begins after this, apart from one that is just about to.
  void close();

  OutgoingMedia& media() { return media_; }

  // For GStreamer's threads: each only passes on what happened.
  void onLocalCandidate(unsigned int mlineIndex, const std::string& line);
  void onConnectionState(GstWebRTCPeerConnectionState state);
  void onDtlsClosed();
  void onGatheringComplete();
  void onPipelineError(const std::string& text);
  void onIncomingPad(GstPad* pad);
  void onVoicePacket(GstBuffer* packet);

 private:
  using Step = void (Session::*)(const GstStructure* reply);

  void post(Control::Task task) { host_.control().post(std::move(task)); }
  void begin(Offer& offer);
  void watchPipeline();
  void watchDtls();
  // Emits a negotiation signal of webrtcbin; next runs on the control thread with the reply, unless the
  // session has been closed meanwhile.
  void negotiate(const char* signal, gpointer argument, Step next);
  void onReply(GstStructure* reply, Step next);
  void createAnswer(const GstStructure* reply);
  void applyAnswer(const GstStructure* reply);
  void finishNegotiation(const GstStructure* reply);
  void deliverAnswer(const GstSDPMessage* sdp);
  void deliverGatheredAnswer();
  void giveCandidate(const std::string& line);
  void enter(KOVRA_STATE state);
  void beginMedia();
  bool isOfferedCertificate() const;
  void failUnlessConnected();
  void takeDown();
  void say(LogLevel level, const std::string& text) const;

  SessionHost& host_;
  const KOVRA_SESSION_ID sid_;
  const KovraSessionConfig config_;
  OutgoingMedia media_;
  std::atomic<bool> offered_{false};
  std::atomic<bool> closed_{false};
  std::atomic<bool> wasConnected_{false};  // to the viewer that made the offer

  // Control thread only.
  Pipeline pipeline_;
  Owned<GstWebRTCDTLSTransport> dtls_;
  std::vector<std::string> mids_;
  std::string fingerprint_;
  std::vector<std::string> earlyCandidates_;
  KOVRA_STATE state_ = KOVRA_STATE_NONE;
  bool awaitsReply_ = false;
  bool negotiated_ = false;
  bool answered_ = false;
};

}  // namespace engine

#endif  // SIGNALCONN_ENGINE_WEBRTCBIN_SESSION_H
