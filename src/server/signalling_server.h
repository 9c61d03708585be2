#ifndef SIGNALCONN_SERVER_SIGNALLING_SERVER_H
#define SIGNALCONN_SERVER_SIGNALLING_SERVER_H

#include <libwebsockets.h>

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "listen_address.h"
#include "server_connection.h"
#include "switchboard.h"

namespace signalconn::server {

// WebSockets for the switchboard and files for browsers, on one port. All of it runs on the thread that makes
// the object and calls run(). One object in a process at a time.
class SignallingServer {
 public:
  struct Settings {
    ListenAddress address;
    int port;                  // 0: the kernel chooses
    std::string webDirectory;  // empty: no pages
    int stopDescriptor;        // becomes readable when the server shall end; taken over and closed
  };
  using Log = std::function<void(const std::string& line)>;

  // Listens from here on. Throws std::runtime_error when it cannot. switchboard outlives the object.
  SignallingServer(Settings settings, Switchboard& switchboard, Log log);
  ~SignallingServer();
  SignallingServer(const SignallingServer&) = delete;
  SignallingServer& operator=(const SignallingServer&) = delete;

  int port() const;
  void run();  // until stopDescriptor is readable; then closes the connections, within about 3 s

 private:
  struct Timer : lws_sorted_usec_list_t {
    explicit Timer(SignallingServer* owner) : lws_sorted_usec_list_t{}, server(owner) {}
    SignallingServer* const server;
  };
  struct ContextDeleter {
    void operator()(lws_context* context) const { lws_context_destroy(context); }
  };

  static int callback(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t length);
  int onEvent(lws* wsi, lws_callback_reasons reason, void* user, std::string_view in);
  int onEstablished(lws* wsi, ConnectionId& id);
  int onReceived(lws* wsi, ServerConnection& connection, std::string_view piece);
  void onClosed(ConnectionId id);
  void onTick();
  void stop();

  void listen();
  void makeVhost();
  void watchStopDescriptor();
  void scheduleTick();
  ServerConnection* find(ConnectionId id);
  void perform();  // what the switchboard wants done
  void perform(const Action& action);

  const Settings settings_;
  Switchboard& switchboard_;
  const Log log_;

  std::array<lws_protocols, 2> protocols_{};
  lws_http_mount mount_{};
  std::map<ConnectionId, ServerConnection> connections_;
  ConnectionId lastId_ = 0;
  bool isStopping_ = false;
  Timer tickTimer_{this};
  std::unique_ptr<lws_context, ContextDeleter> context_;
  lws_vhost* vhost_ = nullptr;  // owned by context_
};

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_SIGNALLING_SERVER_H
