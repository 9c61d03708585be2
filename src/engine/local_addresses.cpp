#include "local_addresses.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <memory>

namespace kovra {

namespace {

// Each costs a socket in every session.
constexpr std::size_t kMaxAddresses = 8;

struct FreeInterfaces {
  void operator()(ifaddrs* list) const { freeifaddrs(list); }
};

// Empty when there is none that we could use.
std::string UsableAddress(const sockaddr* address) {
  char text[INET6_ADDRSTRLEN];
  const void* ip = nullptr;
  if (address->sa_family == AF_INET) {
    ip = &reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
  } else if (address->sa_family == AF_INET6) {
    const in6_addr& ip6 = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    if (IN6_IS_ADDR_LINKLOCAL(&ip6)) return {};
    ip = &ip6;
  }
  return ip != nullptr && inet_ntop(address->sa_family, ip, text, sizeof(text)) != nullptr ? text : std::string();
}

bool IsIpv4(const std::string& address) { return address.find(':') == std::string::npos; }

}  // namespace

std::vector<std::string> LocalAddresses(bool withLoopback) {
  ifaddrs* interfaces = nullptr;
  if (getifaddrs(&interfaces) != 0) return {};
  const std::unique_ptr<ifaddrs, FreeInterfaces> owner(interfaces);
  std::vector<std::string> found;
  std::vector<std::string> loopback;
  for (const ifaddrs* entry = interfaces; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || (entry->ifa_flags & IFF_UP) == 0 || (entry->ifa_flags & IFF_RUNNING) == 0) {
      continue;
    }
    std::string address = UsableAddress(entry->ifa_addr);
    if (address.empty()) continue;
    ((entry->ifa_flags & IFF_LOOPBACK) != 0 ? loopback : found).push_back(std::move(address));
  }
  if (withLoopback || found.empty()) found.insert(found.end(), loopback.begin(), loopback.end());
  std::stable_partition(found.begin(), found.end(), IsIpv4);
  if (found.size() > kMaxAddresses) found.resize(kMaxAddresses);
  return found;
}

}  // namespace kovra
