#include "server_stream.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace support {

bool WaitForFd(int fd, short events, Clock::time_point deadline) {
  pollfd entry{fd, events, 0};
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    const int ready = poll(&entry, 1, static_cast<int>(std::max<long>(left, 0)));
    if (ready > 0) return true;
    if (ready == 0 && Clock::now() >= deadline) return false;
    if (ready < 0 && errno != EINTR) return false;
  }
}

ServerStream::ServerStream(UniqueFd socket, TlsContext tls) : socket_(std::move(socket)), context_(std::move(tls)) {
  fcntl(socket_.get(), F_SETFL, O_NONBLOCK);
  const int on = 1;
  setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool ServerStream::WaitForTls(int result, Clock::time_point deadline) {
  const int error = SSL_get_error(tls_.get(), result);
  if (error == SSL_ERROR_WANT_READ) return WaitForFd(socket_.get(), POLLIN, deadline);
  if (error == SSL_ERROR_WANT_WRITE) return WaitForFd(socket_.get(), POLLOUT, deadline);
  ended_ = true;
  ERR_clear_error();
  return false;
}

bool ServerStream::StartTls(Clock::time_point deadline) {
  if (!context_ || tls_) return !ended_;
  tls_.reset(SSL_new(context_.get()));
  SSL_set_fd(tls_.get(), socket_.get());
  int result = 0;
  while ((result = SSL_accept(tls_.get())) != 1) {
    if (!WaitForTls(result, deadline)) return false;
  }
  return true;
}

std::size_t ServerStream::Read(char* data, std::size_t size, Clock::time_point deadline) {
  while (!ended_) {
    if (tls_) {
      const int got = SSL_read(tls_.get(), data, static_cast<int>(size));
      if (got > 0) return static_cast<std::size_t>(got);
      if (!WaitForTls(got, deadline)) return 0;
      continue;
    }
    const ssize_t got = recv(socket_.get(), data, size, 0);
    if (got > 0) return static_cast<std::size_t>(got);
    if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
      ended_ = true;
    } else if (!WaitForFd(socket_.get(), POLLIN, deadline)) {
      return 0;
    }
  }
  return 0;
}

bool ServerStream::Write(const std::string& bytes, Clock::time_point deadline) {
  std::size_t written = 0;
  while (!ended_ && written < bytes.size()) {
    if (tls_) {
      const int put = SSL_write(tls_.get(), bytes.data() + written, static_cast<int>(bytes.size() - written));
      if (put > 0) {
        written += static_cast<std::size_t>(put);
      } else if (!WaitForTls(put, deadline)) {
        return false;
      }
      continue;
    }
    const ssize_t put = send(socket_.get(), bytes.data() + written, bytes.size() - written, MSG_NOSIGNAL);
    if (put >= 0) {
      written += static_cast<std::size_t>(put);
    } else if (errno != EAGAIN && errno != EINTR) {
      ended_ = true;
    } else if (!WaitForFd(socket_.get(), POLLOUT, deadline)) {
      return false;
    }
  }
  return written == bytes.size();
}

void ServerStream::Close() {
  if (tls_ && !ended_) SSL_shutdown(tls_.get());
  ended_ = true;
  tls_.reset();
  socket_.Close();
}

void ServerStream::Reset() {
  const linger now{1, 0};
  setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
  ended_ = true;
  tls_.reset();
  socket_.Close();
}

}  // namespace support
