// RTP and RTCP with one viewer, from the moment its path works: frames out, feedback and talk-back in.
#ifndef SIGNALCONN_ENGINE_VIEWER_MEDIA_H
#define SIGNALCONN_ENGINE_VIEWER_MEDIA_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "jitter_buffer.h"
#include "key_frame_gate.h"
#include "media_frame.h"
#include "packet_batch.h"
#include "recent_frames.h"
#include "rtcp.h"
#include "rtp_reception.h"
#include "rtp_sender.h"
#include "sdp_negotiation.h"
#include "srtp_transport.h"

namespace kovra {

// What the answer and the packets say alike. Random for each session.
struct MediaIdentity {
  std::uint32_t videoSsrc = 0;
  std::uint32_t videoRtxSsrc = 0;
  std::uint32_t audioSsrc = 0;
  std::string cname;
};

// For the log.
struct MediaCounts {
  std::uint64_t videoPackets = 0;
  std::uint64_t audioPackets = 0;
  std::uint64_t retransmissions = 0;
  std::uint64_t droppedFrames = 0;
  std::int32_t lostPackets = 0;  // of video, as the viewer reports
  Micros roundTrip{0};           // 0: never measured
};

// Belongs to the network thread.
//
// Frames that the path cannot take at once wait, for at most kMaxWaiting: then they are dropped up to the next key
// frame. Nothing is kept beyond that.
class ViewerMedia {
 public:
  static constexpr Micros kMaxWaiting{1'000'000};
  static constexpr std::size_t kMaxWaitingPackets = 2048;

  // Sends the batch's packets from first on. Returns how many of the batch are done with; fewer than there are: the
  // path is full.
  using Send = std::function<std::size_t(const PacketBatch& batch, std::size_t first)>;
  using OnTalk = std::function<void(const JitterBuffer::Frame&)>;

  // batch is borrowed; it may be shared by all sessions, nothing stays in it. wallClock: the Unix time when the
  // monotonic clock was 0, for reports. onTalk is given each frame of talk-back when it is due.
  ViewerMedia(const SdpNegotiation& negotiation, MediaIdentity identity, Micros wallClock, PacketBatch& batch,
              Send send, OnTalk onTalk);

  // The viewer will be sent video: from the first call on a key frame is wanted.
  void prepare(Micros now);
  // The keys are there. Prepared.
  void open(SrtpTransport srtp);
  bool isOpen() const { return srtp_.has_value(); }

  void sendVideo(const FrameRef& frame, Micros now);
  void sendAudio(const FrameRef& frame, Micros now);
  // Another stream follows, or frames were lost before they came here.
  void restartVideo(Micros now);
  // Frames that the viewer has missed, from a key frame on. Their timestamps end with that of now, so that the viewer
  // shows the last one at once instead of playing what is past. Open.
  void replayVideo(const std::vector<RecentFrame>& frames, Micros now);
  bool wantsKeyFrame() const { return wantedSince_ && video_ && gate_.wantsKeyFrame(); }

  // A packet of the viewer's; decrypted in place. True when it was authentic.
  bool receive(std::uint8_t* packet, std::size_t size, Micros now);

  // Call it about once a second.
  void report(Micros now);
  // The last report, with BYE.
  void sayGoodbye(Micros now);

  // When onTime has something to do; nullopt: never.
  std::optional<Micros> deadline() const;
  void onTime(Micros now);

  MediaCounts counts() const;

 private:
  struct Waiting {
    FrameRef frame;
    Micros since;  // for sender reports, what the timestamp stands for
    std::uint32_t timestampShift;
  };

  void pump(Micros now);
  void fillBatch();
  bool sendBatch(Micros now);
  bool sendUnsent(Micros now);
  void dropWaiting();

  bool isKnownSender(std::uint32_t ssrc) const;
  void rememberSender(std::uint32_t ssrc);
  bool receiveRtcp(std::uint8_t* packet, std::size_t size, Micros now);
  bool receiveRtp(std::uint8_t* packet, std::size_t size, Micros now);
  void answerNacks(Micros now);
  NtpTime ntpTime(Micros now) const { return ToNtpTime(wallClock_ + now); }
  void writeReports(Micros now);
  void sendRtcp();

  const MediaIdentity identity_;
  const Micros wallClock_;
  PacketBatch& batch_;
  const Send send_;
  const OnTalk onTalk_;
  std::optional<SrtpTransport> srtp_;
  std::optional<Micros> wantedSince_;  // when a key frame was wanted to begin with, or to begin anew

  std::optional<RtpSender> video_;
  KeyFrameGate gate_;
  std::vector<Waiting> waiting_;  // frames to send, from nextFrame_ and its packet nextPacket_ on
  std::size_t nextFrame_ = 0;
  std::size_t nextPacket_ = 0;
  std::size_t waitingPackets_ = 0;
  std::unique_ptr<PacketBatch> unsent_;  // encrypted, but the path was full; null until that happens
  std::size_t firstUnsent_ = 0;
  std::optional<Micros> retryAt_;

  std::optional<RtpSender> audio_;
  std::optional<std::uint8_t> talkPayloadType_;  // nullopt: the viewer may not talk
  JitterBuffer jitterBuffer_;
  RtpReception reception_;

  RtcpCompound received_;
  std::vector<std::uint8_t> rtcp_;
  std::vector<std::uint32_t> senders_;
  bool reported_ = false;
  MediaCounts counts_;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_VIEWER_MEDIA_H
