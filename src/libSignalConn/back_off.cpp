#include "back_off.h"

#include <algorithm>

std::uint32_t BackOffDelayMs(unsigned failures, std::uint32_t random) {
  const unsigned doublings = std::min(failures > 0 ? failures - 1 : 0U, 4U);  // four reach the longest wait
  const std::uint64_t widest = std::min(kFirstBackOffMs << doublings, kLongestBackOffMs);
  return static_cast<std::uint32_t>(random * (widest + 1) >> 32U);
}
