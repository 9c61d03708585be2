#include "h264_parameter_sets.h"

#include <algorithm>
#include <optional>

#include "annexb.h"

namespace kovra {

namespace {

// An Exp-Golomb number ue(v) (ITU-T H.264, 9.1) that ends within the byte: 0 to 14.
std::optional<std::uint32_t> ReadShortUe(std::uint8_t byte) {
  int zeros = 0;
  while (zeros < 4 && (byte & (0x80 >> zeros)) == 0) ++zeros;
  if (zeros == 4) return std::nullopt;
  const int length = 2 * zeros + 1;
  return (static_cast<std::uint32_t>(byte) >> (8 - length)) - 1;
}

// The id is the first element of a PPS; in an SPS profile, constraints and level stand before it.
std::optional<std::uint32_t> ReadId(ByteView nal, std::size_t offset) {
  if (nal.size <= offset + 1 || nal.size > H264ParameterSets::kMaxSetBytes) return std::nullopt;
  const std::optional<std::uint32_t> id = ReadShortUe(nal[offset]);
  if (!id || *id > H264ParameterSets::kMaxId) return std::nullopt;
  return id;
}

}  // namespace

void H264ParameterSets::remember(ByteView nal) {
  if (nal.empty()) return;
  const NalType type = GetNalType(nal);
  if (type == NalType::kSps) {
    if (const auto id = ReadId(nal, 4)) sps_.put(*id, nal);
  } else if (type == NalType::kPps) {
    if (const auto id = ReadId(nal, 1)) pps_.put(*id, nal);
  }
}

void H264ParameterSets::SetsById::put(std::uint32_t id, ByteView nal) {
  const auto place = std::lower_bound(ids.begin(), ids.end(), id);
  const auto index = place - ids.begin();
  if (place == ids.end() || *place != id) {
    ids.insert(place, id);
    nals.emplace(nals.begin() + index);
  }
  nals[static_cast<std::size_t>(index)].assign(nal.data, nal.data + nal.size);
}

}  // namespace kovra
