#include "signalling_server.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <variant>

#include "protocol.h"

namespace signalconn::server {

namespace {

constexpr lws_usec_t kTickInterval = 1 * LWS_USEC_PER_SEC;
constexpr std::chrono::seconds kClosingTime{2};
constexpr rlim_t kMostDescriptors = 4096;
constexpr rlim_t kOtherDescriptors = 32;  // files of the pages, standard streams, resolver
constexpr unsigned kHandshakeSeconds = 10;
constexpr int kHttpKeepAliveSeconds = 30;
constexpr char kProtocolName[] = "signalling";

// Without this bound an exhausted process would spin on a listening socket that it cannot accept from.
unsigned descriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kMostDescriptors + kOtherDescriptors) {
    return static_cast<unsigned>(kMostDescriptors);
  }
  return static_cast<unsigned>(std::max(limit.rlim_cur, 2 * kOtherDescriptors) - kOtherDescriptors);
}

// The pages load from here alone, run no inline script and are framed by nobody.
const lws_protocol_vhost_options* securityHeaders() {
  static const lws_protocol_vhost_options kOpener{nullptr, nullptr, "cross-origin-opener-policy:", "same-origin"};
  static const lws_protocol_vhost_options kPermissions{
      &kOpener, nullptr, "permissions-policy:", "microphone=(self), camera=(), geolocation=()"};
  static const lws_protocol_vhost_options kReferrer{&kPermissions, nullptr, "referrer-policy:", "no-referrer"};
  static const lws_protocol_vhost_options kSniffing{&kReferrer, nullptr, "x-content-type-options:", "nosniff"};
  static const lws_protocol_vhost_options kContent{
      &kSniffing, nullptr, "content-security-policy:",
      "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; media-src 'self' blob:; "
      "font-src 'self'; connect-src 'self'; manifest-src 'self'; base-uri 'none'; form-action 'none'; "
      "frame-ancestors 'none'"};
  return &kContent;
}

const lws_protocol_vhost_options* furtherMimeTypes() {
  static const lws_protocol_vhost_options kModule{nullptr, nullptr, ".mjs", "text/javascript"};
  return &kModule;
}

TimePoint now() { return std::chrono::steady_clock::now(); }

std::string peerAddress(lws* wsi) {
  std::array<char, 64> text{};
  lws_get_peer_simple(wsi, text.data(), text.size());
  return text.data();
}

}  // namespace

SignallingServer::SignallingServer(Settings settings, Switchboard& switchboard, Log log)
    : settings_(std::move(settings)), switchboard_(switchboard), log_(std::move(log)) {
  listen();
  watchStopDescriptor();
}

SignallingServer::~SignallingServer() {
  // Destroying the context closes what is still open; those callbacks must not start anything new.
  isStopping_ = true;
  lws_sul_cancel(&tickTimer_);
}

void SignallingServer::listen() {
  lws_context_creation_info info{};
  info.options = LWS_SERVER_OPTION_EXPLICIT_VHOSTS;
  info.user = this;
  info.fd_limit_per_thread = descriptorLimit();
  context_.reset(lws_create_context(&info));
  if (!context_) throw std::runtime_error("libwebsockets cannot be set up");
  makeVhost();
}

void SignallingServer::makeVhost() {
  static const lws_retry_bo_t kNoOwnPings{};  // the switchboard watches the connections
  protocols_[0] = {kProtocolName, callback, sizeof(ConnectionId), 0, 0, nullptr, 0};
  mount_.mountpoint = "/";
  mount_.mountpoint_len = 1;
  mount_.origin = settings_.webDirectory.c_str();
  mount_.def = "index.html";
  mount_.origin_protocol = LWSMPRO_FILE;
  mount_.extra_mimetypes = furtherMimeTypes();

  lws_context_creation_info info{};
  info.options = LWS_SERVER_OPTION_FAIL_UPON_UNABLE_TO_BIND;
  if (!settings_.address.isIpv6) info.options |= LWS_SERVER_OPTION_DISABLE_IPV6;
  info.iface = settings_.address.numeric.c_str();
  info.port = settings_.port;
  info.protocols = protocols_.data();
  info.mounts = settings_.webDirectory.empty() ? nullptr : &mount_;
  info.headers = securityHeaders();
  info.retry_and_idle_policy = &kNoOwnPings;
  info.timeout_secs = kHandshakeSeconds;
  info.keepalive_timeout = kHttpKeepAliveSeconds;
  vhost_ = lws_create_vhost(context_.get(), &info);
  if (vhost_ == nullptr) throw std::runtime_error("cannot listen on " + urlOf(settings_.address, settings_.port));
}

void SignallingServer::watchStopDescriptor() {
  lws_sock_file_fd_type descriptor{};
  descriptor.filefd = settings_.stopDescriptor;
  if (lws_adopt_descriptor_vhost(vhost_, LWS_ADOPT_RAW_FILE_DESC, descriptor, kProtocolName, nullptr) == nullptr) {
    throw std::runtime_error("signals cannot be watched");
  }
}

int SignallingServer::port() const { return lws_get_vhost_listen_port(vhost_); }

