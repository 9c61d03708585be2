#include "certificates.h"

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <stdexcept>

namespace support {

namespace {

void Require(bool done, const char* step) {
  if (!done) throw std::runtime_error(std::string("certificates: ") + step);
}

void AddExtension(X509* certificate, int nid, const std::string& value) {
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, nid, value.c_str());
  Require(extension != nullptr, value.c_str());
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

CertificatePointer NewCertificate(const std::string& commonName, EVP_PKEY* key, Validity validity) {
  CertificatePointer certificate(X509_new());
  X509* x509 = certificate.get();
  std::uint64_t serial = 0;
  Require(RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) == 1, "serial number");
  X509_set_version(x509, X509_VERSION_3);
  ASN1_INTEGER_set_uint64(X509_get_serialNumber(x509), serial);
  X509_time_adj_ex(X509_getm_notBefore(x509), validity.fromDay, 0, nullptr);
  X509_time_adj_ex(X509_getm_notAfter(x509), validity.untilDay, 0, nullptr);
  X509_set_pubkey(x509, key);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(x509), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
  return certificate;
}

}  // namespace

TestAuthority::TestAuthority(const std::string& name) : key_(EVP_EC_gen("P-256")) {
  certificate_ = NewCertificate(name, key_.get(), {-3650, 3650});
  X509* x509 = certificate_.get();
  X509_set_issuer_name(x509, X509_get_subject_name(x509));
  AddExtension(x509, NID_basic_constraints, "critical,CA:TRUE");
  AddExtension(x509, NID_key_usage, "critical,keyCertSign");
  Require(X509_sign(x509, key_.get(), EVP_sha256()) > 0, "sign");
}

std::string TestAuthority::Pem() const {
  const std::unique_ptr<BIO, int (*)(BIO*)> memory(BIO_new(BIO_s_mem()), BIO_free);
  PEM_write_bio_X509(memory.get(), certificate_.get());
  char* text = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &text);
  return std::string(text, static_cast<std::size_t>(size));
}

TlsContext TestAuthority::Issue(const std::string& host, Validity validity) const {
  const KeyPointer key(EVP_EC_gen("P-256"));
  const CertificatePointer certificate = NewCertificate(host, key.get(), validity);
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(certificate_.get()));
  AddExtension(certificate.get(), NID_subject_alt_name, "DNS:" + host);
  Require(X509_sign(certificate.get(), key_.get(), EVP_sha256()) > 0, "sign");

  TlsContext context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  Require(SSL_CTX_use_certificate(context.get(), certificate.get()) == 1, "use certificate");
  Require(SSL_CTX_use_PrivateKey(context.get(), key.get()) == 1, "use key");
  return context;
}

}  // namespace support
