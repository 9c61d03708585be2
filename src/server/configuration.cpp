#include "configuration.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <set>

#include "json.h"
#include "log_text.h"

namespace signalconn::server {

namespace {

[[noreturn]] void fail(const std::string& where, const std::string& fault) {
  throw ConfigurationError(where + " " + fault);
}

// A misspelt key must not pass for a missing one.
void requireKnownKeys(const cJSON& object, const std::string& where, std::initializer_list<std::string_view> known) {
  std::set<std::string> seen;
  for (const cJSON* item = object.child; item != nullptr; item = item->next) {
    const std::set<std::string_view> keys(known);
    if (keys.count(item->string) == 0) fail(where, "has the unknown key " + inQuotes(item->string));
    if (!seen.insert(item->string).second) fail(where, "has the key " + inQuotes(item->string) + " twice");
  }
}

std::string requireText(const cJSON* item, const std::string& where) {
  if (!cJSON_IsString(item) || *item->valuestring == '\0') fail(where, "must be a text that is not empty");
  return item->valuestring;
}

std::string requireUrl(const cJSON* item, const std::string& where, const std::string& scheme) {
  std::string url = requireText(item, where);
  if (url.rfind(scheme + ":", 0) != 0 && url.rfind(scheme + "s:", 0) != 0) {
    fail(where, "must begin with \"" + scheme + ":\" or \"" + scheme + "s:\"");
  }
  return url;
}

// Calls read(element, where) for each element of the array under key; none when the key is missing.
template <typename Read>
void forEach(const cJSON& object, const std::string& key, Read read) {
  const cJSON* array = jsonMember(object, key.c_str());
  if (array == nullptr) return;
  if (!cJSON_IsArray(array)) fail(key, "must be an array");
  int index = 0;
  for (const cJSON* item = array->child; item != nullptr; item = item->next) {
    read(*item, key + "[" + std::to_string(index++) + "]");
  }
}

void requireObject(const cJSON& item, const std::string& where) {
  if (!cJSON_IsObject(&item)) fail(where, "must be an object");
}

std::vector<Account> readAccounts(const cJSON& root) {
  std::vector<Account> accounts;
  std::set<std::string> keys;
  forEach(root, "accounts", [&](const cJSON& item, const std::string& where) {
    requireObject(item, where);
    requireKnownKeys(item, where, {"key", "secret"});
    Account account{requireText(jsonMember(item, "key"), where + ".key"),
                    requireText(jsonMember(item, "secret"), where + ".secret")};
    if (!keys.insert(account.key).second) fail(where + ".key", "is that of an earlier account");
    accounts.push_back(account);
  });
  if (accounts.empty()) fail("accounts", "must be an array of at least one account");
  return accounts;
}

IceServers readIceServers(const cJSON& root) {
  IceServers servers;
  forEach(root, "stun", [&](const cJSON& item, const std::string& where) {
    servers.stunAddr.push_back(requireUrl(&item, where, "stun"));
  });
  forEach(root, "turn", [&](const cJSON& item, const std::string& where) {
    requireObject(item, where);
    requireKnownKeys(item, where, {"url", "username", "credential"});
    servers.turnAddr.push_back(requireUrl(jsonMember(item, "url"), where + ".url", "turn"));
    servers.turnUser.push_back(requireText(jsonMember(item, "username"), where + ".username"));
    servers.turnPass.push_back(requireText(jsonMember(item, "credential"), where + ".credential"));
  });
  return servers;
}

}  // namespace

Configuration demoConfiguration() { return {{{"demo", "demo"}}, {}}; }

Configuration parseConfiguration(std::string_view text) {
  const Json root = parseJsonObject(text);
  if (!root) throw ConfigurationError("the file does not hold a JSON object");
  requireKnownKeys(*root, "the file", {"accounts", "stun", "turn"});
  return {readAccounts(*root), readIceServers(*root)};
}

Configuration readConfiguration(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw ConfigurationError(std::string("the file cannot be opened: ") + std::strerror(errno));
  std::string text;
  try {
    text.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  } catch (const std::ios_base::failure&) {
    throw ConfigurationError("the file cannot be read");
  }
  return parseConfiguration(text);
}

}  // namespace signalconn::server
