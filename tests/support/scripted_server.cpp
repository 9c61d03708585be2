#include "scripted_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace support {

namespace {

struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t size = 0;
  const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

SocketAddress MakeAddress(const std::string& text, int port) {
  SocketAddress address;
  if (text.find(':') != std::string::npos) {
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&address.storage);
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(static_cast<std::uint16_t>(port));
    inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr);
    address.size = sizeof *v6;
  } else {
    auto* v4 = reinterpret_cast<sockaddr_in*>(&address.storage);
    v4->sin_family = AF_INET;
    v4->sin_port = htons(static_cast<std::uint16_t>(port));
    inet_pton(AF_INET, text.c_str(), &v4->sin_addr);
    address.size = sizeof *v4;
  }
  return address;
}

void Require(bool done, const char* step) {
  if (!done) throw std::runtime_error(std::string("scripted server: ") + step + ": " + strerror(errno));
}

}  // namespace

std::optional<HandshakeRequest> ServerConnection::ReadHandshake(std::chrono::milliseconds within) {
  const auto deadline = Clock::now() + within;
  if (!stream_.StartTls(deadline)) return std::nullopt;
  std::string head;
  char byte = 0;
  while (head.size() < 16384 && stream_.Read(&byte, 1, deadline) == 1) {
    head.push_back(byte);
    if (head.size() >= 4 && head.compare(head.size() - 4, 4, "\r\n\r\n") == 0) return ParseHandshake(head);
  }
  return std::nullopt;
}

bool ServerConnection::OpenWebSocket(std::chrono::milliseconds within) {
  const std::optional<HandshakeRequest> request = ReadHandshake(within);
  if (!request) return false;
  const auto key = request->headers.find("sec-websocket-key");
  return key != request->headers.end() && SendBytes(SwitchingProtocols(key->second));
}

bool ServerConnection::SendBytes(const std::string& bytes, std::chrono::milliseconds within) {
  return stream_.Write(bytes, Clock::now() + within);
}

std::optional<Frame> ServerConnection::ReceiveFrame(std::chrono::milliseconds within) {
  const auto deadline = Clock::now() + within;
  while (true) {
    if (std::optional<Frame> frame = reader_.Next()) {
      if (frame->opcode == kPing) ++pings_;
      if (frame->opcode == kClose) closeCode_ = CloseCode(frame->payload);
      return frame;
    }
    char bytes[4096];
    const std::size_t size = stream_.Read(bytes, sizeof bytes, deadline);
    if (size == 0) return std::nullopt;
    reader_.Append(bytes, size);
  }
}

std::optional<std::string> ServerConnection::ReceiveText(std::chrono::milliseconds within) {
  const auto deadline = Clock::now() + within;
  while (std::optional<Frame> frame =
             ReceiveFrame(std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()))) {
    if (frame->opcode == kPing && answerPings_) SendFrame({kPong, true, 0, false, frame->payload});
    if (frame->opcode != kText && frame->opcode != kContinuation) continue;
    text_ += frame->payload;
    if (frame->final) return std::exchange(text_, "");
  }
  return std::nullopt;
}

bool ServerConnection::WaitForEnd(std::chrono::milliseconds within) {
  const auto deadline = Clock::now() + within;
  while (!Ended()) {
    const std::optional<Frame> frame =
        ReceiveFrame(std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()));
    if (!frame && !Ended()) return false;
    if (frame && frame->opcode == kPing && answerPings_) SendFrame({kPong, true, 0, false, frame->payload});
    if (frame && frame->opcode == kClose) SendFrame({kClose, true, 0, false, frame->payload});
  }
  return true;
}

bool ServerConnection::WaitForEndFrozen(std::chrono::milliseconds within) const {
  return WaitForFd(stream_.Fd(), POLLRDHUP, Clock::now() + within);
}

ScriptedServer::ScriptedServer(const ServerOptions& options) : options_(options) {
  Bind(options.port);
  if (options.listening) Listen();
}

void ScriptedServer::Bind(int port) {
  const SocketAddress address = MakeAddress(options_.address, port);
  socket_ = UniqueFd(socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  setsockopt(socket_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (address.storage.ss_family == AF_INET6) setsockopt(socket_.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  Require(bind(socket_.get(), address.Get(), address.size) == 0, "bind");
  SocketAddress bound;
  bound.size = sizeof bound.storage;
  Require(getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&bound.storage), &bound.size) == 0, "getsockname");
  port_ = ntohs(reinterpret_cast<const sockaddr_in*>(&bound.storage)->sin_port);  // the same place in both families
}

void ScriptedServer::Listen() {
  const bool vanished = !fillers_.empty();
  fillers_.clear();
  while (vanished && UniqueFd(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC)).get() >= 0) continue;
  Require(listen(socket_.get(), 64) == 0, "listen");
}

// Bound and not listening, the port is nobody else's and closed.
void ScriptedServer::Refuse() {
  socket_.Close();
  Bind(port_);
}

// With a full queue Linux drops what asks for a connection.
void ScriptedServer::Vanish() {
  Require(listen(socket_.get(), 0) == 0, "listen");
  const SocketAddress address = MakeAddress(options_.address, port_);
  for (int i = 0; i < 2; ++i) {
    UniqueFd filler(socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    connect(filler.get(), address.Get(), address.size);
    fillers_.push_back(std::move(filler));
  }
}

std::unique_ptr<ServerConnection> ScriptedServer::Accept(std::chrono::milliseconds within) {
  const auto deadline = Clock::now() + within;
  while (WaitForFd(socket_.get(), POLLIN, deadline)) {
    UniqueFd accepted(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (accepted.get() < 0) continue;
    ++accepted_;
    return std::make_unique<ServerConnection>(ServerStream(std::move(accepted), options_.tls));
  }
  return nullptr;
}

std::unique_ptr<ServerConnection> ScriptedServer::AcceptWebSocket(std::chrono::milliseconds within) {
  std::unique_ptr<ServerConnection> connection = Accept(within);
  return connection && connection->OpenWebSocket(within) ? std::move(connection) : nullptr;
}

}  // namespace support
