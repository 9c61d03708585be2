#include "stun_message.h"

#include <arpa/inet.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>

namespace kovra {

namespace {

constexpr std::uint32_t kMagicCookie = 0x2112A442;
constexpr std::size_t kHeaderBytes = 20;
constexpr std::size_t kAttributeHeaderBytes = 4;
constexpr std::size_t kDigestBytes = 20;
constexpr std::size_t kIntegrityBytes = kAttributeHeaderBytes + kDigestBytes;
constexpr std::size_t kFingerprintBytes = kAttributeHeaderBytes + 4;
constexpr std::uint32_t kFingerprintMask = 0x5354554E;

constexpr std::uint16_t kBindingRequest = 0x0001;
constexpr std::uint16_t kBindingSuccess = 0x0101;
constexpr std::uint16_t kBindingError = 0x0111;

constexpr std::uint16_t kMappedAddress = 0x0001;
constexpr std::uint16_t kUsername = 0x0006;
constexpr std::uint16_t kMessageIntegrity = 0x0008;
constexpr std::uint16_t kErrorCode = 0x0009;
constexpr std::uint16_t kXorMappedAddress = 0x0020;
constexpr std::uint16_t kPriority = 0x0024;
constexpr std::uint16_t kFingerprint = 0x8028;
constexpr std::uint16_t kIceControlled = 0x8029;
constexpr std::uint16_t kIceControlling = 0x802A;

using Digest = std::array<std::uint8_t, kDigestBytes>;

// ISO 3309, as in Ethernet. Messages are few and short: no table.
std::uint32_t Crc32(ByteView bytes) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (std::size_t i = 0; i < bytes.size; ++i) {
    crc ^= bytes[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320 & (0 - (crc & 1)));
  }
  return ~crc;
}

// Of the first size bytes, with the length that the header has when MESSAGE-INTEGRITY follows them and nothing else.
Digest IntegrityOf(const std::uint8_t* message, std::size_t size, const std::string& password) {
  std::vector<std::uint8_t> covered(message, message + size);
  WriteU16(static_cast<std::uint16_t>(size - kHeaderBytes + kIntegrityBytes), &covered[2]);
  Digest digest{};
  unsigned int written = 0;
  HMAC(EVP_sha1(), password.data(), static_cast<int>(password.size()), covered.data(), covered.size(), digest.data(),
       &written);
  return digest;
}

// Appends an attribute, whose value is padded to a multiple of four bytes, and sets the header's length.
std::uint8_t* Append(std::vector<std::uint8_t>& message, std::uint16_t type, std::size_t size) {
  const std::size_t begin = message.size();
  message.resize(begin + kAttributeHeaderBytes + (size + 3) / 4 * 4);
  WriteU16(type, &message[begin]);
  WriteU16(static_cast<std::uint16_t>(size), &message[begin + 2]);
  WriteU16(static_cast<std::uint16_t>(message.size() - kHeaderBytes), &message[2]);
  return &message[begin + kAttributeHeaderBytes];
}

bool HasFingerprint(ByteView message) {
  if (message.size < kHeaderBytes + kFingerprintBytes) return false;
  const std::size_t begin = message.size - kFingerprintBytes;
  return ReadU16(message.data + begin) == kFingerprint && ReadU16(message.data + begin + 2) == 4 &&
         ReadU32(message.data + begin + kAttributeHeaderBytes) == (Crc32({message.data, begin}) ^ kFingerprintMask);
}

std::vector<std::uint8_t> RequestHeader(const StunTransactionId& transaction) {
  std::vector<std::uint8_t> header(kHeaderBytes, 0);
  WriteU16(kBindingRequest, header.data());
  WriteU32(kMagicCookie, &header[4]);
  std::copy(transaction.begin(), transaction.end(), &header[8]);
  return header;
}

// value: family, port and address (RFC 8489, 14.1). mask: what they are combined with, cookie and transaction, or null.
std::optional<MappedAddress> ReadAddress(ByteView value, const std::uint8_t* mask) {
  constexpr std::size_t kAddressOffset = 4;
  if (value.size < kAddressOffset) return std::nullopt;
  const bool is4 = value[1] == 1 && value.size == kAddressOffset + sizeof(in_addr);
  const bool is6 = value[1] == 2 && value.size == kAddressOffset + sizeof(in6_addr);
  if (!is4 && !is6) return std::nullopt;
  std::array<std::uint8_t, sizeof(in6_addr)> address{};
  for (std::size_t i = kAddressOffset; i < value.size; ++i) {
    address[i - kAddressOffset] = static_cast<std::uint8_t>(value[i] ^ (mask ? mask[i - kAddressOffset] : 0));
  }
  MappedAddress mapped;
  mapped.port = static_cast<std::uint16_t>(ReadU16(value.data + 2) ^ (mask ? ReadU16(mask) : 0));
  char text[INET6_ADDRSTRLEN];
  mapped.ip = inet_ntop(is4 ? AF_INET : AF_INET6, address.data(), text, sizeof(text));
  return mapped;
}

}  // namespace

