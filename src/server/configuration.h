#ifndef SIGNALCONN_SERVER_CONFIGURATION_H
#define SIGNALCONN_SERVER_CONFIGURATION_H

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "accounts.h"
#include "outbound_message.h"

namespace signalconn::server {

struct Configuration {
  std::vector<Account> accounts;
  IceServers iceServers;
};

// Says in words, without any value of the file, what is wrong and where.
class ConfigurationError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The account demo with the secret demo, no ICE servers: for trying things out on one machine.
Configuration demoConfiguration();

// Both throw ConfigurationError. text is the file's content:
// {"accounts":[{"key":"…","secret":"…"}],"stun":["stun:host:port"],
//  "turn":[{"url":"turn:host:port","username":"…","credential":"…"}]}
// accounts holds at least one; stun and turn may be missing; other keys are faults.
Configuration parseConfiguration(std::string_view text);
Configuration readConfiguration(const std::string& path);

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_CONFIGURATION_H
