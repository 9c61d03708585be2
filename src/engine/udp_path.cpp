#include "udp_path.h"

#include <netinet/in.h>
#include <netinet/udp.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace kovra {

namespace {

// Room for a large key frame; the kernel cuts it to what it allows.
constexpr int kSendBufferBytes = 1 << 20;
// Of one datagram before it is segmented: what fits behind an IPv6 and a UDP header.
constexpr std::size_t kMaxRunBytes = 65535 - 40 - 8;
// Messages for one sendmmsg.
constexpr std::size_t kMaxRuns = 32;

bool IsBufferFull(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == ENOBUFS; }

// A kernel without segmentation offload does not heed its control messages: a run would leave as one datagram.
bool CanSegment(int socket) {
  const int off = 0;
  return setsockopt(socket, SOL_UDP, UDP_SEGMENT, &off, sizeof(off)) == 0;
}

// What a network device without segmentation offload answers.
bool IsSegmentationRefused(int error) { return error == EINVAL || error == EIO || error == EMSGSIZE; }

}  // namespace

struct UdpPath::Run {
  std::size_t end = 0;  // behind its last packet
  iovec bytes{};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(std::uint16_t))> control{};

  // Writes the size of the segments for the kernel.
  void segment(msghdr& header, std::size_t packetBytes) {
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    cmsghdr* message = CMSG_FIRSTHDR(&header);
    message->cmsg_level = SOL_UDP;
    message->cmsg_type = UDP_SEGMENT;
    message->cmsg_len = CMSG_LEN(sizeof(std::uint16_t));
    const auto size = static_cast<std::uint16_t>(packetBytes);
    std::memcpy(CMSG_DATA(message), &size, sizeof(size));
  }
};

UdpPath::UdpPath(int socket, const sockaddr_storage& to)
    : to_(to),
      toBytes_(to.ss_family == AF_INET6 ? socklen_t{sizeof(sockaddr_in6)} : socklen_t{sizeof(sockaddr_in)}),
      segmentation_(CanSegment(socket)) {
  setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof(kSendBufferBytes));
}

std::size_t UdpPath::send(int socket, const PacketBatch& batch, std::size_t first) {
  while (first < batch.count()) {
    std::array<Run, kMaxRuns> runs;
    std::array<mmsghdr, kMaxRuns> messages{};
    unsigned int count = 0;
    for (std::size_t begin = first; begin < batch.count() && count < kMaxRuns; begin = runs[count++].end) {
      Run& run = runs[count];
      run.end = endOfRun(batch, begin);
      const ByteView bytes = batch.span(begin, run.end);
      run.bytes = {const_cast<std::uint8_t*>(bytes.data), bytes.size};  // only read by sendmmsg
      msghdr& header = messages[count].msg_hdr;
      header.msg_name = &to_;
      header.msg_namelen = toBytes_;
      header.msg_iov = &run.bytes;
      header.msg_iovlen = 1;
      if (run.end - begin > 1) run.segment(header, batch.packet(begin).size);
    }
    const int sent = sendmmsg(socket, messages.data(), count, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent > 0) {
      first = runs[static_cast<std::size_t>(sent) - 1].end;
    } else if (IsBufferFull(errno)) {
      break;
    } else if (segmentation_ && runs[0].end - first > 1 && IsSegmentationRefused(errno)) {
      segmentation_ = false;
    } else if (errno != EINTR) {
      first = runs[0].end;  // as lost as on the network
    }
  }
  return first;
}

// Of the packets that the kernel can cut from one buffer all but the last have the same size, and the last is no
// larger.
std::size_t UdpPath::endOfRun(const PacketBatch& batch, std::size_t first) const {
  const std::size_t size = batch.packet(first).size;
  std::size_t end = first + 1;
  while (segmentation_ && end < batch.count() && batch.packet(end).size <= size &&
         batch.span(first, end + 1).size <= kMaxRunBytes) {
    ++end;
    if (batch.packet(end - 1).size < size) break;
  }
  return end;
}

}  // namespace kovra
