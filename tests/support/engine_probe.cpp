// Drives an engine for tests written in other languages: one JSON object a line, commands on standard input,
// replies and events on standard output. The process ends with its input. Its argument, if any, is
// initKovraLibrary's.
//
//   {"do":"create","trickleIce":true,"relayOnly":false,"iceServers":[{"url":…,"username":…,"credential":…}]}
//   {"do":"offer","session":n,"sdp":"…"}       {"do":"candidate","session":n,"candidate":"…"}
//   {"do":"close","session":n}                  {"do":"types","session":n,"audioType":n,"videoType":n}
//   {"do":"startVideo","directory":"…","videoType":n,"onDemand":true|false}   {"do":"stopVideo"}
//   {"do":"startAudio","audioType":n}           {"do":"stopAudio"}
//   {"do":"exitOn","event":"audio"}             calls exit(7) inside the callback of the next such event
//
// Each command is answered by {"event":"result","value":n} in the order of the commands; for create the value is
// the session. Events: answer, candidate, state, audio (one line a frame) and wantIFrame (when the engine begins or
// ceases to ask for a key frame).
#include <cjson/cJSON.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kovra.h"

namespace {

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;
using Bytes = std::vector<std::uint8_t>;

// One event on its way out: filled in by the add functions, written as one line when it goes.
class Event {
 public:
  explicit Event(const char* name) : json_(cJSON_CreateObject(), cJSON_Delete) { add("event", name); }
  ~Event() {
    static std::mutex mutex;
    const std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(json_.get()), cJSON_free);
    const std::lock_guard<std::mutex> lock(mutex);
    std::cout << text.get() << std::endl;
  }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  Event& add(const char* key, const std::string& value) {
    cJSON_AddStringToObject(json_.get(), key, value.c_str());
    return *this;
  }
  Event& add(const char* key, int value) {
    cJSON_AddNumberToObject(json_.get(), key, value);
    return *this;
  }

 private:
  Json json_;
};

class Reporter : public KovraStreamerCallback {
 public:
  void exitOn(const std::string& event) {
    const std::lock_guard<std::mutex> lock(mutex_);
    exitOn_ = event;
  }

  void onAnswer(KOVRA_SESSION_ID sid, const std::string& sdp) override {
    Event("answer").add("session", sid).add("sdp", sdp);
    exitIfTold("answer");
  }
  void onIceCandidate(KOVRA_SESSION_ID sid, const std::string& candidate) override {
    Event("candidate").add("session", sid).add("candidate", candidate);
    exitIfTold("candidate");
  }
  void onStateChange(KOVRA_SESSION_ID sid, KOVRA_STATE state) override {
    Event("state").add("session", sid).add("state", state);
    exitIfTold("state");
  }
  void onAudioFrame(KOVRA_SESSION_ID sid, void* data, unsigned int len) override {
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    Event("audio").add("session", sid).add("length", static_cast<int>(len)).add("first", bytes[0]);
    exitIfTold("audio");
  }

 private:
  void exitIfTold(const std::string& event) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (exitOn_ != event) return;
    }
    std::exit(7);
  }

  std::mutex mutex_;
  std::string exitOn_;
};

// Calls a function at a steady pace on a thread of its own until it is destroyed.
class Pump {
 public:
  template <typename Function>
  Pump(std::chrono::milliseconds interval, Function function)
      : thread_([this, interval, function]() mutable {
          for (auto due = std::chrono::steady_clock::now(); !stop_; due += interval) {
            std::this_thread::sleep_until(due);
            function();
          }
        }) {}
  ~Pump() {
    stop_ = true;
    thread_.join();
  }
  Pump(const Pump&) = delete;
  Pump& operator=(const Pump&) = delete;

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

std::vector<Bytes> readFrames(const std::string& directory) {
  std::vector<Bytes> frames;
  while (true) {
    char name[32];
    std::snprintf(name, sizeof(name), "/frame-%03zu.h264", frames.size() + 1);
    std::ifstream file(directory + name, std::ios::binary);
    if (!file) return frames;
    frames.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
}

bool isKeyFrame(const Bytes& frame) { return frame.size() > 4 && (frame[4] & 0x1f) == 7; }  // begins with its SPS

// Writes access units in their order, round and round, with the key frames among them. On demand it leaves these
// out, as a camera with an endless group of pictures does, but for the first, which it writes when the engine asks.
class VideoSource {
 public:
  VideoSource(KovraStreamer& streamer, const std::string& directory, int videoType, bool onDemand)
      : streamer_(streamer), frames_(readFrames(directory)), videoType_(videoType), onDemand_(onDemand) {
    if (onDemand_ && !frames_.empty()) {
      frames_.erase(std::find_if(frames_.begin() + 1, frames_.end(), isKeyFrame), frames_.end());
    }
  }

  bool isEmpty() const { return frames_.size() < 2; }

  void writeOne() {
    Bytes frame = frames_[next_];  // a copy, as the engine takes bytes that it might change
    const bool wants = streamer_.writeVideoData(frame.data(), frame.size(), time_, 0, videoType_) != 0;
    time_ += 50000;
    if (wants != wanted_) Event("wantIFrame").add("value", wants ? 1 : 0).add("videoType", videoType_);
    wanted_ = wants;
    ++next_;
    if (onDemand_ && wants) next_ = 0;
    if (next_ == frames_.size()) next_ = onDemand_ ? 1 : 0;
  }

 private:
  KovraStreamer& streamer_;
  std::vector<Bytes> frames_;
  int videoType_;
  bool onDemand_;
  bool wanted_ = false;
  std::size_t next_ = 0;
  std::int64_t time_ = 0;
};

// G.711 u-law (ITU-T G.711) of one 16-bit sample.
std::uint8_t encodeULaw(int sample) {
  const int sign = sample < 0 ? 0x80 : 0;
  const int magnitude = std::min(std::abs(sample), 32635) + 132;
  int exponent = 7;
  while (exponent > 0 && magnitude < (0x80 << exponent)) --exponent;
  return static_cast<std::uint8_t>(~(sign | (exponent << 4) | ((magnitude >> (exponent + 3)) & 0x0f)));
}

class Tone {
 public:
  Tone(KovraStreamer& streamer, int audioType) : streamer_(streamer), audioType_(audioType) {}

  void writeOne() {
    std::uint8_t frame[160];
    for (std::uint8_t& byte : frame) {
      byte = encodeULaw(static_cast<int>(8000 * std::sin(2 * 3.14159265 * 440 * samples_++ / 8000)));
    }
    streamer_.writeAudioData(frame, sizeof(frame), samples_ * 125, audioType_);
  }

 private:
  KovraStreamer& streamer_;
  int audioType_;
  int samples_ = 0;
};

std::string text(const cJSON* object, const char* key) {
  const char* value = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, key));
  return value == nullptr ? "" : value;
}

