#include "common.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>

#include "captured_output.h"
#include "temporary_directory.h"

namespace {

using support::CapturedOutput;
using support::TemporaryDirectory;
using testing::ExitedWithCode;

struct TreeDeleter {
  void operator()(cJSON* tree) const { cJSON_Delete(tree); }
};
using Tree = std::unique_ptr<cJSON, TreeDeleter>;

Tree Parse(const char* text) {
  Tree tree(cJSON_Parse(text));
  EXPECT_NE(tree, nullptr) << text;
  return tree;
}

// exit() writes what is buffered, so a death test sees the line when standard output goes to standard error.
template <typename Getter>
void PrintingToStandardError(Getter getter) {
  dup2(STDERR_FILENO, STDOUT_FILENO);
  getter();
}

// Owns the block that ReadFileFromDisk works on.
struct Block {
  explicit Block(std::uint64_t initial) : bytes(initial > 0 ? new std::uint8_t[initial] : nullptr), capacity(initial) {}
  ~Block() { delete[] bytes; }
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;

  int Read(const std::string& path) { return ReadFileFromDisk(path.c_str(), &bytes, &capacity, &size); }
  std::string Text() const { return {reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size)}; }

  std::uint8_t* bytes;
  std::uint64_t capacity;
  std::uint64_t size = 0;
};

class CommonDeathTest : public testing::Test {
 protected:
  void SetUp() override { testing::FLAGS_gtest_death_test_style = "threadsafe"; }
};

TEST(Common, TimingOfTheSampleMedia) {
  EXPECT_EQ(kDefaultFps, 20);
  EXPECT_EQ(kSampleVideoFrameDurationMicroSecond, 50000);
  EXPECT_EQ(kSampleAudioFrameDurationMicroSecond, 20000);
}

TEST(GetNumberOrExit, ReturnsTheNumber) { EXPECT_EQ(GetNumberOrExit(Parse(R"({"code":0})").get(), "code"), 0); }

TEST(GetNumberOrExit, CutsOffAFraction) {
  EXPECT_EQ(GetNumberOrExit(Parse(R"({"code":2.7})").get(), "code"), 2);
  EXPECT_EQ(GetNumberOrExit(Parse(R"({"code":-2.7})").get(), "code"), -2);
}

TEST(GetNumberOrExit, ReadsTheWholeRangeAndSaturatesBeyondIt) {
  EXPECT_EQ(GetNumberOrExit(Parse(R"({"sid":2147483647})").get(), "sid"), 2147483647);
  EXPECT_EQ(GetNumberOrExit(Parse(R"({"sid":-2147483648})").get(), "sid"), -2147483647 - 1);
  EXPECT_EQ(GetNumberOrExit(Parse(R"({"sid":1e300})").get(), "sid"), 2147483647);
  EXPECT_EQ(GetNumberOrExit(Parse(R"({"sid":-1e300})").get(), "sid"), -2147483647 - 1);
}

TEST(GetStringOrExit, ReturnsTheText) {
  EXPECT_EQ(GetStringOrExit(Parse(R"({"opcode":"signin"})").get(), "opcode"), "signin");
  EXPECT_EQ(GetStringOrExit(Parse(R"({"opcode":""})").get(), "opcode"), "");
  EXPECT_EQ(GetStringOrExit(Parse(R"({"message":"a\r\nb \u00b5"})").get(), "message"), "a\r\nb \xc2\xb5");
}

TEST(GetStringOrExit, TellsCasesApart) {
  EXPECT_EQ(GetStringOrExit(Parse(R"({"OPCODE":"x","opcode":"y"})").get(), "opcode"), "y");
}

TEST(GetStringArrayOrExit, ReturnsTheElementsInOrder) {
  EXPECT_EQ(GetStringArrayOrExit(Parse(R"({"stunAddr":["a","b"]})").get(), "stunAddr"),
            (std::vector<std::string>{"a", "b"}));
}

