#include "switchboard_bench.h"

#include <utility>
#include <variant>

#include "json.h"

namespace signalconn::server {

namespace {

Configuration twoAccounts() {
  IceServers ice{
      {"stun:s.example:3478"}, {"turn:a.example:3478", "turns:b.example:5349"}, {"anna", "bert"}, {"alpha", "beta"}};
  return {{{"home", "house"}, {"work", "desk"}}, ice};
}

}  // namespace

SwitchboardBench::SwitchboardBench(int firstSid) : switchboard_(twoAccounts(), kIdleTimeout, firstSid) {}

ConnectionId SwitchboardBench::connect() {
  const ConnectionId connection = ++lastConnection_;
  switchboard_.connected(connection, "192.0.2.1", now_);
  return connection;
}

ConnectionId SwitchboardBench::camera(const std::string& serialCode, const std::string& permitCode) {
  const ConnectionId connection = connect();
  say(connection, cameraSignIn(serialCode, permitCode));
  heard(connection);
  return connection;
}

ConnectionId SwitchboardBench::viewer(const std::string& name) {
  const ConnectionId connection = connect();
  say(connection, viewerSignIn(name));
  heard(connection);
  return connection;
}

void SwitchboardBench::say(ConnectionId from, const std::string& text) {
  switchboard_.received(from, text, now_);
  collect();
}

void SwitchboardBench::sayBinary(ConnectionId from) {
  switchboard_.receivedBinary(from, now_);
  collect();
}

void SwitchboardBench::sayTooMuch(ConnectionId from) {
  switchboard_.receivedTooMuch(from, now_);
  collect();
}

void SwitchboardBench::pong(ConnectionId from) {
  switchboard_.arrived(from, now_);
  collect();
}

void SwitchboardBench::overflow(ConnectionId connection) {
  switchboard_.overflowed(connection, now_);
  collect();
}

void SwitchboardBench::hangUpLine(ConnectionId connection) {
  switchboard_.closed(connection, now_);
  collect();
}

void SwitchboardBench::pass(std::chrono::milliseconds time) {
  now_ += time;
  switchboard_.tick(now_);
  collect();
}

void SwitchboardBench::passSpeaking(std::chrono::seconds time, const std::vector<ConnectionId>& speaking) {
  for (; time.count() > 0; --time) {
    pass(std::chrono::seconds(1));
    for (const ConnectionId connection : speaking) pong(connection);
  }
}

std::vector<std::string> SwitchboardBench::heard(ConnectionId connection) {
  return std::exchange(heard_[connection], {});
}

std::optional<int> SwitchboardBench::closeStatus(ConnectionId connection) const {
  const auto status = closed_.find(connection);
  return status == closed_.end() ? std::nullopt : std::optional<int>(status->second);
}

void SwitchboardBench::collect() {
  for (const Action& action : switchboard_.takeActions()) {
    if (const auto* message = std::get_if<SendText>(&action)) {
      heard_[message->to].push_back(*message->text);
      if (message->supersedes) ++superseding_[message->to];
    } else if (const auto* ping = std::get_if<SendPing>(&action)) {
      ++pings_[ping->to];
    } else if (const auto* close = std::get_if<CloseConnection>(&action)) {
      closed_[close->connection] = close->status;
    } else if (const auto* drop = std::get_if<DropConnection>(&action)) {
      dropped_[drop->connection] = true;
    } else if (const auto* line = std::get_if<LogLine>(&action)) {
      log_ += line->text + "\n";
    }
  }
}

std::string cameraSignIn(const std::string& serialCode, const std::string& permitCode, const std::string& account,
                         const std::string& secret) {
  return R"({"opcode":"signin","key":")" + account + R"(","secret":")" + secret +
         R"(","loginType":1,"authType":2,"authCode":"a","serialCode":")" + serialCode +
         R"(","mac":"00:11","mustPermitCode":)" + (permitCode.empty() ? "0" : "1") + R"(,"permitCode":")" + permitCode +
         R"("})";
}

std::string viewerSignIn(const std::string& name, const std::string& account, const std::string& secret) {
  return R"({"opcode":"signin","key":")" + account + R"(","secret":")" + secret + R"(","loginType":2,"serialCode":")" +
         name + R"("})";
}

std::string fromViewer(const std::string& messageType, const std::string& toSerialCode, const std::string& message) {
  return R"({"opcode":"message","messageType":")" + messageType + R"(","toSerialCode":")" + toSerialCode +
         R"(","message":")" + message + R"("})";
}

std::string callWithPermit(const std::string& toSerialCode, const std::string& permitCode) {
  return R"({"opcode":"message","messageType":"callRequest","toSerialCode":")" + toSerialCode + R"(","permitCode":")" +
         permitCode + R"(","message":"offer"})";
}

std::string fromCamera(const std::string& messageType, int toSid, const std::string& message) {
  return R"({"opcode":"message","messageType":")" + messageType + R"(","sid":77,"serialCode":"forged","toSid":)" +
         std::to_string(toSid) + R"(,"toSerialCode":"","message":")" + message + R"("})";
}

std::string peerText(int sid, const std::string& serialCode, const std::string& messageType,
                     const std::string& message) {
  return R"({"code":0,"opcode":"message","sid":)" + std::to_string(sid) + R"(,"serialCode":")" + serialCode +
         R"(","messageType":")" + messageType + R"(","message":")" + message + R"("})";
}

int lastCode(const std::vector<std::string>& messages) {
  if (messages.empty()) return -1;
  const Json message = parseJsonObject(messages.back());
  return jsonInteger(jsonMember(*message, "code")).value();
}

}  // namespace signalconn::server
