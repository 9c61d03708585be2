// JSON, UTF-8 and log texts.
#include <gtest/gtest.h>

#include <string>

#include "json.h"
#include "log_text.h"
#include "utf8.h"

namespace signalconn::server {
namespace {

TEST(Utf8, AcceptsEveryLengthOfSequence) {
  EXPECT_TRUE(isUtf8(""));
  EXPECT_TRUE(isUtf8("a\x7f"));
  EXPECT_TRUE(isUtf8("\xC2\x80 \xDF\xBF"));
  EXPECT_TRUE(isUtf8("\xE0\xA0\x80 \xE2\x82\xAC \xED\x9F\xBF \xEE\x80\x80 \xEF\xBF\xBF"));
  EXPECT_TRUE(isUtf8("\xF0\x90\x80\x80 \xF3\xBF\xBF\xBF \xF4\x8F\xBF\xBF"));
}

TEST(Utf8, RefusesOverlongForms) {
  EXPECT_FALSE(isUtf8("\xC0\x80"));
  EXPECT_FALSE(isUtf8("\xC1\xBF"));
  EXPECT_FALSE(isUtf8("\xE0\x9F\xBF"));
  EXPECT_FALSE(isUtf8("\xF0\x8F\xBF\xBF"));
}

TEST(Utf8, RefusesSurrogatesAndWhatIsAboveTheLastCharacter) {
  EXPECT_FALSE(isUtf8("\xED\xA0\x80"));
  EXPECT_FALSE(isUtf8("\xF4\x90\x80\x80"));
  EXPECT_FALSE(isUtf8("\xF5\x80\x80\x80"));
  EXPECT_FALSE(isUtf8("\xFF"));
}

TEST(Utf8, RefusesBrokenSequences) {
  EXPECT_FALSE(isUtf8("\x80"));
  EXPECT_FALSE(isUtf8("\xC3"));
  EXPECT_FALSE(isUtf8("\xE2\x82"));
  EXPECT_FALSE(isUtf8("\xE2\x28\xA1"));
  EXPECT_FALSE(isUtf8("\xE2\x82\x28"));
  EXPECT_FALSE(isUtf8("\xF0\x9F\x98"));
  EXPECT_FALSE(isUtf8("\xF0\x9F\x98\x28"));
}

TEST(JsonParsing, TakesAnObjectWithSpaceAround) { EXPECT_TRUE(parseJsonObject(" \t\r\n{\"a\":1} \t\r\n")); }

TEST(JsonParsing, TakesOnlyObjects) {
  for (const char* text : {"", " ", "1", "\"a\"", "[]", "[{}]", "null", "true", "{", "{\"a\":}", "{'a':1}", "hello"}) {
    EXPECT_FALSE(parseJsonObject(text)) << text;
  }
}

TEST(JsonParsing, RefusesWhatFollowsTheObject) {
  EXPECT_FALSE(parseJsonObject("{}x"));
  EXPECT_FALSE(parseJsonObject("{}{}"));
  EXPECT_FALSE(parseJsonObject(std::string("{}\0", 3)));
}

TEST(JsonParsing, DoesNotReadBeyondTheText) { EXPECT_FALSE(parseJsonObject(std::string_view("{\"a\":1}", 6))); }

TEST(JsonParsing, RefusesBytesThatAreNotUtf8) { EXPECT_FALSE(parseJsonObject("{\"a\":\"\xC3\"}")); }

TEST(JsonParsing, RefusesRawControlCharacters) {
  EXPECT_FALSE(parseJsonObject("{\"a\":\"\x01\"}"));
  EXPECT_FALSE(parseJsonObject("{\"a\":\"line\nbreak\"}"));
  EXPECT_FALSE(parseJsonObject("{\x01\"a\":1}"));
  EXPECT_FALSE(parseJsonObject(std::string("{\"a\":\"\0\"}", 9)));
}

TEST(JsonParsing, RefusesAnEscapedNulButNotWhatOnlyLooksLikeOne) {
  EXPECT_FALSE(parseJsonObject(R"({"a":"b\u0000c"})"));
  EXPECT_FALSE(parseJsonObject(R"({"a":"\\\u0000"})"));
  EXPECT_TRUE(parseJsonObject(R"({"a":"\\u0000"})"));
  EXPECT_TRUE(parseJsonObject(R"({"a":"\u0001\""})"));
}

TEST(JsonParsing, RefusesLoneSurrogates) {
  EXPECT_FALSE(parseJsonObject(R"({"a":"\ud800"})"));
  EXPECT_FALSE(parseJsonObject(R"({"a":"\udc00"})"));
  EXPECT_TRUE(parseJsonObject(R"({"a":"\ud83d\ude00"})"));
}

TEST(JsonParsing, SurvivesDeepNesting) {
  EXPECT_FALSE(parseJsonObject("{\"a\":" + std::string(100000, '[')));
  EXPECT_FALSE(parseJsonObject("{\"a\":" + std::string(2000, '[') + std::string(2000, ']') + "}"));
}

std::optional<int> integerIn(const std::string& text) {
  const Json object = parseJsonObject(text);
  return jsonInteger(jsonMember(*object, "n"));
}

TEST(JsonInteger, IsAWholeNumberIn32Bits) {
  EXPECT_EQ(integerIn(R"({"n":0})"), 0);
  EXPECT_EQ(integerIn(R"({"n":1.0})"), 1);
  EXPECT_EQ(integerIn(R"({"n":2147483647})"), 2147483647);
  EXPECT_EQ(integerIn(R"({"n":-2147483648})"), -2147483647 - 1);
}

TEST(JsonInteger, IsNothingElse) {
  for (const char* text : {R"({"n":2147483648})", R"({"n":-2147483649})", R"({"n":0.5})", R"({"n":1e400})",
                           R"({"n":"1"})", R"({"n":true})", R"({"n":null})", R"({"N":1})", "{}"}) {
    EXPECT_EQ(integerIn(text), std::nullopt) << text;
  }
}

TEST(JsonWriting, IsCompactInTheOrderOfTheCallsAndEscapes) {
  JsonWriter inner;
  inner.add("k", "v");
  std::vector<JsonWriter> objects;
  objects.push_back(std::move(inner));
  JsonWriter writer;
  writer.add("z", -5).add("a", "\"\\\n\x01\xE2\x82\xAC").add("list", std::vector<std::string>{"x", "y"});
  writer.add("objects", std::move(objects));
  EXPECT_EQ(writer.text(), R"({"z":-5,"a":"\"\\\n\u0001)"
                           "\xE2\x82\xAC"
                           R"(","list":["x","y"],"objects":[{"k":"v"}]})");
}

TEST(LogText, StaysOnOneLineAndSteersNoTerminal) {
  EXPECT_EQ(inQuotes("SN 1"), "\"SN 1\"");
  EXPECT_EQ(inQuotes("a\nb\x1b[2J\"\\"), R"("a\x0ab\x1b[2J\"\\")");
  EXPECT_EQ(inQuotes("\xC2\x9B\x7f"), R"("\xc2\x9b\x7f")");
}

TEST(LogText, IsCut) { EXPECT_EQ(inQuotes(std::string(81, 'x')), "\"" + std::string(80, 'x') + "\"..."); }

}  // namespace
}  // namespace signalconn::server
