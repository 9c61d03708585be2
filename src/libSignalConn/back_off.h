// How long to wait before the signalling link is tried again.
#ifndef SIGNALCONN_BACK_OFF_H
#define SIGNALCONN_BACK_OFF_H

#include <cstdint>

const std::uint32_t kFirstBackOffMs = 2000;
const std::uint32_t kLongestBackOffMs = 30000;

// Exponential back-off with full jitter: the wait is spread evenly over 0 to 2 s after the first failure,
// 0 to 4 s after the second, and so on up to 0 to 30 s, for ever. Spreading from 0 keeps a fleet that lost
// its server together from coming back together. failures counts attempts since the link last proved itself, from 1;
// random is any even 32-bit random number. Pure.
std::uint32_t BackOffDelayMs(unsigned failures, std::uint32_t random);

#endif  // SIGNALCONN_BACK_OFF_H
