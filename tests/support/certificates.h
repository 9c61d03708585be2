// Certificates made at run time, good ones and bad ones.
#ifndef SIGNALCONN_TESTS_CERTIFICATES_H
#define SIGNALCONN_TESTS_CERTIFICATES_H

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace support {

template <typename T, void (*Free)(T*)>
struct OpenSslDeleter {
  void operator()(T* object) const { Free(object); }
};
using KeyPointer = std::unique_ptr<EVP_PKEY, OpenSslDeleter<EVP_PKEY, EVP_PKEY_free>>;
using CertificatePointer = std::unique_ptr<X509, OpenSslDeleter<X509, X509_free>>;
using TlsContext = std::shared_ptr<SSL_CTX>;

// From when until when, in days from now.
struct Validity {
  int fromDay = -1;
  int untilDay = 30;
};

// A certificate authority of the test's own.
class TestAuthority {
 public:
  explicit TestAuthority(const std::string& name = "Test authority");
  // Its certificate, for a client's list of trusted ones.
  std::string Pem() const;
  // What a server needs to present a certificate for the DNS name host, signed by this authority.
  TlsContext Issue(const std::string& host, Validity validity = {}) const;

 private:
  KeyPointer key_;
  CertificatePointer certificate_;
};

}  // namespace support

#endif  // SIGNALCONN_TESTS_CERTIFICATES_H
