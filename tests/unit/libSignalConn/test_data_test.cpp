// The test sources. Where their pacing is looked at, their clock and their sleep are the test's (--wrap in
// CMakeLists.txt), so that every number is exact.
#include <gmock/gmock.h>
#include <signal_conn.h>
#include <unistd.h>

#include <filesystem>

#include "captured_output.h"
#include "fake_engine.h"
#include "kovra_main.h"
#include "temporary_directory.h"

namespace {

using support::CapturedOutput;
using support::EngineCall;
using support::EngineOperation;
using support::FakeEngine;
using support::TemporaryDirectory;
using testing::Each;
using testing::ElementsAre;
using testing::ExitedWithCode;

// One source thread at a time uses it.
struct VirtualClock {
  bool on = false;
  double ms = 1000;
  double oversleepMs = 0;  // added to every sleep
  std::vector<useconds_t> sleeps;
};
VirtualClock virtualClock;

}  // namespace

extern "C" int __real_usleep(useconds_t microseconds);
extern "C" int __wrap_usleep(useconds_t microseconds);
extern "C" double __real__Z18GetCurrentTimeInMsv();
extern "C" double __wrap__Z18GetCurrentTimeInMsv();

int __wrap_usleep(useconds_t microseconds) {
  if (!virtualClock.on) return __real_usleep(microseconds);
  virtualClock.sleeps.push_back(microseconds);
  virtualClock.ms += microseconds / 1000.0 + virtualClock.oversleepMs;
  return 0;
}

double __wrap__Z18GetCurrentTimeInMsv() { return virtualClock.on ? virtualClock.ms : __real__Z18GetCurrentTimeInMsv(); }

namespace {

const std::size_t kPcmuBytes = 96160;

std::string FrameName(int number) {
  char name[100];
  snprintf(name, sizeof name, "h264SampleFrames/frame-%03d.h264", number);
  return name;
}

class TestData : public testing::Test {
 protected:
  TestData() {
    std::filesystem::current_path(directory_.Path());
    interrupted = 0;
  }
  ~TestData() override { std::filesystem::current_path("/"); }

  void WriteFrames(int first, int last) {
    for (int i = first; i <= last; ++i) directory_.Write(FrameName(i), "frame " + std::to_string(i));
  }
  // Every 160 bytes name their place: 160 times the number of the block, modulo 251.
  void WriteAudio() {
    std::string bytes(kPcmuBytes, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i / 160 % 251);
    directory_.Write("20s.pcmu", bytes);
  }
  static std::string AudioBlock(std::size_t number) { return std::string(160, static_cast<char>(number % 251)); }

  // Sets the stop flag with the count'th call of operation.
  void StopAfter(EngineOperation operation, std::size_t count, FakeEngine::Script script = nullptr) {
    engine_.On(operation, [this, operation, count, script](const EngineCall& call) {
      if (engine_.Calls(operation).size() == count) interrupted = 1;
      return script ? script(call) : 0;
    });
  }

