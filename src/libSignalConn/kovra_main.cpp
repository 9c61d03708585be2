#include "kovra_main.h"

#include <cjson/cJSON.h>
#include <signal.h>
#include <signal_conn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "common.h"

std::atomic<int> interrupted{0};

namespace {

const unsigned int kEngineLibraryLevel = 3;
const unsigned int kServiceThreadDelaySeconds = 6;
const unsigned int kHeartbeatPassSeconds = 5;
const int kHeartbeatPasses = 4;
const int kWaitForCallersMs = 1000;

const std::uint64_t kVideoTimestampStep = 833333;
const std::uint64_t kAudioTimestampStep = 200000;
const std::uint64_t kLongFrameBytes = 10240;
const int kLongFrameFlags = 16;
const int kH264VideoType = 1;
const int kPcmuAudioType = 0;
const int kAudioFramesPerLogLine = 200;

const int kSampleVideoFrames = 60;
const int kSampleAudioFrames = 600;
const std::size_t kSampleAudioFrameBytes = 160;
const double kSampleAudioFrameMs = 20.0;
const int kFramesPerPacingReference = 100;

const std::size_t kLoggedTextBytes = 100;

std::atomic<int> hbIndex{1};

struct JsonDeleter {
  void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

std::string PrintJson(const Json& json) {
  const std::unique_ptr<char, void (*)(void*)> text(cJSON_PrintUnformatted(json.get()), cJSON_free);
  return text.get();
}

// The application's encoder threads run on while exit() destroys the object, and after: they look here before they
// touch it.
ExitGate mediaGate;

struct EndOfMedia {
  ~EndOfMedia() { mediaGate.ShutAndWait(kWaitForCallersMs); }
};

SignalConn& kovraGet() {
  static SignalConn sConn;
  static EndOfMedia endOfMedia;  // comes before the destruction of sConn
  return sConn;
}

// Signal context: write is async-signal-safe, the printf family is not.
void sigint_handler(int /*sig*/) {
  const int savedErrno = errno;
  const char line[] = "interrupted.\n";
  if (write(STDOUT_FILENO, line, sizeof line - 1) < 0) errno = savedErrno;
  interrupted = 1;
  errno = savedErrno;
}

int getVideoPacketFlags(std::uint8_t* /*frameData*/, std::uint64_t frameSize) {
  return frameSize > kLongFrameBytes ? kLongFrameFlags : 0;
}

void JoinThread(pthread_t* thread) {
  if (*thread == 0) return;
  pthread_join(*thread, nullptr);  // of the calling thread itself (exit() in it) it fails at once, EDEADLK
  *thread = 0;
}

}  // namespace

// ---- Construction and destruction

SignalConn::SignalConn()
    : videoThread_(0),
      audioThread_(0),
      audioTimestamp(0),
      videoTimestamp(0),
      heartbeatThread_(0),
      loginOK_(false),
      connectOK_(false),
      leaving_(false) {
  streamer_.registerCallback(this);
  signalClient_.registerObserver(this);
}

SignalConn::~SignalConn() {
  leaving_ = true;
  puts("source releasing..");
  loginOK_ = false;
  interrupted = 1;
  JoinThread(&videoThread_);
  JoinThread(&audioThread_);
  JoinThread(&heartbeatThread_);
  puts("source released");
  gate_.ShutAndWait(kWaitForCallersMs);
}

// ---- The session table

void SignalConn::addSessionRecord(KOVRA_SESSION_ID sid, int peerId) {
  const std::scoped_lock lock(mutex_);
  records_.push_back({sid, peerId});
  printf("new session: %d created, peeid: %d\n", sid, peerId);
}

void SignalConn::removeSessionRecord(KOVRA_SESSION_ID sid) {
  const std::scoped_lock lock(mutex_);
  for (std::size_t i = 0; i < records_.size();) {
    if (records_[i].sessionId != sid) {
      ++i;
      continue;
    }
    // The line names the peer that stands at the place after the erasure; the last record names itself.
    const int erasedPeer = records_[i].peerId;
    records_.erase(records_.begin() + static_cast<std::ptrdiff_t>(i));
    printf("remove session record: %d, peer %d\n", sid, i < records_.size() ? records_[i].peerId : erasedPeer);
  }
}

KOVRA_SESSION_ID SignalConn::getSessionId(int peerId) {
  const std::scoped_lock lock(mutex_);
  for (const SessionRecord& record : records_) {
    if (record.peerId == peerId) return record.sessionId;
  }
  printf("can't find peerid: %d\n", peerId);
  return 0;
}

int SignalConn::getPeerId(KOVRA_SESSION_ID sid) {
  const std::scoped_lock lock(mutex_);
  for (const SessionRecord& record : records_) {
    if (record.sessionId == sid) return record.peerId;
  }
  printf("can't find session id: %d\n", sid);
  return 0;
}

void SignalConn::printRecord() {
  const std::scoped_lock lock(mutex_);
  for (const SessionRecord& record : records_) printf("session: %d, peer %d\n", record.sessionId, record.peerId);
}

// ---- Sign-in and service

int SignalConn::init(char* server, int port) {
  const int result = signalClient_.connect(server, port);
  if (result < 0) printf("connect failed, but run continue.ret:%d\n", result);
  sendLogin();
  return pthread_create(&heartbeatThread_, nullptr, SendHeartbeatThread, &signalClient_);
}

void SignalConn::setLoginMessage(char* sn, char* key, char* secret, char* mac, int authType, char* authCode,
                                 int mustPermit, char* permitCode) {
  cid_ = sn;
  key_ = key;
  secret_ = secret;
  mac_ = mac;
  authType_ = authType;
  authCode_ = authCode;
  mustPermit_ = mustPermit;
  permitCode_ = permitCode;
}

void SignalConn::sendLogin() {
  const Json json(cJSON_CreateObject());
  cJSON_AddStringToObject(json.get(), "opcode", "signin");
  cJSON_AddStringToObject(json.get(), "key", key_.c_str());
  cJSON_AddStringToObject(json.get(), "secret", secret_.c_str());
  cJSON_AddNumberToObject(json.get(), "loginType", 1);
  cJSON_AddNumberToObject(json.get(), "authType", authType_);
  cJSON_AddStringToObject(json.get(), "authCode", authCode_.c_str());
  cJSON_AddStringToObject(json.get(), "serialCode", cid_.c_str());
  cJSON_AddStringToObject(json.get(), "mac", mac_.c_str());
  cJSON_AddNumberToObject(json.get(), "mustPermitCode", mustPermit_);
  cJSON_AddStringToObject(json.get(), "permitCode", permitCode_.c_str());
  signalClient_.setLoginMessage(PrintJson(json));
}

void SignalConn::setPermitMsg(int mustPermit, char* permitCode) {
  const Json json(cJSON_CreateObject());
  cJSON_AddStringToObject(json.get(), "opcode", "permitCode");
  cJSON_AddNumberToObject(json.get(), "mustPermitCode", mustPermit);
  cJSON_AddStringToObject(json.get(), "permitCode", permitCode);
  signalClient_.sendMessage(PrintJson(json));
  mustPermit_ = mustPermit;
  permitCode_ = permitCode;
  sendLogin();
}

void SignalConn::setAudioCB(AudioCallback cb) { audioCB_ = cb; }

void SignalConn::run() {
  while (interrupted == 0 && signalClient_.lwsService() >= 0) {
  }
  toInterruped();
  puts("-----to exit");
  // Another thread is in exit(). A return from here would let main return too, and end the process at once
  // with another status.
  while (leaving_) pause();
}

void SignalConn::toInterruped() { signalClient_.toInterruped(); }

void* runThread(void* /*args*/) {
  puts("--------webrtc in  runThread.");
  sleep(kServiceThreadDelaySeconds);
  kovraGet().run();
  return nullptr;
}

void* SendHeartbeatThread(void* args) {
  const int index = ++hbIndex;
  auto* signalClient = static_cast<KovraSignalClient*>(args);
  for (int loop = 1; interrupted == 0 && !signalClient->isInterruped(); ++loop) {
    if (signalClient->isConnected() && loop % kHeartbeatPasses == 0) {
      printf("----send heartbeat index:%d %p\n", index, static_cast<void*>(signalClient));
      signalClient->sendMessage("{\"opcode\":\"heartbeat\"}");
    }
    sleep(kHeartbeatPassSeconds);
  }
  puts("----HeartbeatThread exit");
  return nullptr;
}

// ---- Inbound messages

void SignalConn::onMessage(const std::string& message) {
  const ExitGate::Pass pass(&gate_);
  if (!pass) return;
  puts("-------------------- OnMessage start -----------------");
  if (handleSignalMessage(message) < 0) {
    printf("onMessage failed: %s\n", message.substr(0, kLoggedTextBytes).c_str());
  }
  puts("-------------------- OnMessage end ------------------");
}

int SignalConn::handleSignalMessage(const std::string& message) {
  const Json root(cJSON_Parse(message.c_str()));
  if (!root) {
    printf("parse message failed: %s\n", message.c_str());
    return -1;
  }
  const int code = GetNumberOrExit(root.get(), "code");
  if (code != 0) {
    printf("code error [%d], please check", code);
    return 0;
  }
  const std::string opcode = GetStringOrExit(root.get(), "opcode");
  printf("---------opcode == [%s]\n", opcode.c_str());
  if (opcode == "signin") {
    handleSignIn(root.get());
  } else if (opcode == "message") {
    handlePeerMessage(root.get(), message);
  } else if (opcode == "heartbeat") {
    printf("----recv heartbeat %s\n", message.c_str());
  } else {
    printf("unknown opcode %s\n", opcode.c_str());
  }
  return 0;
}

void SignalConn::handleSignIn(cJSON* root) {
  loginOK_ = true;
  uid_ = GetNumberOrExit(root, "sid");
  stunAddr_ = GetStringArrayOrExit(root, "stunAddr");
  turnAddr_ = GetStringArrayOrExit(root, "turnAddr");
  turnUser_ = GetStringArrayOrExit(root, "turnUser");
  turnPass_ = GetStringArrayOrExit(root, "turnPass");
  printf("GOT local uid %d\n", uid_.load());
  PrintStringArray(stunAddr_);
  PrintStringArray(turnAddr_);
  PrintStringArray(turnUser_);
  PrintStringArray(turnPass_);
}

void SignalConn::handlePeerMessage(cJSON* root, const std::string& frame) {
  const int peerId = GetNumberOrExit(root, "sid");
  GetStringOrExit(root, "serialCode");  // required of every peer message, otherwise unused
  const std::string messageType = GetStringOrExit(root, "messageType");
  const std::string payload = GetStringOrExit(root, "message");
  printf("---------messageType == [%s]\n", messageType.c_str());
  if (dispatchPeerMessage(peerId, messageType, payload, frame)) {
    printf("---------messageType == [%s] end\n", messageType.c_str());
  }
}

// Returns whether the end line is due.
bool SignalConn::dispatchPeerMessage(int peerId, const std::string& messageType, const std::string& payload,
                                     const std::string& frame) {
  if (messageType == "callRequest") return createSession(peerId, false, true, true, false, payload) != -1;
  if (messageType == "remoteCandidate") return addRemoteCandidate(peerId, payload) == 0;
  if (messageType == "hangup") {
    hangupSession(peerId);
    return true;
  }
  if (messageType == "switchAudio" || messageType == "switchVideo") {
    return switchType(peerId, messageType, payload, frame);
  }
  printf("unknown messageType %s\n", messageType.c_str());
  return false;
}

bool SignalConn::switchType(int peerId, const std::string& messageType, const std::string& payload,
                            const std::string& frame) {
  const Json choice(cJSON_Parse(payload.c_str()));
  if (!choice) {
    printf("parse message failed: %s\n", frame.c_str());
    return false;
  }
  const int type = GetNumberOrExit(choice.get(), "type");
  setAudioVideoType(peerId, messageType == "switchAudio" ? type : -1, messageType == "switchVideo" ? type : -1);
  return true;
}

int SignalConn::createSession(int peerId, bool isAlexa, bool configStun, bool configTurn, bool relayOnly,
                              const std::string& message) {
  KovraSessionConfig config;
  config.isAlexaCall = isAlexa;
  config.relayOnly = relayOnly;
  if (configStun) {
    for (const std::string& url : stunAddr_) config.iceServers.push_back({url, "", ""});
  }
  if (configTurn) {
    // The lists are parallel; an entry without its user name and password is no server.
    for (std::size_t i = 0; i < turnAddr_.size() && i < turnUser_.size() && i < turnPass_.size(); ++i) {
      config.iceServers.push_back({turnAddr_[i], turnUser_[i], turnPass_[i]});
    }
  }
  const KOVRA_SESSION_ID sessionId = streamer_.createSession(config);
  if (sessionId == 0) {
    printf("create session failed.");
    return -1;
  }
  addSessionRecord(sessionId, peerId);
  if (streamer_.setRemoteOffer(sessionId, message) != 0) {
    printf("setRemoteOffer failed, peer %d, offer %s \n", peerId, message.c_str());
    return -1;
  }
  return 0;
}

// The two lines below say "session" and give the peer.
int SignalConn::addRemoteCandidate(int peerId, const std::string& message) {
  const KOVRA_SESSION_ID sessionId = getSessionId(peerId);
  if (sessionId == 0) {
    printf("addRemoteCandidate, can't find peerId: %d\n", peerId);
    return -1;
  }
  printf("session %d, got remote candidate %s\n", peerId, message.c_str());
  if (streamer_.addRemoteCandidate(sessionId, message) != 0) {
    printf("session %d, addRemoteCandidate failed. \n", peerId);
    return -1;
  }
  return 0;
}

int SignalConn::hangupSession(int peerId) {
  const KOVRA_SESSION_ID sessionId = getSessionId(peerId);
  if (sessionId == 0) {
    printf("hangup. can't find peerid: %d\n", peerId);
    return -1;
  }
  removeSessionRecord(sessionId);
  streamer_.closeSession(sessionId);
  printf("close session: %d, peer %d\n", sessionId, peerId);
  return 0;
}

// Here too "session" is followed by the peer.
int SignalConn::setAudioVideoType(int peerId, int audioType, int videoType) {
  const KOVRA_SESSION_ID sessionId = getSessionId(peerId);
  if (sessionId == 0) {
    printf("setAudioVideoType, can't find peerId: %d\n", peerId);
    return -1;
  }
  printf("session %d, setAudioVideoType audioType:%d videoType:%d\n", peerId, audioType, videoType);
  if (streamer_.setAudioVideoType(sessionId, audioType, videoType) != 0) {
    printf("session %d, setAudioVideoType failed. \n", peerId);
    return -1;
  }
  return 0;
}

// ---- The engine's events

void SignalConn::onAnswer(KOVRA_SESSION_ID sid, const std::string& sdp) {
  const ExitGate::Pass pass(&gate_);
  if (!pass) return;
  printf("answer sdp: \n %s\n", sdp.substr(0, kLoggedTextBytes).c_str());
  sendMessageToPeer("callResponse", sid, sdp);
}

void SignalConn::onIceCandidate(KOVRA_SESSION_ID sid, const std::string& candidate) {
  const ExitGate::Pass pass(&gate_);
  if (!pass) return;
  printf("local candidate: \n %s\n", candidate.c_str());
  sendMessageToPeer("remoteCandidate", sid, candidate);
}

void SignalConn::onStateChange(KOVRA_SESSION_ID sid, KOVRA_STATE state) {
  const ExitGate::Pass pass(&gate_);
  if (!pass) return;
  printf("New connection state %u\n", static_cast<unsigned int>(state));
  if (state >= KOVRA_STATE_DISCONNECTED && state <= KOVRA_STATE_CLOSED) removeSessionRecord(sid);
}

int SignalConn::sendMessageToPeer(std::string msgType, KOVRA_SESSION_ID sid, const std::string& msg) {
  const int peerId = getPeerId(sid);
  if (peerId <= 0) {
    printf("can't find peerd for session %d", sid);
    return -1;
  }
  const Json json(cJSON_CreateObject());
  cJSON_AddStringToObject(json.get(), "opcode", "message");
  cJSON_AddStringToObject(json.get(), "messageType", msgType.c_str());
  cJSON_AddNumberToObject(json.get(), "sid", uid_);
  cJSON_AddStringToObject(json.get(), "serialCode", cid_.c_str());
  cJSON_AddNumberToObject(json.get(), "toSid", peerId);
  cJSON_AddStringToObject(json.get(), "toSerialCode", "");
  cJSON_AddStringToObject(json.get(), "message", msg.c_str());
  return signalClient_.sendMessage(PrintJson(json));
}

// ---- Media

int SignalConn::writeVideoData(std::uint8_t* data, std::size_t size, int videoType) {
  const int flags = getVideoPacketFlags(data, size);
  const int wantIFrame =
      streamer_.writeVideoData(data, size, static_cast<std::int64_t>(videoTimestamp), flags, videoType);
  videoTimestamp += kVideoTimestampStep;
  return wantIFrame;
}

int SignalConn::writeAudioData(std::uint8_t* data, std::size_t size) {
  const int result = streamer_.writeAudioData(data, size, static_cast<std::int64_t>(audioTimestamp), kPcmuAudioType);
  audioTimestamp += kAudioTimestampStep;
  return result;
}

void SignalConn::onAudioFrame(KOVRA_SESSION_ID sid, void* data, unsigned int len) {
  static std::atomic<int> i{0};
  const ExitGate::Pass pass(&gate_);
  if (!pass) return;
  if (i++ % kAudioFramesPerLogLine == 0) printf("===Audio Frame received. session: %d, Size: %u\n", sid, len);
  const AudioCallback callback = audioCB_;
  if (callback != nullptr) callback(data, len);
}

// ---- Test data mode

void SignalConn::runTestData(bool start) {
  if (start) {
    interrupted = 0;
    if (videoThread_ == 0) pthread_create(&videoThread_, nullptr, VideoSourceThread, &streamer_);
    if (audioThread_ == 0) pthread_create(&audioThread_, nullptr, PcmAudioSourceThread, &streamer_);
  } else {
    interrupted = 1;
    JoinThread(&videoThread_);
    JoinThread(&audioThread_);
  }
}

void* VideoSourceThread(void* args) {
  auto* streamer = static_cast<KovraStreamer*>(args);
  std::int64_t presentationTs = 0;
  int fileIndex = 0;
  std::uint8_t* pVideoFrameBuffer = nullptr;
  std::uint64_t videoBufferSize = 0;
  std::uint64_t frameSize = 0;
  while (interrupted == 0) {
    char filePath[1024];
    fileIndex = fileIndex % kSampleVideoFrames + 1;
    snprintf(filePath, sizeof filePath, "./h264SampleFrames/frame-%03d.h264", fileIndex);
    if (ReadFileFromDisk(filePath, &pVideoFrameBuffer, &videoBufferSize, &frameSize) < 0) {
      printf("read video packet failed, %s\n", filePath);
      break;
    }
    const int frameFlags = getVideoPacketFlags(pVideoFrameBuffer, frameSize);
    presentationTs += kSampleVideoFrameDurationMicroSecond;
    streamer->writeVideoData(pVideoFrameBuffer, frameSize, presentationTs, frameFlags, kH264VideoType);
    usleep(static_cast<useconds_t>(kSampleVideoFrameDurationMicroSecond));
  }
  puts("videosource exit");
  delete[] pVideoFrameBuffer;
  return nullptr;
}

void* PcmAudioSourceThread(void* args) {
  auto* streamer = static_cast<KovraStreamer*>(args);
  const std::string filepath = "./20s.pcmu";
  std::uint8_t* pBuffer = nullptr;
  std::uint64_t bufferSize = 0;
  std::uint64_t fileSize = 0;
  if (ReadFileFromDisk(filepath.c_str(), &pBuffer, &bufferSize, &fileSize) < 0) {
    printf("read pcm failed, %s\n", filepath.c_str());
    exit(-1);
  }
  double tStart = GetCurrentTimeInMs();
  int frameCount = 0;
  int fileIndex = 0;
  std::int64_t presentationTs = 0;
  while (interrupted == 0) {
    std::uint8_t pAudioFrameBuffer[kSampleAudioFrameBytes];
    fileIndex = fileIndex % kSampleAudioFrames + 1;
    std::memcpy(pAudioFrameBuffer, pBuffer + static_cast<std::size_t>(fileIndex) * kSampleAudioFrameBytes,
                kSampleAudioFrameBytes);
    presentationTs += kSampleAudioFrameDurationMicroSecond;
    streamer->writeAudioData(pAudioFrameBuffer, kSampleAudioFrameBytes, presentationTs, kPcmuAudioType);
    frameCount += 1;

    const double tEnd = GetCurrentTimeInMs();
    const double elapsed = tEnd - tStart;
    const double expect = frameCount * kSampleAudioFrameMs;
    if (elapsed < expect) {
      const double sleepMs = expect - elapsed;
      if (sleepMs > kSampleAudioFrameMs) {
        usleep(static_cast<useconds_t>(kSampleAudioFrameDurationMicroSecond));
      } else {
        usleep(static_cast<useconds_t>(sleepMs) * 1000);
      }
    }
    if (frameCount > kFramesPerPacingReference) {
      frameCount = 0;
      tStart = tEnd;
    }
  }
  puts("pcm audiosource exit");
  delete[] pBuffer;
  pBuffer = nullptr;
  return nullptr;
}

// ---- Entry points

int kovraInit(char* server, int port, char* sn, char* key, char* secret, char* mac, int authType, char* authCode,
              int mustPermit, char* permitCode) {
  signal(SIGINT, sigint_handler);
  initKovraLibrary(kEngineLibraryLevel);
  kovraGet().setLoginMessage(sn, key, secret, mac, authType, authCode, mustPermit, permitCode);
  return kovraGet().init(server, port);
}

void kovraSetPermitMsg(int mustPermit, char* permitCode) { kovraGet().setPermitMsg(mustPermit, permitCode); }

void kovraRun(bool bInTread) {
  if (!bInTread) {
    kovraGet().run();
    return;
  }
  kovraGet();  // built here, so that its destruction is registered before the thread needs it
  pthread_t thread;
  pthread_create(&thread, nullptr, runThread, nullptr);
}

void kovraRegisterAudioCB(void (*cb)(void* data, size_t len)) { kovraGet().setAudioCB(cb); }

int kovraOnVideoFrame(void* data, size_t len, int /*frameType*/, int videoType) {
  const ExitGate::Pass pass(&mediaGate);
  return pass ? kovraGet().writeVideoData(static_cast<std::uint8_t*>(data), len, videoType) : 0;
}

int kovraOnAudioFrame(void* data, size_t len) {
  const ExitGate::Pass pass(&mediaGate);
  if (pass) kovraGet().writeAudioData(static_cast<std::uint8_t*>(data), len);
  return 0;
}

int runTestDataMode(bool start) {
  kovraGet().runTestData(start);
  return 0;
}
