// Names that mean what the test says. Linked into a program, its getaddrinfo wins over the C library's, for
// every library in the process.
#ifndef SIGNALCONN_TESTS_FAKE_RESOLVER_H
#define SIGNALCONN_TESTS_FAKE_RESOLVER_H

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace support {

// Any thread may call any operation. Numeric addresses stand for themselves, unknown names do not resolve.
class FakeResolver {
 public:
  static FakeResolver& Get();

  // Numeric addresses, in the order in which they are returned. An empty list is a name without addresses.
  void Answer(const std::string& name, std::vector<std::string> addresses);
  // Until Resume, look-ups of names do not return.
  void Hang();
  void Resume();

  int LookupsOf(const std::string& name);
  // The most look-ups of names that were under way together.
  int MostAtOnce();

  // For getaddrinfo: returns its error, or 0 with addresses set.
  int Resolve(const std::string& name, std::vector<std::string>* addresses);

 private:
  std::mutex mutex_;
  std::condition_variable resumed_;
  std::map<std::string, std::vector<std::string>> names_;
  std::map<std::string, int> lookups_;
  bool hanging_ = false;
  int underWay_ = 0;
  int mostAtOnce_ = 0;
};

}  // namespace support

#endif  // SIGNALCONN_TESTS_FAKE_RESOLVER_H
