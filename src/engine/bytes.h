// Borrowed views of bytes, and big-endian integers in them (network byte order).
#ifndef SIGNALCONN_ENGINE_BYTES_H
#define SIGNALCONN_ENGINE_BYTES_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kovra {

// Bytes that somebody else owns; valid as long as they are. Copy it freely.
struct ByteView {
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;

  ByteView() = default;
  ByteView(const std::uint8_t* begin, std::size_t count) : data(begin), size(count) {}
  explicit ByteView(const std::vector<std::uint8_t>& bytes) : data(bytes.data()), size(bytes.size()) {}

  bool empty() const { return size == 0; }
  std::uint8_t operator[](std::size_t index) const { return data[index]; }
  // The part from offset on, at most count bytes; empty when offset is behind the end.
  ByteView from(std::size_t offset, std::size_t count = SIZE_MAX) const {
    if (offset >= size) return {};
    return {data + offset, size - offset < count ? size - offset : count};
  }
};

// The readers trust that the bytes are there.
inline std::uint16_t ReadU16(const std::uint8_t* in) { return static_cast<std::uint16_t>(in[0] << 8 | in[1]); }
inline std::uint32_t ReadU24(const std::uint8_t* in) {
  return static_cast<std::uint32_t>(in[0]) << 16 | static_cast<std::uint32_t>(in[1]) << 8 | in[2];
}
inline std::uint32_t ReadU32(const std::uint8_t* in) {
  return static_cast<std::uint32_t>(in[0]) << 24 | ReadU24(in + 1);
}

inline void WriteU16(std::uint16_t value, std::uint8_t* out) {
  out[0] = static_cast<std::uint8_t>(value >> 8);
  out[1] = static_cast<std::uint8_t>(value);
}
inline void WriteU32(std::uint32_t value, std::uint8_t* out) {
  WriteU16(static_cast<std::uint16_t>(value >> 16), out);
  WriteU16(static_cast<std::uint16_t>(value), out + 2);
}

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_BYTES_H
