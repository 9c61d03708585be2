#include "options.h"

#include <charconv>
#include <cstddef>
#include <string_view>

namespace signalconn::server {

namespace {

int parseNumber(const std::string& name, std::string_view text, int lowest, int highest) {
  int number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end || number < lowest || number > highest) {
    throw OptionsError(name + " wants a number from " + std::to_string(lowest) + " to " + std::to_string(highest));
  }
  return number;
}

std::string requireValue(const std::string& name, const std::string& value) {
  if (value.empty()) throw OptionsError(name + " wants a value");
  return value;
}

void apply(Options& options, const std::string& name, const std::string& value) {
  if (name == "--host") {
    options.host = requireValue(name, value);
  } else if (name == "--port") {
    options.port = parseNumber(name, value, 0, 65535);
  } else if (name == "--config") {
    options.configPath = requireValue(name, value);
  } else if (name == "--web") {
    options.webDirectory = requireValue(name, value);
  } else if (name == "--idle-timeout") {
    options.idleTimeout = std::chrono::seconds(parseNumber(name, value, 2, 86400));
  } else {
    throw OptionsError("unknown option " + name);
  }
}

}  // namespace

Options parseOptions(const std::vector<std::string>& arguments) {
  Options options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument == "--help") {
      options.help = true;
      continue;
    }
    const std::size_t equals = argument.find('=');
    const std::string name = argument.substr(0, equals);
    if (name.rfind("--", 0) != 0) throw OptionsError("unexpected argument " + argument);
    if (equals != std::string::npos) {
      apply(options, name, argument.substr(equals + 1));
    } else if (i + 1 < arguments.size()) {
      apply(options, name, arguments[++i]);
    } else {
      apply(options, name, "");
    }
  }
  return options;
}

std::string usage() {
  return "Usage: signalconn-server [OPTION]...\n"
         "Joins cameras and viewers: signalling over WebSocket, and the viewer page, on one port.\n"
         "\n"
         "  --host ADDRESS          listen on this address (127.0.0.1)\n"
         "  --port PORT             listen on this port (8080); 0: any free one\n"
         "  --config FILE           accounts, STUN and TURN servers, as JSON:\n"
         "                          {\"accounts\":[{\"key\":\"..\",\"secret\":\"..\"}],\n"
         "                           \"stun\":[\"stun:HOST:PORT\"],\n"
         "                           "
         "\"turn\":[{\"url\":\"turn:HOST:PORT\",\"username\":\"..\",\"credential\":\"..\"}]}\n"
         "                          without it: account demo, secret demo, on a loopback address only\n"
         "  --web DIR               serve the viewer page from this directory\n"
         "  --idle-timeout SECONDS  drop a connection on which nothing arrives for so long (60)\n"
         "  --help                  print this and exit\n"
         "\n"
         "SIGINT and SIGTERM end the server.\n";
}

}  // namespace signalconn::server
