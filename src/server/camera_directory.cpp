#include "camera_directory.h"

namespace signalconn::server {

Camera* CameraDirectory::find(const CameraName& name) {
  const auto entry = cameras_.find(name);
  return entry == cameras_.end() ? nullptr : &entry->second;
}

std::vector<OnlineCamera> CameraDirectory::online(AccountId account) const {
  std::vector<OnlineCamera> online;
  for (auto entry = cameras_.lower_bound({account, ""}); entry != cameras_.end(); ++entry) {
    const auto& [name, camera] = *entry;
    if (name.account != account) break;
    if (camera.connection) online.push_back({name.serialCode, camera.permit.must});
  }
  return online;
}

std::vector<CameraName> CameraDirectory::offlineSinceBefore(TimePoint time) const {
  std::vector<CameraName> names;
  for (const auto& [name, camera] : cameras_) {
    if (!camera.connection && camera.offlineSince <= time) names.push_back(name);
  }
  return names;
}

}  // namespace signalconn::server
