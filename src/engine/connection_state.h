// The connection state of a session (W3C WebRTC 1.0, 4.4.2) from its ICE and DTLS transports and from time.
#ifndef SIGNALCONN_ENGINE_CONNECTION_STATE_H
#define SIGNALCONN_ENGINE_CONNECTION_STATE_H

#include <kovra.h>

#include <optional>

#include "media_time.h"

namespace kovra {

enum class IceTransportState { kNew, kChecking, kConnected, kFailed };
enum class DtlsTransportState { kNew, kConnecting, kConnected, kClosed, kFailed };  // kClosed: by close_notify

// Each input returns the state to report when it changed. FAILED and CLOSED are final: nothing is returned after
// them. One thread at a time.
//
//   NEW           start()
//   CONNECTING    the offer was accepted
//   CONNECTED     ICE and DTLS both connected
//   DISCONNECTED  connected, but nothing heard from the viewer for kDisconnectedAfter; a sign of life makes it
//                 CONNECTED again
//   FAILED        nothing heard for kFailedAfter, the viewer's consent not renewed for kConsentLifetime or revoked,
//                 not connected within kSetupTime after the offer, DTLS failed, or ICE failed after it had been
//                 connected
//   CLOSED        the viewer closed DTLS
class ConnectionState {
 public:
  static constexpr Micros kSetupTime{30'000'000};
  // Consent is asked for every six seconds at most: one answer may be lost.
  static constexpr Micros kDisconnectedAfter{12'000'000};
  static constexpr Micros kFailedAfter{14'500'000};
  static constexpr Micros kConsentLifetime{30'000'000};  // RFC 7675, 5.1

  std::optional<KOVRA_STATE> start();
  std::optional<KOVRA_STATE> onOffer(Micros now);
  std::optional<KOVRA_STATE> onIce(IceTransportState state, Micros now);
  std::optional<KOVRA_STATE> onDtls(DtlsTransportState state, Micros now);
  // A sign of life: an SRTP packet that authenticated.
  std::optional<KOVRA_STATE> onAlive(Micros now);
  // The viewer has renewed its consent to be sent to, by an answer of its own or by libnice's word.
  void onConsent(Micros now) { consentAt_ = now; }
  std::optional<KOVRA_STATE> onConsentRevoked();
  // Time went on. Call it at deadline() or later; any number of times.
  std::optional<KOVRA_STATE> onTime(Micros now);

  // When the state may change by time alone; nullopt: never.
  std::optional<Micros> deadline() const;
  KOVRA_STATE state() const { return state_; }
  bool isFinal() const { return state_ == KOVRA_STATE_FAILED || state_ == KOVRA_STATE_CLOSED; }

 private:
  std::optional<KOVRA_STATE> change(KOVRA_STATE state);
  std::optional<KOVRA_STATE> connectIfReady(Micros now);

  KOVRA_STATE state_ = KOVRA_STATE_NONE;
  IceTransportState ice_ = IceTransportState::kNew;
  DtlsTransportState dtls_ = DtlsTransportState::kNew;
  Micros offeredAt_{0};
  Micros aliveAt_{0};
  Micros consentAt_{0};
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_CONNECTION_STATE_H
