#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "options.h"

namespace signalconn::server {
namespace {

using ::testing::HasSubstr;

std::string faultOf(const std::vector<std::string>& arguments) {
  try {
    parseOptions(arguments);
  } catch (const OptionsError& error) {
    return error.what();
  }
  return "";
}

TEST(Options, HaveDefaults) {
  const Options options = parseOptions({});
  EXPECT_FALSE(options.help);
  EXPECT_EQ(options.host, "127.0.0.1");
  EXPECT_EQ(options.port, 8080);
  EXPECT_EQ(options.configPath, std::nullopt);
  EXPECT_EQ(options.webDirectory, std::nullopt);
  EXPECT_EQ(options.idleTimeout, std::chrono::seconds(60));
}

TEST(Options, AreTakenInBothForms) {
  const Options options =
      parseOptions({"--host", "::1", "--port=0", "--config", "a=b", "--web=/w", "--idle-timeout", "5"});
  EXPECT_EQ(options.host, "::1");
  EXPECT_EQ(options.port, 0);
  EXPECT_EQ(options.configPath, "a=b");
  EXPECT_EQ(options.webDirectory, "/w");
  EXPECT_EQ(options.idleTimeout, std::chrono::seconds(5));
}

TEST(Options, HelpNamesEveryOption) {
  EXPECT_TRUE(parseOptions({"--help"}).help);
  for (const char* option : {"--help", "--host", "--port", "--config", "--web", "--idle-timeout"}) {
    EXPECT_THAT(usage(), HasSubstr(option));
  }
}

TEST(Options, FaultsAreNamed) {
  EXPECT_EQ(faultOf({"--prot", "80"}), "unknown option --prot");
  EXPECT_EQ(faultOf({"8080"}), "unexpected argument 8080");
  for (const char* port : {"65536", "-1", "80x", "", " 80"}) {
    EXPECT_EQ(faultOf({"--port", port}), "--port wants a number from 0 to 65535") << port;
  }
  EXPECT_EQ(faultOf({"--port"}), "--port wants a number from 0 to 65535");
  EXPECT_EQ(faultOf({"--idle-timeout", "1"}), "--idle-timeout wants a number from 2 to 86400");
  EXPECT_EQ(faultOf({"--host"}), "--host wants a value");
  EXPECT_EQ(faultOf({"--config="}), "--config wants a value");
  EXPECT_EQ(faultOf({"--web"}), "--web wants a value");
}

}  // namespace
}  // namespace signalconn::server
