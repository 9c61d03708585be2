#include "websocket_frames.h"

#include <openssl/evp.h>
#include <openssl/sha.h>

#include <algorithm>
#include <cctype>
#include <sstream>

namespace support {

namespace {

void AppendNumber(std::uint64_t number, int bytes, std::string* out) {
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) out->push_back(static_cast<char>(number >> shift & 0xff));
}

std::uint64_t ReadNumber(const std::string& bytes, std::size_t offset, std::size_t count) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < count; ++i) number = number << 8 | static_cast<std::uint8_t>(bytes[offset + i]);
  return number;
}

}  // namespace

std::string EncodeHeader(const Frame& frame, std::uint64_t length) {
  const std::uint8_t maskBit = frame.masked ? 0x80 : 0;
  std::string header;
  header.push_back(static_cast<char>((frame.final ? 0x80 : 0) | (frame.reserved & 7) << 4 | (frame.opcode & 0xf)));
  if (length < 126) {
    header.push_back(static_cast<char>(maskBit | length));
  } else if (length <= 0xffff) {
    header.push_back(static_cast<char>(maskBit | 126));
    AppendNumber(length, 2, &header);
  } else {
    header.push_back(static_cast<char>(maskBit | 127));
    AppendNumber(length, 8, &header);
  }
  if (frame.masked) header.append(4, '\0');
  return header;
}

std::string EncodeFrame(const Frame& frame) { return EncodeHeader(frame, frame.payload.size()) + frame.payload; }

std::string ClosePayload(int code, const std::string& reason) {
  std::string payload;
  AppendNumber(static_cast<std::uint64_t>(code), 2, &payload);
  return payload + reason;
}

int CloseCode(const std::string& payload) {
  return payload.size() < 2 ? 1005 : static_cast<int>(ReadNumber(payload, 0, 2));
}

std::optional<Frame> FrameReader::Next() {
  if (bytes_.size() < 2) return std::nullopt;
  Frame frame;
  const auto first = static_cast<std::uint8_t>(bytes_[0]);
  const auto second = static_cast<std::uint8_t>(bytes_[1]);
  frame.final = (first & 0x80) != 0;
  frame.reserved = first >> 4 & 7;
  frame.opcode = first & 0xf;
  frame.masked = (second & 0x80) != 0;

  const std::size_t shortLength = second & 0x7f;
  const std::size_t lengthBytes = shortLength == 126 ? 2 : shortLength == 127 ? 8 : 0;
  const std::size_t headerSize = 2 + lengthBytes + (frame.masked ? 4 : 0);
  if (bytes_.size() < headerSize) return std::nullopt;
  const std::uint64_t length = lengthBytes == 0 ? shortLength : ReadNumber(bytes_, 2, lengthBytes);
  if (bytes_.size() - headerSize < length) return std::nullopt;

  frame.payload = bytes_.substr(headerSize, length);
  if (frame.masked) {
    const std::string mask = bytes_.substr(headerSize - 4, 4);
    for (std::size_t i = 0; i < frame.payload.size(); ++i) frame.payload[i] ^= mask[i % 4];
  }
  bytes_.erase(0, headerSize + length);
  return frame;
}

std::optional<HandshakeRequest> ParseHandshake(const std::string& text) {
  HandshakeRequest request;
  std::istringstream lines(text);
  std::string version;
  if (!(lines >> request.method >> request.path >> version) || version != "HTTP/1.1") return std::nullopt;
  std::string line;
  std::getline(lines, line);
  while (std::getline(lines, line) && line != "\r") {
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) return std::nullopt;
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    const std::size_t begin = line.find_first_not_of(' ', colon + 1);
    const std::size_t end = line.find_last_not_of("\r ");
    request.headers[name] = begin <= end ? line.substr(begin, end - begin + 1) : "";
  }
  return request;
}

std::string SwitchingProtocols(const std::string& key) {
  const std::string text = key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";  // RFC 6455, 1.3
  unsigned char digest[SHA_DIGEST_LENGTH];
  SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
  unsigned char accept[4 * ((SHA_DIGEST_LENGTH + 2) / 3) + 1];
  EVP_EncodeBlock(accept, digest, sizeof digest);
  return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: " +
         std::string(reinterpret_cast<const char*>(accept)) + "\r\n\r\n";
}

std::string RefusingResponse(const std::string& status, const std::string& headers) {
  return "HTTP/1.1 " + status + "\r\n" + headers + "Content-Length: 0\r\nConnection: close\r\n\r\n";
}

}  // namespace support
