#include "h264_packetizer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "annexb.h"
#include "h264_depacketizer.h"
#include "rtp_packet.h"

namespace kovra {
namespace {

using testing::ElementsAre;

const Nal kSps = {0x67, 0x42, 0xE0, 0x1F, 0x8D, 0x68};  // id 0
const Nal kPps = {0x68, 0xCE, 0x3C, 0x80};              // id 0
const Nal kIdr = {0x65, 0x88, 0x84, 0x21};
const Nal kSlice = {0x41, 0x9A, 0x12};
const Nal kSei = {0x06, 0x05, 0x01, 0x80};
const Nal kDelimiter = {0x09, 0xF0};
const Nal kFiller = {0x0C, 0xFF, 0xFF, 0x80};

std::vector<std::uint8_t> AccessUnit(const std::vector<Nal>& nals) {
  std::vector<std::uint8_t> stream;
  for (const Nal& nal : nals) {
    stream.insert(stream.end(), {0, 0, 0, 1});
    stream.insert(stream.end(), nal.begin(), nal.end());
  }
  return stream;
}

// A NAL unit without bytes that could look like a start code.
Nal LongNal(std::uint8_t header, std::size_t size) {
  Nal nal(size);
  std::iota(nal.begin(), nal.end(), std::uint8_t{0});
  for (std::uint8_t& byte : nal) byte |= 0x80;
  nal[0] = header;
  return nal;
}

class H264PacketizerTest : public testing::Test {
 protected:
  FrameRef packetize(const std::vector<Nal>& nals, std::uint32_t timestamp = 0) {
    return packetizer_.packetize(ByteView(AccessUnit(nals)), timestamp);
  }
  std::vector<Nal> sent(const std::vector<Nal>& nals) {
    const FrameRef frame = packetize(nals);
    if (!frame) return {};
    const auto read = Depacketize(*frame);
    EXPECT_TRUE(read.has_value());
    return read.value_or(std::vector<Nal>{});
  }

