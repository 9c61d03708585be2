// The end of the process, from everywhere that it can come from, many times over: in time, with the right status,
// without a crash.
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <vector>

#include "child_process.h"
#include "recording_server.h"
#include "temporary_directory.h"

namespace {

using support::ChildEnd;
using support::ChildProcess;
using support::Clock;
using support::RecordingServer;
using support::TemporaryDirectory;

const int kBatches = 2;
const int kRunsOfABatch = 10;
const std::chrono::seconds kLimit{6};  // one heartbeat sleep, and a second
const std::chrono::seconds kSlack{9};  // for ten processes at once on a busy machine

struct Ending {
  const char* scenario;
  int status;
  const char* cue;         // the end begins when the child has written this
  bool interrupt = false;  // the cue is answered with SIGINT
  const char* reply = "";  // what the server answers the sign-in with
  bool samples = false;    // whether the sample media are there
};

void PrintTo(const Ending& ending, std::ostream* out) { *out << ending.scenario; }

std::string ScenarioName(const testing::TestParamInfo<Ending>& ending) { return ending.param.scenario; }

const char kMissingKey[] = R"({"opcode":"signin"})";
const char kMistypedKey[] = R"({"code":0,"opcode":"signin","sid":"1001"})";
const char kKeyLine[] = "json key \"";
const char kSource[] = "read pcm failed, ./20s.pcmu\n";
const char kEnd[] = "end\n";
const char kReleasing[] = "source releasing..\n";
const char kSignedIn[] = "GOT local uid 1001\n";
const char kGoodSignIn[] =
    R"({"code":0,"opcode":"signin","sid":1001,"stunAddr":[],"turnAddr":[],"turnUser":[],"turnPass":[]})";

class ProcessEnd : public testing::TestWithParam<Ending> {
 protected:
  void WriteSamples() {
    for (int i = 1; i <= 60; ++i) {
      char name[100];
      snprintf(name, sizeof name, "h264SampleFrames/frame-%03d.h264", i);
      directory_.Write(name, "frame");
    }
    directory_.Write("20s.pcmu", std::string(96160, 'a'));
  }

  std::unique_ptr<ChildProcess> Start(const Ending& ending, int run) {
    const std::vector<std::string> command{EXIT_SCENARIOS, ending.scenario, std::to_string(server_.Port()),
                                           std::to_string(run * 13)};
    return std::make_unique<ChildProcess>(command, directory_.Path().string());
  }

  static void ExpectEnd(ChildProcess& child, const Ending& ending) {
    EXPECT_TRUE(child.WaitForOutput(ending.cue)) << child.Output() << child.Errors();
    const auto cueTime = Clock::now();
    if (ending.interrupt) child.Signal(SIGINT);
    const std::optional<ChildEnd> end = child.WaitForEnd(std::chrono::seconds(20));
    ASSERT_TRUE(end) << "does not end\n" << child.Output() << child.Errors();
    EXPECT_EQ(end->signal, 0) << child.Output() << child.Errors();
    EXPECT_EQ(end->status, ending.status) << child.Output() << child.Errors();
    EXPECT_LT(end->time - cueTime, kLimit + kSlack) << child.Output() << child.Errors();
    EXPECT_EQ(child.Output().find("Sanitizer"), std::string::npos) << child.Output();
    EXPECT_EQ(child.Errors().find("Sanitizer"), std::string::npos) << child.Errors();
  }

  RecordingServer server_;
  TemporaryDirectory directory_;
};

TEST_P(ProcessEnd, ComesInTimeWithItsStatus) {
  const Ending& ending = GetParam();
  server_.Answer([&](const std::string& text) {
    return text.find(R"("opcode":"signin")") != std::string::npos ? ending.reply : "";
  });
  if (ending.samples) WriteSamples();
  for (int batch = 0; batch < kBatches; ++batch) {
    std::vector<std::thread> watchers;
    for (int i = 0; i < kRunsOfABatch; ++i) {
      const int run = batch * kRunsOfABatch + i;
      watchers.emplace_back([this, &ending, run] { ExpectEnd(*Start(ending, run), ending); });
    }
    for (std::thread& watcher : watchers) watcher.join();
  }
}

INSTANTIATE_TEST_SUITE_P(Endings, ProcessEnd,
                         testing::Values(Ending{"RefusedOnTheMainThread", 255, kKeyLine, false, kMissingKey},
                                         Ending{"RefusedOnTheServiceThread", 255, kKeyLine, false, kMistypedKey},
                                         Ending{"RefusedWhileEverybodyCalls", 255, kKeyLine, false, kMistypedKey},
                                         Ending{"MissingAudioSampleWhileServing", 255, kSource},
                                         Ending{"MissingAudioSampleWithoutInit", 255, kSource},
                                         Ending{"ExitWhileTheServiceThreadServes", 7, kEnd},
                                         Ending{"ExitBeforeTheServiceThreadServes", 7, kEnd},
                                         Ending{"ExitOnAnotherThreadWhileServing", 7, kEnd},
                                         Ending{"ExitWhileEverybodyCalls", 7, kEnd},
                                         Ending{"ExitRightAfterInit", 7, kEnd}, Ending{"ReturnRightAfterInit", 0, kEnd},
                                         Ending{"ExitAfterAFailedInit", 7, kEnd}, Ending{"ExitWhileResolving", 7, kEnd},
                                         Ending{"ExitWhileServingAndResolving", 7, kEnd},
                                         Ending{"ExitWithoutInit", 7, kEnd},
                                         Ending{"ExitInsideTheAudioCallback", 9, kEnd},
                                         Ending{"ExitInsideTheAudioCallbackWhileEverybodyCalls", 9, kEnd},
                                         Ending{"ExitDuringTestDataMode", 7, kEnd, false, "", true}),
                         ScenarioName);

INSTANTIATE_TEST_SUITE_P(Interrupted, ProcessEnd,
                         testing::Values(Ending{"RunUntilStopped", 0, kSignedIn, true, kGoodSignIn},
                                         Ending{"RunOnAThreadAndReturnWhenStopped", 0, kSignedIn, true, kGoodSignIn},
                                         Ending{"RunWithEverybodyCallingUntilStopped", 0, kSignedIn, true, kGoodSignIn},
                                         Ending{"RunInTestDataModeUntilStopped", 0, kSignedIn, true, kGoodSignIn, true},
                                         Ending{"ExitOnAnotherThreadWhileServing", 7, kReleasing, true},
                                         Ending{"ExitInsideTheAudioCallback", 9, kReleasing, true},
                                         Ending{"ExitRightAfterInit", 7, kReleasing, true},
                                         Ending{"RefusedOnTheMainThread", 255, kKeyLine, true, kMissingKey},
                                         Ending{"MissingAudioSampleWhileServing", 255, kSource, true}),
                         ScenarioName);

}  // namespace
