#include <glib.h>
#include <kovra.h>
#include <openssl/ssl.h>

#include <atomic>
#include <memory>
#include <utility>

#include "dtls_identity.h"
#include "engine.h"
#include "log.h"

using kovra::Engine;

namespace {

// libnice speaks up about what viewers send; that is for developers.
void LogForeign(const gchar* domain, GLogLevelFlags, const gchar* message, gpointer) {
  kovra::Log(kovra::LogLevel::kEverything, "engine: %s: %s", domain, message);
}

void PrepareLibraries() {
  [[maybe_unused]] static const bool done = [] {
    constexpr auto kLevels = static_cast<GLogLevelFlags>(G_LOG_LEVEL_MASK & ~G_LOG_LEVEL_ERROR);
    g_log_set_handler("libnice", kLevels, LogForeign, nullptr);
    g_log_set_handler("libnice-stun", kLevels, LogForeign, nullptr);
    // OpenSSL is not to tear itself down at exit under a thread that still encrypts. Where the application has used it
    // before, that comes after the streamer's end, as exit goes backwards.
    OPENSSL_init_ssl(OPENSSL_INIT_NO_ATEXIT, nullptr);
    return true;
  }();
}

}  // namespace

int initKovraLibrary(unsigned int level) {
  kovra::SetLogLevel(level);
  PrepareLibraries();
  return kovra::DtlsIdentity::Get() == nullptr ? -1 : 0;
}

KovraSessionConfig::KovraSessionConfig() : isAlexaCall(false), trickleIce(true), relayOnly(false) {}

// A few bytes that outlive the streamer, because other threads may still call in while the process exits and
// destroys it: they find no engine then, or not even this.
class KovraStreamer::Impl {
 public:
  static std::shared_ptr<Engine> EngineOf(const Impl* impl) {
    return impl == nullptr ? nullptr : std::atomic_load(&impl->engine_);
  }
  // Nobody frees it any more.
  static void Keep(Impl* impl) {
    static std::atomic<Impl*> kept{nullptr};
    impl->keptBefore_ = kept.load();
    while (!kept.compare_exchange_weak(impl->keptBefore_, impl)) continue;
  }
  std::shared_ptr<Engine> takeEngine() { return std::atomic_exchange(&engine_, std::shared_ptr<Engine>()); }

 private:
  std::shared_ptr<Engine> engine_ = std::make_shared<Engine>();
  Impl* keptBefore_ = nullptr;
};

KovraStreamer::KovraStreamer() : impl_(std::make_unique<Impl>()) { PrepareLibraries(); }

KovraStreamer::~KovraStreamer() {
  impl_->takeEngine()->stop();
  Impl::Keep(impl_.release());
}

void KovraStreamer::registerCallback(KovraStreamerCallback* callback) {
  if (const auto engine = Impl::EngineOf(impl_.get())) engine->registerCallback(callback);
}

KOVRA_SESSION_ID KovraStreamer::createSession(const KovraSessionConfig& config) {
  const auto engine = Impl::EngineOf(impl_.get());
  return engine ? engine->createSession(config) : 0;
}

int KovraStreamer::setRemoteOffer(KOVRA_SESSION_ID sid, const std::string& sdp) {
  const auto engine = Impl::EngineOf(impl_.get());
  return engine ? engine->setRemoteOffer(sid, sdp) : -1;
}

int KovraStreamer::addRemoteCandidate(KOVRA_SESSION_ID sid, const std::string& candidate) {
  const auto engine = Impl::EngineOf(impl_.get());
  return engine ? engine->addRemoteCandidate(sid, candidate) : -1;
}

int KovraStreamer::closeSession(KOVRA_SESSION_ID sid) {
  const auto engine = Impl::EngineOf(impl_.get());
  return engine ? engine->closeSession(sid) : -1;
}

int KovraStreamer::setAudioVideoType(KOVRA_SESSION_ID sid, int audioType, int videoType) {
  const auto engine = Impl::EngineOf(impl_.get());
  return engine ? engine->setAudioVideoType(sid, audioType, videoType) : -1;
}

int KovraStreamer::writeVideoData(std::uint8_t* data, std::size_t size, std::int64_t, int, int videoType) {
  const auto engine = Impl::EngineOf(impl_.get());
  return engine ? engine->writeVideoData({data, data == nullptr ? 0 : size}, videoType) : 0;
}

int KovraStreamer::writeAudioData(std::uint8_t* data, std::size_t size, std::int64_t, int audioType) {
  const auto engine = Impl::EngineOf(impl_.get());
  return engine ? engine->writeAudioData({data, data == nullptr ? 0 : size}, audioType) : -1;
}
