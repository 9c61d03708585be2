#include "options.h"

#include <getopt.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace {

const int kUsageError = 2;

const char kUsage[] =
    "Usage: signalconn-camera --test-data DIR [OPTION]...\n"
    "Signs a camera in to a signalling server and shows viewers the sample media.\n"
    "\n"
    "  --test-data DIR      play DIR/h264SampleFrames/frame-001.h264 to frame-060.h264 and DIR/20s.pcmu\n"
    "  --server SERVER      host, address, or URL ws://HOST[/PATH], wss://HOST[/PATH] (127.0.0.1)\n"
    "  --port PORT          port of the server (8080)\n"
    "  --sn NUMBER          serial number, by which viewers call the camera (SN0001)\n"
    "  --key KEY            account key (demo)\n"
    "  --secret SECRET      account secret (demo)\n"
    "  --mac ADDRESS        MAC address, as text\n"
    "  --auth-type NUMBER   authentication type (0)\n"
    "  --auth-code CODE     authentication code\n"
    "  --must-permit 0|1    1: viewers must give the permit code (0)\n"
    "  --permit-code CODE   permit code\n"
    "  --audio-out FILE     append the viewers' audio to FILE: raw G.711 u-law, 8 kHz, mono\n"
    "  --help               print this and exit\n"
    "\n"
    "SIGINT and SIGTERM end the camera, within 6 seconds.\n";

enum Option {
  kTestData = 1,
  kServer,
  kPort,
  kSerialNumber,
  kKey,
  kSecret,
  kMac,
  kAuthType,
  kAuthCode,
  kMustPermit,
  kPermitCode,
  kAudioOut,
  kHelp
};

const option kOptions[] = {
    {"test-data", required_argument, nullptr, kTestData},
    {"server", required_argument, nullptr, kServer},
    {"port", required_argument, nullptr, kPort},
    {"sn", required_argument, nullptr, kSerialNumber},
    {"key", required_argument, nullptr, kKey},
    {"secret", required_argument, nullptr, kSecret},
    {"mac", required_argument, nullptr, kMac},
    {"auth-type", required_argument, nullptr, kAuthType},
    {"auth-code", required_argument, nullptr, kAuthCode},
    {"must-permit", required_argument, nullptr, kMustPermit},
    {"permit-code", required_argument, nullptr, kPermitCode},
    {"audio-out", required_argument, nullptr, kAudioOut},
    {"help", no_argument, nullptr, kHelp},
    {nullptr, 0, nullptr, 0},
};

bool ReadNumber(const char* text, int least, int most, int* number) {
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || errno != 0 || value < least || value > most) {
    fprintf(stderr, "signalconn-camera: \"%s\" is not a number from %d to %d\n", text, least, most);
    return false;
  }
  *number = static_cast<int>(value);
  return true;
}

bool ReadText(const char* text, std::string* target) {
  *target = text;
  return true;
}

bool ReadOption(int which, const char* text, Options* options) {
  switch (which) {
    case kTestData:
      return ReadText(text, &options->testData);
    case kServer:
      return ReadText(text, &options->server);
    case kPort:
      return ReadNumber(text, 1, 65535, &options->port);
    case kSerialNumber:
      return ReadText(text, &options->serialNumber);
    case kKey:
      return ReadText(text, &options->key);
    case kSecret:
      return ReadText(text, &options->secret);
    case kMac:
      return ReadText(text, &options->mac);
    case kAuthType:
      return ReadNumber(text, INT_MIN, INT_MAX, &options->authType);
    case kAuthCode:
      return ReadText(text, &options->authCode);
    case kMustPermit:
      return ReadNumber(text, 0, 1, &options->mustPermit);
    case kPermitCode:
      return ReadText(text, &options->permitCode);
    case kAudioOut:
      return ReadText(text, &options->audioOut);
    default:
      return false;  // getopt_long has said why
  }
}

}  // namespace

bool ReadOptions(int argc, char** argv, Options* options) {
  options->exitStatus = kUsageError;
  for (int which = 0; (which = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    if (which == kHelp) {
      fputs(kUsage, stdout);
      options->exitStatus = 0;
      return false;
    }
    if (!ReadOption(which, optarg, options)) return false;
  }
  if (optind < argc) {
    fprintf(stderr, "signalconn-camera: unexpected \"%s\"\n", argv[optind]);
    return false;
  }
  if (options->testData.empty()) {
    fprintf(stderr, "signalconn-camera: --test-data is missing\n\n%s", kUsage);
    return false;
  }
  return true;
}
