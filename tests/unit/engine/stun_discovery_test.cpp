#include "stun_discovery.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "clock.h"

namespace kovra {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr Micros kPatience{30'000'000};  // far beyond what anything here takes

sockaddr_storage AddressOf(int fd) {
  sockaddr_storage own{};
  socklen_t size = sizeof(own);
  getsockname(fd, reinterpret_cast<sockaddr*>(&own), &size);
  return own;
}

int LoopbackSocket() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  sockaddr_in any{};
  any.sin_family = AF_INET;
  any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof(any)), 0);
  return fd;
}

// A server that says that everybody comes from 192.0.2.7:0x1234.
class Server {
 public:
  ~Server() { close(fd_); }

  sockaddr_storage address() const { return AddressOf(fd_); }
  int requests() const { return requests_; }
  void ignore(int requests) { ignored_ = requests; }
  void forge() { isForging_ = true; }

  void serve() {
    std::array<std::uint8_t, 32> message{};
    sockaddr_storage from{};
    socklen_t size = sizeof(from);
    if (recvfrom(fd_, message.data(), 20, 0, reinterpret_cast<sockaddr*>(&from), &size) != 20) return;
    if (++requests_ <= ignored_) return;
    WriteU16(0x0101, message.data());
    WriteU16(12, &message[2]);
    if (isForging_) message[19] ^= 1;
    constexpr std::array<std::uint8_t, 12> kMapped{0, 1, 0, 8, 0, 1, 0x12, 0x34, 192, 0, 2, 7};
    std::copy(kMapped.begin(), kMapped.end(), &message[20]);
    sendto(fd_, message.data(), message.size(), 0, reinterpret_cast<const sockaddr*>(&from), size);
  }

 private:
  const int fd_ = LoopbackSocket();
  int requests_ = 0;
  int ignored_ = 0;
  bool isForging_ = false;
};

class StunDiscoveryTest : public testing::Test {
 protected:
  ~StunDiscoveryTest() override {
    g_object_unref(socket_);
    g_main_context_unref(context_);
  }

  // Serves and iterates until all questions are settled.
  void untilDone() {
    const Micros end = MonotonicNow() + kPatience;
    while (done_ == 0 && MonotonicNow() < end) {
      one_.serve();
      other_.serve();
      g_main_context_iteration(context_, FALSE);
    }
    EXPECT_EQ(done_, 1);
    EXPECT_TRUE(discovery_.isDone());
  }

  GMainContext* const context_ = g_main_context_new();
  GSocket* const socket_ = g_socket_new_from_fd(LoopbackSocket(), nullptr);
  Server one_;
  Server other_;
  std::vector<std::pair<std::size_t, std::string>> found_;
  int done_ = 0;
  StunDiscovery discovery_{
      context_, [this](std::size_t tag, const MappedAddress& mapped) { found_.emplace_back(tag, mapped.ip); },
      [this] { ++done_; }};
};

TEST_F(StunDiscoveryTest, TellsWhatTheServerSaysOfTheSocket) {
  EXPECT_TRUE(discovery_.isDone());
  discovery_.ask(socket_, 5, one_.address());
  EXPECT_FALSE(discovery_.isDone());
  untilDone();
  EXPECT_THAT(found_, ElementsAre(std::pair(std::size_t{5}, std::string("192.0.2.7"))));
}

TEST_F(StunDiscoveryTest, AsksAgainWhenNoAnswerComes) {
  one_.ignore(2);
  discovery_.ask(socket_, 0, one_.address());
  untilDone();
  EXPECT_EQ(found_.size(), 1u);
  EXPECT_EQ(one_.requests(), 3);
}

TEST_F(StunDiscoveryTest, GivesASilentServerUp) {
  one_.ignore(1000);
  discovery_.ask(socket_, 0, one_.address());
  untilDone();
  EXPECT_THAT(found_, IsEmpty());
  EXPECT_EQ(one_.requests(), 4);
}

TEST_F(StunDiscoveryTest, HearsEachOfSeveralServers) {
  discovery_.ask(socket_, 1, one_.address());
  discovery_.ask(socket_, 2, other_.address());
  untilDone();
  EXPECT_EQ(found_.size(), 2u);
}

TEST_F(StunDiscoveryTest, BelievesNoAnswerToWhatItDidNotAsk) {
  one_.forge();
  discovery_.ask(socket_, 0, one_.address());
  untilDone();
  EXPECT_THAT(found_, IsEmpty());
}

TEST_F(StunDiscoveryTest, BearsThatTheSocketIsClosed) {
  one_.ignore(1);
  discovery_.ask(socket_, 0, one_.address());
  g_socket_close(socket_, nullptr);
  untilDone();
  EXPECT_THAT(found_, IsEmpty());
}

}  // namespace
}  // namespace kovra
