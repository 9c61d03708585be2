#include "log_text.h"

#include <cstddef>

namespace signalconn::server {

std::string inQuotes(std::string_view text) {
  constexpr std::size_t kLongest = 80;
  constexpr std::string_view kHexDigits = "0123456789abcdef";
  std::string result = "\"";
  for (const char c : text.substr(0, kLongest)) {
    if (c == '"' || c == '\\') {
      result += '\\';
      result += c;
    } else if (c >= ' ' && c <= '~') {
      result += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      result += "\\x";
      result += kHexDigits[byte >> 4U];
      result += kHexDigits[byte & 0xFU];
    }
  }
  return result + (text.size() > kLongest ? "\"..." : "\"");
}

}  // namespace signalconn::server
