// What the signalling core wants done, in order. The core does no I/O of its own.
#ifndef SIGNALCONN_SERVER_OUTBOX_H
#define SIGNALCONN_SERVER_OUTBOX_H

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace signalconn::server {

using ConnectionId = std::uint64_t;  // one WebSocket connection; never used again

struct SendText {
  ConnectionId to;
  std::shared_ptr<const std::string> text;  // shared by all who are sent the same
  bool supersedes;                          // makes an earlier text with this mark, if still unsent, worthless
};

struct SendPing {
  ConnectionId to;
};

// What was sent before still goes out, then a close frame. Nothing that arrives later counts.
struct CloseConnection {
  ConnectionId connection;
  std::uint16_t status;
  std::string reason;  // at most 123 bytes
};

struct DropConnection {  // at once, without a close frame
  ConnectionId connection;
};

struct LogLine {
  std::string text;  // printable, without a line break
};

using Action = std::variant<SendText, SendPing, CloseConnection, DropConnection, LogLine>;

class Outbox {
 public:
  void send(ConnectionId to, std::string text) {
    actions_.push_back(SendText{to, std::make_shared<const std::string>(std::move(text)), false});
  }
  void sendLatest(ConnectionId to, std::shared_ptr<const std::string> text) {
    actions_.push_back(SendText{to, std::move(text), true});
  }
  void ping(ConnectionId to) { actions_.push_back(SendPing{to}); }
  void close(ConnectionId connection, std::uint16_t status, std::string reason) {
    actions_.push_back(CloseConnection{connection, status, std::move(reason)});
  }
  void drop(ConnectionId connection) { actions_.push_back(DropConnection{connection}); }
  void log(std::string text) { actions_.push_back(LogLine{std::move(text)}); }

  std::vector<Action> take() { return std::exchange(actions_, {}); }

 private:
  std::vector<Action> actions_;
};

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_OUTBOX_H
