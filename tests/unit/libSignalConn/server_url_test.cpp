#include "server_url.h"

#include <gtest/gtest.h>

namespace {

struct Reading {
  const char* text;
  bool tls;
  const char* host;
  const char* path;
};

class ServerUrlReads : public testing::TestWithParam<Reading> {};

TEST_P(ServerUrlReads, ItsParts) {
  const Reading& expected = GetParam();
  ServerUrl url;
  ASSERT_TRUE(ParseServerUrl(expected.text, &url)) << expected.text;
  EXPECT_EQ(url.tls, expected.tls) << expected.text;
  EXPECT_EQ(url.host, expected.host) << expected.text;
  EXPECT_EQ(url.path, expected.path) << expected.text;
}

INSTANTIATE_TEST_SUITE_P(Forms, ServerUrlReads,
                         testing::Values(Reading{"cam.example", false, "cam.example", "/"},
                                         Reading{"192.0.2.1", false, "192.0.2.1", "/"},
                                         Reading{"::1", false, "::1", "/"}, Reading{"[::1]", false, "::1", "/"},
                                         Reading{"2001:db8::1:2", false, "2001:db8::1:2", "/"},
                                         Reading{"ws://cam.example", false, "cam.example", "/"},
                                         Reading{"ws://cam.example/", false, "cam.example", "/"},
                                         Reading{"ws://cam.example/a/b?c=d&e", false, "cam.example", "/a/b?c=d&e"},
                                         Reading{"ws://cam.example?c=d", false, "cam.example", "/?c=d"},
                                         Reading{"wss://cam.example/x", true, "cam.example", "/x"},
                                         Reading{"WSS://Cam.Example/X", true, "Cam.Example", "/X"},
                                         Reading{"ws://[::1]/x", false, "::1", "/x"},
                                         Reading{"wss://[2001:db8::1]", true, "2001:db8::1", "/"},
                                         Reading{"ws", false, "ws", "/"}));

class ServerUrlRefuses : public testing::TestWithParam<std::string> {};

TEST_P(ServerUrlRefuses, AndLeavesTheUrlAlone) {
  ServerUrl url;
  url.host = "before";
  EXPECT_FALSE(ParseServerUrl(GetParam(), &url)) << GetParam();
  EXPECT_EQ(url.host, "before");
  EXPECT_EQ(url.path, "");
  EXPECT_FALSE(url.tls);
}

INSTANTIATE_TEST_SUITE_P(Forms, ServerUrlRefuses,
                         testing::Values("", " ", "cam example", "cam.example ", "cam\texample", "cam\nexample",
                                         std::string("cam\0example", 11), "cam\x7f", "ws://", "wss://", "ws:///path",
                                         "http://cam.example", "https://cam.example", "cam.example:80",
                                         "ws://cam.example:80", "ws://cam.example:80/x", "[::1]:80", "ws://[::1]:80/",
                                         "[::1", "::1]", "[]", "[cam.example]", "cam.example/path", "user@cam.example",
                                         "ws://user:word@cam.example", "cam#1", "ws://cam.example/a#b", "ws://cam\"",
                                         "ws://<cam>", "cam\\example", "\xc3\xa4.example"));

TEST(ServerUrl, TheHostHasAtMost127Bytes) {
  ServerUrl url;
  EXPECT_TRUE(ParseServerUrl(std::string(127, 'h'), &url));
  EXPECT_FALSE(ParseServerUrl(std::string(128, 'h'), &url));
}

TEST(ServerUrl, ThePathHasAtMost1024Bytes) {
  ServerUrl url;
  EXPECT_TRUE(ParseServerUrl("ws://h/" + std::string(1023, 'p'), &url));
  EXPECT_EQ(url.path.size(), 1024U);
  EXPECT_FALSE(ParseServerUrl("ws://h/" + std::string(1024, 'p'), &url));
}

}  // namespace
