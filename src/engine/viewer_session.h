// One viewer: from its offer to its end.
#ifndef SIGNALCONN_ENGINE_VIEWER_SESSION_H
#define SIGNALCONN_ENGINE_VIEWER_SESSION_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "callback_thread.h"
#include "connection_state.h"
#include "consent.h"
#include "dtls_transport.h"
#include "host_resolver.h"
#include "ice_agent.h"
#include "ice_server_url.h"
#include "network_thread.h"
#include "packet_batch.h"
#include "sdp_negotiation.h"
#include "sdp_offer.h"
#include "session_table.h"
#include "video_input.h"
#include "viewer_media.h"

namespace kovra {

// What the engine lends to its sessions.
struct SessionServices {
  const DtlsIdentity& identity;
  IceContext& ice;
  HostResolver& hosts;
  CallbackThread& callbacks;
  SessionTable& table;
  VideoInput& video;
  PacketBatch& batch;
  // The session has ended: it is to be destroyed, but not from inside this call.
  std::function<void(KOVRA_SESSION_ID)> retire;
};

// Belongs to the network thread.
class ViewerSession final : private IceAgent::Observer {
 public:
  ViewerSession(SessionHandle shared, const SessionServices& services);
  ~ViewerSession();
  ViewerSession(const ViewerSession&) = delete;
  ViewerSession& operator=(const ViewerSession&) = delete;

  // Once.
  void acceptOffer(const SdpOffer& offer, const SdpNegotiation& negotiation);
  // Before or after the offer.
  void addCandidate(const IceCandidate& candidate);

  // Without a frame: one was lost before it came here.
  void sendVideo(const RecentFrame& frame, int videoType);
  void sendAudio(const FrameRef& frame, int audioType, Micros now);
  // Frames were lost before they came here.
  void loseVideo();
  // Another video type may have been chosen. Takes effect twice a second at most.
  void switchVideo();

  // About once a second.
  void onSecond(Micros now);
  // The camera ends the session: the viewer is told.
  void close(const char* reason);

 private:
  void onIceState(IceTransportState state) override;
  void onLocalCandidate(const IceCandidate& candidate) override;
  void onGatheringDone() override;
  void tellCandidates();
  void onDatagram(std::uint8_t* data, std::size_t size) override;
  bool onStun(ByteView message) override;
  void onTooManyAddresses() override { end(KOVRA_STATE_FAILED, "the viewer uses too many addresses"); }

  void replayVideo(Micros now);
  void findServers();
  void useServer(const IceServerUrl& url, const KovraIceServer& server, const HostResolver::Addresses& addresses);
  void startIce();
  void answerIfGathered();
  void sendAnswer();
  void useCandidate(const IceCandidate& candidate);

  void startConsent();
  void askForConsent(Micros now);
  void startDtls();
  void receiveDtls(ByteView datagram);
  void afterDtls();
  void onTimer();
  void schedule();
  void publishWish();
  void report(std::optional<KOVRA_STATE> state, const char* reason);
  void end(KOVRA_STATE state, const char* reason);
  void logBegin() const;
  void logEnd(const char* reason) const;

  const SessionHandle shared_;
  const SessionServices& services_;
  LoopTimer timer_;
  ConnectionState state_;
  bool ended_ = false;
  std::optional<Micros> offeredAt_;
  std::optional<Micros> connectedAt_;

  SdpOffer offer_;
  SdpNegotiation negotiation_;
  std::string localUfrag_;
  std::string localPassword_;
  MediaIdentity mediaIdentity_;

  IceSettings iceSettings_;
  unsigned unresolvedServers_ = 0;
  std::optional<Micros> answerBy_;  // without trickle: answer with the candidates found by then
  bool isGathered_ = false;
  bool answered_ = false;
  std::vector<IceCandidate> localCandidates_;  // found, but not yet told to the viewer
  bool holdCandidates_ = false;
  std::vector<IceCandidate> remoteCandidates_;  // given before ICE started
  std::unique_ptr<IceAgent> ice_;
  std::optional<Consent> consent_;  // once a pair works

  std::optional<DtlsTransport> dtls_;
  std::vector<std::vector<std::uint8_t>> earlyDatagrams_;  // came before we could answer them
  std::optional<ViewerMedia> media_;
  int videoType_;         // that the media are given; the shared one, which callers change, is ahead of it
  Micros nextSwitch_{0};  // not earlier
  std::optional<Micros> switchAt_;
  std::uint64_t lastVideo_ = 0;  // number of the last frame that the media were given

  // Guards callbacks of the resolver against a session that is gone.
  const std::shared_ptr<ViewerSession*> self_;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_VIEWER_SESSION_H
