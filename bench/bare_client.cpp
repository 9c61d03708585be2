#include <libwebsockets.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "channel_client.h"

namespace {

class BareClient : public ChannelClient {
 public:
  explicit BareClient(int port);
  ~BareClient() override;

  bool Send(const std::string& text) override;
  long Received() override { return received_; }

 private:
  static int Callback(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t len);
  int WriteNext(lws* wsi);

  lws_context* context_ = nullptr;
  lws* wsi_ = nullptr;
  std::mutex mutex_;
  std::deque<std::string> queue_;
  std::vector<unsigned char> buffer_;
  std::string message_;
  std::atomic<long> received_{0};
  std::atomic<bool> connected_{false};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

BareClient::BareClient(int port) {
  static const lws_protocols protocols[] = {{"bench", Callback, 0, 4096, 0, nullptr, 0},
                                            {nullptr, nullptr, 0, 0, 0, nullptr, 0}};
  lws_context_creation_info info{};
  info.port = CONTEXT_PORT_NO_LISTEN;
  info.protocols = protocols;
  info.user = this;
  info.gid = -1;
  info.uid = -1;
  info.fd_limit_per_thread = 16;
  context_ = lws_create_context(&info);
  lws_client_connect_info connect{};
  connect.context = context_;
  connect.address = connect.host = "127.0.0.1";
  connect.port = port;
  connect.path = "/";
  connect.local_protocol_name = "bench";
  wsi_ = lws_client_connect_via_info(&connect);
  thread_ = std::thread([this] {
    while (!stop_ && lws_service(context_, 0) >= 0) {
    }
  });
  while (!connected_) usleep(1000);
}

BareClient::~BareClient() {
  stop_ = true;
  lws_cancel_service(context_);
  thread_.join();
  lws_context_destroy(context_);
}

bool BareClient::Send(const std::string& text) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (queue_.size() >= 1000) return false;  // else the comparison is one of memory
    queue_.push_back(text);
  }
  lws_cancel_service(context_);
  return true;
}

int BareClient::Callback(lws* wsi, lws_callback_reasons reason, void*, void* in, std::size_t len) {
  auto* client = static_cast<BareClient*>(lws_context_user(lws_get_context(wsi)));
  switch (reason) {
    case LWS_CALLBACK_CLIENT_ESTABLISHED:
      client->connected_ = true;
      return 0;
    case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
      if (client->connected_) lws_callback_on_writable(client->wsi_);
      return 0;
    case LWS_CALLBACK_CLIENT_RECEIVE:
      client->message_.append(static_cast<const char*>(in), len);
      if (lws_is_final_fragment(wsi) != 0) {
        client->message_.clear();
        ++client->received_;
      }
      return 0;
    case LWS_CALLBACK_CLIENT_WRITEABLE:
      return client->WriteNext(wsi);
    default:
      return 0;
  }
}

int BareClient::WriteNext(lws* wsi) {
  std::string text;
  bool more = false;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (queue_.empty()) return 0;
    text = std::move(queue_.front());
    queue_.pop_front();
    more = !queue_.empty();
  }
  buffer_.resize(LWS_PRE + text.size());
  std::memcpy(buffer_.data() + LWS_PRE, text.data(), text.size());
  if (lws_write(wsi, buffer_.data() + LWS_PRE, text.size(), LWS_WRITE_TEXT) < static_cast<int>(text.size())) return -1;
  if (more) lws_callback_on_writable(wsi);
  return 0;
}

}  // namespace

std::unique_ptr<ChannelClient> MakeBareClient(int port) { return std::make_unique<BareClient>(port); }
