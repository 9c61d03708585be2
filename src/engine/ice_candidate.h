// ICE candidates as text (RFC 8839, 5.1; RFC 6544 for TCP) and as an RTCIceCandidateInit (W3C WebRTC 1.0).
#ifndef SIGNALCONN_ENGINE_ICE_CANDIDATE_H
#define SIGNALCONN_ENGINE_ICE_CANDIDATE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kovra {

enum class IceTransport { kUdp, kTcp };
enum class IceCandidateType { kHost, kServerReflexive, kPeerReflexive, kRelayed };

struct IceCandidate {
  std::string foundation;
  std::uint16_t component = 1;
  IceTransport transport = IceTransport::kUdp;
  std::uint32_t priority = 0;
  std::string address;  // IPv4 or IPv6 literal, or a name
  std::uint16_t port = 0;
  IceCandidateType type = IceCandidateType::kHost;
  std::string relatedAddress;  // empty: none
  std::uint16_t relatedPort = 0;
  std::string tcpType;           // "active", "passive" or "so"; empty for UDP
  std::string usernameFragment;  // of the ICE generation it belongs to; empty: not said

  // Whether the address is an IP literal, which needs no name service.
  bool hasIpAddress() const;
  // Whether the address is a multicast DNS name, which hides the viewer's address on its own network.
  bool hasLocalName() const;
};

// A candidate as the viewer signals it. Its place in the session description is checked, but not kept: there is one
// transport.
struct IceCandidateInit {
  std::optional<IceCandidate> candidate;  // nullopt: end of candidates
};

constexpr std::size_t kMaxCandidateBytes = 4096;

// Reads "candidate:…", with or without "a=" before it and a line end behind. nullopt: not a candidate.
std::optional<IceCandidate> ReadIceCandidate(std::string_view line);

// Reads the JSON text of an RTCIceCandidateInit or a bare line; an empty candidate or an empty text is the end of
// candidates, and so is "end-of-candidates". nullopt: neither.
std::optional<IceCandidateInit> ReadIceCandidateInit(std::string_view text);

// "candidate:…" without "a=" and line end.
std::string WriteIceCandidate(const IceCandidate& candidate);

// The JSON text for the viewer, without blanks.
std::string WriteIceCandidateInit(const IceCandidate& candidate, const std::string& mid, std::uint16_t sectionIndex);

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_ICE_CANDIDATE_H
