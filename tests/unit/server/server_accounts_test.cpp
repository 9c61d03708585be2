#include <gtest/gtest.h>

#include <string>

#include "accounts.h"

namespace signalconn::server {
namespace {

TEST(ConstantTimeComparison, TellsEqualFromDifferent) {
  EXPECT_TRUE(equalInConstantTime("", ""));
  EXPECT_TRUE(equalInConstantTime("4711", "4711"));
  EXPECT_FALSE(equalInConstantTime("4711", "4712"));
  EXPECT_FALSE(equalInConstantTime("5711", "4711"));
  EXPECT_FALSE(equalInConstantTime("", "4711"));
  EXPECT_FALSE(equalInConstantTime("4711", ""));
  EXPECT_FALSE(equalInConstantTime("471", "4711"));
}

TEST(ConstantTimeComparison, DoesNotTakeARepetitionForTheWhole) {
  EXPECT_FALSE(equalInConstantTime("47114711", "4711"));
  EXPECT_FALSE(equalInConstantTime(std::string(1, '\0'), ""));
}

TEST(Accounts, AreFoundByKeyAndSecretTogether) {
  const Accounts accounts({{"home", "house"}, {"work", "desk"}});
  EXPECT_EQ(accounts.find("home", "house"), AccountId{0});
  EXPECT_EQ(accounts.find("work", "desk"), AccountId{1});
  EXPECT_EQ(accounts.keyOf(1), "work");
  EXPECT_EQ(accounts.find("home", "desk"), std::nullopt);
  EXPECT_EQ(accounts.find("house", "home"), std::nullopt);
  EXPECT_EQ(accounts.find("", ""), std::nullopt);
}

}  // namespace
}  // namespace signalconn::server
