#include "child_process.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <stdexcept>

namespace support {

namespace {

std::string Contents(const UniqueFd& file) {
  std::string text;
  char piece[4096];
  ssize_t size = 0;
  while ((size = pread(file.get(), piece, sizeof piece, static_cast<off_t>(text.size()))) > 0) {
    text.append(piece, static_cast<std::size_t>(size));
  }
  return text;
}

}  // namespace

// Files in memory rather than pipes: a child is never held up by a reader that is slow.
ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const std::string& directory)
    : output_(memfd_create("output", MFD_CLOEXEC)), errors_(memfd_create("errors", MFD_CLOEXEC)) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    const bool entered = directory.empty() || chdir(directory.c_str()) == 0;
    dup2(output_.get(), STDOUT_FILENO);
    dup2(errors_.get(), STDERR_FILENO);
    if (entered) execv(argv[0], argv.data());
    _exit(127);
  }
}

ChildProcess::~ChildProcess() {
  if (end_) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

void ChildProcess::Signal(int number) const { kill(pid_, number); }

bool ChildProcess::WaitForOutput(const std::string& text, std::chrono::milliseconds within) {
  const auto deadline = std::chrono::steady_clock::now() + within;
  while (Output().find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

std::optional<ChildEnd> ChildProcess::WaitForEnd(std::chrono::milliseconds within) {
  const auto deadline = std::chrono::steady_clock::now() + within;
  while (!end_) {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      end_ = ChildEnd{WIFEXITED(status) ? WEXITSTATUS(status) : -1, WIFSIGNALED(status) ? WTERMSIG(status) : 0,
                      std::chrono::steady_clock::now()};
    } else if (std::chrono::steady_clock::now() > deadline) {
      return std::nullopt;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  return end_;
}

std::string ChildProcess::Output() { return Contents(output_); }
std::string ChildProcess::Errors() { return Contents(errors_); }

}  // namespace support
