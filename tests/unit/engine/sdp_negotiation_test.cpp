#include "sdp_negotiation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sdp_samples.h"

namespace kovra {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

std::optional<SdpNegotiation> TryNegotiate(const std::string& text, std::string& reason,
                                           SdpSetup preferred = SdpSetup::kPassive) {
  const std::optional<SdpOffer> offer = ReadSdpOffer(text, reason);
  EXPECT_TRUE(offer) << reason;
  if (!offer) return std::nullopt;
  return Negotiate(*offer, preferred, reason);
}

SdpNegotiation NegotiateText(const std::string& text, SdpSetup preferred = SdpSetup::kPassive) {
  std::string reason;
  std::optional<SdpNegotiation> result = TryNegotiate(text, reason, preferred);
  EXPECT_TRUE(result) << reason;
  return std::move(result).value_or(SdpNegotiation{});
}

std::string Refusal(const std::string& text) {
  std::string reason;
  return TryNegotiate(text, reason) ? "accepted" : reason;
}

const std::string kNothingServed = "no section with H.264 video or PCMU audio over DTLS-SRTP, with a mid and rtcp-mux";
const std::string kNoTransport = "no ICE credentials or no fingerprint that can be checked";

// One video section of its own, with these codec lines for the payload types.
std::string VideoOffer(const std::string& payloadTypes, const std::string& lines) {
  return kSessionLines + "m=video 9 UDP/TLS/RTP/SAVPF " + payloadTypes + "\r\n" + kTransportLines +
         "a=mid:v\r\na=recvonly\r\n" + lines;
}

std::string H264Lines(const std::string& payloadType, const std::string& parameters) {
  return "a=rtpmap:" + payloadType + " H264/90000\r\na=fmtp:" + payloadType + " " + parameters + "\r\n";
}

std::string AudioOffer(const std::string& direction) {
  return kSessionLines + Replaced(kAudioSection, "a=sendrecv", "a=" + direction);
}

TEST(Negotiate, ServesVideoAndAudioOfABrowserAndRejectsItsDataChannel) {
  const SdpNegotiation result = NegotiateText(kBrowserOffer);
  EXPECT_THAT(result.fates, ElementsAre(SectionFate::kServed, SectionFate::kServed, SectionFate::kRejected));
  ASSERT_TRUE(result.video);
  EXPECT_EQ(result.video->section, 0u);
  EXPECT_EQ(result.video->payloadType, 106);
  EXPECT_EQ(result.video->rtxPayloadType, 107);
  EXPECT_TRUE(result.video->nack);
  EXPECT_TRUE(result.video->pli);
  EXPECT_TRUE(result.video->fir);
  ASSERT_TRUE(result.audio);
  EXPECT_EQ(result.audio->section, 1u);
  EXPECT_EQ(result.audio->payloadType, 0);
  EXPECT_TRUE(result.audio->send);
  EXPECT_TRUE(result.audio->receive);
  EXPECT_TRUE(result.bundled);
  EXPECT_EQ(result.transportSection, 0u);
  EXPECT_EQ(result.mid, "0");
  EXPECT_EQ(result.iceUfrag, "EsAw");
  EXPECT_EQ(result.icePassword, "P2uYro0UCOQ4zxjKXaWCBui1");
  EXPECT_FALSE(result.iceLite);
  ASSERT_THAT(result.fingerprints, SizeIs(1));
  EXPECT_THAT(result.codecs, ElementsAre(106, 0, 0));
}

TEST(Negotiate, ServesVideoAndAudioOfFirefox) {
  const SdpNegotiation result = NegotiateText(kFirefoxOffer);
  EXPECT_THAT(result.fates, ElementsAre(SectionFate::kServed, SectionFate::kServed));
  ASSERT_TRUE(result.video);
  EXPECT_EQ(result.video->payloadType, 126);
  EXPECT_EQ(result.video->rtxPayloadType, 127);
  EXPECT_TRUE(result.video->nack && result.video->pli && result.video->fir);
  EXPECT_EQ(result.video->playoutDelayId, 6);
  // Its direction is the session's.
  ASSERT_TRUE(result.audio);
  EXPECT_EQ(result.audio->payloadType, 0);
  EXPECT_TRUE(result.audio->send && result.audio->receive);

  EXPECT_TRUE(result.bundled);
  EXPECT_EQ(result.mid, "0");
  EXPECT_EQ(result.iceUfrag, "3fa9c16e");
  EXPECT_EQ(result.icePassword, "7d1e5f0b9c3a2864f1e0d9c8b7a69584");
  ASSERT_THAT(result.fingerprints, SizeIs(1));
  EXPECT_EQ(result.fingerprints[0].digest[0], 0x6B);
  ASSERT_THAT(result.candidates, SizeIs(2));
  EXPECT_EQ(result.candidates[0].port, 51372);
  EXPECT_EQ(result.candidates[1].transport, IceTransport::kTcp);
}

TEST(Negotiate, ServesAudioOfFirefoxWithATransportOfItsOwnButNotWhereItIsStopped) {
  const std::string transport =
      "a=ice-ufrag:77aa21c0\r\na=ice-pwd:00112233445566778899aabbccddeeff\r\na=rtcp-mux\r\na=setup:actpass\r\n";
  const std::string own = Replaced(Replaced(kFirefoxOffer, "m=audio 0", "m=audio 9"), "a=bundle-only\r\n", transport);
  EXPECT_THAT(NegotiateText(own).fates, ElementsAre(SectionFate::kServed, SectionFate::kServed));
  EXPECT_EQ(NegotiateText(own).iceUfrag, "3fa9c16e");
  EXPECT_THAT(NegotiateText(Without(kFirefoxOffer, "a=bundle-only\r\n")).fates,
              ElementsAre(SectionFate::kServed, SectionFate::kRejected));
}

TEST(Negotiate, TakesSingleNalUnitModeWithItsRetransmissionOfFirefoxWithoutTheOther) {
  const SdpNegotiation result = NegotiateText(Without(kFirefoxOffer, "a=rtpmap:126 H264/90000\r\n"));
  EXPECT_EQ(result.video->payloadType, 97);
  EXPECT_EQ(result.video->rtxPayloadType, 98);
}

TEST(Negotiate, PrefersProfilesThatMoreViewersDecode) {
  struct Case {
    const char* profiles[3];
    int chosen;
  };
  const Case kCases[] = {
      {{"64001f", "4d001f", "42001f"}, 98}, {{"42001f", "42e01f", "4d001f"}, 97}, {{"640c1f", "f4001f", "4d001f"}, 98},
      {{"64001f", "f4001f", "640c1f"}, 96}, {{"42c01f", "42e01f", "420000"}, 96}, {{"4D001F", "42E01F", "640000"}, 97},
      {{"42801f", "42401f", "42001f"}, 97},
  };
  for (const Case& c : kCases) {
    std::string lines;
    for (int i = 0; i < 3; ++i) {
      lines += H264Lines(std::to_string(96 + i), std::string("packetization-mode=1;profile-level-id=") + c.profiles[i]);
    }
    EXPECT_EQ(NegotiateText(VideoOffer("96 97 98", lines)).video->payloadType, c.chosen) << c.profiles[0];
  }
}

TEST(Negotiate, PrefersAnyProfileInMode1ToSingleNalUnitMode) {
  const std::string lines = H264Lines("96", "packetization-mode=0;profile-level-id=42e01f") +
                            H264Lines("97", "packetization-mode=1;profile-level-id=f4001f");
  const SdpNegotiation result = NegotiateText(VideoOffer("96 97", lines));
  EXPECT_EQ(result.video->payloadType, 97);
}

TEST(Negotiate, TakesSingleNalUnitModeWhenThereIsNothingElse) {
  EXPECT_EQ(NegotiateText(VideoOffer("96", H264Lines("96", "profile-level-id=42e01f"))).video->payloadType, 96);
  EXPECT_EQ(NegotiateText(VideoOffer("96", "a=rtpmap:96 H264/90000\r\n")).video->payloadType, 96);
}

TEST(Negotiate, PassesOverH264ThatItCannotServe) {
  const std::string lines = H264Lines("96", "packetization-mode=2;profile-level-id=42e01f") +
                            H264Lines("97", "packetization-mode=1;profile-level-id=42e0") +
                            H264Lines("98", "packetization-mode=1;profile-level-id=42e0zz") +
                            "a=rtpmap:99 H264/48000\r\na=rtpmap:100 H265/90000\r\n";
  EXPECT_EQ(Refusal(VideoOffer("96 97 98 99 100", lines)), kNothingServed);
}

TEST(Negotiate, UsesRetransmissionOnlyForTheChosenTypeAndWithNack) {
  const std::string h264 = H264Lines("96", "packetization-mode=1;profile-level-id=42e01f");
  const std::string nack = "a=rtcp-fb:96 nack\r\n";
  const std::string rtx = "a=rtpmap:97 rtx/90000\r\na=fmtp:97 apt=96\r\n";
  const std::string otherRtx = "a=rtpmap:97 rtx/90000\r\na=fmtp:97 apt=98\r\n";
  EXPECT_EQ(NegotiateText(VideoOffer("96 97", h264 + nack + rtx)).video->rtxPayloadType, 97);
  EXPECT_EQ(NegotiateText(VideoOffer("96 97", h264 + nack + otherRtx)).video->rtxPayloadType, std::nullopt);
  EXPECT_EQ(NegotiateText(VideoOffer("96 97", h264 + rtx)).video->rtxPayloadType, std::nullopt);
}

TEST(Negotiate, TakesOnlyFeedbackThatIsOffered) {
  const SdpNegotiation result =
      NegotiateText(VideoOffer("96", H264Lines("96", "packetization-mode=1") + "a=rtcp-fb:96 nack pli\r\n"));
  EXPECT_FALSE(result.video->nack);
  EXPECT_TRUE(result.video->pli);
  EXPECT_FALSE(result.video->fir);
}

TEST(Negotiate, FollowsTheDirectionOfAudio) {
  EXPECT_TRUE(NegotiateText(AudioOffer("sendrecv")).audio->send);
  EXPECT_TRUE(NegotiateText(AudioOffer("sendrecv")).audio->receive);
  EXPECT_FALSE(NegotiateText(AudioOffer("sendonly")).audio->send);
  EXPECT_TRUE(NegotiateText(AudioOffer("sendonly")).audio->receive);
  EXPECT_TRUE(NegotiateText(AudioOffer("recvonly")).audio->send);
  EXPECT_FALSE(NegotiateText(AudioOffer("recvonly")).audio->receive);
  EXPECT_EQ(Refusal(AudioOffer("inactive")), kNothingServed);
}

TEST(Negotiate, TakesPcmuUnderAnotherPayloadType) {
  const std::string text =
      Replaced(Replaced(AudioOffer("sendrecv"), "111 9 0 8", "111 9 77 8"), "rtpmap:0", "rtpmap:77");
  EXPECT_EQ(NegotiateText(text).audio->payloadType, 77);
}

TEST(Negotiate, DoesNotTakeStereoOrAnotherCodecForPcmu) {
  EXPECT_EQ(Refusal(Replaced(AudioOffer("sendrecv"), "PCMU/8000", "PCMU/8000/2")), kNothingServed);
  EXPECT_EQ(Refusal(Replaced(AudioOffer("sendrecv"), "PCMU/8000", "PCMU/16000")), kNothingServed);
  EXPECT_EQ(Refusal(Replaced(AudioOffer("sendrecv"), "0 PCMU/8000", "0 other/8000")), kNothingServed);
}

TEST(Negotiate, ServesVideoAlone) {
  const SdpNegotiation result = NegotiateText(kSessionLines + "a=group:BUNDLE 0\r\n" + kVideoSection);
  EXPECT_TRUE(result.video);
  EXPECT_FALSE(result.audio);
}

TEST(Negotiate, ServesAudioBesideVideoThatItCannotSend) {
  const std::string vp8Only = Replaced(kBrowserOffer, "H264/90000", "AV1/90000");
  const SdpNegotiation result = NegotiateText(vp8Only);
  EXPECT_THAT(result.fates, ElementsAre(SectionFate::kRejected, SectionFate::kServed, SectionFate::kRejected));
  EXPECT_EQ(result.transportSection, 1u);
  EXPECT_EQ(result.mid, "1");
}

TEST(Negotiate, AnswersVideoThatTheViewerOnlySendsInactive) {
  const SdpNegotiation result = NegotiateText(Replaced(kBrowserOffer, "a=recvonly", "a=sendonly"));
  EXPECT_THAT(result.fates, ElementsAre(SectionFate::kInactive, SectionFate::kServed, SectionFate::kRejected));
  EXPECT_FALSE(result.video);
  EXPECT_EQ(result.transportSection, 0u);
  EXPECT_EQ(result.codecs[0], 106);
}

TEST(Negotiate, ServesTheFirstOfTwoVideosAndLeavesTheSecondInactive) {
  const std::string second = Replaced(kVideoSection, "a=mid:0", "a=mid:3");
  const SdpNegotiation result =
      NegotiateText(kSessionLines + "a=group:BUNDLE 0 3 1\r\n" + kVideoSection + second + kAudioSection);
  EXPECT_THAT(result.fates, ElementsAre(SectionFate::kServed, SectionFate::kInactive, SectionFate::kServed));
  EXPECT_EQ(result.video->section, 0u);
  EXPECT_EQ(result.audio->section, 2u);
}

TEST(Negotiate, ServesVideoRatherThanAudioWhereTheyDoNotBundle) {
  const SdpNegotiation result = NegotiateText(kSessionLines + kAudioSection + kVideoSection);
  EXPECT_THAT(result.fates, ElementsAre(SectionFate::kRejected, SectionFate::kServed));
  EXPECT_FALSE(result.bundled);
  EXPECT_EQ(result.mid, "0");
}

TEST(Negotiate, ServesTheGroupThatHoldsVideo) {
  const std::string otherAudio = Replaced(kAudioSection, "a=mid:1", "a=mid:7");
  const SdpNegotiation result = NegotiateText(kSessionLines + "a=group:BUNDLE 7\r\na=group:BUNDLE 1 0\r\n" +
                                              otherAudio + kAudioSection + kVideoSection);
  EXPECT_THAT(result.fates, ElementsAre(SectionFate::kRejected, SectionFate::kServed, SectionFate::kServed));
  EXPECT_EQ(result.mid, "1");  // first of its group
  EXPECT_EQ(result.transportSection, 1u);
}

TEST(Negotiate, IgnoresGroupMembersThatDoNotExist) {
  EXPECT_TRUE(NegotiateText(Replaced(kBrowserOffer, "BUNDLE 0", "BUNDLE 9 0")).video);
}

TEST(Negotiate, TakesTheTransportOfASectionThatHasOne) {
  // As browsers offer with the policy "max-bundle": what only bundles has port 0 and no transport of its own.
  std::string audio = Without(kAudioSection, kTransportLines);
  audio = Replaced(Replaced(audio, "m=audio 9", "m=audio 0"), "a=mid:1", "a=bundle-only\r\na=mid:1");
  const SdpNegotiation result = NegotiateText(kSessionLines + "a=group:BUNDLE 1 0\r\n" + audio + kVideoSection);
  EXPECT_THAT(result.fates, ElementsAre(SectionFate::kServed, SectionFate::kServed));
  EXPECT_EQ(result.transportSection, 1u);
  EXPECT_EQ(result.iceUfrag, "EsAw");
}

TEST(Negotiate, DoesNotTakeTheTransportOfASectionThatOnlyBundles) {
  const std::string audio =
      Replaced(Replaced(kAudioSection, "m=audio 9", "m=audio 0"), "a=mid:1", "a=bundle-only\r\na=mid:1");
  EXPECT_EQ(NegotiateText(kSessionLines + "a=group:BUNDLE 1 0\r\n" + audio + kVideoSection).transportSection, 1u);
}

TEST(Negotiate, LeavesRejectedSectionsRejected) {
  const SdpNegotiation result = NegotiateText(Replaced(kBrowserOffer, "m=audio 9", "m=audio 0"));
  EXPECT_THAT(result.fates, ElementsAre(SectionFate::kServed, SectionFate::kRejected, SectionFate::kRejected));
}

TEST(Negotiate, RejectsSectionsWithoutMidOrMultiplexing) {
  EXPECT_THAT(NegotiateText(Without(kBrowserOffer, "a=mid:1\r\n")).fates[1], SectionFate::kRejected);
  const std::string audio = Without(kAudioSection, "a=rtcp-mux\r\n");
  EXPECT_THAT(NegotiateText(kSessionLines + "a=group:BUNDLE 0 1\r\n" + kVideoSection + audio).fates[1],
              SectionFate::kRejected);
}

TEST(Negotiate, RejectsAudioWhosePayloadTypeIsTheVideos) {
  const std::string audio = Replaced(Replaced(kAudioSection, "111 9 0 8", "111 9 106 8"), "rtpmap:0", "rtpmap:106");
  const SdpNegotiation result = NegotiateText(kSessionLines + "a=group:BUNDLE 1 0\r\n" + audio + kVideoSection);
  EXPECT_THAT(result.fates, ElementsAre(SectionFate::kRejected, SectionFate::kServed));
  EXPECT_EQ(result.transportSection, 1u);
}

TEST(Negotiate, RefusesWhenTheOnlyTransportIsThatOfARejectedSection) {
  const std::string audio = Replaced(Replaced(kAudioSection, "111 9 0 8", "111 9 106 8"), "rtpmap:0", "rtpmap:106");
  const std::string video = Replaced(Replaced(Without(kVideoSection, kTransportLines), "m=video 9", "m=video 0"),
                                     "a=mid:0", "a=bundle-only\r\na=mid:0");
  EXPECT_EQ(Refusal(kSessionLines + "a=group:BUNDLE 1 0\r\n" + audio + video),
            "the only section with ICE credentials and a fingerprint cannot be served");
}

TEST(Negotiate, RefusesWhatCannotBeServed) {
  EXPECT_EQ(Refusal(kSessionLines + "a=group:BUNDLE 2\r\n" + kDataSection), kNothingServed);
  EXPECT_EQ(Refusal(Without(Without(kBrowserOffer, "a=mid:0\r\n"), "a=mid:1\r\n")), kNothingServed);
  EXPECT_EQ(Refusal(Without(kBrowserOffer, "a=rtcp-mux\r\n")), kNothingServed);
  EXPECT_EQ(Refusal(Replaced(kBrowserOffer, "UDP/TLS/RTP/SAVPF", "RTP/AVP")), kNothingServed);
}

TEST(Negotiate, RefusesAnOfferWithoutTransport) {
  EXPECT_EQ(Refusal(Without(kBrowserOffer, "a=fingerprint:sha-256 " + kSha256Digest + "\r\n")), kNoTransport);
  EXPECT_EQ(Refusal(Replaced(kBrowserOffer, "sha-256", "sha-1")), kNoTransport);
  EXPECT_EQ(Refusal(Without(kBrowserOffer, "a=ice-ufrag:EsAw\r\n")), kNoTransport);
  EXPECT_EQ(Refusal(Without(kBrowserOffer, "a=ice-pwd:P2uYro0UCOQ4zxjKXaWCBui1\r\n")), kNoTransport);
}

TEST(Negotiate, RefusesCredentialsThatIceForbids) {
  EXPECT_EQ(Refusal(Replaced(kBrowserOffer, "EsAw", "Esa")), kNoTransport);
  EXPECT_EQ(Refusal(Replaced(kBrowserOffer, "EsAw", "Es:w")), kNoTransport);
  EXPECT_EQ(Refusal(Replaced(kBrowserOffer, "EsAw", std::string(257, 'a'))), kNoTransport);
  EXPECT_EQ(Refusal(Replaced(kBrowserOffer, "P2uYro0UCOQ4zxjKXaWCBui1", std::string(21, 'a'))), kNoTransport);
  EXPECT_EQ(Refusal(Replaced(kBrowserOffer, "P2uYro0UCOQ4zxjKXaWCBui1", std::string(256, 'a'))), "accepted");
  EXPECT_EQ(Refusal(Replaced(kBrowserOffer, "P2uYro0UCOQ4zxjKXaWCBui1", std::string(257, 'a'))), kNoTransport);
}

TEST(Negotiate, ChoosesItsRoleInDtlsWhereTheOfferLeavesTheChoice) {
  const std::string active = Replaced(kBrowserOffer, "setup:actpass", "setup:active");
  const std::string passive = Replaced(kBrowserOffer, "setup:actpass", "setup:passive");
  const std::string none = Without(kBrowserOffer, "a=setup:actpass\r\n");
  EXPECT_EQ(NegotiateText(kBrowserOffer, SdpSetup::kActive).setup, SdpSetup::kActive);
  EXPECT_EQ(NegotiateText(kBrowserOffer, SdpSetup::kPassive).setup, SdpSetup::kPassive);
  EXPECT_EQ(NegotiateText(active, SdpSetup::kActive).setup, SdpSetup::kPassive);
  EXPECT_EQ(NegotiateText(passive, SdpSetup::kPassive).setup, SdpSetup::kActive);
  EXPECT_EQ(NegotiateText(none, SdpSetup::kActive).setup, SdpSetup::kPassive);
}

TEST(Negotiate, ChecksTheStrongestAlgorithm) {
  std::string strong;
  for (int i = 0; i < 64; ++i) strong += i == 0 ? "AB" : ":AB";
  const std::string lines = "a=fingerprint:sha-512 " + strong + "\r\na=fingerprint:sha-256 ";
  const SdpNegotiation result = NegotiateText(Replaced(kBrowserOffer, "a=fingerprint:sha-256 ", lines));
  ASSERT_THAT(result.fingerprints, SizeIs(1));
  EXPECT_EQ(result.fingerprints[0].algorithm, "sha-512");
}

TEST(Negotiate, KeepsAllFingerprintsOfTheStrongestAlgorithm) {
  const std::string line = "a=fingerprint:sha-256 " + kSha256Digest + "\r\n";
  const SdpNegotiation result = NegotiateText(Replaced(kBrowserOffer, line, line + Replaced(line, "6B:8B", "00:00")));
  EXPECT_THAT(result.fingerprints, SizeIs(2));
}

TEST(Negotiate, HandsOverCandidatesOfTheTransportOnce) {
  const std::string candidates =
      "a=candidate:1 1 udp 2 192.0.2.1 5000 typ host\r\n"
      "a=candidate:1 2 udp 1 192.0.2.1 5001 typ host\r\n"
      "a=candidate:2 1 udp 3 192.0.2.1 5000 typ host\r\n"
      "a=candidate:3 1 tcp 3 192.0.2.1 5000 typ host tcptype active\r\n"
      "a=end-of-candidates\r\n";
  const SdpNegotiation result = NegotiateText(Replaced(kBrowserOffer, "a=mid:0\r\n", "a=mid:0\r\n" + candidates));
  ASSERT_THAT(result.candidates, SizeIs(2));
  EXPECT_EQ(result.candidates[0].priority, 2u);
  EXPECT_EQ(result.candidates[1].transport, IceTransport::kTcp);
}

TEST(Negotiate, TellsThatTheViewerIsLite) {
  EXPECT_TRUE(NegotiateText(Replaced(kBrowserOffer, "t=0 0\r\n", "t=0 0\r\na=ice-lite\r\n")).iceLite);
}

}  // namespace
}  // namespace kovra
