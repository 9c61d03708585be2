#include "websocket_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <stdexcept>
#include <utility>

namespace support {

namespace {

const std::chrono::seconds kPatience{30};
const std::string kEndOfHead = "\r\n\r\n";
const std::string kMask = "\x5a\x01\xf0\x7e";

ServerStream Connect(int port) {
  UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("no connection to the server");
  }
  return ServerStream(std::move(socket), nullptr);
}

}  // namespace

WebSocketClient::WebSocketClient(int port, const std::string& path, const std::string& headers)
    : stream_(Connect(port)) {
  SendBytes("GET " + path +
            " HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n" +
            headers + "\r\n");
  ReadResponse();
}

void WebSocketClient::ReadResponse() {
  const auto deadline = Clock::now() + kPatience;
  std::size_t end = std::string::npos;
  while (end == std::string::npos) {
    char piece[1024];
    const std::size_t size = stream_.Read(piece, sizeof piece, deadline);
    if (size == 0) return;
    response_.append(piece, size);
    end = response_.find(kEndOfHead);
  }
  const std::string rest = response_.substr(end + kEndOfHead.size());
  reader_.Append(rest.data(), rest.size());
  response_.resize(end + kEndOfHead.size());
}

bool WebSocketClient::IsOpen() const { return response_.rfind("HTTP/1.1 101 ", 0) == 0; }

bool WebSocketClient::SendFrame(Frame frame) {
  if (!frame.masked) return SendBytes(EncodeFrame(frame));
  std::string header = EncodeHeader(frame, frame.payload.size());
  header.replace(header.size() - kMask.size(), kMask.size(), kMask);
  for (std::size_t i = 0; i < frame.payload.size(); ++i) frame.payload[i] ^= kMask[i % kMask.size()];
  return SendBytes(header + frame.payload);
}

bool WebSocketClient::SendBytes(const std::string& bytes) { return stream_.Write(bytes, Clock::now() + kPatience); }

std::optional<Frame> WebSocketClient::ReceiveFrame(std::chrono::milliseconds within) {
  const auto deadline = Clock::now() + within;
  while (true) {
    if (std::optional<Frame> frame = reader_.Next()) {
      if (frame->opcode == kPing) {
        ++pings_;
        if (answerPings_) SendFrame({kPong, true, 0, true, frame->payload});
      }
      return frame;
    }
    char piece[16384];
    const std::size_t size = stream_.Read(piece, sizeof piece, deadline);
    if (size == 0) return std::nullopt;
    reader_.Append(piece, size);
  }
}

std::optional<std::string> WebSocketClient::ReceiveText(std::chrono::milliseconds within) {
  const auto deadline = Clock::now() + within;
  while (true) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    const std::optional<Frame> frame = ReceiveFrame(left);
    if (!frame) return std::nullopt;
    if (frame->opcode == kText) return frame->payload;
  }
}

std::optional<int> WebSocketClient::WaitForClose(std::chrono::milliseconds within) {
  const auto deadline = Clock::now() + within;
  int code = 0;
  while (!stream_.Ended()) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    const std::optional<Frame> frame = ReceiveFrame(left);
    if (frame && frame->opcode == kClose) {
      code = CloseCode(frame->payload);
      SendFrame({kClose, true, 0, true, frame->payload});
    }
    if (!frame && !stream_.Ended()) return std::nullopt;
  }
  return code;
}

std::string HttpExchange(int port, const std::string& request) {
  ServerStream stream = Connect(port);
  const auto deadline = Clock::now() + kPatience;
  stream.Write(request, deadline);
  std::string response;
  char piece[16384];
  while (const std::size_t size = stream.Read(piece, sizeof piece, deadline)) response.append(piece, size);
  return response;
}

}  // namespace support
