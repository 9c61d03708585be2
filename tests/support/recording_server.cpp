#include "recording_server.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <utility>

namespace support {

RecordingServer::RecordingServer(const ServerOptions& options)
    : server_(options), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), thread_([this] { Run(); }) {}

RecordingServer::~RecordingServer() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  Wake();
  thread_.join();
}

int RecordingServer::Accepted() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return accepted_;
}

std::vector<ReceivedText> RecordingServer::Received() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return received_;
}

std::vector<std::string> RecordingServer::Texts() {
  std::vector<std::string> texts;
  for (const ReceivedText& received : Received()) texts.push_back(received.text);
  return texts;
}

bool RecordingServer::WaitForTexts(std::size_t count, std::chrono::milliseconds within) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, within, [this, count] { return received_.size() >= count; });
}

void RecordingServer::Send(const std::string& text) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    toSend_.push_back(text);
  }
  Wake();
}

void RecordingServer::Answer(std::function<std::string(const std::string& text)> reply) {
  const std::lock_guard<std::mutex> lock(mutex_);
  reply_ = std::move(reply);
}

void RecordingServer::ResetAll() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    resetAll_ = true;
  }
  Wake();
}

void RecordingServer::Wake() { eventfd_write(wake_.get(), 1); }

void RecordingServer::Run() {
  while (true) {
    std::vector<pollfd> entries{{server_.Fd(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
    for (const Peer& peer : peers_) entries.push_back({peer.connection->Fd(), POLLIN, 0});
    poll(entries.data(), entries.size(), -1);
    eventfd_t ignored = 0;
    eventfd_read(wake_.get(), &ignored);
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (stop_) return;
    }
    for (Peer& peer : peers_) TakeTexts(peer);
    if ((entries[0].revents & POLLIN) != 0) TakeConnection();
    CarryOutOrders();
    peers_.erase(
        std::remove_if(peers_.begin(), peers_.end(), [](const Peer& peer) { return peer.connection->Ended(); }),
        peers_.end());
  }
}

void RecordingServer::TakeConnection() {
  std::unique_ptr<ServerConnection> connection = server_.AcceptWebSocket(std::chrono::seconds(10));
  const std::lock_guard<std::mutex> lock(mutex_);
  if (connection) peers_.push_back({accepted_, std::move(connection)});
  ++accepted_;
  changed_.notify_all();
}

void RecordingServer::TakeTexts(Peer& peer) {
  while (std::optional<std::string> text = peer.connection->ReceiveText(std::chrono::milliseconds(0))) {
    const std::lock_guard<std::mutex> lock(mutex_);
    received_.push_back({peer.number, *text, Clock::now()});
    const std::string answer = reply_ ? reply_(*text) : "";
    if (!answer.empty()) peer.connection->SendText(answer);
    changed_.notify_all();
  }
}

void RecordingServer::CarryOutOrders() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (resetAll_) {
    for (Peer& peer : peers_) peer.connection->Reset();
    resetAll_ = false;
  }
  if (peers_.empty() || peers_.back().connection->Ended()) return;
  for (const std::string& text : toSend_) peers_.back().connection->SendText(text);
  toSend_.clear();
}

}  // namespace support
