// A WebSocket client on a bare socket, for what a well-behaved one would never send. Pings are answered while
// the test waits for something, unless it says otherwise; nothing else happens by itself.
#ifndef SIGNALCONN_TESTS_WEBSOCKET_CLIENT_H
#define SIGNALCONN_TESTS_WEBSOCKET_CLIENT_H

#include <chrono>
#include <optional>
#include <string>

#include "server_stream.h"
#include "websocket_frames.h"

namespace support {

// One thread at a time.
class WebSocketClient {
 public:
  // Connects to 127.0.0.1:port and asks for a WebSocket. headers: further lines, each with its line break.
  explicit WebSocketClient(int port, const std::string& path = "/", const std::string& headers = "");

  // The server's answer to the handshake, as far as the empty line; empty when it closed the connection.
  const std::string& Response() const { return response_; }
  bool IsOpen() const;

  // Each returns whether everything went into the socket. Frames are masked with a mask of their own.
  bool SendText(const std::string& text) { return SendFrame({kText, true, 0, true, text}); }
  bool SendFrame(Frame frame);
  bool SendBytes(const std::string& bytes);

  // The next frame of any kind. Empty when none came in time or the connection ended.
  std::optional<Frame> ReceiveFrame(std::chrono::milliseconds within = std::chrono::seconds(30));
  // The next text message; control frames are passed over.
  std::optional<std::string> ReceiveText(std::chrono::milliseconds within = std::chrono::seconds(30));
  // Passes over what comes until the server closes, and answers its close frame. The code of its close frame, 0 when it
  // sent none; empty when it did not close in time.
  std::optional<int> WaitForClose(std::chrono::milliseconds within = std::chrono::seconds(30));
  void AnswerPings(bool answer) { answerPings_ = answer; }
  int Pings() const { return pings_; }

  void Reset() { stream_.Reset(); }

 private:
  void ReadResponse();

  ServerStream stream_;
  FrameReader reader_;
  std::string response_;
  bool answerPings_ = true;
  int pings_ = 0;
};

// Sends request, a whole HTTP request, to 127.0.0.1:port and returns everything that comes until the server
// closes.
std::string HttpExchange(int port, const std::string& request);

}  // namespace support

#endif  // SIGNALCONN_TESTS_WEBSOCKET_CLIENT_H
