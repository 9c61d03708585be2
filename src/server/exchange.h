// Cameras, viewers and the calls between them: who is shown to whom, and what is passed on.
#ifndef SIGNALCONN_SERVER_EXCHANGE_H
#define SIGNALCONN_SERVER_EXCHANGE_H

#include <optional>
#include <string>

#include "call_table.h"
#include "camera_directory.h"
#include "inbound_message.h"
#include "outbox.h"
#include "party_table.h"
#include "time_point.h"

namespace signalconn::server {

// Every Party& is one of parties and signed in. Refused requests throw Refusal and change nothing.
class Exchange {
 public:
  Exchange(PartyTable& parties, Outbox& outbox) : parties_(parties), outbox_(outbox) {}

  // After the party's sign-in response was sent. A camera takes the place of one of the same name.
  void cameraSignedIn(Party& party, Permit permit);
  void viewerSignedIn(const Party& viewer);
  void left(const Party& party, TimePoint now);  // before it leaves the table; a party not signed in is no matter

  void changePermit(const Party& party, Permit permit);
  void relayFromViewer(const Party& viewer, const InboundMessage& message);
  void relayFromCamera(const Party& camera, const InboundMessage& message);

  void endCallsOfLostCameras(TimePoint now);

 private:
  void call(const Party& viewer, const CameraName& name, const std::optional<std::string>& permitCode,
            const std::string& offer);
  void hangUp(const Party& viewer, const CameraName& name, const std::string& payload);
  void sendHangup(const Party& viewer, const CameraName& name, const std::string& payload);
  void sendToCamera(const Party& viewer, const Camera& camera, const std::string& messageType,
                    const std::string& payload);
  void viewerLeft(const Party& viewer);
  void cameraLeft(const Party& party, TimePoint now);
  void tellViewers(AccountId account);

  PartyTable& parties_;
  Outbox& outbox_;
  CameraDirectory cameras_;
  CallTable calls_;
};

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_EXCHANGE_H
