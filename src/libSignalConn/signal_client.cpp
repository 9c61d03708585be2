// The public operations, the rounds of service, and the messages of an established link.
#include "signal_client.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "signal_link.h"

namespace {

const int kConnectWaitMs = 3000;
const int kRoundMs = 220;           // a stop flag is seen within 250 ms; fewer than five wake-ups a second when idle
const int kWaitForDriverMs = 1000;  // how long destruction waits for the service thread
const lws_usec_t kPongWaitUs = 5 * LWS_USEC_PER_SEC;
const lws_usec_t kSettleUs = 20 * LWS_US_PER_MS;  // one ping confirms a burst of candidates
const std::size_t kPingBytes = sizeof(std::uint64_t);

}  // namespace

KovraSignalClient::KovraSignalClient() : _link(std::make_unique<Link>(this)) {}

KovraSignalClient::~KovraSignalClient() {
  _closing = true;
  if (_driven && pthread_equal(_driver, pthread_self())) {
    // exit() inside a callback: libwebsockets is on the stack below us and cannot be torn down. The kernel closes
    // the socket, and what libwebsockets still points to stays.
    closeConnectThread();
    _link.release();
    return;
  }
  WakeService();
  bool taken = TakeDriver();
  for (int waited = 0; !taken && waited < kWaitForDriverMs; ++waited) {
    usleep(1000);
    taken = TakeDriver();
  }
  if (!taken) {
    _link.release();  // a callback does not return: leave it what it stands on
    return;
  }
  // _driven stays taken: a service thread that comes late finds no way in.
  closeConnectThread();
  if (_ctx != nullptr) lws_context_destroy(_ctx);
}

void KovraSignalClient::registerObserver(SignalClientCallback* callback) { _callback = callback; }

int KovraSignalClient::connect(std::string server, int port) {
  if (_interruped || _closing) return -1;
  {
    const std::lock_guard<std::mutex> lock(_mutex);
    _server = std::move(server);
    _port = port;
    _connectAsked = true;
    _link->outcomeKnown.Reset();
  }
  if (_driven && pthread_equal(_driver, pthread_self())) return 0;  // inside onMessage: the next round starts it

  const bool servedElsewhere = _served && !pthread_equal(_serviceThread, pthread_self());
  if (!servedElsewhere && TakeDriver()) {
    const int result = EnsureContext() ? DriveFirstAttempt() : -1;
    ReleaseDriver();
    return result;
  }
  WakeService();
  return _link->outcomeKnown.WaitFor(kConnectWaitMs) ? _link->outcome.load() : 0;
}

bool KovraSignalClient::isConnected() { return _connected; }

bool KovraSignalClient::isInterruped() { return _interruped; }

void KovraSignalClient::toInterruped() { _interruped = true; }

int KovraSignalClient::sendMessage(const std::string& message) {
  {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (_messages.size() >= kMostQueuedMessages || _queuedBytes + message.size() > kMostQueuedBytes) return -1;
    _messages.push_back(message);
    _queuedBytes += message.size();
  }
  if (_connected) WakeService();
  return 0;
}

void KovraSignalClient::setLoginMessage(std::string message) {
  const std::lock_guard<std::mutex> lock(_mutex);
  _loginMsg = std::move(message);
}

// Another thread may only wake the service; the pipe behind it merges wake-ups, and so do we, since each is a
// system call.
void KovraSignalClient::WakeService() {
  if (_wakePending.exchange(true)) return;
  lws_context* ctx = nullptr;
  {
    const std::lock_guard<std::mutex> lock(_mutex);
    ctx = _ctx;
  }
  if (ctx != nullptr) {
    lws_cancel_service(ctx);
  } else {
    _wakePending = false;
  }
}

bool KovraSignalClient::TakeDriver() {
  if (_driven.exchange(true)) return false;
  _driver = pthread_self();
  return true;
}

void KovraSignalClient::ReleaseDriver() {
  _driver = pthread_t{};
  _driven = false;
}

