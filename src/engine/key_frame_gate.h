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
  // A viewer that asks all the time gets no more key frames than this allows: they are large, and all viewers of the
  // stream are sent them.
  static constexpr Micros kMinInterval{300'000};

  // Whether the viewer gets this frame. A key frame opens the gate and answers the wish for one.
  bool admit(const MediaFrame& frame, Micros now);

  // The viewer asks for a key frame. A request that was sent before the last key frame can have arrived,
  // that is less than one round trip after it left, is already answered. Another that comes less than kMinInterval
  // after that key frame is held until then. A FIR with the number of the one before is a repetition.
  void onPli(Micros now, Micros roundTrip);
  void onFir(std::uint8_t commandSequence, Micros now, Micros roundTrip);

  // Frames were lost on our side, or the stream changes: nothing passes until the next key frame.
  void close();

  bool wantsKeyFrame() const { return wanted_; }

  // When a request that is held becomes a wish, by onTime; nullopt: none is.
  std::optional<Micros> deadline() const { return heldUntil_; }
  void onTime(Micros now);

 private:
  bool request(Micros now, Micros roundTrip);

  bool open_ = false;
  bool wanted_ = true;
  std::optional<Micros> heldUntil_;
  std::optional<Micros> lastKeyFrame_;
  std::optional<std::uint8_t> lastFir_;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_KEY_FRAME_GATE_H
