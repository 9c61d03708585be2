#include <vector>

#include "fuzz_input.h"
#include "jitter_buffer.h"

namespace kovra {
namespace {

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
    const std::vector<std::uint8_t> payload(size, 0x2A);
    packet.header.ssrc = (action & 32) != 0 ? 2 : 1;
    packet.header.sequence = sequence_++;
    packet.header.timestamp = timestamp_;
    packet.payload = ByteView(payload);
    timestamp_ += static_cast<std::uint32_t>(size);
    buffer_.insert(packet, now_);
    if (const auto due = buffer_.nextDue()) {
      Expect(*due <= now_ + JitterBuffer::kInitialDelay, "the next frame is never far away");
    }
  }

  void take() {
    JitterBuffer::Frame frame{};
    int taken = 0;
    while (buffer_.take(now_, frame)) {
      ++taken;
      for (const std::uint8_t value : frame) Expect(value == 0x2A || value == kPcmuSilence, "samples or silence");
    }
    Expect(taken <= 5, "no caller gets more than the limit at once");
    const auto due = buffer_.nextDue();
    Expect(!due || *due > now_, "all that was due was given");
  }

  FuzzInput input_;
  JitterBuffer buffer_;
  Micros now_{0};
  std::uint16_t sequence_ = 65500;
  std::uint32_t timestamp_ = 0xFFFFF000;
};

}  // namespace
}  // namespace kovra

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kovra::Talk(kovra::FuzzInput(data, size)).run();
  return 0;
}
