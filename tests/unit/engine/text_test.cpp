#include "text.h"

#include <gtest/gtest.h>

namespace kovra {
namespace {

TEST(TakeUntil, TakesWhatStandsBeforeTheSeparator) {
  std::string_view rest = "a::b";
  EXPECT_EQ(TakeUntil(rest, ':'), "a");
  EXPECT_EQ(TakeUntil(rest, ':'), "");
  EXPECT_EQ(TakeUntil(rest, ':'), "b");
  EXPECT_EQ(rest, "");
  EXPECT_EQ(TakeUntil(rest, ':'), "");
}

TEST(TakeWord, PassesOverRunsOfBlanks) {
  std::string_view rest = "  one \t two  ";
  EXPECT_EQ(TakeWord(rest), "one");
  EXPECT_EQ(TakeWord(rest), "two");
  EXPECT_EQ(TakeWord(rest), "");
  EXPECT_EQ(rest, "");
}

TEST(Trim, RemovesBlanksAndLineEndsAtBothEnds) {
  EXPECT_EQ(Trim(" \ta b\r\n"), "a b");
  EXPECT_EQ(Trim("\r\n"), "");
  EXPECT_EQ(Trim(""), "");
}

TEST(EqualsIgnoringCase, FoldsAsciiLettersOnly) {
  EXPECT_TRUE(EqualsIgnoringCase("H264", "h264"));
  EXPECT_FALSE(EqualsIgnoringCase("H264", "h26"));
  EXPECT_FALSE(EqualsIgnoringCase("[", "{"));
  EXPECT_EQ(ToLower("SHA-256 [Z]"), "sha-256 [z]");
}

TEST(ReadNumber, ReadsDigitsUpToTheLimit) {
  EXPECT_EQ(ReadNumber("0", 9), 0u);
  EXPECT_EQ(ReadNumber("007", 9), 7u);
  EXPECT_EQ(ReadNumber("65535", 65535), 65535u);
  EXPECT_EQ(ReadNumber("65536", 65535), std::nullopt);
  EXPECT_EQ(ReadNumber("5", 3), std::nullopt);
  EXPECT_EQ(ReadNumber("18446744073709551615", UINT64_MAX), UINT64_MAX);
  EXPECT_EQ(ReadNumber("18446744073709551616", UINT64_MAX), std::nullopt);
  EXPECT_EQ(ReadNumber("99999999999999999999999", UINT64_MAX), std::nullopt);
}

TEST(ReadNumber, RefusesAllElse) {
  for (const char* text : {"", " 1", "1 ", "-1", "+1", "0x1", "1.0", "a"}) {
    EXPECT_EQ(ReadNumber(text, UINT64_MAX), std::nullopt) << text;
  }
}

TEST(IsMadeOf, KnowsLettersDigitsAndWhatIsNamed) {
  EXPECT_TRUE(IsMadeOf("aZ09+/", "+/"));
  EXPECT_TRUE(IsMadeOf("", ""));
  EXPECT_FALSE(IsMadeOf("a b", "+/"));
  EXPECT_FALSE(IsMadeOf("a\xC3\xA4", ""));
  EXPECT_FALSE(IsMadeOf(std::string_view("a\0", 2), ""));
}

TEST(IpAddresses, AreToldApart) {
  EXPECT_TRUE(IsIpv4Address("192.0.2.1"));
  EXPECT_FALSE(IsIpv4Address("192.0.2.256"));
  EXPECT_FALSE(IsIpv4Address("2001:db8::1"));
  EXPECT_TRUE(IsIpv6Address("2001:db8::1"));
  EXPECT_TRUE(IsIpv6Address("::"));
  EXPECT_FALSE(IsIpv6Address("[::1]"));
  EXPECT_FALSE(IsIpv6Address("fe80::1%eth0"));
  EXPECT_FALSE(IsIpv6Address("example.org"));
}

TEST(IpAddresses, EndWithTheText) {
  EXPECT_FALSE(IsIpv4Address(std::string("192.0.2.1\0.evil", 14)));
  EXPECT_FALSE(IsIpv6Address(std::string("::\0@", 4)));
}

}  // namespace
}  // namespace kovra
