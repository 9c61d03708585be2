// What a WebRTC engine offers to the library. Our engine (src/engine) and a vendor's implement it.
//
// Threads. Every operation of KovraStreamer may be called from any thread, several at a time, and from
// inside any callback. None waits for a viewer or for the network; writeVideoData and writeAudioData
// return within a millisecond or so whatever a viewer does.
//
// Callbacks come on the engine's own threads, also while a call of the same session is still running
// (onAnswer may overtake the return of setRemoteOffer). The callbacks of one session never overlap,
// apart from onAudioFrame, and never come before createSession has returned its id. The engine holds no lock
// while it calls back.
#ifndef KOVRA_H
#define KOVRA_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// Names one engine session. 0 is no session; any other value, a negative one included, is one.
using KOVRA_SESSION_ID = std::int32_t;

// Connection state of a session, in the sense of RTCPeerConnectionState (W3C WebRTC 1.0, 4.4.2).
enum KOVRA_STATE {
  KOVRA_STATE_NONE = 0,
  KOVRA_STATE_NEW = 1,
  KOVRA_STATE_CONNECTING = 2,
  KOVRA_STATE_CONNECTED = 3,
  KOVRA_STATE_DISCONNECTED = 4,
  KOVRA_STATE_FAILED = 5,
  KOVRA_STATE_CLOSED = 6,
};

// One STUN or TURN server.
struct KovraIceServer {
  std::string url;         // "stun:host:port" or "turn:host:port?transport=udp|tcp" (RFC 7064, 7065)
  std::string username;    // empty for STUN
  std::string credential;  // empty for STUN
};

// What createSession is given. The defaults are the engine's: trickle ICE, any path, no servers.
struct KovraSessionConfig {
  KovraSessionConfig();

  bool isAlexaCall;  // the viewer is a voice assistant's display; has no effect in our engine
  bool trickleIce;   // true: candidates follow the answer (RFC 8838); false: the answer holds them all
  bool relayOnly;    // true: only relayed candidates are gathered and used
  std::vector<KovraIceServer> iceServers;
};

// What the engine tells. The implementer must return quickly and must not keep the references or the
// data pointer after it has returned.
class KovraStreamerCallback {
 public:
  virtual ~KovraStreamerCallback() = default;

  // The answer to setRemoteOffer, the whole SDP. Comes once, before the session's first candidate.
  virtual void onAnswer(KOVRA_SESSION_ID sid, const std::string& sdp) = 0;

  // One local candidate: the JSON text of an RTCIceCandidateInit,
  // {"candidate":"candidate:…","sdpMid":"…","sdpMLineIndex":n}. None comes without trickleIce.
  virtual void onIceCandidate(KOVRA_SESSION_ID sid, const std::string& candidate) = 0;

  // A new connection state. FAILED and CLOSED are final: the engine has let go of the session,
  // its id names nothing any more, and no callback of it follows.
  virtual void onStateChange(KOVRA_SESSION_ID sid, KOVRA_STATE state) = 0;

  // One frame that the viewer sent: G.711 u-law, 8 kHz mono, one byte a sample, 160 bytes (20 ms) as a
  // rule. len is in bytes.
  virtual void onAudioFrame(KOVRA_SESSION_ID sid, void* data, unsigned int len) = 0;
};

// Sets the engine up for the process. Optional, and harmless when called again. level says how much
// the engine writes to standard error: 0 nothing, 1 errors, 2 warnings too, 3 sessions' begin and end
// too, 4 everything. Returns 0, or a negative value when the engine cannot work on this machine.
int initKovraLibrary(unsigned int level);

// Holds the sessions with all viewers and sends them the camera's media.
class KovraStreamer {
 public:
  KovraStreamer();
  // Closes every session without calling back. Waits until callbacks under way have returned, except
  // when it runs on one of the engine's own threads (exit() inside a callback): then it waits for none.
  ~KovraStreamer();
  KovraStreamer(const KovraStreamer&) = delete;
  KovraStreamer& operator=(const KovraStreamer&) = delete;

  // The receiver of all sessions' callbacks: not owned, must outlive this object; set before the first
  // session.
  void registerCallback(KovraStreamerCallback* callback);

  // Opens a session that waits for its offer. Returns its id, or 0 on failure.
  KOVRA_SESSION_ID createSession(const KovraSessionConfig& config);

  // Gives the session the viewer's SDP offer (RFC 8829). Returns 0 when it was accepted: onAnswer
  // follows. Otherwise non-zero: no such session, not its first offer, or nothing usable in the text;
  // the session stays open until closeSession.
  int setRemoteOffer(KOVRA_SESSION_ID sid, const std::string& sdp);

  // Adds one candidate of the viewer, before or after the offer: the JSON text of an
  // RTCIceCandidateInit, or a bare "candidate:…" line (RFC 8839). An empty candidate ends the list.
  // Returns 0 when it was taken or knowingly dropped (a name under ".local"), non-zero when there is no
  // such session or the text cannot be read.
  int addRemoteCandidate(KOVRA_SESSION_ID sid, const std::string& candidate);

  // Ends the session, without a CLOSED state. Its id names nothing from here on; a callback that was on its
  // way may still arrive. Returns 0, or non-zero when there is no such session.
  int closeSession(KOVRA_SESSION_ID sid);

  // Chooses which frames the session receives: those written with these types. -1 leaves a medium as it
  // is. A session starts with video type 1 and audio type 0. Returns 0, or non-zero when there is no such
  // session.
  int setAudioVideoType(KOVRA_SESSION_ID sid, int audioType, int videoType);

  // Sends one H.264 access unit in Annex B form (ITU-T H.264 B.1) to every session whose video type is
  // videoType. The bytes are only borrowed for the call. presentationTime orders frames but is not
  // trusted as a clock, since callers' units differ: RTP timestamps follow the time of arrival. flags
  // bit 4 marks a long frame; our engine needs no such mark. Returns non-zero while some session waits
  // for a key frame (its offer just came, or it asked by PLI or FIR, RFC 4585 and 5104), else 0.
  int writeVideoData(std::uint8_t* data, std::size_t size, std::int64_t presentationTime, int flags, int videoType);

  // Sends one frame of G.711 u-law, 8 kHz mono, to every session whose audio type is audioType. RTP
  // timestamps advance by size, one unit a byte (RFC 3551), and by the length of a pause between frames.
  // Returns 0, or negative when the frame is empty.
  int writeAudioData(std::uint8_t* data, std::size_t size, std::int64_t presentationTime, int audioType);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

#endif  // KOVRA_H
