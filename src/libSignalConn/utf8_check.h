// Whether bytes that come in pieces are UTF-8 (RFC 3629).
#ifndef SIGNALCONN_UTF8_CHECK_H
#define SIGNALCONN_UTF8_CHECK_H

#include <cstddef>
#include <cstdint>

// Over-long forms, surrogates and what is beyond U+10FFFF are refused. Pure; one thread.
class Utf8Check {
 public:
  // Returns whether everything so far can be the beginning of UTF-8 text.
  bool Take(const char* data, std::size_t size);
  // Whether the text may end here.
  bool IsComplete() const { return missing_ == 0; }

 private:
  bool TakeByte(std::uint8_t byte);

  int missing_ = 0;            // bytes of the character at the end,
  std::uint8_t least_ = 0x80;  // the next of which lies between these
  std::uint8_t most_ = 0xbf;
};

#endif  // SIGNALCONN_UTF8_CHECK_H
