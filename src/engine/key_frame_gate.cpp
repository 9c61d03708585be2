#include "key_frame_gate.h"

namespace kovra {

bool KeyFrameGate::admit(const MediaFrame& frame, Micros now) {
  if (frame.isKeyFrame()) {
    open_ = true;
    wanted_ = false;
    heldUntil_.reset();
    lastKeyFrame_ = now;
  }
  return open_;
}

void KeyFrameGate::onPli(Micros now, Micros roundTrip) { request(now, roundTrip); }

void KeyFrameGate::onFir(std::uint8_t commandSequence, Micros now, Micros roundTrip) {
  if (lastFir_ != commandSequence && request(now, roundTrip)) lastFir_ = commandSequence;
}

// Whether it is not answered already.
bool KeyFrameGate::request(Micros now, Micros roundTrip) {
  if (lastKeyFrame_ && now - *lastKeyFrame_ < roundTrip) return false;
  if (wanted_) return true;
  if (lastKeyFrame_ && now - *lastKeyFrame_ < kMinInterval) {
    heldUntil_ = *lastKeyFrame_ + kMinInterval;
  } else {
    wanted_ = true;
  }
  return true;
}

void KeyFrameGate::onTime(Micros now) {
  if (!heldUntil_ || now < *heldUntil_) return;
  heldUntil_.reset();
  wanted_ = true;
}

void KeyFrameGate::close() {
  open_ = false;
  wanted_ = true;
  heldUntil_.reset();
}

}  // namespace kovra
