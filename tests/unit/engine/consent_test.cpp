#include "consent.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <set>

namespace kovra {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Answer = Consent::Answer;

constexpr char kPassword[] = "theviewerspassword";
constexpr std::uint16_t kSuccess = 0x0101;
constexpr std::uint16_t kError = 0x0111;

std::uint32_t Crc32(const Bytes& bytes) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (const std::uint8_t byte : bytes) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) != 0 ? crc >> 1 ^ 0xEDB88320 : crc >> 1;
  }
  return ~crc;
}

// What a viewer with that password answers; with an ERROR-CODE attribute unless the code is 0.
Bytes AnswerTo(const Bytes& request, std::uint16_t type = kSuccess, unsigned code = 0,
               const std::string& password = kPassword) {
  Bytes message(request.begin(), request.begin() + 20);
  WriteU16(type, message.data());
  if (code != 0) {
    const Bytes attribute = {
        0, 9, 0, 4, 0, 0, static_cast<std::uint8_t>(code / 100), static_cast<std::uint8_t>(code % 100)};
    message.insert(message.end(), attribute.begin(), attribute.end());
  }
  WriteU16(static_cast<std::uint16_t>(message.size() + 4), &message[2]);
  Bytes digest(20);
  unsigned int size = 0;
  HMAC(EVP_sha1(), password.data(), static_cast<int>(password.size()), message.data(), message.size(), digest.data(),
       &size);
  message.insert(message.end(), {0, 8, 0, 20});
  message.insert(message.end(), digest.begin(), digest.end());
  WriteU16(static_cast<std::uint16_t>(message.size() - 12), &message[2]);
  const std::uint32_t checksum = Crc32(message) ^ 0x5354554E;
  message.insert(message.end(), {0x80, 0x28, 0, 4, 0, 0, 0, 0});
  WriteU32(checksum, &message[message.size() - 4]);
  return message;
}

class ConsentTest : public testing::Test {
 protected:
  Bytes request(Micros now = Micros(0)) {
    const ByteView view = consent_.request(now);
    return {view.data, view.data + view.size};
  }
  Answer receive(const Bytes& datagram) { return consent_.receive(ByteView(datagram)); }

  // Counts up, so that no two transactions are alike.
  std::uint8_t next_ = 0;
  Consent consent_{{"view:cam", 1, false, 2},
                   kPassword,
                   [this](std::uint8_t* out, std::size_t size) { std::fill_n(out, size, next_++); },
                   Micros(0)};
};

TEST_F(ConsentTest, IsGivenByAnAnswerToTheRequest) { EXPECT_EQ(receive(AnswerTo(request())), Answer::kGiven); }

TEST_F(ConsentTest, TakesAnAnswerOnce) {
  const Bytes answer = AnswerTo(request());
  EXPECT_EQ(receive(answer), Answer::kGiven);
  EXPECT_EQ(receive(answer), Answer::kUnrelated);
}

TEST_F(ConsentTest, TakesAnswersToTheLastRequestsOnly) {
  std::vector<Bytes> requests;
  for (std::size_t i = 0; i <= Consent::kMaxPending; ++i) requests.push_back(request());
  EXPECT_EQ(receive(AnswerTo(requests[0])), Answer::kUnrelated);
  for (std::size_t i = 1; i <= Consent::kMaxPending; ++i)
    EXPECT_EQ(receive(AnswerTo(requests[i])), Answer::kGiven) << i;
}

TEST_F(ConsentTest, TakesNoAnswerToWhatWasNotAsked) {
  Bytes other = request();
  other[19] ^= 1;
  EXPECT_EQ(receive(AnswerTo(other)), Answer::kUnrelated);
  EXPECT_EQ(receive(AnswerTo(Bytes(20, 0))), Answer::kUnrelated);
}

TEST_F(ConsentTest, TakesNothingBeforeItAsked) {
  Bytes request(20, 0);
  WriteU32(0x2112A442, &request[4]);
  EXPECT_EQ(receive(AnswerTo(request)), Answer::kUnrelated);
}

TEST_F(ConsentTest, TakesNoForgedAnswerAndStillTheTrueOne) {
  const Bytes asked = request();
  EXPECT_EQ(receive(AnswerTo(asked, kSuccess, 0, "another")), Answer::kUnrelated);
  EXPECT_EQ(receive(AnswerTo(asked, kError, 403, "another")), Answer::kUnrelated);
  EXPECT_EQ(receive(asked), Answer::kUnrelated) << "the request itself";
  EXPECT_EQ(receive(AnswerTo(asked)), Answer::kGiven);
}

TEST_F(ConsentTest, IsRevokedByForbidden) { EXPECT_EQ(receive(AnswerTo(request(), kError, 403)), Answer::kRevoked); }

TEST_F(ConsentTest, IsLeftAsItIsByOtherErrors) {
  const Bytes asked = request();
  EXPECT_EQ(receive(AnswerTo(asked, kError, 487)), Answer::kUnrelated);
  EXPECT_EQ(receive(AnswerTo(asked, kError)), Answer::kUnrelated) << "an error without a code";
  EXPECT_EQ(receive(AnswerTo(asked, kSuccess, 403)), Answer::kGiven) << "a code in a success means nothing";
}

TEST_F(ConsentTest, AsksEveryFourToSixSeconds) {
  std::set<Micros> intervals;
  Micros now{0};
  for (int i = 0; i < 600; ++i) {
    const Micros interval = consent_.nextRequest() - now;
    EXPECT_GE(interval, Consent::kShortestInterval);
    EXPECT_LT(interval, Consent::kLongestInterval);
    intervals.insert(interval);
    now = consent_.nextRequest();
    request(now);
  }
  EXPECT_GT(intervals.size(), 100u);
  EXPECT_LT(*intervals.begin(), Micros(4'100'000));
  EXPECT_GT(*intervals.rbegin(), Micros(5'900'000));
}

TEST_F(ConsentTest, AsksWithANewTransactionEachTime) {
  const Bytes one = request();
  const Bytes other = request();
  EXPECT_FALSE(std::equal(one.begin() + 8, one.begin() + 20, other.begin() + 8));
}

}  // namespace
}  // namespace kovra
