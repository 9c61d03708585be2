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
  fwrite(data, 1, len, audioFile);
  fflush(audioFile);
}

// kovraInit handles SIGINT; SIGTERM ends the camera the same way.
void EndLikeSigint(int /*signal*/) { raise(SIGINT); }

bool Fails(const char* what, const std::string& name) {
  fprintf(stderr, "signalconn-camera: cannot %s %s: %s\n", what, name.c_str(), strerror(errno));
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  Options options;
  if (!ReadOptions(argc, argv, &options)) return options.exitStatus;

  if (!options.audioOut.empty()) {
    audioFile = fopen(options.audioOut.c_str(), "ab");
    if (audioFile == nullptr && Fails("write", options.audioOut)) return 1;
    kovraRegisterAudioCB(KeepAudio);
  }
  if (chdir(options.testData.c_str()) != 0 && Fails("enter", options.testData)) return 1;

  const int error = kovraInit(options.server.data(), options.port, options.serialNumber.data(), options.key.data(),
                              options.secret.data(), options.mac.data(), options.authType, options.authCode.data(),
                              options.mustPermit, options.permitCode.data());
  if (error != 0) {
    fprintf(stderr, "signalconn-camera: cannot start: %s\n", strerror(error));
    return 1;
  }
  signal(SIGTERM, EndLikeSigint);
  runTestDataMode(true);
  kovraRun(false);
  return 0;
}
