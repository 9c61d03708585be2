#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <vector>

#include "kovra.h"
#include "webrtcbin_control.h"
#include "webrtcbin_log.h"
#include "webrtcbin_session.h"

namespace {

using engine::LogLevel;

std::uint32_t videoTicksNow() {
  using Ticks = std::chrono::duration<std::uint64_t, std::ratio<1, 90000>>;
  const auto sinceBoot = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint32_t>(std::chrono::duration_cast<Ticks>(sinceBoot).count());
}

}  // namespace

KovraSessionConfig::KovraSessionConfig() : isAlexaCall(false), trickleIce(true), relayOnly(false) {}

int initKovraLibrary(unsigned int level) {
  engine::setLogLevel(static_cast<LogLevel>(std::min(level, static_cast<unsigned int>(LogLevel::kEverything))));
  return engine::setUpGStreamer() ? 0 : -1;
}

class KovraStreamer::Impl : public engine::SessionHost {
 public:
  using SessionRef = std::shared_ptr<engine::Session>;

  void registerCallback(KovraStreamerCallback* callback) { callback_ = callback; }
  KOVRA_SESSION_ID createSession(const KovraSessionConfig& config);
  SessionRef find(KOVRA_SESSION_ID sid);
  SessionRef take(KOVRA_SESSION_ID sid);
  int writeVideo(const std::uint8_t* data, std::size_t size, int videoType);
  int writeAudio(const std::uint8_t* data, std::size_t size, int audioType);
  void shutDown();

  engine::Control& control() override { return control_; }
  KovraStreamerCallback* callback() override { return callback_; }
  void forget(KOVRA_SESSION_ID sid) override { take(sid); }
  void pipelineBegan() override { ++pipelines_; }
  void pipelineEnded() override { --pipelines_; }

  Impl* retiredBefore = nullptr;  // of all that have been shut down

 private:
  template <typename Predicate>
  std::vector<SessionRef> select(Predicate wanted);

  const bool works_ = engine::setUpGStreamer();
  std::atomic<KovraStreamerCallback*> callback_{nullptr};

  std::mutex tableMutex_;
  std::map<KOVRA_SESSION_ID, SessionRef> sessions_;
  KOVRA_SESSION_ID lastId_ = 0;
  bool isShutDown_ = false;

  // Held while a frame goes to all sessions, so that frames of several writers do not mix.
  std::mutex videoMutex_;
  std::map<int, engine::Packetizer> packetizers_;  // by video type
  std::mutex audioMutex_;

  int pipelines_ = 0;  // control thread
  engine::Control control_{[this] { return pipelines_ == 0; }};
};

KOVRA_SESSION_ID KovraStreamer::Impl::createSession(const KovraSessionConfig& config) {
  KOVRA_SESSION_ID sid = 0;
  {
    const std::lock_guard<std::mutex> lock(tableMutex_);
    if (!works_ || isShutDown_) return 0;
    do lastId_ = lastId_ == INT32_MAX ? 1 : lastId_ + 1;
    while (sessions_.count(lastId_) > 0);
    sid = lastId_;
    sessions_.emplace(sid, std::make_shared<engine::Session>(*this, sid, config));
  }
  engine::log(LogLevel::kSession, "session " + std::to_string(sid) + ": opened");
  return sid;
}

KovraStreamer::Impl::SessionRef KovraStreamer::Impl::find(KOVRA_SESSION_ID sid) {
  const std::lock_guard<std::mutex> lock(tableMutex_);
  const auto found = sessions_.find(sid);
  return found == sessions_.end() ? nullptr : found->second;
}

KovraStreamer::Impl::SessionRef KovraStreamer::Impl::take(KOVRA_SESSION_ID sid) {
  const std::lock_guard<std::mutex> lock(tableMutex_);
  const auto node = sessions_.extract(sid);
  return node ? node.mapped() : nullptr;
}

template <typename Predicate>
std::vector<KovraStreamer::Impl::SessionRef> KovraStreamer::Impl::select(Predicate wanted) {
  const std::lock_guard<std::mutex> lock(tableMutex_);
  std::vector<SessionRef> chosen;
  for (const auto& [sid, session] : sessions_) {
    if (wanted(session->media())) chosen.push_back(session);
  }
  return chosen;
}

