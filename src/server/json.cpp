#include "json.h"

#include <cmath>
#include <limits>
#include <new>
#include <utility>

#include "utf8.h"

namespace signalconn::server {

namespace {

// cJSON lets raw control characters pass, which it writes six times as long again, and ends a string at an
// escaped NUL, which would make two different codes look alike.
bool hasOnlyCleanCharacters(std::string_view text) {
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (static_cast<unsigned char>(c) < 0x20) {
      if (inString || (c != '\t' && c != '\n' && c != '\r')) return false;
    } else if (c == '"') {
      inString = !inString;
    } else if (c == '\\' && inString) {
      if (text.substr(i, 6) == "\\u0000") return false;
      ++i;
    }
  }
  return true;
}

bool isOnlySpace(std::string_view text) { return text.find_first_not_of(" \t\r\n") == std::string_view::npos; }

Json owned(cJSON* item) {
  if (item == nullptr) throw std::bad_alloc();
  return Json(item);
}

}  // namespace

Json parseJsonObject(std::string_view text) {
  if (!isUtf8(text) || !hasOnlyCleanCharacters(text)) return nullptr;
  const char* end = nullptr;
  Json parsed(cJSON_ParseWithLengthOpts(text.data(), text.size(), &end, 0));
  if (!cJSON_IsObject(parsed.get())) return nullptr;
  if (!isOnlySpace(text.substr(static_cast<std::size_t>(end - text.data())))) return nullptr;
  return parsed;
}

const cJSON* jsonMember(const cJSON& object, const char* key) { return cJSON_GetObjectItemCaseSensitive(&object, key); }

std::optional<int> jsonInteger(const cJSON* item) {
  if (!cJSON_IsNumber(item)) return std::nullopt;
  const double value = item->valuedouble;
  if (!(value >= std::numeric_limits<int>::min() && value <= std::numeric_limits<int>::max())) return std::nullopt;
  if (std::trunc(value) != value) return std::nullopt;
  return static_cast<int>(value);
}

JsonWriter::JsonWriter() : object_(owned(cJSON_CreateObject())) {}

JsonWriter& JsonWriter::adopt(const char* key, Json item) {
  if (!cJSON_AddItemToObject(object_.get(), key, item.get())) throw std::bad_alloc();
  static_cast<void>(item.release());
  return *this;
}

JsonWriter& JsonWriter::add(const char* key, int number) { return adopt(key, owned(cJSON_CreateNumber(number))); }

JsonWriter& JsonWriter::add(const char* key, const std::string& text) {
  return adopt(key, owned(cJSON_CreateString(text.c_str())));
}

JsonWriter& JsonWriter::add(const char* key, const std::vector<std::string>& texts) {
  Json array = owned(cJSON_CreateArray());
  for (const std::string& text : texts) {
    cJSON_AddItemToArray(array.get(), owned(cJSON_CreateString(text.c_str())).release());
  }
  return adopt(key, std::move(array));
}

JsonWriter& JsonWriter::add(const char* key, std::vector<JsonWriter> objects) {
  Json array = owned(cJSON_CreateArray());
  for (JsonWriter& object : objects) cJSON_AddItemToArray(array.get(), object.object_.release());
  return adopt(key, std::move(array));
}

std::string JsonWriter::text() const {
  const std::unique_ptr<char, void (*)(void*)> printed(cJSON_PrintUnformatted(object_.get()), cJSON_free);
  if (!printed) throw std::bad_alloc();
  return printed.get();
}

}  // namespace signalconn::server