void SignallingServer::run() {
  scheduleTick();
  while (!(isStopping_ && connections_.empty()) && lws_service(context_.get(), 0) >= 0) {
  }
}

void SignallingServer::scheduleTick() {
  const auto elapsed = [](lws_sorted_usec_list_t* timer) { static_cast<Timer*>(timer)->server->onTick(); };
  lws_sul_schedule(context_.get(), 0, &tickTimer_, elapsed, kTickInterval);
}

void SignallingServer::onTick() {
  scheduleTick();
  for (auto& [id, connection] : connections_) {
    if (connection.isOverdue(now())) connection.drop();
  }
  if (isStopping_) return;
  switchboard_.tick(now());
  perform();
}

void SignallingServer::stop() {
  if (isStopping_) return;
  isStopping_ = true;
  for (auto& [id, connection] : connections_)
    connection.close(kCloseGoingAway, "the server ends", now() + kClosingTime);
}

int SignallingServer::callback(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t length) {
  auto* server = static_cast<SignallingServer*>(lws_context_user(lws_get_context(wsi)));
  switch (reason) {
    case LWS_CALLBACK_ESTABLISHED:
    case LWS_CALLBACK_RECEIVE:
    case LWS_CALLBACK_RECEIVE_PONG:
    case LWS_CALLBACK_SERVER_WRITEABLE:
    case LWS_CALLBACK_CLOSED:
      return server->onEvent(wsi, reason, user, {static_cast<const char*>(in), length});
    case LWS_CALLBACK_HTTP_CONFIRM_UPGRADE:
      return std::strcmp(static_cast<const char*>(in), "websocket") == 0 ? 0 : -1;
    case LWS_CALLBACK_RAW_RX_FILE:
      server->stop();
      return -1;
    default:
      return lws_callback_http_dummy(wsi, reason, user, in, length);
  }
}

int SignallingServer::onEvent(lws* wsi, lws_callback_reasons reason, void* user, std::string_view in) {
  auto& id = *static_cast<ConnectionId*>(user);
  if (reason == LWS_CALLBACK_ESTABLISHED) return onEstablished(wsi, id);
  if (reason == LWS_CALLBACK_CLOSED) {
    onClosed(id);
    return 0;
  }
  ServerConnection* connection = find(id);
  if (connection == nullptr) return -1;
  if (reason == LWS_CALLBACK_SERVER_WRITEABLE) return connection->write() ? 0 : -1;
  if (connection->isEnding()) return 0;
  if (reason == LWS_CALLBACK_RECEIVE) return onReceived(wsi, *connection, in);
  switchboard_.arrived(id, now());
  return 0;
}

int SignallingServer::onEstablished(lws* wsi, ConnectionId& id) {
  if (isStopping_) return -1;
  id = ++lastId_;
  connections_.try_emplace(id, id, wsi);
  switchboard_.connected(id, peerAddress(wsi), now());
  return 0;
}

int SignallingServer::onReceived(lws* wsi, ServerConnection& connection, std::string_view piece) {
  const ConnectionId id = connection.id();
  switch (connection.take(piece, lws_is_final_fragment(wsi) != 0, lws_frame_is_binary(wsi) != 0)) {
    case ServerConnection::Inbound::kPartial:
      switchboard_.arrived(id, now());
      break;
    case ServerConnection::Inbound::kText:
      switchboard_.received(id, connection.takeMessage(), now());
      break;
    case ServerConnection::Inbound::kBinary:
      switchboard_.receivedBinary(id, now());
      break;
    case ServerConnection::Inbound::kOversized:
      switchboard_.receivedTooMuch(id, now());
      break;
  }
  perform();
  return 0;
}

void SignallingServer::onClosed(ConnectionId id) {
  connections_.erase(id);
  if (isStopping_) return;
  switchboard_.closed(id, now());
  perform();
}

ServerConnection* SignallingServer::find(ConnectionId id) {
  const auto entry = connections_.find(id);
  return entry == connections_.end() ? nullptr : &entry->second;
}

void SignallingServer::perform() {
  // An action may make a queue overflow, which makes further actions.
  for (auto actions = switchboard_.takeActions(); !actions.empty(); actions = switchboard_.takeActions()) {
    for (const Action& action : actions) perform(action);
  }
}

void SignallingServer::perform(const Action& action) {
  if (const auto* line = std::get_if<LogLine>(&action)) {
    log_(line->text);
  } else if (const auto* message = std::get_if<SendText>(&action)) {
    ServerConnection* connection = find(message->to);
    if (connection != nullptr && !connection->isEnding() && !connection->send(*message)) {
      switchboard_.overflowed(message->to, now());
    }
  } else if (const auto* ping = std::get_if<SendPing>(&action)) {
    if (ServerConnection* connection = find(ping->to)) connection->ping();
  } else if (const auto* close = std::get_if<CloseConnection>(&action)) {
    if (ServerConnection* connection = find(close->connection)) {
      connection->close(close->status, close->reason, now() + kClosingTime);
    }
  } else if (const auto* drop = std::get_if<DropConnection>(&action)) {
    if (ServerConnection* connection = find(drop->connection)) connection->drop();
  }
}

}  // namespace signalconn::server
