#include <algorithm>
#include <vector>

#include "fuzz_input.h"
#include "rtp_packet.h"
#include "rtp_reception.h"

namespace kovra {
namespace {

// What a receiver report says of packets that came one by one, each followed by a report: each number is taken as the
// nearest to the highest so far.
class ReceptionModel {
 public:
  void onPacket(std::uint16_t sequence) {
    const std::int64_t step = received_ == 0 ? 0 : static_cast<std::int16_t>(sequence - (highest_ & 0xFFFF));
    if (received_ == 0) highest_ = first_ = sequence;
    ++received_;
    highest_ += std::max<std::int64_t>(step, 0);
    // Of as many as the step is long, one came.
    fractionLost_ = step <= 1 ? 0 : 256 * (step - 1) / step;
  }
  void compare(const RtcpReportBlock& block) const {
    const std::int64_t lost = highest_ - first_ + 1 - received_;
    Expect(block.highestSequence == highest_, "the highest number counts the cycles");
    Expect(block.cumulativeLost == std::clamp<std::int64_t>(lost, -0x800000, 0x7FFFFF), "what did not come is lost");
    Expect(block.fractionLost == std::min<std::int64_t>(fractionLost_, 255), "since the report before");
  }

 private:
  std::int64_t first_ = 0;
  std::int64_t highest_ = 0;
  std::int64_t received_ = 0;
  std::int64_t fractionLost_ = 0;
};

void WalkOverSequenceNumbers(RtpHeader header, FuzzInput steps) {
  RtpReception reception(8000);
  ReceptionModel model;
  for (int i = 0; !steps.empty(); ++i) {
    header.sequence = static_cast<std::uint16_t>(header.sequence + steps.takeU16());
    header.timestamp += steps.takeU16();
    reception.onPacket(header, Micros(20000) * i);
    model.onPacket(header.sequence);
    const auto block = reception.report(Micros(20000) * i);
    Expect(block.has_value(), "there is something to report");
    model.compare(*block);
  }
}

}  // namespace
}  // namespace kovra

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kovra;
  const auto packet = ReadRtpPacket(ByteView(data, size));
  Expect(!packet || !IsRtcp(ByteView(data, size)), "RTP is not RTCP");
  if (!packet) return 0;
  Expect(packet->payload.size + kRtpHeaderBytes <= size, "the payload lies within the packet");

  std::vector<std::uint8_t> written(kRtpHeaderBytes);
  WriteRtpHeader(packet->header, written.data());
  written.insert(written.end(), packet->payload.data, packet->payload.data + packet->payload.size);
  const auto again = ReadRtpPacket(ByteView(written));
  Expect(again.has_value(), "a written packet can be read");
  Expect(again->header.sequence == packet->header.sequence && again->header.timestamp == packet->header.timestamp &&
             again->header.ssrc == packet->header.ssrc && again->header.marker == packet->header.marker &&
             again->header.payloadType == packet->header.payloadType && again->payload.size == packet->payload.size,
         "and is the same");

  FuzzInput steps(packet->payload.data, packet->payload.size);
  WalkOverSequenceNumbers(packet->header, steps);
  return 0;
}
