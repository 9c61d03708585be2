#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "configuration.h"

namespace signalconn::server {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

std::string faultOf(const std::string& text) {
  try {
    parseConfiguration(text);
  } catch (const ConfigurationError& error) {
    return error.what();
  }
  return "";
}

TEST(Configuration, HoldsAccountsAndIceServers) {
  const Configuration configuration = parseConfiguration(
      R"({"accounts":[{"key":"home","secret":"house"},{"key":"work","secret":"desk"}],
          "stun":["stun:s.example:3478"],
          "turn":[{"url":"turn:a.example:3478","username":"anna","credential":"alpha"},
                  {"url":"turns:b.example","username":"bert","credential":"beta"}]})");
  ASSERT_EQ(configuration.accounts.size(), 2U);
  EXPECT_EQ(configuration.accounts[1].key, "work");
  EXPECT_EQ(configuration.accounts[1].secret, "desk");
  EXPECT_THAT(configuration.iceServers.stunAddr, ElementsAre("stun:s.example:3478"));
  EXPECT_THAT(configuration.iceServers.turnAddr, ElementsAre("turn:a.example:3478", "turns:b.example"));
  EXPECT_THAT(configuration.iceServers.turnUser, ElementsAre("anna", "bert"));
  EXPECT_THAT(configuration.iceServers.turnPass, ElementsAre("alpha", "beta"));
}

TEST(Configuration, NeedsNoIceServers) {
  const Configuration configuration = parseConfiguration(R"({"accounts":[{"key":"home","secret":"house"}]})");
  EXPECT_THAT(configuration.iceServers.stunAddr, IsEmpty());
  EXPECT_THAT(configuration.iceServers.turnAddr, IsEmpty());
}

TEST(Configuration, SaysWhatIsWrongAndWhere) {
  const std::string account = R"("accounts":[{"key":"home","secret":"house"}])";
  EXPECT_EQ(faultOf("hello"), "the file does not hold a JSON object");
  EXPECT_EQ(faultOf("{}"), "accounts must be an array of at least one account");
  EXPECT_EQ(faultOf(R"({"accounts":[]})"), "accounts must be an array of at least one account");
  EXPECT_EQ(faultOf(R"({"accounts":{}})"), "accounts must be an array");
  EXPECT_EQ(faultOf(R"({"accounts":["home"]})"), "accounts[0] must be an object");
  EXPECT_EQ(faultOf(R"({"accounts":[{"secret":"house"}]})"), "accounts[0].key must be a text that is not empty");
  EXPECT_EQ(faultOf(R"({"accounts":[{"key":"home","secret":""}]})"),
            "accounts[0].secret must be a text that is not empty");
  EXPECT_EQ(faultOf(R"({"accounts":[{"key":"home","secret":"a"},{"key":"home","secret":"b"}]})"),
            "accounts[1].key is that of an earlier account");
  EXPECT_EQ(faultOf("{" + account + R"(,"stun":["http://s.example"]})"),
            R"(stun[0] must begin with "stun:" or "stuns:")");
  EXPECT_EQ(faultOf("{" + account + R"(,"stun":[1]})"), "stun[0] must be a text that is not empty");
  EXPECT_EQ(faultOf("{" + account + R"(,"turn":["turn:a"]})"), "turn[0] must be an object");
  EXPECT_EQ(faultOf("{" + account + R"(,"turn":[{"url":"stun:a","username":"u","credential":"c"}]})"),
            R"(turn[0].url must begin with "turn:" or "turns:")");
  EXPECT_EQ(faultOf("{" + account + R"(,"turn":[{"url":"turn:a","username":"u"}]})"),
            "turn[0].credential must be a text that is not empty");
}

TEST(Configuration, DoesNotTakeAMisspeltKeyForAMissingOne) {
  EXPECT_EQ(faultOf(R"({"acounts":[]})"), R"(the file has the unknown key "acounts")");
  EXPECT_EQ(faultOf(R"({"accounts":[{"key":"a","secret":"b","sercet":"c"}]})"),
            R"(accounts[0] has the unknown key "sercet")");
  EXPECT_EQ(faultOf(R"({"accounts":[{"key":"a","secret":"b","key":"c"}]})"), R"(accounts[0] has the key "key" twice)");
}

TEST(Configuration, FaultsTellNoSecrets) {
  EXPECT_THAT(faultOf(R"({"accounts":[{"key":"home","secret":"hush"},{"key":"home","secret":"hush"}]})"),
              AllOf(Not(IsEmpty()), Not(HasSubstr("hush"))));
}

TEST(Configuration, FileThatIsNotThereIsAFault) {
  EXPECT_THROW(readConfiguration("/nonexistent/signalconn.json"), ConfigurationError);
}

TEST(Configuration, DirectoryIsAFault) { EXPECT_THROW(readConfiguration("/"), ConfigurationError); }

TEST(Configuration, DemoAccountIsKnownByName) {
  const Configuration configuration = demoConfiguration();
  ASSERT_EQ(configuration.accounts.size(), 1U);
  EXPECT_EQ(configuration.accounts[0].key, "demo");
  EXPECT_EQ(configuration.accounts[0].secret, "demo");
}

}  // namespace
}  // namespace signalconn::server
