#include <gmock/gmock.h>
#include <sys/resource.h>
#include <time.h>

#include "captured_output.h"
#include "client_test.h"

namespace {

using support::Clock;
using support::ScriptedServer;
using support::ServerConnection;
using support::ServerOptions;
using testing::ElementsAre;
using Connection = std::unique_ptr<ServerConnection>;

ServerOptions Closed() {
  ServerOptions options;
  options.listening = false;
  return options;
}

std::chrono::nanoseconds ProcessorTime() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

class SignalClient : public ClientTest {};

TEST_F(SignalClient, StartsUnconnectedAndUninterrupted) {
  EXPECT_FALSE(client_.isConnected());
  EXPECT_FALSE(client_.isInterruped());
}

TEST_F(SignalClient, SignsInFirstOnEveryConnection) {
  ScriptedServer server;
  client_.sendMessage("queued before the connection");
  Connection first = ConnectTo(server);
  EXPECT_EQ(first->ReceiveText(), "queued before the connection");
  first->SendText("welcome");
  EXPECT_TRUE(observer_.WaitForMessages(1));
  first->Reset();
  EXPECT_TRUE(Eventually([this] { return !client_.isConnected(); }));
  client_.sendMessage("queued in between");
  const Connection second = SignedIn(server);
  std::optional<std::string> text = second->ReceiveText();
  if (text == "queued before the connection") text = second->ReceiveText();  // a lost link may repeat
  EXPECT_EQ(text, "queued in between");
}

TEST_F(SignalClient, SendsNoSignInWhenThereIsNone) {
  ScriptedServer server;
  EXPECT_EQ(client_.connect(server.Address(), server.Port()), 0);
  StartService();
  const Connection connection = server.AcceptWebSocket();
  client_.sendMessage("first");
  EXPECT_EQ(connection->ReceiveText(), "first");
}

TEST_F(SignalClient, TheConnectionComesUpOnlyInsideTheService) {
  ScriptedServer server;
  EXPECT_EQ(Connect(server.Address(), server.Port()), 0);
  EXPECT_FALSE(client_.isConnected());
  const Connection connection = server.Accept();
  ASSERT_NE(connection, nullptr);
  StartService();
  ASSERT_TRUE(connection->OpenWebSocket());
  EXPECT_EQ(connection->ReceiveText(), "sign-in");
  EXPECT_TRUE(client_.isConnected());
}

TEST_F(SignalClient, OneConnectIsOneConnection) {
  ScriptedServer server;
  const Connection connection = ConnectTo(server);
  EXPECT_EQ(server.Accept(std::chrono::seconds(1)), nullptr);
  EXPECT_EQ(server.Accepted(), 1);
}

TEST_F(SignalClient, ConnectToAClosedPortFailsAndTheServiceGoesOnUntilTheServerIsThere) {
  ScriptedServer server(Closed());
  const auto start = Clock::now();
  EXPECT_LT(Connect(server.Address(), server.Port()), 0);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(3 + 2));  // 2 s for a busy machine
  EXPECT_FALSE(client_.isConnected());
  for (int round = 0; round < 3; ++round) EXPECT_GE(client_.lwsService(), 0);
  StartService();
  server.Listen();
  client_.sendMessage("behind the sign-in");
  const Connection connection = SignedIn(server);
  EXPECT_EQ(connection->ReceiveText(), "behind the sign-in");
}

TEST_F(SignalClient, ConnectToAnyLoopbackAddressThatIsClosedFails) {
  ServerOptions options = Closed();
  for (const char* address : {"127.0.0.1", "127.0.0.2", "::1"}) {
    options.address = address;
    const ScriptedServer server(options);
    EXPECT_LT(Connect(address, server.Port()), 0) << address;
  }
}

TEST_F(SignalClient, ConnectToAnUnknownNameFails) {
  const auto start = Clock::now();
  EXPECT_LT(Connect("no-such-host.invalid", 80), 0);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(3 + 2));  // 2 s for a busy machine
  EXPECT_GE(client_.lwsService(), 0);
}