  FakeEngine& engine_ = FakeEngine::Get();
  TemporaryDirectory directory_;
  KovraStreamer streamer_;
  CapturedOutput output_;
};

class VideoSource : public TestData {};

TEST_F(VideoSource, PlaysSixtyFilesInOrderAndBeginsAnew) {
  WriteFrames(1, 60);
  virtualClock.on = true;
  StopAfter(EngineOperation::kWriteVideoData, 125);
  EXPECT_EQ(VideoSourceThread(&streamer_), nullptr);
  const std::vector<EngineCall> calls = engine_.Calls(EngineOperation::kWriteVideoData);
  ASSERT_EQ(calls.size(), 125U);
  for (int i = 0; i < 125; ++i) {
    const EngineCall& call = calls[static_cast<std::size_t>(i)];
    EXPECT_EQ(call.bytes, "frame " + std::to_string(i % 60 + 1));
    EXPECT_EQ(call.presentationTime, 50000LL * (i + 1));
    EXPECT_EQ(call.flags, 0);
    EXPECT_EQ(call.videoType, 1);
  }
  EXPECT_THAT(virtualClock.sleeps, Each(50000U));
  EXPECT_EQ(virtualClock.sleeps.size(), 125U);
  EXPECT_EQ(output_.Text(), "videosource exit\n");
}

TEST_F(VideoSource, TheTimeOfAWriteIsNotTakenOffTheSleep) {
  WriteFrames(1, 60);
  virtualClock.on = true;
  StopAfter(EngineOperation::kWriteVideoData, 3, [](const EngineCall&) {
    virtualClock.ms += 30;
    return -1;
  });
  VideoSourceThread(&streamer_);
  EXPECT_THAT(virtualClock.sleeps, ElementsAre(50000U, 50000U, 50000U));
}

TEST_F(VideoSource, EndsAtAMissingFile) {
  WriteFrames(1, 6);
  WriteFrames(8, 60);
  virtualClock.on = true;
  VideoSourceThread(&streamer_);
  EXPECT_EQ(engine_.Calls(EngineOperation::kWriteVideoData).size(), 6U);
  EXPECT_EQ(output_.Text(), "read video packet failed, ./h264SampleFrames/frame-007.h264\nvideosource exit\n");
  EXPECT_EQ(interrupted, 0);
}

TEST_F(VideoSource, FlagsFilesAbove10240Bytes) {
  directory_.Write(FrameName(1), std::string(10240, 'a'));
  directory_.Write(FrameName(2), std::string(10241, 'b'));
  directory_.Write(FrameName(3), std::string(5, 'c'));
  virtualClock.on = true;
  VideoSourceThread(&streamer_);
  const std::vector<EngineCall> calls = engine_.Calls(EngineOperation::kWriteVideoData);
  ASSERT_EQ(calls.size(), 3U);
  EXPECT_EQ(calls[0].flags, 0);
  EXPECT_EQ(calls[1].flags, 0x10);
  EXPECT_EQ(calls[2].flags, 0);
  EXPECT_EQ(calls[2].bytes, "ccccc");
}

TEST_F(VideoSource, ReadsNothingWhenAlreadyInterrupted) {
  interrupted = 1;
  VideoSourceThread(&streamer_);
  EXPECT_EQ(output_.Text(), "videosource exit\n");
  EXPECT_TRUE(engine_.Calls(EngineOperation::kWriteVideoData).empty());
}

class AudioSource : public TestData {};

TEST_F(AudioSource, PlaysBlocks1To600AndBeginsAnew) {
  WriteAudio();
  virtualClock.on = true;
  StopAfter(EngineOperation::kWriteAudioData, 1202);
  EXPECT_EQ(PcmAudioSourceThread(&streamer_), nullptr);
  const std::vector<EngineCall> calls = engine_.Calls(EngineOperation::kWriteAudioData);
  ASSERT_EQ(calls.size(), 1202U);
  for (std::size_t i = 0; i < calls.size(); ++i) {
    ASSERT_EQ(calls[i].bytes, AudioBlock(i % 600 + 1)) << i;
    EXPECT_EQ(calls[i].presentationTime, 20000LL * static_cast<std::int64_t>(i + 1));
    EXPECT_EQ(calls[i].audioType, 0);
  }
  EXPECT_EQ(output_.Text(), "pcm audiosource exit\n");
}

TEST_F(AudioSource, SleepsWholeFramesWhileOnTime) {
  WriteAudio();
  virtualClock.on = true;
  StopAfter(EngineOperation::kWriteAudioData, 5);
  PcmAudioSourceThread(&streamer_);
  EXPECT_THAT(virtualClock.sleeps, ElementsAre(20000U, 20000U, 20000U, 20000U, 20000U));
}

TEST_F(AudioSource, CatchesUpAfterASlowWrite) {
  WriteAudio();
  virtualClock.on = true;
  StopAfter(EngineOperation::kWriteAudioData, 5, [](const EngineCall& call) {
    if (call.presentationTime == 60000) virtualClock.ms += 30;
    return -1;
  });
  PcmAudioSourceThread(&streamer_);
  // Frames 1 and 2 on time, 3 late without a sleep, 4 shortened, 5 on time.
  EXPECT_THAT(virtualClock.sleeps, ElementsAre(20000U, 20000U, 10000U, 20000U));
}

TEST_F(AudioSource, SleepsNoMoreThanAFrameHoweverEarly) {
  WriteAudio();
  virtualClock.on = true;
  virtualClock.oversleepMs = -5;  // the second frame finishes 25 ms early, the third 30, the fourth 35
  StopAfter(EngineOperation::kWriteAudioData, 4);
  PcmAudioSourceThread(&streamer_);
  EXPECT_THAT(virtualClock.sleeps, Each(20000U));
}

TEST_F(AudioSource, CutsTheSleepToWholeMilliseconds) {
  WriteAudio();
  virtualClock.on = true;
  StopAfter(EngineOperation::kWriteAudioData, 3, [](const EngineCall& call) {
    virtualClock.ms += call.presentationTime == 20000 ? 7.25 : call.presentationTime == 40000 ? 19.5 : 0;
    return 0;
  });
  PcmAudioSourceThread(&streamer_);
  // 12.75 ms are cut to 12; then 40 − (7.25 + 12 + 19.5) = 1.25 to 1; then 60 − 39.75 is above a frame.
  EXPECT_THAT(virtualClock.sleeps, ElementsAre(12000U, 1000U, 20000U));
}

TEST_F(AudioSource, ARemainderBelowAMillisecondSleepsNotAtAll) {
  WriteAudio();
  virtualClock.on = true;
  StopAfter(EngineOperation::kWriteAudioData, 1, [](const EngineCall&) {
    virtualClock.ms += 19.5;
    return 0;
  });
  PcmAudioSourceThread(&streamer_);
  EXPECT_THAT(virtualClock.sleeps, ElementsAre(0U));
}

TEST_F(AudioSource, ABacklogIsForgottenAfter101Frames) {
  WriteAudio();
  virtualClock.on = true;
  StopAfter(EngineOperation::kWriteAudioData, 103, [](const EngineCall& call) {
    if (call.presentationTime == 101 * 20000) virtualClock.ms += 500;  // a stall in the 101st frame
    return 0;
  });
  PcmAudioSourceThread(&streamer_);
  // 100 frames on time; the 101st sleeps not at all and its end is the new reference.
  ASSERT_EQ(virtualClock.sleeps.size(), 102U);
  EXPECT_THAT(virtualClock.sleeps, Each(20000U));
}

TEST_F(AudioSource, ABacklogOf100FramesIsCaughtUpBefore) {
  WriteAudio();
  virtualClock.on = true;
  StopAfter(EngineOperation::kWriteAudioData, 60, [](const EngineCall& call) {
    if (call.presentationTime == 20000) virtualClock.ms += 500;
    return 0;
  });
  PcmAudioSourceThread(&streamer_);
  // 500 ms are 25 frames without a sleep; the 26th is due 20 ms later.
  EXPECT_EQ(virtualClock.sleeps.size(), 60U - 25U);
}

TEST_F(AudioSource, StillReadsItsFileWhenAlreadyInterrupted) {
  WriteAudio();
  interrupted = 1;
  PcmAudioSourceThread(&streamer_);
  EXPECT_EQ(output_.Text(), "pcm audiosource exit\n");
  EXPECT_TRUE(engine_.Calls(EngineOperation::kWriteAudioData).empty());
}

class AudioSourceDeathTest : public testing::Test {
 protected:
  void SetUp() override { testing::FLAGS_gtest_death_test_style = "threadsafe"; }

