#include "udp_inlet.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

namespace kovra {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

int LoopbackSocket() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  sockaddr_in any{};
  any.sin_family = AF_INET;
  any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof(any)), 0);
  return fd;
}

sockaddr_storage AddressOf(int fd) {
  sockaddr_storage own{};
  socklen_t size = sizeof(own);
  getsockname(fd, reinterpret_cast<sockaddr*>(&own), &size);
  return own;
}

// A socket with an inlet for peer_ beside a reader of the kind that libnice is: at the default priority, until there is
// nothing more.
class UdpInletTest : public testing::Test {
 protected:
  UdpInletTest() {
    GSource* reader = g_socket_create_source(socket_, G_IO_IN, nullptr);
    g_source_set_callback(reader, reinterpret_cast<GSourceFunc>(reinterpret_cast<void (*)()>(+Read)), this, nullptr);
    g_source_attach(reader, context_);
    g_source_unref(reader);
    inlet_.emplace(context_, socket_, AddressOf(peer_), [this](std::uint8_t* data, std::size_t size) {
      const std::string text(data, data + size);
      if (text[0] != 'm') return false;
      taken_.push_back(text);
      return true;
    });
  }
  ~UdpInletTest() override {
    inlet_.reset();
    g_object_unref(socket_);
    g_main_context_unref(context_);
    close(peer_);
    close(stranger_);
  }

  void send(int from, const std::string& text) {
    ASSERT_EQ(
        sendto(from, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&address_), sizeof(sockaddr_in)),
        static_cast<ssize_t>(text.size()));
  }
  void iterate() {
    while (g_main_context_iteration(context_, FALSE) != FALSE) continue;
  }

  static gboolean Read(GSocket* socket, GIOCondition, gpointer self) {
    char text[4096];
    for (gssize size = 0; (size = g_socket_receive(socket, text, sizeof(text), nullptr, nullptr)) > 0;) {
      static_cast<UdpInletTest*>(self)->left_.emplace_back(text, text + size);
    }
    return G_SOURCE_CONTINUE;
  }

  GMainContext* const context_ = g_main_context_new();
  GSocket* const socket_ = [] {
    GSocket* made = g_socket_new_from_fd(LoopbackSocket(), nullptr);
    g_socket_set_blocking(made, FALSE);
    return made;
  }();
  const sockaddr_storage address_ = AddressOf(g_socket_get_fd(socket_));
  const int peer_ = LoopbackSocket();
  const int stranger_ = LoopbackSocket();
  std::vector<std::string> taken_;
  std::vector<std::string> left_;
  std::optional<UdpInlet> inlet_;
};

TEST_F(UdpInletTest, TakesWhatIsOfUseBeforeTheOtherReader) {
  send(peer_, "m1");
  send(peer_, "m2");
  iterate();
  EXPECT_THAT(taken_, ElementsAre("m1", "m2"));
  EXPECT_THAT(left_, IsEmpty());
}

TEST_F(UdpInletTest, LeavesTheRestToTheOtherReader) {
  send(peer_, "m1");
  send(peer_, "x");
  send(peer_, "m2");
  iterate();
  EXPECT_THAT(taken_, ElementsAre("m1"));
  EXPECT_THAT(left_, ElementsAre("x", "m2"));
  send(peer_, "m3");
  iterate();
  EXPECT_THAT(taken_, ElementsAre("m1", "m3"));
}

TEST_F(UdpInletTest, LeavesWhatStrangersSend) {
  send(stranger_, "m1");
  iterate();
  EXPECT_THAT(taken_, IsEmpty());
  EXPECT_THAT(left_, ElementsAre("m1"));
}

TEST_F(UdpInletTest, LeavesWhatIsTooLargeForMedia) {
  const std::string large(4000, 'm');
  send(peer_, large);
  iterate();
  EXPECT_THAT(taken_, IsEmpty());
  EXPECT_THAT(left_, ElementsAre(large));
}

TEST_F(UdpInletTest, LeavesAFloodToOthersInBetween) {
  for (int i = 0; i < 100; ++i) send(peer_, "m");
  g_main_context_iteration(context_, FALSE);
  EXPECT_LT(taken_.size(), 100u);
  EXPECT_EQ(taken_.size() + left_.size(), 100u) << "the other reader had its turn as well";
}

TEST_F(UdpInletTest, BearsThatTheSocketIsClosed) {
  const int fd = g_socket_get_fd(socket_);
  g_socket_close(socket_, nullptr);
  // Somebody else's now.
  ASSERT_EQ(dup2(peer_, fd), fd);
  const auto own = AddressOf(peer_);
  ASSERT_EQ(sendto(peer_, "m", 1, 0, reinterpret_cast<const sockaddr*>(&own), sizeof(sockaddr_in)), 1);
  g_main_context_iteration(context_, FALSE);
  EXPECT_THAT(taken_, IsEmpty());
  char text = 0;
  EXPECT_EQ(recv(fd, &text, 1, 0), 1);
  close(fd);
}

}  // namespace
}  // namespace kovra
