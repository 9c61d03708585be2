#include "annexb.h"

#include <cstring>

namespace kovra {

namespace {

// Where 00 00 01 begins in bytes; their size when it does not occur. Looks for the 01, which is rarer in coded
// video than zeros.
std::size_t FindStartCode(ByteView bytes) {
  std::size_t position = 2;
  while (position < bytes.size) {
    const void* found = std::memchr(bytes.data + position, 1, bytes.size - position);
    if (found == nullptr) break;
    position = static_cast<std::size_t>(static_cast<const std::uint8_t*>(found) - bytes.data);
    if (bytes[position - 1] == 0 && bytes[position - 2] == 0) return position - 2;
    ++position;
  }
  return bytes.size;
}

constexpr std::size_t kStartCodeBytes = 3;

}  // namespace

AnnexBReader::AnnexBReader(ByteView stream) : rest_(stream.from(FindStartCode(stream)).from(kStartCodeBytes)) {}

ByteView AnnexBReader::next() {
  while (!rest_.empty()) {
    const std::size_t end = FindStartCode(rest_);
    ByteView nal = rest_.from(0, end);
    rest_ = rest_.from(end).from(kStartCodeBytes);
    while (!nal.empty() && nal[nal.size - 1] == 0) --nal.size;
    if (!nal.empty()) return nal;
  }
  return {};
}

}  // namespace kovra
