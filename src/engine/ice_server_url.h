// URLs of STUN and TURN servers (RFC 7064, 7065).
#ifndef SIGNALCONN_ENGINE_ICE_SERVER_URL_H
#define SIGNALCONN_ENGINE_ICE_SERVER_URL_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ice_candidate.h"

namespace kovra {

enum class IceServerScheme { kStun, kStuns, kTurn, kTurns };  // the last letter s: over TLS

struct IceServerUrl {
  IceServerScheme scheme = IceServerScheme::kStun;
  std::string host;  // name or IP literal; IPv6 without brackets
  std::uint16_t port = 0;
  IceTransport transport = IceTransport::kUdp;  // kTcp also where TLS runs on it

  bool isRelay() const { return scheme == IceServerScheme::kTurn || scheme == IceServerScheme::kTurns; }
  bool isSecure() const { return scheme == IceServerScheme::kStuns || scheme == IceServerScheme::kTurns; }
};

// Without a port it is 3478, over TLS 5349. A doubled slash behind the scheme, which people write, is let
// pass. nullopt: no such URL.
std::optional<IceServerUrl> ReadIceServerUrl(std::string_view text);

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_ICE_SERVER_URL_H
