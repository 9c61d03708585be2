// The WebSocket client of the one connection to the signalling server.
#ifndef SIGNALCONN_SIGNAL_CLIENT_H
#define SIGNALCONN_SIGNAL_CLIENT_H

#include <libwebsockets.h>
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

// Messages and bytes that wait to be written; what is beyond them is refused.
const std::size_t kMostQueuedMessages = 1000;
const std::size_t kMostQueuedBytes = 1024 * 1024;
// An inbound message above this closes the link with 1009.
const std::size_t kLongestInboundMessage = 1024 * 1024;

class SignalClientCallback {
 public:
  virtual ~SignalClientCallback() = default;
  // One complete inbound text message. Called on the service thread, inside lwsService, with no lock held.
  virtual void onMessage(const std::string& message) = 0;
};

// Calling order: registerObserver, connect, setLoginMessage, then lwsService in a loop on one thread, the
// service thread, then toInterruped. Only one thread at a time drives libwebsockets: the service thread, or
// before its first round the caller of connect. The link comes back by itself after every failure.
class KovraSignalClient {
 public:
  KovraSignalClient();
  // Any thread. Waits for the service thread to leave lwsService, 1 s at most; a thread that is inside for longer, or
  // that is the calling one (exit() inside onMessage), keeps its connection until the process is gone.
  ~KovraSignalClient();
  KovraSignalClient(const KovraSignalClient&) = delete;
  KovraSignalClient& operator=(const KovraSignalClient&) = delete;

  // The receiver of inbound messages: not owned, must outlive this object. Before connect.
  void registerObserver(SignalClientCallback* callback);

  // Starts connecting to server (a host, an address, or a URL; see server_url.h) and port, in place of any
  // link there is. Returns within 3 s: 0 when the attempt is under way, negative when it is known to
  // have failed (refused, unreachable, no such name, unreadable server). Either way lwsService goes on trying. Any
  // thread.
  int connect(std::string server, int port);

  // Drops the link, if any, and starts a new attempt to the stored server. Negative when none was started.
  // Thread that drives libwebsockets only.
  int reConnect();

  // Joins _connectThread if it has finished; lets go of it if a resolver still holds it. Returns 0. Thread that
  // drives libwebsockets, or destruction.
  int closeConnectThread();

  bool isConnected();   // any thread
  bool isInterruped();  // any thread
  void toInterruped();  // any thread: no further attempts

  // Queues one text message; it is written once a link is up, behind the sign-in and what was queued before.
  // It arrives at least once: a link that breaks may repeat the last ones on the next (delivery_window.h).
  // Returns 0, or negative when kMostQueuedMessages or kMostQueuedBytes are waiting. Any thread.
  int sendMessage(const std::string& message);

  // Replaces the text that is sent first on every link from the next one on; empty for none. Any thread.
  void setLoginMessage(std::string message);

  // One round of service: waits for the network, 220 ms at most, and handles what came. Returns 0, or
  // negative when servicing has become impossible (libwebsockets failed, or this object is being destroyed).
  int lwsService();

  static int sLwsCallback(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t len);
  int onLwsCallback(lws* wsi, lws_callback_reasons reason, void* in, std::size_t len);
  int onLwsWriteable(lws* wsi);

 private:
  struct Link;

  // signal_connect.cpp: attempts and their ends.
  bool EnsureContext();
  lws_vhost* VhostFor(bool tls);
  int StartAttempt();
  int StartNextAddress();
  bool ConnectTo(const std::string& address);
  void TakeLookup();
  void AddressFailed(const std::string& why);
  void AttemptFailed(const std::string& why);
  void RetryAfterBackOff();
  void RetryIn(lws_usec_t microseconds);
  void SetOutcome(int outcome);
  void DropConnection();
  void OnClosed(lws* wsi);
  void ForgetConnection();
  void OnEstablished(lws* wsi);
  void OnConnectionError(lws* wsi, const std::string& text);
  void OnStageTimeout();
  void Report(const std::string& trouble);
  int DriveFirstAttempt();
  bool TcpAnswered(int waitMs, bool* failed);

  // signal_client.cpp: rounds and messages.
  bool TakeDriver();
  void ReleaseDriver();
  void TakeConnectRequest();
  int Round(int longestMs);
  void WakeService();
  void OnReceive(lws* wsi, const char* data, std::size_t len);
  void OnText(lws* wsi);
  void Refuse(lws* wsi, lws_close_status code, const char* trouble);
  bool WriteText(lws* wsi, const std::string& text);
  bool WritePing(lws* wsi);
  bool WriteNextMessage(lws* wsi);
  void OnPong(const char* data, std::size_t len);
  void OnSettled();
  bool HasMoreToWrite();

  std::string _server;
  int _port = 0;
  std::string _complete_message;
  SignalClientCallback* _callback = nullptr;
  std::deque<std::string> _messages;
  std::string _loginMsg;
  std::mutex _mutex;
  lws* _wsi = nullptr;
  lws_context* _ctx = nullptr;
  std::atomic<bool> _interruped{false};
  std::atomic<bool> _connected{false};
  pthread_t _connectThread = 0;

  std::size_t _queuedBytes = 0;             // of _messages; under _mutex
  bool _connectAsked = false;               // connect() left the attempt to the service thread; under _mutex
  std::atomic<bool> _wakePending{false};    // a wake-up is on its way to the service thread
  std::atomic<bool> _closing{false};        // destruction has begun
  std::atomic<bool> _driven{false};         // some thread drives libwebsockets; kept for good by the destructor
  std::atomic<pthread_t> _driver{};         // that thread, while _driven
  std::atomic<bool> _served{false};         // lwsService has been called,
  std::atomic<pthread_t> _serviceThread{};  // on this thread
  std::unique_ptr<Link> _link;              // what only the driving thread touches
};

#endif  // SIGNALCONN_SIGNAL_CLIENT_H