int KovraStreamer::Impl::writeVideo(const std::uint8_t* data, std::size_t size, int videoType) {
  const std::lock_guard<std::mutex> lock(videoMutex_);
  const std::uint32_t ticks = videoTicksNow();
  const engine::AccessUnit unit =
      data == nullptr ? engine::AccessUnit() : packetizers_[videoType].packetize(data, size);
  bool wantsKeyFrame = false;
  for (const SessionRef& session : select([=](const auto& media) { return media.takesVideo(videoType); })) {
    if (session->media().sendVideo(unit, ticks)) wantsKeyFrame = true;
  }
  return wantsKeyFrame ? 1 : 0;
}

int KovraStreamer::Impl::writeAudio(const std::uint8_t* data, std::size_t size, int audioType) {
  if (data == nullptr || size == 0) return -1;
  const std::lock_guard<std::mutex> lock(audioMutex_);
  const std::vector<SessionRef> receivers = select([=](const auto& media) { return media.takesAudio(audioType); });
  for (std::size_t at = 0; at < size && !receivers.empty(); at += engine::kMaxPayload) {
    const auto samples = engine::copyToMemory(data + at, std::min(size - at, engine::kMaxPayload));
    for (const SessionRef& session : receivers) session->media().sendAudio(samples.get());
  }
  return 0;
}

void KovraStreamer::Impl::shutDown() {
  std::map<KOVRA_SESSION_ID, SessionRef> open;
  {
    const std::lock_guard<std::mutex> lock(tableMutex_);
    isShutDown_ = true;
    open.swap(sessions_);
  }
  for (const auto& [sid, session] : open) session->close();
  control_.stop(!engine::EngineThreadMark::isSet());
}

KovraStreamer::KovraStreamer() : impl_(std::make_unique<Impl>()) {}

// At the end of the process other threads may still call in, and after exit() inside a callback the control
// thread is still at work. What they use stays for good: an empty table and its locks. Calls that come after this
// find either that or no implementation at all, which is why every operation looks.
KovraStreamer::~KovraStreamer() {
  static std::atomic<Impl*> lastRetired{nullptr};
  impl_->shutDown();
  Impl* const impl = impl_.release();
  impl->retiredBefore = lastRetired.exchange(impl);  // in sight of leak checkers
}

void KovraStreamer::registerCallback(KovraStreamerCallback* callback) {
  if (Impl* impl = impl_.get()) impl->registerCallback(callback);
}

KOVRA_SESSION_ID KovraStreamer::createSession(const KovraSessionConfig& config) {
  Impl* impl = impl_.get();
  return impl == nullptr ? 0 : impl->createSession(config);
}

int KovraStreamer::setRemoteOffer(KOVRA_SESSION_ID sid, const std::string& sdp) {
  Impl* impl = impl_.get();
  const Impl::SessionRef session = impl == nullptr ? nullptr : impl->find(sid);
  return session && session->acceptOffer(sdp) ? 0 : -1;
}

int KovraStreamer::addRemoteCandidate(KOVRA_SESSION_ID sid, const std::string& candidate) {
  Impl* impl = impl_.get();
  const Impl::SessionRef session = impl == nullptr ? nullptr : impl->find(sid);
  return session && session->addCandidate(candidate) ? 0 : -1;
}

int KovraStreamer::closeSession(KOVRA_SESSION_ID sid) {
  Impl* impl = impl_.get();
  const Impl::SessionRef session = impl == nullptr ? nullptr : impl->take(sid);
  if (!session) return -1;
  session->close();
  return 0;
}

int KovraStreamer::setAudioVideoType(KOVRA_SESSION_ID sid, int audioType, int videoType) {
  Impl* impl = impl_.get();
  const Impl::SessionRef session = impl == nullptr ? nullptr : impl->find(sid);
  if (!session) return -1;
  session->media().setTypes(audioType, videoType);
  return 0;
}

int KovraStreamer::writeVideoData(std::uint8_t* data, std::size_t size, std::int64_t, int, int videoType) {
  Impl* impl = impl_.get();
  return impl == nullptr ? 0 : impl->writeVideo(data, size, videoType);
}

int KovraStreamer::writeAudioData(std::uint8_t* data, std::size_t size, std::int64_t, int audioType) {
  Impl* impl = impl_.get();
  return impl == nullptr ? -1 : impl->writeAudio(data, size, audioType);
}
