// A camera application that ends in the way named by its first argument. Arguments: scenario, server port, and
// milliseconds to wait before the end. It writes "end" just before it ends of its own will.
#include <signal_conn.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <thread>

#include "fake_engine.h"
#include "fake_resolver.h"

namespace {

using support::FakeEngine;

struct Arguments {
  int port = 0;
  std::chrono::milliseconds delay{0};
};

Arguments arguments;

char* Text(const char* text) { return const_cast<char*>(text); }

void Init(const char* server = "127.0.0.1") {
  kovraInit(Text(server), arguments.port, Text("SN0001"), Text("K"), Text("S"), Text("02:00:00:00:00:01"), 1, Text(""),
            0, Text(""));
}

[[noreturn]] void End(int status) {
  std::this_thread::sleep_for(arguments.delay);
  puts("end");
  exit(status);
}

[[noreturn]] void Wait() {
  while (true) pause();
}

void EndInsideAudioCallback(void* /*data*/, size_t /*len*/) { End(9); }

// Threads that never stop calling the library, as those of a camera and an engine do not.
void KeepCalling() {
  std::thread([] {
    char frame[2000] = {};
    while (true) {
      kovraOnVideoFrame(frame, sizeof frame, 0, 1);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }).detach();
  std::thread([] {
    char frame[160] = {};
    while (true) {
      kovraOnAudioFrame(frame, sizeof frame);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }).detach();
  FakeEngine::Get().Emit([](KovraStreamerCallback& callback) {
    char frame[160] = {};
    while (!FakeEngine::Get().Ending()) {
      callback.onAudioFrame(1, frame, sizeof frame);
      callback.onIceCandidate(1, "candidate:1");
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
}

// The server answers the sign-in with a message that the library cannot work with.
int RefusedOnTheMainThread() {
  Init();
  kovraRun(false);
  return 0;
}

int RefusedOnTheServiceThread() {
  Init();
  kovraRun(true);
  Wait();
}

int RefusedWhileEverybodyCalls() {
  Init();
  KeepCalling();
  kovraRun(false);
  return 0;
}

int MissingAudioSampleWhileServing() {
  Init();
  std::thread([] {
    std::this_thread::sleep_for(arguments.delay);
    runTestDataMode(true);
  }).detach();
  kovraRun(false);
  Wait();  // the audio source is about to end the process
}

int MissingAudioSampleWithoutInit() {
  runTestDataMode(true);
  Wait();
}

int ExitWhileTheServiceThreadServes() {
  Init();
  kovraRun(true);
  std::this_thread::sleep_for(std::chrono::milliseconds(6500));
  End(7);
}

int ExitBeforeTheServiceThreadServes() {
  Init();
  kovraRun(true);
  End(7);
}

int ExitOnAnotherThreadWhileServing() {
  Init();
  std::thread([] { End(7); }).detach();
  kovraRun(false);
  return 0;
}

int ExitWhileEverybodyCalls() {
  Init();
  KeepCalling();
  std::thread([] { End(7); }).detach();
  kovraRun(false);
  return 0;
}

int ExitRightAfterInit() {
  Init();
  End(7);
}

int ReturnRightAfterInit() {
  Init();
  puts("end");
  return 0;
}

int ExitAfterAFailedInit() {
  Init("127.0.0.2");
  End(7);
}

int ExitWhileResolving() {
  support::FakeResolver::Get().Hang();
  Init("server.example");
  End(7);
}

int ExitWhileServingAndResolving() {
  support::FakeResolver::Get().Hang();
  Init("server.example");
  std::thread([] { End(7); }).detach();
  kovraRun(false);
  return 0;
}

int ExitWithoutInit() {
  kovraRegisterAudioCB(EndInsideAudioCallback);
  End(7);
}

int ExitInsideTheAudioCallback() {
  kovraRegisterAudioCB(EndInsideAudioCallback);
  Init();
  FakeEngine::Get().Emit([](KovraStreamerCallback& callback) {
    char frame[160] = {};
    callback.onAudioFrame(1, frame, sizeof frame);
  });
  kovraRun(false);
  return 0;
}

int ExitInsideTheAudioCallbackWhileEverybodyCalls() {
  kovraRegisterAudioCB(EndInsideAudioCallback);
  Init();
  KeepCalling();
  kovraRun(false);
  Wait();  // the end comes from the engine's thread
}

int ExitDuringTestDataMode() {
  Init();
  runTestDataMode(true);
  std::thread([] { End(7); }).detach();
  kovraRun(false);
  return 0;
}

// For SIGINT from outside.
int RunUntilStopped() {
  Init();
  kovraRun(false);
  puts("end");
  return 0;
}

int RunOnAThreadAndReturnWhenStopped() {
  Init();
  kovraRun(true);
  std::this_thread::sleep_for(std::chrono::seconds(8));
  puts("end");
  return 0;
}

int RunWithEverybodyCallingUntilStopped() {
  Init();
  KeepCalling();
  kovraRun(false);
  puts("end");
  return 0;
}

int RunInTestDataModeUntilStopped() {
  Init();
  runTestDataMode(true);
  kovraRun(false);
  puts("end");
  return 0;
}

const std::map<std::string, std::function<int()>> kScenarios{
    {"RefusedOnTheMainThread", RefusedOnTheMainThread},
    {"RefusedOnTheServiceThread", RefusedOnTheServiceThread},
    {"RefusedWhileEverybodyCalls", RefusedWhileEverybodyCalls},
    {"MissingAudioSampleWhileServing", MissingAudioSampleWhileServing},
    {"MissingAudioSampleWithoutInit", MissingAudioSampleWithoutInit},
    {"ExitWhileTheServiceThreadServes", ExitWhileTheServiceThreadServes},
    {"ExitBeforeTheServiceThreadServes", ExitBeforeTheServiceThreadServes},
    {"ExitOnAnotherThreadWhileServing", ExitOnAnotherThreadWhileServing},
    {"ExitWhileEverybodyCalls", ExitWhileEverybodyCalls},
    {"ExitRightAfterInit", ExitRightAfterInit},
    {"ReturnRightAfterInit", ReturnRightAfterInit},
    {"ExitAfterAFailedInit", ExitAfterAFailedInit},
    {"ExitWhileResolving", ExitWhileResolving},
    {"ExitWhileServingAndResolving", ExitWhileServingAndResolving},
    {"ExitWithoutInit", ExitWithoutInit},
    {"ExitInsideTheAudioCallback", ExitInsideTheAudioCallback},
    {"ExitInsideTheAudioCallbackWhileEverybodyCalls", ExitInsideTheAudioCallbackWhileEverybodyCalls},
    {"ExitDuringTestDataMode", ExitDuringTestDataMode},
    {"RunUntilStopped", RunUntilStopped},
    {"RunOnAThreadAndReturnWhenStopped", RunOnAThreadAndReturnWhenStopped},
    {"RunWithEverybodyCallingUntilStopped", RunWithEverybodyCallingUntilStopped},
    {"RunInTestDataModeUntilStopped", RunInTestDataModeUntilStopped},
};

}  // namespace

int main(int argc, char** argv) {
  const auto scenario = argc == 4 ? kScenarios.find(argv[1]) : kScenarios.end();
  if (scenario == kScenarios.end()) return 126;
  setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);  // the test reads along
  arguments.port = std::atoi(argv[2]);
  arguments.delay = std::chrono::milliseconds(std::atoi(argv[3]));
  return scenario->second();
}
