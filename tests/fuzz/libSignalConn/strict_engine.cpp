#include "strict_engine.h"

#include <cstdlib>

EngineResults engineResults;

namespace {

// Every call but createSession names a session.
int Answer(KOVRA_SESSION_ID sid, int result) {
  if (sid == 0) std::abort();
  return result;
}

}  // namespace

class KovraStreamer::Impl {};

KovraSessionConfig::KovraSessionConfig() : isAlexaCall(false), trickleIce(true), relayOnly(false) {}

int initKovraLibrary(unsigned int /*level*/) { return 0; }

KovraStreamer::KovraStreamer() = default;
KovraStreamer::~KovraStreamer() = default;

void KovraStreamer::registerCallback(KovraStreamerCallback* callback) {
  if (callback == nullptr) std::abort();
}

KOVRA_SESSION_ID KovraStreamer::createSession(const KovraSessionConfig& config) {
  if (config.isAlexaCall || config.relayOnly || !config.trickleIce) std::abort();
  return engineResults.nextSession;
}

int KovraStreamer::setRemoteOffer(KOVRA_SESSION_ID sid, const std::string& /*sdp*/) {
  return Answer(sid, engineResults.setRemoteOffer);
}

int KovraStreamer::addRemoteCandidate(KOVRA_SESSION_ID sid, const std::string& /*candidate*/) {
  return Answer(sid, engineResults.addRemoteCandidate);
}

int KovraStreamer::closeSession(KOVRA_SESSION_ID sid) { return Answer(sid, 0); }

int KovraStreamer::setAudioVideoType(KOVRA_SESSION_ID sid, int audioType, int videoType) {
  if (audioType != -1 && videoType != -1) std::abort();
  return Answer(sid, engineResults.setAudioVideoType);
}

int KovraStreamer::writeVideoData(std::uint8_t* /*data*/, std::size_t /*size*/, std::int64_t /*presentationTime*/,
                                  int /*flags*/, int /*videoType*/) {
  return 0;
}

int KovraStreamer::writeAudioData(std::uint8_t* /*data*/, std::size_t /*size*/, std::int64_t /*presentationTime*/,
                                  int /*audioType*/) {
  return 0;
}
