#include "repair_delay.h"

#include <algorithm>

namespace kovra {

namespace {

constexpr Micros kStep{10'000};
// The loss of a frame's last packet shows only when the next frame comes, some 50 ms later; then the viewer's request
// and our answer take a round trip, and another half where one of them is held up.
constexpr Micros kNotice{80'000};

Micros RoundUp(Micros span) { return (span + kStep - Micros{1}) / kStep * kStep; }

}  // namespace

void RepairDelay::onRepair(Micros now, Micros roundTrip) {
  const bool alone = !lastRepair_ || now - *lastRepair_ > kMemory;
  lastRepair_ = now;
  if (alone || roundTrip == Micros{0}) return;
  const Micros needed = std::min(RoundUp(kNotice + roundTrip * 3 / 2), kLongest);
  delay_ = std::max(delay_.value_or(Micros{0}), needed);
}

std::optional<Micros> RepairDelay::wanted(Micros now) {
  if (delay_ && now - *lastRepair_ > kRecovery) delay_ = Micros{0};
  return delay_;
}

}  // namespace kovra
