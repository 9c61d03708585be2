// The signalling server's program, run on a port of its own.
#ifndef SIGNALCONN_TESTS_SERVER_PROGRAM_H
#define SIGNALCONN_TESTS_SERVER_PROGRAM_H

#include <string>
#include <vector>

#include "child_process.h"

namespace support {

class ServerProgram {
 public:
  // Starts the program at path with --port 0 and further arguments, and waits until it listens. Throws
  // std::runtime_error, with what the program wrote, when it does not.
  explicit ServerProgram(const std::string& path, const std::vector<std::string>& arguments = {});

  int Port() const { return port_; }
  ChildProcess& Process() { return process_; }

 private:
  ChildProcess process_;
  int port_ = 0;
};

}  // namespace support

#endif  // SIGNALCONN_TESTS_SERVER_PROGRAM_H
