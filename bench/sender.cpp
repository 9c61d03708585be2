// Sends one camera's media through the engine to any number of viewers, and tells what that costs. One JSON object a
// line: commands on standard input, replies and events on standard output. bench/peer is its like on another stack.
//
//   {"do":"create"}   {"do":"offer","session":n,"sdp":"…"}   {"do":"candidate","session":n,"candidate":"…"}
//   {"do":"close","session":n}
//   {"do":"start","stream":"FILE"}                 20 access units a second, round and round, and PCMU
//   {"do":"start","stream":"FILE","keys":"FILE"}   those of stream, in their place those of keys when a key frame is
//   asked
//   {"do":"usage"}    processor time so far, and how long writing a video frame took since the last time
//
// FILE holds access units one behind the other, FILE.sizes their sizes in bytes, one a line. Frames are read when they
// are sent, so that the memory of the process is the engine's. All of this happens on one thread.
#include <cjson/cJSON.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kovra.h"

namespace {

using Clock = std::chrono::steady_clock;
using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

constexpr auto kVideoInterval = std::chrono::milliseconds(50);
constexpr auto kAudioInterval = std::chrono::milliseconds(20);

int MicrosSince(Clock::time_point start) {
  return static_cast<int>(std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count());
}

// One line on its way out: filled in by the add functions, written when it goes.
class Line {
 public:
  explicit Line(const char* event) : json_(cJSON_CreateObject(), cJSON_Delete) { add("event", event); }
  ~Line() {
    static std::mutex mutex;
    const std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(json_.get()), cJSON_free);
    const std::lock_guard<std::mutex> lock(mutex);
    std::puts(text.get());
    std::fflush(stdout);
  }
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;

  Line& add(const char* key, const std::string& value) {
    cJSON_AddStringToObject(json_.get(), key, value.c_str());
    return *this;
  }
  Line& add(const char* key, double value) {
    cJSON_AddNumberToObject(json_.get(), key, value);
    return *this;
  }

 private:
  Json json_;
};

class Reporter : public KovraStreamerCallback {
 public:
  void offered(KOVRA_SESSION_ID sid) {
    const std::lock_guard<std::mutex> lock(mutex_);
    offered_[sid] = Clock::now();
  }

  void onAnswer(KOVRA_SESSION_ID sid, const std::string& sdp) override {
    Line("answer").add("session", sid).add("micros", microsSinceOffer(sid)).add("sdp", sdp);
  }
  void onIceCandidate(KOVRA_SESSION_ID sid, const std::string& candidate) override {
    Line("candidate").add("session", sid).add("candidate", candidate);
  }
  void onStateChange(KOVRA_SESSION_ID sid, KOVRA_STATE state) override {
    Line("state").add("session", sid).add("state", state);
  }
  void onAudioFrame(KOVRA_SESSION_ID, void*, unsigned int) override {}

 private:
  int microsSinceOffer(KOVRA_SESSION_ID sid) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto offered = offered_.extract(sid);
    return MicrosSince(offered.mapped());
  }

  std::mutex mutex_;
  std::unordered_map<KOVRA_SESSION_ID, Clock::time_point> offered_;
};

// A file of access units.
class FrameFile {
 public:
  explicit FrameFile(const std::string& path) : file_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    std::ifstream sizes(path + ".sizes");
    off_t begin = 0;
    for (std::size_t size = 0; sizes >> size; begin += static_cast<off_t>(size)) frames_.push_back({begin, size});
  }
  ~FrameFile() { close(file_); }
  FrameFile(const FrameFile&) = delete;
  FrameFile& operator=(const FrameFile&) = delete;

  std::size_t count() const { return frames_.size(); }

  bool read(std::size_t index, std::vector<std::uint8_t>& frame) const {
    frame.resize(frames_[index].size);
    return pread(file_, frame.data(), frame.size(), frames_[index].begin) == static_cast<ssize_t>(frame.size());
  }

 private:
  struct Frame {
    off_t begin;
    std::size_t size;
  };

  int file_;
  std::vector<Frame> frames_;
};

// What a camera's encoders would do, at their pace.
class Source {
 public:
  Source(KovraStreamer& streamer, const std::string& stream, const std::string& keys, bool atOnce)
      : streamer_(streamer), stream_(stream), atOnce_(atOnce) {
    if (!keys.empty()) keys_.emplace(keys);
    next_ = first();
  }

  bool isComplete() const { return stream_.count() > 1 && (!keys_ || keys_->count() == stream_.count()); }
  Clock::time_point due() const { return std::min(videoDue_, audioDue_); }

  void writeWhatIsDue() {
    const Clock::time_point now = Clock::now();
    if (videoDue_ <= now) writeVideo();
    if (audioDue_ <= now) writeAudio();
  }

  // How long each writeVideoData took since the last time, in microseconds, the shortest first.
  std::vector<int> takeDurations() {
    std::vector<int> durations = std::exchange(durations_, {});
    std::sort(durations.begin(), durations.end());
    return durations;
  }

