#include "pcmu_packetizer.h"

#include <gtest/gtest.h>

#include <vector>

namespace kovra {
namespace {

class PcmuPacketizerTest : public testing::Test {
 protected:
  PcmuPacketizer packetizer_{FramePool::Create(1 << 16)};
};

TEST_F(PcmuPacketizerTest, SendsAFrameAsOnePacketWithoutMarker) {
  const std::vector<std::uint8_t> audio(kPcmuFrameBytes, 0x55);
  ByteView rest(audio);
  const FrameRef frame = packetizer_.packetize(rest);
  ASSERT_TRUE(frame);
  ASSERT_EQ(frame->packetCount(), 1u);
  EXPECT_FALSE(frame->marker(0));
  EXPECT_EQ(std::vector<std::uint8_t>(frame->payload(0).data, frame->payload(0).data + frame->payload(0).size), audio);
  EXPECT_TRUE(rest.empty());
  EXPECT_FALSE(packetizer_.packetize(rest));
}

TEST_F(PcmuPacketizerTest, AdvancesTheTimestampByTheBytesSent) {
  const std::vector<std::uint8_t> audio(480, 0);
  std::vector<std::uint32_t> timestamps;
  for (const std::size_t size : {160u, 80u, 480u, 1u}) {
    ByteView rest = ByteView(audio).from(0, size);
    timestamps.push_back(packetizer_.packetize(rest)->timestamp());
  }
  EXPECT_EQ(timestamps, (std::vector<std::uint32_t>{0, 160, 240, 720}));
}

TEST_F(PcmuPacketizerTest, CutsWhatIsTooLongForAPacket) {
  std::vector<std::uint8_t> audio(2 * PcmuPacketizer::kMaxPacketBytes + 3);
  for (std::size_t i = 0; i < audio.size(); ++i) audio[i] = static_cast<std::uint8_t>(i * 7);
  ByteView rest(audio);
  std::vector<std::uint8_t> joined;
  while (const FrameRef frame = packetizer_.packetize(rest)) {
    EXPECT_EQ(frame->timestamp(), joined.size());
    EXPECT_LE(frame->payload(0).size, PcmuPacketizer::kMaxPacketBytes);
    joined.insert(joined.end(), frame->payload(0).data, frame->payload(0).data + frame->payload(0).size);
  }
  EXPECT_EQ(joined, audio);
}

}  // namespace
}  // namespace kovra
