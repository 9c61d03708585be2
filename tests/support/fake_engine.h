// An engine (kovra.h) that plays no media: it records what it is asked and does what the test says.
#ifndef SIGNALCONN_TESTS_FAKE_ENGINE_H
#define SIGNALCONN_TESTS_FAKE_ENGINE_H

#include <kovra.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace support {

enum class EngineOperation {
  kInitLibrary,
  kConstruct,
  kDestroy,
  kRegisterCallback,
  kCreateSession,
  kSetRemoteOffer,
  kAddRemoteCandidate,
  kCloseSession,
  kSetAudioVideoType,
  kWriteVideoData,
  kWriteAudioData,
};

// One call, with those arguments that the operation has.
struct EngineCall {
  EngineOperation operation = EngineOperation::kConstruct;
  KOVRA_SESSION_ID sid = 0;
  std::string text;           // offer, candidate
  KovraSessionConfig config;  // createSession
  unsigned level = 0;         // initKovraLibrary
  const void* data = nullptr;
  std::size_t size = 0;
  std::string bytes;  // a copy of data
  std::int64_t presentationTime = 0;
  int flags = 0;
  int audioType = 0;
  int videoType = 0;
  std::chrono::steady_clock::time_point time;
};

// The one engine of this process. Every operation may be called from any thread.
class FakeEngine {
 public:
  // Gives a call's result. Runs on the caller's thread after the call was recorded, with no lock held: it
  // may be slow, call back, or end the process.
  using Script = std::function<int(const EngineCall&)>;

  static FakeEngine& Get();

  // Forgets calls, scripts and session numbers.
  void Reset();

  // Without a script createSession returns 1, 2, 3 … and everything else 0.
  void On(EngineOperation operation, Script script);

  std::vector<EngineCall> Calls();
  std::vector<EngineCall> Calls(EngineOperation operation);
  // Waits until count calls of operation have come. Returns whether they have.
  bool WaitForCalls(EngineOperation operation, std::size_t count,
                    std::chrono::milliseconds within = std::chrono::seconds(30));

  // What the library registered last; null before.
  KovraStreamerCallback* Callback();
  // Runs event on a new engine thread, which destruction of the streamer waits for (unless it runs there
  // itself), and does nothing once the streamer is gone.
  void Emit(std::function<void(KovraStreamerCallback&)> event);
  // Whether the streamer is being destroyed, for events that go on until then.
  bool Ending();
  // As Emit, and returns when event has.
  void EmitAndWait(const std::function<void(KovraStreamerCallback&)>& event);

  // For KovraStreamer's operations: records call and returns its result.
  int Handle(EngineCall call);
  void Register(KovraStreamerCallback* callback);
  void StreamerGone();

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<EngineCall> calls_;
  std::map<EngineOperation, Script> scripts_;
  KovraStreamerCallback* callback_ = nullptr;
  KOVRA_SESSION_ID lastSession_ = 0;
  int eventsUnderWay_ = 0;
  bool ending_ = false;
};

}  // namespace support

#endif  // SIGNALCONN_TESTS_FAKE_ENGINE_H
