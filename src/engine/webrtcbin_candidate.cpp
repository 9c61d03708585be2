#include "webrtcbin_candidate.h"

#include <arpa/inet.h>
#include <cjson/cJSON.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <sstream>

namespace engine {
namespace {

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

bool startsWith(const std::string& text, const std::string& start) { return text.compare(0, start.size(), start) == 0; }

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

bool isNumber(const std::string& text, unsigned long greatest) {
  if (text.empty() || !std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; })) {
    return false;
  }
  errno = 0;
  return std::strtoul(text.c_str(), nullptr, 10) <= greatest && errno == 0;
}

bool isAddress(const std::string& text) {
  in6_addr room;
  return inet_pton(AF_INET, text.c_str(), &room) == 1 || inet_pton(AF_INET6, text.c_str(), &room) == 1;
}

bool endsInLocal(const std::string& name) {
  static const std::string kLocal = ".local";
  return name.size() > kLocal.size() && name.compare(name.size() - kLocal.size(), kLocal.size(), kLocal) == 0;
}

// The candidate-attribute within text, if there is one at all; empty at the end of the list.
std::optional<std::string> extractLine(const std::string& text) {
  if (text.empty() || startsWith(text, "candidate:")) return text;
  const Json json(cJSON_Parse(text.c_str()), cJSON_Delete);
  const cJSON* line = cJSON_GetObjectItemCaseSensitive(json.get(), "candidate");
  if (!cJSON_IsString(line)) return std::nullopt;
  const std::string value = line->valuestring;
  return startsWith(value, "a=") ? value.substr(2) : value;  // some viewers leave the SDP's prefix there
}

RemoteCandidate::Kind judge(const std::string& line) {
  using Kind = RemoteCandidate::Kind;
  std::istringstream words(line.substr(std::string("candidate:").size()));
  std::string foundation, component, transport, priority, address, port, typ, type;
  words >> foundation >> component >> transport >> priority >> address >> port >> typ >> type;
  if (!words || typ != "typ" || !isNumber(component, 256) || !isNumber(priority, 0xffffffffUL) ||
      !isNumber(port, 0xffffUL)) {
    return Kind::kMalformed;
  }
  if (endsInLocal(lowerCase(address))) return Kind::kDropped;
  if (!isAddress(address)) return Kind::kMalformed;
  return lowerCase(transport) == "udp" && component == "1" ? Kind::kUsable : Kind::kDropped;
}

}  // namespace

RemoteCandidate readRemoteCandidate(const std::string& text) {
  const std::optional<std::string> line = extractLine(text);
  if (!line) return {RemoteCandidate::Kind::kMalformed, ""};
  if (line->empty()) return {RemoteCandidate::Kind::kDropped, ""};
  if (!startsWith(*line, "candidate:")) return {RemoteCandidate::Kind::kMalformed, ""};
  return {judge(*line), *line};
}

std::string toCandidateInit(const std::string& line, const std::string& mid, unsigned int mlineIndex) {
  const Json json(cJSON_CreateObject(), cJSON_Delete);
  cJSON_AddStringToObject(json.get(), "candidate", line.c_str());
  cJSON_AddStringToObject(json.get(), "sdpMid", mid.c_str());
  cJSON_AddNumberToObject(json.get(), "sdpMLineIndex", mlineIndex);
  const std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(json.get()), cJSON_free);
  return text ? text.get() : "";
}

}  // namespace engine
