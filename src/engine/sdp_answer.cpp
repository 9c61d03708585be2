#include "sdp_answer.h"

#include <algorithm>

#include "rtp_packet.h"

namespace kovra {

namespace {

std::string DigestText(const std::vector<std::uint8_t>& digest) {
  constexpr const char* kDigits = "0123456789ABCDEF";
  std::string text;
  for (const std::uint8_t byte : digest) {
    if (!text.empty()) text += ':';
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0x0F];
  }
  return text;
}

// The candidate that stands for all where ICE is not understood: the one most likely to be reached.
const IceCandidate* DefaultCandidate(const std::vector<IceCandidate>& candidates) {
  const IceCandidate* best = nullptr;
  for (const IceCandidate& candidate : candidates) {
    if (candidate.transport != IceTransport::kUdp || !candidate.hasIpAddress()) continue;
    if (best == nullptr || candidate.type > best->type) best = &candidate;
  }
  return best;
}

class AnswerWriter {
 public:
  AnswerWriter(const SdpOffer& offer, const SdpNegotiation& negotiation, const SdpAnswerParameters& parameters)
      : offer_(offer), negotiation_(negotiation), parameters_(parameters) {}

  std::string write() {
    addSession();
    for (std::size_t i = 0; i < offer_.sections.size(); ++i) {
      if (negotiation_.fates[i] == SectionFate::kRejected) {
        addRejected(offer_.sections[i]);
      } else {
        addAccepted(i);
      }
    }
    return std::move(sdp_);
  }

 private:
  void add(const std::string& line) { sdp_.append(line).append("\r\n"); }
  void addSession();
  void addBundleGroup();
  void addRejected(const SdpSection& section);
  void addAccepted(std::size_t index);
  void addMediaLine(std::size_t index, const std::string& formats);
  void addTransport(std::size_t index);
  void addCandidates();
  void addCodec(const SdpCodec& codec);
  void addVideo(const NegotiatedVideo& video);
  void addAudio(const NegotiatedAudio& audio);
  void addPlayoutDelay(const SdpExtmap& offered);
  void addFeedback(const NegotiatedVideo& video);
  void addSource(std::uint32_t ssrc, const char* track);

