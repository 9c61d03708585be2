// The two clients that bench_channel compares.
#ifndef SIGNALCONN_BENCH_CHANNEL_CLIENT_H
#define SIGNALCONN_BENCH_CHANNEL_CLIENT_H

#include <memory>
#include <string>

// A client with a service thread of its own, connected when it is made. Send from one thread.
class ChannelClient {
 public:
  virtual ~ChannelClient() = default;
  virtual bool Send(const std::string& text) = 0;  // false: the queue is full
  virtual long Received() = 0;                     // texts so far
};

std::unique_ptr<ChannelClient> MakeLibraryClient(int port);
// libwebsockets alone: a locked queue, one context, a service thread; no limits, confirmation, or reconnection.
std::unique_ptr<ChannelClient> MakeBareClient(int port);

#endif  // SIGNALCONN_BENCH_CHANNEL_CLIENT_H
