#include <algorithm>
#include <optional>
#include <vector>

#include "fuzz_input.h"
#include "jitter_buffer.h"

namespace kovra {
namespace {

constexpr std::uint32_t kBlock = 8;

// Each sample's value follows from its timestamp: blocks of eight begin with a value of their own, followed by the
// number of the block.
constexpr std::uint8_t kBlockBegin = 0x80;
std::uint8_t ValueAt(std::uint32_t timestamp) {
  const std::uint32_t block = timestamp / kBlock;
  const std::uint32_t place = timestamp % kBlock;
  if (place == 0) return kBlockBegin;
  if (place > 5) return static_cast<std::uint8_t>(place);
  return static_cast<std::uint8_t>(block >> (7 * (place - 1)) & 0x7F);
}

// The timestamp of the frame's first sample, read from the first whole block; nullopt when there is none.
std::optional<std::uint32_t> TimestampOf(const JitterBuffer::Frame& frame) {
  for (std::uint32_t i = 0; i + kBlock <= frame.size(); ++i) {
    if (frame[i] != kBlockBegin || std::count(&frame[i], &frame[i] + kBlock, kPcmuSilence) > 0) continue;
    std::uint32_t block = 0;
    for (std::uint32_t place = 1; place <= 5; ++place) block |= std::uint32_t{frame[i + place]} << (7 * (place - 1));
    return block * kBlock - i;
  }
  return std::nullopt;
}

// A talk-back stream that the input steers: each step passes time, and then a packet comes, frames are taken, or both.
class Talk {
 public:
  explicit Talk(FuzzInput input) : input_(input) {}

  void run() {
    while (!input_.empty()) {
      const std::uint8_t action = input_.takeByte();
      now_ += Micros(500) * input_.takeByte();
      if ((action & 1) != 0) insert(action);
      if ((action & 2) != 0) take();
    }
  }

 private:
  void insert(std::uint8_t action) {
    RtpPacket packet;
    if ((action & 4) != 0) sequence_ = static_cast<std::uint16_t>(sequence_ + input_.takeU16());
    if ((action & 8) != 0) timestamp_ += static_cast<std::uint32_t>(input_.takeU16()) << (action >> 6) * 8;
    const std::size_t size = (action & 16) != 0 ? input_.takeU16() : kPcmuFrameBytes;
    std::vector<std::uint8_t> payload;
    for (std::uint32_t i = 0; i < size; ++i) payload.push_back(ValueAt(timestamp_ + i));
    packet.header.ssrc = (action & 32) != 0 ? 2 : 1;
    packet.header.sequence = sequence_++;
    packet.header.timestamp = timestamp_;
    packet.payload = ByteView(payload);
    inserted_.push_back({timestamp_, static_cast<std::uint32_t>(size), now_});
    timestamp_ += static_cast<std::uint32_t>(size);
    buffer_.insert(packet, now_);
    const auto due = buffer_.nextDue();
    if (!due) return;
    Expect(*due <= now_ + JitterBuffer::kInitialDelay, "the next frame is never far away");
    // Where the buffer begins anew, that is when it plays.
    if (*due == now_ + JitterBuffer::kInitialDelay) played_.reset();
  }

  void take() {
    JitterBuffer::Frame frame{};
    int taken = 0;
    while (buffer_.take(now_, frame)) {
      ++taken;
      check(frame);
    }
    Expect(taken <= 5, "no caller gets more than the limit at once");
    const auto due = buffer_.nextDue();
    Expect(!due || *due > now_, "all that was due was given");
  }

  void check(const JitterBuffer::Frame& frame) {
    const std::optional<std::uint32_t> timestamp = TimestampOf(frame);
    if (!timestamp) return;
    for (std::uint32_t i = 0; i < frame.size(); ++i) {
      Expect(frame[i] == ValueAt(*timestamp + i) || frame[i] == kPcmuSilence, "samples in their places, or silence");
      if (frame[i] != kPcmuSilence) checkAge(*timestamp + i, *buffer_.nextDue() - JitterBuffer::kFrameTime);
    }
    Expect(!played_ || static_cast<std::int32_t>(*timestamp - *played_) >= static_cast<std::int32_t>(frame.size()),
           "frames in their order");
    played_ = timestamp;
  }

  void checkAge(std::uint32_t timestamp, Micros due) const {
    const auto last = std::find_if(inserted_.rbegin(), inserted_.rend(),
                                   [&](const Inserted& packet) { return timestamp - packet.timestamp < packet.size; });
    Expect(last != inserted_.rend(), "samples that were inserted");
    // Each packet after it may make the delay grow by a frame.
    const auto growth = JitterBuffer::kFrameTime * std::distance(inserted_.rbegin(), last);
    Expect(due - last->at <= JitterBuffer::kMaxDelay + growth, "no sample waits longer than the limit");
  }

  struct Inserted {
    std::uint32_t timestamp;
    std::uint32_t size;
    Micros at;
  };

  FuzzInput input_;
  JitterBuffer buffer_;
  Micros now_{0};
  std::uint16_t sequence_ = 65500;
  std::uint32_t timestamp_ = 0xFFFFF000;
  std::vector<Inserted> inserted_;
  std::optional<std::uint32_t> played_;  // the frame before's timestamp, since the buffer began anew
};

}  // namespace
}  // namespace kovra

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kovra::Talk(kovra::FuzzInput(data, size)).run();
  return 0;
}
