#include "utf8.h"

#include <cstddef>

namespace signalconn::server {

namespace {

// What may follow a lead byte: the number of further bytes, and the range of the first of them, which is
// where overlong forms, surrogates and numbers above U+10FFFF show. 0 further bytes: not a lead byte.
struct Sequence {
  std::size_t further;
  unsigned char lowest, highest;
};

Sequence sequenceOf(unsigned char lead) {
  if (lead >= 0xC2 && lead <= 0xDF) return {1, 0x80, 0xBF};
  if (lead == 0xE0) return {2, 0xA0, 0xBF};
  if (lead == 0xED) return {2, 0x80, 0x9F};
  if (lead >= 0xE1 && lead <= 0xEF) return {2, 0x80, 0xBF};
  if (lead == 0xF0) return {3, 0x90, 0xBF};
  if (lead >= 0xF1 && lead <= 0xF3) return {3, 0x80, 0xBF};
  if (lead == 0xF4) return {3, 0x80, 0x8F};
  return {0, 0, 0};
}

bool isWithin(char byte, unsigned char lowest, unsigned char highest) {
  const auto value = static_cast<unsigned char>(byte);
  return value >= lowest && value <= highest;
}

}  // namespace

bool isUtf8(std::string_view text) {
  std::size_t at = 0;
  while (at < text.size()) {
    const auto lead = static_cast<unsigned char>(text[at++]);
    if (lead < 0x80) continue;
    const Sequence sequence = sequenceOf(lead);
    if (sequence.further == 0 || text.size() - at < sequence.further) return false;
    if (!isWithin(text[at], sequence.lowest, sequence.highest)) return false;
    for (std::size_t i = 1; i < sequence.further; ++i) {
      if (!isWithin(text[at + i], 0x80, 0xBF)) return false;
    }
    at += sequence.further;
  }
  return true;
}

}  // namespace signalconn::server
