// Which frames of a video stream a viewer can use, and whether it wants a key frame.
#ifndef SIGNALCONN_ENGINE_KEY_FRAME_GATE_H
#define SIGNALCONN_ENGINE_KEY_FRAME_GATE_H

#include <cstdint>
#include <optional>

#include "media_frame.h"
#include "media_time.h"

namespace kovra {

// Closed at first: the first frame that passes is a key frame. One thread at a time.
class KeyFrameGate {
 public:
  // Whether the viewer gets this frame. A key frame opens the gate and answers the wish for one.
  bool admit(const MediaFrame& frame, Micros now);

  // The viewer asks for a key frame. A request that was sent before the last key frame can have arrived,
  // that is less than one round trip after it left, is already answered. A FIR with the number of the one
  // before is a repetition.
  void onPli(Micros now, Micros roundTrip);
  void onFir(std::uint8_t commandSequence, Micros now, Micros roundTrip);

  // Frames were lost on our side, or the stream changes: nothing passes until the next key frame.
  void close();

  bool wantsKeyFrame() const { return wanted_; }

 private:
  bool open_ = false;
  bool wanted_ = true;
  std::optional<Micros> lastKeyFrame_;
  std::optional<std::uint8_t> lastFir_;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_KEY_FRAME_GATE_H
