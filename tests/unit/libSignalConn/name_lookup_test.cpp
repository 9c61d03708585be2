// The look-up of names, on a resolver of the test's own: a getaddrinfo in the program wins over the C library's.
#include "name_lookup.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cstring>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> answers;
int failure = 0;
MonotonicEvent mayAnswer;

addrinfo* Entry(const std::string& address) {
  auto* entry = new addrinfo{};
  auto* storage = new sockaddr_storage{};
  entry->ai_addr = reinterpret_cast<sockaddr*>(storage);
  auto* v4 = reinterpret_cast<sockaddr_in*>(storage);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(storage);
  if (inet_pton(AF_INET, address.c_str(), &v4->sin_addr) == 1) {
    storage->ss_family = AF_INET;
    entry->ai_addrlen = sizeof *v4;
  } else if (inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr) == 1) {
    storage->ss_family = AF_INET6;
    entry->ai_addrlen = sizeof *v6;
  }
  return entry;
}

}  // namespace

extern "C" int getaddrinfo(const char* /*node*/, const char* /*service*/, const addrinfo* /*hints*/,
                           addrinfo** result) {
  mayAnswer.WaitFor(30000);
  if (failure != 0) return failure;
  *result = nullptr;
  for (auto address = answers.rbegin(); address != answers.rend(); ++address) {
    addrinfo* entry = Entry(*address);
    entry->ai_next = *result;
    *result = entry;
  }
  return 0;
}

extern "C" void freeaddrinfo(addrinfo* list) {
  while (list != nullptr) {
    addrinfo* next = list->ai_next;
    delete reinterpret_cast<sockaddr_storage*>(list->ai_addr);
    delete list;
    list = next;
  }
}

namespace {

class NameLookupTest : public testing::Test {
 protected:
  NameLookupTest() {
    mayAnswer.Set();
    answers.clear();
    failure = 0;
  }

  std::shared_ptr<NameLookup> Finished() {
    pthread_t thread = 0;
    std::shared_ptr<NameLookup> lookup = NameLookup::Start(
        "cam.example", [this] { ++calls_; }, &thread);
    EXPECT_NE(lookup, nullptr);
    EXPECT_TRUE(lookup->WaitFor(30000));
    pthread_join(thread, nullptr);
    return lookup;
  }

  int calls_ = 0;
};

TEST_F(NameLookupTest, GivesTheAddressesInTheResolversOrder) {
  answers = {"2001:db8::1", "192.0.2.1", "192.0.2.2"};
  const auto lookup = Finished();
  EXPECT_EQ(lookup->Host(), "cam.example");
  EXPECT_THAT(lookup->Addresses(), ElementsAre("2001:db8::1", "192.0.2.1", "192.0.2.2"));
  EXPECT_EQ(calls_, 1);
}

TEST_F(NameLookupTest, GivesEachAddressOnceAndEightAtMost) {
  for (int i = 0; i < 12; ++i) {
    answers.push_back("192.0.2." + std::to_string(i));
    answers.push_back("192.0.2." + std::to_string(i));
  }
  const auto lookup = Finished();
  ASSERT_EQ(lookup->Addresses().size(), 8U);
  EXPECT_EQ(lookup->Addresses().back(), "192.0.2.7");
}

TEST_F(NameLookupTest, AFailureHasNoAddressesAndSaysWhy) {
  failure = EAI_NONAME;
  const auto lookup = Finished();
  EXPECT_THAT(lookup->Addresses(), IsEmpty());
  EXPECT_STREQ(lookup->Error(), gai_strerror(EAI_NONAME));
  EXPECT_EQ(calls_, 1);
}

TEST_F(NameLookupTest, ANameWithoutAddressesSaysSo) {
  const auto lookup = Finished();
  EXPECT_THAT(lookup->Addresses(), IsEmpty());
  EXPECT_STREQ(lookup->Error(), "no address");
}

TEST_F(NameLookupTest, AnAbandonedLookupCallsNobodyAndOutlivesItsOwner) {
  mayAnswer.Reset();
  pthread_t thread = 0;
  std::shared_ptr<NameLookup> lookup = NameLookup::Start(
      "cam.example", [this] { ++calls_; }, &thread);
  ASSERT_NE(lookup, nullptr);
  EXPECT_FALSE(lookup->WaitFor(20));
  EXPECT_FALSE(lookup->IsDone());
  lookup->Abandon();
  lookup.reset();
  mayAnswer.Set();
  pthread_join(thread, nullptr);
  EXPECT_EQ(calls_, 0);
}

TEST(IsNumericAddress, TellsAddressesFromNames) {
  for (const char* address : {"192.0.2.1", "::1", "2001:db8::1", "::ffff:192.0.2.1"}) {
    EXPECT_TRUE(IsNumericAddress(address)) << address;
  }
  for (const char* name : {"", "cam.example", "localhost", "192.0.2", "192.0.2.256", "[::1]", "1.2.3.4.example"}) {
    EXPECT_FALSE(IsNumericAddress(name)) << name;
  }
}

}  // namespace
