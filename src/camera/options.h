// The camera program's command line.
#ifndef SIGNALCONN_CAMERA_OPTIONS_H
#define SIGNALCONN_CAMERA_OPTIONS_H

#include <string>

struct Options {
  std::string server = "127.0.0.1";
  int port = 8080;
  std::string serialNumber = "SN0001";
  std::string key = "demo";
  std::string secret = "demo";
  std::string mac;
  int authType = 0;
  std::string authCode;
  int mustPermit = 0;
  std::string permitCode;
  std::string testData;  // directory of the sample media
  std::string audioOut;  // file for the viewers' audio; empty: not kept

  int exitStatus = 0;  // when the program is not to run
};

// Returns false when the program is to end with options->exitStatus: help was asked for and printed, or the
// command line is wrong, which standard error tells.
bool ReadOptions(int argc, char** argv, Options* options);

#endif  // SIGNALCONN_CAMERA_OPTIONS_H
