#include "dtls_identity.h"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/x509.h>

#include <utility>

#include "log.h"

namespace kovra {

namespace {

// Camera clocks may start in 1970 and jump: nobody checks the dates of these certificates (RFC 8122), so they are
// wide and do not look at the clock.
constexpr char kNotBefore[] = "19700101000000Z";
constexpr char kNotAfter[] = "20491231235959Z";

// AEAD_AES_128_GCM first: it is the cheapest by far.
constexpr char kSrtpProfiles[] = "SRTP_AEAD_AES_128_GCM:SRTP_AES128_CM_SHA1_80";

struct FreeOpenSsl {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
};
using Key = std::unique_ptr<EVP_PKEY, FreeOpenSsl>;
using Certificate = std::unique_ptr<X509, FreeOpenSsl>;

bool SetSerialAndName(X509* certificate) {
  std::uint64_t serial = 0;
  if (RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof(serial)) != 1) return false;
  if (ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), serial >> 1) != 1) return false;
  X509_NAME* name = X509_get_subject_name(certificate);
  const auto* text = reinterpret_cast<const unsigned char*>("camera");
  return X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, text, -1, -1, 0) == 1 &&
         X509_set_issuer_name(certificate, name) == 1;
}

Certificate SelfSigned(EVP_PKEY* key) {
  Certificate certificate(X509_new());
  if (!certificate || X509_set_version(certificate.get(), X509_VERSION_3) != 1) return nullptr;
  if (!SetSerialAndName(certificate.get())) return nullptr;
  if (ASN1_TIME_set_string(X509_getm_notBefore(certificate.get()), kNotBefore) != 1 ||
      ASN1_TIME_set_string(X509_getm_notAfter(certificate.get()), kNotAfter) != 1) {
    return nullptr;
  }
  if (X509_set_pubkey(certificate.get(), key) != 1 || X509_sign(certificate.get(), key, EVP_sha256()) == 0) {
    return nullptr;
  }
  return certificate;
}

// The viewer's certificate is self-signed too: what counts is its fingerprint, which the connection compares.
int AcceptAnyCertificate(int, X509_STORE_CTX*) { return 1; }

bool Configure(SSL_CTX* context, X509* certificate, EVP_PKEY* key) {
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, AcceptAnyCertificate);
  SSL_CTX_set_options(context, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_QUERY_MTU);
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS);
  return SSL_CTX_set_min_proto_version(context, DTLS1_2_VERSION) == 1 &&
         SSL_CTX_set_cipher_list(context, "ECDHE+AESGCM:ECDHE+CHACHA20") == 1 &&
         SSL_CTX_set1_groups_list(context, "X25519:P-256") == 1 &&
         // OpenSSL's own convention: 0 is success.
         SSL_CTX_set_tlsext_use_srtp(context, kSrtpProfiles) == 0 &&
         SSL_CTX_use_certificate(context, certificate) == 1 && SSL_CTX_use_PrivateKey(context, key) == 1;
}

const EVP_MD* DigestNamed(const std::string& algorithm) {
  if (algorithm == "sha-256") return EVP_sha256();
  if (algorithm == "sha-384") return EVP_sha384();
  if (algorithm == "sha-512") return EVP_sha512();
  return nullptr;
}

}  // namespace

const DtlsIdentity* DtlsIdentity::Get() {
  // Never freed: sessions may be alive while the process exits.
  static const DtlsIdentity* const identity = [] {
    auto made = Make();
    if (!made) Log(LogLevel::kError, "engine: OpenSSL cannot make a certificate for DTLS");
    return made.release();
  }();
  return identity;
}

DtlsIdentity::DtlsIdentity(Context context, SdpFingerprint fingerprint)
    : context_(std::move(context)), fingerprint_(std::move(fingerprint)) {}

std::unique_ptr<const DtlsIdentity> DtlsIdentity::Make() {
  const Key key(EVP_EC_gen("P-256"));
  if (!key) return nullptr;
  const Certificate certificate = SelfSigned(key.get());
  if (!certificate) return nullptr;
  Context context(SSL_CTX_new(DTLS_method()));
  if (!context || !Configure(context.get(), certificate.get(), key.get())) return nullptr;
  SdpFingerprint fingerprint{"sha-256", CertificateDigest(certificate.get(), "sha-256")};
  return std::unique_ptr<const DtlsIdentity>(new DtlsIdentity(std::move(context), std::move(fingerprint)));
}

std::vector<std::uint8_t> CertificateDigest(const X509* certificate, const std::string& algorithm) {
  const EVP_MD* digest = DigestNamed(algorithm);
  if (digest == nullptr) return {};
  std::vector<std::uint8_t> result(EVP_MAX_MD_SIZE);
  unsigned int size = 0;
  if (X509_digest(certificate, digest, result.data(), &size) != 1) return {};
  result.resize(size);
  return result;
}

}  // namespace kovra
