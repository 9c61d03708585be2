#include "server_program.h"

#include <regex>
#include <stdexcept>

namespace support {

namespace {

std::vector<std::string> CommandLine(const std::string& path, const std::vector<std::string>& arguments) {
  std::vector<std::string> line{path, "--port", "0"};
  line.insert(line.end(), arguments.begin(), arguments.end());
  return line;
}

}  // namespace

ServerProgram::ServerProgram(const std::string& path, const std::vector<std::string>& arguments)
    : process_(CommandLine(path, arguments)) {
  const std::regex listening(R"(listening on http://[^\n]*:([0-9]+)/\n)");
  std::smatch match;
  std::string output;
  if (process_.WaitForOutput("/\n")) output = process_.Output();
  if (!std::regex_search(output, match, listening)) {
    throw std::runtime_error("the server does not listen: " + process_.Output() + process_.Errors());
  }
  port_ = std::stoi(match[1]);
}

}  // namespace support
