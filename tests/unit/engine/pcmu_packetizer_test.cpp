#include "pcmu_packetizer.h"

#include <gtest/gtest.h>

#include <vector>

namespace kovra {
namespace {

constexpr Micros kSecond{1'000'000};

class PcmuPacketizerTest : public testing::Test {
 protected:
  // The frame of so many bytes written at now.
  FrameRef write(Micros now, std::size_t size = kPcmuFrameBytes) {
    const std::vector<std::uint8_t> audio(size, 0x55);
    ByteView rest(audio);
    return packetizer_.packetize(rest, now);
  }

  PcmuPacketizer packetizer_{FramePool::Create(1 << 16)};
};

TEST_F(PcmuPacketizerTest, SendsAFrameAsOnePacket) {
  std::vector<std::uint8_t> audio(kPcmuFrameBytes, 0x55);
  audio[7] = 1;
  ByteView rest(audio);
  const FrameRef frame = packetizer_.packetize(rest, Micros(0));
  ASSERT_TRUE(frame);
  ASSERT_EQ(frame->packetCount(), 1u);
  EXPECT_EQ(std::vector<std::uint8_t>(frame->payload(0).data, frame->payload(0).data + frame->payload(0).size), audio);
  EXPECT_TRUE(rest.empty());
  EXPECT_FALSE(packetizer_.packetize(rest, Micros(0)));
}

TEST_F(PcmuPacketizerTest, AdvancesTheTimestampByTheBytesSent) {
  std::vector<std::uint32_t> timestamps;
  for (const std::size_t size : {160u, 80u, 480u, 1u}) timestamps.push_back(write(Micros(0), size)->timestamp());
  EXPECT_EQ(timestamps, (std::vector<std::uint32_t>{0, 160, 240, 720}));
}

TEST_F(PcmuPacketizerTest, CutsWhatIsTooLongForAPacket) {
  std::vector<std::uint8_t> audio(2 * PcmuPacketizer::kMaxPacketBytes + 3);
  for (std::size_t i = 0; i < audio.size(); ++i) audio[i] = static_cast<std::uint8_t>(i * 7);
  ByteView rest(audio);
  std::vector<std::uint8_t> joined;
  while (const FrameRef frame = packetizer_.packetize(rest, Micros(0))) {
    EXPECT_EQ(frame->timestamp(), joined.size());
    EXPECT_LE(frame->payload(0).size, PcmuPacketizer::kMaxPacketBytes);
    joined.insert(joined.end(), frame->payload(0).data, frame->payload(0).data + frame->payload(0).size);
  }
  EXPECT_EQ(joined, audio);
}

TEST_F(PcmuPacketizerTest, MarksTheFirstPacketOnly) {
  EXPECT_TRUE(write(Micros(5'000'000))->marker(0));
  EXPECT_FALSE(write(Micros(5'020'000))->marker(0));
  EXPECT_FALSE(write(Micros(5'040'000))->marker(0));
}

TEST_F(PcmuPacketizerTest, KeepsTheTimestampsEvenWhateverTheCallersJitter) {
  write(Micros(0));
  const FrameRef late = write(Micros(20'000 + 200'000));
  EXPECT_EQ(late->timestamp(), 160u);
  EXPECT_FALSE(late->marker(0));
  EXPECT_EQ(write(Micros(221'000))->timestamp(), 320u);
}

TEST_F(PcmuPacketizerTest, AdvancesOverAPauseByItsLengthAndMarksWhatFollows) {
  write(Micros(0));
  const FrameRef after = write(Micros(20'000 + 500'000));
  EXPECT_EQ(after->timestamp(), 160u + 4000u);
  EXPECT_TRUE(after->marker(0));
  const FrameRef next = write(Micros(540'000));
  EXPECT_EQ(next->timestamp(), 160u + 4000u + 160u);
  EXPECT_FALSE(next->marker(0));
}

TEST_F(PcmuPacketizerTest, SeesNoPauseWhereACallerWritesLongBuffers) {
  for (int i = 0; i < 10; ++i) {
    const FrameRef frame = write(Micros(100'000) * i, 800);
    EXPECT_EQ(frame->timestamp(), 800u * static_cast<std::uint32_t>(i));
    EXPECT_EQ(frame->marker(0), i == 0);
  }
}

TEST_F(PcmuPacketizerTest, SeesNoPauseWhereACallerWritesASecondAtATime) {
  for (int i = 0; i < 5; ++i) {
    const Micros now = kSecond * i + (i % 2 == 0 ? Micros(0) : Micros(150'000));
    const std::vector<std::uint8_t> audio(8000, 0x55);
    ByteView rest(audio);
    for (std::uint32_t packet = 0; packet < 10; ++packet) {
      const FrameRef frame = packetizer_.packetize(rest, now);
      ASSERT_EQ(frame->timestamp(), 8000u * static_cast<std::uint32_t>(i) + 800u * packet);
      ASSERT_EQ(frame->marker(0), i == 0 && packet == 0);
    }
    ASSERT_TRUE(rest.empty());
  }
}

TEST_F(PcmuPacketizerTest, SeesThePauseAfterALongBuffer) {
  const std::vector<std::uint8_t> audio(8000, 0x55);
  ByteView rest(audio);
  while (packetizer_.packetize(rest, Micros(0))) continue;
  const FrameRef after = write(Micros(1'300'000));
  EXPECT_TRUE(after->marker(0));
  EXPECT_EQ(after->timestamp(), 10'400u);
}

TEST_F(PcmuPacketizerTest, BeginsAtTheTimeOfTheFirstWriteSoThatStreamsFitTogether) {
  EXPECT_EQ(write(Micros(5'000'000))->timestamp(), 40'000u);
  EXPECT_EQ(write(Micros(5'020'000))->timestamp(), 40'160u);
}

TEST_F(PcmuPacketizerTest, SeesThePauseOfACallerWhoRunsAhead) {
  for (int i = 0; i < 1000; ++i) write(Micros(0));
  const FrameRef after = write(Micros(500'000));
  EXPECT_TRUE(after->marker(0));
  EXPECT_EQ(after->timestamp(), 160'000u + 2400u);
}

}  // namespace
}  // namespace kovra
