#include "frame_queue.h"

#include <utility>

namespace kovra {

bool FrameQueue::push(QueuedFrame frame) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (frames_.size() >= kMaxFrames) {
    lost_ = true;
    return false;
  }
  frames_.push_back(std::move(frame));
  return true;
}

void FrameQueue::take(std::vector<QueuedFrame>& out) {
  const std::lock_guard<std::mutex> lock(mutex_);
  frames_.swap(out);
  if (std::exchange(lost_, false)) out.push_back({{}, QueuedFrame::Medium::kLoss, 0});
}

}  // namespace kovra
