#include "connect_trouble.h"

#include <algorithm>

namespace {

struct Explanation {
  const char* mark;
  const char* words;
};

const char kNotYetValid[] = "the server's certificate is not yet valid: is the device's clock right?";
const char kExpired[] = "the server's certificate has expired, or the device's clock is wrong";
const char kOtherName[] = "the server's certificate is for another host name";
const char kUnknownAuthority[] = "the server's certificate comes from an unknown authority";

// With OpenSSL libwebsockets logs the error's words, with mbedTLS it gives the number (X509_V_ERR) as the reason.
const Explanation kExplanations[] = {
    {"not yet valid", kNotYetValid},
    {"X509_V_ERR = 9:", kNotYetValid},
    {"certificate has expired", kExpired},
    {"X509_V_ERR = 10:", kExpired},
    {"ostname mismatch", kOtherName},
    {"X509_V_ERR = 62:", kOtherName},
    {"self signed", kUnknownAuthority},
    {"self-signed", kUnknownAuthority},
    {"unable to get local issuer", kUnknownAuthority},
    {"certificate signature failure", kUnknownAuthority},
    {"X509_V_ERR = 7:", kUnknownAuthority},
    {"X509_V_ERR = 18:", kUnknownAuthority},
    {"X509_V_ERR = 19:", kUnknownAuthority},
    {"X509_V_ERR = 20:", kUnknownAuthority},
    {"X509_V_ERR = 24:", kUnknownAuthority},
};

}  // namespace

std::string ExplainConnectTrouble(unsigned httpStatus, const std::string& text, const std::string& complaint) {
  if (httpStatus != 0 && httpStatus != 101) {
    return "the server answered " + std::to_string(httpStatus) + " instead of opening a WebSocket";
  }
  for (const Explanation& explanation : kExplanations) {
    if ((text + complaint).find(explanation.mark) != std::string::npos) return explanation.words;
  }
  std::string line = text.empty() ? "the connection failed" : text;
  std::replace_if(
      line.begin(), line.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, ' ');
  while (!line.empty() && line.back() == ' ') line.pop_back();
  return line;
}
