// Requests of the parties, and the reading of what the server sends.
#ifndef SIGNALCONN_TESTS_SIGNALLING_TEXTS_H
#define SIGNALCONN_TESTS_SIGNALLING_TEXTS_H

#include <cstddef>
#include <string>

namespace support {

const std::string kHeartbeat = R"({"opcode":"heartbeat"})";
const std::string kHeartbeatReply = R"({"code":0,"opcode":"heartbeat"})";

inline std::string CameraSignIn(const std::string& serialCode, const std::string& secret = "demo") {
  return R"({"opcode":"signin","key":"demo","secret":")" + secret +
         R"(","loginType":1,"authType":0,"authCode":"","serialCode":")" + serialCode +
         R"(","mac":"","mustPermitCode":0,"permitCode":""})";
}

inline std::string ViewerSignIn(const std::string& name) {
  return R"({"opcode":"signin","key":"demo","secret":"demo","loginType":2,"serialCode":")" + name + R"("})";
}

inline std::string FromViewer(const std::string& messageType, const std::string& toSerialCode,
                              const std::string& message) {
  return R"({"opcode":"message","messageType":")" + messageType + R"(","toSerialCode":")" + toSerialCode +
         R"(","message":")" + message + R"("})";
}

inline std::string FromCamera(const std::string& messageType, int toSid, const std::string& message) {
  return R"({"opcode":"message","messageType":")" + messageType + R"(","sid":0,"serialCode":"","toSid":)" +
         std::to_string(toSid) + R"(,"toSerialCode":"","message":")" + message + R"("})";
}

// The number "sid" of a message from the server; 0 when there is none.
inline int SidIn(const std::string& message) {
  const std::string key = R"("sid":)";
  const std::size_t at = message.find(key);
  return at == std::string::npos ? 0 : std::stoi(message.substr(at + key.size()));
}

}  // namespace support

#endif  // SIGNALCONN_TESTS_SIGNALLING_TEXTS_H
