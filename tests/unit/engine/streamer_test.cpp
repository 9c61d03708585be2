#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <kovra.h>
#include <openssl/ssl.h>

#include <cstdio>
#include <cstdlib>

namespace kovra {
namespace {

// Sessions may still be alive at exit, when the application's own use of OpenSSL would tear it down.
[[noreturn]] void exitAfterTheApplicationUsedOpenSsl() {
  static KovraStreamer streamer;
  OPENSSL_init_ssl(0, nullptr);
  OPENSSL_atexit([] { std::fputs("OpenSSL was torn down\n", stderr); });
  std::exit(7);
}

TEST(StreamerExitTest, LeavesOpenSslAloneThoughTheApplicationUsedItBeforeTheFirstSession) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(exitAfterTheApplicationUsedOpenSsl(), testing::ExitedWithCode(7),
              testing::Not(testing::HasSubstr("torn down")));
}

}  // namespace
}  // namespace kovra
