// The numbers of docs/protocol.md: codes, limits and times.
#ifndef SIGNALCONN_SERVER_PROTOCOL_H
#define SIGNALCONN_SERVER_PROTOCOL_H

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace signalconn::server {

// "code" of an error message.
constexpr int kMalformed = 400;
constexpr int kSignInRefused = 401;
constexpr int kPermitRefused = 403;
constexpr int kNotReachable = 404;
constexpr int kSignInTooLate = 408;
constexpr int kOutOfTurn = 409;
constexpr int kTooLong = 413;
constexpr int kTooManyCalls = 429;

// Status of a WebSocket close frame (RFC 6455, 7.4.1).
constexpr std::uint16_t kCloseGoingAway = 1001;
constexpr std::uint16_t kClosePolicyViolation = 1008;
constexpr std::uint16_t kCloseTooBig = 1009;

constexpr std::size_t kLongestMessage = 262144;     // bytes of one inbound message
constexpr std::size_t kMostWaitingBytes = 1048576;  // outbound bytes that wait for one slow reader
constexpr std::size_t kLongestSerialCode = 64;      // bytes
constexpr std::size_t kLongestPermitCode = 256;     // bytes
constexpr std::size_t kMostCallsOfViewer = 16;
constexpr std::size_t kMostCallsOfCamera = 64;
constexpr int kFaultsUntilClose = 20;  // 400 and 409 together
constexpr int kWrongPermitsUntilClose = 10;
constexpr std::chrono::seconds kSignInTime{10};
constexpr std::chrono::seconds kIdleTimeout{60};
constexpr std::chrono::seconds kOfflineGrace{60};  // a camera may be away so long without losing its calls

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_PROTOCOL_H
