// What a fuzz target takes from its input, and how it says that a property does not hold.
#ifndef SIGNALCONN_TESTS_FUZZ_INPUT_H
#define SIGNALCONN_TESTS_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "bytes.h"

namespace kovra {

// Ends the process, for libFuzzer to keep the input.
inline void Expect(bool holds, const char* property) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", property);
  std::abort();
}

// Takes numbers off the front of the input; zeros once it has run out.
class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size) : rest_(data, size) {}

  bool empty() const { return rest_.empty(); }
  ByteView rest() const { return rest_; }
  std::uint8_t takeByte() {
    if (rest_.empty()) return 0;
    const std::uint8_t byte = rest_[0];
    rest_ = rest_.from(1);
    return byte;
  }
  std::uint16_t takeU16() { return static_cast<std::uint16_t>(takeByte() << 8 | takeByte()); }

 private:
  ByteView rest_;
};

inline std::string_view AsText(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

}  // namespace kovra

#endif  // SIGNALCONN_TESTS_FUZZ_INPUT_H
