#ifndef SIGNALCONN_SERVER_INBOUND_MESSAGE_H
#define SIGNALCONN_SERVER_INBOUND_MESSAGE_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "json.h"

namespace signalconn::server {

// One message as a party sent it. What is missing or of the wrong type is refused with 400.
class InboundMessage {
 public:
  explicit InboundMessage(std::string_view text);  // refuses what is not one JSON object

  std::string text(const char* key) const;
  std::string text(const char* key, std::size_t longest) const;    // longest in bytes
  std::optional<std::string> optionalText(const char* key) const;  // nothing when missing
  std::optional<std::string> textForEcho(const char* key) const;   // nothing when missing or no text; never refuses
  int number(const char* key) const;

 private:
  Json object_;
};

// A serial code: at most 64 bytes, no control characters. Refused with 400 otherwise.
void requireSerialCode(std::string_view text);

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_INBOUND_MESSAGE_H
