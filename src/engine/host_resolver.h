// Addresses of host names, looked up without anybody waiting.
#ifndef SIGNALCONN_ENGINE_HOST_RESOLVER_H
#define SIGNALCONN_ENGINE_HOST_RESOLVER_H

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "media_time.h"
#include "network_thread.h"

namespace kovra {

// Belongs to the network thread. The name service is asked on a thread that lives only as long as there is something
// to ask; it is the only one. What was found is remembered for a while.
class HostResolver {
 public:
  // IP literals, at most one of IPv4 and one of IPv6, IPv4 first; empty: the name cannot be resolved.
  using Addresses = std::vector<std::string>;
  using Done = std::function<void(const Addresses&)>;
  using Lookup = std::function<Addresses(const std::string&)>;

  static constexpr Micros kLifetime{300'000'000};
  static constexpr std::size_t kMaxNames = 64;  // asked or remembered; more are not resolved

  // Asks the system's name service; may take long.
  static Addresses AskNameService(const std::string& host);

  // lookup runs on the thread for it.
  explicit HostResolver(NetworkThread& network, Lookup lookup = AskNameService);
  // Forgets what was asked for: no done is called any more.
  ~HostResolver();
  HostResolver(const HostResolver&) = delete;
  HostResolver& operator=(const HostResolver&) = delete;

  // Calls done at once for a literal, "localhost" and a name that is remembered, else later from the network's loop.
  // An answer that nobody needs any more is remembered all the same.
  void resolve(const std::string& host, Done done);

 private:
  struct Queue;
  struct Entry {
    Addresses addresses;
    Micros expires{0};
    std::vector<Done> waiting;
  };

  void ask(const std::string& host);
  void onResolved(const std::string& host, Addresses addresses);
  void forgetExpired(Micros now);

  std::map<std::string, Entry> entries_;
  const std::shared_ptr<Queue> queue_;  // outlives this while the name service does not answer
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_HOST_RESOLVER_H
