#include "call_table.h"

namespace signalconn::server {

bool CallTable::contains(int viewerSid, const CameraName& camera) const {
  const auto calls = byViewer_.find(viewerSid);
  return calls != byViewer_.end() && calls->second.count(camera) != 0;
}

std::size_t CallTable::countOf(int viewerSid) const {
  const auto calls = byViewer_.find(viewerSid);
  return calls == byViewer_.end() ? 0 : calls->second.size();
}

std::size_t CallTable::countOf(const CameraName& camera) const {
  const auto calls = byCamera_.find(camera);
  return calls == byCamera_.end() ? 0 : calls->second.size();
}

void CallTable::add(int viewerSid, const CameraName& camera) {
  byViewer_[viewerSid].insert(camera);
  byCamera_[camera].insert(viewerSid);
}

void CallTable::remove(int viewerSid, const CameraName& camera) {
  if (!contains(viewerSid, camera)) return;
  const auto ofViewer = byViewer_.find(viewerSid);
  ofViewer->second.erase(camera);
  if (ofViewer->second.empty()) byViewer_.erase(ofViewer);
  const auto ofCamera = byCamera_.find(camera);
  ofCamera->second.erase(viewerSid);
  if (ofCamera->second.empty()) byCamera_.erase(ofCamera);
}

std::vector<CameraName> CallTable::removeAll(int viewerSid) {
  const auto calls = byViewer_.find(viewerSid);
  if (calls == byViewer_.end()) return {};
  std::vector<CameraName> cameras(calls->second.begin(), calls->second.end());
  for (const CameraName& camera : cameras) remove(viewerSid, camera);
  return cameras;
}

std::vector<int> CallTable::removeAll(const CameraName& camera) {
  const auto calls = byCamera_.find(camera);
  if (calls == byCamera_.end()) return {};
  std::vector<int> viewers(calls->second.begin(), calls->second.end());
  for (const int viewer : viewers) remove(viewer, camera);
  return viewers;
}

}  // namespace signalconn::server
