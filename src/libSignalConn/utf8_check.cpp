#include "utf8_check.h"

bool Utf8Check::Take(const char* data, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) {
    if (!TakeByte(static_cast<std::uint8_t>(data[i]))) return false;
  }
  return true;
}

bool Utf8Check::TakeByte(std::uint8_t byte) {
  if (missing_ > 0) {
    if (byte < least_ || byte > most_) return false;
    --missing_;
    least_ = 0x80;
    most_ = 0xbf;
    return true;
  }
  if (byte < 0x80) return true;
  if (byte < 0xc2 || byte > 0xf4) return false;
  missing_ = byte < 0xe0 ? 1 : byte < 0xf0 ? 2 : 3;
  if (byte == 0xe0) least_ = 0xa0;  // below: over-long
  if (byte == 0xed) most_ = 0x9f;   // above: surrogates
  if (byte == 0xf0) least_ = 0x90;  // below: over-long
  if (byte == 0xf4) most_ = 0x8f;   // above: beyond U+10FFFF
  return true;
}
