#include "recent_frames.h"

#include <utility>

namespace kovra {

void RecentFrames::add(RecentFrame frame) {
  if (frame.frame->isKeyFrame()) clear();
  if (frames_.empty() && !frame.frame->isKeyFrame()) return;
  packets_ += frame.frame->packetCount();
  if (frames_.size() == kMaxFrames || packets_ > kMaxPackets) return clear();
  frames_.push_back(std::move(frame));
}

void RecentFrames::forgetStale(Micros now) {
  if (!frames_.empty() && now - frames_.back().arrived > kMaxAge) clear();
}

void RecentFrames::clear() {
  frames_.clear();
  packets_ = 0;
}

}  // namespace kovra
