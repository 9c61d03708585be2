#include "engine.h"

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <algorithm>
#include <utility>
#include <vector>

#include "clock.h"
#include "dtls_identity.h"
#include "ice_candidate.h"
#include "log.h"
#include "sdp_negotiation.h"
#include "sdp_offer.h"

namespace kovra {

namespace {

// Frames given back and kept for reuse: a few key frames' worth.
constexpr std::size_t kMaxIdleFrameBytes = std::size_t{1} << 20;
constexpr Micros kReportInterval{1'000'000};
constexpr Micros kComplaintInterval{10'000'000};

}  // namespace

Engine::Engine()
    : callbacks_(std::make_shared<CallbackThread>()),
      pool_(FramePool::Create(kMaxIdleFrameBytes)),
      video_(pool_, frames_),
      network_([this] { distributeFrames(); }),
      hosts_(network_),
      second_(network_.context(), [this] { onSecond(); }) {
  ice_.context = network_.context();
}

Engine::~Engine() = default;

bool Engine::start() {
  const std::lock_guard<std::mutex> lock(startMutex_);
  if (started_ || stopped_) return !stopped_;
  const DtlsIdentity* identity = DtlsIdentity::Get();
  if (identity == nullptr) return false;
  services_.emplace(
      SessionServices{*identity, ice_, hosts_, *callbacks_, table_, video_, batch_,
                      [this](KOVRA_SESSION_ID id) { network_.post([this, id] { sessions_.erase(id); }); }});
  if (!CallbackThread::Start(callbacks_)) return false;
  started_ = network_.start();
  if (!started_) callbacks_->stop();
  return started_;
}

void Engine::stop() {
  {
    const std::lock_guard<std::mutex> lock(startMutex_);
    stopped_ = true;
    if (!started_) return;
  }
  // In this order, since the callback that is waited for may call the engine.
  callbacks_->stop();
  network_.stop([this] { closeAll(); });
}

void Engine::closeAll() {
  for (auto& [id, session] : sessions_) session->close("the engine stops");
  sessions_.clear();
  second_.set(std::nullopt);
  // Agents with relays take a moment, each bounded by its timer.
  while (ice_.closing > 0) g_main_context_iteration(network_.context(), TRUE);
}

KOVRA_SESSION_ID Engine::createSession(const KovraSessionConfig& config) {
  if (!start()) return 0;
  const SessionHandle shared = table_.add(config);
  if (shared == nullptr) {
    complainAboutCrowd();
    return 0;
  }
  network_.post([this, shared] {
    if (sessions_.empty()) second_.set(MonotonicNow() + kReportInterval);
    sessions_.emplace(shared->id, std::make_unique<ViewerSession>(shared, *services_));
  });
  return shared->id;
}

int Engine::setRemoteOffer(KOVRA_SESSION_ID id, const std::string& sdp) {
  const SessionHandle shared = table_.find(id);
  if (shared == nullptr) return -1;
  std::string reason;
  const auto offer = ReadSdpOffer(sdp, reason);
  // As the DTLS server we choose the SRTP profile, and need no reply to our last flight before we send.
  const auto negotiation = offer ? Negotiate(*offer, SdpSetup::kPassive, reason) : std::nullopt;
  if (!negotiation) return refuse(*shared, "offer", reason.c_str());
  if (!shared->claimOffer()) return refuse(*shared, "offer", "it is not the first");
  network_.post([this, id, offer = *offer, negotiation = *negotiation] {
    withSession(id, [&](ViewerSession& session) { session.acceptOffer(offer, negotiation); });
  });
  return 0;
}

int Engine::addRemoteCandidate(KOVRA_SESSION_ID id, const std::string& candidate) {
  const SessionHandle shared = table_.find(id);
  if (shared == nullptr) return -1;
  const auto read = ReadIceCandidateInit(candidate);
  if (!read) return refuse(*shared, "candidate", "it cannot be read");
  // The end of the list is of no use here, and a name of multicast DNS hides an address that the viewer's own checks
  // reveal all the same. Other names are no candidates of browsers; nobody is to make us look them up.
  if (!read->candidate || read->candidate->hasLocalName()) return 0;
  if (!read->candidate->hasIpAddress()) return refuse(*shared, "candidate", "its address is a name");
  if (!shared->mayAddCandidate()) return refuse(*shared, "candidate", "there are too many");
  network_.post([this, id, added = *read->candidate] {
    withSession(id, [&](ViewerSession& session) { session.addCandidate(added); });
  });
  return 0;
}

int Engine::closeSession(KOVRA_SESSION_ID id) {
  const SessionHandle shared = table_.remove(id);
  if (shared == nullptr) return -1;
  shared->markClosedByOwner();
  network_.post([this, id] { withSession(id, [](ViewerSession& session) { session.close("closed"); }); });
  return 0;
}

int Engine::setAudioVideoType(KOVRA_SESSION_ID id, int audioType, int videoType) {
  const SessionHandle shared = table_.find(id);
  if (shared == nullptr) return -1;
  if (audioType != -1) shared->audioType.store(audioType, std::memory_order_relaxed);
  if (videoType != -1 && shared->videoType.exchange(videoType) != videoType) {
    network_.post([this, id] { withSession(id, [](ViewerSession& session) { session.switchVideo(); }); });
  }
  return 0;
}

int Engine::writeVideoData(ByteView accessUnit, int videoType) {
  const bool isWatched = !table_.empty();
  const bool isKeyFrame = video_.write(accessUnit, videoType, isWatched, MonotonicNow());
  if (isWatched) network_.wake();
  // The key frame that was just written answers the wishes of this stream.
  return !isKeyFrame && table_.wantsKeyFrame(videoType) ? 1 : 0;
}

int Engine::writeAudioData(ByteView samples, int audioType) {
  if (samples.empty()) return -1;
  const Micros now = MonotonicNow();
  const std::lock_guard<std::mutex> lock(audioMutex_);
  PcmuPacketizer* stream = audioStream(audioType);
  if (stream == nullptr) return -1;
  const bool wanted = !table_.empty();
  for (FrameRef frame = stream->packetize(samples, now); frame; frame = stream->packetize(samples, now)) {
    if (wanted) frames_.push({{std::move(frame), 0, now}, QueuedFrame::Medium::kAudio, audioType});
  }
  if (wanted) network_.wake();
  return 0;
}

void Engine::complainAboutCrowd() {
  const std::int64_t now = MonotonicNow().count();
  std::int64_t next = nextCrowdComplaint_.load();
  if (now < next || !nextCrowdComplaint_.compare_exchange_strong(next, now + kComplaintInterval.count())) return;
  Log(LogLevel::kWarning, "engine: there are %zu sessions, no more are opened", SessionTable::kMaxSessions);
}

int Engine::refuse(SharedSession& session, const char* what, const char* reason) {
  if (session.mayComplain()) Log(LogLevel::kWarning, "engine: session %d: %s refused: %s", session.id, what, reason);
  return -1;
}

PcmuPacketizer* Engine::audioStream(int audioType) {
  const auto found = audioStreams_.find(audioType);
  if (found != audioStreams_.end()) return &found->second;
  if (audioStreams_.size() >= kMaxTypes) return nullptr;
  return &audioStreams_.try_emplace(audioType, pool_).first->second;
}

void Engine::withSession(KOVRA_SESSION_ID id, const std::function<void(ViewerSession&)>& action) {
  const auto found = sessions_.find(id);
  if (found != sessions_.end()) action(*found->second);
}

void Engine::distributeFrames() {
  frames_.take(distributed_);
  for (const QueuedFrame& queued : distributed_) {
    for (auto& [id, session] : sessions_) {
      switch (queued.medium) {
        case QueuedFrame::Medium::kVideo:
          session->sendVideo(queued.media, queued.type);
          break;
        case QueuedFrame::Medium::kAudio:
          session->sendAudio(queued.media.frame, queued.type, queued.media.arrived);
          break;
        case QueuedFrame::Medium::kLoss:
          session->loseVideo();
          break;
      }
    }
  }
  distributed_.clear();
}

void Engine::onSecond() {
  const Micros now = MonotonicNow();
  for (auto& [id, session] : sessions_) session->onSecond(now);
  video_.forgetStale(now);
  if (!sessions_.empty()) watchedAt_ = now;
  // A camera may stop with its last viewer: what is kept of its streams becomes stale only then.
  if (now - watchedAt_ < RecentFrames::kMaxAge + kReportInterval) return second_.set(now + kReportInterval);
  // Nobody watches any more: what their frames and sessions took goes back to the system.
  pool_->freeIdle();
#ifdef __GLIBC__
  malloc_trim(0);
#endif
}

}  // namespace kovra
