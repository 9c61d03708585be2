#include <vector>

#include "fuzz_input.h"
#include "stun_message.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kovra;
  constexpr char kPassword[] = "VOkJxbRl1RmTxUk/WvJxBt";
  const ByteView input(data, size);
  const auto response = ReadStunResponse(input, kPassword);
  if (response) {
    Expect(StunResponseTransaction(input).has_value(), "a response belongs to a transaction");
    Expect(response->errorCode < 800, "codes have three digits");
    Expect(!ReadStunResponse(input, "another"), "the password decides");
    Expect(!ReadStunResponse(input.from(0, size - 1), kPassword), "nothing may miss");
  }
  if (const auto mapped = ReadMappedAddress(input)) {
    Expect(StunResponseTransaction(input).has_value(), "an address belongs to a transaction");
    Expect(!mapped->ip.empty(), "an address is not empty");
  }
  std::vector<std::uint8_t> written;
  StunCheck check;
  check.username.assign(reinterpret_cast<const char*>(data), size < 500 ? size : 500);
  WriteStunCheck(check, {}, kPassword, written);
  Expect(written.size() % 4 == 0, "messages are made of words");
  Expect(!ReadStunResponse(ByteView(written), kPassword), "a request is no response");
  return 0;
}
