// The viewer's consent to be sent to (RFC 7675): asked for every few seconds by a connectivity check of ICE.
#ifndef SIGNALCONN_ENGINE_CONSENT_H
#define SIGNALCONN_ENGINE_CONSENT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "bytes.h"
#include "media_time.h"
#include "stun_message.h"

namespace kovra {

// One thread at a time. What follows from answers, or from none, is ConnectionState's.
class Consent {
 public:
  // RFC 7675, 5.1: randomised around five seconds, never less than four.
  static constexpr Micros kShortestInterval{4'000'000};
  static constexpr Micros kLongestInterval{6'000'000};
  // Answers are taken to so many of the last requests: to what was asked some 20 s ago.
  static constexpr std::size_t kMaxPending = 4;

  using Random = std::function<void(std::uint8_t* out, std::size_t size)>;
  enum class Answer { kUnrelated, kGiven, kRevoked };

  // password: the viewer's. random: unpredictable bytes. The first request is due an interval after now, since the
  // checks that led here have just been answered.
  Consent(StunCheck check, std::string password, Random random, Micros now);

  Micros nextRequest() const { return nextRequest_; }
  // The request to send now; valid until the next call.
  ByteView request(Micros now);
  // Unrelated is whatever is no authentic success or refusal of consent in answer to one of the last requests.
  Answer receive(ByteView datagram);

 private:
  struct Pending {
    StunTransactionId transaction{};
    bool isWaiting = false;
  };

  void planNext(Micros now);

  const StunCheck check_;
  const std::string password_;
  const Random random_;
  Micros nextRequest_{0};
  std::array<Pending, kMaxPending> pending_;
  std::size_t oldest_ = 0;
  std::vector<std::uint8_t> request_;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_CONSENT_H
