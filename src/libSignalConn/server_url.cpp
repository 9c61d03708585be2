#include "server_url.h"

#include <strings.h>

#include <algorithm>

namespace {

const std::size_t kLongestHost = 127;  // what libwebsockets checks a certificate against
const std::size_t kLongestPath = 1024;

bool TakeScheme(const char* scheme, std::string* text) {
  const std::string prefix(scheme);
  if (strncasecmp(text->c_str(), scheme, prefix.size()) != 0) return false;
  text->erase(0, prefix.size());
  return true;
}

bool IsPrintable(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c > ' ' && c < 0x7f; });
}

// An unbracketed host with one colon would be host:port; with more it is an IPv6 address.
bool ReadHost(std::string text, std::string* host) {
  if (!text.empty() && text.front() == '[') {
    if (text.size() < 2 || text.back() != ']') return false;
    text = text.substr(1, text.size() - 2);
    if (text.find(':') == std::string::npos) return false;
  } else if (std::count(text.begin(), text.end(), ':') == 1) {
    return false;
  }
  if (text.empty() || text.size() > kLongestHost || text.find_first_of("@#?[]\\\"<>") != std::string::npos)
    return false;
  *host = text;
  return true;
}

}  // namespace

bool ParseServerUrl(const std::string& text, ServerUrl* url) {
  if (!IsPrintable(text)) return false;
  ServerUrl read;
  std::string rest = text;
  read.tls = TakeScheme("wss://", &rest);
  const bool isUrl = read.tls || TakeScheme("ws://", &rest);

  const std::size_t slash = std::min(rest.find_first_of("/?"), rest.size());
  if (slash < rest.size() && !isUrl) return false;
  if (!ReadHost(rest.substr(0, slash), &read.host)) return false;

  read.path = rest.substr(slash);
  if (read.path.empty() || read.path.front() != '/') read.path.insert(0, "/");
  if (read.path.size() > kLongestPath || read.path.find('#') != std::string::npos) return false;
  *url = read;
  return true;
}
