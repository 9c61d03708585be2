#include <algorithm>
#include <vector>

#include "fuzz_input.h"
#include "rtcp.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kovra;
  RtcpCompound compound;
  ReadRtcp(ByteView(data, size), compound);
  Expect(compound.nacks.size() <= size / 4 * 17, "no more losses than the items can name");
  for (const RtcpReportBlock& block : compound.reportBlocks) {
    RoundTripTime(block, NtpTime{block.jitter} << 16);
    Expect(block.cumulativeLost >= -0x800000 && block.cumulativeLost <= 0x7FFFFF, "24 bits of loss");
  }

  std::vector<std::uint8_t> written;
  for (const RtcpSenderReport& report : compound.senderReports) {
    WriteSenderReport(report.ssrc, report.info, {}, written);
  }
  WriteReceiverReport(1, compound.reportBlocks, written);
  WriteBye(compound.byes, written);
  RtcpCompound again;
  Expect(ReadRtcp(ByteView(written), again), "written reports can be read");
  Expect(again.senderReports.size() == compound.senderReports.size(), "as many as were written");
  Expect(again.reportBlocks.size() == std::min<std::size_t>(compound.reportBlocks.size(), 31),
         "up to the count's limit");
  for (std::size_t i = 0; i < again.reportBlocks.size(); ++i) {
    Expect(again.reportBlocks[i].cumulativeLost == compound.reportBlocks[i].cumulativeLost, "with the same loss");
  }
  return 0;
}
