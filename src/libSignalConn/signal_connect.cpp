// Attempts to reach the server: look-up, addresses, stages with their limits, back-off.
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "back_off.h"
#include "connect_trouble.h"
#include "signal_link.h"

namespace {

const int kFirstAttemptMs = 3000;                     // how long connect() waits for an outcome
const lws_usec_t kAddressUs = 2 * LWS_USEC_PER_SEC;   // for TCP, while another address waits
const lws_usec_t kAttemptUs = 10 * LWS_USEC_PER_SEC;  // for TCP, TLS and the WebSocket handshake
const char kProtocolName[] = "signal";                // names the handler within libwebsockets, never on the wire

const std::size_t kReceiveBufferBytes = 2048;  // larger messages come in pieces

// Silence is asked about after 15 s and given up after 30 s, so that a dead link is replaced within a minute.
const lws_retry_bo_t kIdlePolicy = [] {
  lws_retry_bo_t policy{};
  policy.secs_since_valid_ping = 15;
  policy.secs_since_valid_hangup = 30;
  return policy;
}();

const lws_protocols kProtocols[] = {
    {kProtocolName, KovraSignalClient::sLwsCallback, 0, kReceiveBufferBytes, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

int MillisecondsSince(lws_usec_t start) { return static_cast<int>((lws_now_usecs() - start) / LWS_US_PER_MS); }

// What libwebsockets complained about last on this thread: with OpenSSL the only place where it says why a
// certificate was refused. Plain bytes, here and below: the context is destroyed while the process ends, when strings
// of thread and static storage are gone.
thread_local char lastComplaint[256];

// It says the same of every attempt; during an outage of days once is enough.
void EmitOnce(int level, const char* line) {
  static std::mutex mutex;
  static char last[sizeof lastComplaint];
  snprintf(lastComplaint, sizeof lastComplaint, "%s", line);
  const std::lock_guard<std::mutex> lock(mutex);
  if (strcmp(last, lastComplaint) == 0) return;
  memcpy(last, lastComplaint, sizeof last);
  lwsl_emit_stderr(level, line);
}

std::string HostHeader(const ServerUrl& url, int port) {
  std::string host = url.host.find(':') == std::string::npos ? url.host : "[" + url.host + "]";
  if (port != (url.tls ? 443 : 80)) host += ":" + std::to_string(port);
  return host;
}

}  // namespace

bool KovraSignalClient::EnsureContext() {
  if (_ctx != nullptr) return true;
  {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (_server.empty()) return false;
  }
  lws_set_log_level(LLL_ERR | LLL_WARN, EmitOnce);
  lws_context_creation_info info{};
  info.port = CONTEXT_PORT_NO_LISTEN;
  info.options = LWS_SERVER_OPTION_EXPLICIT_VHOSTS | LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
  info.protocols = kProtocols;
  info.user = this;
  info.gid = -1;
  info.uid = -1;
  info.fd_limit_per_thread = 16;  // else its tables follow ulimit -n
  info.timeout_secs = 15;         // its own limit of a handshake, 5 s by default; ours are shorter and tell more
  lws_context* ctx = lws_create_context(&info);
  const std::lock_guard<std::mutex> lock(_mutex);
  _ctx = ctx;
  return ctx != nullptr;
}

// The CA store is loaded for a wss:// server only: it is the largest thing in memory here.
lws_vhost* KovraSignalClient::VhostFor(bool tls) {
  lws_vhost*& vhost = tls ? _link->tlsVhost : _link->plainVhost;
  if (vhost != nullptr) return vhost;
  lws_context_creation_info info{};
  info.port = CONTEXT_PORT_NO_LISTEN;
  info.vhost_name = tls ? "tls" : "plain";
  info.protocols = kProtocols;
  info.timeout_secs = 15;  // ours are shorter and tell more
  info.connect_timeout_secs = 15;
  if (tls) {
    info.options = LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
#ifdef SSL_OP_NO_TLSv1_1
    info.ssl_client_options_set = static_cast<long>(SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1);
#endif
#ifdef SIGNALCONN_CA_FILE
    info.client_ssl_ca_filepath = SIGNALCONN_CA_FILE;
    if (access(SIGNALCONN_CA_FILE, R_OK) != 0) Report("cannot read the CA file " SIGNALCONN_CA_FILE);
#endif
  }
  vhost = lws_create_vhost(_ctx, &info);
  return vhost;
}

int KovraSignalClient::reConnect() {
  if (_interruped || _closing || _ctx == nullptr) return -1;
  DropConnection();
  return StartAttempt();
}

int KovraSignalClient::StartAttempt() {
  Link& link = *_link;
  std::string server;
  {
    const std::lock_guard<std::mutex> lock(_mutex);
    server = _server;
    link.port = _port;
    _connectAsked = false;
  }
  link.addresses.clear();
  link.nextAddress = 0;
  if (link.port < 1 || link.port > 65535 || !ParseServerUrl(server, &link.url)) {
    Report("cannot read the server \"" + server + "\", port " + std::to_string(link.port));
    SetOutcome(-1);
    return -1;
  }
  link.hostHeader = HostHeader(link.url, link.port);
  if (IsNumericAddress(link.url.host)) {
    link.addresses.push_back(link.url.host);
    return StartNextAddress();
  }
  if (link.lookup && link.lookup->Host() == link.url.host) return 0;  // one look-up at a time, however long it takes
  closeConnectThread();
  link.lookup = NameLookup::Start(
      link.url.host, [this] { WakeService(); }, &_connectThread);
  if (link.lookup) return 0;
  AttemptFailed("no thread for looking up the name");
  return -1;
}

void KovraSignalClient::TakeLookup() {
  const std::shared_ptr<NameLookup> lookup = _link->lookup;
  if (!lookup || !lookup->IsDone()) return;
  closeConnectThread();
  if (lookup->Addresses().empty()) {
    AttemptFailed(std::string("the name does not resolve (") + lookup->Error() + ")");
    return;
  }
  _link->addresses = lookup->Addresses();
  _link->nextAddress = 0;
  StartNextAddress();
}

int KovraSignalClient::closeConnectThread() {
  const std::shared_ptr<NameLookup> lookup = std::move(_link->lookup);
  if (!lookup) return 0;
  lookup->Abandon();
  if (lookup->IsDone()) {
    pthread_join(_connectThread, nullptr);
  } else {
    pthread_detach(_connectThread);  // getaddrinfo cannot be interrupted; its thread ends by itself
  }
  _connectThread = 0;
  return 0;
}

int KovraSignalClient::StartNextAddress() {
  Link& link = *_link;
  while (link.nextAddress < link.addresses.size()) {
    const std::string address = link.addresses[link.nextAddress++];
    if (!ConnectTo(address)) continue;
    const bool more = link.nextAddress < link.addresses.size();
    lws_sul_schedule(
        _ctx, 0, &link.stage.entry,
        [](lws_sorted_usec_list_t* entry) { reinterpret_cast<Link::Timer*>(entry)->client->OnStageTimeout(); },
        more ? kAddressUs : kAttemptUs);
    return 0;
  }
  AttemptFailed(link.trouble);
  return -1;
}

bool KovraSignalClient::ConnectTo(const std::string& address) {
  Link& link = *_link;
  link.trouble = "the connection could not be started";
  lws_client_connect_info info{};
  info.context = _ctx;
  info.vhost = VhostFor(link.url.tls);
  if (info.vhost == nullptr) return false;
  info.address = address.c_str();
  info.port = link.port;
  info.path = link.url.path.c_str();
  info.host = link.hostHeader.c_str();
  info.ssl_connection = (link.url.tls ? LCCSCF_USE_SSL : 0) | LCCSCF_HTTP_NO_FOLLOW_REDIRECT;
  info.local_protocol_name = kProtocolName;
  info.retry_and_idle_policy = &kIdlePolicy;

  link.startingConnection = true;
  link.failedWhileStarting = false;
  link.tcpAnswered = false;
  lastComplaint[0] = '\0';
  lws* wsi = lws_client_connect_via_info(&info);
  link.startingConnection = false;
  if (link.failedWhileStarting) return false;
  _wsi = wsi;
  return wsi != nullptr;
}

void KovraSignalClient::OnEstablished(lws* wsi) {
  if (wsi != _wsi) return;  // an attempt that was given up
  lws_sul_cancel(&_link->stage.entry);
  _link->addresses.clear();  // after this link the next attempt starts over, with the name
  _link->nextAddress = 0;
  _link->loginDue = true;
  _connected = true;
  SetOutcome(0);
  lws_callback_on_writable(wsi);
}

void KovraSignalClient::OnConnectionError(lws* wsi, const std::string& text) {
  if (_closing) return;
  const std::string trouble = ExplainConnectTrouble(lws_http_client_http_response(wsi), text, lastComplaint);
  if (_link->startingConnection) {
    _link->failedWhileStarting = true;
    _link->trouble = trouble;
  } else if (wsi == _wsi) {
    _wsi = nullptr;  // the end of wsi, which follows, is told already
    AddressFailed(trouble);
  }
}

void KovraSignalClient::OnStageTimeout() {
  Link& link = *_link;
  bool failed = false;
  if (!link.tcpAnswered && link.nextAddress < link.addresses.size() && TcpAnswered(0, &failed)) {
    link.tcpAnswered = true;  // this address lives: give it the rest of its time
    lws_sul_schedule(_ctx, 0, &link.stage.entry, link.stage.entry.cb, kAttemptUs - kAddressUs);
    return;
  }
  DropConnection();
  AddressFailed("no answer");
}

// Sees whether the TCP connection stands, without taking the socket's error from libwebsockets.
bool KovraSignalClient::TcpAnswered(int waitMs, bool* failed) {
  pollfd socket{lws_get_socket_fd(_wsi), POLLOUT, 0};
  if (poll(&socket, 1, waitMs) != 1) return false;
  *failed = (socket.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
  return !*failed;
}

void KovraSignalClient::AddressFailed(const std::string& why) {
  _link->trouble = why;
  lws_sul_cancel(&_link->stage.entry);
  if (_link->nextAddress == _link->addresses.size()) {
    AttemptFailed(why);
  } else {
    RetryIn(1);  // from the loop, not from inside libwebsockets' callback
  }
}

void KovraSignalClient::AttemptFailed(const std::string& why) {
  Report("cannot reach " + _link->hostHeader + ": " + why + "; trying again");
  SetOutcome(-1);
  RetryAfterBackOff();
}

void KovraSignalClient::RetryAfterBackOff() {
  std::uint32_t random = 0;
  lws_get_random(_ctx, &random, sizeof random);
  RetryIn(BackOffDelayMs(++_link->failures, random) * LWS_US_PER_MS + 1);
}

void KovraSignalClient::RetryIn(lws_usec_t microseconds) {
  if (_interruped || _closing) return;
  lws_sul_schedule(
      _ctx, 0, &_link->retry.entry,
      [](lws_sorted_usec_list_t* entry) {
        KovraSignalClient* client = reinterpret_cast<Link::Timer*>(entry)->client;
        if (client->_link->nextAddress < client->_link->addresses.size()) {
          client->StartNextAddress();
        } else {
          client->reConnect();
        }
      },
      microseconds);
}

void KovraSignalClient::SetOutcome(int outcome) {
  const std::lock_guard<std::mutex> lock(_mutex);
  if (_connectAsked) return;  // of an attempt before the one that connect() waits for
  _link->outcome = outcome;
  _link->outcomeKnown.Set();
}

void KovraSignalClient::DropConnection() {
  lws_sul_cancel(&_link->stage.entry);
  lws_sul_cancel(&_link->retry.entry);
  lws* wsi = _wsi;
  ForgetConnection();
  if (wsi != nullptr) lws_set_timeout(wsi, PENDING_TIMEOUT_CLOSE_SEND, LWS_TO_KILL_ASYNC);
}

void KovraSignalClient::OnClosed(lws* wsi) {
  if (wsi != _wsi || _closing) return;
  const bool wasConnected = _connected;
  ForgetConnection();
  if (wasConnected) {
    RetryAfterBackOff();
  } else {
    AddressFailed("no answer");
  }
}

void KovraSignalClient::ForgetConnection() {
  _wsi = nullptr;
  _connected = false;
  _complete_message.clear();
  _link->discarding = false;
  _link->utf8 = Utf8Check();
  _link->refusal = 0;
  _link->loginDue = false;
  lws_sul_cancel(&_link->settle.entry);
  std::deque<std::string> unconfirmed = _link->window.TakeBack();
  const std::lock_guard<std::mutex> lock(_mutex);
  for (; !unconfirmed.empty(); unconfirmed.pop_back()) {
    _queuedBytes += unconfirmed.back().size();
    _messages.push_front(std::move(unconfirmed.back()));
  }
}

void KovraSignalClient::Report(const std::string& trouble) {
  if (trouble == _link->reported) return;
  _link->reported = trouble;
  fprintf(stderr, "signalling: %s\n", trouble.c_str());
}

// Before the service thread's first round the caller of connect() drives libwebsockets, but only to consume
// failures: once TCP answers, the rest is the service thread's, since the sign-in text is not known yet.
int KovraSignalClient::DriveFirstAttempt() {
  Link& link = *_link;
  const lws_usec_t start = lws_now_usecs();
  reConnect();
  for (int left = kFirstAttemptMs; left > 0; left = kFirstAttemptMs - MillisecondsSince(start)) {
    if (link.outcomeKnown.IsSet()) return link.outcome;
    if (link.lookup) {
      link.lookup->WaitFor(left);
      TakeLookup();
      continue;
    }
    bool failed = false;
    if (_wsi != nullptr && TcpAnswered(left < 50 ? left : 50, &failed)) return 0;
    Round(1);  // one pass: it cannot take a connection from TCP all the way to the sign-in
  }
  return 0;
}
