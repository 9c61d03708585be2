// The sessions as the callers' threads see them.
#ifndef SIGNALCONN_ENGINE_SESSION_TABLE_H
#define SIGNALCONN_ENGINE_SESSION_TABLE_H

#include <kovra.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace kovra {

// What all threads share of one session.
class SharedSession {
 public:
  // Counts itself in alive for as long as it is there.
  SharedSession(KOVRA_SESSION_ID sessionId, const KovraSessionConfig& sessionConfig,
                std::shared_ptr<std::atomic<std::size_t>> alive)
      : id(sessionId), config(sessionConfig), alive_(std::move(alive)) {
    ++*alive_;
  }
  ~SharedSession() { --*alive_; }
  SharedSession(const SharedSession&) = delete;
  SharedSession& operator=(const SharedSession&) = delete;

  const KOVRA_SESSION_ID id;
  const KovraSessionConfig config;

  std::atomic<int> videoType{1};
  std::atomic<int> audioType{0};
  // Whether a key frame of videoType is wanted. Written by the network thread.
  std::atomic<bool> wantsKeyFrame{false};

  // Whether one more candidate of the viewer's is of any use: far more than libnice takes.
  bool mayAddCandidate() { return candidates_.fetch_add(1, std::memory_order_relaxed) < kMaxCandidates; }
  // True once: the session takes one offer.
  bool claimOffer() { return !offered_.exchange(true); }
  // Whether one more complaint about what the viewer sent may be logged: a flood of nonsense is not to fill the log.
  bool mayComplain() { return complaints_.fetch_add(1, std::memory_order_relaxed) < kMaxComplaints; }
  bool isClosedByOwner() const { return closedByOwner_.load(); }
  void markClosedByOwner() { closedByOwner_.store(true); }

 private:
  static constexpr unsigned kMaxComplaints = 5;
  static constexpr unsigned kMaxCandidates = 200;

  const std::shared_ptr<std::atomic<std::size_t>> alive_;
  std::atomic<unsigned> candidates_{0};
  std::atomic<unsigned> complaints_{0};
  std::atomic<bool> offered_{false};
  std::atomic<bool> closedByOwner_{false};
};

using SessionHandle = std::shared_ptr<SharedSession>;

// Any thread.
class SessionTable {
 public:
  // Every one costs sockets and memory; far more than a camera's uplink carries. Those that were removed count until
  // nobody holds them any more.
  static constexpr std::size_t kMaxSessions = 128;

  // Null when there are too many.
  SessionHandle add(const KovraSessionConfig& config);
  // Null when no session has that id.
  SessionHandle find(KOVRA_SESSION_ID id) const;
  // Takes it out; null when it was not there.
  SessionHandle remove(KOVRA_SESSION_ID id);

  // Whether some session wants a key frame of that type.
  bool wantsKeyFrame(int videoType) const;
  bool empty() const;

 private:
  std::vector<SessionHandle>::const_iterator locate(KOVRA_SESSION_ID id) const;

  const std::shared_ptr<std::atomic<std::size_t>> alive_ = std::make_shared<std::atomic<std::size_t>>(0);
  mutable std::mutex mutex_;  // guards what follows
  std::vector<SessionHandle> sessions_;
  std::uint32_t lastId_ = 0;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_SESSION_TABLE_H
