#include <string>

#include "fuzz_input.h"
#include "ice_candidate.h"

// What was read is written in a form that reads the same.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kovra;
  const auto init = ReadIceCandidateInit(AsText(data, size));
  if (!init || !init->candidate) return 0;
  const std::string line = WriteIceCandidate(*init->candidate);
  const auto again = ReadIceCandidate(line);
  Expect(again.has_value(), "a written candidate can be read");
  Expect(WriteIceCandidate(*again) == line, "and is the same");
  Expect(!init->candidate->hasIpAddress() || !init->candidate->hasLocalName(), "an address is no name");

  const auto fromJson = ReadIceCandidateInit(WriteIceCandidateInit(*init->candidate, "mid", 7));
  Expect(fromJson && fromJson->candidate, "a written RTCIceCandidateInit can be read");
  Expect(WriteIceCandidate(*fromJson->candidate) == line, "with the same candidate");
  return 0;
}