int KovraSignalClient::lwsService() {
  if (_closing) return -1;
  _serviceThread = pthread_self();
  _served = true;
  if (!TakeDriver()) {
    usleep(10000);  // connect() drives its first attempt, or destruction has begun
    return _closing ? -1 : 0;
  }
  int result = 0;
  if (EnsureContext()) {
    TakeConnectRequest();
    TakeLookup();
    result = Round(kRoundMs);
  } else {
    usleep(kRoundMs * 1000);
  }
  if (_closing) result = -1;
  ReleaseDriver();
  return result;
}

void KovraSignalClient::TakeConnectRequest() {
  {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (!_connectAsked) return;
  }
  _link->failures = 0;
  reConnect();
}

// lws_service has no time-out of its own; a timer makes it return.
int KovraSignalClient::Round(int longestMs) {
  lws_sul_schedule(
      _ctx, 0, &_link->round.entry, [](lws_sorted_usec_list_t*) {}, longestMs * LWS_US_PER_MS);
  return lws_service(_ctx, 0) < 0 ? -1 : 0;
}

int KovraSignalClient::sLwsCallback(lws* wsi, lws_callback_reasons reason, void* /*user*/, void* in, std::size_t len) {
  auto* client = static_cast<KovraSignalClient*>(lws_context_user(lws_get_context(wsi)));
  return client != nullptr ? client->onLwsCallback(wsi, reason, in, len) : 0;
}

int KovraSignalClient::onLwsCallback(lws* wsi, lws_callback_reasons reason, void* in, std::size_t len) {
  switch (reason) {
    case LWS_CALLBACK_CLIENT_ESTABLISHED:
      OnEstablished(wsi);
      return 0;
    case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
      OnConnectionError(wsi, in != nullptr ? static_cast<const char*>(in) : "");
      return 0;
    case LWS_CALLBACK_CLIENT_CLOSED:
    case LWS_CALLBACK_WSI_DESTROY:  // all that libwebsockets tells when its own time-out ends a handshake
      OnClosed(wsi);
      return 0;
    case LWS_CALLBACK_CLIENT_RECEIVE:
      OnReceive(wsi, static_cast<const char*>(in), len);
      return 0;
    case LWS_CALLBACK_CLIENT_RECEIVE_PONG:
      if (wsi == _wsi) OnPong(static_cast<const char*>(in), len);
      return 0;
    case LWS_CALLBACK_CLIENT_WRITEABLE:
      return onLwsWriteable(wsi);
    case LWS_CALLBACK_EVENT_WAIT_CANCELLED:  // the wsi here is a stand-in
      _wakePending = false;
      if (_connected) lws_callback_on_writable(_wsi);
      return 0;
    default:
      return 0;
  }
}

void KovraSignalClient::OnReceive(lws* wsi, const char* data, std::size_t len) {
  if (wsi != _wsi || _link->refusal != 0) return;
  lws_validity_confirmed(wsi);
  const bool complete = lws_is_final_fragment(wsi) != 0;
  if (_link->discarding || lws_frame_is_binary(wsi) != 0) {  // the protocol has text only
    _link->discarding = !complete;
    return;
  }
  if (_complete_message.size() + len > kLongestInboundMessage) {
    Refuse(wsi, LWS_CLOSE_STATUS_MESSAGE_TOO_LARGE, "the signalling server sent a message over 1 MiB");
    return;
  }
  if (!_link->utf8.Take(data, len) || (complete && !_link->utf8.IsComplete())) {
    Refuse(wsi, LWS_CLOSE_STATUS_INVALID_PAYLOAD, "the signalling server sent a text that is not UTF-8");
    return;
  }
  _complete_message.append(data, len);
  if (complete) OnText(wsi);
}

void KovraSignalClient::OnText(lws* wsi) {
  // The link has proved itself, so the next failure is a first one again.
  _link->failures = 0;
  if (!_link->reported.empty()) {
    _link->reported.clear();
    fprintf(stderr, "signalling: the link is up again\n");
  }
  if (_link->window.AwaitsPong() && lws_now_usecs() - _link->pingedAt > kPongWaitUs) {
    _link->window.GiveUpConfirming();
    lws_callback_on_writable(wsi);  // what waited for room
  }
  if (_callback != nullptr) _callback->onMessage(_complete_message);
  std::string().swap(_complete_message);
}

