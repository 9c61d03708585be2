// What one session sends: which frames, from when on, under which RTP headers.
#ifndef SIGNALCONN_ENGINE_WEBRTCBIN_MEDIA_H
#define SIGNALCONN_ENGINE_WEBRTCBIN_MEDIA_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>

#include "webrtcbin_access_unit.h"
#include "webrtcbin_gstreamer.h"

namespace engine {

// Writes the RTP packets of one track into an appsrc. Not thread-safe.
class RtpTrack {
 public:
  // Sequence numbers and timestamps start at random (RFC 3550, 5.1).
  RtpTrack(Owned<GstElement> source, int payloadType, std::uint32_t ssrc);

  // timestamp counts in the track's clock rate from any origin. The payload is shared, not copied.
  void send(GstMemory* payload, bool marker, std::uint32_t timestamp);

  // Whether the network has fallen far behind.
  bool isCongested() const;

 private:
  Owned<GstElement> source_;
  unsigned int payloadType_;
  std::uint32_t ssrc_;
  std::uint32_t timestampOffset_;
  std::uint16_t sequence_;
};

// Any thread may call any of these. Nothing is sent before open and after close.
class OutgoingMedia {
 public:
  void open(std::optional<RtpTrack> video, std::optional<RtpTrack> audio);
  void close();

  // -1 leaves a type as it is.
  void setTypes(int audioType, int videoType);
  bool takesVideo(int videoType) const { return videoType_ == videoType; }
  bool takesAudio(int audioType) const { return audioType_ == audioType; }

  // From the next frame on nothing is sent until a key frame comes.
  void requireKeyFrame() { needsKeyFrame_ = true; }

  // ticks is the frame's time of arrival at 90 kHz. Returns whether a key frame is still waited for.
  bool sendVideo(const AccessUnit& unit, std::uint32_t ticks);
  void sendAudio(GstMemory* samples);

 private:
  std::atomic<int> videoType_{1};
  std::atomic<int> audioType_{0};
  std::atomic<bool> needsKeyFrame_{false};
  std::mutex mutex_;  // guards what follows; held for pushing into queues only
  std::optional<RtpTrack> video_;
  std::optional<RtpTrack> audio_;
  std::uint32_t samplesSent_ = 0;
};

}  // namespace engine

#endif  // SIGNALCONN_ENGINE_WEBRTCBIN_MEDIA_H