  const SdpOffer& offer_;
  const SdpNegotiation& negotiation_;
  const SdpAnswerParameters& parameters_;
  std::string sdp_;
};

void AnswerWriter::addSession() {
  add("v=0");
  add("o=- " + std::to_string(parameters_.sessionId) + " 2 IN IP4 127.0.0.1");
  add("s=-");
  add("t=0 0");
  if (negotiation_.bundled) addBundleGroup();
  add("a=msid-semantic: WMS " + parameters_.streamId);
}

// The section that carries the transport comes first: it is the tagged one (RFC 8843, 7.3.1).
void AnswerWriter::addBundleGroup() {
  std::string group = "a=group:BUNDLE " + negotiation_.mid;
  for (std::size_t i = 0; i < offer_.sections.size(); ++i) {
    if (negotiation_.fates[i] == SectionFate::kRejected || i == negotiation_.transportSection) continue;
    group += ' ' + offer_.sections[i].mid;
  }
  add(group);
}

void AnswerWriter::addRejected(const SdpSection& section) {
  add("m=" + section.media + " 0 " + section.protocol + ' ' + section.formats);
  add("c=IN IP4 0.0.0.0");
  if (!section.mid.empty()) add("a=mid:" + section.mid);
  add("a=inactive");
}

void AnswerWriter::addAccepted(std::size_t index) {
  const SdpSection& section = offer_.sections[index];
  const bool isVideo = negotiation_.video && negotiation_.video->section == index;
  const bool isAudio = negotiation_.audio && negotiation_.audio->section == index;
  std::string formats = std::to_string(negotiation_.codecs[index]);
  if (isVideo && negotiation_.video->rtxPayloadType) {
    formats += ' ' + std::to_string(*negotiation_.video->rtxPayloadType);
  }
  addMediaLine(index, formats);
  addTransport(index);
  if (isVideo) {
    addVideo(*negotiation_.video);
  } else if (isAudio) {
    addAudio(*negotiation_.audio);
  } else {
    add("a=inactive");
    addCodec(*section.findCodec(negotiation_.codecs[index]));
  }
}

void AnswerWriter::addMediaLine(std::size_t index, const std::string& formats) {
  const SdpSection& section = offer_.sections[index];
  std::string port = "9";
  std::string address = "IP4 0.0.0.0";
  if (const IceCandidate* candidate = DefaultCandidate(parameters_.candidates)) {
    port = std::to_string(candidate->port);
    address = (candidate->address.find(':') == std::string::npos ? "IP4 " : "IP6 ") + candidate->address;
  }
  add("m=" + section.media + ' ' + port + ' ' + section.protocol + ' ' + formats);
  add("c=IN " + address);
}

// Repeated in every section, as browsers do, though the tagged one's would be enough.
void AnswerWriter::addTransport(std::size_t index) {
  add("a=ice-ufrag:" + parameters_.iceUfrag);
  add("a=ice-pwd:" + parameters_.icePassword);
  if (parameters_.trickle) add("a=ice-options:trickle");
  add("a=fingerprint:" + parameters_.fingerprint.algorithm + ' ' + DigestText(parameters_.fingerprint.digest));
  add(negotiation_.setup == SdpSetup::kActive ? "a=setup:active" : "a=setup:passive");
  add("a=mid:" + offer_.sections[index].mid);
  add("a=rtcp-mux");
  if (index == negotiation_.transportSection) addCandidates();
}

void AnswerWriter::addCandidates() {
  for (const IceCandidate& candidate : parameters_.candidates) add("a=" + WriteIceCandidate(candidate));
  if (!parameters_.trickle) add("a=end-of-candidates");
}

void AnswerWriter::addCodec(const SdpCodec& codec) {
  const std::string payloadType = std::to_string(codec.payloadType);
  add("a=rtpmap:" + payloadType + ' ' + codec.name + '/' + std::to_string(codec.clockRate));
  if (!codec.isNamed("H264")) return;
  std::string parameters = "level-asymmetry-allowed=1;packetization-mode=";
  parameters += codec.parameter("packetization-mode").value_or("0");
  if (const auto profile = codec.parameter("profile-level-id")) parameters += ";profile-level-id=" + *profile;
  add("a=fmtp:" + payloadType + ' ' + parameters);
}

void AnswerWriter::addVideo(const NegotiatedVideo& video) {
  const SdpSection& section = offer_.sections[video.section];
  add("a=sendonly");
  if (section.playoutDelay) addPlayoutDelay(*section.playoutDelay);
  addCodec(*section.findCodec(video.payloadType));
  addFeedback(video);
  if (video.rtxPayloadType) {
    const std::string rtx = std::to_string(*video.rtxPayloadType);
    add("a=rtpmap:" + rtx + " rtx/90000");
    add("a=fmtp:" + rtx + " apt=" + std::to_string(video.payloadType));
    add("a=ssrc-group:FID " + std::to_string(parameters_.videoSsrc) + ' ' + std::to_string(parameters_.videoRtxSsrc));
  }
  addSource(parameters_.videoSsrc, "video");
  if (video.rtxPayloadType) addSource(parameters_.videoRtxSsrc, "video");
  add("a=msid:" + parameters_.streamId + " video");
}

// What the viewer only receives, we only send (RFC 8285).
void AnswerWriter::addPlayoutDelay(const SdpExtmap& offered) {
  const char* direction = offered.direction == SdpDirection::kRecvOnly ? "/sendonly " : " ";
  add("a=extmap:" + std::to_string(offered.id) + direction + kPlayoutDelayUri);
}

void AnswerWriter::addFeedback(const NegotiatedVideo& video) {
  const std::string line = "a=rtcp-fb:" + std::to_string(video.payloadType);
  if (video.fir) add(line + " ccm fir");
  if (video.nack) add(line + " nack");
  if (video.pli) add(line + " nack pli");
}

void AnswerWriter::addAudio(const NegotiatedAudio& audio) {
  const SdpSection& section = offer_.sections[audio.section];
  if (audio.send && audio.receive) {
    add("a=sendrecv");
  } else {
    add(audio.send ? "a=sendonly" : "a=recvonly");
  }
  addCodec(*section.findCodec(audio.payloadType));
  if (!audio.send) return;
  addSource(parameters_.audioSsrc, "audio");
  add("a=msid:" + parameters_.streamId + " audio");
}

void AnswerWriter::addSource(std::uint32_t ssrc, const char* track) {
  const std::string line = "a=ssrc:" + std::to_string(ssrc);
  add(line + " cname:" + parameters_.cname);
  add(line + " msid:" + parameters_.streamId + ' ' + track);
}

}  // namespace

std::string WriteSdpAnswer(const SdpOffer& offer, const SdpNegotiation& negotiation,
                           const SdpAnswerParameters& parameters) {
  return AnswerWriter(offer, negotiation, parameters).write();
}

}  // namespace kovra
