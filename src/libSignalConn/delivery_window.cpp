#include "delivery_window.h"

#include <utility>

void DeliveryWindow::Written(std::string message) {
  if (!confirming_) return;
  bytes_ += message.size();
  unconfirmed_.push_back(std::move(message));
  ++written_;
}

bool DeliveryWindow::IsFull() const {
  return unconfirmed_.size() >= kDeliveryWindowMessages || bytes_ >= kDeliveryWindowBytes;
}

bool DeliveryWindow::PingDue(bool settled) const {
  const std::uint64_t unasked = written_ - pinged_;
  if (unasked == 0 || AwaitsPong()) return false;
  return settled || IsFull() || unasked >= kDeliveryWindowMessages / 2;
}

std::uint64_t DeliveryWindow::Ping() { return pinged_ = written_; }

void DeliveryWindow::Pong(std::uint64_t number) {
  if (number > pinged_) return;
  for (; confirmed_ < number; ++confirmed_) {
    bytes_ -= unconfirmed_.front().size();
    unconfirmed_.pop_front();
  }
}

void DeliveryWindow::GiveUpConfirming() {
  TakeBack();
  confirming_ = false;
}

std::deque<std::string> DeliveryWindow::TakeBack() {
  std::deque<std::string> unconfirmed = std::move(unconfirmed_);
  *this = DeliveryWindow();
  return unconfirmed;
}
