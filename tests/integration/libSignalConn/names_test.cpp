// Names: resolvers that hang, addresses that are dead, and families that differ.
#include <gtest/gtest.h>

#include "client_test.h"
#include "fake_resolver.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using support::Clock;
using support::FakeResolver;
using support::ScriptedServer;
using support::ServerOptions;

const std::chrono::duration<double> kSlack{2};  // for a busy machine
const char kName[] = "server.example";

ServerOptions At(const std::string& address, int port = 0, bool listening = true) {
  ServerOptions options;
  options.address = address;
  options.port = port;
  options.listening = listening;
  return options;
}

class Names : public ClientTest {
 protected:
  ~Names() override { resolver_.Resume(); }

  FakeResolver& resolver_ = FakeResolver::Get();
};

TEST_F(Names, ANameIsResolvedAndNamedInTheRequest) {
  ScriptedServer server;
  resolver_.Answer(kName, {"127.0.0.1"});
  EXPECT_EQ(Connect(kName, server.Port()), 0);
  StartService();
  const auto connection = server.Accept();
  ASSERT_NE(connection, nullptr);
  const auto request = connection->ReadHandshake();
  ASSERT_TRUE(request);
  EXPECT_EQ(request->headers.at("host"), kName + (":" + std::to_string(server.Port())));
}

TEST_F(Names, AnUnknownNameFailsAtOnceAndIsTriedAgain) {
  ScriptedServer server;
  EXPECT_LT(Connect(kName, server.Port()), 0);
  resolver_.Answer(kName, {"127.0.0.1"});
  StartService();
  EXPECT_NE(SignedIn(server), nullptr);
}

TEST_F(Names, ANameWithoutAddressesFailsAtOnce) {
  resolver_.Answer(kName, {});
  EXPECT_LT(Connect(kName, 80), 0);
}

TEST_F(Names, ConnectWaitsThreeSecondsForAHangingResolver) {
  resolver_.Hang();
  const auto start = Clock::now();
  Connect(kName, 80);
  EXPECT_LT(Clock::now() - start, seconds(3) + kSlack);
}

TEST_F(Names, AHangingResolverHoldsUpNeitherTheServiceNorTheQueue) {
  ScriptedServer server;
  resolver_.Hang();
  Connect(kName, server.Port());
  for (int round = 0; round < 5; ++round) {
    const auto start = Clock::now();
    ASSERT_GE(client_.lwsService(), 0);
    EXPECT_LT(Clock::now() - start, milliseconds(250) + kSlack);
  }
  EXPECT_EQ(client_.sendMessage("queued meanwhile"), 0);
  StartService();
  resolver_.Answer(kName, {"127.0.0.1"});
  resolver_.Resume();
  const auto connection = SignedIn(server);
  ASSERT_NE(connection, nullptr);
  EXPECT_EQ(connection->ReceiveText(), "queued meanwhile");
}

TEST_F(Names, OneLookUpAtATime) {
  resolver_.Hang();
  Connect(kName, 80);
  StartService();
  Connect(kName, 81);
  Connect(kName, 82);
  EXPECT_EQ(resolver_.LookupsOf(kName), 1);
  EXPECT_EQ(resolver_.MostAtOnce(), 1);
}

TEST_F(Names, AnotherServerNeedNotWaitForAHangingResolver) {
  ScriptedServer server;
  resolver_.Hang();
  Connect(kName, 80);
  EXPECT_EQ(Connect("127.0.0.1", server.Port()), 0);
  StartService();
  EXPECT_NE(SignedIn(server), nullptr);
}

TEST_F(Names, DestructionDoesNotWaitForAHangingResolver) {
  resolver_.Hang();
  auto client = std::make_unique<KovraSignalClient>();
  client->connect(kName, 80);
  const auto start = Clock::now();
  client.reset();
  EXPECT_LT(Clock::now() - start, kSlack);
  resolver_.Resume();
}

TEST_F(Names, ADeadAddressCostsTwoSeconds) {
  ScriptedServer dead(At("127.0.0.2"));
  ScriptedServer live(At("127.0.0.1", dead.Port()));
  dead.Vanish();
  resolver_.Answer(kName, {"127.0.0.2", "127.0.0.1"});
  const auto start = Clock::now();
  Connect(kName, live.Port());
  StartService();
  ASSERT_NE(SignedIn(live), nullptr);
  const std::chrono::duration<double> took = Clock::now() - start;
  EXPECT_GE(took.count(), 1.5);
  EXPECT_LT(took.count(), 2 + kSlack.count());
}

TEST_F(Names, ThreeDeadAddressesCostTwoSecondsEach) {
  ScriptedServer first(At("127.0.0.2"));
  ScriptedServer second(At("127.0.0.3", first.Port()));
  ScriptedServer third(At("127.0.0.4", first.Port()));
  ScriptedServer live(At("127.0.0.1", first.Port()));
  for (ScriptedServer* dead : {&first, &second, &third}) dead->Vanish();
  resolver_.Answer(kName, {"127.0.0.2", "127.0.0.3", "127.0.0.4", "127.0.0.1"});
  const auto start = Clock::now();
  Connect(kName, live.Port());
  StartService();
  ASSERT_NE(SignedIn(live), nullptr);
  EXPECT_LT(Clock::now() - start, seconds(6) + kSlack);
}

