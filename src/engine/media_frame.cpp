#include "media_frame.h"

#include <utility>

namespace kovra {

void MediaFrame::setMarkerOnLast() {
  if (!packets_.empty()) packets_.back().marker = true;
}

void MediaFrame::add(ByteView prefix, ByteView body, bool marker) {
  packets_.push_back(
      {static_cast<std::uint32_t>(bytes_.size()), static_cast<std::uint16_t>(prefix.size + body.size), marker});
  bytes_.insert(bytes_.end(), prefix.data, prefix.data + prefix.size);
  bytes_.insert(bytes_.end(), body.data, body.data + body.size);
}

std::size_t MediaFrame::capacityBytes() const {
  return bytes_.capacity() + packets_.capacity() * sizeof(Packet) + sizeof(MediaFrame);
}

FrameRef::FrameRef(MediaFrame* frame) : frame_(frame) { frame_->references_.store(1, std::memory_order_relaxed); }

FrameRef::FrameRef(const FrameRef& other) : frame_(other.frame_) {
  if (frame_ != nullptr) frame_->references_.fetch_add(1, std::memory_order_relaxed);
}

FrameRef::FrameRef(FrameRef&& other) noexcept : frame_(std::exchange(other.frame_, nullptr)) {}

FrameRef& FrameRef::operator=(FrameRef other) noexcept {
  std::swap(frame_, other.frame_);
  return *this;
}

FrameRef::~FrameRef() { reset(); }

void FrameRef::reset() {
  MediaFrame* frame = std::exchange(frame_, nullptr);
  if (frame == nullptr || frame->references_.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  const std::shared_ptr<FramePool> pool = std::move(frame->pool_);
  pool->giveBack(frame);
}

std::shared_ptr<FramePool> FramePool::Create(std::size_t maxIdleBytes) {
  return std::shared_ptr<FramePool>(new FramePool(maxIdleBytes));
}

FramePool::FramePool(std::size_t maxIdleBytes) : maxIdleBytes_(maxIdleBytes) {}

FramePool::~FramePool() = default;

FrameRef FramePool::take(std::size_t payloadBytes) {
  std::unique_ptr<MediaFrame> frame = takeIdle(payloadBytes);
  if (!frame) {
    frame = std::make_unique<MediaFrame>();
    frame->bytes_.reserve(payloadBytes);
  }
  frame->pool_ = shared_from_this();
  return FrameRef(frame.release());
}

std::unique_ptr<MediaFrame> FramePool::takeIdle(std::size_t payloadBytes) {
  // A block much too large stays for a frame of its size: small frames are many and are remembered long.
  const std::size_t tooLarge = 2 * payloadBytes + 4096;
  const std::lock_guard<std::mutex> lock(mutex_);
  auto best = idle_.end();
  for (auto candidate = idle_.begin(); candidate != idle_.end(); ++candidate) {
    const std::size_t capacity = (*candidate)->bytes_.capacity();
    if (capacity < payloadBytes || capacity > tooLarge) continue;
    if (best == idle_.end() || capacity < (*best)->bytes_.capacity()) best = candidate;
  }
  if (best == idle_.end()) return nullptr;
  std::unique_ptr<MediaFrame> frame = std::move(*best);
  idle_.erase(best);
  idleBytes_ -= frame->capacityBytes();
  return frame;
}

void FramePool::freeIdle() {
  std::vector<std::unique_ptr<MediaFrame>> idle;
  const std::lock_guard<std::mutex> lock(mutex_);
  idle.swap(idle_);
  idleBytes_ = 0;
}

std::size_t FramePool::idleBytes() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return idleBytes_;
}

void FramePool::giveBack(MediaFrame* frame) {
  std::unique_ptr<MediaFrame> returned(frame);
  returned->bytes_.clear();
  returned->packets_.clear();
  returned->timestamp_ = 0;
  returned->keyFrame_ = false;

  const std::lock_guard<std::mutex> lock(mutex_);
  idleBytes_ += returned->capacityBytes();
  idle_.push_back(std::move(returned));
  // The longest unused goes first: its size is no longer what the stream needs.
  auto keepFrom = idle_.begin();
  while (idleBytes_ > maxIdleBytes_) idleBytes_ -= (*keepFrom++)->capacityBytes();
  idle_.erase(idle_.begin(), keepFrom);
}

}  // namespace kovra
