#include "log.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdio>

namespace kovra {

namespace {

constexpr std::size_t kMaxLineBytes = 1000;

std::atomic<unsigned> log_level{static_cast<unsigned>(LogLevel::kWarning)};

}  // namespace

void SetLogLevel(unsigned level) { log_level.store(level, std::memory_order_relaxed); }

bool IsLogged(LogLevel level) { return static_cast<unsigned>(level) <= log_level.load(std::memory_order_relaxed); }

void Log(LogLevel level, const char* format, ...) {
  if (!IsLogged(level)) return;
  char line[kMaxLineBytes + 1];
  std::va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(line, kMaxLineBytes, format, arguments);
  va_end(arguments);
  if (length < 0) return;
  const std::size_t used = std::min(static_cast<std::size_t>(length), kMaxLineBytes - 1);
  line[used] = '\n';
  // A log that cannot be written is no reason to do anything else.
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, used + 1);
}

}  // namespace kovra
