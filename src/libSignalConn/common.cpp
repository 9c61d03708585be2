#include "common.h"

#include <sys/stat.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

// Standard output is flushed by exit(), so that the line is there although the process ends.
[[noreturn]] void ExitForKey(const char* key, const char* wanted) {
  printf("json key \"%s\" is missing or not %s, exit\n", key, wanted);
  exit(-1);
}

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};

}  // namespace

std::string GetStringOrExit(cJSON* object, const char* key) {
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
  if (!cJSON_IsString(item)) ExitForKey(key, "a string");
  return item->valuestring;
}

std::vector<std::string> GetStringArrayOrExit(cJSON* object, const char* key) {
  const cJSON* array = cJSON_GetObjectItemCaseSensitive(object, key);
  if (!cJSON_IsArray(array)) ExitForKey(key, "an array of strings");
  std::vector<std::string> texts;
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, array) {
    if (!cJSON_IsString(element)) ExitForKey(key, "an array of strings");
    texts.emplace_back(element->valuestring);
  }
  return texts;
}

void PrintStringArray(std::vector<std::string> list) {
  for (const std::string& text : list) printf("%s\n", text.c_str());
}

int GetNumberOrExit(cJSON* object, const char* key) {
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
  if (!cJSON_IsNumber(item)) ExitForKey(key, "a number");
  return item->valueint;
}

double GetCurrentTimeInMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

int ReadFileFromDisk(const char* path, std::uint8_t** buffer, std::uint64_t* bufferSize, std::uint64_t* fileSize) {
  const std::unique_ptr<FILE, FileCloser> file(fopen(path, "rb"));
  struct stat status {};
  if (!file || fstat(fileno(file.get()), &status) != 0 || !S_ISREG(status.st_mode)) return -1;

  const auto size = static_cast<std::uint64_t>(status.st_size);
  if (size > *bufferSize) {
    delete[] * buffer;
    *buffer = nullptr;
    *bufferSize = 0;
    *buffer = new std::uint8_t[size];
    *bufferSize = size;
  }
  if (size > 0 && fread(*buffer, 1, size, file.get()) != size) return -1;
  *fileSize = size;
  return 0;
}
