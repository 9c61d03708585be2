#ifndef SIGNALCONN_SERVER_REFUSAL_H
#define SIGNALCONN_SERVER_REFUSAL_H

#include <stdexcept>
#include <string>

namespace signalconn::server {

// Thrown while a message is handled, before it has changed anything; becomes the error message to its sender.
class Refusal : public std::runtime_error {
 public:
  Refusal(int code, const std::string& words) : std::runtime_error(words), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_REFUSAL_H
