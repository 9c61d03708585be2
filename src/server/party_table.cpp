#include "party_table.h"

#include <limits>

#include "log_text.h"

namespace signalconn::server {

std::string Party::description() const {
  if (role == Role::kNone) return "the party at " + address;
  return (role == Role::kCamera ? "camera " : "viewer ") + inQuotes(serialCode) + " (sid " + std::to_string(sid) + ")";
}

Party& PartyTable::add(ConnectionId connection) {
  Party& party = parties_[connection];
  party.connection = connection;
  return party;
}

Party* PartyTable::find(ConnectionId connection) {
  const auto entry = parties_.find(connection);
  return entry == parties_.end() ? nullptr : &entry->second;
}

Party& PartyTable::bySid(int sid) { return parties_.at(bySid_.at(sid)); }

void PartyTable::assignSid(Party& party) {
  // After the highest number the count starts at 1, where a long-lived party may still hold its number.
  do {
    party.sid = nextSid_;
    nextSid_ = nextSid_ == std::numeric_limits<int>::max() ? 1 : nextSid_ + 1;
  } while (bySid_.count(party.sid) != 0);
  bySid_[party.sid] = party.connection;
}

void PartyTable::remove(const Party& party) {
  bySid_.erase(party.sid);
  parties_.erase(party.connection);
}

std::vector<ConnectionId> PartyTable::connections() const {
  std::vector<ConnectionId> connections;
  for (const auto& [connection, party] : parties_) connections.push_back(connection);
  return connections;
}

std::vector<ConnectionId> PartyTable::viewersOf(AccountId account) const {
  std::vector<ConnectionId> viewers;
  for (const auto& [connection, party] : parties_) {
    if (party.role == Role::kViewer && party.account == account) viewers.push_back(connection);
  }
  return viewers;
}

}  // namespace signalconn::server
