#include <unistd.h>

#include <atomic>
#include <thread>

#include "channel_client.h"
#include "signal_client.h"

namespace {

class LibraryClient : public ChannelClient, public SignalClientCallback {
 public:
  explicit LibraryClient(int port) {
    client_.registerObserver(this);
    client_.connect("127.0.0.1", port);
    thread_ = std::thread([this] {
      while (!stop_ && client_.lwsService() >= 0) {
      }
    });
    while (!client_.isConnected()) usleep(1000);
  }
  ~LibraryClient() override {
    stop_ = true;
    thread_.join();
  }

  bool Send(const std::string& text) override { return client_.sendMessage(text) == 0; }
  long Received() override { return received_; }
  void onMessage(const std::string&) override { ++received_; }

 private:
  KovraSignalClient client_;
  std::atomic<long> received_{0};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace

std::unique_ptr<ChannelClient> MakeLibraryClient(int port) { return std::make_unique<LibraryClient>(port); }
