#include "connection_state.h"

#include <algorithm>

namespace kovra {

std::optional<KOVRA_STATE> ConnectionState::start() {
  if (state_ != KOVRA_STATE_NONE) return std::nullopt;
  return change(KOVRA_STATE_NEW);
}

std::optional<KOVRA_STATE> ConnectionState::onOffer(Micros now) {
  if (state_ != KOVRA_STATE_NEW) return std::nullopt;
  offeredAt_ = now;
  return change(KOVRA_STATE_CONNECTING);
}

std::optional<KOVRA_STATE> ConnectionState::onIce(IceTransportState state, Micros now) {
  ice_ = state;
  // While connecting, the pair that works may still be missing: a candidate on its way, or one that the viewer's
  // own checks will show. The set-up time decides.
  const bool wasConnected = state_ == KOVRA_STATE_CONNECTED || state_ == KOVRA_STATE_DISCONNECTED;
  if (state == IceTransportState::kFailed && wasConnected) return change(KOVRA_STATE_FAILED);
  return connectIfReady(now);
}

std::optional<KOVRA_STATE> ConnectionState::onDtls(DtlsTransportState state, Micros now) {
  dtls_ = state;
  if (state == DtlsTransportState::kFailed) return change(KOVRA_STATE_FAILED);
  if (state == DtlsTransportState::kClosed) return change(KOVRA_STATE_CLOSED);
  return connectIfReady(now);
}

std::optional<KOVRA_STATE> ConnectionState::onAlive(Micros now) {
  aliveAt_ = now;
  if (state_ != KOVRA_STATE_DISCONNECTED) return std::nullopt;
  return change(KOVRA_STATE_CONNECTED);
}

std::optional<KOVRA_STATE> ConnectionState::onConsentRevoked() { return change(KOVRA_STATE_FAILED); }

std::optional<KOVRA_STATE> ConnectionState::onTime(Micros now) {
  if (state_ == KOVRA_STATE_CONNECTING && now - offeredAt_ >= kSetupTime) return change(KOVRA_STATE_FAILED);
  if (state_ != KOVRA_STATE_CONNECTED && state_ != KOVRA_STATE_DISCONNECTED) return std::nullopt;
  if (now - aliveAt_ >= kFailedAfter || now - consentAt_ >= kConsentLifetime) return change(KOVRA_STATE_FAILED);
  if (now - aliveAt_ >= kDisconnectedAfter) return change(KOVRA_STATE_DISCONNECTED);
  return std::nullopt;
}

std::optional<Micros> ConnectionState::deadline() const {
  switch (state_) {
    case KOVRA_STATE_CONNECTING:
      return offeredAt_ + kSetupTime;
    case KOVRA_STATE_CONNECTED:
      return std::min(aliveAt_ + kDisconnectedAfter, consentAt_ + kConsentLifetime);
    case KOVRA_STATE_DISCONNECTED:
      return std::min(aliveAt_ + kFailedAfter, consentAt_ + kConsentLifetime);
    default:
      return std::nullopt;
  }
}

std::optional<KOVRA_STATE> ConnectionState::change(KOVRA_STATE state) {
  if (isFinal() || state == state_) return std::nullopt;
  state_ = state;
  return state;
}

std::optional<KOVRA_STATE> ConnectionState::connectIfReady(Micros now) {
  if (state_ != KOVRA_STATE_CONNECTING || ice_ != IceTransportState::kConnected ||
      dtls_ != DtlsTransportState::kConnected) {
    return std::nullopt;
  }
  aliveAt_ = now;
  consentAt_ = now;
  return change(KOVRA_STATE_CONNECTED);
}

}  // namespace kovra
