#include "stun_discovery.h"

#include <netinet/in.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <utility>

#include "clock.h"

namespace kovra {

namespace {

// After each question it is waited for so long; sooner than RFC 8489, 6.2.1 has it, since a viewer waits. The last
// time is also for servers far away.
constexpr std::array<Micros, 4> kWaits{Micros{100'000}, Micros{200'000}, Micros{400'000}, Micros{800'000}};

socklen_t SizeOf(const sockaddr_storage& address) {
  return address.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

}  // namespace

StunDiscovery::StunDiscovery(GMainContext* context, OnAddress onAddress, OnDone onDone)
    : context_(context),
      onAddress_(std::move(onAddress)),
      onDone_(std::move(onDone)),
      timer_(context, [this] { onTimer(); }) {}

void StunDiscovery::ask(GSocket* socket, std::size_t tag, const sockaddr_storage& server) {
  auto question = std::make_unique<Question>();
  question->socket = socket;
  question->tag = tag;
  question->server = server;
  RAND_bytes(question->transaction.data(), static_cast<int>(question->transaction.size()));
  question->inlet = std::make_unique<UdpInlet>(context_, socket, server,
                                               [this, asked = question.get()](std::uint8_t* data, std::size_t size) {
                                                 return take(*asked, {data, size});
                                               });
  send(*question, MonotonicNow());
  questions_.push_back(std::move(question));
  schedule();
}

void StunDiscovery::send(Question& question, Micros now) {
  WriteStunRequest(question.transaction, request_);
  // What cannot be sent is like what is lost.
  sendto(g_socket_get_fd(question.socket), request_.data(), request_.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
         reinterpret_cast<const sockaddr*>(&question.server), SizeOf(question.server));
  question.due = now + kWaits[question.asked++];
}

bool StunDiscovery::take(Question& question, ByteView datagram) {
  if (question.isOver || StunResponseTransaction(datagram) != question.transaction) return false;
  question.isOver = true;
  if (const auto mapped = ReadMappedAddress(datagram)) onAddress_(question.tag, *mapped);
  timer_.set(MonotonicNow());  // an inlet is not to go while it takes something
  return true;
}

void StunDiscovery::onTimer() {
  const Micros now = MonotonicNow();
  for (const auto& question : questions_) {
    if (question->isOver || now < question->due) continue;
    if (question->asked == kWaits.size()) {
      question->isOver = true;
    } else {
      send(*question, now);
    }
  }
  questions_.erase(std::remove_if(questions_.begin(), questions_.end(),
                                  [](const std::unique_ptr<Question>& question) { return question->isOver; }),
                   questions_.end());
  schedule();
  if (questions_.empty()) onDone_();
}

void StunDiscovery::schedule() {
  if (questions_.empty()) return timer_.set(std::nullopt);
  const auto next = std::min_element(questions_.begin(), questions_.end(),
                                     [](const auto& one, const auto& other) { return one->due < other->due; });
  timer_.set((*next)->due);
}

}  // namespace kovra
