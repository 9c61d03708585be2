#include "host_resolver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace kovra {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Addresses = HostResolver::Addresses;

class HostResolverTest : public testing::Test {
 protected:
  HostResolverTest() { network_.start(); }
  ~HostResolverTest() override {
    network_.stop([this] { resolver_.reset(); });
  }

  // Runs on the network thread and returns its result.
  Addresses resolve(const std::string& host) {
    std::promise<Addresses> answer;
    network_.post([&] { resolver_->resolve(host, [&](const Addresses& addresses) { answer.set_value(addresses); }); });
    return answer.get_future().get();
  }

  // What the thread for lookups uses; it may outlive the test.
  struct NameService {
    std::map<std::string, Addresses> names{{"turn.example", {"192.0.2.7", "2001:db8::7"}}};
    std::atomic<int> lookups{0};
    std::function<void()> duringLookup = [] {};
  };
  const std::shared_ptr<NameService> service_ = std::make_shared<NameService>();
  NetworkThread network_{[] {}};
  std::optional<HostResolver> resolver_{std::in_place, network_, [service = service_](const std::string& host) {
                                          ++service->lookups;
                                          service->duringLookup();
                                          const auto found = service->names.find(host);
                                          return found == service->names.end() ? Addresses() : found->second;
                                        }};
};

TEST_F(HostResolverTest, KnowsLiterals) {
  EXPECT_THAT(resolve("192.0.2.1"), ElementsAre("192.0.2.1"));
  EXPECT_THAT(resolve("2001:db8::1"), ElementsAre("2001:db8::1"));
  EXPECT_EQ(service_->lookups, 0);
}

TEST_F(HostResolverTest, KnowsLocalhost) {
  EXPECT_THAT(resolve("localhost"), ElementsAre("127.0.0.1", "::1"));
  EXPECT_EQ(service_->lookups, 0);
}

TEST_F(HostResolverTest, RemembersANameThatWasFound) {
  EXPECT_THAT(resolve("turn.example"), ElementsAre("192.0.2.7", "2001:db8::7"));
  EXPECT_THAT(resolve("turn.example"), ElementsAre("192.0.2.7", "2001:db8::7"));
  EXPECT_EQ(service_->lookups, 1);
}

TEST_F(HostResolverTest, AsksAgainForANameThatWasNotFound) {
  EXPECT_THAT(resolve("none.example"), IsEmpty());
  EXPECT_THAT(resolve("none.example"), IsEmpty());
  EXPECT_EQ(service_->lookups, 2);
}

TEST_F(HostResolverTest, AsksOnceForManyWhoWait) {
  std::promise<void> all;
  std::promise<void> go;
  service_->duringLookup = [&] { go.get_future().wait(); };
  int answers = 0;
  network_.post([&] {
    for (int i = 0; i < 3; ++i) {
      resolver_->resolve("turn.example", [&](const Addresses& addresses) {
        EXPECT_EQ(addresses.size(), 2u);
        if (++answers == 3) all.set_value();
      });
    }
    go.set_value();
  });
  all.get_future().wait();
  EXPECT_EQ(service_->lookups, 1);
}

TEST_F(HostResolverTest, AsksForABoundedNumberOfNames) {
  std::promise<std::size_t> refused;
  const std::size_t asked = 2 * HostResolver::kMaxNames;
  network_.post([&] {
    auto answers = std::make_shared<std::size_t>(0);
    for (std::size_t i = 0; i < asked; ++i) {
      resolver_->resolve("name" + std::to_string(i), [answers](const Addresses&) { ++*answers; });
    }
    refused.set_value(*answers);
  });
  EXPECT_EQ(refused.get_future().get(), asked - HostResolver::kMaxNames);
}

TEST_F(HostResolverTest, FindsNothingWhileTheSystemHasNoThread) {
  pthread_attr_t usual;
  pthread_attr_t huge;
  pthread_getattr_default_np(&usual);
  pthread_getattr_default_np(&huge);
  // More stack than there are addresses: threads cannot be made.
  pthread_attr_setstacksize(&huge, std::size_t{1} << 50);
  ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
  EXPECT_THAT(resolve("turn.example"), IsEmpty());
  pthread_setattr_default_np(&usual);
  EXPECT_EQ(service_->lookups, 0);
  EXPECT_THAT(resolve("turn.example"), ElementsAre("192.0.2.7", "2001:db8::7"));
}

TEST_F(HostResolverTest, CallsNobodyOnceItIsGone) {
  std::promise<void> entered;
  std::promise<void> leave;
  service_->duringLookup = [&] {
    entered.set_value();
    leave.get_future().wait();
  };
  bool called = false;
  network_.post([&] { resolver_->resolve("turn.example", [&](const Addresses&) { called = true; }); });
  entered.get_future().wait();
  network_.stop([&] { resolver_.reset(); });
  leave.set_value();
  while (service_.use_count() > 1) std::this_thread::yield();
  EXPECT_FALSE(called);
}

TEST(AskNameService, FindsTheMachineItself) {
  EXPECT_THAT(HostResolver::AskNameService("127.0.0.1"), ElementsAre("127.0.0.1"));
}

}  // namespace
}  // namespace kovra
