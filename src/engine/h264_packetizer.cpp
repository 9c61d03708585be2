#include "h264_packetizer.h"

#include <utility>

#include "annexb.h"

namespace kovra {

namespace {

constexpr std::uint8_t kForbiddenBit = 0x80;
constexpr std::uint8_t kTypeMask = 0x1F;
constexpr std::uint8_t kFirstPacketizationType = 24;  // from here on the types are RTP's own (RFC 6184, 5.2)
constexpr std::uint8_t kFuA = 28;
constexpr std::uint8_t kFuStart = 0x80;
constexpr std::uint8_t kFuEnd = 0x40;
constexpr std::size_t kFuHeaderBytes = 2;

bool IsSent(ByteView nal) {
  const auto type = static_cast<std::uint8_t>(nal[0] & kTypeMask);
  return (nal[0] & kForbiddenBit) == 0 && type != 0 && type < kFirstPacketizationType &&
         GetNalType(nal) != NalType::kAccessUnitDelimiter && GetNalType(nal) != NalType::kFiller;
}

bool IsPicture(ByteView nal) { return GetNalType(nal) >= NalType::kSlice && GetNalType(nal) <= NalType::kIdrSlice; }

std::size_t TotalBytes(const std::vector<std::vector<std::uint8_t>>& nals) {
  std::size_t total = 0;
  for (const auto& nal : nals) total += nal.size();
  return total;
}

}  // namespace

H264Packetizer::H264Packetizer(std::shared_ptr<FramePool> pool, std::size_t maxPayload)
    : pool_(std::move(pool)), maxPayload_(maxPayload) {}

FrameRef H264Packetizer::packetize(ByteView accessUnit, std::uint32_t timestamp) {
  if (accessUnit.size > kMaxAccessUnitBytes) return {};
  const Contents contents = collect(accessUnit);
  if (!contents.picture) return {};

  FrameRef frame = pool_->take(roomFor(accessUnit.size));
  MediaFrame& edited = frame.edit();
  edited.setTimestamp(advanceTo(timestamp));
  const bool hasSps = contents.sps || !parameterSets_.sps().empty();
  const bool hasPps = contents.pps || !parameterSets_.pps().empty();
  edited.setKeyFrame(contents.idr && hasSps && hasPps);
  // An SPS goes to the very front: decoders read a PPS only when they know its SPS.
  if (contents.idr && !contents.sps) addAll(edited, parameterSets_.sps());
  bool needsPps = contents.idr && !contents.pps;
  for (const ByteView nal : nals_) {
    if (needsPps && GetNalType(nal) == NalType::kIdrSlice) {
      addAll(edited, parameterSets_.pps());
      needsPps = false;
    }
    add(edited, nal);
  }
  edited.setMarkerOnLast();
  return frame;
}

H264Packetizer::Contents H264Packetizer::collect(ByteView accessUnit) {
  Contents contents;
  nals_.clear();
  AnnexBReader reader(accessUnit);
  for (ByteView nal = reader.next(); !nal.empty(); nal = reader.next()) {
    if (!IsSent(nal)) continue;
    nals_.push_back(nal);
    parameterSets_.remember(nal);
    contents.picture = contents.picture || IsPicture(nal);
    contents.idr = contents.idr || GetNalType(nal) == NalType::kIdrSlice;
    contents.sps = contents.sps || GetNalType(nal) == NalType::kSps;
    contents.pps = contents.pps || GetNalType(nal) == NalType::kPps;
  }
  return contents;
}

std::uint32_t H264Packetizer::advanceTo(std::uint32_t timestamp) {
  // Only a little behind: after hours without a frame the difference of wrapped timestamps means nothing.
  if (lastTimestamp_ && *lastTimestamp_ - timestamp < kVideoClockRate) timestamp = *lastTimestamp_ + 1;
  lastTimestamp_ = timestamp;
  return timestamp;
}

std::size_t H264Packetizer::roomFor(std::size_t accessUnitBytes) const {
  const std::size_t fragments = accessUnitBytes / (maxPayload_ - kFuHeaderBytes) + nals_.size();
  return accessUnitBytes + fragments * kFuHeaderBytes + TotalBytes(parameterSets_.sps()) +
         TotalBytes(parameterSets_.pps());
}

void H264Packetizer::addAll(MediaFrame& frame, const std::vector<std::vector<std::uint8_t>>& nals) const {
  for (const auto& nal : nals) add(frame, ByteView(nal));
}

void H264Packetizer::add(MediaFrame& frame, ByteView nal) const {
  if (nal.size <= maxPayload_) {
    frame.add({}, nal, false);
  } else {
    addFragments(frame, nal);
  }
}

// FU-A (RFC 6184, 5.8). All fragments are of one size and only the last may be shorter, by as little as can be: a
// run of equal packets can be handed to the kernel as one.
void H264Packetizer::addFragments(MediaFrame& frame, ByteView nal) const {
  const std::size_t room = maxPayload_ - kFuHeaderBytes;
  const ByteView body = nal.from(1);
  const std::size_t count = (body.size + room - 1) / room;
  std::uint8_t header[kFuHeaderBytes] = {static_cast<std::uint8_t>((nal[0] & ~kTypeMask) | kFuA), 0};
  const std::size_t size = (body.size + count - 1) / count;
  for (std::size_t begin = 0; begin < body.size; begin += size) {
    const ByteView part = body.from(begin, size);
    header[1] = static_cast<std::uint8_t>(nal[0] & kTypeMask);
    if (begin == 0) header[1] |= kFuStart;
    if (begin + part.size == body.size) header[1] |= kFuEnd;
    frame.add({header, kFuHeaderBytes}, part, false);
  }
}

}  // namespace kovra
