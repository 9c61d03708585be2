#include <libwebsockets.h>
#include <sys/signalfd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "configuration.h"
#include "listen_address.h"
#include "log_text.h"
#include "options.h"
#include "signalling_server.h"
#include "switchboard.h"

namespace {

using namespace signalconn::server;

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

void writeLine(const std::string& line) { std::printf("%s\n", line.c_str()); }

int fail(int status, const std::string& words) {
  std::fprintf(stderr, "signalconn-server: %s\n", words.c_str());
  return status;
}

int randomSid() {
  std::random_device random;
  return std::uniform_int_distribution<int>(1, std::numeric_limits<int>::max())(random);
}

// SIGINT and SIGTERM, made readable.
int stopDescriptor() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  const int descriptor =
      sigprocmask(SIG_BLOCK, &signals, nullptr) == 0 ? signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC) : -1;
  if (descriptor < 0) throw std::runtime_error("signals cannot be watched");
  return descriptor;
}

// Installed, the page lies beside the program, whatever the prefix; in the build tree, in the source tree.
std::string defaultWebDirectory() {
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe");
  const std::filesystem::path installed = program.parent_path().parent_path() / SIGNALCONN_INSTALLED_WEB_DIRECTORY;
  return std::filesystem::is_directory(installed) ? installed.string() : SIGNALCONN_SOURCE_WEB_DIRECTORY;
}

std::string webDirectory(const Options& options) {
  std::string directory = options.webDirectory ? *options.webDirectory : defaultWebDirectory();
  if (std::filesystem::is_directory(directory)) return directory;
  if (options.webDirectory) throw std::runtime_error("--web: " + inQuotes(directory) + " is not a directory");
  writeLine("no viewer page: " + inQuotes(directory) + " is not a directory");
  return "";
}

Configuration configuration(const Options& options, const ListenAddress& address) {
  if (options.configPath) {
    try {
      return readConfiguration(*options.configPath);
    } catch (const ConfigurationError& error) {
      throw std::runtime_error("--config " + inQuotes(*options.configPath) + ": " + error.what());
    }
  }
  if (!address.isLoopback) {
    throw std::runtime_error("without --config there is only the demo account, which anybody knows: " +
                             inQuotes(options.host) + " is not a loopback address");
  }
  return demoConfiguration();
}

ListenAddress listenAddress(const std::string& host) {
  try {
    return resolveListenAddress(host);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error("--host " + inQuotes(host) + ": " + error.what());
  }
}

void serve(const Options& options) {
  const ListenAddress address = listenAddress(options.host);
  Switchboard switchboard(configuration(options, address), options.idleTimeout, randomSid());
  SignallingServer server({address, options.port, webDirectory(options), stopDescriptor()}, switchboard, writeLine);
  writeLine("listening on " + urlOf(address, server.port()));
  server.run();
  writeLine("ended");
}

}  // namespace

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  lws_set_log_level(LLL_ERR, nullptr);
  try {
    const Options options = parseOptions({argv + 1, argv + argc});
    if (options.help) {
      std::printf("%s", usage().c_str());
      return 0;
    }
    serve(options);
    return 0;
  } catch (const OptionsError& error) {
    return fail(kExitUsage, std::string(error.what()) + "; --help tells the options");
  } catch (const std::exception& error) {
    return fail(kExitFailure, error.what());
  }
}
