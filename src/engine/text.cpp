#include "text.h"

#include <arpa/inet.h>

#include <algorithm>

namespace kovra {

namespace {

constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kBlanksAndLineEnds = " \t\r\n";

// In ASCII whatever the locale is.
char LowerCase(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsLetter(char c) { return LowerCase(c) >= 'a' && LowerCase(c) <= 'z'; }

// inet_pton would read no further than there.
bool HasZero(const std::string& text) { return text.find('\0') != std::string::npos; }

}  // namespace

std::string_view TakeUntil(std::string_view& rest, char separator) {
  const std::size_t end = std::min(rest.find(separator), rest.size());
  const std::string_view taken = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return taken;
}

std::string_view TakeWord(std::string_view& rest) {
  rest.remove_prefix(std::min(rest.find_first_not_of(kBlanks), rest.size()));
  const std::string_view word = rest.substr(0, rest.find_first_of(kBlanks));
  rest.remove_prefix(word.size());
  return word;
}

std::string_view Trim(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(kBlanksAndLineEnds);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanksAndLineEnds) - begin + 1);
}

bool StartsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return LowerCase(x) == LowerCase(y); });
}

std::string ToLower(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), LowerCase);
  return lower;
}

std::optional<std::uint64_t> ReadNumber(std::string_view text, std::uint64_t max) {
  if (text.empty()) return std::nullopt;
  std::uint64_t number = 0;
  for (const char c : text) {
    if (!IsDigit(c)) return std::nullopt;
    const auto digit = static_cast<std::uint64_t>(c - '0');
    if (digit > max || number > (max - digit) / 10) return std::nullopt;
    number = number * 10 + digit;
  }
  return number;
}

bool IsMadeOf(std::string_view text, std::string_view others) {
  return std::all_of(text.begin(), text.end(), [others](char c) {
    return IsLetter(c) || IsDigit(c) || others.find(c) != std::string_view::npos;
  });
}

bool IsIpv4Address(const std::string& text) {
  in_addr address{};
  return !HasZero(text) && inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool IsIpv6Address(const std::string& text) {
  in6_addr address{};
  return !HasZero(text) && inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

}  // namespace kovra