TEST(GetStringArrayOrExit, AnEmptyArrayIsAnEmptyList) {
  EXPECT_TRUE(GetStringArrayOrExit(Parse(R"({"stunAddr":[]})").get(), "stunAddr").empty());
}

TEST_F(CommonDeathTest, AMissingStringEndsTheProcessAndNamesTheKey) {
  const Tree tree = Parse(R"({"code":0})");
  EXPECT_EXIT(PrintingToStandardError([&] { GetStringOrExit(tree.get(), "opcode"); }), ExitedWithCode(255),
              "\"opcode\".*\n$");
}

TEST_F(CommonDeathTest, AStringOfAnotherTypeEndsTheProcess) {
  for (const char* text : {R"({"message":{"type":1}})", R"({"message":5})", R"({"message":null})",
                           R"({"message":["a"]})", R"({"Message":"x"})"}) {
    const Tree tree = Parse(text);
    EXPECT_EXIT(PrintingToStandardError([&] { GetStringOrExit(tree.get(), "message"); }), ExitedWithCode(255),
                "\"message\"")
        << text;
  }
}

TEST_F(CommonDeathTest, AMissingOrMistypedNumberEndsTheProcess) {
  for (const char* text : {"{}", R"({"code":"0"})", R"({"code":true})", R"({"code":null})", R"({"code":[0]})", "[0]"}) {
    const Tree tree = Parse(text);
    EXPECT_EXIT(PrintingToStandardError([&] { GetNumberOrExit(tree.get(), "code"); }), ExitedWithCode(255), "\"code\"")
        << text;
  }
}

TEST_F(CommonDeathTest, AMissingOrMistypedArrayEndsTheProcess) {
  for (const char* text : {"{}", R"({"stunAddr":"a"})", R"({"stunAddr":{"0":"a"}})", R"({"stunAddr":["a",1]})"}) {
    const Tree tree = Parse(text);
    EXPECT_EXIT(PrintingToStandardError([&] { GetStringArrayOrExit(tree.get(), "stunAddr"); }), ExitedWithCode(255),
                "\"stunAddr\"")
        << text;
  }
}

TEST_F(CommonDeathTest, ANullObjectEndsTheProcess) {
  EXPECT_EXIT(PrintingToStandardError([] { GetNumberOrExit(nullptr, "code"); }), ExitedWithCode(255), "\"code\"");
  EXPECT_EXIT(PrintingToStandardError([] { GetStringOrExit(nullptr, "opcode"); }), ExitedWithCode(255), "\"opcode\"");
  EXPECT_EXIT(PrintingToStandardError([] { GetStringArrayOrExit(nullptr, "turnAddr"); }), ExitedWithCode(255),
              "\"turnAddr\"");
}

TEST(PrintStringArray, WritesTheStringsInOrder) {
  CapturedOutput output;
  PrintStringArray({"stun:a:3478", "stun:b:3478", "100%s"});
  EXPECT_EQ(output.Text(), "stun:a:3478\nstun:b:3478\n100%s\n");
}

TEST(PrintStringArray, AnEmptyListWritesNothing) {
  CapturedOutput output;
  PrintStringArray({});
  EXPECT_EQ(output.Text(), "");
}

TEST(GetCurrentTimeInMs, NeverGoesBackAndHasFractions) {
  const double start = GetCurrentTimeInMs();
  double last = start;
  bool sawFraction = false;
  while (last < start + 5) {
    const double now = GetCurrentTimeInMs();
    ASSERT_GE(now, last);
    sawFraction = sawFraction || now != static_cast<double>(static_cast<std::int64_t>(now));
    last = now;
  }
  EXPECT_TRUE(sawFraction);
}

class ReadFileFromDiskTest : public testing::Test {
 protected:
  std::string File(std::size_t size, char fill) { return directory_.Write("file", std::string(size, fill)); }
  TemporaryDirectory directory_;
};

