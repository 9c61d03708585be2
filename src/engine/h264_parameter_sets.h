// The sequence and picture parameter sets that an H.264 stream has shown last.
#ifndef SIGNALCONN_ENGINE_H264_PARAMETER_SETS_H
#define SIGNALCONN_ENGINE_H264_PARAMETER_SETS_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "bytes.h"

namespace kovra {

// Keeps one SPS and one PPS for each of their ids. Bounded: ids that no camera uses, sets larger than
// kMaxSetBytes and NAL units that cannot be read are not kept.
class H264ParameterSets {
 public:
  static constexpr std::size_t kMaxSetBytes = 1024;
  static constexpr std::uint32_t kMaxId = 7;

  // Keeps a copy of nal when it is an SPS or PPS; other kinds are ignored.
  void remember(ByteView nal);

  // Each set one NAL unit, ordered by id. Valid until the next remember.
  const std::vector<std::vector<std::uint8_t>>& sps() const { return sps_.nals; }
  const std::vector<std::vector<std::uint8_t>>& pps() const { return pps_.nals; }

 private:
  struct SetsById {
    std::vector<std::uint32_t> ids;
    std::vector<std::vector<std::uint8_t>> nals;
    void put(std::uint32_t id, ByteView nal);
  };

  SetsById sps_;
  SetsById pps_;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_H264_PARAMETER_SETS_H
