// Events of several connections for the switchboard, and what must hold of all that it answers. The input is
// lines, the first character of each a connection, the second what happens on it:
//   0+         it opens          0-  it ends          0b  a binary message      0l  a message that is too long
//   0o         its queue is full 0a  a sign of life   0<text>  any other text is a message
//   *<number>  that many milliseconds pass
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <variant>

#include "json.h"
#include "switchboard.h"
#include "utf8.h"

namespace {

using namespace signalconn::server;

void require(bool holds) {
  if (!holds) std::abort();
}

Configuration configuration() {
  return {{{"demo", "secret-of-demo"}, {"home", "secret-of-home"}}, {{"stun:s"}, {"turn:t"}, {"u"}, {"p"}}};
}

std::string textUnder(const cJSON& object, const char* key) {
  const cJSON* item = jsonMember(object, key);
  require(cJSON_IsString(item));
  return item->valuestring;
}

int numberUnder(const cJSON& object, const char* key) {
  const auto number = jsonInteger(jsonMember(object, key));
  require(number.has_value());
  return *number;
}

// Cameras end themselves over a message that lacks what they expect.
void requireWhatCamerasExpect(const cJSON& message) {
  require(numberUnder(message, "sid") > 0);
  textUnder(message, "serialCode");
  const std::string type = textUnder(message, "messageType");
  const std::string payload = textUnder(message, "message");
  if (type == "switchAudio" || type == "switchVideo") {
    const Json object(cJSON_Parse(payload.c_str()));
    require(object != nullptr);
    numberUnder(*object, "type");
  }
}

void requireWellFormed(const std::string& text) {
  require(isUtf8(text));
  const Json message = parseJsonObject(text);
  require(message != nullptr);
  const int code = numberUnder(*message, "code");
  const std::string opcode = textUnder(*message, "opcode");
  if (code != 0) {
    textUnder(*message, "message");
  } else if (opcode == "message") {
    requireWhatCamerasExpect(*message);
  } else if (opcode == "signin") {
    require(numberUnder(*message, "sid") > 0);
    for (const char* key : {"stunAddr", "turnAddr", "turnUser", "turnPass"}) {
      require(cJSON_IsArray(jsonMember(*message, key)));
    }
  } else {
    require(opcode == "heartbeat" || opcode == "cameras");
  }
}

void requirePrintable(const std::string& line) {
  for (const char c : line) require(c >= ' ' && c <= '~');
}

class Play {
 public:
  void line(std::string_view text) {
    if (text.size() < 2) return;
    if (text[0] == '*') {
      now_ += std::chrono::milliseconds(std::strtoul(std::string(text.substr(1, 6)).c_str(), nullptr, 10));
      switchboard_.tick(now_);
    } else {
      happen(text[0], text.substr(1));
    }
    check();
  }

 private:
  void happen(char name, std::string_view what) {
    const ConnectionId id = connections_[name];
    if (what == "+") {
      connections_[name] = ++lastId_;
      open_.insert(lastId_);
      switchboard_.connected(lastId_, "192.0.2.1", now_);
      if (id != 0) end(id);
    } else if (what == "-") {
      end(id);
    } else if (what == "b") {
      switchboard_.receivedBinary(id, now_);
    } else if (what == "l") {
      switchboard_.receivedTooMuch(id, now_);
    } else if (what == "o") {
      switchboard_.overflowed(id, now_);
    } else if (what == "a") {
      switchboard_.arrived(id, now_);
    } else {
      switchboard_.received(id, what, now_);
    }
  }

  void end(ConnectionId id) {
    open_.erase(id);
    switchboard_.closed(id, now_);
  }

  void check() {
    for (const Action& action : switchboard_.takeActions()) {
      if (const auto* message = std::get_if<SendText>(&action)) {
        require(open_.count(message->to) != 0);
        requireWellFormed(*message->text);
      } else if (const auto* ping = std::get_if<SendPing>(&action)) {
        require(open_.count(ping->to) != 0);
      } else if (const auto* close = std::get_if<CloseConnection>(&action)) {
        require(open_.erase(close->connection) != 0);
        require(close->reason.size() <= 123);
      } else if (const auto* drop = std::get_if<DropConnection>(&action)) {
        require(open_.erase(drop->connection) != 0);
      } else if (const auto* log = std::get_if<LogLine>(&action)) {
        requirePrintable(log->text);
      }
    }
  }

  TimePoint now_{};
  Switchboard switchboard_{configuration(), kIdleTimeout, 1};
  ConnectionId lastId_ = 0;
  std::map<char, ConnectionId> connections_;
  std::set<ConnectionId> open_;  // neither ended nor closed by the switchboard
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Play play;
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  while (!rest.empty()) {
    const std::size_t end = rest.find('\n');
    play.line(rest.substr(0, end));
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  }
  return 0;
}
