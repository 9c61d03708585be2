#include <algorithm>
#include <set>
#include <string>

#include "fuzz_input.h"
#include "sdp_answer.h"
#include "sdp_negotiation.h"
#include "sdp_offer.h"

namespace kovra {
namespace {

SdpAnswerParameters MakeParameters(bool trickle) {
  SdpAnswerParameters parameters;
  parameters.iceUfrag = "cam1";
  parameters.icePassword = "cameracameracameracamera";
  parameters.fingerprint = {"sha-256", std::vector<std::uint8_t>(32, 7)};
  parameters.cname = "camera";
  parameters.streamId = "stream";
  parameters.videoSsrc = 1;
  parameters.videoRtxSsrc = 2;
  parameters.audioSsrc = 3;
  parameters.trickle = trickle;
  if (!trickle) parameters.candidates = {*ReadIceCandidate("candidate:1 1 udp 9 192.0.2.1 5000 typ host")};
  return parameters;
}

void CheckNegotiation(const SdpOffer& offer, const SdpNegotiation& negotiation) {
  Expect(negotiation.fates.size() == offer.sections.size(), "every section has its fate");
  Expect(negotiation.video || negotiation.audio, "something is served");
  Expect(negotiation.fates[negotiation.transportSection] != SectionFate::kRejected, "the transport is accepted");
  Expect(!negotiation.mid.empty() && !negotiation.fingerprints.empty(), "the transport is complete");
  Expect(negotiation.setup != SdpSetup::kActPass, "the role in DTLS is decided");
}

// The answer is SDP with the sections of the offer in their order.
void CheckAnswer(const SdpOffer& offer, const SdpNegotiation& negotiation, const std::string& text) {
  std::string reason;
  const std::optional<SdpOffer> answer = ReadSdpOffer(text, reason);
  Expect(answer.has_value(), "the answer can be read");
  Expect(answer->sections.size() == offer.sections.size(), "the answer has the offer's sections");
  for (std::size_t i = 0; i < offer.sections.size(); ++i) {
    const SdpSection& section = answer->sections[i];
    Expect(section.media == offer.sections[i].media && section.mid == offer.sections[i].mid, "in their order");
    Expect(section.protocol == offer.sections[i].protocol, "with their protocol");
    const bool rejected = negotiation.fates[i] == SectionFate::kRejected;
    Expect(section.isRejected() == rejected, "with port 0 where rejected, and only there");
    for (const SdpCodec& codec : section.codecs) {
      Expect(offer.sections[i].findCodec(codec.payloadType) != nullptr, "with payload types of the offer");
    }
  }
  Expect(answer->bundleGroups.size() == (negotiation.bundled ? 1u : 0u), "in one group or none");
  for (const std::vector<std::string>& group : answer->bundleGroups) {
    Expect(group.front() == negotiation.mid, "led by the section with the transport");
  }
}

void CheckGroups(const SdpOffer& offer) {
  std::set<std::string> mids;
  for (const std::vector<std::string>& group : offer.bundleGroups) {
    for (const std::string& mid : group) Expect(mids.insert(mid).second, "a mid is in one group only");
  }
}

void Run(std::string_view text, SdpSetup setup) {
  std::string reason;
  const std::optional<SdpOffer> offer = ReadSdpOffer(text, reason);
  Expect(offer || !reason.empty(), "a refused offer has a reason");
  if (!offer) return;
  CheckGroups(*offer);
  const std::optional<SdpNegotiation> negotiation = Negotiate(*offer, setup, reason);
  Expect(negotiation || !reason.empty(), "an offer that cannot be served has a reason");
  if (!negotiation) return;
  CheckNegotiation(*offer, *negotiation);
  CheckAnswer(*offer, *negotiation, WriteSdpAnswer(*offer, *negotiation, MakeParameters(setup == SdpSetup::kActive)));
}

}  // namespace
}  // namespace kovra

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kovra::Run(kovra::AsText(data, size), kovra::SdpSetup::kActive);
  kovra::Run(kovra::AsText(data, size), kovra::SdpSetup::kPassive);
  return 0;
}
