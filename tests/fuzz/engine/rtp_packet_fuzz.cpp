#include <vector>

#include "fuzz_input.h"
#include "rtp_packet.h"
#include "rtp_reception.h"

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

  // The payload as a walk over sequence numbers.
  RtpReception reception(8000);
  RtpHeader header = packet->header;
  FuzzInput steps(packet->payload.data, packet->payload.size);
  for (int i = 0; !steps.empty(); ++i) {
    header.sequence = static_cast<std::uint16_t>(header.sequence + steps.takeU16());
    header.timestamp += steps.takeU16();
    reception.onPacket(header, Micros(20000) * i);
    const auto block = reception.report(Micros(20000) * i);
    Expect(block && block->cumulativeLost >= -0x800000 && block->cumulativeLost <= 0x7FFFFF, "the loss fits");
    Expect(static_cast<std::uint16_t>(block->highestSequence) == header.sequence || i > 0, "the first is the highest");
  }
  return 0;
}
