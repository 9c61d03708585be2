#include "jitter_buffer.h"

#include <algorithm>

namespace kovra {

namespace {

constexpr std::int32_t kFrameSamples = kPcmuFrameBytes;
constexpr std::int64_t kMicrosPerSample = 125;

constexpr int kLateBeforeRestart = 5;
constexpr int kSilentBeforePause = 10;
constexpr Micros kCalmTime{2'000'000};     // all packets early for so long: the delay may shrink
constexpr Micros kCautionTime{8'000'000};  // and so much longer after one was late
constexpr Micros kNeedlessMargin{40'000};  // more than this is early; half of it is kept

// Rounded towards the past, so that a sample before the next frame is in frame -1.
std::int32_t FrameOf(std::int32_t sample) {
  return sample >= 0 ? sample / kFrameSamples : (sample - kFrameSamples + 1) / kFrameSamples;
}

}  // namespace

void JitterBuffer::insert(const RtpPacket& packet, Micros now) {
  if (packet.payload.empty()) return;
  const bool newer = noteSequence(packet.header);
  if (!due_) {
    if (newer) restart(packet, now);
    return;
  }

  const auto begin = static_cast<std::int32_t>(packet.header.timestamp - playTimestamp_);
  const std::int64_t end = begin + static_cast<std::int64_t>(packet.payload.size);
  if (end <= 0) {
    if (newer) onLate(packet, now);
    return;
  }
  const std::int32_t buffered = std::max(static_cast<std::int32_t>(endTimestamp_ - playTimestamp_), 0);
  if (std::int64_t{begin} - buffered >= kMaxDelaySamples) {
    if (newer) restart(packet, now);
    return;
  }
  lateInRow_ = 0;
  if (newer && begin < 0 && mayGrow(end, now)) growDelay(now);
  store(packet, now);
  observeMargin(*due_ + (hold_ ? kFrameTime : Micros{0}) +
                    FrameOf(static_cast<std::int32_t>(packet.header.timestamp - playTimestamp_)) * kFrameTime - now,
                now);
}

// Whether the packet is newer than all before it. An old one is a duplicate or was overtaken: it says nothing about
// the delay or the timestamps of those to come.
bool JitterBuffer::noteSequence(const RtpHeader& header) {
  if (ssrc_ != header.ssrc) {
    ssrc_ = header.ssrc;
    extender_ = {};
    highestSequence_ = 0;
    due_.reset();
  }
  const std::uint64_t sequence = extender_.extend(header.sequence);
  if (sequence <= highestSequence_) return false;
  highestSequence_ = sequence;
  return true;
}

void JitterBuffer::restart(const RtpPacket& packet, Micros now) {
  for (Sample& sample : samples_) sample.present = false;
  playTimestamp_ = packet.header.timestamp;
  endTimestamp_ = packet.header.timestamp;
  due_ = now + kInitialDelay;
  lateInRow_ = 0;
  silentInRow_ = 0;
  hold_ = false;
  beginWindow(now);
  store(packet, now);
}

void JitterBuffer::onLate(const RtpPacket& packet, Micros now) {
  if (++lateInRow_ == kLateBeforeRestart) {
    restart(packet, now);
    return;
  }
  growDelay(now);
}

// Whether a packet that ends so many samples behind playTimestamp_ may wait for one frame more.
bool JitterBuffer::mayGrow(std::int64_t end, Micros now) const {
  return std::max(*due_ - now, Micros{0}) + kFrameTime + Micros{end * kMicrosPerSample} <= kMaxDelay;
}

void JitterBuffer::growDelay(Micros now) {
  hold_ = true;
  beginWindow(now + kCautionTime);
}

// The packet ends behind playTimestamp_ and begins at most kMaxDelaySamples behind what is there.
void JitterBuffer::store(const RtpPacket& packet, Micros now) {
  const std::uint32_t end = packet.header.timestamp + static_cast<std::uint32_t>(packet.payload.size);
  makeRoom(end, now);
  for (std::size_t i = 0; i < packet.payload.size; ++i) {
    const std::uint32_t timestamp = packet.header.timestamp + static_cast<std::uint32_t>(i);
    if (static_cast<std::int32_t>(timestamp - playTimestamp_) < 0) continue;
    Sample& sample = samples_[timestamp % kCapacity];
    if (!sample.present) sample = {packet.payload[i], true};
  }
  if (static_cast<std::int32_t>(end - endTimestamp_) > 0) endTimestamp_ = end;
}

// Drops the oldest frames until the samples up to end will all have been played within kMaxDelay.
void JitterBuffer::makeRoom(std::uint32_t end, Micros now) {
  const Micros begin = std::max(*due_ - now, Micros{0}) + (hold_ ? kFrameTime : Micros{0});
  const auto room = static_cast<std::int32_t>(std::max(kMaxDelay - begin, kFrameTime).count() / kMicrosPerSample);
  while (static_cast<std::int32_t>(end - playTimestamp_) > room) skipFrame();
}

void JitterBuffer::skipFrame() {
  for (std::int32_t i = 0; i < kFrameSamples; ++i) samples_[playTimestamp_++ % kCapacity].present = false;
}

void JitterBuffer::beginWindow(Micros start) {
  windowStart_ = start;
  leastMargin_ = Micros::max();
}

// margin: how long before its frame is due the packet came.
void JitterBuffer::observeMargin(Micros margin, Micros now) {
  leastMargin_ = std::min(leastMargin_, margin);
  if (now - windowStart_ < kCalmTime) return;
  if (leastMargin_ > kNeedlessMargin) skipFrame();
  beginWindow(now);
}

bool JitterBuffer::take(Micros now, Frame& frame) {
  if (due_) catchUp(now);
  if (!due_ || now < *due_) return false;
  *due_ += kFrameTime;
  if (hold_) {
    hold_ = false;
    frame.fill(kPcmuSilence);
    return true;
  }

  bool silent = true;
  for (std::uint8_t& value : frame) {
    Sample& sample = samples_[playTimestamp_++ % kCapacity];
    value = sample.present ? sample.value : kPcmuSilence;
    silent = silent && !sample.present;
    sample.present = false;
  }
  silentInRow_ = silent ? silentInRow_ + 1 : 0;
  if (silentInRow_ == kSilentBeforePause) due_.reset();
  return true;
}

// Frames that are overdue by more than kMaxDelay are passed over: nobody wants them any more.
void JitterBuffer::catchUp(Micros now) {
  const Micros overdue = now - *due_ - kMaxDelay;
  if (overdue < Micros{0}) return;
  const std::int64_t frames = overdue / kFrameTime + 1;
  if (frames > kSilentBeforePause) {
    due_.reset();
    return;
  }
  for (std::int64_t i = 0; i < frames; ++i) skipFrame();
  *due_ += frames * kFrameTime;
}

}  // namespace kovra
