#include "connect_trouble.h"

#include <gtest/gtest.h>

namespace {

TEST(ConnectTrouble, AnHttpAnswerIsToldByItsStatus) {
  EXPECT_EQ(ExplainConnectTrouble(401, "HS: ws upgrade unauthorized", ""),
            "the server answered 401 instead of opening a WebSocket");
  EXPECT_EQ(ExplainConnectTrouble(503, "", ""), "the server answered 503 instead of opening a WebSocket");
}

TEST(ConnectTrouble, CertificatesAreToldInPlainWordsWhereverTheReasonStands) {
  const struct {
    const char* mark;
    const char* words;
  } cases[] = {
      {"certificate is not yet valid", "the server's certificate is not yet valid: is the device's clock right?"},
      {"X509_V_ERR = 9: x", "the server's certificate is not yet valid: is the device's clock right?"},
      {"certificate has expired", "the server's certificate has expired, or the device's clock is wrong"},
      {"X509_V_ERR = 10: x", "the server's certificate has expired, or the device's clock is wrong"},
      {"Hostname mismatch", "the server's certificate is for another host name"},
      {"X509_V_ERR = 62: x", "the server's certificate is for another host name"},
      {"self signed certificate", "the server's certificate comes from an unknown authority"},
      {"self-signed certificate in certificate chain", "the server's certificate comes from an unknown authority"},
      {"unable to get local issuer certificate", "the server's certificate comes from an unknown authority"},
      {"certificate signature failure", "the server's certificate comes from an unknown authority"},
      {"X509_V_ERR = 7: x", "the server's certificate comes from an unknown authority"},
      {"X509_V_ERR = 20: x", "the server's certificate comes from an unknown authority"},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(ExplainConnectTrouble(0, std::string("tls: ") + one.mark, ""), one.words);
    EXPECT_EQ(ExplainConnectTrouble(0, "tls failed", std::string("E: ") + one.mark + "\n"), one.words);
  }
}

TEST(ConnectTrouble, OtherTextsAreOneLineWithoutControlCharacters) {
  EXPECT_EQ(ExplainConnectTrouble(0, "conn fail: 111", ""), "conn fail: 111");
  EXPECT_EQ(ExplainConnectTrouble(101, "first\nsecond\x1b[31m\n", ""), "first second [31m");
  EXPECT_EQ(ExplainConnectTrouble(0, "", "a complaint about something else"), "the connection failed");
}

}  // namespace
