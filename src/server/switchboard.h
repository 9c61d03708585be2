// The signalling server without its sockets: events in, actions out, the time with every event.
// docs/protocol.md tells the rules.
#ifndef SIGNALCONN_SERVER_SWITCHBOARD_H
#define SIGNALCONN_SERVER_SWITCHBOARD_H

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "accounts.h"
#include "configuration.h"
#include "exchange.h"
#include "inbound_message.h"
#include "outbox.h"
#include "party_table.h"
#include "protocol.h"
#include "refusal.h"
#include "time_point.h"

namespace signalconn::server {

// One thread. Events of a connection that is not known, or that the switchboard has closed or dropped, are
// ignored; after each event the caller carries out takeActions().
class Switchboard {
 public:
  // firstSid, positive: where the numbering of the parties starts.
  Switchboard(const Configuration& configuration, std::chrono::seconds idleTimeout, int firstSid);

  void connected(ConnectionId connection, const std::string& address, TimePoint now);
  void arrived(ConnectionId connection, TimePoint now);  // anything at all, a part of a message included
  void received(ConnectionId connection, std::string_view text, TimePoint now);  // a whole text message
  void receivedBinary(ConnectionId connection, TimePoint now);
  void receivedTooMuch(ConnectionId connection, TimePoint now);  // a message beyond kLongestMessage
  void overflowed(ConnectionId connection, TimePoint now);       // more than kMostWaitingBytes wait for it
  void closed(ConnectionId connection, TimePoint now);
  void tick(TimePoint now);  // once a second or so

  std::vector<Action> takeActions() { return outbox_.take(); }

 private:
  void handle(Party& party, const std::string& opcode, const InboundMessage& message);
  void signIn(Party& party, const InboundMessage& message);
  void signInCamera(Party& party, const InboundMessage& message, AccountId account);
  void signInViewer(Party& party, const InboundMessage& message, AccountId account);
  AccountId requireAccount(const InboundMessage& message) const;
  void welcome(Party& party, Role role, AccountId account);
  void relay(const Party& party, const InboundMessage& message);
  void changePermit(const Party& party, const InboundMessage& message);

  void refuse(Party& party, const Refusal& refusal, const RequestEcho& request, TimePoint now);
  void logRefusal(Party& party, const Refusal& refusal);
  void close(const Party& party, std::uint16_t status, const std::string& reason, TimePoint now);
  void drop(const Party& party, const std::string& reason, TimePoint now);
  void forget(const Party& party, TimePoint now);
  void checkTimes(Party& party, TimePoint now);

  const Accounts accounts_;
  const IceServers iceServers_;
  const std::chrono::seconds idleTimeout_;
  Outbox outbox_;
  PartyTable parties_;
  Exchange exchange_;
};

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_SWITCHBOARD_H
