// A viewer in the test's own process that can do what no browser does: ask for single packets, repeat, forge, flood.
#ifndef SIGNALCONN_TESTS_LOOPBACK_VIEWER_H
#define SIGNALCONN_TESTS_LOOPBACK_VIEWER_H

#include <array>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "dtls_transport.h"
#include "engine_events.h"
#include "ice_agent.h"
#include "network_thread.h"
#include "rtcp.h"
#include "rtp_packet.h"
#include "sdp_offer.h"
#include "srtp_transport.h"

namespace kovra {

struct ViewerOffer {
  std::string setup = "actpass";
  bool rtx = true;
  bool iceLite = false;
  bool wrongFingerprint = false;
};

constexpr std::uint8_t kViewerH264 = 102;
constexpr std::uint8_t kViewerRtx = 103;
constexpr std::uint32_t kViewerSsrc = 1;
constexpr std::uint32_t kVoiceSsrc = 77;

class LoopbackViewer final : private IceAgent::Observer {
 public:
  struct Received {
    RtpHeader header;
    std::vector<std::uint8_t> payload;
  };

  // Both outlive the viewer.
  LoopbackViewer(KovraStreamer& streamer, EngineEvents& events);
  ~LoopbackViewer();
  LoopbackViewer(const LoopbackViewer&) = delete;
  LoopbackViewer& operator=(const LoopbackViewer&) = delete;

  // An offer with all candidates, without a session.
  std::string makeOffer(const ViewerOffer& offer = {});
  // Opens a session and gives it an offer with all candidates. The connection follows by itself. False when the offer
  // was refused.
  bool call(const ViewerOffer& offer = {});
  bool waitUntilConnected();
  KOVRA_SESSION_ID session() const { return session_; }

  // Wait until that much has come; then everything that came, in the order of arrival.
  std::vector<Received> packets(std::uint8_t payloadType, std::size_t count);
  // Waits for more packets than have come.
  void waitForMore(std::uint8_t payloadType, std::size_t count);
  // Waits until the packet that came last is such a one.
  bool waitForLast(std::uint8_t payloadType, const std::function<bool(const Received&)>& predicate);
  std::optional<Received> waitForPacket(std::uint8_t payloadType, std::uint16_t sequence);
  bool waitForRtcp(const std::function<bool(const RtcpCompound&)>& predicate);
  bool waitForDtls(DtlsTransportState state);
  // Loses the next packet of that payload type, as if it had never come; its header.
  RtpHeader losePacket(std::uint8_t payloadType);

  void sendRtcp(std::vector<std::uint8_t> compound);
  void sendVoice(std::uint16_t sequence, std::uint8_t sample, std::uint32_t ssrc = kVoiceSsrc);
  // Repeats the last protected packet of sendVoice.
  void repeatVoice();
  // Without protection, as it is.
  void sendRaw(std::vector<std::uint8_t> datagram);
  void closeDtls();
  // Answers none of the next so many questions for its consent.
  void loseConsentChecks(unsigned count);
  // Waits until so many questions for its consent have come since the call.
  bool waitForConsentChecks(unsigned count);
  // Sends an authentic connectivity check from so many other ports of its own, all at once. False when the engine's
  // port was closed before every one was answered.
  bool checkFromPorts(unsigned count);
  // Reads nothing and answers nothing until the returned function is called.
  std::function<void()> freeze();

 private:
  void onIceState(IceTransportState state) override;
  void onLocalCandidate(const IceCandidate& candidate) override { candidates_.push_back(candidate); }
  void onGatheringDone() override { gathered_.set_value(); }
  void onDatagram(std::uint8_t* data, std::size_t size) override;
  bool onStun(ByteView message) override;
  void onTooManyAddresses() override {}

  bool isLost(ByteView datagram);
  void receiveMedia(std::uint8_t* data, std::size_t size);
  void startIce(const ViewerOffer& offer);
  std::string offerText(const ViewerOffer& offer) const;
  void useAnswer(const std::string& sdp);
  void run(const std::function<void()>& task);
  void send(const std::vector<std::uint8_t>& datagram) { ice_->send(ByteView(datagram)); }

  KovraStreamer& streamer_;
  EngineEvents& events_;
  KOVRA_SESSION_ID session_ = 0;
  NetworkThread network_{[] {}};
  IceContext iceContext_;
  std::vector<IceCandidate> candidates_;
  std::promise<void> gathered_;
  std::unique_ptr<IceAgent> ice_;
  std::optional<SdpSection> answer_;
  std::optional<DtlsTransport> dtls_;
  std::optional<SrtpTransport> srtp_;
  std::vector<std::vector<std::uint8_t>> early_;
  std::vector<std::uint8_t> lastVoice_;

  std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::vector<Received> rtp_;
  std::array<std::size_t, 128> received_{};  // how many of each payload type
  std::vector<RtcpCompound> rtcp_;
  DtlsTransportState dtlsState_ = DtlsTransportState::kNew;
  unsigned consentChecks_ = 0;
  unsigned consentChecksToLose_ = 0;
  std::optional<std::uint8_t> losing_;  // payload type
  std::optional<RtpHeader> lost_;
};

}  // namespace kovra

#endif  // SIGNALCONN_TESTS_LOOPBACK_VIEWER_H
