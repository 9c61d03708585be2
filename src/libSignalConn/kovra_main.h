// The one object that joins the signalling channel to the WebRTC engine.
#ifndef SIGNALCONN_KOVRA_MAIN_H
#define SIGNALCONN_KOVRA_MAIN_H

#include <kovra.h>
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "exit_gate.h"
#include "signal_client.h"

// 0: run, 1: stop. Ends the service loop, the heartbeat and the test sources; each polls it.
extern std::atomic<int> interrupted;

// Lives in zero-filled static storage: the constructor leaves audioCB_, uid_, authType_ and mustPermit_ alone.
class SignalConn : public SignalClientCallback, public KovraStreamerCallback {
 public:
  using AudioCallback = void (*)(void* data, std::size_t len);

  // Which viewer, by its sid on the server, an engine session belongs to.
  struct SessionRecord {
    KOVRA_SESSION_ID sessionId;
    int peerId;
  };

  SignalConn();
  // Stops and joins the threads that it knows; up to one heartbeat sleep, 5 s.
  ~SignalConn() override;
  SignalConn(const SignalConn&) = delete;
  SignalConn& operator=(const SignalConn&) = delete;

  // Service thread, one message at a time.
  void onMessage(const std::string& message) override;
  // The engine's threads.
  void onAnswer(KOVRA_SESSION_ID sid, const std::string& sdp) override;
  void onIceCandidate(KOVRA_SESSION_ID sid, const std::string& candidate) override;
  void onStateChange(KOVRA_SESSION_ID sid, KOVRA_STATE state) override;
  void onAudioFrame(KOVRA_SESSION_ID sid, void* data, unsigned int len) override;

  // What the entry points of signal_conn.h do.
  int init(char* server, int port);
  void setLoginMessage(char* sn, char* key, char* secret, char* mac, int authType, char* authCode, int mustPermit,
                       char* permitCode);
  void sendLogin();  // renews the client's sign-in text; transmits nothing
  void setPermitMsg(int mustPermit, char* permitCode);
  void setAudioCB(AudioCallback cb);
  void run();
  void toInterruped();
  void runTestData(bool start);
  int writeVideoData(std::uint8_t* data, std::size_t size, int videoType);  // the engine's result
  int writeAudioData(std::uint8_t* data, std::size_t size);                 // the engine's result

  // Returns -1 when message is not JSON, else 0.
  int handleSignalMessage(const std::string& message);
  // These four return 0, or -1 on failure, which is logged.
  int createSession(int peerId, bool isAlexa, bool configStun, bool configTurn, bool relayOnly,
                    const std::string& message);
  int addRemoteCandidate(int peerId, const std::string& message);
  int hangupSession(int peerId);
  int setAudioVideoType(int peerId, int audioType, int videoType);

  // Negative when no viewer is known for the session, else the client's result.
  int sendMessageToPeer(std::string msgType, KOVRA_SESSION_ID sid, const std::string& msg);

  // The session table. Any thread. Lookups give the oldest match, 0 when there is none.
  void addSessionRecord(KOVRA_SESSION_ID sid, int peerId);
  void removeSessionRecord(KOVRA_SESSION_ID sid);
  KOVRA_SESSION_ID getSessionId(int peerId);
  int getPeerId(KOVRA_SESSION_ID sid);
  void printRecord();

 private:
  void handleSignIn(struct cJSON* root);
  void handlePeerMessage(struct cJSON* root, const std::string& frame);
  bool dispatchPeerMessage(int peerId, const std::string& messageType, const std::string& payload,
                           const std::string& frame);
  bool switchType(int peerId, const std::string& messageType, const std::string& payload, const std::string& frame);

  KovraStreamer streamer_;
  KovraSignalClient signalClient_;
  pthread_t videoThread_;
  pthread_t audioThread_;
  std::vector<SessionRecord> records_;
  std::mutex mutex_;  // guards records_ and nothing else
  std::uint64_t audioTimestamp;
  std::uint64_t videoTimestamp;
  std::atomic<AudioCallback> audioCB_;
  pthread_t heartbeatThread_;
  std::atomic<bool> loginOK_;
  [[maybe_unused]] bool connectOK_;
  std::atomic<int> uid_;
  std::string cid_;
  std::string key_;
  std::string secret_;
  std::string mac_;
  int authType_;
  std::string authCode_;
  int mustPermit_;
  std::string permitCode_;
  std::vector<std::string> stunAddr_;
  std::vector<std::string> turnAddr_;
  std::vector<std::string> turnUser_;
  std::vector<std::string> turnPass_;
  ExitGate gate_;
  std::atomic<bool> leaving_;  // destruction has begun
};

// Thread bodies. The heartbeat serves the KovraSignalClient, the sources feed the KovraStreamer, that args
// points to.
void* runThread(void* args);
void* SendHeartbeatThread(void* args);
void* VideoSourceThread(void* args);
void* PcmAudioSourceThread(void* args);

#endif  // SIGNALCONN_KOVRA_MAIN_H
