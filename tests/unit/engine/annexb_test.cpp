#include "annexb.h"

#include <gtest/gtest.h>

#include <vector>

namespace kovra {
namespace {

using Bytes = std::vector<std::uint8_t>;

std::vector<Bytes> Split(const Bytes& stream) {
  std::vector<Bytes> nals;
  AnnexBReader reader((ByteView(stream)));
  for (ByteView nal = reader.next(); !nal.empty(); nal = reader.next()) {
    nals.emplace_back(nal.data, nal.data + nal.size);
  }
  return nals;
}

TEST(AnnexBReader, SplitsAtStartCodesOfThreeAndOfFourBytes) {
  EXPECT_EQ(Split({0, 0, 1, 0x67, 0x42, 0, 0, 0, 1, 0x68, 0xCE, 0, 0, 1, 0x65, 0x88}),
            (std::vector<Bytes>{{0x67, 0x42}, {0x68, 0xCE}, {0x65, 0x88}}));
}

TEST(AnnexBReader, FindsNothingInAnEmptyStreamOrWithoutStartCode) {
  EXPECT_TRUE(Split({}).empty());
  EXPECT_TRUE(Split({0}).empty());
  EXPECT_TRUE(Split({0, 1}).empty());
  EXPECT_TRUE(Split({0, 0}).empty());
  EXPECT_TRUE(Split({0x65, 0x88, 0x84, 0x21}).empty());
  EXPECT_TRUE(Split({0, 0, 2, 0x65}).empty());
}

TEST(AnnexBReader, PassesOverEmptyNalUnits) {
  EXPECT_TRUE(Split({0, 0, 1}).empty());
  EXPECT_TRUE(Split({0, 0, 1, 0, 0, 1, 0, 0, 0, 1}).empty());
  EXPECT_EQ(Split({0, 0, 1, 0, 0, 1, 0x41}), (std::vector<Bytes>{{0x41}}));
}

TEST(AnnexBReader, LeavesOutBytesBeforeTheFirstStartCode) {
  EXPECT_EQ(Split({0xAA, 0xBB, 0, 0, 1, 0x41, 0x9A}), (std::vector<Bytes>{{0x41, 0x9A}}));
}

TEST(AnnexBReader, LeavesOutZerosBehindANalUnit) {
  EXPECT_EQ(Split({0, 0, 1, 0x41, 0x9A, 0, 0, 0, 0, 0, 1, 0x42, 0, 0}), (std::vector<Bytes>{{0x41, 0x9A}, {0x42}}));
}

TEST(AnnexBReader, KeepsEmulationPreventionAndLoneOnes) {
  const Bytes nal = {0x65, 0, 0, 3, 1, 1, 0, 1, 0, 0, 3};
  Bytes stream = {0, 0, 0, 1};
  stream.insert(stream.end(), nal.begin(), nal.end());
  EXPECT_EQ(Split(stream), (std::vector<Bytes>{nal}));
}

TEST(AnnexBReader, FindsAStartCodeRightBehindAOne) {
  EXPECT_EQ(Split({0, 0, 1, 1, 0, 0, 1, 0x41}), (std::vector<Bytes>{{1}, {0x41}}));
}

TEST(AnnexBReader, ReadsTheTypeFromTheLowerFiveBits) {
  const Bytes idr = {0x65};
  const Bytes sps = {0x27};
  EXPECT_EQ(GetNalType(ByteView(idr)), NalType::kIdrSlice);
  EXPECT_EQ(GetNalType(ByteView(sps)), NalType::kSps);
}

}  // namespace
}  // namespace kovra
