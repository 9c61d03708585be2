// A WebSocket server on loopback for the benchmarks: takes texts, and sends as many as asked for.
#ifndef SIGNALCONN_BENCH_LOOPBACK_SERVER_H
#define SIGNALCONN_BENCH_LOOPBACK_SERVER_H

#include <libwebsockets.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

class LoopbackServer {
 public:
  using TextReceiver = std::function<void(const char* text, std::size_t len)>;  // on the server's thread

  // Listens on 127.0.0.1; port 0: the kernel chooses. A client that says "send N" gets N texts of 200 bytes.
  LoopbackServer(int port, TextReceiver receiver);
  ~LoopbackServer();  // resets every connection
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  int Port() const { return port_; }

 private:
  struct Session {
    long toSend;
  };

  static int Callback(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t len);
  void OnText(lws* wsi, Session* session, const char* text, std::size_t len);
  static int SendOne(lws* wsi, Session* session);

  TextReceiver receiver_;
  lws_protocols protocols_[2]{};
  lws_context* context_ = nullptr;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

#endif  // SIGNALCONN_BENCH_LOOPBACK_SERVER_H
