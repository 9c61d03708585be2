#ifndef SIGNALCONN_SERVER_LISTEN_ADDRESS_H
#define SIGNALCONN_SERVER_LISTEN_ADDRESS_H

#include <string>

namespace signalconn::server {

struct ListenAddress {
  std::string numeric;  // without brackets
  bool isIpv6;
  bool isLoopback;
};

// The first address of host, which may be a name. Throws std::runtime_error with the reason in words.
ListenAddress resolveListenAddress(const std::string& host);

// For people and browsers: http://ADDRESS:PORT/
std::string urlOf(const ListenAddress& address, int port);

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_LISTEN_ADDRESS_H
