#include "exchange.h"

#include <memory>
#include <set>
#include <utility>

#include "accounts.h"
#include "json.h"
#include "log_text.h"
#include "outbound_message.h"
#include "protocol.h"
#include "refusal.h"

namespace signalconn::server {

namespace {

bool isSwitch(const std::string& messageType) { return messageType == "switchAudio" || messageType == "switchVideo"; }

void requireViewersMessageType(const std::string& messageType) {
  static const std::set<std::string> kKnown{"callRequest", "remoteCandidate", "hangup", "switchAudio", "switchVideo"};
  if (kKnown.count(messageType) == 0) throw Refusal(kMalformed, "unknown message type");
}

void requireCamerasMessageType(const std::string& messageType) {
  if (messageType != "callResponse" && messageType != "remoteCandidate") {
    throw Refusal(kMalformed, "unknown message type");
  }
}

// A camera takes the payload for granted: what it could not read must not reach it.
void requireSwitchPayload(const std::string& payload) {
  const Json object = parseJsonObject(payload);
  if (!object || !jsonInteger(jsonMember(*object, "type"))) {
    throw Refusal(kMalformed, R"("message" is not the JSON text of an object with the number "type")");
  }
}

[[noreturn]] void refuseUnreachableCamera() { throw Refusal(kNotReachable, "the camera is offline"); }

}  // namespace

void Exchange::cameraSignedIn(Party& party, Permit permit) {
  const CameraName name = party.cameraName();
  Camera& camera = cameras_.findOrAdd(name);
  const bool listChanges = !camera.connection || camera.permit.must != permit.must;
  if (camera.connection) {
    const Party& former = *parties_.find(*camera.connection);
    outbox_.log(former.description() + " is replaced by " + party.description());
    outbox_.close(former.connection, kClosePolicyViolation, "the camera signed in anew");
    parties_.remove(former);
  }
  camera.connection = party.connection;
  camera.sid = party.sid;
  camera.permit = std::move(permit);
  for (const auto& [sid, serialCode] : std::exchange(camera.owedHangups, {})) {
    outbox_.send(party.connection, peerMessage(sid, serialCode, "hangup", ""));
  }
  if (listChanges) tellViewers(party.account);
}

void Exchange::viewerSignedIn(const Party& viewer) {
  outbox_.send(viewer.connection, cameraList(cameras_.online(viewer.account)));
}

void Exchange::left(const Party& party, TimePoint now) {
  if (party.role == Role::kViewer) viewerLeft(party);
  if (party.role == Role::kCamera) cameraLeft(party, now);
}

void Exchange::viewerLeft(const Party& viewer) {
  outbox_.log(viewer.description() + " left");
  for (const CameraName& name : calls_.removeAll(viewer.sid)) sendHangup(viewer, name, "");
}

void Exchange::cameraLeft(const Party& party, TimePoint now) {
  outbox_.log(party.description() + " is offline");
  const CameraName name = party.cameraName();
  Camera& camera = *cameras_.find(name);
  camera.connection.reset();
  camera.offlineSince = now;
  if (calls_.countOf(name) == 0) cameras_.forget(name);
  tellViewers(party.account);
}

void Exchange::changePermit(const Party& party, Permit permit) {
  Camera& camera = *cameras_.find(party.cameraName());
  const bool listChanges = camera.permit.must != permit.must;
  camera.permit = std::move(permit);
  outbox_.log(party.description() + (camera.permit.must ? " now wants" : " now wants no") + " permit codes of viewers");
  if (listChanges) tellViewers(party.account);
}

void Exchange::relayFromViewer(const Party& viewer, const InboundMessage& message) {
  const std::string messageType = message.text("messageType");
  const CameraName name{viewer.account, message.text("toSerialCode")};
  const std::string payload = message.text("message");
  requireViewersMessageType(messageType);
  if (isSwitch(messageType)) requireSwitchPayload(payload);
  if (messageType == "callRequest") return call(viewer, name, message.optionalText("permitCode"), payload);

  const Camera* camera = cameras_.find(name);
  const bool isOnline = camera != nullptr && camera->connection;
  if (!calls_.contains(viewer.sid, name)) {
    if (!isOnline) refuseUnreachableCamera();
    throw Refusal(kOutOfTurn, "there is no call with this camera");
  }
  if (messageType == "hangup") return hangUp(viewer, name, payload);
  if (!isOnline) refuseUnreachableCamera();
  sendToCamera(viewer, *camera, messageType, payload);
}

void Exchange::call(const Party& viewer, const CameraName& name, const std::optional<std::string>& permitCode,
                    const std::string& offer) {
  const Camera* camera = cameras_.find(name);
  if (camera == nullptr || !camera->connection) refuseUnreachableCamera();
  if (camera->permit.must && !(permitCode && equalInConstantTime(*permitCode, camera->permit.code))) {
    throw Refusal(kPermitRefused, permitCode ? "the permit code is wrong" : "the permit code is missing");
  }
  if (calls_.contains(viewer.sid, name)) {
    sendHangup(viewer, name, "");
  } else if (calls_.countOf(viewer.sid) >= kMostCallsOfViewer) {
    throw Refusal(kTooManyCalls, "too many calls at once");
  } else if (calls_.countOf(name) >= kMostCallsOfCamera) {
    throw Refusal(kTooManyCalls, "the camera has too many calls at once");
  }
  calls_.add(viewer.sid, name);
  outbox_.log(viewer.description() + " calls camera " + inQuotes(name.serialCode));
  sendToCamera(viewer, *camera, "callRequest", offer);
}

void Exchange::hangUp(const Party& viewer, const CameraName& name, const std::string& payload) {
  calls_.remove(viewer.sid, name);
  outbox_.log(viewer.description() + " hung up on camera " + inQuotes(name.serialCode));
  sendHangup(viewer, name, payload);
}

void Exchange::sendHangup(const Party& viewer, const CameraName& name, const std::string& payload) {
  Camera& camera = *cameras_.find(name);
  if (camera.connection) {
    sendToCamera(viewer, camera, "hangup", payload);
  } else {
    camera.owedHangups[viewer.sid] = viewer.serialCode;
  }
}

void Exchange::sendToCamera(const Party& viewer, const Camera& camera, const std::string& messageType,
                            const std::string& payload) {
  outbox_.send(*camera.connection, peerMessage(viewer.sid, viewer.serialCode, messageType, payload));
}

void Exchange::relayFromCamera(const Party& camera, const InboundMessage& message) {
  const std::string messageType = message.text("messageType");
  const int toSid = message.number("toSid");
  const std::string payload = message.text("message");
  requireCamerasMessageType(messageType);
  if (!calls_.contains(toSid, camera.cameraName())) throw Refusal(kNotReachable, "no such viewer in a call");
  outbox_.send(parties_.bySid(toSid).connection, peerMessage(camera.sid, camera.serialCode, messageType, payload));
}

void Exchange::endCallsOfLostCameras(TimePoint now) {
  for (const CameraName& name : cameras_.offlineSinceBefore(now - kOfflineGrace)) {
    const int sid = cameras_.find(name)->sid;
    for (const int viewerSid : calls_.removeAll(name)) {
      const Party& viewer = parties_.bySid(viewerSid);
      outbox_.log("the call of " + viewer.description() + " ends: camera " + inQuotes(name.serialCode) +
                  " stayed away");
      outbox_.send(viewer.connection,
                   peerMessage(sid, name.serialCode, "hangup", "the camera has been offline for 60 s"));
    }
    cameras_.forget(name);
  }
}

void Exchange::tellViewers(AccountId account) {
  const std::vector<ConnectionId> viewers = parties_.viewersOf(account);
  if (viewers.empty()) return;
  const auto list = std::make_shared<const std::string>(cameraList(cameras_.online(account)));
  for (const ConnectionId viewer : viewers) outbox_.sendLatest(viewer, list);
}

}  // namespace signalconn::server
