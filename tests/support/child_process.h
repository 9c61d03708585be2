// A program run as a child, for what happens when a process ends.
#ifndef SIGNALCONN_TESTS_CHILD_PROCESS_H
#define SIGNALCONN_TESTS_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "unique_fd.h"

namespace support {

// How a child ended: by exit (status) or by a signal.
struct ChildEnd {
  int status = -1;
  int signal = 0;
  std::chrono::steady_clock::time_point time;
};

class ChildProcess {
 public:
  // Starts arguments[0]. Its standard output and error are kept apart; its working directory is directory
  // when that is not empty.
  explicit ChildProcess(const std::vector<std::string>& arguments, const std::string& directory = "");
  // Kills the child if it still runs.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t Pid() const { return pid_; }
  void Signal(int number) const;
  // Waits until the child has written text to its standard output. Returns whether it has.
  bool WaitForOutput(const std::string& text, std::chrono::milliseconds within = std::chrono::seconds(30));
  // Waits until the child has ended. Empty when it had not in time; it runs on.
  std::optional<ChildEnd> WaitForEnd(std::chrono::milliseconds within);

  // What it has written so far.
  std::string Output();
  std::string Errors();

 private:
  pid_t pid_ = -1;
  UniqueFd output_;
  UniqueFd errors_;
  std::optional<ChildEnd> end_;
};

}  // namespace support

#endif  // SIGNALCONN_TESTS_CHILD_PROCESS_H
