#include <algorithm>
#include <vector>

#include "annexb.h"
#include "fuzz_input.h"
#include "h264_depacketizer.h"
#include "h264_packetizer.h"

namespace kovra {
namespace {

bool IsSent(ByteView nal) {
  const int type = nal[0] & 0x1F;
  return (nal[0] & 0x80) == 0 && type >= 1 && type <= 23 && type != 9 && type != 12;
}

std::vector<Nal> SentNals(ByteView accessUnit) {
  std::vector<Nal> nals;
  AnnexBReader reader(accessUnit);
  for (ByteView nal = reader.next(); !nal.empty(); nal = reader.next()) {
    Expect(nal[nal.size - 1] != 0, "no zero trails a NAL unit");
    if (IsSent(nal)) nals.emplace_back(nal.data, nal.data + nal.size);
  }
  return nals;
}

bool HasType(const std::vector<Nal>& nals, int first, int last) {
  return std::any_of(nals.begin(), nals.end(), [&](const Nal& nal) {
    const int type = nal[0] & 0x1F;
    return type >= first && type <= last;
  });
}

// Whether whole, without some parameter sets, is part.
bool IsWholeWithoutParameterSets(const std::vector<Nal>& whole, const std::vector<Nal>& part) {
  std::size_t matched = 0;
  for (const Nal& nal : whole) {
    if (matched < part.size() && nal == part[matched]) {
      ++matched;
      continue;
    }
    const int type = nal[0] & 0x1F;
    if (type != 7 && type != 8) return false;
  }
  return matched == part.size();
}

void Packetize(H264Packetizer& packetizer, ByteView accessUnit, std::size_t maxPayload) {
  const FrameRef frame = packetizer.packetize(accessUnit, 1);
  const std::vector<Nal> expected = SentNals(accessUnit);
  Expect(static_cast<bool>(frame) == HasType(expected, 1, 5), "a frame is what has a picture");
  if (!frame) return;
  for (std::size_t i = 0; i < frame->packetCount(); ++i) {
    Expect(frame->payload(i).size <= maxPayload, "each payload fits");
  }
  const auto joined = Depacketize(*frame);
  Expect(joined.has_value(), "the packets can be joined");
  Expect(IsWholeWithoutParameterSets(*joined, expected), "to what was written, with parameter sets added at most");
  const bool complete = HasType(*joined, 7, 7) && HasType(*joined, 8, 8) && HasType(*joined, 5, 5);
  Expect(frame->isKeyFrame() == complete, "a key frame is an IDR picture with its parameter sets");
}

}  // namespace
}  // namespace kovra

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kovra;
  FuzzInput input(data, size);
  const std::size_t maxPayload = 3 + input.takeByte();
  H264Packetizer packetizer(FramePool::Create(1 << 16), maxPayload);
  const ByteView stream = input.rest();
  // The whole, then its halves: the second may lack what the first has shown.
  Packetize(packetizer, stream, maxPayload);
  Packetize(packetizer, stream.from(0, stream.size / 2), maxPayload);
  Packetize(packetizer, stream.from(stream.size / 2), maxPayload);
  return 0;
}
