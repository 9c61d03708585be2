#include "webrtcbin_access_unit.h"

#include <algorithm>
#include <cstring>

namespace engine {
namespace {

// nal_unit_type values (ITU-T H.264, table 7-1) and those of RTP payloads (RFC 6184, 5.2).
enum : unsigned { kLastSlice = 5, kIdrSlice = 5, kSps = 7, kPps = 8, kDelimiter = 9, kFiller = 12, kFuA = 28 };

struct NalUnit {
  const std::uint8_t* data;
  std::size_t size;
  unsigned type() const { return data[0] & 0x1fU; }
};

const std::uint8_t* findStartCode(const std::uint8_t* from, const std::uint8_t* end) {
  static const std::uint8_t kStartCode[] = {0, 0, 1};
  return std::search(from, end, std::begin(kStartCode), std::end(kStartCode));
}

std::vector<NalUnit> splitAnnexB(const std::uint8_t* data, std::size_t size) {
  std::vector<NalUnit> units;
  const std::uint8_t* const end = data + size;
  const std::uint8_t* code = findStartCode(data, end);
  while (code != end) {
    const std::uint8_t* const begin = code + 3;
    code = findStartCode(begin, end);
    const std::uint8_t* last = code;
    while (last != begin && last[-1] == 0) --last;  // trailing zeros belong to the next start code
    if (last != begin) units.push_back({begin, static_cast<std::size_t>(last - begin)});
  }
  return units;
}

void appendFragments(const NalUnit& unit, std::vector<Owned<GstMemory>>& payloads) {
  const std::uint8_t indicator = static_cast<std::uint8_t>((unit.data[0] & 0xe0U) | kFuA);
  std::vector<std::uint8_t> payload;
  for (std::size_t at = 1; at < unit.size;) {
    const std::size_t length = std::min(unit.size - at, kMaxPayload - 2);
    const unsigned start = at == 1 ? 0x80U : 0U;
    const unsigned end = at + length == unit.size ? 0x40U : 0U;
    payload.assign({indicator, static_cast<std::uint8_t>(start | end | unit.type())});
    payload.insert(payload.end(), unit.data + at, unit.data + at + length);
    payloads.push_back(copyToMemory(payload.data(), payload.size()));
    at += length;
  }
}

void appendPayloads(const NalUnit& unit, std::vector<Owned<GstMemory>>& payloads) {
  if (unit.size <= kMaxPayload) {
    payloads.push_back(copyToMemory(unit.data, unit.size));
  } else {
    appendFragments(unit, payloads);
  }
}

bool isParameterSet(const NalUnit& unit) { return unit.type() == kSps || unit.type() == kPps; }

}  // namespace

Owned<GstMemory> copyToMemory(const std::uint8_t* data, std::size_t size) {
  GstMemory* memory = gst_allocator_alloc(nullptr, size, nullptr);
  GstMapInfo map;
  gst_memory_map(memory, &map, GST_MAP_WRITE);
  std::memcpy(map.data, data, size);
  gst_memory_unmap(memory, &map);
  return Owned<GstMemory>(memory);
}

AccessUnit Packetizer::packetize(const std::uint8_t* data, std::size_t size) {
  const std::vector<NalUnit> units = splitAnnexB(data, size);
  const auto has = [&units](auto matches) { return std::any_of(units.begin(), units.end(), matches); };
  if (has([](const NalUnit& unit) { return unit.type() == kSps; })) parameterSets_.clear();
  for (const NalUnit& unit : units) {
    if (isParameterSet(unit)) parameterSets_.emplace_back(unit.data, unit.data + unit.size);
  }

  AccessUnit result;
  if (!has([](const NalUnit& unit) { return unit.type() >= 1 && unit.type() <= kLastSlice; })) return result;
  result.isKeyFrame = has([](const NalUnit& unit) { return unit.type() == kIdrSlice; });
  if (result.isKeyFrame) {
    for (const auto& set : parameterSets_) appendPayloads({set.data(), set.size()}, result.payloads);
  }
  for (const NalUnit& unit : units) {
    const bool alreadySent = result.isKeyFrame && isParameterSet(unit);
    if (alreadySent || unit.type() == kDelimiter || unit.type() == kFiller) continue;
    appendPayloads(unit, result.payloads);
  }
  return result;
}

}  // namespace engine
