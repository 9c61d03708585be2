#include "loopback_viewer.h"

#include <netdb.h>
#include <openssl/rand.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <future>
#include <utility>

#include "local_addresses.h"
#include "stun_message.h"

namespace kovra {

namespace {

constexpr char kUfrag[] = "view";
constexpr char kPassword[] = "viewerviewerviewerviewer";

std::string Hex(const std::vector<std::uint8_t>& digest) {
  std::string text;
  for (const std::uint8_t byte : digest) {
    char pair[4];
    std::snprintf(pair, sizeof(pair), "%02X", byte);
    text += (text.empty() ? "" : ":") + std::string(pair);
  }
  return text;
}

// A port of its own for connectivity checks to one candidate.
class CheckPort {
 public:
  explicit CheckPort(const IceCandidate& to) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* address = nullptr;
    if (getaddrinfo(to.address.c_str(), std::to_string(to.port).c_str(), &hints, &address) != 0) return;
    fd_ = socket(address->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const timeval resendAfter{1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &resendAfter, sizeof(resendAfter));
    connect(fd_, address->ai_addr, address->ai_addrlen);
    freeaddrinfo(address);
  }
  CheckPort(CheckPort&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  CheckPort(const CheckPort&) = delete;
  CheckPort& operator=(const CheckPort&) = delete;
  ~CheckPort() {
    if (fd_ >= 0) close(fd_);
  }

  void send(const std::vector<std::uint8_t>& check) const { ::send(fd_, check.data(), check.size(), 0); }

  // The check may get lost in a burst. False when nobody listens there any more.
  bool waitForAnswer(const std::vector<std::uint8_t>& check) const {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (std::chrono::steady_clock::now() < deadline) {
      std::array<std::uint8_t, 512> datagram;
      const ssize_t size = recv(fd_, datagram.data(), datagram.size(), 0);
      if (size < 0 && errno != EAGAIN) return false;
      if (size < 0) send(check);
      if (size > 0 && StunResponseTransaction({datagram.data(), static_cast<std::size_t>(size)})) return true;
    }
    return false;
  }

 private:
  int fd_ = -1;
};

}  // namespace

LoopbackViewer::LoopbackViewer(KovraStreamer& streamer, EngineEvents& events) : streamer_(streamer), events_(events) {
  iceContext_.context = network_.context();
  network_.start();
}

LoopbackViewer::~LoopbackViewer() {
  network_.stop([this] { ice_.reset(); });
}

std::string LoopbackViewer::makeOffer(const ViewerOffer& offer) {
  run([&] { startIce(offer); });
  gathered_.get_future().wait();
  return offerText(offer);
}

bool LoopbackViewer::call(const ViewerOffer& offer) {
  const std::string text = makeOffer(offer);
  KovraSessionConfig config;
  config.trickleIce = false;
  session_ = streamer_.createSession(config);
  if (session_ == 0 || streamer_.setRemoteOffer(session_, text) != 0) return false;
  if (!events_.waitFor(session_, [](const EngineEvents::Session& session) { return !session.answers.empty(); })) {
    return false;
  }
  const std::string answer = events_.session(session_).answers.front();
  run([&] { useAnswer(answer); });
  return true;
}

void LoopbackViewer::startIce(const ViewerOffer& offer) {
  IceSettings settings;
  settings.controlling = !offer.iceLite;
  settings.localUfrag = kUfrag;
  settings.localPassword = kPassword;
  settings.localAddresses = LocalAddresses(false);
  ice_ = IceAgent::Create(iceContext_, settings, *this);
  ice_->gather();
}

std::string LoopbackViewer::offerText(const ViewerOffer& offer) const {
  SdpFingerprint fingerprint = DtlsIdentity::Get()->fingerprint();
  if (offer.wrongFingerprint) fingerprint.digest[0] ^= 1;
  std::string transport = "c=IN IP4 0.0.0.0\r\na=rtcp-mux\r\na=ice-ufrag:" + std::string(kUfrag) +
                          "\r\na=ice-pwd:" + kPassword + "\r\na=fingerprint:sha-256 " + Hex(fingerprint.digest) +
                          "\r\na=setup:" + offer.setup + "\r\n";
  std::string text = "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\na=group:BUNDLE v a\r\n";
  if (offer.iceLite) text += "a=ice-lite\r\n";
  text += offer.rtx ? "m=video 9 UDP/TLS/RTP/SAVPF 102 103\r\n" : "m=video 9 UDP/TLS/RTP/SAVPF 102\r\n";
  text += transport +
          "a=mid:v\r\na=recvonly\r\na=rtpmap:102 H264/90000\r\n"
          "a=fmtp:102 packetization-mode=1;profile-level-id=42e01f\r\n"
          "a=rtcp-fb:102 nack\r\na=rtcp-fb:102 nack pli\r\na=rtcp-fb:102 ccm fir\r\n";
  if (offer.rtx) text += "a=rtpmap:103 rtx/90000\r\na=fmtp:103 apt=102\r\n";
  for (const IceCandidate& candidate : candidates_) text += "a=" + WriteIceCandidate(candidate) + "\r\n";
  return text + "m=audio 9 UDP/TLS/RTP/SAVPF 0\r\n" + transport + "a=mid:a\r\na=sendrecv\r\n";
}

void LoopbackViewer::useAnswer(const std::string& sdp) {
  std::string reason;
  const SdpOffer answer = ReadSdpOffer(sdp, reason).value();
  const SdpSection& section = answer_.emplace(answer.sections.front());
  const auto role = section.setup == SdpSetup::kPassive ? DtlsTransport::Role::kClient : DtlsTransport::Role::kServer;
  dtls_.emplace(*DtlsIdentity::Get(), role, section.fingerprints, [this](ByteView datagram) { ice_->send(datagram); });
  ice_->setRemoteCredentials(section.iceUfrag, section.icePassword);
  for (const IceCandidate& candidate : section.candidates) ice_->addRemoteCandidate(candidate);
}

void LoopbackViewer::onIceState(IceTransportState state) {
  if (state != IceTransportState::kConnected) return;
  dtls_->start();
  for (auto& datagram : std::exchange(early_, {})) onDatagram(datagram.data(), datagram.size());
}

void LoopbackViewer::onDatagram(std::uint8_t* data, std::size_t size) {
  if (!dtls_ || !ice_->isConnected()) {
    early_.emplace_back(data, data + size);
  } else if (data[0] < 64) {
    dtls_->receive({data, size});
    if (dtls_->state() == DtlsTransportState::kConnected && !srtp_) srtp_ = SrtpTransport::Create(*dtls_->srtpKeys());
    const std::lock_guard<std::mutex> lock(mutex_);
    dtlsState_ = dtls_->state();
    changed_.notify_all();
  } else if (srtp_) {
    receiveMedia(data, size);
  }
}

// Requests only: once the pairs are checked, nothing else is asked.
bool LoopbackViewer::onStun(ByteView message) {
  if (message.size < 2 || ReadU16(message.data) != 0x0001) return false;
  const std::lock_guard<std::mutex> lock(mutex_);
  ++consentChecks_;
  changed_.notify_all();
  if (consentChecksToLose_ == 0) return false;
  --consentChecksToLose_;
  return true;
}

void LoopbackViewer::loseConsentChecks(unsigned count) {
  const std::lock_guard<std::mutex> lock(mutex_);
  consentChecksToLose_ = count;
}

bool LoopbackViewer::waitForConsentChecks(unsigned count) {
  std::unique_lock<std::mutex> lock(mutex_);
  const unsigned before = consentChecks_;
  return changed_.wait_for(lock, kPatience, [&] { return consentChecks_ >= before + count; });
}

// SRTP leaves the header readable.
bool LoopbackViewer::isLost(ByteView datagram) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto packet = losing_ ? ReadRtpPacket(datagram) : std::nullopt;
  if (!packet || packet->header.payloadType != losing_) return false;
  losing_.reset();
  lost_ = packet->header;
  changed_.notify_all();
  return true;
}

void LoopbackViewer::receiveMedia(std::uint8_t* data, std::size_t size) {
  if (isLost({data, size})) return;
  const bool isRtcp = IsRtcp({data, size});
  const std::size_t plain = isRtcp ? srtp_->unprotectRtcp(data, size) : srtp_->unprotectRtp(data, size);
  if (plain == 0) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  if (isRtcp) {
    ReadRtcp({data, plain}, rtcp_.emplace_back());
  } else if (const auto packet = ReadRtpPacket({data, plain})) {
    ++received_.at(packet->header.payloadType);
    rtp_.push_back({packet->header, {packet->payload.data, packet->payload.data + packet->payload.size}});
  }
  changed_.notify_all();
}

bool LoopbackViewer::waitUntilConnected() {
  return waitForDtls(DtlsTransportState::kConnected) && events_.waitForState(session_, KOVRA_STATE_CONNECTED);
}

std::vector<LoopbackViewer::Received> LoopbackViewer::packets(std::uint8_t payloadType, std::size_t count) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, kPatience, [&] { return received_.at(payloadType) >= count; });
  std::vector<Received> found;
  std::copy_if(rtp_.begin(), rtp_.end(), std::back_inserter(found),
               [&](const Received& packet) { return packet.header.payloadType == payloadType; });
  return found;
}

