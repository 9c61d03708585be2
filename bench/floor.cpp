// What sending a stream to viewers costs when nothing is done but the inevitable: each packet is copied for each
// viewer, protected with AES-128-GCM (RFC 7714) and given to a UDP socket on loopback, at the camera's pace. A child
// process receives and drops. Prints the processor time per viewer in per cent of one core.
//
//   bench_floor sendto|segment STREAM VIEWERS SECONDS
//
// sendto: one system call a packet. segment: packets of equal size go as one through the kernel (UDP_SEGMENT).
// STREAM holds access units as for bench_sender.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <poll.h>
#include <signal.h>
#include <srtp2/srtp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kHeaderBytes = 12;
constexpr std::size_t kPayloadBytes = 1200 - kHeaderBytes;
constexpr std::size_t kTagBytes = 16;
constexpr std::size_t kMaxSegments = 48;
constexpr auto kVideoInterval = std::chrono::milliseconds(50);
constexpr auto kAudioInterval = std::chrono::milliseconds(20);

[[noreturn]] void Fail(const char* what) {
  std::perror(what);
  std::exit(2);
}

std::vector<Bytes> ReadFrames(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ifstream sizes(path + ".sizes");
  std::vector<Bytes> frames;
  for (std::size_t size = 0; sizes >> size;) {
    frames.emplace_back(size);
    file.read(reinterpret_cast<char*>(frames.back().data()), static_cast<std::streamsize>(size));
  }
  if (!file || frames.empty()) Fail(path.c_str());
  return frames;
}

int MakeSocket() {
  const int made = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (made < 0 || bind(made, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) Fail("socket");
  return made;
}

class Viewer {
 public:
  Viewer(int receiver, bool segments) : socket_(MakeSocket()), segments_(segments), batch_(kMaxSegments * kRoom) {
    socklen_t size = sizeof(to_);
    getsockname(receiver, reinterpret_cast<sockaddr*>(&to_), &size);
    Bytes key(SRTP_AES_GCM_128_KEY_LEN_WSALT, 7);
    srtp_policy_t policy{};
    srtp_crypto_policy_set_aes_gcm_128_16_auth(&policy.rtp);
    srtp_crypto_policy_set_aes_gcm_128_16_auth(&policy.rtcp);
    policy.ssrc.type = ssrc_any_outbound;
    policy.key = key.data();
    if (srtp_create(&srtp_, &policy) != srtp_err_status_ok) Fail("srtp_create");
  }

  // One packet a payload piece, the RTP marker on the last.
  void send(const Bytes& frame, std::uint8_t payloadType, std::uint32_t timestamp) {
    for (std::size_t begin = 0; begin < frame.size(); begin += kPayloadBytes) {
      const std::size_t size = std::min(kPayloadBytes, frame.size() - begin);
      std::uint8_t* packet = batch_.data() + filled_;
      const bool isLast = begin + size == frame.size();
      writeHeader(packet, static_cast<std::uint8_t>(payloadType | (isLast ? 0x80 : 0)), timestamp);
      std::memcpy(packet + kHeaderBytes, frame.data() + begin, size);
      int length = static_cast<int>(kHeaderBytes + size);
      if (srtp_protect(srtp_, packet, &length) != srtp_err_status_ok) Fail("srtp_protect");
      filled_ += static_cast<std::size_t>(length);
      ++sent_;
      if (!segments_ || isLast || filled_ + kRoom > kMaxSegments * kRoom) flush();
    }
  }

  std::size_t sent() const { return sent_; }

 private:
  static constexpr std::size_t kRoom = kHeaderBytes + kPayloadBytes + kTagBytes + SRTP_MAX_TRAILER_LEN;

  void writeHeader(std::uint8_t* packet, std::uint8_t markerAndType, std::uint32_t timestamp) {
    const std::uint16_t sequence = htons(sequences_[markerAndType & 0x7f]++);
    const std::uint32_t time = htonl(timestamp);
    const std::uint32_t ssrc = htonl(1000u + (markerAndType & 0x7f));
    packet[0] = 0x80;
    packet[1] = markerAndType;
    std::memcpy(packet + 2, &sequence, sizeof(sequence));
    std::memcpy(packet + 4, &time, sizeof(time));
    std::memcpy(packet + 8, &ssrc, sizeof(ssrc));
  }

  void flush() {
    constexpr std::size_t segmentBytes = kHeaderBytes + kPayloadBytes + kTagBytes;
    iovec bytes{batch_.data(), filled_};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(std::uint16_t))> control{};
    msghdr message{};
    message.msg_name = &to_;
    message.msg_namelen = sizeof(to_);
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    if (filled_ > segmentBytes) {
      message.msg_control = control.data();
      message.msg_controllen = control.size();
      cmsghdr* header = CMSG_FIRSTHDR(&message);
      header->cmsg_level = SOL_UDP;
      header->cmsg_type = UDP_SEGMENT;
      header->cmsg_len = CMSG_LEN(sizeof(std::uint16_t));
      const auto size = static_cast<std::uint16_t>(segmentBytes);
      std::memcpy(CMSG_DATA(header), &size, sizeof(size));
    }
    const ssize_t result =
        segments_ ? sendmsg(socket_, &message, 0)
                  : sendto(socket_, batch_.data(), filled_, 0, reinterpret_cast<sockaddr*>(&to_), sizeof(to_));
    if (result != static_cast<ssize_t>(filled_)) Fail("send");
    filled_ = 0;
  }

  int socket_;
  bool segments_;
  sockaddr_in to_{};
  srtp_t srtp_ = nullptr;
  Bytes batch_;
  std::size_t filled_ = 0;
  std::array<std::uint16_t, 128> sequences_{};
  std::size_t sent_ = 0;
};

