#include "ice_candidate.h"

#include <cjson/cJSON.h>

#include <memory>

#include "text.h"

namespace kovra {

namespace {

constexpr std::string_view kPrefix = "candidate:";
constexpr std::string_view kIceChars = "+/";
constexpr std::size_t kMaxFoundation = 32;
constexpr std::size_t kMaxAddress = 255;
constexpr std::size_t kMaxUsernameFragment = 256;

struct JsonDeleter {
  void operator()(cJSON* tree) const { cJSON_Delete(tree); }
  void operator()(char* text) const { cJSON_free(text); }
};
using JsonTree = std::unique_ptr<cJSON, JsonDeleter>;
using JsonText = std::unique_ptr<char, JsonDeleter>;

template <typename Integer>
bool ReadInto(std::string_view word, std::uint64_t max, Integer& result) {
  const std::optional<std::uint64_t> number = ReadNumber(word, max);
  if (number) result = static_cast<Integer>(*number);
  return number.has_value();
}

bool ReadTransport(std::string_view word, IceTransport& transport) {
  if (EqualsIgnoringCase(word, "tcp")) {
    transport = IceTransport::kTcp;
  } else if (EqualsIgnoringCase(word, "udp")) {
    transport = IceTransport::kUdp;
  } else {
    return false;
  }
  return true;
}

struct TypeName {
  IceCandidateType type;
  std::string_view name;
};
constexpr TypeName kTypeNames[] = {{IceCandidateType::kHost, "host"},
                                   {IceCandidateType::kServerReflexive, "srflx"},
                                   {IceCandidateType::kPeerReflexive, "prflx"},
                                   {IceCandidateType::kRelayed, "relay"}};

bool ReadType(std::string_view word, IceCandidateType& type) {
  for (const TypeName& known : kTypeNames) {
    if (EqualsIgnoringCase(word, known.name)) {
      type = known.type;
      return true;
    }
  }
  return false;
}

std::string_view NameOf(IceCandidateType type) {
  for (const TypeName& known : kTypeNames) {
    if (known.type == type) return known.name;
  }
  return {};
}

// An IP address or a name. Names of the multicast DNS kind are letters, digits and hyphens; underscores occur.
bool ReadAddress(std::string_view word, std::string& address) {
  if (word.empty() || word.size() > kMaxAddress || !IsMadeOf(word, ".:-_")) return false;
  address = word;
  return true;
}

bool ReadMandatory(std::string_view& rest, IceCandidate& candidate) {
  const std::string_view foundation = TakeWord(rest);
  if (foundation.empty() || foundation.size() > kMaxFoundation || !IsMadeOf(foundation, kIceChars)) return false;
  candidate.foundation = foundation;
  return ReadInto(TakeWord(rest), 256, candidate.component) && candidate.component != 0 &&
         ReadTransport(TakeWord(rest), candidate.transport) &&
         ReadInto(TakeWord(rest), UINT32_MAX, candidate.priority) && ReadAddress(TakeWord(rest), candidate.address) &&
         ReadInto(TakeWord(rest), UINT16_MAX, candidate.port) && TakeWord(rest) == "typ" &&
         ReadType(TakeWord(rest), candidate.type);
}

// One pair of name and value; names that are not known are skipped, as RFC 8839 wants.
bool ReadExtension(std::string_view name, std::string_view value, IceCandidate& candidate) {
  if (value.empty()) return false;
  if (name == "raddr") return ReadAddress(value, candidate.relatedAddress);
  if (name == "rport") return ReadInto(value, UINT16_MAX, candidate.relatedPort);
  if (name == "tcptype") {
    candidate.tcpType = ToLower(value);
    return candidate.tcpType == "active" || candidate.tcpType == "passive" || candidate.tcpType == "so";
  }
  if (name == "ufrag") {
    candidate.usernameFragment = value;
    return value.size() <= kMaxUsernameFragment && IsMadeOf(value, kIceChars);
  }
  return true;
}

std::optional<IceCandidateInit> ReadLine(std::string_view line) {
  IceCandidateInit init;
  if (line.empty() || line == "end-of-candidates" || line == "a=end-of-candidates") return init;
  init.candidate = ReadIceCandidate(line);
  if (!init.candidate) return std::nullopt;
  return init;
}

// The members sdpMid, sdpMLineIndex and usernameFragment may be missing or null.
bool ReadOptionalMembers(const cJSON* object, IceCandidateInit& init) {
  const cJSON* mid = cJSON_GetObjectItemCaseSensitive(object, "sdpMid");
  const cJSON* index = cJSON_GetObjectItemCaseSensitive(object, "sdpMLineIndex");
  const cJSON* fragment = cJSON_GetObjectItemCaseSensitive(object, "usernameFragment");
  const bool isIndex = cJSON_IsNumber(index) && index->valueint >= 0 && index->valueint <= UINT16_MAX;
  if (mid != nullptr && !cJSON_IsString(mid) && !cJSON_IsNull(mid)) return false;
  if (index != nullptr && !isIndex && !cJSON_IsNull(index)) return false;
  if (cJSON_IsString(fragment) && init.candidate && init.candidate->usernameFragment.empty()) {
    return ReadExtension("ufrag", fragment->valuestring, *init.candidate);
  }
  return true;
}

std::optional<IceCandidateInit> ReadJson(std::string_view text) {
  const JsonTree tree(cJSON_ParseWithOpts(std::string(text).c_str(), nullptr, true));
  if (!cJSON_IsObject(tree.get())) return std::nullopt;
  const cJSON* candidate = cJSON_GetObjectItemCaseSensitive(tree.get(), "candidate");
  if (!cJSON_IsString(candidate) && !cJSON_IsNull(candidate)) return std::nullopt;
  std::optional<IceCandidateInit> init = ReadLine(cJSON_IsString(candidate) ? Trim(candidate->valuestring) : "");
  if (!init || !ReadOptionalMembers(tree.get(), *init)) return std::nullopt;
  return init;
}

}  // namespace

bool IceCandidate::hasIpAddress() const { return IsIpv4Address(address) || IsIpv6Address(address); }

bool IceCandidate::hasLocalName() const {
  constexpr std::string_view kSuffix = ".local";
  std::string_view name = address;
  if (!name.empty() && name.back() == '.') name.remove_suffix(1);
  return name.size() > kSuffix.size() && EqualsIgnoringCase(name.substr(name.size() - kSuffix.size()), kSuffix);
}

std::optional<IceCandidate> ReadIceCandidate(std::string_view line) {
  if (line.size() > kMaxCandidateBytes) return std::nullopt;
  line = Trim(line);
  if (StartsWith(line, "a=")) line.remove_prefix(2);
  if (!StartsWith(line, kPrefix)) return std::nullopt;
  line.remove_prefix(kPrefix.size());

  IceCandidate candidate;
  if (!ReadMandatory(line, candidate)) return std::nullopt;
  for (std::string_view name = TakeWord(line); !name.empty(); name = TakeWord(line)) {
    if (!ReadExtension(name, TakeWord(line), candidate)) return std::nullopt;
  }
  return candidate;
}

std::optional<IceCandidateInit> ReadIceCandidateInit(std::string_view text) {
  // cJSON would take a zero byte for the end.
  if (text.size() > kMaxCandidateBytes || text.find('\0') != std::string_view::npos) return std::nullopt;
  text = Trim(text);
  // What JSON.stringify makes of the event that ends a browser's candidates.
  if (text == "null") return IceCandidateInit{};
  return StartsWith(text, "{") ? ReadJson(text) : ReadLine(text);
}

std::string WriteIceCandidate(const IceCandidate& candidate) {
  std::string line(kPrefix);
  line += candidate.foundation + ' ' + std::to_string(candidate.component);
  line += candidate.transport == IceTransport::kTcp ? " tcp " : " udp ";
  line += std::to_string(candidate.priority) + ' ' + candidate.address + ' ' + std::to_string(candidate.port);
  line += " typ ";
  line += NameOf(candidate.type);
  if (!candidate.relatedAddress.empty()) {
    line += " raddr " + candidate.relatedAddress + " rport " + std::to_string(candidate.relatedPort);
  }
  if (!candidate.tcpType.empty()) line += " tcptype " + candidate.tcpType;
  if (!candidate.usernameFragment.empty()) line += " ufrag " + candidate.usernameFragment;
  return line;
}

std::string WriteIceCandidateInit(const IceCandidate& candidate, const std::string& mid, std::uint16_t sectionIndex) {
  const JsonTree tree(cJSON_CreateObject());
  cJSON_AddStringToObject(tree.get(), "candidate", WriteIceCandidate(candidate).c_str());
  cJSON_AddStringToObject(tree.get(), "sdpMid", mid.c_str());
  cJSON_AddNumberToObject(tree.get(), "sdpMLineIndex", sectionIndex);
  const JsonText text(cJSON_PrintUnformatted(tree.get()));
  return text ? text.get() : std::string();
}

}  // namespace kovra