TEST_F(SignalClient, ConnectToWhatIsNoServerFails) {
  for (const char* server : {"", "http://127.0.0.1", "ws://", "127.0.0.1:80", "a b"}) {
    EXPECT_LT(Connect(server, 80), 0) << server;
    EXPECT_GE(client_.lwsService(), 0) << server;
  }
  EXPECT_LT(Connect("127.0.0.1", 0), 0);
  EXPECT_LT(Connect("127.0.0.1", 65536), 0);
}

TEST_F(SignalClient, IsUsableAfterEveryFailedConnect) {
  EXPECT_LT(Connect("no-such-host.invalid", 80), 0);
  EXPECT_LT(Connect("", 80), 0);
  ScriptedServer server;
  EXPECT_NE(ConnectTo(server), nullptr);
}

TEST_F(SignalClient, TheServerMayBeAUrlWithAPath) {
  ScriptedServer server;
  EXPECT_EQ(Connect("ws://127.0.0.1/cameras/a?b=c", server.Port()), 0);
  StartService();
  const Connection connection = server.Accept();
  const auto request = connection->ReadHandshake();
  ASSERT_TRUE(request);
  EXPECT_EQ(request->method, "GET");
  EXPECT_EQ(request->path, "/cameras/a?b=c");
  EXPECT_EQ(request->headers.at("host"), "127.0.0.1:" + std::to_string(server.Port()));
  EXPECT_EQ(request->headers.at("upgrade"), "websocket");
  EXPECT_EQ(request->headers.at("sec-websocket-version"), "13");
  EXPECT_EQ(request->headers.count("sec-websocket-protocol"), 0U);
}

TEST_F(SignalClient, WithoutAPathTheRequestIsForTheRoot) {
  ScriptedServer server;
  EXPECT_EQ(Connect("127.0.0.1", server.Port()), 0);
  StartService();
  const auto request = server.Accept()->ReadHandshake();
  ASSERT_TRUE(request);
  EXPECT_EQ(request->path, "/");
}

TEST_F(SignalClient, AnIpv6AddressIsReachedWithAndWithoutBrackets) {
  ServerOptions options;
  options.address = "::1";
  ScriptedServer server(options);
  EXPECT_EQ(Connect("[::1]", server.Port()), 0);
  StartService();
  const Connection first = server.Accept();
  const auto request = first->ReadHandshake();
  ASSERT_TRUE(request);
  EXPECT_EQ(request->headers.at("host"), "[::1]:" + std::to_string(server.Port()));
  EXPECT_EQ(Connect("::1", server.Port()), 0);
  EXPECT_NE(SignedIn(server), nullptr);
}

TEST_F(SignalClient, ConnectWhileTheServiceRunsMovesTheLink) {
  ScriptedServer server;
  ScriptedServer other;
  const Connection first = ConnectTo(server);
  EXPECT_EQ(Connect(other.Address(), other.Port()), 0);
  EXPECT_TRUE(first->WaitForEnd());
  const Connection second = SignedIn(other);
  client_.sendMessage("on the new link");
  EXPECT_EQ(second->ReceiveText(), "on the new link");
}

TEST_F(SignalClient, ConnectWhileTheServiceRunsTellsOfAClosedPort) {
  ScriptedServer server;
  const ScriptedServer closed(Closed());
  const Connection first = ConnectTo(server);
  EXPECT_LT(Connect(closed.Address(), closed.Port()), 0);
  EXPECT_TRUE(first->WaitForEnd());
}