 private:
  void writeVideo() {
    writePicture(keys_ && wanted_ ? *keys_ : stream_);
    if (keys_ && wanted_ && atOnce_) writePicture(*keys_);
    if (++next_ == stream_.count()) next_ = first();
    time_ += std::chrono::microseconds(kVideoInterval).count();
    videoDue_ += kVideoInterval;
  }

  // Frame 0 is a key frame also in a stream that has no other: there it never goes out.
  std::size_t first() const { return keys_ ? 1 : 0; }

  void writePicture(const FrameFile& file) {
    if (!file.read(next_, frame_)) std::exit(2);
    const Clock::time_point start = Clock::now();
    wanted_ = streamer_.writeVideoData(frame_.data(), frame_.size(), time_, 0, 1) != 0;
    durations_.push_back(MicrosSince(start));
  }

  void writeAudio() {
    std::uint8_t silence[160];
    std::fill(std::begin(silence), std::end(silence), std::uint8_t{0xff});
    streamer_.writeAudioData(silence, sizeof(silence), time_, 0);
    audioDue_ += kAudioInterval;
  }

  KovraStreamer& streamer_;
  const FrameFile stream_;
  std::optional<FrameFile> keys_;
  const bool atOnce_;
  std::vector<std::uint8_t> frame_;
  std::vector<int> durations_;
  std::size_t next_ = 0;
  std::int64_t time_ = 0;
  bool wanted_ = false;
  Clock::time_point videoDue_ = Clock::now();
  Clock::time_point audioDue_ = Clock::now();
};

double ProcessorMicros() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto micros = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
  };
  return micros(usage.ru_utime) + micros(usage.ru_stime);
}

std::string Text(const cJSON* object, const char* key) {
  const char* value = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, key));
  return value == nullptr ? "" : value;
}

class Sender {
 public:
  Sender() { streamer_.registerCallback(&reporter_); }

  // Until standard input ends. Returns the exit code.
  int run() {
    std::string input;
    while (true) {
      if (source_) source_->writeWhatIsDue();
      if (!isInputReady()) continue;
      char bytes[16384];
      const ssize_t count = read(STDIN_FILENO, bytes, sizeof(bytes));
      if (count <= 0) return count == 0 ? 0 : 1;
      input.append(bytes, static_cast<std::size_t>(count));
      for (std::size_t end; (end = input.find('\n')) != std::string::npos; input.erase(0, end + 1)) {
        const Json command(cJSON_Parse(input.substr(0, end).c_str()), cJSON_Delete);
        if (!command) return 1;
        perform(command.get());
      }
    }
  }

 private:
  // Waits until there is input, or the source has something to write.
  bool isInputReady() const {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (!source_) return poll(&input, 1, -1) > 0;
    const auto wait = std::max(std::chrono::nanoseconds(0), std::chrono::nanoseconds(source_->due() - Clock::now()));
    const timespec patience{static_cast<time_t>(wait.count() / 1000000000),
                            static_cast<long>(wait.count() % 1000000000)};
    return ppoll(&input, 1, &patience, nullptr) > 0;
  }

  void perform(const cJSON* command) {
    const std::string what = Text(command, "do");
    const cJSON* number = cJSON_GetObjectItemCaseSensitive(command, "session");
    const KOVRA_SESSION_ID session = cJSON_IsNumber(number) ? number->valueint : 0;
    if (what == "usage") return tellUsage();
    int value = -1;
    if (what == "create") value = streamer_.createSession(KovraSessionConfig());
    if (what == "offer") value = takeOffer(session, Text(command, "sdp"));
    if (what == "candidate") value = streamer_.addRemoteCandidate(session, Text(command, "candidate"));
    if (what == "close") value = streamer_.closeSession(session);
    if (what == "start") value = start(command);
    Line("result").add("value", value);
  }

  int takeOffer(KOVRA_SESSION_ID session, const std::string& sdp) {
    reporter_.offered(session);
    return streamer_.setRemoteOffer(session, sdp);
  }

  int start(const cJSON* command) {
    source_.emplace(streamer_, Text(command, "stream"), Text(command, "keys"),
                    cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(command, "atOnce")));
    return source_->isComplete() ? 0 : -1;
  }

  void tellUsage() {
    Line line("result");
    line.add("value", 0).add("processorMicros", ProcessorMicros());
    const std::vector<int> writes = source_ ? source_->takeDurations() : std::vector<int>();
    if (writes.empty()) return;
    line.add("writeP50", writes[writes.size() / 2])
        .add("writeP99", writes[writes.size() * 99 / 100])
        .add("writeMax", writes.back());
  }

  Reporter reporter_;
  KovraStreamer streamer_;
  std::optional<Source> source_;
};

}  // namespace

int main() {
  if (initKovraLibrary(1) != 0) return 1;
  Sender sender;
  return sender.run();
}
