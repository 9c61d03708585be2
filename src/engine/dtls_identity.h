// Who the engine is in DTLS: a self-signed certificate and the settings of all its connections.
#ifndef SIGNALCONN_ENGINE_DTLS_IDENTITY_H
#define SIGNALCONN_ENGINE_DTLS_IDENTITY_H

#include <openssl/ssl.h>

#include <memory>

#include "sdp_offer.h"

namespace kovra {

// One for the process, made when first asked for. The key never leaves the memory, so that every run of the
// program is another identity and nothing can be traced. Any thread.
class DtlsIdentity {
 public:
  // Null when the machine's OpenSSL cannot do it; the reason is logged once.
  static const DtlsIdentity* Get();

  SSL_CTX* context() const { return context_.get(); }
  const SdpFingerprint& fingerprint() const { return fingerprint_; }

 private:
  struct FreeContext {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  };
  using Context = std::unique_ptr<SSL_CTX, FreeContext>;

  DtlsIdentity(Context context, SdpFingerprint fingerprint);
  static std::unique_ptr<const DtlsIdentity> Make();

  Context context_;
  SdpFingerprint fingerprint_;
};

// The certificate's digest by the algorithm's name in SDP ("sha-256"); empty when the name is not known.
std::vector<std::uint8_t> CertificateDigest(const X509* certificate, const std::string& algorithm);

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_DTLS_IDENTITY_H
