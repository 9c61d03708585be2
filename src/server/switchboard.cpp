#include "switchboard.h"

#include <optional>
#include <utility>

#include "log_text.h"

namespace signalconn::server {

namespace {

constexpr int kLoginTypeCamera = 1;
constexpr int kLoginTypeViewer = 2;
constexpr int kLoggedRefusals = 20;  // of one party: a flood of refused messages must not fill the disk

RequestEcho echoOf(const InboundMessage& message) {
  RequestEcho echo{message.textForEcho("opcode").value_or(""), std::nullopt, std::nullopt};
  if (echo.opcode == "message") {
    echo.messageType = message.textForEcho("messageType");
    echo.toSerialCode = message.textForEcho("toSerialCode");
  }
  return echo;
}

Permit readPermit(const InboundMessage& message) {
  return {message.number("mustPermitCode") != 0, message.text("permitCode", kLongestPermitCode)};
}

}  // namespace

Switchboard::Switchboard(const Configuration& configuration, std::chrono::seconds idleTimeout, int firstSid)
    : accounts_(configuration.accounts),
      iceServers_(configuration.iceServers),
      idleTimeout_(idleTimeout),
      parties_(firstSid),
      exchange_(parties_, outbox_) {}

void Switchboard::connected(ConnectionId connection, const std::string& address, TimePoint now) {
  Party& party = parties_.add(connection);
  party.address = address;
  party.connectedAt = now;
  party.lastArrival = now;
}

void Switchboard::arrived(ConnectionId connection, TimePoint now) {
  Party* party = parties_.find(connection);
  if (party == nullptr) return;
  party->lastArrival = now;
  party->pingedAt.reset();
}

void Switchboard::received(ConnectionId connection, std::string_view text, TimePoint now) {
  arrived(connection, now);
  Party* party = parties_.find(connection);
  if (party == nullptr) return;
  RequestEcho echo;
  try {
    const InboundMessage message(text);
    echo = echoOf(message);
    handle(*party, message.text("opcode"), message);
  } catch (const Refusal& refusal) {
    refuse(*party, refusal, echo, now);
  }
}

void Switchboard::receivedBinary(ConnectionId connection, TimePoint now) {
  arrived(connection, now);
  Party* party = parties_.find(connection);
  if (party != nullptr) refuse(*party, Refusal(kMalformed, "a binary message"), {}, now);
}

void Switchboard::receivedTooMuch(ConnectionId connection, TimePoint now) {
  Party* party = parties_.find(connection);
  if (party != nullptr) refuse(*party, Refusal(kTooLong, "the message is too long"), {}, now);
}

void Switchboard::overflowed(ConnectionId connection, TimePoint now) {
  const Party* party = parties_.find(connection);
  if (party != nullptr) drop(*party, "it reads too slowly", now);
}

void Switchboard::closed(ConnectionId connection, TimePoint now) {
  const Party* party = parties_.find(connection);
  if (party != nullptr) forget(*party, now);
}

void Switchboard::tick(TimePoint now) {
  for (const ConnectionId connection : parties_.connections()) {
    Party* party = parties_.find(connection);
    if (party != nullptr) checkTimes(*party, now);
  }
  exchange_.endCallsOfLostCameras(now);
}

void Switchboard::checkTimes(Party& party, TimePoint now) {
  const auto silence = now - party.lastArrival;
  const auto half = std::chrono::duration_cast<TimePoint::duration>(idleTimeout_) / 2;
  // A server that stood still itself must not take that for the silence of others: whoever is dropped had half
  // of the time to answer a ping.
  if (party.pingedAt && now - *party.pingedAt >= half && silence >= idleTimeout_) {
    drop(party, "nothing was heard of it for " + std::to_string(idleTimeout_.count()) + " s", now);
  } else if (party.role == Role::kNone && now - party.connectedAt >= kSignInTime) {
    refuse(party, Refusal(kSignInTooLate, "no sign-in within 10 s"), {}, now);
  } else if (silence >= half && !party.pingedAt) {
    party.pingedAt = now;
    outbox_.ping(party.connection);
  }
}

void Switchboard::handle(Party& party, const std::string& opcode, const InboundMessage& message) {
  if (opcode == "heartbeat") {
    outbox_.send(party.connection, heartbeatReply());
  } else if (opcode == "signin") {
    signIn(party, message);
  } else if (opcode == "message") {
    relay(party, message);
  } else if (opcode == "permitCode") {
    changePermit(party, message);
  } else {
    throw Refusal(kMalformed, "unknown opcode");
  }
}

void Switchboard::signIn(Party& party, const InboundMessage& message) {
  if (party.role != Role::kNone) throw Refusal(kOutOfTurn, "signed in already");
  const int loginType = message.number("loginType");
  if (loginType == kLoginTypeCamera) return signInCamera(party, message, requireAccount(message));
  if (loginType == kLoginTypeViewer) return signInViewer(party, message, requireAccount(message));
  throw Refusal(kMalformed, "\"loginType\" is neither 1 nor 2");
}

AccountId Switchboard::requireAccount(const InboundMessage& message) const {
  const std::optional<AccountId> account = accounts_.find(message.text("key"), message.text("secret"));
  if (!account) throw Refusal(kSignInRefused, "unknown key or wrong secret");
  return *account;
}

void Switchboard::signInCamera(Party& party, const InboundMessage& message, AccountId account) {
  static_cast<void>(message.number("authType"));
  static_cast<void>(message.text("authCode"));
  static_cast<void>(message.text("mac"));
  std::string serialCode = message.text("serialCode");
  if (serialCode.empty()) throw Refusal(kMalformed, "\"serialCode\" is empty");
  requireSerialCode(serialCode);
  Permit permit = readPermit(message);
  party.serialCode = std::move(serialCode);
  welcome(party, Role::kCamera, account);
  exchange_.cameraSignedIn(party, std::move(permit));
}

void Switchboard::signInViewer(Party& party, const InboundMessage& message, AccountId account) {
  std::string name = message.optionalText("serialCode").value_or("");
  requireSerialCode(name);
  party.serialCode = std::move(name);
  welcome(party, Role::kViewer, account);
  exchange_.viewerSignedIn(party);
}

void Switchboard::welcome(Party& party, Role role, AccountId account) {
  party.role = role;
  party.account = account;
  parties_.assignSid(party);
  if (party.serialCode.empty()) party.serialCode = "viewer-" + std::to_string(party.sid);
  outbox_.log(party.description() + " signed in to account " + inQuotes(accounts_.keyOf(account)) + " from " +
              party.address);
  outbox_.send(party.connection, signInResponse(party.sid, iceServers_));
}

void Switchboard::relay(const Party& party, const InboundMessage& message) {
  if (party.role == Role::kNone) throw Refusal(kOutOfTurn, "not signed in yet");
  if (party.role == Role::kCamera) return exchange_.relayFromCamera(party, message);
  exchange_.relayFromViewer(party, message);
}

void Switchboard::changePermit(const Party& party, const InboundMessage& message) {
  if (party.role == Role::kNone) throw Refusal(kOutOfTurn, "not signed in yet");
  if (party.role != Role::kCamera) throw Refusal(kOutOfTurn, "only a camera has a permit code");
  exchange_.changePermit(party, readPermit(message));
}

void Switchboard::refuse(Party& party, const Refusal& refusal, const RequestEcho& request, TimePoint now) {
  logRefusal(party, refusal);
  outbox_.send(party.connection, errorMessage(refusal, request));
  const int code = refusal.code();
  if (code == kMalformed || code == kOutOfTurn) ++party.faults;
  if (code == kPermitRefused) ++party.wrongPermits;
  const bool isRefusedSignIn = party.role == Role::kNone && request.opcode == "signin";
  if (code == kTooLong) {
    close(party, kCloseTooBig, refusal.what(), now);
  } else if (isRefusedSignIn || code == kSignInTooLate) {
    close(party, kClosePolicyViolation, refusal.what(), now);
  } else if (party.faults >= kFaultsUntilClose || party.wrongPermits >= kWrongPermitsUntilClose) {
    close(party, kClosePolicyViolation, "too many refused messages", now);
  }
}

void Switchboard::logRefusal(Party& party, const Refusal& refusal) {
  if (party.refusals == kLoggedRefusals) return;
  outbox_.log("refused " + party.description() + ": " + std::to_string(refusal.code()) + " " + refusal.what());
  if (++party.refusals == kLoggedRefusals) {
    outbox_.log("further refusals of " + party.description() + " are not logged");
  }
}

void Switchboard::close(const Party& party, std::uint16_t status, const std::string& reason, TimePoint now) {
  outbox_.close(party.connection, status, reason);
  forget(party, now);
}

void Switchboard::drop(const Party& party, const std::string& reason, TimePoint now) {
  outbox_.log("dropped " + party.description() + ": " + reason);
  outbox_.drop(party.connection);
  forget(party, now);
}

void Switchboard::forget(const Party& party, TimePoint now) {
  exchange_.left(party, now);
  parties_.remove(party);
}

}  // namespace signalconn::server
