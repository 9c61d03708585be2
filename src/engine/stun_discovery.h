// How STUN servers see our sockets: where a NAT stands in between, viewers reach us by that (RFC 8445, 5.1.1.2).
#ifndef SIGNALCONN_ENGINE_STUN_DISCOVERY_H
#define SIGNALCONN_ENGINE_STUN_DISCOVERY_H

#include <gio/gio.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "media_time.h"
#include "network_thread.h"
#include "stun_message.h"
#include "udp_inlet.h"

namespace kovra {

// Of our own, since libnice asks one server only and makes a thread for good for it. Belongs to the context's thread.
class StunDiscovery {
 public:
  // tag: what ask was given. Neither function may destroy the object.
  using OnAddress = std::function<void(std::size_t tag, const MappedAddress& mapped)>;
  // Every question was answered or given up.
  using OnDone = std::function<void()>;

  StunDiscovery(GMainContext* context, OnAddress onAddress, OnDone onDone);

  // Asks a server through one of our sockets, of which a reference is kept. The answer comes later.
  void ask(GSocket* socket, std::size_t tag, const sockaddr_storage& server);
  bool isDone() const { return questions_.empty(); }

 private:
  struct Question {
    GSocket* socket;  // the inlet's
    std::size_t tag;
    sockaddr_storage server;
    StunTransactionId transaction{};
    std::size_t asked = 0;
    Micros due{0};
    bool isOver = false;
    std::unique_ptr<UdpInlet> inlet;
  };

  bool take(Question& question, ByteView datagram);
  void onTimer();
  void send(Question& question, Micros now);
  void schedule();

  GMainContext* const context_;
  const OnAddress onAddress_;
  const OnDone onDone_;
  std::vector<std::unique_ptr<Question>> questions_;
  std::vector<std::uint8_t> request_;
  LoopTimer timer_;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_STUN_DISCOVERY_H
