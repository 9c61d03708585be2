// The addresses of this machine on which viewers may reach it.
#ifndef SIGNALCONN_ENGINE_LOCAL_ADDRESSES_H
#define SIGNALCONN_ENGINE_LOCAL_ADDRESSES_H

#include <string>
#include <vector>

namespace kovra {

// IP literals of the interfaces that are up, at most 8, IPv4 first. IPv6 link-local ones are left out: browsers
// do not offer them. Loopback is in the list only when withLoopback says so or when there is nothing else.
std::vector<std::string> LocalAddresses(bool withLoopback);

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_LOCAL_ADDRESSES_H
