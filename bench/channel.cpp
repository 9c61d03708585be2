// What the library costs over a bare libwebsockets client: latency, throughput each way, memory per client. Server and
// clients are processes of their own; each figure is the median of several runs that take turns.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "channel_client.h"
#include "loopback_server.h"

namespace {

using Clock = std::chrono::steady_clock;
using MakeClient = std::unique_ptr<ChannelClient> (*)(int port);

const int kRuns = 7;
const int kLatencySamples = 2000;
const long kTexts = 50000;
const int kMemoryClients = 40;
const double kAllowedRatio = 1.2;

struct Figures {
  double p50Us;
  double p99Us;
  double outPerSecond;
  double inPerSecond;
  double kibPerClient;
};

long long NowNs() { return Clock::now().time_since_epoch().count(); }

double Seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

std::atomic<long> textsAtServer{0};
std::vector<double> latenciesUs;  // the server's thread writes it before it counts the text

void AtServer(const char* text, std::size_t len) {
  if (len > 2 && text[0] == 't') {
    const long long sent = std::atoll(std::string(text + 1, len - 1).c_str());
    latenciesUs.push_back(static_cast<double>(NowNs() - sent) / 1000);
  }
  ++textsAtServer;
}

double Quantile(std::vector<double> values, double q) {
  std::sort(values.begin(), values.end());
  return values[static_cast<std::size_t>(q * static_cast<double>(values.size() - 1))];
}

// ---- The client's process: does one thing, prints one number.

void Send(ChannelClient& client) {
  for (int i = 0; i < kLatencySamples; ++i) {
    client.Send("t" + std::to_string(NowNs()));
    usleep(500);
  }
  const std::string text(200, 'x');
  for (long sent = 0; sent < kTexts;) {
    if (client.Send(text)) {
      ++sent;
    } else {
      usleep(50);
    }
  }
  getchar();  // until the server has them all
}

double Receive(ChannelClient& client) {
  const Clock::time_point start = Clock::now();
  client.Send("send " + std::to_string(kTexts));
  while (client.Received() < kTexts) usleep(200);
  return static_cast<double>(kTexts) / Seconds(start);
}

long ResidentKib() {
  long pages = 0;
  long resident = 0;
  FILE* file = fopen("/proc/self/statm", "r");
  if (file == nullptr || fscanf(file, "%ld %ld", &pages, &resident) != 2) exit(1);
  fclose(file);
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

double KibPerClient(MakeClient make, int port) {
  std::vector<std::unique_ptr<ChannelClient>> clients;
  clients.push_back(make(port));  // what the first loads is the process's
  const long before = ResidentKib();
  for (int i = 0; i < kMemoryClients; ++i) clients.push_back(make(port));
  return static_cast<double>(ResidentKib() - before) / kMemoryClients;
}

int ClientProcess(const std::string& kind, const std::string& task, int port) {
  const MakeClient make = kind == "bare" ? MakeBareClient : MakeLibraryClient;
  if (task == "memory") {
    printf("%f\n", KibPerClient(make, port));
    return 0;
  }
  const std::unique_ptr<ChannelClient> client = make(port);
  if (task == "receive") {
    printf("%f\n", Receive(*client));
  } else {
    Send(*client);
  }
  return 0;
}

// ---- The server's process.

FILE* StartClient(const char* program, const char* kind, const char* task, int port, const char* mode) {
  const std::string command = std::string(program) + " " + kind + " " + task + " " + std::to_string(port);
  FILE* pipe = popen(command.c_str(), mode);
  if (pipe == nullptr) exit(1);
  return pipe;
}

double AskClient(const char* program, const char* kind, const char* task) {
  LoopbackServer server(0, AtServer);
  FILE* client = StartClient(program, kind, task, server.Port(), "r");
  double figure = 0;
  if (fscanf(client, "%lf", &figure) != 1) exit(1);
  pclose(client);
  return figure;
}

void WaitForTexts(long count) {
  while (textsAtServer < count) usleep(100);
}

Figures Measure(const char* program, const char* kind) {
  Figures figures{};
  {
    textsAtServer = 0;
    latenciesUs.clear();
    LoopbackServer server(0, AtServer);
    FILE* client = StartClient(program, kind, "send", server.Port(), "w");
    WaitForTexts(kLatencySamples + 1);
    const Clock::time_point start = Clock::now();
    WaitForTexts(kLatencySamples + kTexts);
    figures.outPerSecond = static_cast<double>(kTexts) / Seconds(start);
    fputs("\n", client);
    pclose(client);
    figures.p50Us = Quantile(latenciesUs, 0.5);
    figures.p99Us = Quantile(latenciesUs, 0.99);
  }
  figures.inPerSecond = AskClient(program, kind, "receive");
  figures.kibPerClient = AskClient(program, kind, "memory");
  return figures;
}

double Median(const std::vector<Figures>& runs, double Figures::*figure) {
  std::vector<double> values;
  for (const Figures& run : runs) values.push_back(run.*figure);
  return Quantile(values, 0.5);
}

// ratio above 1: ours is worse.
bool Compare(const char* name, const std::vector<Figures>& ours, const std::vector<Figures>& bare,
             double Figures::*figure, bool lessIsBetter) {
  const double our = Median(ours, figure);
  const double theirs = Median(bare, figure);
  const double ratio = lessIsBetter ? our / theirs : theirs / our;
  printf("%-34s %12.1f %12.1f %8.2f\n", name, our, theirs, ratio);
  return ratio <= kAllowedRatio;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4) return ClientProcess(argv[1], argv[2], std::atoi(argv[3]));
  std::vector<Figures> ours;
  std::vector<Figures> bare;
  for (int run = 0; run < kRuns; ++run) {
    ours.push_back(Measure(argv[0], "library"));
    bare.push_back(Measure(argv[0], "bare"));
  }
  printf("%-34s %12s %12s %8s   (medians of %d runs)\n", "", "library", "bare", "ratio", kRuns);
  bool good = Compare("send to server, p50, us", ours, bare, &Figures::p50Us, true);
  good &= Compare("send to server, p99, us", ours, bare, &Figures::p99Us, true);
  good &= Compare("texts of 200 bytes out, per second", ours, bare, &Figures::outPerSecond, false);
  good &= Compare("texts of 200 bytes in, per second", ours, bare, &Figures::inPerSecond, false);
  good &= Compare("memory per further client, KiB", ours, bare, &Figures::kibPerClient, true);
  return good ? 0 : 1;
}
