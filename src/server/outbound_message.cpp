#include "outbound_message.h"

#include <utility>

#include "json.h"

namespace signalconn::server {

std::string signInResponse(int sid, const IceServers& iceServers) {
  return JsonWriter()
      .add("code", 0)
      .add("opcode", "signin")
      .add("sid", sid)
      .add("stunAddr", iceServers.stunAddr)
      .add("turnAddr", iceServers.turnAddr)
      .add("turnUser", iceServers.turnUser)
      .add("turnPass", iceServers.turnPass)
      .text();
}

std::string cameraList(const std::vector<OnlineCamera>& cameras) {
  std::vector<JsonWriter> entries;
  for (const OnlineCamera& camera : cameras) {
    JsonWriter entry;
    entry.add("serialCode", camera.serialCode).add("mustPermitCode", camera.mustPermit ? 1 : 0);
    entries.push_back(std::move(entry));
  }
  return JsonWriter().add("code", 0).add("opcode", "cameras").add("cameras", std::move(entries)).text();
}

std::string peerMessage(int sid, const std::string& serialCode, const std::string& messageType,
                        const std::string& payload) {
  return JsonWriter()
      .add("code", 0)
      .add("opcode", "message")
      .add("sid", sid)
      .add("serialCode", serialCode)
      .add("messageType", messageType)
      .add("message", payload)
      .text();
}

std::string heartbeatReply() { return JsonWriter().add("code", 0).add("opcode", "heartbeat").text(); }

std::string errorMessage(const Refusal& refusal, const RequestEcho& request) {
  JsonWriter error;
  error.add("code", refusal.code()).add("opcode", request.opcode);
  if (request.messageType) error.add("messageType", *request.messageType);
  if (request.toSerialCode) error.add("toSerialCode", *request.toSerialCode);
  return error.add("message", refusal.what()).text();
}

}  // namespace signalconn::server
