#include "captured_output.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdio>
#include <thread>
#include <utility>

namespace support {

CapturedOutput::CapturedOutput(int fd) : fd_(fd), file_(memfd_create("captured", MFD_CLOEXEC)), original_(dup(fd)) {
  fflush(nullptr);
  dup2(file_.get(), fd_);
}

CapturedOutput::~CapturedOutput() {
  const std::string text = testing::Test::HasFailure() ? Text() : "";
  fflush(nullptr);
  dup2(original_.get(), fd_);
  if (!text.empty()) fprintf(stderr, "captured:\n%s\n", text.c_str());
}

std::string CapturedOutput::Text() {
  fflush(nullptr);
  std::string text;
  char piece[4096];
  ssize_t size = 0;
  while ((size = pread(file_.get(), piece, sizeof piece, static_cast<off_t>(text.size()))) > 0) {
    text.append(piece, static_cast<std::size_t>(size));
  }
  return text;
}

std::string CapturedOutput::Take() {
  const std::string text = Text();
  return text.substr(std::exchange(taken_, text.size()));
}

bool CapturedOutput::WaitFor(const std::string& text, int count, std::chrono::milliseconds within) {
  const auto deadline = std::chrono::steady_clock::now() + within;
  while (CountOf(text, Text()) < count) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

int CountOf(const std::string& part, const std::string& text) {
  int count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
  return count;
}

}  // namespace support