TEST_F(Names, ARefusingAddressCostsNothing) {
  ScriptedServer live;
  const ScriptedServer closed(At("127.0.0.2", live.Port(), false));
  resolver_.Answer(kName, {"127.0.0.2", "127.0.0.1"});
  const auto start = Clock::now();
  EXPECT_EQ(Connect(kName, live.Port()), 0);
  StartService();
  ASSERT_NE(SignedIn(live), nullptr);
  EXPECT_LT(Clock::now() - start, kSlack);
}

TEST_F(Names, FailsWhenEveryAddressRefuses) {
  const ScriptedServer closed(At("127.0.0.2", 0, false));
  const ScriptedServer alsoClosed(At("127.0.0.1", closed.Port(), false));
  resolver_.Answer(kName, {"127.0.0.2", "127.0.0.1"});
  EXPECT_LT(Connect(kName, closed.Port()), 0);
}

TEST_F(Names, Ipv6GoesFirstWhenTheResolverSaysSo) {
  ScriptedServer v6(At("::1"));
  ScriptedServer v4(At("127.0.0.1", v6.Port()));
  resolver_.Answer(kName, {"::1", "127.0.0.1"});
  EXPECT_EQ(Connect(kName, v6.Port()), 0);
  StartService();
  const auto connection = SignedIn(v6);
  EXPECT_NE(connection, nullptr);
  EXPECT_EQ(v4.Accept(milliseconds(300)), nullptr);
}

TEST_F(Names, Ipv4FollowsWhenIpv6Refuses) {
  const ScriptedServer v6(At("::1", 0, false));
  ScriptedServer v4(At("127.0.0.1", v6.Port()));
  resolver_.Answer(kName, {"::1", "127.0.0.1"});
  EXPECT_EQ(Connect(kName, v4.Port()), 0);
  StartService();
  EXPECT_NE(SignedIn(v4), nullptr);
}

TEST_F(Names, Ipv4FollowsTwoSecondsAfterADeadIpv6) {
  ScriptedServer v6(At("::1"));
  ScriptedServer v4(At("127.0.0.1", v6.Port()));
  v6.Vanish();
  resolver_.Answer(kName, {"::1", "127.0.0.1"});
  const auto start = Clock::now();
  Connect(kName, v4.Port());
  StartService();
  ASSERT_NE(SignedIn(v4), nullptr);
  EXPECT_LT(Clock::now() - start, seconds(2) + kSlack);
}

TEST_F(Names, AnAddressThatAnswersTcpKeepsItsTenSeconds) {
  ScriptedServer slow;
  ScriptedServer other(At("127.0.0.2", slow.Port()));
  resolver_.Answer(kName, {"127.0.0.1", "127.0.0.2"});
  EXPECT_EQ(Connect(kName, slow.Port()), 0);
  StartService();
  const auto connection = slow.Accept();
  ASSERT_NE(connection, nullptr);
  std::this_thread::sleep_for(seconds(5));
  ASSERT_TRUE(connection->OpenWebSocket());
  EXPECT_EQ(connection->ReceiveText(), "sign-in");
  EXPECT_EQ(other.Accepted(), 0);
}

TEST_F(Names, ASilentAddressIsFollowedByTheNextAfterTenSeconds) {
  ScriptedServer silent;
  ScriptedServer live(At("127.0.0.2", silent.Port()));
  resolver_.Answer(kName, {"127.0.0.1", "127.0.0.2"});
  const auto start = Clock::now();
  EXPECT_EQ(Connect(kName, silent.Port()), 0);
  StartService();
  const auto connection = silent.Accept();
  ASSERT_NE(SignedIn(live), nullptr);
  const std::chrono::duration<double> took = Clock::now() - start;
  EXPECT_NEAR(took.count(), 10, kSlack.count());
}

TEST_F(Names, ALostLinkStartsOverWithTheFirstAddress) {
  ScriptedServer first;
  ScriptedServer second(At("127.0.0.2", first.Port()));
  resolver_.Answer(kName, {"127.0.0.1", "127.0.0.2"});
  EXPECT_EQ(Connect(kName, first.Port()), 0);
  StartService();
  auto connection = SignedIn(first);
  ASSERT_NE(connection, nullptr);
  connection->Reset();
  EXPECT_NE(SignedIn(first), nullptr);
  EXPECT_EQ(second.Accept(milliseconds(0)), nullptr);
  EXPECT_EQ(resolver_.LookupsOf(kName), 2);
}

TEST_F(Names, EveryAttemptAsksTheResolverAnew) {
  ScriptedServer first;
  ScriptedServer second(At("127.0.0.2", first.Port()));
  resolver_.Answer(kName, {"127.0.0.1"});
  EXPECT_EQ(Connect(kName, first.Port()), 0);
  StartService();
  auto connection = SignedIn(first);
  ASSERT_NE(connection, nullptr);
  resolver_.Answer(kName, {"127.0.0.2"});
  connection->Reset();
  EXPECT_NE(SignedIn(second), nullptr);
}

}  // namespace
