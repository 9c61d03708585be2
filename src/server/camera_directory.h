// The cameras that are online, and those whose calls outlive a broken connection for a while.
#ifndef SIGNALCONN_SERVER_CAMERA_DIRECTORY_H
#define SIGNALCONN_SERVER_CAMERA_DIRECTORY_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "call_table.h"
#include "outbound_message.h"
#include "party_table.h"
#include "time_point.h"

namespace signalconn::server {

struct Permit {
  bool must = false;
  std::string code;
};

struct Camera {
  std::optional<ConnectionId> connection;  // nothing: offline
  int sid = 0;                             // of its last sign-in
  Permit permit;
  TimePoint offlineSince{};                // while offline
  std::map<int, std::string> owedHangups;  // viewers (sid, serial code) that left while it was offline
};

class CameraDirectory {
 public:
  Camera* find(const CameraName& name);  // null when not known; valid until the camera is forgotten
  Camera& findOrAdd(const CameraName& name) { return cameras_[name]; }
  void forget(const CameraName& name) { cameras_.erase(name); }

  std::vector<OnlineCamera> online(AccountId account) const;  // by serial code
  std::vector<CameraName> offlineSinceBefore(TimePoint time) const;

 private:
  std::map<CameraName, Camera> cameras_;
};

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_CAMERA_DIRECTORY_H