int number(const cJSON* object, const char* key) {
  const cJSON* value = cJSON_GetObjectItemCaseSensitive(object, key);
  return cJSON_IsNumber(value) ? value->valueint : 0;
}

KovraSessionConfig readConfig(const cJSON* command) {
  KovraSessionConfig config;
  const cJSON* trickle = cJSON_GetObjectItemCaseSensitive(command, "trickleIce");
  if (trickle != nullptr) config.trickleIce = cJSON_IsTrue(trickle);
  config.relayOnly = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(command, "relayOnly"));
  const cJSON* server = nullptr;
  cJSON_ArrayForEach(server, cJSON_GetObjectItemCaseSensitive(command, "iceServers")) {
    config.iceServers.push_back({text(server, "url"), text(server, "username"), text(server, "credential")});
  }
  return config;
}

class Probe {
 public:
  Probe() { streamer_.registerCallback(&reporter_); }

  int perform(const cJSON* command) {
    const std::string what = text(command, "do");
    const KOVRA_SESSION_ID session = number(command, "session");
    if (what == "create") return streamer_.createSession(readConfig(command));
    if (what == "offer") return streamer_.setRemoteOffer(session, text(command, "sdp"));
    if (what == "candidate") return streamer_.addRemoteCandidate(session, text(command, "candidate"));
    if (what == "close") return streamer_.closeSession(session);
    if (what == "types") {
      return streamer_.setAudioVideoType(session, number(command, "audioType"), number(command, "videoType"));
    }
    if (what == "startVideo") return startVideo(command);
    if (what == "stopVideo") videos_.clear();
    if (what == "startAudio") startAudio(number(command, "audioType"));
    if (what == "stopAudio") audios_.clear();
    if (what == "exitOn") reporter_.exitOn(text(command, "event"));
    return 0;
  }

 private:
  int startVideo(const cJSON* command) {
    VideoSource source(streamer_, text(command, "directory"), number(command, "videoType"),
                       cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(command, "onDemand")));
    if (source.isEmpty()) return -1;
    videos_.push_back(std::make_unique<Pump>(std::chrono::milliseconds(50), [source]() mutable { source.writeOne(); }));
    return 0;
  }

  void startAudio(int audioType) {
    Tone tone(streamer_, audioType);
    audios_.push_back(std::make_unique<Pump>(std::chrono::milliseconds(20), [tone]() mutable { tone.writeOne(); }));
  }

  Reporter reporter_;
  KovraStreamer streamer_;
  std::vector<std::unique_ptr<Pump>> videos_;
  std::vector<std::unique_ptr<Pump>> audios_;
};

}  // namespace

int main(int argc, char** argv) {
  constexpr unsigned kWarnings = 2;
  if (initKovraLibrary(argc > 1 ? static_cast<unsigned>(std::atoi(argv[1])) : kWarnings) != 0) return 1;
  static Probe probe;  // its end is the process's, as with the library's connection object
  std::string line;
  while (std::getline(std::cin, line)) {
    const Json command(cJSON_Parse(line.c_str()), cJSON_Delete);
    if (!command) return 2;
    Event("result").add("value", probe.perform(command.get()));
  }
  return 0;
}