void LoopbackViewer::waitForMore(std::uint8_t payloadType, std::size_t count) {
  std::unique_lock<std::mutex> lock(mutex_);
  const std::size_t until = received_.at(payloadType) + count;
  changed_.wait_for(lock, kPatience, [&] { return received_.at(payloadType) >= until; });
}

bool LoopbackViewer::waitForLast(std::uint8_t payloadType, const std::function<bool(const Received&)>& predicate) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, kPatience, [&] {
    const auto last = std::find_if(rtp_.rbegin(), rtp_.rend(),
                                   [&](const Received& packet) { return packet.header.payloadType == payloadType; });
    return last != rtp_.rend() && predicate(*last);
  });
}

std::optional<LoopbackViewer::Received> LoopbackViewer::waitForPacket(std::uint8_t payloadType,
                                                                      std::uint16_t sequence) {
  const auto find = [&] {
    return std::find_if(rtp_.begin(), rtp_.end(), [&](const Received& packet) {
      return packet.header.payloadType == payloadType && packet.header.sequence == sequence;
    });
  };
  std::unique_lock<std::mutex> lock(mutex_);
  if (!changed_.wait_for(lock, kPatience, [&] { return find() != rtp_.end(); })) return std::nullopt;
  return *find();
}

bool LoopbackViewer::waitForRtcp(const std::function<bool(const RtcpCompound&)>& predicate) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, kPatience, [&] { return std::any_of(rtcp_.begin(), rtcp_.end(), predicate); });
}