  std::shared_ptr<FramePool> pool_ = FramePool::Create(1 << 20);
  H264Packetizer packetizer_{pool_, kMaxRtpPayloadBytes};
};

TEST_F(H264PacketizerTest, SendsASmallNalUnitAsOnePacketWithMarker) {
  const FrameRef frame = packetize({kSlice}, 4711);
  ASSERT_TRUE(frame);
  ASSERT_EQ(frame->packetCount(), 1u);
  EXPECT_TRUE(frame->marker(0));
  EXPECT_EQ(Nal(frame->payload(0).data, frame->payload(0).data + frame->payload(0).size), kSlice);
  EXPECT_EQ(frame->timestamp(), 4711u);
}

TEST_F(H264PacketizerTest, GivesEachFrameATimestampOfItsOwn) {
  EXPECT_EQ(packetize({kSlice}, 0xFFFFFFFF)->timestamp(), 0xFFFFFFFFu);
  EXPECT_EQ(packetize({kSlice}, 0xFFFFFFFF)->timestamp(), 0u);
  EXPECT_EQ(packetize({kSlice}, 0xFFFFFFF0)->timestamp(), 1u);
  EXPECT_EQ(packetize({kSlice}, 3000)->timestamp(), 3000u);
}

TEST_F(H264PacketizerTest, BelievesTheTimestampAfterHoursWithoutAFrame) {
  packetize({kSlice}, 3000);
  EXPECT_EQ(packetize({kSlice}, 3000 + 0x90000000u)->timestamp(), 3000 + 0x90000000u);
}

TEST_F(H264PacketizerTest, PutsEachNalUnitIntoItsOwnPacketAndMarksTheLast) {
  const FrameRef frame = packetize({kSps, kPps, kIdr, kIdr});
  ASSERT_TRUE(frame);
  ASSERT_EQ(frame->packetCount(), 4u);
  EXPECT_FALSE(frame->marker(0));
  EXPECT_FALSE(frame->marker(2));
  EXPECT_TRUE(frame->marker(3));
}

TEST_F(H264PacketizerTest, FillsAPacketToTheLastByteBeforeItFragments) {
  const FrameRef whole = packetize({LongNal(0x41, kMaxRtpPayloadBytes)});
  EXPECT_EQ(whole->packetCount(), 1u);
  const FrameRef cut = packetize({LongNal(0x41, kMaxRtpPayloadBytes + 1)});
  EXPECT_EQ(cut->packetCount(), 2u);
}

TEST_F(H264PacketizerTest, FragmentsOfOneNalUnitAreOfOneSizeButForTheLast) {
  const FrameRef frame = packetize({LongNal(0x65, 10000)});
  ASSERT_EQ(frame->packetCount(), 9u);
  for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(frame->payload(i).size, 1113u) << i;
  EXPECT_EQ(frame->payload(8).size, 9999u - 8 * 1111 + 2);
}

TEST_F(H264PacketizerTest, FragmentHeadersTellTypeStartAndEnd) {
  const FrameRef frame = packetize({LongNal(0x65, 3000)});
  ASSERT_EQ(frame->packetCount(), 3u);
  for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(frame->payload(i)[0], 0x60 | 28) << i;
  EXPECT_EQ(frame->payload(0)[1], 0x80 | 5);
  EXPECT_EQ(frame->payload(1)[1], 5);
  EXPECT_EQ(frame->payload(2)[1], 0x40 | 5);
}

TEST_F(H264PacketizerTest, WhatAViewerJoinsEqualsTheInputForEverySizeAndPacketSize) {
  for (std::size_t maxPayload : {3u, 4u, 7u, 50u, 1186u}) {
    H264Packetizer packetizer(pool_, maxPayload);
    for (std::size_t size = 1; size < 260; ++size) {
      const std::vector<Nal> nals = {LongNal(0x41, size), LongNal(0x01, 260 - size)};
      const FrameRef frame = packetizer.packetize(ByteView(AccessUnit(nals)), 0);
      ASSERT_TRUE(frame);
      for (std::size_t i = 0; i < frame->packetCount(); ++i) ASSERT_LE(frame->payload(i).size, maxPayload);
      ASSERT_EQ(Depacketize(*frame), nals) << "size " << size << ", packets of " << maxPayload;
    }
  }
}

TEST_F(H264PacketizerTest, DropsDelimitersAndFiller) {
  EXPECT_THAT(sent({kDelimiter, kFiller, kSlice, kFiller}), ElementsAre(kSlice));
}

TEST_F(H264PacketizerTest, DropsNalUnitsThatRtpGivesAnotherMeaning) {
  const Nal stapA = {0x78, 0x00, 0x01, 0x41};
  const Nal fuA = {0x7C, 0x85, 0x41};
  const Nal unspecified = {0x60, 0x12};
  const Nal forbidden = {0xC1, 0x9A, 0x12};
  EXPECT_THAT(sent({stapA, fuA, unspecified, forbidden, kSlice}), ElementsAre(kSlice));
}

TEST_F(H264PacketizerTest, SendsSupplementalInformationWithItsPicture) {
  EXPECT_THAT(sent({kSei, kSlice}), ElementsAre(kSei, kSlice));
}

TEST_F(H264PacketizerTest, SendsNothingWithoutAPicture) {
  EXPECT_FALSE(packetizer_.packetize({}, 0));
  EXPECT_FALSE(packetize({}));
  EXPECT_FALSE(packetize({kDelimiter}));
  EXPECT_FALSE(packetize({kSei}));
  EXPECT_FALSE(packetize({kSps, kPps}));
  const std::vector<std::uint8_t> noStartCode(100, 0x65);
  EXPECT_FALSE(packetizer_.packetize(ByteView(noStartCode), 0));
}

TEST_F(H264PacketizerTest, RefusesAnAccessUnitBeyondTheLimit) {
  const Nal largest = LongNal(0x41, H264Packetizer::kMaxAccessUnitBytes - 4);
  EXPECT_TRUE(packetize({largest}));
  const Nal tooLarge = LongNal(0x41, H264Packetizer::kMaxAccessUnitBytes - 3);
  EXPECT_FALSE(packetize({tooLarge}));
}

TEST_F(H264PacketizerTest, CallsAFrameAKeyFrameOnlyWhenADecoderCanBeginThere) {
  EXPECT_FALSE(packetize({kSlice})->isKeyFrame());
  EXPECT_FALSE(packetize({kIdr})->isKeyFrame());
  EXPECT_FALSE(packetize({kSps, kIdr})->isKeyFrame());
  EXPECT_TRUE(packetize({kSps, kPps, kIdr})->isKeyFrame());
  EXPECT_FALSE(packetize({kSps, kPps, kSlice})->isKeyFrame());
}

TEST_F(H264PacketizerTest, CallsAPictureWithItsOwnParameterSetsAKeyFrameWhateverTheirIdsAndSizes) {
  const Nal largeId = {0x68, 0x12, 0x3C, 0x80};  // id 8
  EXPECT_TRUE(packetize({kSps, largeId, kIdr})->isKeyFrame());
  EXPECT_TRUE(H264Packetizer(pool_, kMaxRtpPayloadBytes)
                  .packetize(ByteView(AccessUnit({LongNal(0x67, H264ParameterSets::kMaxSetBytes + 1), kPps, kIdr})), 0)
                  ->isKeyFrame());
  EXPECT_FALSE(packetize({kIdr})->isKeyFrame()) << "these are not kept for others";
  packetize({kSps});
  EXPECT_TRUE(packetize({largeId, kIdr})->isKeyFrame());
}

TEST_F(H264PacketizerTest, PutsTheLastParameterSetsBeforeAnIdrPictureWithoutThem) {
  sent({kSps, kPps, kIdr});
  EXPECT_THAT(sent({kDelimiter, kSei, kIdr, kIdr}), ElementsAre(kSps, kSei, kPps, kIdr, kIdr));
  EXPECT_TRUE(packetize({kIdr})->isKeyFrame());
}

TEST_F(H264PacketizerTest, RemembersParameterSetsThatComeInCallsOfTheirOwn) {
  EXPECT_FALSE(packetize({kSps}));
  EXPECT_FALSE(packetize({kPps}));
  EXPECT_THAT(sent({kIdr}), ElementsAre(kSps, kPps, kIdr));
}

TEST_F(H264PacketizerTest, AddsOnlyTheKindOfParameterSetThatIsMissing) {
  sent({kSps, kPps, kIdr});
  EXPECT_THAT(sent({kSps, kIdr}), ElementsAre(kSps, kPps, kIdr));
  EXPECT_THAT(sent({kPps, kIdr}), ElementsAre(kSps, kPps, kIdr));
}

TEST_F(H264PacketizerTest, DoesNotRepeatParameterSetsThatAreThereOrOnOtherPictures) {
  sent({kSps, kPps, kIdr});
  EXPECT_THAT(sent({kSps, kPps, kIdr}), ElementsAre(kSps, kPps, kIdr));
  EXPECT_THAT(sent({kSlice}), ElementsAre(kSlice));
}

TEST_F(H264PacketizerTest, ReplacesAParameterSetByTheNewOneOfItsId) {
  const Nal newSps = {0x67, 0x4D, 0x00, 0x28, 0x95, 0xA0};
  sent({kSps, kPps, kIdr});
  sent({newSps, kPps, kIdr});
  EXPECT_THAT(sent({kIdr}), ElementsAre(newSps, kPps, kIdr));
}

TEST_F(H264PacketizerTest, KeepsParameterSetsOfSeveralIds) {
  const Nal secondPps = {0x68, 0x5E, 0x3C, 0x80};  // id 1
  const Nal thirdPps = {0x68, 0x6E, 0x3C, 0x80};   // id 2
  sent({kSps, thirdPps, kPps, secondPps, kIdr});
  EXPECT_THAT(sent({kIdr}), ElementsAre(kSps, kPps, secondPps, thirdPps, kIdr));
}

TEST_F(H264PacketizerTest, DoesNotKeepParameterSetsThatNoCameraSends) {
  const Nal idTooLarge = {0x68, 0x12, 0x3C, 0x80};  // id 8
  const Nal truncatedSps = {0x67, 0x42, 0xE0, 0x1F};
  packetize({truncatedSps, idTooLarge, LongNal(0x67, H264ParameterSets::kMaxSetBytes + 1)});
  EXPECT_THAT(sent({kIdr}), ElementsAre(kIdr));
}

TEST_F(H264PacketizerTest, ReadsEachIdThatItKeeps) {
  // ue(v) of 0 to 7 at the top of the byte.
  const std::vector<std::uint8_t> codes = {0x80, 0x40, 0x60, 0x20, 0x28, 0x30, 0x38, 0x10};
  std::vector<Nal> expected = {kSps};
  for (const std::uint8_t code : codes) {
    packetize({Nal{0x68, code, 0x80}});
    expected.push_back({0x68, code, 0x80});
  }
  packetize({kSps});
  expected.push_back(kIdr);
  EXPECT_EQ(sent({kIdr}), expected);
}

TEST_F(H264PacketizerTest, TakesNoNewMemoryInASteadyStream) {
  const std::vector<std::uint8_t> accessUnit = AccessUnit({kSps, kPps, LongNal(0x65, 30000)});
  const std::uint8_t* memory = packetizer_.packetize(ByteView(accessUnit), 0)->payload(0).data;
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(packetizer_.packetize(ByteView(accessUnit), 0)->payload(0).data, memory);
  }
}

TEST_F(H264PacketizerTest, CopiesTheBytesOfTheCaller) {
  std::vector<std::uint8_t> accessUnit = AccessUnit({kSlice});
  const FrameRef frame = packetizer_.packetize(ByteView(accessUnit), 0);
  std::fill(accessUnit.begin(), accessUnit.end(), std::uint8_t{0});
  EXPECT_EQ(Depacketize(*frame), std::vector<Nal>{kSlice});
}

}  // namespace
}  // namespace kovra