void WriteStunRequest(const StunTransactionId& transaction, std::vector<std::uint8_t>& out) {
  out = RequestHeader(transaction);
}

void WriteStunCheck(const StunCheck& check, const StunTransactionId& transaction, const std::string& password,
                    std::vector<std::uint8_t>& out) {
  out = RequestHeader(transaction);
  WriteU32(check.priority, Append(out, kPriority, 4));
  std::uint8_t* tieBreaker = Append(out, check.controlling ? kIceControlling : kIceControlled, 8);
  WriteU32(static_cast<std::uint32_t>(check.tieBreaker >> 32), tieBreaker);
  WriteU32(static_cast<std::uint32_t>(check.tieBreaker), tieBreaker + 4);
  std::copy(check.username.begin(), check.username.end(), Append(out, kUsername, check.username.size()));

  const Digest digest = IntegrityOf(out.data(), out.size(), password);
  std::copy(digest.begin(), digest.end(), Append(out, kMessageIntegrity, kDigestBytes));
  // The checksum covers the header with the length that counts the checksum itself.
  const std::size_t covered = out.size();
  std::uint8_t* fingerprint = Append(out, kFingerprint, 4);
  WriteU32(Crc32({out.data(), covered}) ^ kFingerprintMask, fingerprint);
}

std::optional<StunTransactionId> StunResponseTransaction(ByteView datagram) {
  if (datagram.size < kHeaderBytes || ReadU32(datagram.data + 4) != kMagicCookie) return std::nullopt;
  const std::uint16_t type = ReadU16(datagram.data);
  if (type != kBindingSuccess && type != kBindingError) return std::nullopt;
  StunTransactionId transaction;
  std::copy_n(datagram.data + 8, transaction.size(), transaction.begin());
  return transaction;
}

std::optional<StunResponse> ReadStunResponse(ByteView datagram, const std::string& password) {
  if (!StunResponseTransaction(datagram)) return std::nullopt;
  if (ReadU16(datagram.data + 2) != datagram.size - kHeaderBytes || datagram.size % 4 != 0) return std::nullopt;
  if (!HasFingerprint(datagram)) return std::nullopt;

  StunResponse response;
  const bool isError = ReadU16(datagram.data) == kBindingError;
  for (std::size_t begin = kHeaderBytes; begin + kAttributeHeaderBytes <= datagram.size;) {
    const std::uint16_t type = ReadU16(datagram.data + begin);
    const std::size_t size = ReadU16(datagram.data + begin + 2);
    const ByteView value = datagram.from(begin + kAttributeHeaderBytes, size);
    if (value.size != size) return std::nullopt;
    if (type == kMessageIntegrity) {
      // Nothing behind it is covered, and thus of any meaning.
      if (size != kDigestBytes || isError != (response.errorCode != 0)) return std::nullopt;
      const Digest expected = IntegrityOf(datagram.data, begin, password);
      if (CRYPTO_memcmp(expected.data(), value.data, kDigestBytes) != 0) return std::nullopt;
      return response;
    }
    if (type == kErrorCode && isError && size >= 4) response.errorCode = (value[2] & 7u) * 100 + value[3];
    begin += kAttributeHeaderBytes + (size + 3) / 4 * 4;
  }
  return std::nullopt;
}

std::optional<MappedAddress> ReadMappedAddress(ByteView datagram) {
  if (!StunResponseTransaction(datagram) || ReadU16(datagram.data) != kBindingSuccess) return std::nullopt;
  if (ReadU16(datagram.data + 2) != datagram.size - kHeaderBytes || datagram.size % 4 != 0) return std::nullopt;
  std::optional<MappedAddress> plain;
  for (std::size_t begin = kHeaderBytes; begin + kAttributeHeaderBytes <= datagram.size;) {
    const std::uint16_t type = ReadU16(datagram.data + begin);
    const std::size_t size = ReadU16(datagram.data + begin + 2);
    const ByteView value = datagram.from(begin + kAttributeHeaderBytes, size);
    if (value.size != size) return std::nullopt;
    if (type == kXorMappedAddress) return ReadAddress(value, datagram.data + 4);
    if (type == kMappedAddress) plain = ReadAddress(value, nullptr);
    begin += kAttributeHeaderBytes + (size + 3) / 4 * 4;
  }
  return plain;
}

}  // namespace kovra
