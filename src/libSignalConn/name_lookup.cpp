#include "name_lookup.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>

namespace {

const std::size_t kMostAddresses = 8;

std::string NumericText(const addrinfo& entry) {
  char text[NI_MAXHOST] = "";
  if (getnameinfo(entry.ai_addr, entry.ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) != 0) return "";
  return text;
}

}  // namespace

std::shared_ptr<NameLookup> NameLookup::Start(const std::string& host, std::function<void()> whenDone,
                                              pthread_t* thread) {
  const std::shared_ptr<NameLookup> lookup(new NameLookup(host, std::move(whenDone)));
  auto threadsShare = std::make_unique<std::shared_ptr<NameLookup>>(lookup);
  if (pthread_create(thread, nullptr, ThreadBody, threadsShare.get()) != 0) {
    *thread = 0;
    return nullptr;
  }
  threadsShare.release();  // the thread deletes it
  return lookup;
}

void* NameLookup::ThreadBody(void* args) {
  const std::unique_ptr<std::shared_ptr<NameLookup>> share(static_cast<std::shared_ptr<NameLookup>*>(args));
  NameLookup& lookup = **share;
  lookup.Resolve();
  lookup.done_.Set();
  const std::lock_guard<std::mutex> lock(lookup.mutex_);
  if (lookup.whenDone_) lookup.whenDone_();
  return nullptr;
}

void NameLookup::Resolve() {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  error_ = getaddrinfo(host_.c_str(), nullptr, &hints, &found);
  if (error_ != 0) return;
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> list(found, freeaddrinfo);
  for (const addrinfo* entry = found; entry != nullptr && addresses_.size() < kMostAddresses; entry = entry->ai_next) {
    const std::string text = NumericText(*entry);
    const bool known = std::find(addresses_.begin(), addresses_.end(), text) != addresses_.end();
    if (!text.empty() && !known) addresses_.push_back(text);
  }
}

const char* NameLookup::Error() const { return error_ != 0 ? gai_strerror(error_) : "no address"; }

void NameLookup::Abandon() {
  const std::lock_guard<std::mutex> lock(mutex_);
  whenDone_ = nullptr;
}

bool IsNumericAddress(const std::string& host) {
  unsigned char bytes[sizeof(in6_addr)];
  return inet_pton(AF_INET, host.c_str(), bytes) == 1 || inet_pton(AF_INET6, host.c_str(), bytes) == 1;
}
