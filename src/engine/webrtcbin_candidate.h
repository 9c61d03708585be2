// ICE candidates as texts.
#ifndef SIGNALCONN_ENGINE_WEBRTCBIN_CANDIDATE_H
#define SIGNALCONN_ENGINE_WEBRTCBIN_CANDIDATE_H

#include <string>

namespace engine {

struct RemoteCandidate {
  enum class Kind {
    kUsable,
    kDropped,  // well formed, but of no use here: a ".local" name, TCP, RTCP's own component, or the end of the list
    kMalformed,
  };
  Kind kind;
  std::string line;  // "candidate:…" when usable
};

// Reads the JSON text of an RTCIceCandidateInit or a bare "candidate:…" line.
RemoteCandidate readRemoteCandidate(const std::string& text);

// The JSON text of an RTCIceCandidateInit.
std::string toCandidateInit(const std::string& line, const std::string& mid, unsigned int mlineIndex);

}  // namespace engine

#endif  // SIGNALCONN_ENGINE_WEBRTCBIN_CANDIDATE_H
