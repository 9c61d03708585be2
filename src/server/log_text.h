#ifndef SIGNALCONN_SERVER_LOG_TEXT_H
#define SIGNALCONN_SERVER_LOG_TEXT_H

#include <string>
#include <string_view>

namespace signalconn::server {

// A text from the network for a log line: in double quotes, everything but printable ASCII escaped, so that it
// can neither end the line nor steer a terminal; cut after 80 bytes.
std::string inQuotes(std::string_view text);

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_LOG_TEXT_H
