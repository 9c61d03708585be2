// H.264 byte streams with start codes (ITU-T H.264, Annex B) and the kinds of NAL units in them.
#ifndef SIGNALCONN_ENGINE_ANNEXB_H
#define SIGNALCONN_ENGINE_ANNEXB_H

#include <cstdint>

#include "bytes.h"

namespace kovra {

enum class NalType : std::uint8_t {
  kSlice = 1,
  kPartitionA = 2,
  kPartitionB = 3,
  kPartitionC = 4,
  kIdrSlice = 5,
  kSei = 6,
  kSps = 7,
  kPps = 8,
  kAccessUnitDelimiter = 9,
  kFiller = 12,
};

// The type in the NAL unit's first byte. Not every value has a name above. nal is not empty.
inline NalType GetNalType(ByteView nal) { return static_cast<NalType>(nal[0] & 0x1F); }

// Walks over the NAL units of a stream, which it borrows. Bytes before the first start code belong to no NAL unit.
class AnnexBReader {
 public:
  explicit AnnexBReader(ByteView stream);

  // The next NAL unit that is not empty, without its start code and the zero bytes that trail it; an empty
  // view at the end.
  ByteView next();

 private:
  ByteView rest_;  // begins right behind a start code, or is empty
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_ANNEXB_H
