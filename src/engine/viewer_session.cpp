#include "viewer_session.h"

#include <openssl/rand.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "clock.h"
#include "local_addresses.h"
#include "log.h"
#include "sdp_answer.h"

namespace kovra {

namespace {

// Without trickle a server that does not answer is not to hold up the answer for longer.
constexpr Micros kGatheringTime{2'000'000};
constexpr std::size_t kMaxEarlyCandidates = 64;
// Each is asked from every socket. As many relays as libnice takes.
constexpr std::size_t kMaxStunServers = 8;
// Of a check that finds a peer-reflexive candidate (RFC 8445, 7.1.1), with the other preferences at their highest.
constexpr std::uint32_t kCheckPriority = 110u << 24 | 65535u << 8 | 255u;
constexpr std::size_t kMaxEarlyDatagrams = 8;
// Each switch sends all that is kept of a stream: who changes to and fro is not to fill the camera's uplink.
constexpr Micros kSwitchInterval{500'000};

// Of the alphabet of ICE (RFC 8445, 5.3), 6 random bits a character.
std::string RandomText(std::size_t characters) {
  constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text(characters, '\0');
  RAND_bytes(reinterpret_cast<unsigned char*>(text.data()), static_cast<int>(characters));
  for (char& character : text) character = kAlphabet[static_cast<unsigned char>(character) % 64];
  return text;
}

std::uint64_t RandomNumber() {
  std::uint64_t number = 0;
  RAND_bytes(reinterpret_cast<unsigned char*>(&number), sizeof(number));
  return number;
}

MediaIdentity RandomIdentity() {
  MediaIdentity identity;
  do {
    identity.videoSsrc = static_cast<std::uint32_t>(RandomNumber());
    identity.videoRtxSsrc = static_cast<std::uint32_t>(RandomNumber());
    identity.audioSsrc = static_cast<std::uint32_t>(RandomNumber());
  } while (identity.videoSsrc == identity.videoRtxSsrc || identity.videoSsrc == identity.audioSsrc ||
           identity.videoRtxSsrc == identity.audioSsrc);
  identity.cname = RandomText(16);
  return identity;
}

// GLib ends the process when it runs out of descriptors, so that sessions must not use up the last ones. The kernel
// gives the lowest that is free.
bool HasSpareDescriptors() {
  constexpr rlim_t kSpare = 64;
  rlimit limit{};
  const int lowestFree = eventfd(0, EFD_CLOEXEC);
  if (lowestFree < 0) return false;
  close(lowestFree);
  return getrlimit(RLIMIT_NOFILE, &limit) != 0 || static_cast<rlim_t>(lowestFree) + kSpare < limit.rlim_cur;
}

bool IsLoopback(const std::string& ip) { return ip == "::1" || ip.compare(0, 4, "127.") == 0; }

void SortByPriority(std::vector<IceCandidate>& candidates) {
  std::stable_sort(candidates.begin(), candidates.end(),
                   [](const IceCandidate& one, const IceCandidate& other) { return one.priority > other.priority; });
}

double Seconds(Micros span) { return static_cast<double>(span.count()) / 1e6; }
double Millis(Micros span) { return static_cast<double>(span.count()) / 1e3; }

std::optional<Micros> Earlier(std::optional<Micros> one, std::optional<Micros> other) {
  if (!one || !other) return one ? one : other;
  return std::min(*one, *other);
}

}  // namespace

ViewerSession::ViewerSession(SessionHandle shared, const SessionServices& services)
    : shared_(std::move(shared)),
      services_(services),
      timer_(services.ice.context, [this] { onTimer(); }),
      videoType_(shared_->videoType.load()),
      self_(std::make_shared<ViewerSession*>(this)) {}

ViewerSession::~ViewerSession() { *self_ = nullptr; }

void ViewerSession::acceptOffer(const SdpOffer& offer, const SdpNegotiation& negotiation) {
  if (shared_->isClosedByOwner()) return;
  const Micros now = MonotonicNow();
  offer_ = offer;
  negotiation_ = negotiation;
  offeredAt_ = now;
  localUfrag_ = RandomText(8);
  localPassword_ = RandomText(24);
  mediaIdentity_ = RandomIdentity();
  logBegin();
  report(state_.start(), "");
  if (shared_->config.trickleIce) {
    sendAnswer();
  } else {
    answerBy_ = now + kGatheringTime;
  }
  report(state_.onOffer(now), "");
  findServers();
  startIce();
  schedule();
}

// The servers whose addresses are known at once are used from the start; the others follow.
void ViewerSession::findServers() {
  const KovraSessionConfig& config = shared_->config;
  iceSettings_.relayOnly = config.relayOnly;
  for (const KovraIceServer& server : config.iceServers) {
    const auto url = ReadIceServerUrl(server.url);
    if (!url || url->isSecure()) {
      Log(LogLevel::kWarning, "engine: session %d: server %s is left out: %s", shared_->id, server.url.c_str(),
          url ? "TLS to servers is not supported" : "no such kind of URL");
      continue;
    }
    ++unresolvedServers_;
    services_.hosts.resolve(url->host, [self = self_, url = *url, server](const HostResolver::Addresses& addresses) {
      if (*self != nullptr) (*self)->useServer(url, server, addresses);
    });
  }
}

void ViewerSession::useServer(const IceServerUrl& url, const KovraIceServer& server,
                              const HostResolver::Addresses& addresses) {
  if (ended_) return;
  --unresolvedServers_;
  if (addresses.empty()) {
    Log(LogLevel::kWarning, "engine: session %d: no address for %s", shared_->id, server.url.c_str());
  }
  for (const std::string& ip : addresses) {
    if (url.isRelay()) {
      const IceRelay relay{{ip, url.port}, url.transport, server.username, server.credential};
      iceSettings_.relays.push_back(relay);
      if (ice_ && ice_->addRelay(relay)) isGathered_ = false;
    } else if (iceSettings_.stunServers.size() < kMaxStunServers) {
      iceSettings_.stunServers.push_back({ip, url.port});
      if (ice_ && ice_->addStunServer({ip, url.port})) isGathered_ = false;
    }
  }
  // Nothing more is gathered when the last look-up gave nothing to ask.
  answerIfGathered();
}

void ViewerSession::startIce() {
  if (!HasSpareDescriptors()) return end(KOVRA_STATE_FAILED, "the process has too few file descriptors");
  iceSettings_.heldUntilClosed = shared_;
  iceSettings_.controlling = negotiation_.iceLite;
  iceSettings_.localUfrag = localUfrag_;
  iceSettings_.localPassword = localPassword_;
  const auto& relays = iceSettings_.relays;
  const bool withLoopback =
      std::any_of(iceSettings_.stunServers.begin(), iceSettings_.stunServers.end(),
                  [](const IceServerAddress& server) { return IsLoopback(server.ip); }) ||
      std::any_of(relays.begin(), relays.end(), [](const IceRelay& relay) { return IsLoopback(relay.address.ip); });
  iceSettings_.localAddresses = LocalAddresses(withLoopback);

  ice_ = IceAgent::Create(services_.ice, iceSettings_, *this);
  if (!ice_ || !ice_->setRemoteCredentials(negotiation_.iceUfrag, negotiation_.icePassword)) {
    return end(KOVRA_STATE_FAILED, "libnice refused the session");
  }
  media_.emplace(
      negotiation_, mediaIdentity_, WallClockAtZero(), services_.batch,
      [this](const PacketBatch& batch, std::size_t first) { return ice_->send(batch, first); },
      [this](const JitterBuffer::Frame& frame) { services_.callbacks.postAudio(shared_, frame); });
  dtls_.emplace(services_.identity,
                negotiation_.setup == SdpSetup::kActive ? DtlsTransport::Role::kClient : DtlsTransport::Role::kServer,
                negotiation_.fingerprints, [this](ByteView datagram) { ice_->send(datagram); });
  // Nothing is kept for the newcomer: the sooner a key frame is asked for, the sooner there is a picture.
  if (services_.video.recent(videoType_, MonotonicNow()).empty()) media_->prepare(MonotonicNow());
  publishWish();
  holdCandidates_ = true;
  const bool gathering = ice_->gather();
  holdCandidates_ = false;
  if (!gathering) return end(KOVRA_STATE_FAILED, "no address to gather on");
  tellCandidates();
  for (const IceCandidate& candidate : negotiation_.candidates) useCandidate(candidate);
  for (const IceCandidate& candidate : remoteCandidates_) useCandidate(candidate);
  remoteCandidates_.clear();
}

void ViewerSession::addCandidate(const IceCandidate& candidate) {
  if (ice_) {
    useCandidate(candidate);
  } else if (remoteCandidates_.size() < kMaxEarlyCandidates) {
    remoteCandidates_.push_back(candidate);
  }
}

void ViewerSession::useCandidate(const IceCandidate& candidate) {
  // The offer may hold names, which are of no use (see Engine::addRemoteCandidate).
  if (ended_ || !candidate.hasIpAddress()) return;
  if (!candidate.usernameFragment.empty() && candidate.usernameFragment != negotiation_.iceUfrag) return;
  ice_->addRemoteCandidate(candidate);
}

void ViewerSession::sendAnswer() {
  answered_ = true;
  answerBy_.reset();
  SdpAnswerParameters parameters;
  parameters.sessionId = RandomNumber() >> 1;
  parameters.iceUfrag = localUfrag_;
  parameters.icePassword = localPassword_;
  parameters.fingerprint = services_.identity.fingerprint();
  parameters.cname = mediaIdentity_.cname;
  parameters.streamId = "camera";
  parameters.videoSsrc = mediaIdentity_.videoSsrc;
  parameters.videoRtxSsrc = mediaIdentity_.videoRtxSsrc;
  parameters.audioSsrc = mediaIdentity_.audioSsrc;
  parameters.trickle = shared_->config.trickleIce;
  SortByPriority(localCandidates_);
  parameters.candidates = std::exchange(localCandidates_, {});
  services_.callbacks.postAnswer(shared_, WriteSdpAnswer(offer_, negotiation_, parameters));
  offer_ = {};
}

void ViewerSession::onLocalCandidate(const IceCandidate& candidate) {
  if (ended_) return;
  localCandidates_.push_back(candidate);
  if (!holdCandidates_) tellCandidates();
}

// In the order of priority: a viewer may put off nominating a pair while it knows of a candidate that beats it.
void ViewerSession::tellCandidates() {
  SortByPriority(localCandidates_);
  if (!answered_ || ended_) return;
  if (shared_->config.trickleIce) {
    for (const IceCandidate& candidate : localCandidates_) {
      services_.callbacks.postCandidate(
          shared_, WriteIceCandidateInit(candidate, negotiation_.mid,
                                         static_cast<std::uint16_t>(negotiation_.transportSection)));
    }
  }
  localCandidates_.clear();
}

void ViewerSession::onGatheringDone() {
  isGathered_ = true;
  answerIfGathered();
}

void ViewerSession::answerIfGathered() {
  if (!ended_ && !answered_ && isGathered_ && unresolvedServers_ == 0) sendAnswer();
}

void ViewerSession::onIceState(IceTransportState state) {
  if (ended_) return;
  report(state_.onIce(state, MonotonicNow()), "the viewer does not answer any more");
  if (state == IceTransportState::kConnected) {
    startConsent();
    startDtls();
  }
  schedule();
}

void ViewerSession::startConsent() {
  if (ended_ || consent_) return;
  StunCheck check;
  check.username = negotiation_.iceUfrag + ":" + localUfrag_;
  check.priority = kCheckPriority;
  check.controlling = ice_->isControlling();
  check.tieBreaker = RandomNumber();
  consent_.emplace(
      std::move(check), negotiation_.icePassword,
      [](std::uint8_t* out, std::size_t size) { RAND_bytes(out, static_cast<int>(size)); }, MonotonicNow());
}

// Elsewhere than on a direct path libnice would keep the answers to itself; there it asks, too.
void ViewerSession::askForConsent(Micros now) {
  if (!consent_ || now < consent_->nextRequest()) return;
  const ByteView request = consent_->request(now);
  if (ice_->isDirect()) ice_->send(request);
}

bool ViewerSession::onStun(ByteView message) {
  if (ended_ || !consent_) return false;
  const Consent::Answer answer = consent_->receive(message);
  if (answer == Consent::Answer::kUnrelated) return false;
  const Micros now = MonotonicNow();
  if (answer == Consent::Answer::kRevoked) {
    report(state_.onConsentRevoked(), "the viewer revoked its consent");
  } else {
    state_.onConsent(now);
    report(state_.onAlive(now), "");
  }
  schedule();
  return true;
}

void ViewerSession::startDtls() {
  if (ended_) return;
  media_->prepare(MonotonicNow());
  dtls_->start();
  for (const auto& datagram : std::exchange(earlyDatagrams_, {})) dtls_->receive(ByteView(datagram));
  afterDtls();
}

void ViewerSession::onDatagram(std::uint8_t* data, std::size_t size) {
  if (ended_ || size == 0) return;
  // See RFC 7983.
  const bool isDtls = data[0] >= 20 && data[0] <= 63;
  const bool isMedia = data[0] >= 128 && data[0] <= 191;
  if (isDtls) {
    receiveDtls({data, size});
  } else if (isMedia) {
    const Micros now = MonotonicNow();
    if (media_->receive(data, size, now)) report(state_.onAlive(now), "");
    publishWish();
    schedule();
  }
}

void ViewerSession::receiveDtls(ByteView datagram) {
  if (ice_->isConnected()) {
    dtls_->receive(datagram);
    afterDtls();
    schedule();
  } else if (earlyDatagrams_.size() < kMaxEarlyDatagrams) {
    earlyDatagrams_.emplace_back(datagram.data, datagram.data + datagram.size);
  }
}

void ViewerSession::afterDtls() {
  const Micros now = MonotonicNow();
  if (dtls_->state() == DtlsTransportState::kConnected && !media_->isOpen()) {
    const auto keys = dtls_->srtpKeys();
    auto srtp = keys ? SrtpTransport::Create(*keys) : std::nullopt;
    if (!srtp) return end(KOVRA_STATE_FAILED, "no keys for SRTP");
    media_->open(std::move(*srtp));
    replayVideo(now);
  }
  publishWish();
  const bool closed = dtls_->state() == DtlsTransportState::kClosed;
  report(state_.onDtls(dtls_->state(), now), closed ? "the viewer left" : "DTLS failed");
}

void ViewerSession::sendVideo(const RecentFrame& frame, int videoType) {
  if (ended_ || !media_ || videoType_ != videoType) return;
  if (frame.number <= lastVideo_) return;
  lastVideo_ = frame.number;
  if (!frame.frame) return loseVideo();
  media_->sendVideo(frame.frame, frame.arrived);
  publishWish();
  schedule();
}

void ViewerSession::sendAudio(const FrameRef& frame, int audioType, Micros now) {
  if (ended_ || !media_ || shared_->audioType.load(std::memory_order_relaxed) != audioType) return;
  media_->sendAudio(frame, now);
}

void ViewerSession::loseVideo() {
  if (ended_ || !media_) return;
  media_->restartVideo(MonotonicNow());
  publishWish();
}

void ViewerSession::switchVideo() {
  const int chosen = shared_->videoType.load();
  switchAt_.reset();
  if (videoType_ == chosen) return;  // there and back again
  const Micros now = MonotonicNow();
  if (media_ && now < nextSwitch_) {
    switchAt_ = nextSwitch_;
    return schedule();
  }
  videoType_ = chosen;
  if (ended_ || !media_) return;
  nextSwitch_ = now + kSwitchInterval;
  media_->restartVideo(now);
  replayVideo(now);
  publishWish();
  schedule();
}

void ViewerSession::replayVideo(Micros now) {
  const auto recent = services_.video.recent(videoType_, now);
  if (recent.empty() || !media_->isOpen()) return;
  lastVideo_ = recent.back().number;
  media_->replayVideo(recent, now);
}

void ViewerSession::onSecond(Micros now) {
  if (ended_ || !media_) return;
  // Through a relay libnice asks for the viewer's consent, and tells only when it has none.
  if (ice_->isConnected() && !ice_->isDirect()) state_.onConsent(now);
  media_->report(now);
}

void ViewerSession::close(const char* reason) {
  if (ended_) return;
  if (media_) media_->sayGoodbye(MonotonicNow());
  if (dtls_) dtls_->close();
  end(KOVRA_STATE_CLOSED, reason);
}

void ViewerSession::onTimer() {
  const Micros now = MonotonicNow();
  if (answerBy_ && now >= *answerBy_) sendAnswer();
  if (switchAt_ && now >= *switchAt_) switchVideo();
  if (ended_) return;
  if (dtls_ && dtls_->timeLeft() == Micros{0}) {
    dtls_->onTimeout();
    afterDtls();
  }
  if (media_) {
    media_->onTime(now);
    publishWish();
  }
  askForConsent(now);
  report(state_.onTime(now),
         state_.state() == KOVRA_STATE_CONNECTING ? "no connection came about" : "the viewer does not answer any more");
  schedule();
}

void ViewerSession::schedule() {
  if (ended_) return timer_.set(std::nullopt);
  std::optional<Micros> next = Earlier(Earlier(state_.deadline(), answerBy_), switchAt_);
  if (media_) next = Earlier(next, media_->deadline());
  if (consent_) next = Earlier(next, consent_->nextRequest());
  if (dtls_) {
    if (const auto left = dtls_->timeLeft()) next = Earlier(next, MonotonicNow() + *left);
  }
  timer_.set(next);
}

void ViewerSession::publishWish() {
  shared_->wantsKeyFrame.store(!ended_ && media_->wantsKeyFrame(), std::memory_order_relaxed);
}

void ViewerSession::report(std::optional<KOVRA_STATE> state, const char* reason) {
  if (!state || ended_) return;
  if (state_.isFinal()) return end(*state, reason);
  if (*state == KOVRA_STATE_CONNECTED && !connectedAt_) connectedAt_ = MonotonicNow();
  services_.callbacks.postState(shared_, *state);
}

void ViewerSession::end(KOVRA_STATE state, const char* reason) {
  if (ended_) return;
  ended_ = true;
  shared_->wantsKeyFrame.store(false, std::memory_order_relaxed);
  answerBy_.reset();
  timer_.set(std::nullopt);
  logEnd(reason);
  // From here on the id names nothing, so that whoever is told finds it so. When the owner closed the session, it is
  // not told.
  if (services_.table.remove(shared_->id) != nullptr) services_.callbacks.postState(shared_, state);
  services_.retire(shared_->id);
}

void ViewerSession::logBegin() const {
  Log(LogLevel::kSession, "engine: session %d: begins with %s%s%s", shared_->id, negotiation_.video ? "video" : "",
      negotiation_.video && negotiation_.audio ? " and " : "", negotiation_.audio ? "audio" : "");
}

void ViewerSession::logEnd(const char* reason) const {
  if (!offeredAt_ || !IsLogged(LogLevel::kSession)) return;
  const double lasted = Seconds(MonotonicNow() - *offeredAt_);
  if (!connectedAt_) {
    return Log(LogLevel::kSession, "engine: session %d: ends after %.1f s, never connected: %s", shared_->id, lasted,
               reason);
  }
  const MediaCounts counts = media_->counts();
  const auto pair = ice_->selectedPair();
  const double lost =
      counts.videoPackets == 0 ? 0.0 : 100.0 * counts.lostPackets / static_cast<double>(counts.videoPackets);
  Log(LogLevel::kSession,
      "engine: session %d: ends after %.1f s: %s; connected in %.0f ms by %s to %s; %llu video and %llu audio packets, "
      "%llu sent again, %.1f %% lost, round trip %.1f ms, %llu frames dropped",
      shared_->id, lasted, reason, Millis(*connectedAt_ - *offeredAt_), pair.local.c_str(), pair.remote.c_str(),
      static_cast<unsigned long long>(counts.videoPackets), static_cast<unsigned long long>(counts.audioPackets),
      static_cast<unsigned long long>(counts.retransmissions), lost, Millis(counts.roundTrip),
      static_cast<unsigned long long>(counts.droppedFrames));
}

}  // namespace kovra
