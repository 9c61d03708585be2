// A scripted server that runs by itself: it opens every connection and writes down what comes.
#ifndef SIGNALCONN_TESTS_RECORDING_SERVER_H
#define SIGNALCONN_TESTS_RECORDING_SERVER_H

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "scripted_server.h"

namespace support {

struct ReceivedText {
  int connection = 0;  // numbered from 0 in the order of acceptance
  std::string text;
  Clock::time_point time;
};

// Any thread may call any operation.
class RecordingServer {
 public:
  explicit RecordingServer(const ServerOptions& options = {});
  ~RecordingServer();
  RecordingServer(const RecordingServer&) = delete;
  RecordingServer& operator=(const RecordingServer&) = delete;

  int Port() const { return server_.Port(); }
  int Accepted();
  std::vector<ReceivedText> Received();
  std::vector<std::string> Texts();
  // Waits until count texts have come, over all connections. Returns whether they have.
  bool WaitForTexts(std::size_t count, std::chrono::milliseconds within = kPatience);
  // Sends text on the newest connection, once there is an open one.
  void Send(const std::string& text);
  // Calls reply with every text from here on, on the server's thread, and sends what it returns, if it is not
  // empty, on the connection that the text came from.
  void Answer(std::function<std::string(const std::string& text)> reply);
  // Resets all connections.
  void ResetAll();

 private:
  struct Peer {
    int number = 0;
    std::unique_ptr<ServerConnection> connection;
  };

  void Run();
  void TakeConnection();
  void TakeTexts(Peer& peer);
  void CarryOutOrders();
  void Wake();

  ScriptedServer server_;
  UniqueFd wake_;
  std::vector<Peer> peers_;  // the thread's own

  std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::vector<ReceivedText> received_;
  std::vector<std::string> toSend_;
  std::function<std::string(const std::string& text)> reply_;
  bool resetAll_ = false;
  bool stop_ = false;
  int accepted_ = 0;

  std::thread thread_;
};

}  // namespace support

#endif  // SIGNALCONN_TESTS_RECORDING_SERVER_H
