// Typed reading of parsed JSON, logging of lists, whole-file reading, a clock, and the sample media's timing.
#ifndef SIGNALCONN_COMMON_H
#define SIGNALCONN_COMMON_H

#include <cjson/cJSON.h>

#include <cstdint>
#include <string>
#include <vector>

const int kDefaultFps = 20;                                       // frame rate of the sample video
const std::int64_t kSampleVideoFrameDurationMicroSecond = 50000;  // 1,000,000 / kDefaultFps
const std::int64_t kSampleAudioFrameDurationMicroSecond = 20000;  // 160 bytes of u-law at 8 kHz

// The getters return the value that object holds under key (case-sensitive). When object is null, the key
// is missing or the value has another type, they log the key and end the process with exit(-1): a server
// that breaks the protocol cannot be worked with. They do not take ownership of the tree.
std::string GetStringOrExit(cJSON* object, const char* key);
std::vector<std::string> GetStringArrayOrExit(cJSON* object, const char* key);  // every element a string
void PrintStringArray(std::vector<std::string> list);                           // one line an element
int GetNumberOrExit(cJSON* object, const char* key);                            // truncated, saturated to int

// Milliseconds with fractions on the monotonic clock: for differences only.
double GetCurrentTimeInMs();

// Reads the whole file into *buffer. On entry *buffer is null or a block from new[] of *bufferSize bytes;
// a larger file replaces the block. The caller owns the block, also after a failure, and frees it with
// delete[]. Returns 0 with *fileSize set, or a negative value.
int ReadFileFromDisk(const char* path, std::uint8_t** buffer, std::uint64_t* bufferSize, std::uint64_t* fileSize);

#endif  // SIGNALCONN_COMMON_H
