#include "loopback_server.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

const std::size_t kTextBytes = 200;

}  // namespace

LoopbackServer::LoopbackServer(int port, TextReceiver receiver) : receiver_(std::move(receiver)) {
  protocols_[0] = {"bench", Callback, sizeof(Session), 4096, 0, nullptr, 0};
  lws_set_log_level(LLL_ERR, nullptr);
  lws_context_creation_info info{};
  info.port = port;
  info.iface = "127.0.0.1";
  info.protocols = protocols_;
  info.user = this;
  info.gid = -1;
  info.uid = -1;
  context_ = lws_create_context(&info);
  if (context_ == nullptr) {
    fprintf(stderr, "cannot listen on 127.0.0.1:%d\n", port);
    exit(1);
  }
  port_ = lws_get_vhost_listen_port(lws_get_vhost_by_name(context_, "default"));
  thread_ = std::thread([this] {
    while (!stop_ && lws_service(context_, 0) >= 0) {
    }
  });
}

LoopbackServer::~LoopbackServer() {
  stop_ = true;
  lws_cancel_service(context_);
  thread_.join();
  lws_context_destroy(context_);
}

int LoopbackServer::Callback(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t len) {
  auto* server = static_cast<LoopbackServer*>(lws_context_user(lws_get_context(wsi)));
  auto* session = static_cast<Session*>(user);
  switch (reason) {
    case LWS_CALLBACK_ESTABLISHED:
      session->toSend = 0;
      return 0;
    case LWS_CALLBACK_RECEIVE:
      server->OnText(wsi, session, static_cast<const char*>(in), len);
      return 0;
    case LWS_CALLBACK_SERVER_WRITEABLE:
      return session->toSend > 0 ? SendOne(wsi, session) : 0;
    default:
      return 0;
  }
}

void LoopbackServer::OnText(lws* wsi, Session* session, const char* text, std::size_t len) {
  if (len > 5 && std::strncmp(text, "send ", 5) == 0) {
    session->toSend = std::atol(std::string(text + 5, len - 5).c_str());
    lws_callback_on_writable(wsi);
  } else {
    receiver_(text, len);
  }
}

int LoopbackServer::SendOne(lws* wsi, Session* session) {
  unsigned char buffer[LWS_PRE + kTextBytes];
  std::memset(buffer + LWS_PRE, 'x', kTextBytes);
  if (lws_write(wsi, buffer + LWS_PRE, kTextBytes, LWS_WRITE_TEXT) < static_cast<int>(kTextBytes)) return -1;
  if (--session->toSend > 0) lws_callback_on_writable(wsi);
  return 0;
}
