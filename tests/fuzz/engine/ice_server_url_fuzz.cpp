#include "fuzz_input.h"
#include "ice_server_url.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kovra;
  const auto url = ReadIceServerUrl(AsText(data, size));
  if (!url) return 0;
  Expect(!url->host.empty() && url->host.size() <= 255, "a server has a host");
  Expect(url->host.find_first_of(" \r\n@/?[]") == std::string::npos, "without separators");
  Expect(url->port != 0, "and a port");
  return 0;
}