TEST_F(SignalClient, EveryConnectWhileTheServiceRunsTellsOfItsOwnAttempt) {
  ScriptedServer server;
  const ScriptedServer closed(Closed());
  Connection link = ConnectTo(server);  // ended by the client only: else it would come back by itself
  for (int round = 0; round < 300; ++round) {
    const auto start = Clock::now();
    ASSERT_LT(Connect(closed.Address(), closed.Port()), 0) << round;
    ASSERT_LT(Clock::now() - start, std::chrono::seconds(3)) << round;  // did not wait for an outcome that had come
    std::thread application([&] { EXPECT_EQ(Connect(server.Address(), server.Port()), 0) << round; });
    Connection next = SignedIn(server);
    application.join();
    ASSERT_NE(next, nullptr);
    link = std::move(next);
  }
}

TEST_F(SignalClient, MessagesLeaveInTheOrderInWhichTheyWereQueued) {
  ScriptedServer server;
  const Connection connection = ConnectTo(server);
  for (int i = 0; i < 500; ++i) EXPECT_EQ(client_.sendMessage(std::to_string(i)), 0);
  for (int i = 0; i < 500; ++i) ASSERT_EQ(connection->ReceiveText(), std::to_string(i));
}

TEST_F(SignalClient, MessagesOfSeveralThreadsArriveWhole) {
  ScriptedServer server;
  const Connection connection = ConnectTo(server);
  std::thread heartbeat([this] { EXPECT_EQ(client_.sendMessage(R"({"opcode":"heartbeat"})"), 0); });
  std::thread engine([this] { EXPECT_EQ(client_.sendMessage(std::string(3000, 'x')), 0); });
  heartbeat.join();
  engine.join();
  const std::vector<std::string> texts{connection->ReceiveText().value_or(""), connection->ReceiveText().value_or("")};
  EXPECT_THAT(texts, testing::UnorderedElementsAre(R"({"opcode":"heartbeat"})", std::string(3000, 'x')));
}

TEST_F(SignalClient, EveryMessageIsOneTextFrame) {
  ScriptedServer server;
  const Connection connection = ConnectTo(server);
  const std::string sdp(60000, 's');
  client_.sendMessage(sdp);
  const auto frame = connection->ReceiveFrame();
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->opcode, support::kText);
  EXPECT_TRUE(frame->final);
  EXPECT_TRUE(frame->masked);
  EXPECT_EQ(frame->payload, sdp);
}

TEST_F(SignalClient, AnEmptyMessageArrivesAsAnEmptyText) {
  ScriptedServer server;
  const Connection connection = ConnectTo(server);
  client_.sendMessage("");
  client_.sendMessage("next");
  EXPECT_EQ(connection->ReceiveText(), "");
  EXPECT_EQ(connection->ReceiveText(), "next");
}

TEST_F(SignalClient, AFragmentedMessageReachesTheObserverOnceAndWhole) {
  ScriptedServer server;
  const Connection connection = ConnectTo(server);
  connection->SendFrame({support::kText, false, 0, false, "one "});
  connection->SendFrame({support::kContinuation, false, 0, false, "two "});
  connection->SendFrame({support::kContinuation, true, 0, false, "three"});
  connection->SendText("four");
  ASSERT_TRUE(observer_.WaitForMessages(2));
  EXPECT_THAT(observer_.Messages(), ElementsAre("one two three", "four"));
}

TEST_F(SignalClient, TwoMessagesInOneSegmentAreTwoCalls) {
  ScriptedServer server;
  const Connection connection = ConnectTo(server);
  connection->SendBytes(support::EncodeFrame({support::kText, true, 0, false, "first"}) +
                        support::EncodeFrame({support::kText, true, 0, false, "second"}));
  ASSERT_TRUE(observer_.WaitForMessages(2));
  EXPECT_THAT(observer_.Messages(), ElementsAre("first", "second"));
}

TEST_F(SignalClient, AMessageLongerThanTheReceiveBufferArrivesWhole) {
  ScriptedServer server;
  const Connection connection = ConnectTo(server);
  std::string text;
  while (text.size() < 500000) text += std::to_string(text.size()) + ",";
  connection->SendText(text);
  ASSERT_TRUE(observer_.WaitForMessages(1));
  EXPECT_EQ(observer_.Messages().front(), text);
}

