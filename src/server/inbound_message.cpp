#include "inbound_message.h"

#include "protocol.h"
#include "refusal.h"

namespace signalconn::server {

namespace {

std::string aboutKey(const char* key, const char* fault) { return std::string("\"") + key + "\" " + fault; }

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }

}  // namespace

InboundMessage::InboundMessage(std::string_view text) : object_(parseJsonObject(text)) {
  if (!object_) throw Refusal(kMalformed, "not a JSON object in UTF-8");
}

std::optional<std::string> InboundMessage::optionalText(const char* key) const {
  const cJSON* item = jsonMember(*object_, key);
  if (item == nullptr) return std::nullopt;
  if (!cJSON_IsString(item)) throw Refusal(kMalformed, aboutKey(key, "is not a string"));
  return item->valuestring;
}

std::string InboundMessage::text(const char* key) const {
  std::optional<std::string> text = optionalText(key);
  if (!text) throw Refusal(kMalformed, aboutKey(key, "is missing"));
  return *text;
}

std::string InboundMessage::text(const char* key, std::size_t longest) const {
  std::string text = this->text(key);
  if (text.size() > longest) throw Refusal(kMalformed, aboutKey(key, "is too long"));
  return text;
}

std::optional<std::string> InboundMessage::textForEcho(const char* key) const {
  const cJSON* item = jsonMember(*object_, key);
  if (!cJSON_IsString(item)) return std::nullopt;
  return item->valuestring;
}

int InboundMessage::number(const char* key) const {
  const cJSON* item = jsonMember(*object_, key);
  if (item == nullptr) throw Refusal(kMalformed, aboutKey(key, "is missing"));
  const std::optional<int> number = jsonInteger(item);
  if (!number) throw Refusal(kMalformed, aboutKey(key, "is not an integer in 32 bits"));
  return *number;
}

void requireSerialCode(std::string_view text) {
  if (text.size() > kLongestSerialCode) throw Refusal(kMalformed, aboutKey("serialCode", "is longer than 64 bytes"));
  for (const char c : text) {
    if (isControl(c)) throw Refusal(kMalformed, aboutKey("serialCode", "holds a control character"));
  }
}

}  // namespace signalconn::server
