#include "server_program.h"

#include <cstddef>
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
  const std::string announcement = "listening on http://";
  const bool listens = process_.WaitForOutput(announcement) && process_.WaitForOutput("/\n");
  const std::string output = process_.Output();
  if (!listens) throw std::runtime_error("the server does not listen: " + output + process_.Errors());
  const std::size_t url = output.find(announcement) + announcement.size();
  const std::size_t end = output.find("/\n", url);
  port_ = std::stoi(output.substr(output.rfind(':', end) + 1));
}

}  // namespace support
