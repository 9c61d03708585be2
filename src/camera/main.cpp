// A camera on a PC: plays the sample media to viewers and keeps what they say.
#include <signal.h>
#include <signal_conn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "options.h"

namespace {

FILE* audioFile = nullptr;  // where the viewers' audio goes; open until the process ends

// On an engine thread. Each frame is flushed, so that whoever watches the file sees it grow.
void KeepAudio(void* data, size_t len) {
  if (fwrite(data, 1, len, audioFile) == len && fflush(audioFile) == 0) return;
  perror("signalconn-camera: cannot keep the viewers' audio");
  kovraRegisterAudioCB(nullptr);
}

// kovraInit handles SIGINT; SIGTERM ends the camera the same way.
void EndLikeSigint(int /*signal*/) { raise(SIGINT); }

// runTestDataMode(true) clears the mark that SIGINT sets: until then, the signals that end the camera wait.
void SetEndingSignals(int how) {
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(how, &ending, nullptr);
}

int Fail(const char* what, const std::string& name, int error) {
  fprintf(stderr, "signalconn-camera: cannot %s %s: %s\n", what, name.c_str(), strerror(error));
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  Options options;
  if (!ReadOptions(argc, argv, &options)) return options.exitStatus;

  if (!options.audioOut.empty()) {
    audioFile = fopen(options.audioOut.c_str(), "ab");
    if (audioFile == nullptr) return Fail("write", options.audioOut, errno);
    kovraRegisterAudioCB(KeepAudio);
  }
  if (chdir(options.testData.c_str()) != 0) return Fail("enter", options.testData, errno);

  SetEndingSignals(SIG_BLOCK);
  const int error = kovraInit(options.server.data(), options.port, options.serialNumber.data(), options.key.data(),
                              options.secret.data(), options.mac.data(), options.authType, options.authCode.data(),
                              options.mustPermit, options.permitCode.data());
  if (error != 0) return Fail("start", "the heartbeat", error);
  signal(SIGTERM, EndLikeSigint);
  runTestDataMode(true);
  SetEndingSignals(SIG_UNBLOCK);
  kovraRun(false);
  return 0;
}
