#include "listen_address.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace signalconn::server {

namespace {

bool isLoopback(const sockaddr& address) {
  if (address.sa_family == AF_INET) {
    sockaddr_in v4{};
    std::memcpy(&v4, &address, sizeof(v4));
    return ntohl(v4.sin_addr.s_addr) >> 24U == 127;
  }
  sockaddr_in6 v6{};
  std::memcpy(&v6, &address, sizeof(v6));
  return std::memcmp(&v6.sin6_addr, &in6addr_loopback, sizeof(v6.sin6_addr)) == 0;
}

}  // namespace

ListenAddress resolveListenAddress(const std::string& host) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE;
  addrinfo* found = nullptr;
  int error = getaddrinfo(host.c_str(), nullptr, &hints, &found);
  if (error != 0) throw std::runtime_error(gai_strerror(error));
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> addresses(found, freeaddrinfo);

  std::array<char, NI_MAXHOST> numeric{};
  error = getnameinfo(found->ai_addr, found->ai_addrlen, numeric.data(), numeric.size(), nullptr, 0, NI_NUMERICHOST);
  if (error != 0) throw std::runtime_error(gai_strerror(error));
  return {numeric.data(), found->ai_family == AF_INET6, isLoopback(*found->ai_addr)};
}

std::string urlOf(const ListenAddress& address, int port) {
  const std::string host = address.isIpv6 ? "[" + address.numeric + "]" : address.numeric;
  return "http://" + host + ":" + std::to_string(port) + "/";
}

}  // namespace signalconn::server
