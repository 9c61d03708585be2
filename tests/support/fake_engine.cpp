#include "fake_engine.h"

#include <algorithm>
#include <utility>

namespace support {

namespace {

thread_local bool onEngineThread = false;

EngineCall Call(EngineOperation operation, KOVRA_SESSION_ID sid = 0, const std::string& text = "") {
  EngineCall call;
  call.operation = operation;
  call.sid = sid;
  call.text = text;
  return call;
}

EngineCall Write(EngineOperation operation, const std::uint8_t* data, std::size_t size, std::int64_t presentationTime) {
  EngineCall call = Call(operation);
  call.data = data;
  call.size = size;
  if (data != nullptr) call.bytes.assign(reinterpret_cast<const char*>(data), size);
  call.presentationTime = presentationTime;
  return call;
}

}  // namespace

// Never destroyed: the library's own static object calls the engine while the process ends.
FakeEngine& FakeEngine::Get() {
  static FakeEngine& engine = *new FakeEngine;
  return engine;
}

void FakeEngine::Reset() {
  const std::lock_guard<std::mutex> lock(mutex_);
  calls_.clear();
  scripts_.clear();
  lastSession_ = 0;
}

void FakeEngine::On(EngineOperation operation, Script script) {
  const std::lock_guard<std::mutex> lock(mutex_);
  scripts_[operation] = std::move(script);
}

std::vector<EngineCall> FakeEngine::Calls() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return calls_;
}

std::vector<EngineCall> FakeEngine::Calls(EngineOperation operation) {
  std::vector<EngineCall> calls = Calls();
  calls.erase(std::remove_if(calls.begin(), calls.end(),
                             [operation](const EngineCall& call) { return call.operation != operation; }),
              calls.end());
  return calls;
}

bool FakeEngine::WaitForCalls(EngineOperation operation, std::size_t count, std::chrono::milliseconds within) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, within, [this, operation, count] {
    const auto matching = std::count_if(calls_.begin(), calls_.end(),
                                        [operation](const EngineCall& call) { return call.operation == operation; });
    return static_cast<std::size_t>(matching) >= count;
  });
}

KovraStreamerCallback* FakeEngine::Callback() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return callback_;
}

void FakeEngine::Emit(std::function<void(KovraStreamerCallback&)> event) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (callback_ == nullptr) return;
  ++eventsUnderWay_;
  std::thread([this, callback = callback_, event = std::move(event)] {
    onEngineThread = true;
    event(*callback);
    const std::lock_guard<std::mutex> finished(mutex_);
    --eventsUnderWay_;
    changed_.notify_all();
  }).detach();
}

bool FakeEngine::Ending() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return ending_;
}

void FakeEngine::EmitAndWait(const std::function<void(KovraStreamerCallback&)>& event) {
  KovraStreamerCallback* callback = Callback();
  if (callback == nullptr) return;
  std::thread([callback, &event] {
    onEngineThread = true;
    event(*callback);
  }).join();
}

int FakeEngine::Handle(EngineCall call) {
  call.time = std::chrono::steady_clock::now();
  Script script;
  int result = 0;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(call);
    const auto found = scripts_.find(call.operation);
    if (found != scripts_.end()) {
      script = found->second;
    } else if (call.operation == EngineOperation::kCreateSession) {
      result = ++lastSession_;
    }
    changed_.notify_all();
  }
  return script ? script(call) : result;
}

void FakeEngine::Register(KovraStreamerCallback* callback) {
  const std::lock_guard<std::mutex> lock(mutex_);
  callback_ = callback;
  ending_ = false;
}

void FakeEngine::StreamerGone() {
  std::unique_lock<std::mutex> lock(mutex_);
  callback_ = nullptr;
  ending_ = true;
  if (!onEngineThread) changed_.wait(lock, [this] { return eventsUnderWay_ == 0; });
}

}  // namespace support

using support::Call;
using support::EngineCall;
using support::EngineOperation;
using support::FakeEngine;
using support::Write;

class KovraStreamer::Impl {};

KovraSessionConfig::KovraSessionConfig() : isAlexaCall(false), trickleIce(true), relayOnly(false) {}

int initKovraLibrary(unsigned int level) {
  EngineCall call = Call(EngineOperation::kInitLibrary);
  call.level = level;
  return FakeEngine::Get().Handle(std::move(call));
}

KovraStreamer::KovraStreamer() { FakeEngine::Get().Handle(Call(EngineOperation::kConstruct)); }

KovraStreamer::~KovraStreamer() {
  FakeEngine::Get().Handle(Call(EngineOperation::kDestroy));
  FakeEngine::Get().StreamerGone();
}

void KovraStreamer::registerCallback(KovraStreamerCallback* callback) {
  FakeEngine::Get().Register(callback);
  FakeEngine::Get().Handle(Call(EngineOperation::kRegisterCallback));
}

KOVRA_SESSION_ID KovraStreamer::createSession(const KovraSessionConfig& config) {
  EngineCall call = Call(EngineOperation::kCreateSession);
  call.config = config;
  return FakeEngine::Get().Handle(std::move(call));
}

int KovraStreamer::setRemoteOffer(KOVRA_SESSION_ID sid, const std::string& sdp) {
  return FakeEngine::Get().Handle(Call(EngineOperation::kSetRemoteOffer, sid, sdp));
}

int KovraStreamer::addRemoteCandidate(KOVRA_SESSION_ID sid, const std::string& candidate) {
  return FakeEngine::Get().Handle(Call(EngineOperation::kAddRemoteCandidate, sid, candidate));
}

int KovraStreamer::closeSession(KOVRA_SESSION_ID sid) {
  return FakeEngine::Get().Handle(Call(EngineOperation::kCloseSession, sid));
}

int KovraStreamer::setAudioVideoType(KOVRA_SESSION_ID sid, int audioType, int videoType) {
  EngineCall call = Call(EngineOperation::kSetAudioVideoType, sid);
  call.audioType = audioType;
  call.videoType = videoType;
  return FakeEngine::Get().Handle(std::move(call));
}

int KovraStreamer::writeVideoData(std::uint8_t* data, std::size_t size, std::int64_t presentationTime, int flags,
                                  int videoType) {
  EngineCall call = Write(EngineOperation::kWriteVideoData, data, size, presentationTime);
  call.flags = flags;
  call.videoType = videoType;
  return FakeEngine::Get().Handle(std::move(call));
}

int KovraStreamer::writeAudioData(std::uint8_t* data, std::size_t size, std::int64_t presentationTime, int audioType) {
  EngineCall call = Write(EngineOperation::kWriteAudioData, data, size, presentationTime);
  call.audioType = audioType;
  return FakeEngine::Get().Handle(std::move(call));
}
