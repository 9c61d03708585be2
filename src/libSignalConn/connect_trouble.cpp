#include "connect_trouble.h"

#include <algorithm>

namespace {

struct Explanation {
  const char* mark;
  const char* words;
};

// The texts are libwebsockets' and, for certificates, the TLS library's.
const Explanation kExplanations[] = {
    {"not yet valid", "the server's certificate is not yet valid: is the device's clock right?"},
    {"expired", "the server's certificate has expired, or the device's clock is wrong"},
    {"ostname mismatch", "the server's certificate is for another host name"},
    {"self signed", "the server's certificate comes from an unknown authority"},
    {"self-signed", "the server's certificate comes from an unknown authority"},
    {"unable to get local issuer", "the server's certificate comes from an unknown authority"},
    {"unable to get issuer", "the server's certificate comes from an unknown authority"},
};

}  // namespace

std::string ExplainConnectTrouble(unsigned httpStatus, const std::string& text) {
  if (httpStatus != 0 && httpStatus != 101) {
    return "the server answered " + std::to_string(httpStatus) + " instead of opening a WebSocket";
  }
  for (const Explanation& explanation : kExplanations) {
    if (text.find(explanation.mark) != std::string::npos) return explanation.words;
  }
  std::string line = text.empty() ? "the connection failed" : text;
  std::replace_if(
      line.begin(), line.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, ' ');
  while (!line.empty() && line.back() == ' ') line.pop_back();
  return line;
}
