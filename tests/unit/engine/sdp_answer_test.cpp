#include "sdp_answer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sdp_samples.h"

namespace kovra {
namespace {

using testing::HasSubstr;
using testing::Not;

SdpAnswerParameters Parameters() {
  SdpAnswerParameters parameters;
  parameters.sessionId = 4711;
  parameters.iceUfrag = "cam1";
  parameters.icePassword = "cameracameracameracamera";
  parameters.fingerprint.algorithm = "sha-256";
  for (int i = 0; i < 32; ++i) parameters.fingerprint.digest.push_back(static_cast<std::uint8_t>(i * 8 + 7));
  parameters.cname = "camera";
  parameters.streamId = "stream";
  parameters.videoSsrc = 1111;
  parameters.videoRtxSsrc = 2222;
  parameters.audioSsrc = 3333;
  return parameters;
}

std::string Answer(const std::string& text, const SdpAnswerParameters& parameters = Parameters(),
                   SdpSetup setup = SdpSetup::kPassive) {
  std::string reason;
  const std::optional<SdpOffer> offer = ReadSdpOffer(text, reason);
  EXPECT_TRUE(offer) << reason;
  const auto negotiation = Negotiate(*offer, setup, reason);
  EXPECT_TRUE(negotiation) << reason;
  return WriteSdpAnswer(*offer, *negotiation, parameters);
}

// Of an answer with Parameters().
std::string TransportLines(const std::string& setup) {
  return "a=ice-ufrag:cam1\r\n"
         "a=ice-pwd:cameracameracameracamera\r\n"
         "a=ice-options:trickle\r\n"
         "a=fingerprint:sha-256 "
         "07:0F:17:1F:27:2F:37:3F:47:4F:57:5F:67:6F:77:7F:87:8F:97:9F:A7:AF:B7:BF:C7:CF:D7:DF:E7:EF:F7:FF"
         "\r\n"
         "a=setup:" +
         setup + "\r\n";
}

// The section with this index, from its m= line on.
std::string SectionOf(const std::string& sdp, int index) {
  std::size_t begin = 0;
  for (int i = 0; i <= index; ++i) begin = sdp.find("m=", begin + 1);
  const std::size_t end = sdp.find("\r\nm=", begin);
  return sdp.substr(begin, end == std::string::npos ? std::string::npos : end + 2 - begin);
}

IceCandidate Candidate(const std::string& line) { return *ReadIceCandidate(line); }

TEST(WriteSdpAnswer, WritesTheWholeAnswerToABrowser) {
  const std::string transport = TransportLines("active");
  EXPECT_EQ(Answer(kBrowserOffer, Parameters(), SdpSetup::kActive),
            "v=0\r\n"
            "o=- 4711 2 IN IP4 127.0.0.1\r\n"
            "s=-\r\n"
            "t=0 0\r\n"
            "a=group:BUNDLE 0 1\r\n"
            "a=msid-semantic: WMS stream\r\n"
            "m=video 9 UDP/TLS/RTP/SAVPF 106 107\r\n"
            "c=IN IP4 0.0.0.0\r\n" +
                transport +
                "a=mid:0\r\n"
                "a=rtcp-mux\r\n"
                "a=sendonly\r\n"
                "a=rtpmap:106 H264/90000\r\n"
                "a=fmtp:106 level-asymmetry-allowed=1;packetization-mode=1;profile-level-id=42e01f\r\n"
                "a=rtcp-fb:106 ccm fir\r\n"
                "a=rtcp-fb:106 nack\r\n"
                "a=rtcp-fb:106 nack pli\r\n"
                "a=rtpmap:107 rtx/90000\r\n"
                "a=fmtp:107 apt=106\r\n"
                "a=ssrc-group:FID 1111 2222\r\n"
                "a=ssrc:1111 cname:camera\r\n"
                "a=ssrc:1111 msid:stream video\r\n"
                "a=ssrc:2222 cname:camera\r\n"
                "a=ssrc:2222 msid:stream video\r\n"
                "a=msid:stream video\r\n"
                "m=audio 9 UDP/TLS/RTP/SAVPF 0\r\n"
                "c=IN IP4 0.0.0.0\r\n" +
                transport +
                "a=mid:1\r\n"
                "a=rtcp-mux\r\n"
                "a=sendrecv\r\n"
                "a=rtpmap:0 PCMU/8000\r\n"
                "a=ssrc:3333 cname:camera\r\n"
                "a=ssrc:3333 msid:stream audio\r\n"
                "a=msid:stream audio\r\n"
                "m=application 0 UDP/DTLS/SCTP webrtc-datachannel\r\n"
                "c=IN IP4 0.0.0.0\r\n"
                "a=mid:2\r\n"
                "a=inactive\r\n");
}

TEST(WriteSdpAnswer, WritesTheWholeAnswerToFirefox) {
  const std::string transport = TransportLines("passive");
  EXPECT_EQ(Answer(kFirefoxOffer),
            "v=0\r\n"
            "o=- 4711 2 IN IP4 127.0.0.1\r\n"
            "s=-\r\n"
            "t=0 0\r\n"
            "a=group:BUNDLE 0 1\r\n"
            "a=msid-semantic: WMS stream\r\n"
            "m=video 9 UDP/TLS/RTP/SAVPF 126 127\r\n"
            "c=IN IP4 0.0.0.0\r\n" +
                transport +
                "a=mid:0\r\n"
                "a=rtcp-mux\r\n"
                "a=sendonly\r\n"
                "a=extmap:6/sendonly http://www.webrtc.org/experiments/rtp-hdrext/playout-delay\r\n"
                "a=rtpmap:126 H264/90000\r\n"
                "a=fmtp:126 level-asymmetry-allowed=1;packetization-mode=1;profile-level-id=42e01f\r\n"
                "a=rtcp-fb:126 ccm fir\r\n"
                "a=rtcp-fb:126 nack\r\n"
                "a=rtcp-fb:126 nack pli\r\n"
                "a=rtpmap:127 rtx/90000\r\n"
                "a=fmtp:127 apt=126\r\n"
                "a=ssrc-group:FID 1111 2222\r\n"
                "a=ssrc:1111 cname:camera\r\n"
                "a=ssrc:1111 msid:stream video\r\n"
                "a=ssrc:2222 cname:camera\r\n"
                "a=ssrc:2222 msid:stream video\r\n"
                "a=msid:stream video\r\n"
                "m=audio 9 UDP/TLS/RTP/SAVPF 0\r\n"
                "c=IN IP4 0.0.0.0\r\n" +
                transport +
                "a=mid:1\r\n"
                "a=rtcp-mux\r\n"
                "a=sendrecv\r\n"
                "a=rtpmap:0 PCMU/8000\r\n"
                "a=ssrc:3333 cname:camera\r\n"
                "a=ssrc:3333 msid:stream audio\r\n"
                "a=msid:stream audio\r\n");
}

TEST(WriteSdpAnswer, NamesTheSourcesOfARetransmissionOnlyWhereThereIsOne) {
  const std::string answer = Answer(Replaced(kBrowserOffer, "apt=106", "apt=1"));
  EXPECT_THAT(SectionOf(answer, 0), HasSubstr("m=video 9 UDP/TLS/RTP/SAVPF 106\r\n"));
  EXPECT_THAT(answer, Not(HasSubstr("FID")));
  EXPECT_THAT(answer, Not(HasSubstr("2222")));
  EXPECT_THAT(answer, HasSubstr("a=ssrc:1111 cname:camera\r\n"));
}

TEST(WriteSdpAnswer, AnswersTheDirectionOfAudio) {
  const std::string listening = Answer(Replaced(kBrowserOffer, "a=sendrecv", "a=recvonly"));
  EXPECT_THAT(SectionOf(listening, 1), HasSubstr("a=sendonly\r\n"));
  EXPECT_THAT(SectionOf(listening, 1), HasSubstr("a=ssrc:3333"));
  const std::string talking = Answer(Replaced(kBrowserOffer, "a=sendrecv", "a=sendonly"));
  EXPECT_THAT(SectionOf(talking, 1), HasSubstr("a=recvonly\r\n"));
  EXPECT_THAT(SectionOf(talking, 1), Not(HasSubstr("ssrc")));
  EXPECT_THAT(SectionOf(talking, 1), Not(HasSubstr("msid")));
}

TEST(WriteSdpAnswer, KeepsAnInactiveSectionInTheGroupWithACodecOnly) {
  const std::string answer = Answer(Replaced(kBrowserOffer, "a=recvonly", "a=sendonly"));
  EXPECT_THAT(answer, HasSubstr("a=group:BUNDLE 0 1\r\n"));
  const std::string video = SectionOf(answer, 0);
  EXPECT_THAT(video, HasSubstr("m=video 9 UDP/TLS/RTP/SAVPF 106\r\n"));
  EXPECT_THAT(video, HasSubstr("a=inactive\r\n"));
  EXPECT_THAT(video, HasSubstr("a=rtpmap:106 H264/90000\r\n"));
  EXPECT_THAT(video, Not(HasSubstr("ssrc")));
}

TEST(WriteSdpAnswer, RejectsWithTheFormatsOfTheOffer) {
  const std::string answer = Answer(Replaced(kBrowserOffer, "H264/90000", "AV1/90000"));
  EXPECT_THAT(answer, HasSubstr("a=group:BUNDLE 1\r\n"));
  EXPECT_EQ(SectionOf(answer, 0),
            "m=video 0 UDP/TLS/RTP/SAVPF 96 97 102 103 104 106 107 108 109\r\n"
            "c=IN IP4 0.0.0.0\r\n"
            "a=mid:0\r\n"
            "a=inactive\r\n");
}

TEST(WriteSdpAnswer, RejectsASectionWithoutMid) {
  const std::string answer = Answer(Without(kBrowserOffer, "a=mid:1\r\n"));
  EXPECT_EQ(SectionOf(answer, 1), "m=audio 0 UDP/TLS/RTP/SAVPF 111 9 0 8\r\nc=IN IP4 0.0.0.0\r\na=inactive\r\n");
}

TEST(WriteSdpAnswer, PutsTheSectionOfTheTransportFirstInTheGroup) {
  std::string audio = Without(kAudioSection, kTransportLines);
  audio = Replaced(Replaced(audio, "m=audio 9", "m=audio 0"), "a=mid:1", "a=bundle-only\r\na=mid:1");
  const std::string answer = Answer(kSessionLines + "a=group:BUNDLE 1 0\r\n" + audio + kVideoSection);
  EXPECT_THAT(answer, HasSubstr("a=group:BUNDLE 0 1\r\n"));
}

TEST(WriteSdpAnswer, HasNoGroupWhereTheOfferHadNone) {
  EXPECT_THAT(Answer(kSessionLines + kVideoSection), Not(HasSubstr("BUNDLE")));
}

TEST(WriteSdpAnswer, LeavesTheProfileOutWhereTheOfferDid) {
  const std::string answer = Answer(kSessionLines + "m=video 9 UDP/TLS/RTP/SAVPF 96\r\n" + kTransportLines +
                                    "a=mid:v\r\na=rtpmap:96 h264/90000\r\n");
  EXPECT_THAT(answer, HasSubstr("a=fmtp:96 level-asymmetry-allowed=1;packetization-mode=0\r\n"));
}

TEST(WriteSdpAnswer, HoldsAllCandidatesAndTheirEndWithoutTrickle) {
  SdpAnswerParameters parameters = Parameters();
  parameters.trickle = false;
  parameters.candidates = {Candidate("candidate:1 1 udp 9 192.0.2.1 5000 typ host"),
                           Candidate("candidate:2 1 udp 8 203.0.113.1 6000 typ srflx raddr 192.0.2.1 rport 5000"),
                           Candidate("candidate:3 1 tcp 9 192.0.2.1 5000 typ host tcptype passive")};
  const std::string answer = Answer(kBrowserOffer, parameters);
  const std::string video = SectionOf(answer, 0);
  EXPECT_THAT(video, HasSubstr("m=video 6000 "));
  EXPECT_THAT(video, HasSubstr("c=IN IP4 203.0.113.1\r\n"));
  EXPECT_THAT(video, HasSubstr("a=candidate:1 1 udp 9 192.0.2.1 5000 typ host\r\n"
                               "a=candidate:2 1 udp 8 203.0.113.1 6000 typ srflx raddr 192.0.2.1 rport 5000\r\n"
                               "a=candidate:3 1 tcp 9 192.0.2.1 5000 typ host tcptype passive\r\n"
                               "a=end-of-candidates\r\n"));
  EXPECT_THAT(answer, Not(HasSubstr("trickle")));
  EXPECT_THAT(SectionOf(answer, 1), Not(HasSubstr("candidate")));
}

TEST(WriteSdpAnswer, NamesAnIpv6DefaultAddressAsSuch) {
  SdpAnswerParameters parameters = Parameters();
  parameters.candidates = {Candidate("candidate:1 1 udp 9 2001:db8::1 5000 typ host")};
  EXPECT_THAT(Answer(kBrowserOffer, parameters), HasSubstr("c=IN IP6 2001:db8::1\r\n"));
}

TEST(WriteSdpAnswer, IsItselfReadable) {
  SdpAnswerParameters parameters = Parameters();
  parameters.candidates = {Candidate("candidate:1 1 udp 9 192.0.2.1 5000 typ host")};
  std::string reason;
  const std::optional<SdpOffer> read = ReadSdpOffer(Answer(kBrowserOffer, parameters), reason);
  ASSERT_TRUE(read) << reason;
  ASSERT_EQ(read->sections.size(), 3u);
  EXPECT_EQ(read->sections[0].iceUfrag, "cam1");
  EXPECT_EQ(read->sections[0].fingerprints[0], parameters.fingerprint);
  EXPECT_EQ(read->sections[0].candidates.size(), 1u);
  EXPECT_TRUE(read->sections[2].isRejected());
}

TEST(WriteSdpAnswer, TakesTheExtensionForPlayoutDelayWithItsId) {
  const std::string uri = " http://www.webrtc.org/experiments/rtp-hdrext/playout-delay";
  const std::string sdp = Answer(Replaced(kBrowserOffer, "a=mid:0\r\n", "a=mid:0\r\na=extmap:5" + uri + "\r\n"));
  EXPECT_THAT(SectionOf(sdp, 0), HasSubstr("\r\na=extmap:5" + uri + "\r\n"));
  EXPECT_THAT(SectionOf(sdp, 1), Not(HasSubstr("extmap")));
  EXPECT_THAT(Answer(kBrowserOffer), Not(HasSubstr("extmap")));
}

TEST(WriteSdpAnswer, SendsTheExtensionForPlayoutDelayThatTheViewerOnlyReceives) {
  const std::string uri = " http://www.webrtc.org/experiments/rtp-hdrext/playout-delay\r\n";
  const auto video = [&](const std::string& id) {
    return SectionOf(Answer(Replaced(kBrowserOffer, "a=mid:0\r\n", "a=mid:0\r\na=extmap:" + id + uri)), 0);
  };
  EXPECT_THAT(video("6/recvonly"), HasSubstr("\r\na=extmap:6/sendonly" + uri));
  EXPECT_THAT(video("6/sendrecv"), HasSubstr("\r\na=extmap:6" + uri));
  EXPECT_THAT(video("6/sendonly"), Not(HasSubstr("extmap")));
  EXPECT_THAT(video("6/inactive"), Not(HasSubstr("extmap")));
}

}  // namespace
}  // namespace kovra
