// One frame of media cut into RTP payloads, made once and shared by all viewers' senders and histories.
#ifndef SIGNALCONN_ENGINE_MEDIA_FRAME_H
#define SIGNALCONN_ENGINE_MEDIA_FRAME_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "bytes.h"

namespace kovra {

class FramePool;

// The payloads of one frame in one block of memory. Written by one thread, then only read; from then on any
// thread may hold and release references.
class MediaFrame {
 public:
  std::size_t packetCount() const { return packets_.size(); }
  ByteView payload(std::size_t index) const { return {bytes_.data() + packets_[index].offset, packets_[index].size}; }
  bool marker(std::size_t index) const { return packets_[index].marker; }
  std::uint32_t timestamp() const { return timestamp_; }  // RTP clock units; each sender adds its own offset
  bool isKeyFrame() const { return keyFrame_; }           // a decoder can begin here: IDR with its SPS and PPS

  // For the packetizers, before the frame is shared.
  void setTimestamp(std::uint32_t timestamp) { timestamp_ = timestamp; }
  void setKeyFrame(bool keyFrame) { keyFrame_ = keyFrame; }
  void setMarkerOnLast();
  // Adds a payload made of prefix and body, copied. Both together hold at most 65535 bytes.
  void add(ByteView prefix, ByteView body, bool marker);

 private:
  friend class FramePool;
  friend class FrameRef;
  std::size_t capacityBytes() const;

  struct Packet {
    std::uint32_t offset;
    std::uint16_t size;
    bool marker;
  };

  std::vector<std::uint8_t> bytes_;
  std::vector<Packet> packets_;
  std::uint32_t timestamp_ = 0;
  bool keyFrame_ = false;
  std::atomic<std::uint32_t> references_{0};
  std::shared_ptr<FramePool> pool_;  // set while the frame is out; keeps the pool alive
};

// Shared ownership of a frame; empty by default. The last reference gives the frame back to its pool.
class FrameRef {
 public:
  FrameRef() = default;
  FrameRef(const FrameRef& other);
  FrameRef(FrameRef&& other) noexcept;
  FrameRef& operator=(FrameRef other) noexcept;
  ~FrameRef();

  explicit operator bool() const { return frame_ != nullptr; }
  const MediaFrame* operator->() const { return frame_; }
  const MediaFrame& operator*() const { return *frame_; }
  // For its packetizer only, before a second reference exists.
  MediaFrame& edit() { return *frame_; }
  void reset();

 private:
  friend class FramePool;
  explicit FrameRef(MediaFrame* frame);

  MediaFrame* frame_ = nullptr;
};

// Lends frames and takes their memory back, so that a running stream allocates nothing. Any thread.
// Frames may outlive every other owner of the pool.
class FramePool : public std::enable_shared_from_this<FramePool> {
 public:
  // Of the frames given back, the latest are kept, as many as fit into maxIdleBytes.
  static std::shared_ptr<FramePool> Create(std::size_t maxIdleBytes);
  ~FramePool();
  FramePool(const FramePool&) = delete;
  FramePool& operator=(const FramePool&) = delete;

  // An empty frame with room for so many bytes of payload.
  FrameRef take(std::size_t payloadBytes);

  // Frees what is idle; for when nobody watches any more.
  void freeIdle();

  std::size_t idleBytes() const;

 private:
  friend class FrameRef;
  explicit FramePool(std::size_t maxIdleBytes);
  std::unique_ptr<MediaFrame> takeIdle(std::size_t payloadBytes);
  void giveBack(MediaFrame* frame);

  const std::size_t maxIdleBytes_;
  mutable std::mutex mutex_;  // guards what follows
  std::vector<std::unique_ptr<MediaFrame>> idle_;
  std::size_t idleBytes_ = 0;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_MEDIA_FRAME_H
