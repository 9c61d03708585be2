#include "fake_resolver.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace support {

namespace {

// One entry, with its address behind it in the same block.
struct Entry {
  addrinfo info{};
  sockaddr_storage address{};
};

bool FillAddress(const std::string& text, Entry* entry) {
  auto* v4 = reinterpret_cast<sockaddr_in*>(&entry->address);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&entry->address);
  entry->info.ai_addr = reinterpret_cast<sockaddr*>(&entry->address);
  if (inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    entry->info.ai_addrlen = sizeof *v4;
  } else if (inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    entry->info.ai_addrlen = sizeof *v6;
  } else {
    return false;
  }
  entry->info.ai_family = entry->address.ss_family;
  entry->info.ai_socktype = SOCK_STREAM;
  return true;
}

}  // namespace

// Never destroyed: a look-up may outlast everything else.
FakeResolver& FakeResolver::Get() {
  static FakeResolver& resolver = *new FakeResolver;
  return resolver;
}

void FakeResolver::Answer(const std::string& name, std::vector<std::string> addresses) {
  const std::lock_guard<std::mutex> lock(mutex_);
  names_[name] = std::move(addresses);
}

void FakeResolver::Hang() {
  const std::lock_guard<std::mutex> lock(mutex_);
  hanging_ = true;
}

void FakeResolver::Resume() {
  const std::lock_guard<std::mutex> lock(mutex_);
  hanging_ = false;
  resumed_.notify_all();
}

int FakeResolver::LookupsOf(const std::string& name) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return lookups_[name];
}

int FakeResolver::MostAtOnce() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return mostAtOnce_;
}

int FakeResolver::Resolve(const std::string& name, std::vector<std::string>* addresses) {
  Entry numeric;
  if (FillAddress(name, &numeric)) {
    addresses->push_back(name);
    return 0;
  }
  std::unique_lock<std::mutex> lock(mutex_);
  ++lookups_[name];
  mostAtOnce_ = std::max(mostAtOnce_, ++underWay_);
  resumed_.wait(lock, [this] { return !hanging_; });
  --underWay_;
  const auto found = names_.find(name);
  if (found == names_.end()) return EAI_NONAME;
  *addresses = found->second;
  return 0;
}

}  // namespace support

extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* /*hints*/, addrinfo** result) {
  std::vector<std::string> addresses;
  const int error = support::FakeResolver::Get().Resolve(node != nullptr ? node : "127.0.0.1", &addresses);
  *result = nullptr;
  if (error != 0) return error;
  const int port = service != nullptr ? std::atoi(service) : 0;
  addrinfo** end = result;
  for (const std::string& address : addresses) {
    auto* entry = new support::Entry;
    support::FillAddress(address, entry);
    reinterpret_cast<sockaddr_in*>(&entry->address)->sin_port = htons(static_cast<std::uint16_t>(port));
    *end = &entry->info;
    end = &entry->info.ai_next;
  }
  return 0;
}

extern "C" void freeaddrinfo(addrinfo* list) {
  while (list != nullptr) {
    addrinfo* next = list->ai_next;
    delete reinterpret_cast<support::Entry*>(list);
    list = next;
  }
}
