#include "name_lookup.h"

#include <gmock/gmock.h>
#include <netdb.h>

#include "fake_resolver.h"

namespace {

using support::FakeResolver;
using testing::ElementsAre;
using testing::IsEmpty;

class NameLookupTest : public testing::Test {
 protected:
  std::shared_ptr<NameLookup> Finished(const char* host = "cam.example") {
    pthread_t thread = 0;
    std::shared_ptr<NameLookup> lookup = NameLookup::Start(
        host, [this] { ++calls_; }, &thread);
    EXPECT_NE(lookup, nullptr);
    EXPECT_TRUE(lookup->WaitFor(30000));
    pthread_join(thread, nullptr);
    return lookup;
  }

  FakeResolver& resolver_ = FakeResolver::Get();
  int calls_ = 0;
};

TEST_F(NameLookupTest, GivesTheAddressesInTheResolversOrder) {
  resolver_.Answer("cam.example", {"2001:db8::1", "192.0.2.1", "192.0.2.2"});
  const auto lookup = Finished();
  EXPECT_EQ(lookup->Host(), "cam.example");
  EXPECT_THAT(lookup->Addresses(), ElementsAre("2001:db8::1", "192.0.2.1", "192.0.2.2"));
  EXPECT_EQ(calls_, 1);
}

TEST_F(NameLookupTest, GivesEachAddressOnceAndEightAtMost) {
  std::vector<std::string> answers;
  for (int i = 0; i < 12; ++i) {
    answers.push_back("192.0.2." + std::to_string(i));
    answers.push_back("192.0.2." + std::to_string(i));
  }
  resolver_.Answer("cam.example", answers);
  const auto lookup = Finished();
  ASSERT_EQ(lookup->Addresses().size(), 8U);
  EXPECT_EQ(lookup->Addresses().back(), "192.0.2.7");
}

TEST_F(NameLookupTest, AFailureHasNoAddressesAndSaysWhy) {
  const auto lookup = Finished("unknown.example");
  EXPECT_THAT(lookup->Addresses(), IsEmpty());
  EXPECT_STREQ(lookup->Error(), gai_strerror(EAI_NONAME));
  EXPECT_EQ(calls_, 1);
}

TEST_F(NameLookupTest, ANameWithoutAddressesSaysSo) {
  resolver_.Answer("empty.example", {});
  const auto lookup = Finished("empty.example");
  EXPECT_THAT(lookup->Addresses(), IsEmpty());
  EXPECT_STREQ(lookup->Error(), "no address");
}

TEST_F(NameLookupTest, AnAbandonedLookupCallsNobodyAndOutlivesItsOwner) {
  resolver_.Hang();
  pthread_t thread = 0;
  std::shared_ptr<NameLookup> lookup = NameLookup::Start(
      "cam.example", [this] { ++calls_; }, &thread);
  ASSERT_NE(lookup, nullptr);
  EXPECT_FALSE(lookup->WaitFor(20));
  EXPECT_FALSE(lookup->IsDone());
  lookup->Abandon();
  lookup.reset();
  resolver_.Resume();
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
