#include "stun_message.h"

#include <gtest/gtest.h>

#include <vector>

namespace kovra {
namespace {

using Bytes = std::vector<std::uint8_t>;

// Of the test vectors of RFC 5769.
constexpr char kPassword[] = "VOkJxbRl1RmTxUk/WvJxBt";
constexpr StunTransactionId kTransaction = {0xb7, 0xe7, 0xa7, 0x01, 0xbc, 0x34, 0xd6, 0x86, 0xfa, 0x87, 0xdf, 0xae};

// Its sample IPv4 response (2.2).
const Bytes kResponse = {0x01, 0x01, 0x00, 0x3c, 0x21, 0x12, 0xa4, 0x42, 0xb7, 0xe7, 0xa7, 0x01, 0xbc, 0x34,
                         0xd6, 0x86, 0xfa, 0x87, 0xdf, 0xae, 0x80, 0x22, 0x00, 0x0b, 0x74, 0x65, 0x73, 0x74,
                         0x20, 0x76, 0x65, 0x63, 0x74, 0x6f, 0x72, 0x20, 0x00, 0x20, 0x00, 0x08, 0x00, 0x01,
                         0xa1, 0x47, 0xe1, 0x12, 0xa6, 0x43, 0x00, 0x08, 0x00, 0x14, 0x2b, 0x91, 0xf5, 0x99,
                         0xfd, 0x9e, 0x90, 0xc3, 0x8c, 0x74, 0x89, 0xf9, 0x2a, 0xf9, 0xba, 0x53, 0xf0, 0x6b,
                         0xe7, 0xd7, 0x80, 0x28, 0x00, 0x04, 0xc0, 0x7d, 0x4c, 0x96};
constexpr std::size_t kIntegrityAt = 48;
constexpr std::size_t kFingerprintAt = 72;

// With the values of its sample request (2.1), except for what we do not write.
const Bytes kRequest = {0x00, 0x01, 0x00, 0x44, 0x21, 0x12, 0xa4, 0x42, 0xb7, 0xe7, 0xa7, 0x01, 0xbc, 0x34, 0xd6,
                        0x86, 0xfa, 0x87, 0xdf, 0xae, 0x00, 0x24, 0x00, 0x04, 0x6e, 0x00, 0x01, 0xff, 0x80, 0x29,
                        0x00, 0x08, 0x93, 0x2f, 0xf9, 0xb1, 0x51, 0x26, 0x3b, 0x36, 0x00, 0x06, 0x00, 0x09, 0x65,
                        0x76, 0x74, 0x6a, 0x3a, 0x68, 0x36, 0x76, 0x59, 0x00, 0x00, 0x00, 0x00, 0x08, 0x00, 0x14,
                        0x00, 0xc9, 0x3b, 0xf2, 0x89, 0x05, 0x9b, 0xb4, 0x9b, 0x56, 0x01, 0x0a, 0xcd, 0x55, 0x30,
                        0x9d, 0x72, 0x77, 0xa4, 0x27, 0x80, 0x28, 0x00, 0x04, 0x5f, 0xc1, 0x4a, 0x11};

// The checksum anew, as somebody who forges a message would.
void Seal(Bytes& message) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (std::size_t i = 0; i + 8 < message.size(); ++i) {
    crc ^= message[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) != 0 ? crc >> 1 ^ 0xEDB88320 : crc >> 1;
  }
  WriteU32(~crc ^ 0x5354554E, &message[message.size() - 4]);
}

bool IsAccepted(const Bytes& message) { return ReadStunResponse(ByteView(message), kPassword).has_value(); }

TEST(WriteStunCheck, WritesWhatTheStandardShows) {
  const StunCheck check{"evtj:h6vY", 0x6e0001ff, false, 0x932ff9b151263b36};
  Bytes written(500, 0xEE);
  WriteStunCheck(check, kTransaction, kPassword, written);
  EXPECT_EQ(written, kRequest);
}

TEST(WriteStunCheck, TellsOfControl) {
  const StunCheck check{"evtj:h6vY", 0x6e0001ff, true, 0x932ff9b151263b36};
  Bytes written;
  WriteStunCheck(check, kTransaction, kPassword, written);
  ASSERT_EQ(written.size(), kRequest.size());
  EXPECT_EQ(written[29], 0x2a);
  EXPECT_EQ(ReadU32(&written[written.size() - 4]), 0xd689d8eeu);
}

TEST(ReadStunResponse, ReadsTheStandardsSample) {
  const auto response = ReadStunResponse(ByteView(kResponse), kPassword);
  ASSERT_TRUE(response);
  EXPECT_EQ(response->errorCode, 0u);
  EXPECT_EQ(StunResponseTransaction(ByteView(kResponse)), kTransaction);
}

TEST(ReadStunResponse, RefusesAnotherPassword) {
  EXPECT_FALSE(ReadStunResponse(ByteView(kResponse), "VOkJxbRl1RmTxUk/WvJxBT"));
  EXPECT_FALSE(ReadStunResponse(ByteView(kResponse), ""));
}

TEST(ReadStunResponse, RefusesAnyChange) {
  for (std::size_t i = 0; i < kResponse.size(); ++i) {
    Bytes changed = kResponse;
    changed[i] ^= 1;
    EXPECT_FALSE(IsAccepted(changed)) << i;
  }
}

TEST(ReadStunResponse, RefusesAnyChangeInWhatTheIntegrityCoversWithARightChecksum) {
  for (std::size_t i = 0; i < kFingerprintAt; ++i) {
    Bytes changed = kResponse;
    changed[i] ^= 1;
    Seal(changed);
    EXPECT_FALSE(IsAccepted(changed)) << i;
  }
}

TEST(ReadStunResponse, RefusesAWrongOrMissingChecksum) {
  Bytes wrong = kResponse;
  wrong.back() ^= 0x80;
  EXPECT_FALSE(IsAccepted(wrong));
  Bytes missing(kResponse.begin(), kResponse.begin() + kFingerprintAt);
  missing[3] = static_cast<std::uint8_t>(missing.size() - 20);
  EXPECT_FALSE(IsAccepted(missing));
}

TEST(ReadStunResponse, RefusesAMessageWithoutIntegrity) {
  Bytes message(kResponse.begin(), kResponse.begin() + kIntegrityAt);
  message.insert(message.end(), kResponse.begin() + kFingerprintAt, kResponse.end());
  message[3] = static_cast<std::uint8_t>(message.size() - 20);
  Seal(message);
  EXPECT_FALSE(IsAccepted(message));
}

TEST(ReadStunResponse, RefusesWhatIsCutOffOrTooLong) {
  for (std::size_t size = 0; size < kResponse.size(); ++size) {
    EXPECT_FALSE(IsAccepted(Bytes(kResponse.begin(), kResponse.begin() + static_cast<std::ptrdiff_t>(size)))) << size;
  }
  Bytes longer = kResponse;
  longer.resize(longer.size() + 4);
  EXPECT_FALSE(IsAccepted(longer));
}

TEST(ReadStunResponse, RefusesAttributesThatReachBeyondTheEnd) {
  Bytes message = kResponse;
  message[22] = 0xFF;
  Seal(message);
  EXPECT_FALSE(IsAccepted(message));
}

TEST(ReadStunResponse, TakesNoRequestForAResponse) {
  EXPECT_FALSE(StunResponseTransaction(ByteView(kRequest)));
  EXPECT_FALSE(IsAccepted(kRequest));
}

TEST(WriteStunRequest, AsksWithNothingButATransaction) {
  Bytes written(500, 0xEE);
  WriteStunRequest(kTransaction, written);
  Bytes expected = {0x00, 0x01, 0x00, 0x00, 0x21, 0x12, 0xa4, 0x42};
  expected.insert(expected.end(), kTransaction.begin(), kTransaction.end());
  EXPECT_EQ(written, expected);
}

// A success with one attribute.
Bytes Success(std::uint8_t type, const Bytes& value) {
  const auto size = static_cast<std::uint8_t>(value.size());
  Bytes message = {0x01, 0x01, 0x00, static_cast<std::uint8_t>(size + 4), 0x21, 0x12, 0xa4, 0x42};
  message.insert(message.end(), kTransaction.begin(), kTransaction.end());
  message.insert(message.end(), {0x00, type, 0x00, size});
  message.insert(message.end(), value.begin(), value.end());
  return message;
}

std::optional<MappedAddress> Mapped(const Bytes& message) { return ReadMappedAddress(ByteView(message)); }

TEST(ReadMappedAddress, ReadsTheStandardsSample) { EXPECT_EQ(Mapped(kResponse), (MappedAddress{"192.0.2.1", 32853})); }

TEST(ReadMappedAddress, ReadsTheStandardsSampleOfIpv6) {
  // Of RFC 5769, 2.3.
  const Bytes value = {0x00, 0x02, 0xa1, 0x47, 0x01, 0x13, 0xa9, 0xfa, 0xa5, 0xd3,
                       0xf1, 0x79, 0xbc, 0x25, 0xf4, 0xb5, 0xbe, 0xd2, 0xb9, 0xd9};
  EXPECT_EQ(Mapped(Success(0x20, value)), (MappedAddress{"2001:db8:1234:5678:11:2233:4455:6677", 32853}));
}

TEST(ReadMappedAddress, ReadsWhatOlderServersSay) {
  const Bytes value = {0, 1, 0x12, 0x34, 192, 0, 2, 7};
  EXPECT_EQ(Mapped(Success(0x01, value)), (MappedAddress{"192.0.2.7", 0x1234}));
}

TEST(ReadMappedAddress, TakesAnErrorForNoAddress) {
  Bytes error = Success(0x01, {0, 1, 0x12, 0x34, 192, 0, 2, 7});
  error[1] = 0x11;
  EXPECT_FALSE(Mapped(error));
}

TEST(ReadMappedAddress, RefusesAddressesOfWrongSizesAndFamilies) {
  EXPECT_FALSE(Mapped(Success(0x20, {})));
  EXPECT_FALSE(Mapped(Success(0x20, {0, 1, 0x12, 0x34})));
  EXPECT_FALSE(Mapped(Success(0x20, {0, 2, 0x12, 0x34, 192, 0, 2, 7})));
  EXPECT_FALSE(Mapped(Success(0x20, {0, 3, 0x12, 0x34, 192, 0, 2, 7})));
  EXPECT_FALSE(Mapped(Success(0x01, Bytes(20, 1))));
}

TEST(ReadMappedAddress, RefusesWhatIsCutOffOrTooLong) {
  for (std::size_t size = 0; size < kResponse.size(); ++size) {
    EXPECT_FALSE(Mapped(Bytes(kResponse.begin(), kResponse.begin() + static_cast<std::ptrdiff_t>(size)))) << size;
  }
  Bytes longer = kResponse;
  longer.resize(longer.size() + 4);
  EXPECT_FALSE(Mapped(longer));
}

}  // namespace
}  // namespace kovra
