#include "callback_thread.h"

#include <pthread.h>

#include <system_error>
#include <utility>

namespace kovra {

namespace {

// Of all viewers together: with four who talk, a third of a second.
constexpr std::size_t kMaxWaitingAudio = 64;

}  // namespace

bool CallbackThread::Start(const std::shared_ptr<CallbackThread>& self) {
  self->stopping_.store(false);
  try {
    self->thread_ = std::thread([self] {
      pthread_setname_np(pthread_self(), "kovra-callbacks");
      self->run();
    });
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

void CallbackThread::stop() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_.store(true);
    events_.clear();
  }
  posted_.notify_one();
  if (!thread_.joinable()) return;
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}

void CallbackThread::postAnswer(SessionHandle session, std::string sdp) {
  post({Kind::kAnswer, std::move(session), KOVRA_STATE_NONE, std::move(sdp), {}});
}

void CallbackThread::postCandidate(SessionHandle session, std::string candidate) {
  post({Kind::kCandidate, std::move(session), KOVRA_STATE_NONE, std::move(candidate), {}});
}

void CallbackThread::postState(SessionHandle session, KOVRA_STATE state) {
  post({Kind::kState, std::move(session), state, {}, {}});
}

void CallbackThread::postAudio(SessionHandle session, const JitterBuffer::Frame& frame) {
  post({Kind::kAudio, std::move(session), KOVRA_STATE_NONE, {}, frame});
}

void CallbackThread::post(Event event) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_.load()) return;
    if (event.kind == Kind::kAudio && ++waitingAudio_ > kMaxWaitingAudio) {
      --waitingAudio_;
      return;
    }
    events_.push_back(std::move(event));
  }
  posted_.notify_one();
}

void CallbackThread::run() {
  while (takeEvents()) {
    for (Event& event : delivering_) {
      if (stopping_.load()) return;
      deliver(event);
    }
    delivering_.clear();
  }
}

bool CallbackThread::takeEvents() {
  std::unique_lock<std::mutex> lock(mutex_);
  posted_.wait(lock, [this] { return stopping_.load() || !events_.empty(); });
  delivering_.swap(events_);
  waitingAudio_ = 0;
  return !stopping_.load();
}

void CallbackThread::deliver(Event& event) {
  KovraStreamerCallback* receiver = receiver_.load(std::memory_order_acquire);
  if (receiver == nullptr || event.session->isClosedByOwner()) return;
  const KOVRA_SESSION_ID id = event.session->id;
  switch (event.kind) {
    case Kind::kAnswer:
      return receiver->onAnswer(id, event.text);
    case Kind::kCandidate:
      return receiver->onIceCandidate(id, event.text);
    case Kind::kState:
      return receiver->onStateChange(id, event.state);
    case Kind::kAudio:
      return receiver->onAudioFrame(id, event.audio.data(), static_cast<unsigned int>(event.audio.size()));
  }
}

}  // namespace kovra
