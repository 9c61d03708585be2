// How long a viewer whose path loses packets is asked to hold frames back, so that what is sent again comes in time.
#ifndef SIGNALCONN_ENGINE_REPAIR_DELAY_H
#define SIGNALCONN_ENGINE_REPAIR_DELAY_H

#include <optional>

#include "media_time.h"

namespace kovra {

// Viewers show frames as soon as they are whole: after a repair several at once, of which the eye sees the last.
// Browsers cure that for streams whose round trip they can measure, which those that only watch cannot.
// Bytes and times in, a delay out. One thread at a time.
class RepairDelay {
 public:
  static constexpr Micros kLongest{500'000};
  // A repair that stays alone for this long is not worth a delay.
  static constexpr Micros kMemory{10'000'000};
  // After so long without repairs the delay is taken back.
  static constexpr Micros kRecovery{60'000'000};

  // A packet was sent again on request. roundTrip: the last measured, 0 when unknown.
  void onRepair(Micros now, Micros roundTrip);

  // The delay to ask for, in whole steps of 10 ms; nullopt while none was ever needed.
  std::optional<Micros> wanted(Micros now);

 private:
  std::optional<Micros> delay_;
  std::optional<Micros> lastRepair_;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_REPAIR_DELAY_H
