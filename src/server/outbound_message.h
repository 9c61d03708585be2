// The texts that the server sends. Every one carries "code".
#ifndef SIGNALCONN_SERVER_OUTBOUND_MESSAGE_H
#define SIGNALCONN_SERVER_OUTBOUND_MESSAGE_H

#include <optional>
#include <string>
#include <vector>

#include "refusal.h"

namespace signalconn::server {

struct IceServers {
  std::vector<std::string> stunAddr;
  std::vector<std::string> turnAddr, turnUser, turnPass;  // of equal length
};

struct OnlineCamera {
  std::string serialCode;
  bool mustPermit;
};

// What an error message repeats of its request.
struct RequestEcho {
  std::string opcode;
  std::optional<std::string> messageType, toSerialCode;
};

std::string signInResponse(int sid, const IceServers& iceServers);
std::string cameraList(const std::vector<OnlineCamera>& cameras);
std::string peerMessage(int sid, const std::string& serialCode, const std::string& messageType,
                        const std::string& payload);
std::string heartbeatReply();
std::string errorMessage(const Refusal& refusal, const RequestEcho& request);

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_OUTBOUND_MESSAGE_H