TEST_F(ReadFileFromDiskTest, ASmallerFileKeepsTheBlock) {
  Block block(10000);
  const std::uint8_t* before = block.bytes;
  EXPECT_EQ(block.Read(File(5000, 'a')), 0);
  EXPECT_EQ(block.bytes, before);
  EXPECT_EQ(block.capacity, 10000U);
  EXPECT_EQ(block.size, 5000U);
  EXPECT_EQ(block.Text(), std::string(5000, 'a'));
}

TEST_F(ReadFileFromDiskTest, AFileOfExactlyTheCapacityKeepsTheBlock) {
  Block block(10000);
  const std::uint8_t* before = block.bytes;
  EXPECT_EQ(block.Read(File(10000, 'a')), 0);
  EXPECT_EQ(block.bytes, before);
  EXPECT_EQ(block.size, 10000U);
}

TEST_F(ReadFileFromDiskTest, ALargerFileReplacesTheBlock) {
  Block block(10000);
  EXPECT_EQ(block.Read(File(20000, 'b')), 0);
  EXPECT_GE(block.capacity, 20000U);
  EXPECT_EQ(block.size, 20000U);
  EXPECT_EQ(block.Text(), std::string(20000, 'b'));
}

TEST_F(ReadFileFromDiskTest, ANullBlockIsAllocated) {
  Block block(0);
  EXPECT_EQ(block.Read(File(100, 'c')), 0);
  EXPECT_GE(block.capacity, 100U);
  EXPECT_EQ(block.Text(), std::string(100, 'c'));
}

TEST_F(ReadFileFromDiskTest, ASeriesOfFilesAllocatesOncePerNewLargestOne) {
  Block block(0);
  ASSERT_EQ(block.Read(File(3000, 'a')), 0);
  const std::uint8_t* largest = block.bytes;
  for (const std::size_t size : {std::size_t{1}, std::size_t{2999}, std::size_t{3000}}) {
    ASSERT_EQ(block.Read(File(size, 'd')), 0);
    EXPECT_EQ(block.bytes, largest);
    EXPECT_EQ(block.Text(), std::string(size, 'd'));
  }
}

TEST_F(ReadFileFromDiskTest, AnEmptyFileHasSizeZero) {
  Block block(10);
  block.size = 7;
  EXPECT_EQ(block.Read(File(0, 'x')), 0);
  EXPECT_EQ(block.size, 0U);
  Block null(0);
  EXPECT_EQ(null.Read(File(0, 'x')), 0);
  EXPECT_EQ(null.size, 0U);
}

TEST_F(ReadFileFromDiskTest, BytesOfEveryValueAreReadUnchanged) {
  std::string bytes;
  for (int i = 0; i < 512; ++i) bytes.push_back(static_cast<char>(i));
  Block block(0);
  EXPECT_EQ(block.Read(directory_.Write("bytes", bytes)), 0);
  EXPECT_EQ(block.Text(), bytes);
}

TEST_F(ReadFileFromDiskTest, AMissingFileLeavesTheBlockUntouched) {
  Block block(10);
  const std::uint8_t* before = block.bytes;
  EXPECT_LT(block.Read(directory_.Path() / "missing"), 0);
  EXPECT_EQ(block.bytes, before);
  EXPECT_EQ(block.capacity, 10U);

  Block null(0);
  EXPECT_LT(null.Read(directory_.Path() / "missing"), 0);
  EXPECT_EQ(null.bytes, nullptr);
  EXPECT_EQ(null.capacity, 0U);
}

TEST_F(ReadFileFromDiskTest, ADirectoryIsNoFile) {
  Block block(10);
  const std::uint8_t* before = block.bytes;
  EXPECT_LT(block.Read(directory_.Path()), 0);
  EXPECT_EQ(block.bytes, before);
  EXPECT_EQ(block.capacity, 10U);
}

}  // namespace
