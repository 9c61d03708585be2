#include "server_connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "protocol.h"

namespace signalconn::server {

ServerConnection::Inbound ServerConnection::take(std::string_view piece, bool isFinal, bool isBinary) {
  if (inbound_.size() + piece.size() > kLongestMessage) {
    inbound_ = std::string();
    return Inbound::kOversized;
  }
  inbound_ += piece;
  if (!isFinal) return Inbound::kPartial;
  if (!isBinary) return Inbound::kText;
  inbound_ = std::string();
  return Inbound::kBinary;
}

std::string ServerConnection::takeMessage() { return std::exchange(inbound_, {}); }

bool ServerConnection::send(const SendText& message) {
  if (message.supersedes) {
    const auto earlier =
        std::find_if(waiting_.begin(), waiting_.end(), [](const Waiting& text) { return text.isReplaceable; });
    if (earlier != waiting_.end()) {
      waitingBytes_ -= earlier->text->size();
      waiting_.erase(earlier);
    }
  }
  waiting_.push_back({message.text, message.supersedes});
  waitingBytes_ += message.text->size();
  lws_callback_on_writable(wsi_);
  return waitingBytes_ <= kMostWaitingBytes;
}

void ServerConnection::ping() {
  pingDue_ = true;
  lws_callback_on_writable(wsi_);
}

void ServerConnection::close(std::uint16_t status, const std::string& reason, TimePoint deadline) {
  isEnding_ = true;
  closeFrame_ = CloseFrame{status, reason};
  deadline_ = deadline;
  lws_callback_on_writable(wsi_);
}

void ServerConnection::drop() {
  isEnding_ = true;
  deadline_ = TimePoint::max();
  waiting_.clear();
  closeFrame_.reset();
  // Not by way of libwebsockets, which would go on writing to a peer that does not read.
  shutdown(lws_get_socket_fd(wsi_), SHUT_RDWR);
}

bool ServerConnection::write() {
  if (pingDue_) {
    pingDue_ = false;
    // Not empty: libwebsockets does not report the empty pong that would answer an empty ping.
    std::array<unsigned char, LWS_PRE + 1> frame{};
    if (!waiting_.empty() || closeFrame_) lws_callback_on_writable(wsi_);
    return lws_write(wsi_, frame.data() + LWS_PRE, 1, LWS_WRITE_PING) >= 0;
  }
  if (!waiting_.empty()) return writeNextText();
  if (!closeFrame_) return true;
  std::string& reason = closeFrame_->reason;
  lws_close_reason(wsi_, static_cast<lws_close_status>(closeFrame_->status),
                   reinterpret_cast<unsigned char*>(reason.data()), reason.size());
  return false;
}

bool ServerConnection::writeNextText() {
  const std::shared_ptr<const std::string> text = std::move(waiting_.front().text);
  waiting_.pop_front();
  waitingBytes_ -= text->size();
  if (!waiting_.empty() || closeFrame_) lws_callback_on_writable(wsi_);
  // libwebsockets writes the frame's header into the room before the payload.
  std::vector<unsigned char> frame(LWS_PRE + text->size());
  std::copy(text->begin(), text->end(), frame.begin() + LWS_PRE);
  return lws_write(wsi_, frame.data() + LWS_PRE, text->size(), LWS_WRITE_TEXT) >= 0;
}

}  // namespace signalconn::server
