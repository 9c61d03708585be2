// A signalling server that does what the test says, mistakes included. Nothing happens by itself: it accepts,
// reads and answers when the test calls, and a connection that the test leaves alone is a frozen one.
#ifndef SIGNALCONN_TESTS_SCRIPTED_SERVER_H
#define SIGNALCONN_TESTS_SCRIPTED_SERVER_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "server_stream.h"
#include "websocket_frames.h"

namespace support {

const std::chrono::seconds kPatience{30};  // for what must happen, on a busy machine

// One accepted connection. One thread at a time.
class ServerConnection {
 public:
  explicit ServerConnection(ServerStream stream) : stream_(std::move(stream)) {}

  // Reads the client's request, after the TLS handshake where there is TLS. Empty when none came.
  std::optional<HandshakeRequest> ReadHandshake(std::chrono::milliseconds within = kPatience);
  // Reads the client's request and opens the WebSocket. Returns whether it did.
  bool OpenWebSocket(std::chrono::milliseconds within = kPatience);

  // Each returns whether everything went into the socket.
  bool SendBytes(const std::string& bytes, std::chrono::milliseconds within = kPatience);
  bool SendFrame(const Frame& frame) { return SendBytes(EncodeFrame(frame)); }
  bool SendText(const std::string& text) { return SendFrame({kText, true, 0, false, text}); }
  bool SendClose(int code) { return SendFrame({kClose, true, 0, false, ClosePayload(code)}); }

  // The next frame of any kind. Empty when none came in time or the connection ended.
  std::optional<Frame> ReceiveFrame(std::chrono::milliseconds within = kPatience);
  // The next text message. Answers pings on the way unless told not to, and passes over other control frames.
  std::optional<std::string> ReceiveText(std::chrono::milliseconds within = kPatience);
  void AnswerPings(bool answer) { answerPings_ = answer; }
  int Pings() const { return pings_; }
  // Passes over what comes until the client closes its end, answering pings and closes. Returns whether it did.
  bool WaitForEnd(std::chrono::milliseconds within = kPatience);
  // As WaitForEnd, without reading or writing anything.
  bool WaitForEndFrozen(std::chrono::milliseconds within = kPatience) const;
  // The code of the client's close frame, once one was read.
  std::optional<int> CloseCodeReceived() const { return closeCode_; }

  bool Ended() const { return stream_.Ended(); }
  void Close() { stream_.Close(); }
  void Reset() { stream_.Reset(); }
  int Fd() const { return stream_.Fd(); }

 private:
  ServerStream stream_;
  FrameReader reader_;
  std::string text_;
  bool answerPings_ = true;
  int pings_ = 0;
  std::optional<int> closeCode_;
};

struct ServerOptions {
  std::string address = "127.0.0.1";  // or another of the loopback's, or ::1
  int port = 0;                       // 0: the kernel chooses
  bool listening = true;              // false: connections are refused until Listen
  TlsContext tls;
};

class ScriptedServer {
 public:
  explicit ScriptedServer(const ServerOptions& options = {});

  int Port() const { return port_; }
  const std::string& Address() const { return options_.address; }
  // Connections are completed by the kernel from here on, accepted by Accept.
  void Listen();
  // Connections are refused from here on. Those not yet accepted are reset.
  void Refuse();
  // Connections are neither completed nor refused from here on, as with a host that is gone.
  void Vanish();
  // Null when none came in time.
  std::unique_ptr<ServerConnection> Accept(std::chrono::milliseconds within = kPatience);
  // Accepts and opens the WebSocket. Null when either failed.
  std::unique_ptr<ServerConnection> AcceptWebSocket(std::chrono::milliseconds within = kPatience);
  int Accepted() const { return accepted_; }
  int Fd() const { return socket_.get(); }

 private:
  void Bind(int port);

  ServerOptions options_;
  int port_ = 0;
  UniqueFd socket_;
  std::vector<UniqueFd> fillers_;
  int accepted_ = 0;
};

}  // namespace support

#endif  // SIGNALCONN_TESTS_SCRIPTED_SERVER_H
