#include <gmock/gmock.h>
#include <signal_conn.h>

#include "captured_output.h"
#include "fake_engine.h"

namespace {

using support::CapturedOutput;
using support::EngineCall;
using support::EngineOperation;
using support::FakeEngine;
using testing::ElementsAre;

std::vector<std::string> delivered;

void Deliver(void* data, size_t len) { delivered.emplace_back(static_cast<const char*>(data), len); }

class Media : public testing::Test {
 protected:
  int Video(std::size_t size, int frameType = 0, int videoType = 1) {
    std::string frame(size, 'v');
    return kovraOnVideoFrame(frame.data(), frame.size(), frameType, videoType);
  }

  void FromViewer(KOVRA_SESSION_ID sid, std::string frame) {
    engine_.EmitAndWait([&](KovraStreamerCallback& callback) {
      callback.onAudioFrame(sid, frame.data(), static_cast<unsigned int>(frame.size()));
    });
  }

  FakeEngine& engine_ = FakeEngine::Get();
};

TEST_F(Media, VideoTimestampsAdvanceByAFixedStepWhateverTheEngineSays) {
  engine_.On(EngineOperation::kWriteVideoData, [](const EngineCall&) { return -7; });
  for (int frame = 0; frame < 3; ++frame) EXPECT_EQ(Video(10), -7);
  std::vector<std::int64_t> times;
  for (const EngineCall& call : engine_.Calls(EngineOperation::kWriteVideoData)) times.push_back(call.presentationTime);
  EXPECT_THAT(times, ElementsAre(0, 833333, 1666666));
}

TEST_F(Media, AudioTimestampsAdvanceByAFixedStepWhateverTheEngineSays) {
  engine_.On(EngineOperation::kWriteAudioData, [](const EngineCall&) { return -1; });
  std::string frame(160, 'a');
  for (int i = 0; i < 3; ++i) EXPECT_EQ(kovraOnAudioFrame(frame.data(), frame.size()), 0);
  std::vector<std::int64_t> times;
  for (const EngineCall& call : engine_.Calls(EngineOperation::kWriteAudioData)) {
    times.push_back(call.presentationTime);
    EXPECT_EQ(call.audioType, 0);
    EXPECT_EQ(call.bytes, frame);
    EXPECT_EQ(call.data, frame.data());
  }
  EXPECT_THAT(times, ElementsAre(0, 200000, 400000));
}

TEST_F(Media, OnlyFramesAbove10240BytesAreFlagged) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{10239}, std::size_t{10240}, std::size_t{10241}})
    Video(size);
  std::vector<int> flags;
  for (const EngineCall& call : engine_.Calls(EngineOperation::kWriteVideoData)) flags.push_back(call.flags);
  EXPECT_THAT(flags, ElementsAre(0, 0, 0, 16));
}

TEST_F(Media, TheFrameTypeChangesNothing) {
  for (const int frameType : {-1, 0, 1, 5, 1000}) Video(10, frameType);
  for (const EngineCall& call : engine_.Calls(EngineOperation::kWriteVideoData)) {
    EXPECT_EQ(call.flags, 0);
    EXPECT_EQ(call.videoType, 1);
    EXPECT_EQ(call.size, 10U);
  }
}

TEST_F(Media, TheFrameAndItsTypeReachTheEngineAsTheyAre) {
  std::string frame("\0\0\0\1\x65 and more", 14);
  kovraOnVideoFrame(frame.data(), frame.size(), 0, 42);
  const std::vector<EngineCall> calls = engine_.Calls(EngineOperation::kWriteVideoData);
  ASSERT_EQ(calls.size(), 1U);
  EXPECT_EQ(calls[0].data, frame.data());
  EXPECT_EQ(calls[0].bytes, frame);
  EXPECT_EQ(calls[0].videoType, 42);
}

TEST_F(Media, TheEnginesWishForAKeyFrameIsPassedOn) {
  int result = 0;
  engine_.On(EngineOperation::kWriteVideoData, [&](const EngineCall&) { return result; });
  for (const int wanted : {0, 1, 77, -1}) {
    result = wanted;
    EXPECT_EQ(Video(10), wanted);
  }
}

TEST_F(Media, AFrameWithoutBytesIsPassedOn) {
  kovraOnVideoFrame(nullptr, 0, 0, 1);
  kovraOnAudioFrame(nullptr, 0);
  EXPECT_EQ(engine_.Calls(EngineOperation::kWriteVideoData).size(), 1U);
  EXPECT_EQ(engine_.Calls(EngineOperation::kWriteAudioData).size(), 1U);
}

TEST_F(Media, VideoAndAudioThreadsRunSideBySide) {
  std::thread video([this] {
    for (int i = 0; i < 1000; ++i) Video(100);
  });
  std::string frame(160, 'a');
  for (int i = 0; i < 1000; ++i) kovraOnAudioFrame(frame.data(), frame.size());
  video.join();
  EXPECT_EQ(engine_.Calls(EngineOperation::kWriteVideoData).back().presentationTime, 999 * 833333LL);
  EXPECT_EQ(engine_.Calls(EngineOperation::kWriteAudioData).back().presentationTime, 999 * 200000LL);
}

TEST_F(Media, AudioWithoutACallbackIsDroppedAndEvery200thFrameLogged) {
  CapturedOutput output;
  Video(1);  // builds the object
  std::string expected;
  for (int frame = 1; frame <= 401; ++frame) {
    const KOVRA_SESSION_ID sid = frame % 2 == 0 ? 8 : -7;
    FromViewer(sid, std::string(static_cast<std::size_t>(frame), 'x'));
    if (frame % 200 == 1) {
      expected += "===Audio Frame received. session: -7, Size: " + std::to_string(frame) + "\n";
    }
    ASSERT_EQ(output.Text(), expected);
  }
}

TEST_F(Media, AudioGoesToTheCallbackRegisteredLast) {
  CapturedOutput output;
  kovraRegisterAudioCB([](void*, size_t) { ADD_FAILURE() << "the former callback"; });
  kovraRegisterAudioCB(Deliver);
  FromViewer(7, "hello");
  FromViewer(8, "");
  EXPECT_THAT(delivered, ElementsAre("hello", ""));
  kovraRegisterAudioCB(nullptr);
  FromViewer(7, "dropped");
  EXPECT_EQ(delivered.size(), 2U);
}

TEST_F(Media, FramesBeforeInitBuildTheObject) {
  EXPECT_TRUE(engine_.Calls().empty());
  Video(10);
  const std::vector<EngineCall> calls = engine_.Calls();
  ASSERT_EQ(calls.size(), 3U);
  EXPECT_EQ(calls[0].operation, EngineOperation::kConstruct);
  EXPECT_EQ(calls[1].operation, EngineOperation::kRegisterCallback);
  EXPECT_EQ(calls[2].operation, EngineOperation::kWriteVideoData);
}

TEST_F(Media, ConcurrentFirstCallsBuildOneObject) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) threads.emplace_back([] { kovraRegisterAudioCB(nullptr); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(engine_.Calls(EngineOperation::kConstruct).size(), 1U);
}

}  // namespace