bool LoopbackViewer::waitForDtls(DtlsTransportState state) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, kPatience, [&] { return dtlsState_ == state; });
}

RtpHeader LoopbackViewer::losePacket(std::uint8_t payloadType) {
  std::unique_lock<std::mutex> lock(mutex_);
  lost_.reset();
  losing_ = payloadType;
  changed_.wait_for(lock, kPatience, [&] { return lost_.has_value(); });
  return lost_.value();
}

void LoopbackViewer::sendRtcp(std::vector<std::uint8_t> compound) {
  run([&] {
    const std::size_t size = compound.size();
    compound.resize(size + kMaxSrtpTrailerBytes);
    compound.resize(srtp_->protectRtcp(compound.data(), size));
    send(compound);
  });
}

void LoopbackViewer::sendVoice(std::uint16_t sequence, std::uint8_t sample, std::uint32_t ssrc) {
  run([&] {
    constexpr std::size_t kBytes = kRtpHeaderBytes + 160;
    std::vector<std::uint8_t> packet(kBytes + kMaxSrtpTrailerBytes, sample);
    WriteRtpHeader({false, 0, sequence, sequence * 160u, ssrc}, packet.data());
    packet.resize(srtp_->protectRtp(packet.data(), kBytes));
    send(packet);
    lastVoice_ = std::move(packet);
  });
}

void LoopbackViewer::repeatVoice() {
  run([&] { send(lastVoice_); });
}

void LoopbackViewer::sendRaw(std::vector<std::uint8_t> datagram) {
  run([&] { send(datagram); });
}

void LoopbackViewer::closeDtls() {
  run([&] { dtls_->close(); });
}

bool LoopbackViewer::checkFromPorts(unsigned count) {
  StunCheck check;
  check.username = answer_->iceUfrag + ":" + kUfrag;
  check.priority = 1;
  check.controlling = ice_->isControlling();
  std::vector<CheckPort> ports;
  std::vector<std::vector<std::uint8_t>> checks(count);
  for (auto& message : checks) {
    StunTransactionId transaction;
    RAND_bytes(transaction.data(), static_cast<int>(transaction.size()));
    WriteStunCheck(check, transaction, answer_->icePassword, message);
    ports.emplace_back(answer_->candidates.front());
  }
  for (unsigned i = 0; i < count; ++i) ports[i].send(checks[i]);
  for (unsigned i = 0; i < count; ++i) {
    if (!ports[i].waitForAnswer(checks[i])) return false;
  }
  return true;
}

std::function<void()> LoopbackViewer::freeze() {
  auto thaw = std::make_shared<std::promise<void>>();
  std::promise<void> frozen;
  network_.post([&frozen, thawed = thaw->get_future().share()] {
    frozen.set_value();
    thawed.wait();
  });
  frozen.get_future().wait();
  return [thaw] { thaw->set_value(); };
}

void LoopbackViewer::run(const std::function<void()>& task) {
  std::promise<void> done;
  network_.post([&] {
    task();
    done.set_value();
  });
  done.get_future().wait();
}

}  // namespace kovra
