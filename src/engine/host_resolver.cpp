#include "host_resolver.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pthread.h>

#include <deque>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "clock.h"

namespace kovra {

namespace {

bool IsLiteral(const std::string& host) {
  in6_addr ignored;
  return inet_pton(AF_INET, host.c_str(), &ignored) == 1 || inet_pton(AF_INET6, host.c_str(), &ignored) == 1;
}

}  // namespace

HostResolver::Addresses HostResolver::AskNameService(const std::string& host) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_DGRAM;
  hints.ai_flags = AI_ADDRCONFIG;
  addrinfo* list = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &list) != 0) return {};
  std::string ipv4;
  std::string ipv6;
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    std::string& place = entry->ai_family == AF_INET ? ipv4 : ipv6;
    char text[NI_MAXHOST];
    if (place.empty() &&
        getnameinfo(entry->ai_addr, entry->ai_addrlen, text, sizeof(text), nullptr, 0, NI_NUMERICHOST) == 0) {
      place = text;
    }
  }
  freeaddrinfo(list);
  Addresses found;
  if (!ipv4.empty()) found.push_back(std::move(ipv4));
  if (!ipv6.empty()) found.push_back(std::move(ipv6));
  return found;
}

// What the resolver shares with its thread.
struct HostResolver::Queue {
  explicit Queue(Lookup function) : lookup(std::move(function)) {}

  const Lookup lookup;
  std::mutex mutex;  // guards what follows
  HostResolver* owner = nullptr;
  NetworkThread* network = nullptr;
  std::deque<std::string> hosts;
  bool threadRuns = false;

  static void Serve(const std::shared_ptr<Queue>& self);
};

void HostResolver::Queue::Serve(const std::shared_ptr<Queue>& self) {
  pthread_setname_np(pthread_self(), "kovra-names");
  std::unique_lock<std::mutex> lock(self->mutex);
  while (self->owner != nullptr && !self->hosts.empty()) {
    std::string host = std::move(self->hosts.front());
    self->hosts.pop_front();
    lock.unlock();
    Addresses addresses = self->lookup(host);
    lock.lock();
    if (self->owner == nullptr) break;
    self->network->post([owner = self->owner, host = std::move(host), addresses = std::move(addresses)]() mutable {
      owner->onResolved(host, std::move(addresses));
    });
  }
  self->threadRuns = false;
}

HostResolver::HostResolver(NetworkThread& network, Lookup lookup) : queue_(std::make_shared<Queue>(std::move(lookup))) {
  queue_->owner = this;
  queue_->network = &network;
}

HostResolver::~HostResolver() {
  const std::lock_guard<std::mutex> lock(queue_->mutex);
  queue_->owner = nullptr;
}

void HostResolver::resolve(const std::string& host, Done done) {
  if (IsLiteral(host)) return done({host});
  if (host == "localhost") return done({"127.0.0.1", "::1"});  // RFC 6761, 6.3
  const Micros now = MonotonicNow();
  const auto known = entries_.find(host);
  if (known != entries_.end() && known->second.waiting.empty() && now < known->second.expires) {
    const Addresses addresses = known->second.addresses;
    return done(addresses);
  }
  forgetExpired(now);
  if (entries_.count(host) == 0 && entries_.size() >= kMaxNames) return done({});
  Entry& entry = entries_[host];
  entry.waiting.push_back(std::move(done));
  if (entry.waiting.size() == 1) ask(host);
}

void HostResolver::ask(const std::string& host) {
  const std::lock_guard<std::mutex> lock(queue_->mutex);
  queue_->hosts.push_back(host);
  if (queue_->threadRuns) return;
  try {
    std::thread([queue = queue_] { Queue::Serve(queue); }).detach();
    queue_->threadRuns = true;
  } catch (const std::system_error&) {
    // Out of threads: as if the name did not exist.
    queue_->hosts.clear();
    queue_->network->post([this, host] { onResolved(host, {}); });
  }
}

void HostResolver::onResolved(const std::string& host, Addresses addresses) {
  Entry& entry = entries_[host];
  entry.addresses = std::move(addresses);
  // A failure is not remembered: the network may have just come up.
  entry.expires = entry.addresses.empty() ? Micros{0} : MonotonicNow() + kLifetime;
  const std::vector<Done> waiting = std::exchange(entry.waiting, {});
  const Addresses found = entry.addresses;
  for (const Done& done : waiting) done(found);
}

void HostResolver::forgetExpired(Micros now) {
  for (auto entry = entries_.begin(); entry != entries_.end();) {
    const bool expired = entry->second.waiting.empty() && now >= entry->second.expires;
    entry = expired ? entries_.erase(entry) : std::next(entry);
  }
}

}  // namespace kovra
