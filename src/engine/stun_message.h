// STUN messages (RFC 8489) as far as the engine writes and reads them itself: ICE's connectivity checks (RFC
// 8445, 7.1), questions to STUN servers, and the answers to both.
#ifndef SIGNALCONN_ENGINE_STUN_MESSAGE_H
#define SIGNALCONN_ENGINE_STUN_MESSAGE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bytes.h"

namespace kovra {

using StunTransactionId = std::array<std::uint8_t, 12>;

struct StunCheck {
  std::string username;  // "<remote ufrag>:<local ufrag>"
  std::uint32_t priority = 0;
  bool controlling = false;
  std::uint64_t tieBreaker = 0;
};

// Replaces out by the Binding request, with MESSAGE-INTEGRITY by the password and FINGERPRINT.
void WriteStunCheck(const StunCheck& check, const StunTransactionId& transaction, const std::string& password,
                    std::vector<std::uint8_t>& out);

// Whose answer a datagram would be; nullopt when it is no Binding response at all. Cheap: nothing else is looked at.
std::optional<StunTransactionId> StunResponseTransaction(ByteView datagram);

struct StunResponse {
  unsigned errorCode = 0;  // 0: success
};

// nullopt unless the datagram is a well-formed Binding response with the right MESSAGE-INTEGRITY and FINGERPRINT.
std::optional<StunResponse> ReadStunResponse(ByteView datagram, const std::string& password);

// Replaces out by the Binding request that asks a STUN server how it sees us.
void WriteStunRequest(const StunTransactionId& transaction, std::vector<std::uint8_t>& out);

struct MappedAddress {
  std::string ip;
  std::uint16_t port = 0;

  bool operator==(const MappedAddress& other) const { return ip == other.ip && port == other.port; }
};

// What a STUN server said; from older ones (RFC 3489) too. nullopt: nothing of the kind.
std::optional<MappedAddress> ReadMappedAddress(ByteView datagram);

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_STUN_MESSAGE_H
