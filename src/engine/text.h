// Cutting and reading of short protocol texts in ASCII.
#ifndef SIGNALCONN_ENGINE_TEXT_H
#define SIGNALCONN_ENGINE_TEXT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kovra {

// Takes what stands before the first separator off rest, the separator too; all of rest when there is none.
std::string_view TakeUntil(std::string_view& rest, char separator);

// Takes the next run of characters other than blanks off rest; empty when only blanks are left.
std::string_view TakeWord(std::string_view& rest);

// Without blanks and line ends at both ends.
std::string_view Trim(std::string_view text);

bool StartsWith(std::string_view text, std::string_view prefix);
bool EqualsIgnoringCase(std::string_view a, std::string_view b);
std::string ToLower(std::string_view text);

// A decimal number of digits only, at most max.
std::optional<std::uint64_t> ReadNumber(std::string_view text, std::uint64_t max);

// Whether text holds only letters, digits and characters of others; true for an empty text.
bool IsMadeOf(std::string_view text, std::string_view others);

// Whether text is an IP address in its usual notation; IPv6 without brackets and zone.
bool IsIpv4Address(const std::string& text);
bool IsIpv6Address(const std::string& text);

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_TEXT_H
