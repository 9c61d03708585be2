// The engine: all sessions, their threads, and the ways of the callers' threads into them.
#ifndef SIGNALCONN_ENGINE_ENGINE_H
#define SIGNALCONN_ENGINE_ENGINE_H

#include <kovra.h>

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "callback_thread.h"
#include "frame_queue.h"
#include "host_resolver.h"
#include "ice_agent.h"
#include "network_thread.h"
#include "packet_batch.h"
#include "pcmu_packetizer.h"
#include "session_table.h"
#include "video_input.h"
#include "viewer_session.h"

namespace kovra {

// The operations are KovraStreamer's. Any thread.
class Engine {
 public:
  Engine();
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  // Ends all sessions and both threads, as ~KovraStreamer says; every operation fails from then on. Once.
  void stop();

  void registerCallback(KovraStreamerCallback* callback) { callbacks_->setReceiver(callback); }
  KOVRA_SESSION_ID createSession(const KovraSessionConfig& config);
  int setRemoteOffer(KOVRA_SESSION_ID id, const std::string& sdp);
  int addRemoteCandidate(KOVRA_SESSION_ID id, const std::string& candidate);
  int closeSession(KOVRA_SESSION_ID id);
  int setAudioVideoType(KOVRA_SESSION_ID id, int audioType, int videoType);
  int writeVideoData(ByteView accessUnit, int videoType);
  int writeAudioData(ByteView samples, int audioType);

 private:
  // Streams of one medium that a camera writes side by side.
  static constexpr std::size_t kMaxTypes = 16;

  bool start();
  // Says why, as far as the session's log may grow; returns the caller's negative result.
  static int refuse(SharedSession& session, const char* what, const char* reason);
  void complainAboutCrowd();
  PcmuPacketizer* audioStream(int audioType);

  // On the network thread.
  void withSession(KOVRA_SESSION_ID id, const std::function<void(ViewerSession&)>& action);
  void distributeFrames();
  void onSecond();
  void closeAll();

  SessionTable table_;
  const std::shared_ptr<CallbackThread> callbacks_;
  const std::shared_ptr<FramePool> pool_;
  FrameQueue frames_;
  VideoInput video_;
  std::atomic<std::int64_t> nextCrowdComplaint_{0};  // monotonic microseconds
  std::mutex startMutex_;                            // guards started_ and stopped_
  bool started_ = false;
  bool stopped_ = false;

  std::mutex audioMutex_;  // guards audioStreams_
  std::map<int, PcmuPacketizer> audioStreams_;

  NetworkThread network_;
  IceContext ice_;
  HostResolver hosts_;
  PacketBatch batch_;
  std::optional<SessionServices> services_;
  LoopTimer second_;
  Micros watchedAt_{0};  // when there was a session last
  std::map<KOVRA_SESSION_ID, std::unique_ptr<ViewerSession>> sessions_;
  std::vector<QueuedFrame> distributed_;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_ENGINE_H
