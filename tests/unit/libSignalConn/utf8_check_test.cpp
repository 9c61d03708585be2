#include "utf8_check.h"

#include <gtest/gtest.h>

#include <string>

namespace {

bool IsUtf8(const std::string& text) {
  Utf8Check check;
  return check.Take(text.data(), text.size()) && check.IsComplete();
}

// UTF-8 by its definition: the shortest form of a number that is a character's.
std::string Encoded(std::uint32_t number) {
  const auto byte = [](std::uint32_t value) { return static_cast<char>(value); };
  if (number < 0x80) return {byte(number)};
  if (number < 0x800) return {byte(0xc0 | number >> 6), byte(0x80 | (number & 0x3f))};
  if (number < 0x10000) {
    return {byte(0xe0 | number >> 12), byte(0x80 | (number >> 6 & 0x3f)), byte(0x80 | (number & 0x3f))};
  }
  return {byte(0xf0 | number >> 18), byte(0x80 | (number >> 12 & 0x3f)), byte(0x80 | (number >> 6 & 0x3f)),
          byte(0x80 | (number & 0x3f))};
}

TEST(Utf8Check, TakesEveryCharacterAndNoSurrogate) {
  for (std::uint32_t number = 0; number < 0x120000; ++number) {
    const bool isCharacter = number <= 0x10ffff && (number < 0xd800 || number > 0xdfff);
    ASSERT_EQ(IsUtf8(Encoded(number)), isCharacter) << number;
  }
}

TEST(Utf8Check, RefusesOverlongForms) {
  for (const char* text :
       {"\xc0\x80", "\xc1\xbf", "\xe0\x80\x80", "\xe0\x9f\xbf", "\xf0\x80\x80\x80", "\xf0\x8f\xbf\xbf"}) {
    std::string bytes(text);
    EXPECT_FALSE(IsUtf8(bytes));
  }
}

TEST(Utf8Check, RefusesStrayAndMissingContinuations) {
  for (const char* text : {"\x80", "\xbf", "a\x80", "\xc3", "\xc3(", "\xe2\x82", "\xe2\x82(", "\xf0\x9f\x98",
                           "\xf5\x80\x80\x80", "\xff", "\xfe", "\xc3\xa4\xa4"}) {
    EXPECT_FALSE(IsUtf8(text)) << text;
  }
}

TEST(Utf8Check, TakesTextInAnyPieces) {
  const std::string text = "a\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80z";
  for (std::size_t first = 0; first <= text.size(); ++first) {
    for (std::size_t second = first; second <= text.size(); ++second) {
      Utf8Check check;
      EXPECT_TRUE(check.Take(text.data(), first));
      EXPECT_TRUE(check.Take(text.data() + first, second - first));
      EXPECT_TRUE(check.Take(text.data() + second, text.size() - second));
      EXPECT_TRUE(check.IsComplete());
    }
  }
}

TEST(Utf8Check, KnowsWhereATextMayNotEnd) {
  Utf8Check check;
  EXPECT_TRUE(check.IsComplete());
  EXPECT_TRUE(check.Take("\xe2\x82", 2));
  EXPECT_FALSE(check.IsComplete());
  EXPECT_TRUE(check.Take("\xac", 1));
  EXPECT_TRUE(check.IsComplete());
}

}  // namespace
