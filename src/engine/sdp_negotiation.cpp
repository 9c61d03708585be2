#include "sdp_negotiation.h"

#include <algorithm>

#include "h264_packetizer.h"
#include "pcmu_packetizer.h"
#include "text.h"

namespace kovra {

namespace {

constexpr std::string_view kIceChars = "+/";
constexpr std::size_t kMinUfrag = 4;
constexpr std::size_t kMinPassword = 22;

bool IsCredential(const std::string& text, std::size_t least) {
  return text.size() >= least && IsMadeOf(text, kIceChars);
}

bool HasTransport(const SdpSection& section) {
  return section.rtcpMux && IsCredential(section.iceUfrag, kMinUfrag) &&
         IsCredential(section.icePassword, kMinPassword) && !section.fingerprints.empty();
}

// Over DTLS-SRTP with feedback; older names of the same are in use (RFC 8829, 5.1.2).
bool IsOurProtocol(const std::string& protocol) {
  return protocol == "UDP/TLS/RTP/SAVPF" || protocol == "TCP/DTLS/RTP/SAVPF" || protocol == "RTP/SAVPF" ||
         protocol == "UDP/TLS/RTP/SAVP" || protocol == "RTP/SAVP";
}

bool ViewerReceives(const SdpSection& section) {
  return section.direction == SdpDirection::kSendRecv || section.direction == SdpDirection::kRecvOnly;
}

bool ViewerSends(const SdpSection& section) {
  return section.direction == SdpDirection::kSendRecv || section.direction == SdpDirection::kSendOnly;
}

// The lower the better; nullopt for what cannot be served. Packetization mode 1 counts before the profile, since
// every decoder of a higher profile reads the lower ones, but a reader of mode 0 need not know FU-A.
std::optional<int> H264Rank(const SdpCodec& codec) {
  if (!codec.isNamed("H264") || codec.clockRate != kVideoClockRate) return std::nullopt;
  const std::string mode = codec.parameter("packetization-mode").value_or("0");
  if (mode != "0" && mode != "1") return std::nullopt;
  // Without the parameter it is Baseline at level 1 (RFC 6184, 8.1).
  const std::string profile = ToLower(codec.parameter("profile-level-id").value_or("42000a"));
  if (profile.size() != 6 || profile.find_first_not_of("0123456789abcdef") != std::string::npos) return std::nullopt;

  int rank = 3;
  if (StartsWith(profile, "4d")) rank = 2;
  if (StartsWith(profile, "42")) rank = 1;
  // Bit 6 of the second byte, constraint_set1: Constrained Baseline.
  if (StartsWith(profile, "42") && std::string_view("4567cdef").find(profile[2]) != std::string_view::npos) rank = 0;
  return mode == "1" ? rank : rank + 4;
}

const SdpCodec* ChooseH264(const SdpSection& section) {
  const SdpCodec* best = nullptr;
  int bestRank = 0;
  for (const SdpCodec& codec : section.codecs) {
    const std::optional<int> rank = H264Rank(codec);
    if (!rank || (best != nullptr && *rank >= bestRank)) continue;
    best = &codec;
    bestRank = *rank;
  }
  return best;
}

const SdpCodec* ChoosePcmu(const SdpSection& section) {
  for (const SdpCodec& codec : section.codecs) {
    if (codec.isNamed("PCMU") && codec.clockRate == kPcmuClockRate && codec.channels == 1) return &codec;
  }
  return nullptr;
}

// The codec that we could answer in this section; null when it is to be rejected.
const SdpCodec* ChooseCodec(const SdpSection& section) {
  const bool muxed = section.rtcpMux || section.bundleOnly;
  if (section.isRejected() || section.mid.empty() || !muxed || !IsOurProtocol(section.protocol)) return nullptr;
  if (section.media == "video") return ChooseH264(section);
  if (section.media == "audio") return ChoosePcmu(section);
  return nullptr;
}

// One for each section of the offer, as ChooseCodec says. Kept, since choosing reads all parameters.
using Choices = std::vector<const SdpCodec*>;

Choices ChooseCodecs(const SdpOffer& offer) {
  Choices choices;
  for (const SdpSection& section : offer.sections) choices.push_back(ChooseCodec(section));
  return choices;
}

// Whether the direction leaves us something to do, in a section with a codec of ours.
bool CanServe(const SdpSection& section) {
  return ViewerReceives(section) || (section.media == "audio" && ViewerSends(section));
}

std::optional<std::uint8_t> FindRtx(const SdpSection& section, std::uint8_t payloadType) {
  const std::string wanted = std::to_string(payloadType);
  for (const SdpCodec& codec : section.codecs) {
    if (codec.isNamed("rtx") && codec.parameter("apt") == wanted) return codec.payloadType;
  }
  return std::nullopt;
}

NegotiatedVideo MakeVideo(const SdpSection& section, std::size_t index, const SdpCodec& codec) {
  NegotiatedVideo video;
  video.section = index;
  video.payloadType = codec.payloadType;
  video.nack = codec.nack;
  video.pli = codec.pli;
  video.fir = codec.fir;
  if (section.playoutDelay) video.playoutDelayId = section.playoutDelay->id;
  if (video.nack) video.rtxPayloadType = FindRtx(section, codec.payloadType);
  return video;
}

// Sections with a codec of ours that can share one transport, in the order in which one of them may carry it.
struct Group {
  std::vector<std::size_t> sections;
  bool bundled = false;
};

Group MakeGroup(const SdpOffer& offer, const Choices& choices, const std::vector<std::string>& mids) {
  Group group;
  group.bundled = true;
  for (const std::string& mid : mids) {
    for (std::size_t i = 0; i < offer.sections.size(); ++i) {
      if (choices[i] != nullptr && offer.sections[i].mid == mid) group.sections.push_back(i);
    }
  }
  return group;
}

std::vector<Group> MakeGroups(const SdpOffer& offer, const Choices& choices) {
  std::vector<Group> groups;
  for (const std::vector<std::string>& mids : offer.bundleGroups) groups.push_back(MakeGroup(offer, choices, mids));
  for (std::size_t i = 0; i < offer.sections.size(); ++i) {
    // A section in a group too may be served alone, if the group cannot.
    if (choices[i] != nullptr && !offer.sections[i].bundleOnly) groups.push_back({{i}, false});
  }
  return groups;
}

// The section whose transport the group uses (RFC 8843, 7.3.1); nullopt when it has none that works.
std::optional<std::size_t> TransportOf(const SdpOffer& offer, const Group& group) {
  for (const std::size_t index : group.sections) {
    if (!offer.sections[index].bundleOnly && HasTransport(offer.sections[index])) return index;
  }
  return std::nullopt;
}

// How much of the offer would be served: video counts more than audio. 0: nothing.
int WorthOf(const SdpOffer& offer, const Group& group) {
  int video = 0;
  int audio = 0;
  for (const std::size_t index : group.sections) {
    if (!CanServe(offer.sections[index])) continue;
    (offer.sections[index].media == "video" ? video : audio) = 1;
  }
  return 2 * video + audio;
}

const Group* ChooseGroup(const SdpOffer& offer, const std::vector<Group>& groups, std::string& reason) {
  const Group* best = nullptr;
  int bestWorth = 0;
  reason = "no section with H.264 video or PCMU audio over DTLS-SRTP, with a mid and rtcp-mux";
  for (const Group& group : groups) {
    const int worth = WorthOf(offer, group);
    if (worth > 0 && !TransportOf(offer, group)) reason = "no ICE credentials or no fingerprint that can be checked";
    if (worth <= bestWorth || !TransportOf(offer, group)) continue;
    best = &group;
    bestWorth = worth;
  }
  return best;
}

SdpSetup ChooseSetup(const std::optional<SdpSetup>& offered, SdpSetup preferred) {
  if (offered == SdpSetup::kPassive) return SdpSetup::kActive;
  if (offered == SdpSetup::kActPass && preferred == SdpSetup::kActive) return SdpSetup::kActive;
  return SdpSetup::kPassive;
}

std::vector<SdpFingerprint> StrongestOf(const std::vector<SdpFingerprint>& fingerprints) {
  std::size_t longest = 0;
  for (const SdpFingerprint& fingerprint : fingerprints) longest = std::max(longest, fingerprint.digest.size());
  std::vector<SdpFingerprint> strongest;
  for (const SdpFingerprint& fingerprint : fingerprints) {
    if (fingerprint.digest.size() == longest) strongest.push_back(fingerprint);
  }
  return strongest;
}

bool IsSamePlace(const IceCandidate& a, const IceCandidate& b) {
  return a.address == b.address && a.port == b.port && a.transport == b.transport;
}

// Candidates of component 2, RTCP's own, are of no use where it is multiplexed.
std::vector<IceCandidate> UsableCandidates(const std::vector<IceCandidate>& candidates) {
  std::vector<IceCandidate> usable;
  for (const IceCandidate& candidate : candidates) {
    const bool known = std::any_of(usable.begin(), usable.end(),
                                   [&](const IceCandidate& other) { return IsSamePlace(candidate, other); });
    if (candidate.component == 1 && !known) usable.push_back(candidate);
  }
  return usable;
}

void TakeTransport(const SdpOffer& offer, std::size_t index, SdpSetup preferredSetup, SdpNegotiation& result) {
  const SdpSection& section = offer.sections[index];
  result.transportSection = index;
  result.mid = section.mid;
  result.iceUfrag = section.iceUfrag;
  result.icePassword = section.icePassword;
  result.iceLite = offer.iceLite;
  result.setup = ChooseSetup(section.setup, preferredSetup);
  result.fingerprints = StrongestOf(section.fingerprints);
  result.candidates = UsableCandidates(section.candidates);
}

// Payload types tell bundled sections apart.
bool ClashesWithVideo(const SdpCodec& codec, const std::optional<NegotiatedVideo>& video) {
  return video && (video->payloadType == codec.payloadType || video->rtxPayloadType == codec.payloadType);
}

void TakeVideo(const SdpOffer& offer, const Choices& choices, const Group& group, SdpNegotiation& result) {
  for (const std::size_t index : group.sections) {
    const SdpSection& section = offer.sections[index];
    if (section.media != "video") continue;
    const SdpCodec& codec = *choices[index];
    result.codecs[index] = codec.payloadType;
    result.fates[index] = SectionFate::kInactive;
    if (result.video || !CanServe(section)) continue;
    result.video = MakeVideo(section, index, codec);
    result.fates[index] = SectionFate::kServed;
  }
}

void TakeAudio(const SdpOffer& offer, const Choices& choices, const Group& group, SdpNegotiation& result) {
  for (const std::size_t index : group.sections) {
    const SdpSection& section = offer.sections[index];
    if (section.media != "audio") continue;
    const SdpCodec& codec = *choices[index];
    if (ClashesWithVideo(codec, result.video)) continue;
    result.codecs[index] = codec.payloadType;
    result.fates[index] = SectionFate::kInactive;
    if (result.audio || !CanServe(section)) continue;
    result.audio = {index, codec.payloadType, ViewerReceives(section), ViewerSends(section)};
    result.fates[index] = SectionFate::kServed;
  }
}

Group AcceptedOf(const Group& group, const SdpNegotiation& result) {
  Group accepted;
  for (const std::size_t index : group.sections) {
    if (result.fates[index] != SectionFate::kRejected) accepted.sections.push_back(index);
  }
  return accepted;
}

}  // namespace

std::optional<SdpNegotiation> Negotiate(const SdpOffer& offer, SdpSetup preferredSetup, std::string& reason) {
  const Choices choices = ChooseCodecs(offer);
  const std::vector<Group> groups = MakeGroups(offer, choices);
  const Group* group = ChooseGroup(offer, groups, reason);
  if (group == nullptr) return std::nullopt;

  SdpNegotiation result;
  result.fates.assign(offer.sections.size(), SectionFate::kRejected);
  result.codecs.assign(offer.sections.size(), 0);
  result.bundled = group->bundled;
  TakeVideo(offer, choices, *group, result);
  TakeAudio(offer, choices, *group, result);

  const std::optional<std::size_t> transport = TransportOf(offer, AcceptedOf(*group, result));
  if (!transport) {
    reason = "the only section with ICE credentials and a fingerprint cannot be served";
    return std::nullopt;
  }
  TakeTransport(offer, *transport, preferredSetup, result);
  reason.clear();
  return result;
}

}  // namespace kovra
