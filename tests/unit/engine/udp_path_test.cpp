#include "udp_path.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

namespace kovra {
namespace {

// A UDP socket on loopback.
class Socket {
 public:
  explicit Socket(int family) : fd_(socket(family, SOCK_DGRAM, 0)) {
    sockaddr_storage any{};
    any.ss_family = static_cast<sa_family_t>(family);
    if (family == AF_INET) {
      reinterpret_cast<sockaddr_in&>(any).sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    } else {
      reinterpret_cast<sockaddr_in6&>(any).sin6_addr = in6addr_loopback;
    }
    usable_ = bind(fd_, reinterpret_cast<const sockaddr*>(&any),
                   family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6)) == 0;
    const timeval patience{20, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  }
  ~Socket() { close(fd_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  bool usable() const { return usable_; }
  int fd() const { return fd_; }
  sockaddr_storage address() const {
    sockaddr_storage own{};
    socklen_t size = sizeof(own);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&own), &size);
    return own;
  }
  std::vector<std::uint8_t> receive() const {
    std::vector<std::uint8_t> datagram(65536);
    const ssize_t size = recv(fd_, datagram.data(), datagram.size(), 0);
    datagram.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return datagram;
  }

 private:
  const int fd_;
  bool usable_ = false;
};

std::vector<std::uint8_t> Packet(std::size_t size, std::size_t index) {
  std::vector<std::uint8_t> packet(size, static_cast<std::uint8_t>(index));
  packet[0] = static_cast<std::uint8_t>(size);
  return packet;
}

PacketBatch Batch(const std::vector<std::size_t>& sizes) {
  PacketBatch batch;
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    std::memcpy(batch.room(), Packet(sizes[i], i).data(), sizes[i]);
    batch.add(sizes[i]);
  }
  return batch;
}

void ExpectArrival(int family, const std::vector<std::size_t>& sizes, std::size_t first = 0) {
  const Socket from(family);
  const Socket to(family);
  ASSERT_TRUE(from.usable() && to.usable());
  const PacketBatch batch = Batch(sizes);
  UdpPath path(from.fd(), to.address());
  EXPECT_EQ(path.send(from.fd(), batch, first), sizes.size());
  for (std::size_t i = first; i < sizes.size(); ++i) {
    EXPECT_EQ(to.receive(), Packet(sizes[i], i)) << i << " of " << sizes.size();
  }
}

TEST(UdpPath, SendsOnePacket) { ExpectArrival(AF_INET, {100}); }
TEST(UdpPath, SendsARunOfEqualPackets) { ExpectArrival(AF_INET, {1200, 1200, 1200, 1200, 300}); }
TEST(UdpPath, SendsPacketsOfAllSizes) {
  ExpectArrival(AF_INET, {20, 12, 900, 1180, 1180, 1180, 1100, 1180, 1, 1, 2, 3, 2, 1});
}
TEST(UdpPath, SendsFromAGivenPacketOn) { ExpectArrival(AF_INET, {1000, 1000, 1000, 1000}, 2); }
TEST(UdpPath, SendsMoreThanOneBufferHolds) {
  ExpectArrival(AF_INET, std::vector<std::size_t>(PacketBatch::kMaxPackets, PacketBatch::kPacketRoom));
}
TEST(UdpPath, SendsMoreRunsThanOneCallCarries) {
  std::vector<std::size_t> rising;
  for (std::size_t i = 0; i < PacketBatch::kMaxPackets; ++i) rising.push_back(10 + i);
  ExpectArrival(AF_INET, rising);
}
TEST(UdpPath, SendsOverIpv6) { ExpectArrival(AF_INET6, {1200, 1200, 1200, 300, 7}); }

// Local datagram sockets ignore the control message for segmentation, as kernels do that do not know it.
TEST(UdpPath, SendsPacketsOneByOneWhereTheKernelCannotSegment) {
  sockaddr_storage name{};
  name.ss_family = AF_UNIX;
  const std::string text = "udp-path" + std::to_string(getpid());
  std::memcpy(reinterpret_cast<sockaddr_un&>(name).sun_path + 1, text.data(), std::min<std::size_t>(text.size(), 13));
  const int to = socket(AF_UNIX, SOCK_DGRAM, 0);
  const int from = socket(AF_UNIX, SOCK_DGRAM, 0);
  ASSERT_EQ(bind(to, reinterpret_cast<const sockaddr*>(&name), sizeof(sockaddr_in)), 0);
  UdpPath path(from, name);
  EXPECT_EQ(path.send(from, Batch({700, 700, 700, 90}), 0), 4u);
  for (const ssize_t size : {700, 700, 700, 90}) {
    std::array<char, 4000> datagram;
    EXPECT_EQ(recv(to, datagram.data(), datagram.size(), MSG_DONTWAIT), size);
  }
  close(from);
  close(to);
}

TEST(UdpPath, GivesUpWhatTheSocketRefuses) {
  sockaddr_storage nowhere{};
  nowhere.ss_family = AF_INET;
  UdpPath path(-1, nowhere);
  EXPECT_EQ(path.send(-1, Batch({100, 100, 50, 60}), 0), 4u);
}

TEST(PacketBatch, KeepsPacketsBehindOneAnother) {
  PacketBatch batch = Batch({3, 5});
  batch.add(0);
  EXPECT_EQ(batch.count(), 2u);
  EXPECT_EQ(batch.packet(0).size, 3u);
  EXPECT_EQ(batch.packet(1).size, 5u);
  EXPECT_EQ(batch.packet(1).data, batch.packet(0).data + 3);
  EXPECT_EQ(batch.span(0, 2).size, 8u);
  batch.clear();
  EXPECT_EQ(batch.count(), 0u);
}

TEST(PacketBatch, IsFullAtItsLimit) {
  PacketBatch batch;
  while (!batch.isFull()) {
    std::memset(batch.room(), 1, PacketBatch::kPacketRoom);
    batch.add(PacketBatch::kPacketRoom);
  }
  EXPECT_EQ(batch.count(), PacketBatch::kMaxPackets);
}

}  // namespace
}  // namespace kovra