// The link is ended by the next writeable callback. Ended by the receive callback in mid-frame, libwebsockets would go
// on to write the rest of the frame beyond its buffer; its own UTF-8 check does just that.
void KovraSignalClient::Refuse(lws* wsi, lws_close_status code, const char* trouble) {
  Report(std::string(trouble) + ", the link is closed");
  _link->refusal = code;
  lws_callback_on_writable(wsi);
}

void KovraSignalClient::OnPong(const char* data, std::size_t len) {
  std::uint64_t number = 0;
  if (len != kPingBytes) return;  // answers libwebsockets' own ping
  std::memcpy(&number, data, len);
  _link->window.Pong(number);
  if (HasMoreToWrite()) lws_callback_on_writable(_wsi);
}

bool KovraSignalClient::HasMoreToWrite() {
  const std::lock_guard<std::mutex> lock(_mutex);
  return _link->window.PingDue(_messages.empty() && _link->settled) || (!_messages.empty() && !_link->window.IsFull());
}

// libwebsockets takes one write a callback.
int KovraSignalClient::onLwsWriteable(lws* wsi) {
  if (wsi != _wsi || !_connected) return 0;
  if (_link->refusal != 0) {
    lws_close_reason(wsi, static_cast<lws_close_status>(_link->refusal), nullptr, 0);
    return -1;
  }
  bool written = true;
  if (_link->loginDue) {
    _link->loginDue = false;
    std::string login;
    {
      const std::lock_guard<std::mutex> lock(_mutex);
      login = _loginMsg;
    }
    written = login.empty() || WriteText(wsi, login);
  } else {
    written = WriteNextMessage(wsi);
  }
  if (!written) return -1;
  if (HasMoreToWrite()) lws_callback_on_writable(wsi);
  return 0;
}

bool KovraSignalClient::WriteNextMessage(lws* wsi) {
  std::string message;
  bool pingDue = false;
  {
    const std::lock_guard<std::mutex> lock(_mutex);
    pingDue = _link->window.PingDue(_messages.empty() && _link->settled);
    if (!pingDue) {
      if (_messages.empty() || _link->window.IsFull()) return true;
      message = std::move(_messages.front());
      _messages.pop_front();
      _queuedBytes -= message.size();
    }
  }
  if (pingDue) return WritePing(wsi);
  const bool written = WriteText(wsi, message);
  _link->window.Written(std::move(message));  // unwritten, it is taken back when the link is dropped
  _link->settled = false;
  lws_sul_schedule(
      _ctx, 0, &_link->settle.entry,
      [](lws_sorted_usec_list_t* entry) { reinterpret_cast<Link::Timer*>(entry)->client->OnSettled(); }, kSettleUs);
  return written;
}

void KovraSignalClient::OnSettled() {
  _link->settled = true;
  if (_connected) lws_callback_on_writable(_wsi);
}

bool KovraSignalClient::WriteText(lws* wsi, const std::string& text) {
  std::vector<unsigned char>& buffer = _link->writeBuffer;
  buffer.resize(LWS_PRE + text.size());
  std::memcpy(buffer.data() + LWS_PRE, text.data(), text.size());
  return lws_write(wsi, buffer.data() + LWS_PRE, text.size(), LWS_WRITE_TEXT) >= static_cast<int>(text.size());
}

bool KovraSignalClient::WritePing(lws* wsi) {
  unsigned char buffer[LWS_PRE + kPingBytes];
  const std::uint64_t number = _link->window.Ping();
  _link->pingedAt = lws_now_usecs();
  std::memcpy(buffer + LWS_PRE, &number, kPingBytes);
  return lws_write(wsi, buffer + LWS_PRE, kPingBytes, LWS_WRITE_PING) >= static_cast<int>(kPingBytes);
}
