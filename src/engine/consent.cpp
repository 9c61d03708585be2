#include "consent.h"

#include <algorithm>
#include <utility>

namespace kovra {

namespace {

constexpr unsigned kForbidden = 403;

}  // namespace

Consent::Consent(StunCheck check, std::string password, Random random, Micros now)
    : check_(std::move(check)), password_(std::move(password)), random_(std::move(random)) {
  planNext(now);
}

ByteView Consent::request(Micros now) {
  Pending& pending = pending_[oldest_];
  oldest_ = (oldest_ + 1) % kMaxPending;
  random_(pending.transaction.data(), pending.transaction.size());
  pending.isWaiting = true;
  planNext(now);
  WriteStunCheck(check_, pending.transaction, password_, request_);
  return ByteView(request_);
}

Consent::Answer Consent::receive(ByteView datagram) {
  const auto transaction = StunResponseTransaction(datagram);
  if (!transaction) return Answer::kUnrelated;
  const auto asked = std::find_if(pending_.begin(), pending_.end(), [&](const Pending& pending) {
    return pending.isWaiting && pending.transaction == *transaction;
  });
  if (asked == pending_.end()) return Answer::kUnrelated;
  const auto response = ReadStunResponse(datagram, password_);
  if (!response || (response->errorCode != 0 && response->errorCode != kForbidden)) return Answer::kUnrelated;
  asked->isWaiting = false;
  return response->errorCode == 0 ? Answer::kGiven : Answer::kRevoked;
}

void Consent::planNext(Micros now) {
  std::array<std::uint8_t, 4> bytes{};
  random_(bytes.data(), bytes.size());
  const auto spread = static_cast<std::uint64_t>((kLongestInterval - kShortestInterval).count());
  nextRequest_ = now + kShortestInterval + Micros(static_cast<Micros::rep>(ReadU32(bytes.data()) * spread >> 32));
}

}  // namespace kovra
