// The switchboard with connections, a clock and ears: what the tests of the rules stand on.
#ifndef SIGNALCONN_TESTS_SWITCHBOARD_BENCH_H
#define SIGNALCONN_TESTS_SWITCHBOARD_BENCH_H

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "switchboard.h"

namespace signalconn::server {

// The accounts are home (secret "house") and work (secret "desk"). The first party to sign in has sid 1000, the
// next 1001.
class SwitchboardBench {
 public:
  SwitchboardBench() : SwitchboardBench(1000) {}
  explicit SwitchboardBench(int firstSid);

  ConnectionId connect();
  // Each signs a new connection in and forgets what it was sent.
  ConnectionId camera(const std::string& serialCode = "SN1", const std::string& permitCode = "");
  ConnectionId viewer(const std::string& name = "");

  void say(ConnectionId from, const std::string& text);
  void sayBinary(ConnectionId from);
  void sayTooMuch(ConnectionId from);
  void pong(ConnectionId from);
  void overflow(ConnectionId connection);
  void hangUpLine(ConnectionId connection);                                                 // the connection ends
  void pass(std::chrono::milliseconds time);                                                // and ticks
  void passSpeaking(std::chrono::seconds time, const std::vector<ConnectionId>& speaking);  // ticks each second

  // What was sent to the connection since the last call.
  std::vector<std::string> heard(ConnectionId connection);
  int pings(ConnectionId connection) { return pings_[connection]; }
  std::optional<int> closeStatus(ConnectionId connection) const;
  bool isDropped(ConnectionId connection) const { return dropped_.count(connection) != 0; }
  bool isOpen(ConnectionId connection) const { return !closeStatus(connection) && !isDropped(connection); }
  // Those sent to the connection as superseding, ever.
  int superseding(ConnectionId connection) { return superseding_[connection]; }
  const std::string& log() const { return log_; }

 private:
  void collect();

  TimePoint now_{};
  Switchboard switchboard_;
  ConnectionId lastConnection_ = 0;
  std::map<ConnectionId, std::vector<std::string>> heard_;
  std::map<ConnectionId, int> pings_, superseding_;
  std::map<ConnectionId, int> closed_;
  std::map<ConnectionId, bool> dropped_;
  std::string log_;
};

// Requests.
std::string cameraSignIn(const std::string& serialCode, const std::string& permitCode = "",
                         const std::string& account = "home", const std::string& secret = "house");
std::string viewerSignIn(const std::string& name, const std::string& account = "home",
                         const std::string& secret = "house");
std::string fromViewer(const std::string& messageType, const std::string& toSerialCode, const std::string& message);
std::string callWithPermit(const std::string& toSerialCode, const std::string& permitCode);
std::string fromCamera(const std::string& messageType, int toSid, const std::string& message);

// What arrives.
std::string peerText(int sid, const std::string& serialCode, const std::string& messageType,
                     const std::string& message);

const std::string kHeartbeat = R"({"opcode":"heartbeat"})";
const std::string kHeartbeatReply = R"({"code":0,"opcode":"heartbeat"})";

// The code of the last of the messages; -1 when there is none.
int lastCode(const std::vector<std::string>& messages);

}  // namespace signalconn::server

#endif  // SIGNALCONN_TESTS_SWITCHBOARD_BENCH_H
