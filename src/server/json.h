// Strict reading and compact writing of JSON objects on cJSON.
#ifndef SIGNALCONN_SERVER_JSON_H
#define SIGNALCONN_SERVER_JSON_H

#include <cjson/cJSON.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace signalconn::server {

struct JsonDeleter {
  void operator()(cJSON* item) const { cJSON_Delete(item); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

// The object that the whole of text holds; null for anything else. Stricter than cJSON where that matters to
// those who receive a text again: no bytes that are not UTF-8, no raw control characters, no NUL in strings.
Json parseJsonObject(std::string_view text);

// The member under key (case-sensitive); null when there is none.
const cJSON* jsonMember(const cJSON& object, const char* key);

// The number of item when it is whole and fits 32 bits. item may be null.
std::optional<int> jsonInteger(const cJSON* item);

// Writes one object, keys in the order of the calls.
class JsonWriter {
 public:
  JsonWriter();
  JsonWriter& add(const char* key, int number);
  JsonWriter& add(const char* key, const std::string& text);
  JsonWriter& add(const char* key, const std::vector<std::string>& texts);
  JsonWriter& add(const char* key, std::vector<JsonWriter> objects);
  std::string text() const;  // compact

 private:
  JsonWriter& adopt(const char* key, Json item);

  Json object_;
};

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_JSON_H
