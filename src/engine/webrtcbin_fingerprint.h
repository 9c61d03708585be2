// Whether a certificate is the one that an SDP announced (RFC 8122).
#ifndef SIGNALCONN_ENGINE_WEBRTCBIN_FINGERPRINT_H
#define SIGNALCONN_ENGINE_WEBRTCBIN_FINGERPRINT_H

#include <string>

namespace engine {

// fingerprint is the value of a=fingerprint, "sha-256 0A:1B:…"; pem holds one certificate.
bool matchesFingerprint(const std::string& pem, const std::string& fingerprint);

}  // namespace engine

#endif  // SIGNALCONN_ENGINE_WEBRTCBIN_FINGERPRINT_H
