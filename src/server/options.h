#ifndef SIGNALCONN_SERVER_OPTIONS_H
#define SIGNALCONN_SERVER_OPTIONS_H

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "protocol.h"

namespace signalconn::server {

struct Options {
  bool help = false;
  std::string host = "127.0.0.1";
  int port = 8080;                          // 0: the kernel chooses
  std::optional<std::string> configPath;    // nothing: the demo account
  std::optional<std::string> webDirectory;  // nothing: where the viewer page is installed
  std::chrono::seconds idleTimeout = kIdleTimeout;
};

// Says in words what is wrong with the command line.
class OptionsError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// arguments: without the program's name. Both "--port 80" and "--port=80" are understood.
Options parseOptions(const std::vector<std::string>& arguments);

std::string usage();

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_OPTIONS_H
