// The server's end of one TCP connection, with or without TLS, where every wait has a deadline.
#ifndef SIGNALCONN_TESTS_SERVER_STREAM_H
#define SIGNALCONN_TESTS_SERVER_STREAM_H

#include <openssl/ssl.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "certificates.h"
#include "unique_fd.h"

namespace support {

using Clock = std::chrono::steady_clock;

// Waits until fd is ready for events (poll(2)). Returns whether it is.
bool WaitForFd(int fd, short events, Clock::time_point deadline);

class ServerStream {
 public:
  ServerStream(UniqueFd socket, TlsContext tls);
  ServerStream(ServerStream&&) = default;
  ServerStream& operator=(ServerStream&&) = default;

  // The TLS handshake; true at once without TLS.
  bool StartTls(Clock::time_point deadline);
  // The number of bytes read; 0 when none came in time or the connection has ended, see Ended.
  std::size_t Read(char* data, std::size_t size, Clock::time_point deadline);
  // Returns whether everything was written.
  bool Write(const std::string& bytes, Clock::time_point deadline);
  // Whether the peer has closed or reset the connection, or this side has.
  bool Ended() const { return ended_; }
  // Ends with FIN, and an alert where there is TLS.
  void Close();
  // Ends with RST.
  void Reset();
  int Fd() const { return socket_.get(); }

 private:
  using TlsPointer = std::unique_ptr<SSL, OpenSslDeleter<SSL, SSL_free>>;

  bool WaitForTls(int result, Clock::time_point deadline);

  UniqueFd socket_;
  TlsContext context_;
  TlsPointer tls_;
  bool ended_ = false;
};

}  // namespace support

#endif  // SIGNALCONN_TESTS_SERVER_STREAM_H
