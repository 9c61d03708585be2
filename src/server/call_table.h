// Which viewer is in a call with which camera.
#ifndef SIGNALCONN_SERVER_CALL_TABLE_H
#define SIGNALCONN_SERVER_CALL_TABLE_H

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "accounts.h"

namespace signalconn::server {

// A camera keeps its name across connections; serial codes are unique within an account.
struct CameraName {
  AccountId account = 0;
  std::string serialCode;

  bool operator<(const CameraName& other) const {
    return account != other.account ? account < other.account : serialCode < other.serialCode;
  }
};

class CallTable {
 public:
  bool contains(int viewerSid, const CameraName& camera) const;
  std::size_t countOf(int viewerSid) const;
  std::size_t countOf(const CameraName& camera) const;

  void add(int viewerSid, const CameraName& camera);     // no effect when the call is there
  void remove(int viewerSid, const CameraName& camera);  // no effect when there is no such call
  std::vector<CameraName> removeAll(int viewerSid);      // returns the cameras of the calls
  std::vector<int> removeAll(const CameraName& camera);  // returns the viewers of the calls

 private:
  // The same calls twice, for either direction; no entry is empty.
  std::map<int, std::set<CameraName>> byViewer_;
  std::map<CameraName, std::set<int>> byCamera_;
};

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_CALL_TABLE_H
