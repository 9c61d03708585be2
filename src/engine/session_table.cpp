#include "session_table.h"

#include <algorithm>

namespace kovra {

SessionHandle SessionTable::add(const KovraSessionConfig& config) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (*alive_ >= kMaxSessions) return nullptr;
  KOVRA_SESSION_ID id = 0;
  do {
    id = static_cast<KOVRA_SESSION_ID>(++lastId_);
  } while (id == 0 || locate(id) != sessions_.end());
  return sessions_.emplace_back(std::make_shared<SharedSession>(id, config, alive_));
}

SessionHandle SessionTable::find(KOVRA_SESSION_ID id) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = locate(id);
  return found == sessions_.end() ? nullptr : *found;
}

SessionHandle SessionTable::remove(KOVRA_SESSION_ID id) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = locate(id);
  if (found == sessions_.end()) return nullptr;
  SessionHandle session = *found;
  sessions_.erase(found);
  return session;
}

bool SessionTable::wantsKeyFrame(int videoType) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return std::any_of(sessions_.begin(), sessions_.end(), [&](const SessionHandle& session) {
    return session->wantsKeyFrame.load(std::memory_order_relaxed) &&
           session->videoType.load(std::memory_order_relaxed) == videoType;
  });
}

bool SessionTable::empty() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return sessions_.empty();
}

std::vector<SessionHandle>::const_iterator SessionTable::locate(KOVRA_SESSION_ID id) const {
  return std::find_if(sessions_.begin(), sessions_.end(),
                      [id](const SessionHandle& session) { return session->id == id; });
}

}  // namespace kovra
