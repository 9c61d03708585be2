#include "sdp_offer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sdp_samples.h"

namespace kovra {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

SdpOffer Read(const std::string& text) {
  std::string reason;
  std::optional<SdpOffer> offer = ReadSdpOffer(text, reason);
  EXPECT_TRUE(offer) << reason;
  return std::move(offer).value_or(SdpOffer{});
}

// The reason of the refusal; "accepted" without one.
std::string Refusal(const std::string& text) {
  std::string reason;
  return ReadSdpOffer(text, reason) ? "accepted" : reason;
}

std::string Section(const std::string& lines) { return kSessionLines + "m=video 9 UDP/TLS/RTP/SAVPF 96\r\n" + lines; }

std::vector<std::string> FeedbackOf(const SdpCodec& codec) {
  std::vector<std::string> kinds;
  if (codec.nack) kinds.emplace_back("nack");
  if (codec.pli) kinds.emplace_back("pli");
  if (codec.fir) kinds.emplace_back("fir");
  return kinds;
}

std::string Digest(std::size_t bytes) {
  std::string text = "0a";
  for (std::size_t i = 1; i < bytes; ++i) text += ":Bc";
  return text;
}

TEST(ReadSdpOffer, ReadsTheOfferOfABrowser) {
  const SdpOffer offer = Read(kBrowserOffer);
  ASSERT_THAT(offer.sections, SizeIs(3));
  EXPECT_THAT(offer.bundleGroups, ElementsAre(ElementsAre("0", "1", "2")));
  EXPECT_FALSE(offer.iceLite);

  const SdpSection& video = offer.sections[0];
  EXPECT_EQ(video.media, "video");
  EXPECT_EQ(video.port, 9);
  EXPECT_EQ(video.protocol, "UDP/TLS/RTP/SAVPF");
  EXPECT_EQ(video.mid, "0");
  EXPECT_EQ(video.direction, SdpDirection::kRecvOnly);
  EXPECT_EQ(video.iceUfrag, "EsAw");
  EXPECT_EQ(video.icePassword, "P2uYro0UCOQ4zxjKXaWCBui1");
  EXPECT_EQ(video.setup, SdpSetup::kActPass);
  EXPECT_TRUE(video.rtcpMux);
  EXPECT_FALSE(video.isRejected());
  ASSERT_THAT(video.fingerprints, SizeIs(1));
  EXPECT_EQ(video.fingerprints[0].algorithm, "sha-256");
  ASSERT_THAT(video.fingerprints[0].digest, SizeIs(32));
  EXPECT_EQ(video.fingerprints[0].digest[0], 0x6B);
  EXPECT_EQ(video.fingerprints[0].digest[31], 0x08);

  EXPECT_EQ(offer.sections[1].direction, SdpDirection::kSendRecv);
  EXPECT_EQ(offer.sections[2].media, "application");
  EXPECT_EQ(offer.sections[2].formats, "webrtc-datachannel");
  EXPECT_THAT(offer.sections[2].codecs, SizeIs(0));
}

TEST(ReadSdpOffer, ReadsCodecsInTheOrderOfTheMediaLine) {
  const SdpOffer offer = Read(kBrowserOffer);
  std::vector<int> types;
  for (const SdpCodec& codec : offer.sections[0].codecs) types.push_back(codec.payloadType);
  EXPECT_THAT(types, ElementsAre(96, 97, 102, 103, 104, 106, 107, 108, 109));

  const SdpCodec* h264 = offer.sections[0].findCodec(106);
  ASSERT_NE(h264, nullptr);
  EXPECT_EQ(h264->name, "H264");
  EXPECT_TRUE(h264->isNamed("h264"));
  EXPECT_EQ(h264->clockRate, 90000u);
  EXPECT_EQ(h264->parameter("profile-level-id"), "42e01f");
  EXPECT_EQ(h264->parameter("Packetization-Mode"), "1");
  EXPECT_EQ(h264->parameter("sprop-parameter-sets"), std::nullopt);
  EXPECT_THAT(FeedbackOf(*h264), ElementsAre("nack", "pli", "fir"));
  EXPECT_THAT(FeedbackOf(*offer.sections[0].findCodec(104)), ElementsAre("nack"));
  EXPECT_THAT(FeedbackOf(*offer.sections[0].findCodec(108)), ElementsAre());
  EXPECT_EQ(offer.sections[1].findCodec(111)->channels, 2u);
  EXPECT_EQ(offer.sections[1].findCodec(0)->channels, 1u);
  EXPECT_EQ(offer.sections[1].findCodec(5), nullptr);
}

TEST(ReadSdpOffer, KnowsPcmuWithoutRtpmap) {
  const SdpOffer offer = Read(kSessionLines + "m=audio 9 UDP/TLS/RTP/SAVPF 0 8\r\n");
  EXPECT_TRUE(offer.sections[0].findCodec(0)->isNamed("PCMU"));
  EXPECT_EQ(offer.sections[0].findCodec(0)->clockRate, 8000u);
  EXPECT_EQ(offer.sections[0].findCodec(8)->name, "");
}

TEST(ReadSdpOffer, ReadsParametersWithBlanksBetweenThem) {
  const SdpOffer offer = Read(Section("a=fmtp:96  packetization-mode = 1 ; profile-level-id=42E01F;flag\r\n"));
  const SdpCodec& codec = offer.sections[0].codecs[0];
  EXPECT_EQ(codec.parameter("packetization-mode"), "1");
  EXPECT_EQ(codec.parameter("profile-level-id"), "42E01F");
  EXPECT_EQ(codec.parameter("flag"), "");
}

TEST(ReadSdpOffer, JoinsTheParametersOfSeveralLines) {
  const SdpOffer offer = Read(Section("a=fmtp:96 packetization-mode=1\r\na=fmtp:96 profile-level-id=42e01f\r\n"));
  const SdpCodec& codec = offer.sections[0].codecs[0];
  EXPECT_EQ(codec.parameter("packetization-mode"), "1");
  EXPECT_EQ(codec.parameter("profile-level-id"), "42e01f");
}

TEST(ReadSdpOffer, GivesFeedbackForAllTypesToEach) {
  const SdpOffer offer = Read(kSessionLines +
                              "m=video 9 UDP/TLS/RTP/SAVPF 96 97\r\n"
                              "a=rtcp-fb:* nack\r\n"
                              "a=rtcp-fb:97 ccm fir\r\n"
                              "a=rtcp-fb:98 nack pli\r\n");
  EXPECT_THAT(FeedbackOf(offer.sections[0].codecs[0]), ElementsAre("nack"));
  EXPECT_THAT(FeedbackOf(offer.sections[0].codecs[1]), ElementsAre("nack", "fir"));
}

TEST(ReadSdpOffer, TellsTheKindsOfFeedbackApart) {
  const auto feedback = [](const std::string& kind) {
    return FeedbackOf(Read(Section("a=rtcp-fb:96 " + kind + "\r\n")).sections[0].codecs[0]);
  };
  EXPECT_THAT(feedback("nack"), ElementsAre("nack"));
  EXPECT_THAT(feedback(" nack pli "), ElementsAre("pli"));
  EXPECT_THAT(feedback("ccm fir"), ElementsAre("fir"));
  for (const char* kind : {"", "pli", "fir", "ccm", "nack sli", "nack rpsi", "ccm tmmbr", "goog-remb", "nackpli"}) {
    EXPECT_THAT(feedback(kind), ElementsAre()) << kind;
  }
}

TEST(ReadSdpOffer, IgnoresAttributesOfTypesThatAreNotInTheSection) {
  const SdpOffer offer = Read(Section("a=rtpmap:97 H264/90000\r\na=fmtp:97 apt=96\r\n"));
  EXPECT_THAT(offer.sections[0].codecs, SizeIs(1));
}

TEST(ReadSdpOffer, TakesAMappingItCannotReadForAnUnknownCodec) {
  EXPECT_EQ(Read(Section("a=rtpmap:96 H264\r\n")).sections[0].codecs[0].name, "");
  EXPECT_EQ(Read(Section("a=rtpmap:96 H264/fast\r\n")).sections[0].codecs[0].name, "");
}

TEST(ReadSdpOffer, InheritsTransportAndDirectionFromTheSession) {
  const SdpOffer offer = Read(kSessionLines +
                              "a=ice-ufrag:sess\r\na=ice-pwd:sessionsessionsession22\r\n"
                              "a=fingerprint:SHA-256 " +
                              kSha256Digest +
                              "\r\n"
                              "a=setup:active\r\na=sendonly\r\n"
                              "m=audio 9 UDP/TLS/RTP/SAVPF 0\r\n"
                              "m=video 9 UDP/TLS/RTP/SAVPF 96\r\n"
                              "a=ice-ufrag:medi\r\na=ice-pwd:mediamediamediamedia22\r\n"
                              "a=fingerprint:sha-384 " +
                              Digest(48) +
                              "\r\n"
                              "a=setup:passive\r\na=inactive\r\n");
  const SdpSection& audio = offer.sections[0];
  EXPECT_EQ(audio.iceUfrag, "sess");
  EXPECT_EQ(audio.icePassword, "sessionsessionsession22");
  EXPECT_EQ(audio.fingerprints[0].algorithm, "sha-256");
  EXPECT_EQ(audio.setup, SdpSetup::kActive);
  EXPECT_EQ(audio.direction, SdpDirection::kSendOnly);
  const SdpSection& video = offer.sections[1];
  EXPECT_EQ(video.iceUfrag, "medi");
  ASSERT_THAT(video.fingerprints, SizeIs(1));
  EXPECT_EQ(video.fingerprints[0].algorithm, "sha-384");
  EXPECT_EQ(video.setup, SdpSetup::kPassive);
  EXPECT_EQ(video.direction, SdpDirection::kInactive);
}

TEST(ReadSdpOffer, KeepsNoCredentialsLongerThanIceAllows) {
  const std::string longest(256, 'a');
  const SdpOffer offer = Read(kSessionLines + "a=ice-ufrag:" + longest + "\r\na=ice-pwd:" + longest +
                              "\r\n"
                              "m=audio 9 UDP/TLS/RTP/SAVPF 0\r\n"
                              "m=video 9 UDP/TLS/RTP/SAVPF 96\r\n"
                              "a=ice-ufrag:" +
                              longest + "a\r\na=ice-pwd:" + longest + "a\r\n");
  EXPECT_EQ(offer.sections[0].iceUfrag, longest);
  EXPECT_EQ(offer.sections[0].icePassword, longest);
  // Nor has it those of the session then.
  EXPECT_EQ(offer.sections[1].iceUfrag, "");
  EXPECT_EQ(offer.sections[1].icePassword, "");
}

TEST(ReadSdpOffer, SendsAndReceivesWithoutADirection) {
  EXPECT_EQ(Read(Section("")).sections[0].direction, SdpDirection::kSendRecv);
}

TEST(ReadSdpOffer, ReadsSeveralFingerprintsOfAlgorithmsThatCanBeChecked) {
  const SdpOffer offer = Read(Section("a=fingerprint:sha-1 AA:BB\r\na=fingerprint:sha-256 " + Digest(32) +
                                      "\r\na=fingerprint:SHA-512 " + Digest(64) + "\r\na=fingerprint:md5 zz\r\n"));
  ASSERT_THAT(offer.sections[0].fingerprints, SizeIs(2));
  EXPECT_EQ(offer.sections[0].fingerprints[1].algorithm, "sha-512");
  EXPECT_EQ(offer.sections[0].fingerprints[1].digest[1], 0xBC);
}

TEST(ReadSdpOffer, RefusesAFingerprintThatCannotBeRead) {
  const std::string right = Digest(32);
  for (const std::string& digest : {Digest(31), Digest(33), Replaced(right, "0a", "0g"), Replaced(right, "0a", "-1"),
                                    Replaced(right, "0a:", "0a."), std::string(), right + ":"}) {
    EXPECT_EQ(Refusal(Section("a=fingerprint:sha-256 " + digest + "\r\n")), "a fingerprint that cannot be read")
        << digest;
  }
}

TEST(ReadSdpOffer, ReadsCandidates) {
  const SdpOffer offer =
      Read(Section("a=candidate:1 1 udp 1 192.0.2.1 9 typ host\r\n"
                   "a=candidate:1 1 future 1 192.0.2.1 9 typ host\r\n"
                   "a=candidate:2 1 udp 1 abc.local 9 typ host generation 0\r\n"
                   "a=end-of-candidates\r\n"));
  ASSERT_THAT(offer.sections[0].candidates, SizeIs(2));
  EXPECT_EQ(offer.sections[0].candidates[0].address, "192.0.2.1");
  EXPECT_TRUE(offer.sections[0].candidates[1].hasLocalName());
}

TEST(ReadSdpOffer, TellsARejectedSectionFromOneThatOnlyBundles) {
  EXPECT_TRUE(Read(kSessionLines + "m=video 0 UDP/TLS/RTP/SAVPF 96\r\n").sections[0].isRejected());
  EXPECT_FALSE(Read(kSessionLines + "m=video 0 UDP/TLS/RTP/SAVPF 96\r\na=bundle-only\r\n").sections[0].isRejected());
}

TEST(ReadSdpOffer, ReadsSessionAttributes) {
  const SdpOffer offer = Read(kSessionLines +
                              "a=ice-lite\r\na=ice-options:ice2 trickle\r\n"
                              "a=group:LS x y\r\na=group:BUNDLE a b\r\na=group:BUNDLE c\r\n"
                              "m=video 9 UDP/TLS/RTP/SAVPF 96\r\n");
  EXPECT_TRUE(offer.iceLite);
  EXPECT_THAT(offer.bundleGroups, ElementsAre(ElementsAre("a", "b"), ElementsAre("c")));
}

TEST(ReadSdpOffer, LeavesAMidInTheFirstGroupThatNamesIt) {
  const auto groups = [](const std::string& lines) {
    return Read(kSessionLines + lines + "m=video 9 UDP/TLS/RTP/SAVPF 96\r\n").bundleGroups;
  };
  EXPECT_THAT(groups("a=group:BUNDLE 0 0 1 0\r\n"), ElementsAre(ElementsAre("0", "1")));
  EXPECT_THAT(groups("a=group:BUNDLE 0 1\r\na=group:BUNDLE 0 2 1\r\n"),
              ElementsAre(ElementsAre("0", "1"), ElementsAre("2")));
}

TEST(ReadSdpOffer, GroupsNoMoreMidsThanThereMayBeSections) {
  std::string lines;
  for (int group = 0; group < 16; ++group) {
    lines += "a=group:BUNDLE";
    for (int i = 0; i < 10; ++i) lines += " " + std::to_string(10 * group + i);
    lines += "\r\n";
  }
  std::size_t mids = 0;
  const SdpOffer offer = Read(kSessionLines + lines + "m=video 9 UDP/TLS/RTP/SAVPF 96\r\n");
  for (const std::vector<std::string>& group : offer.bundleGroups) mids += group.size();
  EXPECT_EQ(mids, 64u);
}

TEST(ReadSdpOffer, AcceptsLineFeedsAloneEmptyLinesAndAPortCount) {
  EXPECT_THAT(Read(Replaced(kBrowserOffer, "\r\n", "\n")).sections, SizeIs(3));
  EXPECT_THAT(Read(kBrowserOffer + "\r\n\r\n").sections, SizeIs(3));
  EXPECT_EQ(Read(kSessionLines + "m=video 49170/2 RTP/SAVPF 96").sections[0].port, 49170);
}

TEST(ReadSdpOffer, RefusesWhatIsNoSdp) {
  for (const char* text :
       {"", "garbage", "{\"type\":\"offer\"}", "v=1\r\nm=video 9 RTP/SAVPF 96\r\n", "o=- 1 1 IN IP4 x"}) {
    EXPECT_EQ(Refusal(text), "no SDP: does not begin with v=0") << text;
  }
  EXPECT_EQ(Refusal(kSessionLines + "garbage\r\n"), "a line that is not SDP");
  EXPECT_EQ(Refusal(kSessionLines + "x\r\n"), "a line that is not SDP");
}

TEST(ReadSdpOffer, RefusesControlCharacters) {
  EXPECT_EQ(Refusal(kSessionLines + "m=video 9 UDP/TLS/RTP/SAVPF 96\ra=mid:0\r\n"), "a line that is not SDP");
  EXPECT_EQ(Refusal(Section(std::string("a=mid:0\0x\r\n", 11))), "a line that is not SDP");
}

TEST(ReadSdpOffer, RefusesAnOfferWithoutMedia) { EXPECT_EQ(Refusal(kSessionLines), "no media section"); }

TEST(ReadSdpOffer, RefusesAMediaLineThatCannotBeRead) {
  for (const char* line : {"m=", "m=video", "m=video 9", "m=video 9 UDP/TLS/RTP/SAVPF", "m=video x RTP/SAVPF 96",
                           "m=video 65536 RTP/SAVPF 96", "m=vi(deo 9 RTP/SAVPF 96", "m=video -1 RTP/SAVPF 96"}) {
    EXPECT_EQ(Refusal(kSessionLines + line + "\r\n"), "an m= line that cannot be read") << line;
  }
  EXPECT_EQ(Refusal(kSessionLines + "m=video 9 RTP/SAVPF 128\r\n"), "a payload type that is none");
  EXPECT_EQ(Refusal(kSessionLines + "m=video 9 RTP/SAVPF h264\r\n"), "a payload type that is none");
  EXPECT_EQ(Refusal(kSessionLines + "m=video 9 RTP/SAVPF 96 96\r\n"), "a payload type twice in one section");
}

TEST(ReadSdpOffer, RefusesMidsThatCannotBeTold) {
  EXPECT_EQ(Refusal(Section("a=mid:\r\n")), "a mid that is no token");
  EXPECT_EQ(Refusal(Section("a=mid:a b\r\n")), "a mid that is no token");
  EXPECT_EQ(Refusal(Section("a=mid:" + std::string(256, 'a') + "\r\n")), "a mid that is no token");
  EXPECT_EQ(Refusal(Section("a=mid:a\r\nm=audio 9 UDP/TLS/RTP/SAVPF 0\r\na=mid:a\r\n")), "the same mid twice");
}

TEST(ReadSdpOffer, RefusesMoreThanTheLargestSize) {
  const std::string attribute = "a=x:" + std::string(994, 'x') + "\r\n";
  std::string text = Section("");
  while (text.size() + attribute.size() <= kMaxSdpBytes) text += attribute;
  EXPECT_EQ(Refusal(text), "accepted");
  EXPECT_EQ(Refusal(text + attribute), "too large");
}

TEST(ReadSdpOffer, RefusesAbsurdCounts) {
  std::string sections = kSessionLines;
  for (int i = 0; i < 64; ++i) sections += "m=audio 0 UDP/TLS/RTP/SAVPF 0\r\n";
  EXPECT_EQ(Refusal(sections), "accepted");
  EXPECT_EQ(Refusal(sections + "m=audio 0 UDP/TLS/RTP/SAVPF 0\r\n"), "too many media sections");

  std::string candidates;
  for (int i = 0; i < 257; ++i) candidates += "a=candidate:1 1 udp 1 192.0.2.1 9 typ host\r\n";
  EXPECT_EQ(Refusal(Section(candidates)), "too many candidates");

  std::string fingerprints;
  for (int i = 0; i < 17; ++i) fingerprints += "a=fingerprint:sha-256 " + kSha256Digest + "\r\n";
  EXPECT_EQ(Refusal(Section(fingerprints)), "too many fingerprints");

  std::string groups;
  for (int i = 0; i < 17; ++i) groups += "a=group:BUNDLE a\r\n";
  EXPECT_EQ(Refusal(kSessionLines + groups), "too many groups");
}

TEST(ReadSdpOffer, ReadsTheIdOfThePlayoutDelayExtension) {
  const std::string uri = " http://www.webrtc.org/experiments/rtp-hdrext/playout-delay\r\n";
  const auto id = [](const std::string& lines) -> std::optional<int> {
    const std::optional<SdpExtmap> extmap = Read(Section(lines)).sections[0].playoutDelay;
    return extmap ? std::optional<int>(extmap->id) : std::nullopt;
  };
  EXPECT_EQ(id("a=extmap:5" + uri), 5);
  EXPECT_EQ(id("a=extmap:14" + uri), 14);
  EXPECT_EQ(id("a=extmap:5/recvonly" + uri), 5);
  EXPECT_EQ(id("a=extmap:5 urn:ietf:params:rtp-hdrext:toffset\r\n"), std::nullopt);
  for (const char* word : {"0", "15", "x", "", "300", "5/", "5/both", "5/recvonly/", "/recvonly"}) {
    EXPECT_EQ(id(std::string("a=extmap:") + word + uri), std::nullopt) << word;
  }
}

TEST(ReadSdpOffer, TakesThePlayoutDelayExtensionOnlyWhereTheViewerReceivesIt) {
  const auto direction = [](const std::string& suffix) -> std::optional<SdpDirection> {
    const SdpOffer offer =
        Read(Section("a=extmap:5" + suffix + " http://www.webrtc.org/experiments/rtp-hdrext/playout-delay\r\n"));
    if (!offer.sections[0].playoutDelay) return std::nullopt;
    return offer.sections[0].playoutDelay->direction;
  };
  EXPECT_EQ(direction(""), SdpDirection::kSendRecv);
  EXPECT_EQ(direction("/sendrecv"), SdpDirection::kSendRecv);
  EXPECT_EQ(direction("/recvonly"), SdpDirection::kRecvOnly);
  EXPECT_EQ(direction("/sendonly"), std::nullopt);
  EXPECT_EQ(direction("/inactive"), std::nullopt);
}

}  // namespace
}  // namespace kovra
