#include "webrtcbin_log.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>

namespace engine {
namespace {

constexpr std::size_t kMaxTextLength = 400;

std::atomic<LogLevel> allowed{LogLevel::kWarning};

}  // namespace

void setLogLevel(LogLevel level) { allowed = level; }

void log(LogLevel level, const std::string& text) {
  if (level > allowed) return;
  std::string line = "engine: " + text.substr(0, kMaxTextLength);
  std::replace_if(
      line.begin(), line.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, ' ');
  line += '\n';
  // One write a line keeps the lines of several threads apart. A standard error that is gone is nobody's loss.
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace engine
