// A directory of the test's own, removed with everything in it.
#ifndef SIGNALCONN_TESTS_TEMPORARY_DIRECTORY_H
#define SIGNALCONN_TESTS_TEMPORARY_DIRECTORY_H

#include <filesystem>
#include <string>

namespace support {

class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& Path() const { return path_; }
  // Writes a file, with its directories. Returns its path.
  std::string Write(const std::string& name, const std::string& contents) const;

 private:
  std::filesystem::path path_;
};

}  // namespace support

#endif  // SIGNALCONN_TESTS_TEMPORARY_DIRECTORY_H
