#include "webrtcbin_media.h"

#include <gst/app/gstappsrc.h>

namespace engine {
namespace {

constexpr std::size_t kRtpHeaderSize = 12;
// A few seconds of ordinary video. What waits longer is of no use to somebody who watches live.
constexpr guint64 kMaxQueuedBytes = 1U << 20U;

void putBigEndian(std::uint8_t* to, std::uint32_t value, unsigned int bytes) {
  for (unsigned int i = 0; i < bytes; ++i) to[i] = static_cast<std::uint8_t>(value >> (8 * (bytes - 1 - i)));
}

}  // namespace

RtpTrack::RtpTrack(Owned<GstElement> source, int payloadType, std::uint32_t ssrc)
    : source_(std::move(source)),
      payloadType_(static_cast<unsigned int>(payloadType)),
      ssrc_(ssrc),
      timestampOffset_(g_random_int()),
      sequence_(static_cast<std::uint16_t>(g_random_int())) {}

void RtpTrack::send(GstMemory* payload, bool marker, std::uint32_t timestamp) {
  GstBuffer* packet = gst_buffer_new_allocate(nullptr, kRtpHeaderSize, nullptr);
  std::uint8_t header[kRtpHeaderSize] = {0x80, static_cast<std::uint8_t>(payloadType_ | (marker ? 0x80U : 0U))};
  putBigEndian(header + 2, sequence_++, 2);
  putBigEndian(header + 4, timestampOffset_ + timestamp, 4);
  putBigEndian(header + 8, ssrc_, 4);
  gst_buffer_fill(packet, 0, header, sizeof(header));
  gst_buffer_append_memory(packet, gst_memory_ref(payload));
  gst_app_src_push_buffer(GST_APP_SRC(source_.get()), packet);
}

bool RtpTrack::isCongested() const {
  return gst_app_src_get_current_level_bytes(GST_APP_SRC(source_.get())) > kMaxQueuedBytes;
}

void OutgoingMedia::open(std::optional<RtpTrack> video, std::optional<RtpTrack> audio) {
  const std::lock_guard<std::mutex> lock(mutex_);
  video_ = std::move(video);
  audio_ = std::move(audio);
  needsKeyFrame_ = true;
}

void OutgoingMedia::close() {
  const std::lock_guard<std::mutex> lock(mutex_);
  video_.reset();
  audio_.reset();
}

void OutgoingMedia::setTypes(int audioType, int videoType) {
  if (audioType != -1) audioType_ = audioType;
  if (videoType != -1 && videoType_.exchange(videoType) != videoType) needsKeyFrame_ = true;
}

bool OutgoingMedia::sendVideo(const AccessUnit& unit, std::uint32_t ticks) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!video_) return false;
  if (unit.payloads.empty()) return needsKeyFrame_;
  if (video_->isCongested()) {
    needsKeyFrame_ = true;  // a hole in the stream: it goes on at the next key frame
    return true;
  }
  if (unit.isKeyFrame) needsKeyFrame_ = false;
  if (needsKeyFrame_) return true;
  for (const auto& payload : unit.payloads) {
    video_->send(payload.get(), payload == unit.payloads.back(), ticks);
  }
  return needsKeyFrame_;
}

void OutgoingMedia::sendAudio(GstMemory* samples) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!audio_ || audio_->isCongested()) return;
  audio_->send(samples, false, samplesSent_);
  samplesSent_ += static_cast<std::uint32_t>(gst_memory_get_sizes(samples, nullptr, nullptr));
}

}  // namespace engine
