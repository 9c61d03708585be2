// H.264 access units as RTP payloads (RFC 6184): single NAL units, and FU-A for those too large for a packet.
#ifndef SIGNALCONN_ENGINE_H264_PACKETIZER_H
#define SIGNALCONN_ENGINE_H264_PACKETIZER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "bytes.h"
#include "h264_parameter_sets.h"
#include "media_frame.h"

namespace kovra {

constexpr std::uint32_t kVideoClockRate = 90000;

// One per video stream (video type). One thread at a time.
//
// Access unit delimiters and filler are dropped, and so are NAL units that RTP gives another meaning. An IDR
// picture without SPS or PPS gets the last ones that the stream has shown. STAP-A is not used, so that a viewer
// who only knows single NAL unit mode can read all but the FU-A packets.
class H264Packetizer {
 public:
  static constexpr std::size_t kMaxAccessUnitBytes = std::size_t{4} << 20;

  // maxPayload: most bytes of one RTP payload, 3 to 65535.
  H264Packetizer(std::shared_ptr<FramePool> pool, std::size_t maxPayload);

  // Cuts one access unit in Annex B form; its bytes are borrowed for the call. timestamp is at
  // kVideoClockRate; one that is not after the frame before is moved there, since the viewer takes frames of
  // one timestamp for one. Returns an empty reference when nothing is to be sent: no picture in it (parameter
  // sets that come alone are remembered for the next IDR picture), no start code, or too large.
  FrameRef packetize(ByteView accessUnit, std::uint32_t timestamp);

 private:
  struct Contents {
    bool picture = false;
    bool idr = false;
    bool sps = false;
    bool pps = false;
  };
  Contents collect(ByteView accessUnit);
  std::uint32_t advanceTo(std::uint32_t timestamp);
  std::size_t roomFor(std::size_t accessUnitBytes) const;
  void addAll(MediaFrame& frame, const std::vector<std::vector<std::uint8_t>>& nals) const;
  void add(MediaFrame& frame, ByteView nal) const;
  void addFragments(MediaFrame& frame, ByteView nal) const;

  const std::shared_ptr<FramePool> pool_;
  const std::size_t maxPayload_;
  H264ParameterSets parameterSets_;
  std::optional<std::uint32_t> lastTimestamp_;
  std::vector<ByteView> nals_;  // what is sent of the access unit at hand; its memory is kept
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_H264_PACKETIZER_H
