// Any text as messages of the server, one a line: each is handled, or ends the process, which the trap makes the
// end of the input.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

#include "exit_trap.h"
#include "kovra_main.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  return freopen("/dev/null", "w", stdout) != nullptr ? 0 : -1;  // the library logs every message
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  alignas(SignalConn) static unsigned char storage[sizeof(SignalConn)];
  RunTrappingExit([&text] {
    std::fill(storage, storage + sizeof storage, static_cast<unsigned char>(0));
    auto* connection = new (storage) SignalConn;
    connection->addSessionRecord(7, 100);
    std::size_t begin = 0;
    while (begin <= text.size()) {
      const std::size_t end = std::min(text.find('\n', begin), text.size());
      const int result = connection->handleSignalMessage(text.substr(begin, end - begin));
      if (result != 0 && result != -1) std::abort();
      begin = end + 1;
    }
    connection->~SignalConn();
  });
  return 0;
}
