// WebSocket frames and the opening handshake (RFC 6455), as bytes: what a server that has to break the rules
// needs. Pure.
#ifndef SIGNALCONN_TESTS_WEBSOCKET_FRAMES_H
#define SIGNALCONN_TESTS_WEBSOCKET_FRAMES_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace support {

enum Opcode : std::uint8_t {
  kContinuation = 0x0,
  kText = 0x1,
  kBinary = 0x2,
  kClose = 0x8,
  kPing = 0x9,
  kPong = 0xa,
};

struct Frame {
  std::uint8_t opcode = kText;  // any four bits, reserved ones included
  bool final = true;
  std::uint8_t reserved = 0;  // RSV1 to RSV3, three bits
  bool masked = false;        // when encoding: with the mask 0, which leaves the payload as it is
  std::string payload;
};

// The header of a frame of length bytes, whatever follows it.
std::string EncodeHeader(const Frame& frame, std::uint64_t length);
std::string EncodeFrame(const Frame& frame);
std::string ClosePayload(int code, const std::string& reason = "");
// The code that a close frame carries; 1005 when it carries none.
int CloseCode(const std::string& payload);

// Takes frames out of a stream of bytes, unmasked.
class FrameReader {
 public:
  void Append(const char* data, std::size_t size) { bytes_.append(data, size); }
  std::optional<Frame> Next();

 private:
  std::string bytes_;
};

struct HandshakeRequest {
  std::string method;
  std::string path;
  std::map<std::string, std::string> headers;  // names in lower case
};

// text ends with the empty line. Empty when it is no HTTP request.
std::optional<HandshakeRequest> ParseHandshake(const std::string& text);
// The 101 answer to a client's Sec-WebSocket-Key.
std::string SwitchingProtocols(const std::string& key);
// An answer that ends the handshake, for example "401 Unauthorized".
std::string RefusingResponse(const std::string& status, const std::string& headers = "");

}  // namespace support

#endif  // SIGNALCONN_TESTS_WEBSOCKET_FRAMES_H
