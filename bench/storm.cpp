// A fleet of clients in one process loses its server at once; it comes back 5 s later. How do they come back?
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "loopback_server.h"
#include "signal_client.h"

namespace {

using Clock = std::chrono::steady_clock;

const int kClients = 500;
const int kOutageSeconds = 5;
const int kBucketMs = 100;
const int kLongestRunSeconds = 120;

std::atomic<bool> withJitter{true};
std::atomic<bool> stop{false};

class Arrivals {
 public:
  void Note() {
    const std::lock_guard<std::mutex> lock(mutex_);
    times_.push_back(Clock::now());
  }
  std::size_t Count() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return times_.size();
  }
  std::vector<Clock::time_point> Take() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::move(times_);
  }

 private:
  std::mutex mutex_;
  std::vector<Clock::time_point> times_;
};

void* Serve(void* args) {
  auto* client = static_cast<KovraSignalClient*>(args);
  while (!stop && client->lwsService() >= 0) {
  }
  return nullptr;
}

// Waits until every client has signed in; prints how it went on and returns the largest bucket.
int Report(Arrivals& arrivals, Clock::time_point start) {
  const Clock::time_point end = start + std::chrono::seconds(kLongestRunSeconds);
  while (arrivals.Count() < kClients && Clock::now() < end) usleep(10000);
  std::vector<int> buckets;
  const std::vector<Clock::time_point> times = arrivals.Take();
  for (const Clock::time_point time : times) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(time - start).count();
    const auto bucket = static_cast<std::size_t>(std::max<long long>(0, ms / kBucketMs));
    if (buckets.size() <= bucket) buckets.resize(bucket + 1);
    ++buckets[bucket];
  }
  const int peak = buckets.empty() ? 0 : *std::max_element(buckets.begin(), buckets.end());
  printf("  arrivals per %d ms:", kBucketMs);
  for (const int count : buckets) printf(" %d", count);
  printf("\n  peak %d of %d (%.1f %%), back %zu, all signed in after %.1f s\n", peak, kClients, 100.0 * peak / kClients,
         times.size(), static_cast<double>(buckets.size()) * kBucketMs / 1000);
  return times.size() == kClients ? peak : kClients;
}

int Storm() {
  stop = false;
  Arrivals arrivals;
  auto note = [&arrivals](const char*, std::size_t) { arrivals.Note(); };
  auto server = std::make_unique<LoopbackServer>(0, note);
  const int port = server->Port();
  std::vector<std::unique_ptr<KovraSignalClient>> clients;
  std::vector<pthread_t> threads(kClients);
  for (pthread_t& thread : threads) {
    clients.push_back(std::make_unique<KovraSignalClient>());
    clients.back()->connect("127.0.0.1", port);
    clients.back()->setLoginMessage("signin");
    pthread_create(&thread, nullptr, Serve, clients.back().get());
  }
  while (arrivals.Count() < kClients) usleep(10000);
  arrivals.Take();

  printf("%d clients, %s: the server is gone for %d s\n", kClients, withJitter ? "with jitter" : "without jitter",
         kOutageSeconds);
  fflush(stdout);
  server.reset();
  sleep(kOutageSeconds);
  const Clock::time_point back = Clock::now();
  server = std::make_unique<LoopbackServer>(port, note);
  const int peak = Report(arrivals, back);

  stop = true;
  for (const pthread_t thread : threads) pthread_join(thread, nullptr);
  return peak;
}

}  // namespace

// The linker puts this between the library and its back-off (--wrap), to show what jitter is for: the largest
// random number is the whole wait.
std::uint32_t RealBackOffDelayMs(unsigned failures, std::uint32_t random) __asm__("__real__Z14BackOffDelayMsjj");
std::uint32_t WrappedBackOffDelayMs(unsigned failures, std::uint32_t random) __asm__("__wrap__Z14BackOffDelayMsjj");
std::uint32_t WrappedBackOffDelayMs(unsigned failures, std::uint32_t random) {
  return RealBackOffDelayMs(failures, withJitter ? random : 0xffffffffU);
}

int main() {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  FILE* quiet = freopen("/dev/null", "w", stderr);  // 500 clients report the outage
  if (quiet == nullptr) return 1;
  const int peak = Storm();
  withJitter = false;
  Storm();
  printf("peak with jitter: %d of %d in %d ms, limit %d\n", peak, kClients, kBucketMs, kClients / 10);
  return peak < kClients / 10 ? 0 : 1;
}
