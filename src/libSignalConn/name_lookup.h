// Resolving the server's name without waiting for the resolver.
#ifndef SIGNALCONN_NAME_LOOKUP_H
#define SIGNALCONN_NAME_LOOKUP_H

#include <pthread.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "monotonic_event.h"

// One look-up, carried out by one call of getaddrinfo on a thread of its own. getaddrinfo cannot be
// interrupted and may hang for minutes, so the thread shares ownership of the look-up and may outlive
// everybody else.
class NameLookup {
 public:
  // Starts the thread and stores its handle, which the caller joins or detaches. whenDone is called on
  // that thread at the end, unless the look-up was abandoned. Returns null when no thread could be made.
  static std::shared_ptr<NameLookup> Start(const std::string& host, std::function<void()> whenDone, pthread_t* thread);

  const std::string& Host() const { return host_; }
  bool WaitFor(int milliseconds) { return done_.WaitFor(milliseconds); }
  bool IsDone() { return done_.IsSet(); }

  // After the end: numeric addresses in the order in which to try them (RFC 6724), eight at most; none when
  // the name did not resolve, and Error() then says why.
  const std::vector<std::string>& Addresses() const { return addresses_; }
  const char* Error() const;

  // After the return whenDone is neither running nor called any more.
  void Abandon();

 private:
  NameLookup(std::string host, std::function<void()> whenDone)
      : host_(std::move(host)), whenDone_(std::move(whenDone)) {}
  static void* ThreadBody(void* args);
  void Resolve();

  const std::string host_;
  std::vector<std::string> addresses_;
  int error_ = 0;
  MonotonicEvent done_;
  std::mutex mutex_;  // guards whenDone_, also while it runs
  std::function<void()> whenDone_;
};

// Whether host is a numeric address, which needs no look-up.
bool IsNumericAddress(const std::string& host);

#endif  // SIGNALCONN_NAME_LOOKUP_H
