// The connections, and who is at the other end of each.
#ifndef SIGNALCONN_SERVER_PARTY_TABLE_H
#define SIGNALCONN_SERVER_PARTY_TABLE_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "accounts.h"
#include "call_table.h"
#include "outbox.h"
#include "time_point.h"

namespace signalconn::server {

enum class Role { kNone, kCamera, kViewer };  // kNone: not signed in

struct Party {
  ConnectionId connection = 0;
  std::string address;
  TimePoint connectedAt{}, lastArrival{};
  std::optional<TimePoint> pingedAt;  // since the last arrival

  Role role = Role::kNone;
  int sid = 0;
  AccountId account = 0;
  std::string serialCode;

  int faults = 0, wrongPermits = 0, refusals = 0;

  CameraName cameraName() const { return {account, serialCode}; }
  std::string description() const;  // for log lines
};

class PartyTable {
 public:
  explicit PartyTable(int firstSid) : nextSid_(firstSid) {}  // firstSid is positive

  // References and pointers are valid until the party is removed.
  Party& add(ConnectionId connection);
  Party* find(ConnectionId connection);  // null when not known
  Party& bySid(int sid);                 // of a party that is signed in
  void assignSid(Party& party);
  void remove(const Party& party);

  std::vector<ConnectionId> connections() const;
  std::vector<ConnectionId> viewersOf(AccountId account) const;

 private:
  std::map<ConnectionId, Party> parties_;
  std::map<int, ConnectionId> bySid_;
  int nextSid_;
};

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_PARTY_TABLE_H