TEST_F(SignalClient, APartlyReceivedMessageIsDroppedWithItsLink) {
  ScriptedServer server;
  Connection connection = ConnectTo(server);
  connection->SendFrame({support::kText, false, 0, false, "half of the old message"});
  connection->SendFrame({support::kPing, true, 0, false, "read"});
  ASSERT_EQ(connection->ReceiveFrame()->opcode, support::kPong);
  connection->Reset();
  connection = SignedIn(server);
  connection->SendText("new");
  ASSERT_TRUE(observer_.WaitForMessages(1));
  EXPECT_THAT(observer_.Messages(), ElementsAre("new"));
}

TEST_F(SignalClient, BinaryMessagesArePassedOver) {
  ScriptedServer server;
  const Connection connection = ConnectTo(server);
  connection->SendFrame({support::kBinary, false, 0, false, "bytes"});
  connection->SendFrame({support::kContinuation, true, 0, false, "more"});
  connection->SendText("text");
  ASSERT_TRUE(observer_.WaitForMessages(1));
  EXPECT_THAT(observer_.Messages(), ElementsAre("text"));
}

TEST_F(SignalClient, WithoutAnObserverMessagesAreDropped) {
  ScriptedServer server;
  client_.registerObserver(nullptr);
  const Connection connection = ConnectTo(server);
  connection->SendText("nobody hears this");
  connection->SendFrame({support::kPing, true, 0, false, "read"});
  ASSERT_EQ(connection->ReceiveFrame()->opcode, support::kPong);
  EXPECT_TRUE(client_.isConnected());
}

TEST_F(SignalClient, ANewSignInTextWaitsForTheNextConnection) {
  ScriptedServer server;
  Connection connection = ConnectTo(server);
  client_.setLoginMessage("new sign-in");
  client_.sendMessage("message");
  EXPECT_EQ(connection->ReceiveText(), "message");
  connection->Reset();
  connection = server.AcceptWebSocket();
  EXPECT_EQ(connection->ReceiveText(), "new sign-in");
}

TEST_F(SignalClient, InterruptionIsSeenByEveryThreadAndEndsTheAttempts) {
  ScriptedServer server;
  Connection connection = ConnectTo(server);
  client_.toInterruped();
  bool seen = false;
  std::thread([&] { seen = client_.isInterruped(); }).join();
  EXPECT_TRUE(seen);
  connection->Reset();
  EXPECT_TRUE(Eventually([this] { return !client_.isConnected(); }));
  EXPECT_EQ(server.Accept(std::chrono::seconds(4)), nullptr);  // the first attempt would come within 2 s
  EXPECT_LT(client_.connect(server.Address(), server.Port()), 0);
}

TEST_F(SignalClient, TheQueueTakesAThousandMessagesAndNoMore) {
  for (std::size_t i = 0; i < kMostQueuedMessages; ++i) ASSERT_EQ(client_.sendMessage("m" + std::to_string(i)), 0);
  EXPECT_LT(client_.sendMessage("one too many"), 0);
  ScriptedServer server;
  const Connection connection = ConnectTo(server);
  for (std::size_t i = 0; i < kMostQueuedMessages; ++i) ASSERT_EQ(connection->ReceiveText(), "m" + std::to_string(i));
  EXPECT_EQ(client_.sendMessage("room again"), 0);
  EXPECT_EQ(connection->ReceiveText(), "room again");
}

TEST_F(SignalClient, TheQueueTakesAMebibyteAndNoMore) {
  EXPECT_LT(client_.sendMessage(std::string(kMostQueuedBytes + 1, 'x')), 0);
  EXPECT_EQ(client_.sendMessage(std::string(kMostQueuedBytes - 10, 'x')), 0);
  EXPECT_LT(client_.sendMessage("eleven char"), 0);
  EXPECT_EQ(client_.sendMessage("ten chars."), 0);
  ScriptedServer server;
  const Connection connection = ConnectTo(server);
  EXPECT_EQ(connection->ReceiveText().value_or("").size(), kMostQueuedBytes - 10);
  EXPECT_EQ(connection->ReceiveText(), "ten chars.");
}

