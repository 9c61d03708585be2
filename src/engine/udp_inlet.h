// Takes the datagrams of one peer from a socket that libnice reads as well.
#ifndef SIGNALCONN_ENGINE_UDP_INLET_H
#define SIGNALCONN_ENGINE_UDP_INLET_H

#include <gio/gio.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <functional>

namespace kovra {

// libnice keeps all STUN to itself, answers to requests that are not its own included. Therefore an inlet looks at what
// has arrived first. What it does not take, and all that waits behind it, is left to libnice, which reads until there
// is nothing more. Belongs to the context's thread.
class UdpInlet {
 public:
  // Whether the datagram was of use. Its bytes may be changed in any case.
  using Take = std::function<bool(std::uint8_t* data, std::size_t size)>;

  // Keeps a reference to the socket, and bears that it is closed. take must not destroy the inlet.
  UdpInlet(GMainContext* context, GSocket* socket, const sockaddr_storage& peer, Take take);
  ~UdpInlet();
  UdpInlet(const UdpInlet&) = delete;
  UdpInlet& operator=(const UdpInlet&) = delete;

 private:
  struct Source;

  void onPolled();
  void read();

  GSocket* const socket_;
  const sockaddr_storage peer_;
  const Take take_;
  GSource* const source_;
  GPollFD polled_;
  bool isPolled_ = true;  // until the socket was found closed
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_UDP_INLET_H
