// Offers as browsers make them, and pieces to build others from.
#ifndef SIGNALCONN_TESTS_SDP_SAMPLES_H
#define SIGNALCONN_TESTS_SDP_SAMPLES_H

#include <string>

namespace kovra {

inline const std::string kSha256Digest =
    "6B:8B:F0:65:5F:78:E2:51:3B:AC:6F:F3:3F:46:1B:35:DC:B8:5F:64:1A:24:C2:43:F0:A1:58:D0:A1:2C:19:08";

inline const std::string kSessionLines =
    "v=0\r\n"
    "o=- 4962303333179871722 1 IN IP4 0.0.0.0\r\n"
    "s=-\r\n"
    "t=0 0\r\n";

inline const std::string kTransportLines =
    "c=IN IP4 0.0.0.0\r\n"
    "a=rtcp:9 IN IP4 0.0.0.0\r\n"
    "a=ice-ufrag:EsAw\r\n"
    "a=ice-pwd:P2uYro0UCOQ4zxjKXaWCBui1\r\n"
    "a=ice-options:trickle\r\n"
    "a=fingerprint:sha-256 " +
    kSha256Digest +
    "\r\n"
    "a=setup:actpass\r\n"
    "a=rtcp-mux\r\n"
    "a=rtcp-rsize\r\n";

inline const std::string kVideoCodecLines =
    "a=rtpmap:96 VP8/90000\r\n"
    "a=rtcp-fb:96 nack\r\n"
    "a=rtpmap:97 rtx/90000\r\n"
    "a=fmtp:97 apt=96\r\n"
    "a=rtpmap:102 H264/90000\r\n"
    "a=rtcp-fb:102 goog-remb\r\n"
    "a=rtcp-fb:102 transport-cc\r\n"
    "a=rtcp-fb:102 ccm fir\r\n"
    "a=rtcp-fb:102 nack\r\n"
    "a=rtcp-fb:102 nack pli\r\n"
    "a=fmtp:102 level-asymmetry-allowed=1;packetization-mode=1;profile-level-id=42001f\r\n"
    "a=rtpmap:103 rtx/90000\r\n"
    "a=fmtp:103 apt=102\r\n"
    "a=rtpmap:104 H264/90000\r\n"
    "a=rtcp-fb:104 nack\r\n"
    "a=fmtp:104 level-asymmetry-allowed=1;packetization-mode=0;profile-level-id=42e01f\r\n"
    "a=rtpmap:106 H264/90000\r\n"
    "a=rtcp-fb:106 goog-remb\r\n"
    "a=rtcp-fb:106 transport-cc\r\n"
    "a=rtcp-fb:106 ccm fir\r\n"
    "a=rtcp-fb:106 nack\r\n"
    "a=rtcp-fb:106 nack pli\r\n"
    "a=fmtp:106 level-asymmetry-allowed=1;packetization-mode=1;profile-level-id=42e01f\r\n"
    "a=rtpmap:107 rtx/90000\r\n"
    "a=fmtp:107 apt=106\r\n"
    "a=rtpmap:108 H264/90000\r\n"
    "a=fmtp:108 level-asymmetry-allowed=1;packetization-mode=1;profile-level-id=4d001f\r\n"
    "a=rtpmap:109 H264/90000\r\n"
    "a=fmtp:109 level-asymmetry-allowed=1;packetization-mode=1;profile-level-id=f4001f\r\n";

inline const std::string kVideoSection = "m=video 9 UDP/TLS/RTP/SAVPF 96 97 102 103 104 106 107 108 109\r\n" +
                                         kTransportLines +
                                         "a=mid:0\r\n"
                                         "a=extmap:1 urn:ietf:params:rtp-hdrext:toffset\r\n"
                                         "a=recvonly\r\n" +
                                         kVideoCodecLines;

inline const std::string kAudioCodecLines =
    "a=rtpmap:111 opus/48000/2\r\n"
    "a=fmtp:111 minptime=10;useinbandfec=1\r\n"
    "a=rtpmap:9 G722/8000\r\n"
    "a=rtpmap:0 PCMU/8000\r\n"
    "a=rtpmap:8 PCMA/8000\r\n";

inline const std::string kAudioSection = "m=audio 9 UDP/TLS/RTP/SAVPF 111 9 0 8\r\n" + kTransportLines +
                                         "a=mid:1\r\n"
                                         "a=sendrecv\r\n" +
                                         kAudioCodecLines +
                                         "a=ssrc:3735928559 cname:viewer\r\n"
                                         "a=msid:stream track\r\n";

inline const std::string kDataSection =
    "m=application 9 UDP/DTLS/SCTP webrtc-datachannel\r\n"
    "c=IN IP4 0.0.0.0\r\n"
    "a=ice-ufrag:EsAw\r\n"
    "a=ice-pwd:P2uYro0UCOQ4zxjKXaWCBui1\r\n"
    "a=ice-options:trickle\r\n"
    "a=fingerprint:sha-256 " +
    kSha256Digest +
    "\r\n"
    "a=setup:actpass\r\n"
    "a=mid:2\r\n"
    "a=sctp-port:5000\r\n";

// Video to receive, audio both ways, a data channel.
inline const std::string kBrowserOffer =
    kSessionLines + "a=group:BUNDLE 0 1 2\r\na=msid-semantic: WMS\r\n" + kVideoSection + kAudioSection + kDataSection;

// As Firefox makes one: the fingerprint and a direction at session level, parameters before the mapping, candidates of
// both components, header extensions with directions, audio that only bundles.
inline const std::string kFirefoxOffer =
    "v=0\r\n"
    "o=- 6046210473271882391 0 IN IP4 0.0.0.0\r\n"
    "s=-\r\n"
    "t=0 0\r\n"
    "a=sendrecv\r\n"
    "a=fingerprint:sha-256 " +
    kSha256Digest +
    "\r\n"
    "a=group:BUNDLE 0 1\r\n"
    "a=ice-options:trickle\r\n"
    "a=msid-semantic:WMS *\r\n"
    "m=video 51372 UDP/TLS/RTP/SAVPF 120 124 121 125 126 127 97 98 123 122 119\r\n"
    "c=IN IP4 192.0.2.7\r\n"
    "a=candidate:0 1 UDP 2122252543 192.0.2.7 51372 typ host\r\n"
    "a=candidate:1 1 TCP 2105524479 192.0.2.7 9 typ host tcptype active\r\n"
    "a=candidate:0 2 UDP 2122252542 192.0.2.7 42803 typ host\r\n"
    "a=candidate:1 2 TCP 2105524478 192.0.2.7 9 typ host tcptype active\r\n"
    "a=recvonly\r\n"
    "a=end-of-candidates\r\n"
    "a=extmap:3 urn:ietf:params:rtp-hdrext:sdes:mid\r\n"
    "a=extmap:4 http://www.webrtc.org/experiments/rtp-hdrext/abs-send-time\r\n"
    "a=extmap:5 urn:ietf:params:rtp-hdrext:toffset\r\n"
    "a=extmap:6/recvonly http://www.webrtc.org/experiments/rtp-hdrext/playout-delay\r\n"
    "a=extmap:7 http://www.ietf.org/id/draft-holmer-rmcat-transport-wide-cc-extensions-01\r\n"
    "a=fmtp:126 profile-level-id=42e01f;level-asymmetry-allowed=1;packetization-mode=1\r\n"
    "a=fmtp:97 profile-level-id=42e01f;level-asymmetry-allowed=1\r\n"
    "a=fmtp:120 max-fs=12288;max-fr=60\r\n"
    "a=fmtp:124 apt=120\r\n"
    "a=fmtp:121 max-fs=12288;max-fr=60\r\n"
    "a=fmtp:125 apt=121\r\n"
    "a=fmtp:127 apt=126\r\n"
    "a=fmtp:98 apt=97\r\n"
    "a=fmtp:119 apt=122\r\n"
    "a=ice-pwd:7d1e5f0b9c3a2864f1e0d9c8b7a69584\r\n"
    "a=ice-ufrag:3fa9c16e\r\n"
    "a=mid:0\r\n"
    "a=rtcp:42803 IN IP4 192.0.2.7\r\n"
    "a=rtcp-fb:120 nack\r\n"
    "a=rtcp-fb:120 nack pli\r\n"
    "a=rtcp-fb:120 ccm fir\r\n"
    "a=rtcp-fb:120 goog-remb\r\n"
    "a=rtcp-fb:120 transport-cc\r\n"
    "a=rtcp-fb:121 nack\r\n"
    "a=rtcp-fb:121 nack pli\r\n"
    "a=rtcp-fb:126 nack\r\n"
    "a=rtcp-fb:126 nack pli\r\n"
    "a=rtcp-fb:126 ccm fir\r\n"
    "a=rtcp-fb:126 goog-remb\r\n"
    "a=rtcp-fb:126 transport-cc\r\n"
    "a=rtcp-fb:97 nack\r\n"
    "a=rtcp-fb:97 nack pli\r\n"
    "a=rtcp-fb:97 ccm fir\r\n"
    "a=rtcp-mux\r\n"
    "a=rtcp-rsize\r\n"
    "a=rtpmap:120 VP8/90000\r\n"
    "a=rtpmap:124 rtx/90000\r\n"
    "a=rtpmap:121 VP9/90000\r\n"
    "a=rtpmap:125 rtx/90000\r\n"
    "a=rtpmap:126 H264/90000\r\n"
    "a=rtpmap:127 rtx/90000\r\n"
    "a=rtpmap:97 H264/90000\r\n"
    "a=rtpmap:98 rtx/90000\r\n"
    "a=rtpmap:123 ulpfec/90000\r\n"
    "a=rtpmap:122 red/90000\r\n"
    "a=rtpmap:119 rtx/90000\r\n"
    "a=setup:actpass\r\n"
    "a=ssrc:2184917364 cname:{5b0c7d4e-viewer}\r\n"
    "m=audio 0 UDP/TLS/RTP/SAVPF 109 9 0 8 101\r\n"
    "c=IN IP4 0.0.0.0\r\n"
    "a=bundle-only\r\n"
    "a=extmap:1 urn:ietf:params:rtp-hdrext:ssrc-audio-level\r\n"
    "a=extmap:2/recvonly urn:ietf:params:rtp-hdrext:csrc-audio-level\r\n"
    "a=extmap:3 urn:ietf:params:rtp-hdrext:sdes:mid\r\n"
    "a=fmtp:109 maxplaybackrate=48000;stereo=1;useinbandfec=1\r\n"
    "a=fmtp:101 0-15\r\n"
    "a=mid:1\r\n"
    "a=msid:- {c2f1a7d3-microphone}\r\n"
    "a=rtpmap:109 opus/48000/2\r\n"
    "a=rtpmap:9 G722/8000/1\r\n"
    "a=rtpmap:0 PCMU/8000\r\n"
    "a=rtpmap:8 PCMA/8000\r\n"
    "a=rtpmap:101 telephone-event/8000/1\r\n"
    "a=ssrc:1029384756 cname:{5b0c7d4e-viewer}\r\n";

// text with each place of from replaced.
inline std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

inline std::string Without(const std::string& text, const std::string& part) { return Replaced(text, part, ""); }

}  // namespace kovra

#endif  // SIGNALCONN_TESTS_SDP_SAMPLES_H
