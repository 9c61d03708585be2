#include "webrtcbin_fingerprint.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace engine {
namespace {

using Bio = std::unique_ptr<BIO, decltype(&BIO_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

std::string toHex(const unsigned char* bytes, unsigned int size) {
  std::string text;
  for (unsigned int i = 0; i < size; ++i) {
    char pair[4];
    std::snprintf(pair, sizeof(pair), i == 0 ? "%02X" : ":%02X", bytes[i]);
    text += pair;
  }
  return text;
}

}  // namespace

bool matchesFingerprint(const std::string& pem, const std::string& fingerprint) {
  const std::size_t blank = fingerprint.find(' ');
  if (blank == std::string::npos) return false;
  std::string function = fingerprint.substr(0, blank);  // "sha-256", which OpenSSL calls "sha256"
  function.erase(std::remove(function.begin(), function.end(), '-'), function.end());
  const EVP_MD* digest = EVP_get_digestbyname(function.c_str());
  const Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
  const Certificate certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr), X509_free);
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (digest == nullptr || !certificate || X509_digest(certificate.get(), digest, hash, &size) != 1) return false;
  return strcasecmp(toHex(hash, size).c_str(), fingerprint.c_str() + blank + 1) == 0;
}

}  // namespace engine
