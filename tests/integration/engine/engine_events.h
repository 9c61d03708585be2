// What an engine calls back, written down for tests to wait for.
#ifndef SIGNALCONN_TESTS_ENGINE_EVENTS_H
#define SIGNALCONN_TESTS_ENGINE_EVENTS_H

#include <kovra.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace kovra {

// Far beyond what anything takes, for machines under load.
constexpr std::chrono::seconds kPatience{60};

class EngineEvents : public KovraStreamerCallback {
 public:
  struct Session {
    std::vector<std::string> answers;
    std::vector<std::string> candidates;
    std::vector<KOVRA_STATE> states;
    std::vector<std::vector<std::uint8_t>> audio;
  };

  void onAnswer(KOVRA_SESSION_ID sid, const std::string& sdp) override {
    note(sid, [&](Session& session) { session.answers.push_back(sdp); });
  }
  void onIceCandidate(KOVRA_SESSION_ID sid, const std::string& candidate) override {
    note(sid, [&](Session& session) { session.candidates.push_back(candidate); });
  }
  void onStateChange(KOVRA_SESSION_ID sid, KOVRA_STATE state) override {
    note(sid, [&](Session& session) { session.states.push_back(state); });
  }
  void onAudioFrame(KOVRA_SESSION_ID sid, void* data, unsigned int len) override {
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    note(sid, [&](Session& session) { session.audio.emplace_back(bytes, bytes + len); });
  }

  // Waits until the session's events satisfy the predicate; false when that takes too long.
  template <typename Predicate>
  bool waitFor(KOVRA_SESSION_ID sid, Predicate predicate, std::chrono::seconds patience = kPatience) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, patience, [&] { return predicate(sessions_[sid]); });
  }

  bool waitForState(KOVRA_SESSION_ID sid, KOVRA_STATE state) {
    return waitFor(sid,
                   [&](const Session& session) { return !session.states.empty() && session.states.back() == state; });
  }

  Session session(KOVRA_SESSION_ID sid) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return sessions_[sid];
  }

 private:
  template <typename Action>
  void note(KOVRA_SESSION_ID sid, Action action) {
    const std::lock_guard<std::mutex> lock(mutex_);
    action(sessions_[sid]);
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<KOVRA_SESSION_ID, Session> sessions_;
};

}  // namespace kovra

#endif  // SIGNALCONN_TESTS_ENGINE_EVENTS_H
