// This process's standard output, at the level of the file descriptor.
#ifndef SIGNALCONN_TESTS_CAPTURED_OUTPUT_H
#define SIGNALCONN_TESTS_CAPTURED_OUTPUT_H

#include <chrono>
#include <cstddef>
#include <string>

#include "unique_fd.h"

namespace support {

// From construction to destruction a descriptor's output goes into a file in memory. When the test has failed,
// destruction repeats what was captured, for the log. One at a time for each descriptor.
class CapturedOutput {
 public:
  explicit CapturedOutput(int fd = STDOUT_FILENO);
  ~CapturedOutput();
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;

  // Everything so far.
  std::string Text();
  // What came since the last Take.
  std::string Take();
  // Waits until text has come, count times. Returns whether it has.
  bool WaitFor(const std::string& text, int count = 1, std::chrono::milliseconds within = std::chrono::seconds(30));

 private:
  const int fd_;
  UniqueFd file_;
  UniqueFd original_;
  std::size_t taken_ = 0;
};

// How often part occurs in text.
int CountOf(const std::string& part, const std::string& text);

}  // namespace support

#endif  // SIGNALCONN_TESTS_CAPTURED_OUTPUT_H
