// Which written messages the peer has certainly read.
#ifndef SIGNALCONN_DELIVERY_WINDOW_H
#define SIGNALCONN_DELIVERY_WINDOW_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

const std::size_t kDeliveryWindowMessages = 64;
const std::size_t kDeliveryWindowBytes = 256 * 1024;

// Keeps the messages written on the present link until the peer has confirmed them. Bytes that the kernel
// took may still be lost with the link, at either end; a pong answers a ping in order (RFC 6455, 5.5.3), so
// it proves that everything written before the ping was read. What a broken link leaves unconfirmed is
// written again on the next one: every message arrives at least once, and a loss of the link repeats at most
// one window. Pure; one thread.
class DeliveryWindow {
 public:
  // A message has been handed to the kernel.
  void Written(std::string message);
  // Whether writing has to pause for a confirmation.
  bool IsFull() const;
  // Whether to ping now: half a window is unasked for, or writing has settled behind
  // something unasked for.
  bool PingDue(bool settled) const;
  // A ping goes out; the number names it.
  std::uint64_t Ping();
  // The pong that carries a ping's number came. Unknown numbers are ignored.
  void Pong(std::uint64_t number);
  // The peer answers no pings on this link: nothing can be confirmed, what was written counts as delivered.
  void GiveUpConfirming();
  bool AwaitsPong() const { return pinged_ > confirmed_; }
  // The link is gone. Returns what was not confirmed, oldest first, and starts anew.
  std::deque<std::string> TakeBack();

 private:
  std::deque<std::string> unconfirmed_;
  std::size_t bytes_ = 0;
  bool confirming_ = true;
  std::uint64_t confirmed_ = 0;  // messages of this link: confirmed,
  std::uint64_t pinged_ = 0;     // asked for by the latest ping,
  std::uint64_t written_ = 0;    // and written
};

#endif  // SIGNALCONN_DELIVERY_WINDOW_H
