#include "udp_inlet.h"

#include <netinet/in.h>

#include <array>
#include <cstring>
#include <utility>

namespace kovra {

namespace {

// More than a viewer's packets on any usual network; larger ones are left to libnice.
constexpr std::size_t kMaxDatagramBytes = 2048;
// So that a flood leaves the others their turn.
constexpr int kMaxAtOnce = 32;

bool IsSame(const sockaddr_storage& one, const sockaddr_storage& other) {
  if (one.ss_family != other.ss_family) return false;
  if (one.ss_family == AF_INET6) {
    const auto& a = reinterpret_cast<const sockaddr_in6&>(one);
    const auto& b = reinterpret_cast<const sockaddr_in6&>(other);
    return a.sin6_port == b.sin6_port && std::memcmp(&a.sin6_addr, &b.sin6_addr, sizeof(a.sin6_addr)) == 0;
  }
  const auto& a = reinterpret_cast<const sockaddr_in&>(one);
  const auto& b = reinterpret_cast<const sockaddr_in&>(other);
  return a.sin_port == b.sin_port && a.sin_addr.s_addr == b.sin_addr.s_addr;
}

}  // namespace

struct UdpInlet::Source {
  GSource base;
  UdpInlet* inlet;
};

// The reading is done while the context finds out what is ready, in the order of priority: that is before libnice's
// source for the same descriptor, and yet never keeps any other source waiting, as being ready would. (That rules out
// g_source_add_unix_fd, with which a source is ready whenever its descriptor is.)
UdpInlet::UdpInlet(GMainContext* context, GSocket* socket, const sockaddr_storage& peer, Take take)
    : socket_(static_cast<GSocket*>(g_object_ref(socket))),
      peer_(peer),
      take_(std::move(take)),
      source_([] {
        static GSourceFuncs functions{nullptr,
                                      [](GSource* source) -> gboolean {
                                        reinterpret_cast<Source*>(source)->inlet->onPolled();
                                        return FALSE;
                                      },
                                      [](GSource*, GSourceFunc, gpointer) -> gboolean { return G_SOURCE_CONTINUE; },
                                      nullptr,
                                      nullptr,
                                      nullptr};
        return g_source_new(&functions, sizeof(Source));
      }()),
      polled_{g_socket_get_fd(socket), G_IO_IN, 0} {
  reinterpret_cast<Source*>(source_)->inlet = this;
  g_source_set_priority(source_, G_PRIORITY_HIGH);
  g_source_add_poll(source_, &polled_);
  g_source_attach(source_, context);
}

UdpInlet::~UdpInlet() {
  g_source_destroy(source_);
  g_source_unref(source_);
  g_object_unref(socket_);
}

void UdpInlet::onPolled() {
  if (!isPolled_) return;
  if (g_socket_is_closed(socket_)) {
    // The descriptor may be somebody else's by now.
    isPolled_ = false;
    g_source_remove_poll(source_, &polled_);
  } else if ((polled_.revents & G_IO_IN) != 0) {
    read();
  }
}

void UdpInlet::read() {
  const int fd = g_socket_get_fd(socket_);
  for (int i = 0; i < kMaxAtOnce; ++i) {
    alignas(4) std::array<std::uint8_t, kMaxDatagramBytes> datagram;  // as libsrtp likes it
    sockaddr_storage from{};
    socklen_t fromBytes = sizeof(from);
    const ssize_t size = recvfrom(fd, datagram.data(), datagram.size(), MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT,
                                  reinterpret_cast<sockaddr*>(&from), &fromBytes);
    if (size <= 0 || static_cast<std::size_t>(size) > datagram.size() || !IsSame(from, peer_)) return;
    if (!take_(datagram.data(), static_cast<std::size_t>(size))) return;
    recv(fd, nullptr, 0, MSG_TRUNC | MSG_DONTWAIT);
  }
}

}  // namespace kovra
