// Sends batches of packets straight through a UDP socket to one address.
#ifndef SIGNALCONN_ENGINE_UDP_PATH_H
#define SIGNALCONN_ENGINE_UDP_PATH_H

#include <sys/socket.h>

#include <cstddef>

#include "packet_batch.h"

namespace kovra {

// One system call carries a whole batch; where the kernel has UDP segmentation offload, runs of packets of equal
// size also pass through it as one. One thread at a time.
class UdpPath {
 public:
  UdpPath(int socket, const sockaddr_storage& to);

  // Sends the batch's packets from first on, by the socket given at the beginning; negative when it is closed. Returns
  // how many went out, or were refused for good; fewer than there are: the socket's buffer is full, try the rest later.
  std::size_t send(int socket, const PacketBatch& batch, std::size_t first);

 private:
  struct Run;
  std::size_t endOfRun(const PacketBatch& batch, std::size_t first) const;

  sockaddr_storage to_;
  socklen_t toBytes_;
  bool segmentation_;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_UDP_PATH_H
