#include "ice_server_url.h"

#include "text.h"

namespace kovra {

namespace {

constexpr std::uint16_t kDefaultPort = 3478;
constexpr std::uint16_t kDefaultSecurePort = 5349;
constexpr std::size_t kMaxHost = 255;

bool ReadScheme(std::string_view word, IceServerScheme& scheme) {
  struct Name {
    std::string_view name;
    IceServerScheme scheme;
  };
  constexpr Name kNames[] = {{"stun", IceServerScheme::kStun},
                             {"stuns", IceServerScheme::kStuns},
                             {"turn", IceServerScheme::kTurn},
                             {"turns", IceServerScheme::kTurns}};
  for (const Name& known : kNames) {
    if (EqualsIgnoringCase(word, known.name)) {
      scheme = known.scheme;
      return true;
    }
  }
  return false;
}

// Takes the host off rest; what is left begins with the colon of the port or is empty.
bool TakeHost(std::string_view& rest, std::string& host) {
  if (StartsWith(rest, "[")) {
    const std::size_t end = rest.find(']');
    if (end == std::string_view::npos) return false;
    host = rest.substr(1, end - 1);
    rest.remove_prefix(end + 1);
    return IsIpv6Address(host);
  }
  host = rest.substr(0, rest.find(':'));
  rest.remove_prefix(host.size());
  return !host.empty() && host.size() <= kMaxHost && IsMadeOf(host, ".-_");
}

bool ReadPort(std::string_view rest, std::uint16_t& port) {
  if (rest.empty()) return true;
  if (rest[0] != ':') return false;
  const std::optional<std::uint64_t> number = ReadNumber(rest.substr(1), UINT16_MAX);
  if (!number || *number == 0) return false;
  port = static_cast<std::uint16_t>(*number);
  return true;
}

// Only relays have a query, and it names the transport.
bool ReadQuery(std::string_view query, IceServerUrl& url) {
  constexpr std::string_view kKey = "transport=";
  if (!url.isRelay() || !EqualsIgnoringCase(query.substr(0, kKey.size()), kKey)) return false;
  const std::string_view value = query.substr(kKey.size());
  url.transport = EqualsIgnoringCase(value, "tcp") ? IceTransport::kTcp : IceTransport::kUdp;
  return EqualsIgnoringCase(value, "tcp") || EqualsIgnoringCase(value, "udp");
}

}  // namespace

std::optional<IceServerUrl> ReadIceServerUrl(std::string_view text) {
  std::string_view rest = Trim(text);
  IceServerUrl url;
  if (!ReadScheme(TakeUntil(rest, ':'), url.scheme)) return std::nullopt;
  if (StartsWith(rest, "//")) rest.remove_prefix(2);
  url.port = url.isSecure() ? kDefaultSecurePort : kDefaultPort;
  url.transport = url.isSecure() ? IceTransport::kTcp : IceTransport::kUdp;

  const std::size_t question = rest.find('?');
  if (question != std::string_view::npos && !ReadQuery(rest.substr(question + 1), url)) return std::nullopt;
  rest = rest.substr(0, question);
  if (!TakeHost(rest, url.host) || !ReadPort(rest, url.port)) return std::nullopt;
  return url;
}

}  // namespace kovra