TEST_F(SignalClient, AServerThatAnswersNoPingsGetsEveryMessage) {
  ScriptedServer server;
  const Connection connection = ConnectTo(server);
  connection->AnswerPings(false);
  const int count = 3 * 64;
  for (int i = 0; i < count; ++i) ASSERT_EQ(client_.sendMessage(std::to_string(i)), 0);
  for (int i = 0; i < count; ++i) {
    std::optional<std::string> text;
    const auto deadline = Clock::now() + support::kPatience;
    while (!text && Clock::now() < deadline) {  // a server that talks now and then, as with its heartbeats
      text = connection->ReceiveText(std::chrono::seconds(1));
      if (!text) connection->SendText("a sign of life");
    }
    ASSERT_EQ(text, std::to_string(i));
  }
}

TEST_F(SignalClient, WritesNothingToStandardOutput) {
  support::CapturedOutput output;
  ScriptedServer server(Closed());
  Connect(server.Address(), server.Port());
  StartService();
  server.Listen();
  const Connection connection = SignedIn(server);
  connection->SendText("hello");
  observer_.WaitForMessages(1);
  connection->Reset();
  SignedIn(server);
  EXPECT_EQ(output.Text(), "");
}

TEST_F(SignalClient, ARoundIsShortWhenNothingHappens) {
  ScriptedServer server;
  const Connection connection = ConnectTo(server);
  StopService();
  for (int round = 0; round < 8; ++round) {
    const auto start = Clock::now();
    ASSERT_GE(client_.lwsService(), 0);
    const auto took = Clock::now() - start;
    EXPECT_LT(took, std::chrono::milliseconds(250) + std::chrono::seconds(1));  // 1 s for a busy machine
  }
}

TEST_F(SignalClient, AnIdleServiceTakesLittleProcessorTimeAndWakesFewTimes) {
  ScriptedServer server;
  const Connection connection = ConnectTo(server);
  StopService();
  const auto processorStart = ProcessorTime();
  const auto start = Clock::now();
  rusage before{};
  getrusage(RUSAGE_THREAD, &before);
  int rounds = 0;
  while (Clock::now() - start < std::chrono::seconds(4)) {
    client_.lwsService();
    ++rounds;
  }
  const std::chrono::duration<double> took = Clock::now() - start;
  const std::chrono::duration<double> processor = ProcessorTime() - processorStart;
  EXPECT_LT(processor.count(), 0.01 * took.count());
  EXPECT_LE(rounds, 5 * took.count() + 1);
  rusage after{};
  getrusage(RUSAGE_THREAD, &after);
  EXPECT_LE(static_cast<double>(after.ru_nvcsw - before.ru_nvcsw), 5 * took.count() + 1);  // each a wake-up
}

TEST_F(SignalClient, ServiceBeforeConnectIsHarmlessAndDoesNotSpin) {
  const auto start = Clock::now();
  for (int round = 0; round < 3; ++round) EXPECT_GE(client_.lwsService(), 0);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(300));
}

TEST_F(SignalClient, DestructionWhileTheServiceThreadIsInsideEndsIt) {
  for (int round = 0; round < 20; ++round) {
    ScriptedServer server;
    auto client = std::make_unique<KovraSignalClient>();
    ASSERT_EQ(client->connect(server.Address(), server.Port()), 0);
    std::atomic<bool> ended{false};
    std::thread service([&, raw = client.get()] {
      while (raw->lwsService() >= 0) {
      }
      ended = true;
    });
    const Connection connection = server.AcceptWebSocket();
    ASSERT_NE(connection, nullptr);
    client->toInterruped();
    KovraSignalClient* raw = client.release();  // its memory stays, as that of a static object does
    raw->~KovraSignalClient();
    service.join();
    EXPECT_TRUE(ended);
    ::operator delete(raw);
  }
}

}  // namespace
