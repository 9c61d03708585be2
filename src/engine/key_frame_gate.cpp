#include "key_frame_gate.h"

namespace kovra {

bool KeyFrameGate::admit(const MediaFrame& frame, Micros now) {
  if (frame.isKeyFrame()) {
    open_ = true;
    wanted_ = false;
    lastKeyFrame_ = now;
  }
  return open_;
}

void KeyFrameGate::onPli(Micros now, Micros roundTrip) {
  if (lastKeyFrame_ && now - *lastKeyFrame_ < roundTrip) return;
  wanted_ = true;
}

void KeyFrameGate::onFir(std::uint8_t commandSequence, Micros now, Micros roundTrip) {
  if (lastFir_ == commandSequence) return;
  lastFir_ = commandSequence;
  onPli(now, roundTrip);
}

void KeyFrameGate::close() {
  open_ = false;
  wanted_ = true;
}

}  // namespace kovra
