#ifndef SIGNALCONN_SERVER_SERVER_CONNECTION_H
#define SIGNALCONN_SERVER_SERVER_CONNECTION_H

#include <libwebsockets.h>

#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "outbox.h"
#include "time_point.h"

namespace signalconn::server {

// One WebSocket: puts inbound messages together and keeps what waits to be written. Service thread only.
class ServerConnection {
 public:
  // wsi outlives this object.
  ServerConnection(ConnectionId id, lws* wsi) : id_(id), wsi_(wsi) {}

  ConnectionId id() const { return id_; }

  enum class Inbound { kPartial, kText, kBinary, kOversized };
  Inbound take(std::string_view piece, bool isFinal, bool isBinary);
  std::string takeMessage();  // after kText

  // Each asks for a chance to write; write() then does one write. False from send: more than
  // kMostWaitingBytes wait now.
  bool send(const SendText& message);
  void ping();
  // Once all that waits is written. The caller drops a connection that is still there at the deadline: its peer
  // does not read.
  void close(std::uint16_t status, const std::string& reason, TimePoint deadline);
  void drop();
  bool write();  // false: end the connection

  bool isEnding() const { return isEnding_; }
  bool isOverdue(TimePoint now) const { return isEnding_ && now >= deadline_; }

 private:
  struct Waiting {
    std::shared_ptr<const std::string> text;
    bool isReplaceable;  // by a later text that supersedes
  };
  struct CloseFrame {
    std::uint16_t status;
    std::string reason;
  };

  bool writeNextText();

  const ConnectionId id_;
  lws* const wsi_;
  std::string inbound_;
  std::deque<Waiting> waiting_;
  std::size_t waitingBytes_ = 0;
  bool pingDue_ = false;
  bool isEnding_ = false;  // nothing more is read or queued
  std::optional<CloseFrame> closeFrame_;
  TimePoint deadline_ = TimePoint::max();
};

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_SERVER_CONNECTION_H