[[noreturn]] void Drain(const std::vector<int>& receivers) {
  std::vector<pollfd> polled;
  polled.reserve(receivers.size());
  for (const int receiver : receivers) polled.push_back({receiver, POLLIN, 0});
  std::array<char, 2048> packet;
  while (poll(polled.data(), polled.size(), -1) > 0) {
    for (const pollfd& one : polled) {
      if ((one.revents & POLLIN) == 0) continue;
      while (recv(one.fd, packet.data(), packet.size(), 0) > 0) {
      }
    }
  }
  std::_Exit(1);
}

double ProcessorSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Returns the processor time used, in seconds.
double SendFor(std::chrono::seconds duration, std::vector<std::unique_ptr<Viewer>>& viewers,
               const std::vector<Bytes>& frames) {
  const Bytes silence(160, 0xff);
  const double before = ProcessorSeconds();
  const Clock::time_point start = Clock::now();
  Clock::time_point videoDue = start;
  Clock::time_point audioDue = start;
  std::uint32_t audioTime = 0;
  for (std::size_t next = 0; std::min(videoDue, audioDue) < start + duration;) {
    std::this_thread::sleep_until(std::min(videoDue, audioDue));
    if (videoDue <= audioDue) {
      for (const auto& viewer : viewers)
        viewer->send(frames[next % frames.size()], 102, static_cast<std::uint32_t>(next) * 4500);
      ++next;
      videoDue += kVideoInterval;
    } else {
      for (const auto& viewer : viewers) viewer->send(silence, 0, audioTime);
      audioTime += 160;
      audioDue += kAudioInterval;
    }
  }
  return ProcessorSeconds() - before;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5 || srtp_init() != srtp_err_status_ok) return 2;
  const bool segments = std::string(argv[1]) == "segment";
  const std::vector<Bytes> frames = ReadFrames(argv[2]);
  const std::size_t count = std::strtoul(argv[3], nullptr, 10);
  const std::chrono::seconds duration(std::strtoul(argv[4], nullptr, 10));
  std::vector<int> receivers(count);
  std::generate(receivers.begin(), receivers.end(), MakeSocket);
  std::vector<std::unique_ptr<Viewer>> viewers;
  viewers.reserve(count);
  for (const int receiver : receivers) viewers.push_back(std::make_unique<Viewer>(receiver, segments));
  const pid_t child = fork();
  if (child == 0) Drain(receivers);
  if (child < 0) Fail("fork");
  const double used = SendFor(duration, viewers, frames);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  const double share = used / static_cast<double>(duration.count()) / static_cast<double>(count);
  std::printf("{\"perViewer\":%.4f,\"packetsPerSecond\":%.1f}\n", share * 100,
              static_cast<double>(viewers[0]->sent()) / static_cast<double>(duration.count()));
  return 0;
}
