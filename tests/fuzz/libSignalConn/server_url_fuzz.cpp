// Any text as the server argument: what is read keeps the promises of server_url.h, and reads the same again.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "server_url.h"

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

bool IsClean(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c > ' ' && c < 0x7f; });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  ServerUrl url;
  if (!ParseServerUrl(text, &url)) {
    Require(!url.tls && url.host.empty() && url.path.empty());
    return 0;
  }
  Require(!url.host.empty() && url.host.size() <= 127 && IsClean(url.host));
  Require(url.host.find_first_of("/?#@[]") == std::string::npos);
  Require(url.path.front() == '/' && url.path.size() <= 1024 && IsClean(url.path));

  const bool bracketed = url.host.find(':') != std::string::npos;
  const std::string host = bracketed ? "[" + url.host + "]" : url.host;
  ServerUrl again;
  Require(ParseServerUrl((url.tls ? "wss://" : "ws://") + host + url.path, &again));
  Require(again.tls == url.tls && again.host == url.host && again.path == url.path);
  return 0;
}
