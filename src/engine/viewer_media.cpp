#include "viewer_media.h"

#include <openssl/rand.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "h264_packetizer.h"

namespace kovra {

namespace {

// At 2 Mbit/s five seconds, at 8 more than one: longer than viewers go on asking. A replay goes out at once, and is
// asked for while what follows it is already being sent.
constexpr std::size_t kHistoryPackets = 1024;
static_assert(RecentFrames::kMaxPackets + 256 <= kHistoryPackets);
// A full socket buffer drains in about this time.
constexpr Micros kRetryInterval{5'000};
// An honest viewer has two or three SSRCs; each costs memory in libsrtp.
constexpr std::size_t kMaxSenders = 8;

template <typename Number>
Number RandomNumber() {
  Number number{};
  RAND_bytes(reinterpret_cast<unsigned char*>(&number), sizeof(number));
  return number;
}

// RFC 3550, 5.1: begin in the lower half, so that the first packets are not taken for older ones.
std::uint16_t RandomSequence() { return static_cast<std::uint16_t>(RandomNumber<std::uint16_t>() & 0x7FFF); }

RtpSenderConfig VideoConfig(const NegotiatedVideo& video, const MediaIdentity& identity) {
  RtpSenderConfig config;
  config.ssrc = identity.videoSsrc;
  config.payloadType = video.payloadType;
  config.clockRate = kVideoClockRate;
  config.firstSequence = RandomSequence();
  config.timestampOffset = RandomNumber<std::uint32_t>();
  config.historyPackets = video.nack ? kHistoryPackets : 0;
  config.playoutDelayId = video.playoutDelayId;
  if (video.rtxPayloadType) config.rtx = RtxConfig{identity.videoRtxSsrc, *video.rtxPayloadType, RandomSequence()};
  return config;
}

RtpSenderConfig AudioConfig(const NegotiatedAudio& audio, const MediaIdentity& identity) {
  RtpSenderConfig config;
  config.ssrc = identity.audioSsrc;
  config.payloadType = audio.payloadType;
  config.clockRate = kPcmuClockRate;
  config.firstSequence = RandomSequence();
  config.timestampOffset = RandomNumber<std::uint32_t>();
  return config;
}

}  // namespace

ViewerMedia::ViewerMedia(const SdpNegotiation& negotiation, MediaIdentity identity, Micros wallClock,
                         PacketBatch& batch, Send send, OnTalk onTalk)
    : identity_(std::move(identity)),
      wallClock_(wallClock),
      batch_(batch),
      send_(std::move(send)),
      onTalk_(std::move(onTalk)),
      reception_(kPcmuClockRate) {
  if (negotiation.video) video_.emplace(VideoConfig(*negotiation.video, identity_));
  if (negotiation.audio && negotiation.audio->send) audio_.emplace(AudioConfig(*negotiation.audio, identity_));
  if (negotiation.audio && negotiation.audio->receive) talkPayloadType_ = negotiation.audio->payloadType;
}

void ViewerMedia::prepare(Micros now) {
  if (!wantedSince_) wantedSince_ = now;
}

void ViewerMedia::open(SrtpTransport srtp) {
  srtp_.emplace(std::move(srtp));
  gate_.close();  // whatever it has let pass was not sent
}

void ViewerMedia::sendVideo(const FrameRef& frame, Micros now) {
  if (!wantedSince_ || !video_) return;
  const bool admitted = gate_.admit(*frame, now);
  if (!srtp_) return;  // it is replayed when the keys are there
  if (!admitted) {
    ++counts_.droppedFrames;
    return;
  }
  const bool late = nextFrame_ < waiting_.size() && now - waiting_[nextFrame_].since > kMaxWaiting;
  if (late || waitingPackets_ + frame->packetCount() > kMaxWaitingPackets) {
    dropWaiting();
    if (!frame->isKeyFrame()) {
      gate_.close();
      ++counts_.droppedFrames;
      return;
    }
  }
  waiting_.push_back({frame, now, 0});
  waitingPackets_ += frame->packetCount();
  if (!retryAt_) pump(now);
}

void ViewerMedia::sendAudio(const FrameRef& frame, Micros now) {
  if (!srtp_ || !audio_) return;
  batch_.clear();
  for (std::size_t i = 0; i < frame->packetCount(); ++i) {
    const std::size_t size = audio_->writePacket(frame, i, now, batch_.room());
    batch_.add(srtp_->protectRtp(batch_.room(), size));
  }
  counts_.audioPackets += batch_.count();
  // What does not go out now is too late later.
  send_(batch_, 0);
}

void ViewerMedia::restartVideo(Micros now) {
  if (wantedSince_) wantedSince_ = now;
  dropWaiting();
  gate_.close();
}

void ViewerMedia::replayVideo(const std::vector<RecentFrame>& frames, Micros now) {
  constexpr std::uint32_t kTicksBetween = 9;  // a tenth of a millisecond
  if (!video_ || !wantedSince_ || frames.empty()) return;
  std::uint32_t timestamp =
      ToRtpTicks(now, kVideoClockRate) - static_cast<std::uint32_t>(frames.size() - 1) * kTicksBetween;
  for (const RecentFrame& recent : frames) {
    gate_.admit(*recent.frame, recent.arrived);
    waiting_.push_back({recent.frame, now, timestamp - recent.frame->timestamp()});
    waitingPackets_ += recent.frame->packetCount();
    timestamp += kTicksBetween;
  }
  // Where the source makes key frames on demand, a new one ends the dependence on so long a past. One that came after
  // it was wanted was made for this viewer already.
  if (frames.front().arrived < *wantedSince_) gate_.onPli(now, Micros{0});
  if (!retryAt_) pump(now);
}

// Sends what waits until all is gone or the path is full.
void ViewerMedia::pump(Micros now) {
  retryAt_.reset();
  if (!sendUnsent(now)) return;
  while (nextFrame_ < waiting_.size()) {
    fillBatch();
    if (!sendBatch(now)) break;
  }
  if (nextFrame_ == waiting_.size()) {
    waiting_.clear();
    nextFrame_ = 0;
  }
  if (!reported_) report(now);
}

void ViewerMedia::fillBatch() {
  batch_.clear();
  while (nextFrame_ < waiting_.size() && !batch_.isFull()) {
    const Waiting& next = waiting_[nextFrame_];
    const FrameRef& frame = next.frame;
    const std::size_t size = video_->writePacket(frame, nextPacket_, next.since, batch_.room(), next.timestampShift);
    batch_.add(srtp_->protectRtp(batch_.room(), size));
    ++counts_.videoPackets;
    --waitingPackets_;
    if (++nextPacket_ == frame->packetCount()) {
      waiting_[nextFrame_++].frame.reset();
      nextPacket_ = 0;
    }
  }
}

bool ViewerMedia::sendBatch(Micros now) {
  const std::size_t sent = send_(batch_, 0);
  if (sent == batch_.count()) return true;
  if (!unsent_) unsent_ = std::make_unique<PacketBatch>();
  unsent_->clear();
  firstUnsent_ = 0;
  for (std::size_t i = sent; i < batch_.count(); ++i) {
    const ByteView packet = batch_.packet(i);
    std::memcpy(unsent_->room(), packet.data, packet.size);
    unsent_->add(packet.size);
  }
  retryAt_ = now + kRetryInterval;
  return false;
}

bool ViewerMedia::sendUnsent(Micros now) {
  if (!unsent_) return true;
  firstUnsent_ = send_(*unsent_, firstUnsent_);
  if (firstUnsent_ == unsent_->count()) return true;
  retryAt_ = now + kRetryInterval;
  return false;
}

void ViewerMedia::dropWaiting() {
  counts_.droppedFrames += waiting_.size() - nextFrame_;
  waiting_.clear();
  nextFrame_ = 0;
  nextPacket_ = 0;
  waitingPackets_ = 0;
}

bool ViewerMedia::receive(std::uint8_t* packet, std::size_t size, Micros now) {
  constexpr std::size_t kMinBytes = 12;
  if (!srtp_ || size < kMinBytes) return false;
  return IsRtcp({packet, size}) ? receiveRtcp(packet, size, now) : receiveRtp(packet, size, now);
}

bool ViewerMedia::isKnownSender(std::uint32_t ssrc) const {
  return std::find(senders_.begin(), senders_.end(), ssrc) != senders_.end();
}

void ViewerMedia::rememberSender(std::uint32_t ssrc) {
  if (!isKnownSender(ssrc)) senders_.push_back(ssrc);
}

bool ViewerMedia::receiveRtcp(std::uint8_t* packet, std::size_t size, Micros now) {
  const std::uint32_t ssrc = ReadU32(packet + 4);
  if (senders_.size() >= kMaxSenders && !isKnownSender(ssrc)) return false;
  const std::size_t plain = srtp_->unprotectRtcp(packet, size);
  if (plain == 0) return false;
  rememberSender(ssrc);

  received_.clear();
  ReadRtcp({packet, plain}, received_);
  for (const RtcpReportBlock& block : received_.reportBlocks) {
    if (!video_ || block.ssrc != video_->ssrc()) continue;
    counts_.lostPackets = block.cumulativeLost;
    if (const auto roundTrip = RoundTripTime(block, ntpTime(now))) counts_.roundTrip = *roundTrip;
  }
  for (const RtcpSenderReport& report : received_.senderReports)
    reception_.onSenderReport(report.ssrc, report.info, now);
  for (const std::uint32_t mediaSsrc : received_.plis) {
    if (video_ && mediaSsrc == video_->ssrc()) gate_.onPli(now, counts_.roundTrip);
  }
  for (const RtcpFir& fir : received_.firs) {
    if (video_ && fir.mediaSsrc == video_->ssrc()) gate_.onFir(fir.commandSequence, now, counts_.roundTrip);
  }
  answerNacks(now);
  return true;
}

void ViewerMedia::answerNacks(Micros now) {
  // While the path is full, more packets would only be lost.
  if (!video_ || received_.nacks.empty() || retryAt_) return;
  batch_.clear();
  for (const RtcpNack& nack : received_.nacks) {
    if (nack.mediaSsrc != video_->ssrc()) continue;
    const std::size_t size = video_->writeRetransmission(nack.sequence, now, counts_.roundTrip, batch_.room());
    if (size == 0) continue;
    batch_.add(srtp_->protectRtp(batch_.room(), size));
    if (!batch_.isFull()) continue;
    send_(batch_, 0);
    batch_.clear();
  }
  if (batch_.count() > 0) send_(batch_, 0);
}

bool ViewerMedia::receiveRtp(std::uint8_t* packet, std::size_t size, Micros now) {
  const std::uint32_t ssrc = ReadU32(packet + 8);
  if (senders_.size() >= kMaxSenders && !isKnownSender(ssrc)) return false;
  const std::size_t plain = srtp_->unprotectRtp(packet, size);
  if (plain == 0) return false;
  rememberSender(ssrc);

  const auto read = ReadRtpPacket({packet, plain});
  if (!read || talkPayloadType_ != read->header.payloadType) return true;
  reception_.onPacket(read->header, now);
  jitterBuffer_.insert(*read, now);
  return true;
}

void ViewerMedia::report(Micros now) {
  if (!srtp_) return;
  writeReports(now);
  sendRtcp();
}

void ViewerMedia::sayGoodbye(Micros now) {
  if (!srtp_) return;
  writeReports(now);
  // A compound packet begins with a report, be it an empty one.
  if (rtcp_.empty()) WriteReceiverReport(identity_.videoSsrc, {}, rtcp_);
  std::vector<std::uint32_t> leaving;
  if (video_) leaving.push_back(video_->ssrc());
  if (audio_) leaving.push_back(audio_->ssrc());
  WriteBye(leaving, rtcp_);
  sendRtcp();
}

void ViewerMedia::writeReports(Micros now) {
  rtcp_.clear();
  const NtpTime wallClock = ntpTime(now);
  std::vector<RtcpReportBlock> blocks;
  if (const auto block = reception_.report(now)) blocks.push_back(*block);
  const auto video = video_ ? video_->senderInfo(now, wallClock) : std::nullopt;
  const auto audio = audio_ ? audio_->senderInfo(now, wallClock) : std::nullopt;
  if (video) {
    WriteSenderReport(identity_.videoSsrc, *video, {}, rtcp_);
    WriteSdes(identity_.videoSsrc, identity_.cname, rtcp_);
    reported_ = true;
  }
  if (audio) {
    WriteSenderReport(identity_.audioSsrc, *audio, blocks, rtcp_);
  } else if (!blocks.empty()) {
    WriteReceiverReport(identity_.audioSsrc, blocks, rtcp_);
  }
  if (audio || !blocks.empty()) WriteSdes(identity_.audioSsrc, identity_.cname, rtcp_);
}

void ViewerMedia::sendRtcp() {
  if (rtcp_.empty() || rtcp_.size() > kMaxRtpPacketBytes) return;
  batch_.clear();
  std::memcpy(batch_.room(), rtcp_.data(), rtcp_.size());
  batch_.add(srtp_->protectRtcp(batch_.room(), rtcp_.size()));
  if (batch_.count() > 0) send_(batch_, 0);
}

std::optional<Micros> ViewerMedia::deadline() const {
  std::optional<Micros> earliest;
  for (const std::optional<Micros>& due : {jitterBuffer_.nextDue(), retryAt_, gate_.deadline()}) {
    if (due && (!earliest || *due < *earliest)) earliest = due;
  }
  return earliest;
}

void ViewerMedia::onTime(Micros now) {
  gate_.onTime(now);
  if (retryAt_ && now >= *retryAt_) pump(now);
  JitterBuffer::Frame frame;
  while (jitterBuffer_.take(now, frame)) onTalk_(frame);
}

MediaCounts ViewerMedia::counts() const {
  MediaCounts counts = counts_;
  if (video_) counts.retransmissions = video_->retransmittedPackets();
  return counts;
}

}  // namespace kovra