  static void PlayWithoutAFile(int interruptedBefore) {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    const TemporaryDirectory directory;
    std::filesystem::current_path(directory.Path());
    interrupted = interruptedBefore;
    KovraStreamer streamer;
    PcmAudioSourceThread(&streamer);
  }
};

TEST_F(AudioSourceDeathTest, AMissingFileEndsTheProcess) {
  EXPECT_EXIT(PlayWithoutAFile(0), ExitedWithCode(255), "read pcm failed, ./20s.pcmu\n$");
  EXPECT_EXIT(PlayWithoutAFile(1), ExitedWithCode(255), "read pcm failed, ./20s.pcmu\n$");
}

class TestDataMode : public TestData {};

TEST_F(TestDataMode, StartingTwiceStartsEachSourceOnce) {
  WriteFrames(1, 60);
  WriteAudio();
  EXPECT_EQ(runTestDataMode(true), 0);
  EXPECT_EQ(runTestDataMode(true), 0);
  EXPECT_TRUE(engine_.WaitForCalls(EngineOperation::kWriteVideoData, 5));
  EXPECT_TRUE(engine_.WaitForCalls(EngineOperation::kWriteAudioData, 10));
  EXPECT_EQ(runTestDataMode(false), 0);
  EXPECT_EQ(interrupted, 1);
  std::int64_t time = 0;
  for (const EngineCall& call : engine_.Calls(EngineOperation::kWriteVideoData)) {
    EXPECT_EQ(call.presentationTime, time += 50000);
  }
  time = 0;
  for (const EngineCall& call : engine_.Calls(EngineOperation::kWriteAudioData)) {
    EXPECT_EQ(call.presentationTime, time += 20000);
  }
  EXPECT_EQ(support::CountOf("videosource exit\n", output_.Text()), 1);
  EXPECT_EQ(support::CountOf("pcm audiosource exit\n", output_.Text()), 1);
}

TEST_F(TestDataMode, StoppingWithoutASourceJoinsNothingAndStillSetsTheFlag) {
  EXPECT_EQ(runTestDataMode(false), 0);
  EXPECT_EQ(interrupted, 1);
  EXPECT_EQ(output_.Text(), "");
}

TEST_F(TestDataMode, MayBeStartedAgain) {
  WriteFrames(1, 60);
  WriteAudio();
  runTestDataMode(true);
  ASSERT_TRUE(engine_.WaitForCalls(EngineOperation::kWriteVideoData, 1));
  runTestDataMode(false);
  const std::size_t before = engine_.Calls(EngineOperation::kWriteVideoData).size();
  runTestDataMode(true);
  EXPECT_EQ(interrupted, 0);
  ASSERT_TRUE(engine_.WaitForCalls(EngineOperation::kWriteVideoData, before + 2));
  EXPECT_EQ(engine_.Calls(EngineOperation::kWriteVideoData)[before].presentationTime, 50000);
  runTestDataMode(false);
}

TEST_F(TestDataMode, LeavesTheLiveTimestampsAlone) {
  WriteFrames(1, 60);
  WriteAudio();
  runTestDataMode(true);
  ASSERT_TRUE(engine_.WaitForCalls(EngineOperation::kWriteVideoData, 2));
  runTestDataMode(false);
  char byte = 0;
  kovraOnVideoFrame(&byte, 1, 0, 3);
  EXPECT_EQ(engine_.Calls(EngineOperation::kWriteVideoData).back().presentationTime, 0);
  kovraOnAudioFrame(&byte, 1);
  EXPECT_EQ(engine_.Calls(EngineOperation::kWriteAudioData).back().presentationTime, 0);
}

}  // namespace
