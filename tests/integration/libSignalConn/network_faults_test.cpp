// What a network and a server can do to the link, what the client makes of it, and how soon the link is back.
#include <gmock/gmock.h>

#include <functional>

#include "captured_output.h"
#include "client_test.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using support::CapturedOutput;
using support::Clock;
using support::EncodeFrame;
using support::EncodeHeader;
using support::Frame;
using support::ScriptedServer;
using support::ServerConnection;

using Connection = std::unique_ptr<ServerConnection>;

const int kNoClose = 0;         // the connection is dropped without a close frame
const int kUnknownCode = 1002;  // libwebsockets' answer to codes above 1011
const std::size_t kMebibyte = 1024 * 1024;

// The scripted server, and the connection that the fault befalls: not yet there when the fault comes while connecting.
struct Bed {
  ScriptedServer server;
  Connection connection;
};

// The state of things that the fault befalls.
enum class When {
  kRefused,     // a first attempt whose port is closed
  kVanished,    // a first attempt whose host does not answer
  kConnecting,  // a first attempt whose port is open
  kUp,          // a link
};

struct Fault {
  const char* name;
  When when;
  std::function<void(Bed& bed)> inflict;  // returns when the fault is complete
  bool sameLink;                          // the link stays, otherwise it is replaced
  int closeCode;                          // with which the client closes the old link
  seconds givenUp;                        // the client ends the old connection by itself after this long; 0: at once
  seconds back;                           // after which the link is up (again), counted from the fault
  const char* said = "";                  // on standard error, once
  std::vector<std::string> heard = {};    // by the observer
};

void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.name; }

std::string FaultName(const testing::TestParamInfo<Fault>& fault) { return fault.param.name; }

Frame TextFrame(const std::string& text, bool final = true) { return {support::kText, final, 0, false, text}; }
Frame Continuation(const std::string& text, bool final) { return {support::kContinuation, final, 0, false, text}; }

void Accept(Bed& bed) {
  bed.connection = bed.server.Accept();
  ASSERT_NE(bed.connection, nullptr);
}

// Accepts, reads the request and answers with response.
std::function<void(Bed&)> AnswerWith(const std::string& response) {
  return [response](Bed& bed) {
    Accept(bed);
    ASSERT_TRUE(bed.connection->ReadHandshake());
    bed.connection->SendBytes(response);
  };
}

// Sends bytes on the link that is up.
std::function<void(Bed&)> Send(const std::string& bytes) {
  return [bytes](Bed& bed) { bed.connection->SendBytes(bytes); };
}

void RefuseForASecond(Bed& bed) {
  std::this_thread::sleep_for(seconds(1));
  bed.server.Listen();
}

void VanishForAWhile(Bed& bed) {
  std::this_thread::sleep_for(seconds(11));
  bed.server.Listen();
}

void AcceptLate(Bed& bed) {
  std::this_thread::sleep_for(seconds(6));
  Accept(bed);
  ASSERT_TRUE(bed.connection->OpenWebSocket());
}

void AnswerLate(Bed& bed) {
  Accept(bed);
  const auto request = bed.connection->ReadHandshake();
  ASSERT_TRUE(request);
  std::this_thread::sleep_for(seconds(6));
  bed.connection->SendBytes(support::SwitchingProtocols(request->headers.at("sec-websocket-key")));
}

void AnswerByteByByte(Bed& bed) {
  Accept(bed);
  const auto request = bed.connection->ReadHandshake();
  ASSERT_TRUE(request);
  for (const char byte : support::SwitchingProtocols(request->headers.at("sec-websocket-key"))) {
    bed.connection->SendBytes(std::string(1, byte));
    std::this_thread::sleep_for(milliseconds(10));
  }
}

void AnswerInHalf(Bed& bed) {
  Accept(bed);
  const auto request = bed.connection->ReadHandshake();
  ASSERT_TRUE(request);
  bed.connection->SendBytes(support::SwitchingProtocols(request->headers.at("sec-websocket-key")).substr(0, 60));
}

void ResetBeforeTheHandshake(Bed& bed) {
  Accept(bed);
  bed.connection->Reset();
}

void CloseInMidHandshake(Bed& bed) {
  AnswerInHalf(bed);
  bed.connection->Close();
}

void ResetInMidFrame(Bed& bed) {
  bed.connection->SendBytes(EncodeFrame(TextFrame("never to be heard")).substr(0, 9));
  bed.connection->SendFrame({support::kPing, true, 0, false, ""});  // inside the text, as far as the client can tell
  bed.connection->Reset();
}

void SendOneByteAtATime(Bed& bed) {
  for (const char byte : EncodeFrame(TextFrame("byte by byte"))) {
    bed.connection->SendBytes(std::string(1, byte));
    std::this_thread::sleep_for(milliseconds(2));
  }
}

void SendOneByteFragments(Bed& bed) {
  const std::string text = "fragment by fragment";
  bed.connection->SendFrame(TextFrame(text.substr(0, 1), false));
  for (std::size_t i = 1; i < text.size(); ++i) {
    bed.connection->SendFrame(Continuation(text.substr(i, 1), i + 1 == text.size()));
  }
}

void PingBetweenFragments(Bed& bed, const std::string& payload) {
  bed.connection->SendFrame({support::kPing, true, 0, false, payload});
  const auto pong = bed.connection->ReceiveFrame();
  ASSERT_TRUE(pong);
  EXPECT_EQ(pong->opcode, support::kPong);
  EXPECT_EQ(pong->payload, payload);
}

void SendControlFramesBetweenFragments(Bed& bed) {
  bed.connection->SendFrame(TextFrame("one ", false));
  PingBetweenFragments(bed, "first");
  bed.connection->SendFrame(Continuation("", false));
  bed.connection->SendFrame(Continuation("two ", false));
  bed.connection->SendFrame({support::kPong, true, 0, false, "unasked for"});
  PingBetweenFragments(bed, std::string(125, 'p'));
  PingBetweenFragments(bed, "");
  bed.connection->SendFrame(Continuation("three", true));
}

void SendTooMuchInFragments(Bed& bed) {
  bed.connection->SendFrame(TextFrame(std::string(kMebibyte / 2, 'x'), false));
  bed.connection->SendFrame(Continuation(std::string(kMebibyte / 2, 'x'), false));
  bed.connection->SendFrame(Continuation("x", true));
}

void CloseWith(Bed& bed, int code) {
  bed.connection->SendClose(code);
  bed.connection->WaitForEnd(seconds(5));
  bed.connection->Close();
}

// The test plays no part until the link is back: the server reads nothing, writes nothing, closes nothing.
void Freeze(Bed&) {}

const char kUnreachable[] = "signalling: cannot reach 127.0.0.1:";

const Fault kFaults[] = {
    // name, when, fault, same link, close code, given up after, back within, said, heard
    {"Refuses", When::kRefused, RefuseForASecond, false, kNoClose, seconds(0), seconds(16), kUnreachable},
    {"Vanishes", When::kVanished, VanishForAWhile, false, kNoClose, seconds(10), seconds(24),
     ": no answer; trying again\n"},
    {"AcceptsLate", When::kConnecting, AcceptLate, true, kNoClose, seconds(0), seconds(7)},
    {"AcceptsAndStaysSilent", When::kConnecting, Accept, false, kNoClose, seconds(10), seconds(12),
     ": no answer; trying again\n"},
    {"AnswersLate", When::kConnecting, AnswerLate, true, kNoClose, seconds(0), seconds(7)},
    {"AnswersByteByByte", When::kConnecting, AnswerByteByByte, true, kNoClose, seconds(0), seconds(5)},
    {"AnswersInHalf", When::kConnecting, AnswerInHalf, false, kNoClose, seconds(10), seconds(12),
     ": no answer; trying again\n"},
    {"ResetsBeforeTheHandshake", When::kConnecting, ResetBeforeTheHandshake, false, kNoClose, seconds(0), seconds(2),
     kUnreachable},
    {"ClosesInMidHandshake", When::kConnecting, CloseInMidHandshake, false, kNoClose, seconds(0), seconds(2),
     kUnreachable},
    {"Answers401", When::kConnecting,
     AnswerWith(support::RefusingResponse("401 Unauthorized", "WWW-Authenticate: Basic\r\n")), false, kNoClose,
     seconds(0), seconds(2), ": the server answered 401 instead of opening a WebSocket; trying again\n"},
    {"Answers301", When::kConnecting,
     AnswerWith(support::RefusingResponse("301 Moved Permanently", "Location: ws://127.0.0.1:1/\r\n")), false, kNoClose,
     seconds(0), seconds(2), ": the server answered 301 instead of opening a WebSocket; trying again\n"},
    {"Answers503", When::kConnecting,
     AnswerWith(support::RefusingResponse("503 Service Unavailable", "Retry-After: 3600\r\n")), false, kNoClose,
     seconds(0), seconds(2), ": the server answered 503 instead of opening a WebSocket; trying again\n"},
    {"Answers200", When::kConnecting, AnswerWith("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi"), false, kNoClose,
     seconds(0), seconds(2), ": the server answered 200 instead of opening a WebSocket; trying again\n"},
    {"AnswersGarbage", When::kConnecting, AnswerWith("\x16\x03\x01 SSH-2.0-garbage\r\n\r\n"), false, kNoClose,
     seconds(10), seconds(12), ": no answer; trying again\n"},
    {"AnswersHttpGarbage", When::kConnecting, AnswerWith("HTTP/1.1 abc\r\n\r\n"), false, kNoClose, seconds(0),
     seconds(2), kUnreachable},
    {"AnswersWithAWrongKey", When::kConnecting, AnswerWith(support::SwitchingProtocols("bm90IHRoZSBrZXkgeW91IHNlbnQ=")),
     false, kNoClose, seconds(0), seconds(2), kUnreachable},

    {"Resets", When::kUp, [](Bed& bed) { bed.connection->Reset(); }, false, kNoClose, seconds(0), seconds(2)},
    {"ResetsInMidFrame", When::kUp, ResetInMidFrame, false, kNoClose, seconds(0), seconds(2)},
    {"EndsWithoutAClose", When::kUp, [](Bed& bed) { bed.connection->Close(); }, false, kNoClose, seconds(0),
     seconds(2)},
    {"Freezes", When::kUp, Freeze, false, kNoClose, seconds(30), seconds(60)},
    {"FreezesInMidFrame", When::kUp, Send(EncodeFrame(TextFrame("never whole")).substr(0, 5)), false, kNoClose,
     seconds(30), seconds(60)},
    {"ClosesNormally", When::kUp, [](Bed& bed) { CloseWith(bed, 1000); }, false, 1000, seconds(0), seconds(2)},
    {"GoesAway", When::kUp, [](Bed& bed) { CloseWith(bed, 1001); }, false, 1001, seconds(0), seconds(2)},
    {"Restarts", When::kUp, [](Bed& bed) { CloseWith(bed, 1012); }, false, kUnknownCode, seconds(0), seconds(2)},
    {"TriesAgainLater", When::kUp, [](Bed& bed) { CloseWith(bed, 1013); }, false, kUnknownCode, seconds(0), seconds(2)},
    {"SendsByteByByte", When::kUp, SendOneByteAtATime, true, kNoClose, seconds(0), seconds(2), "", {"byte by byte"}},
    {"SendsOneByteFragments",
     When::kUp,
     SendOneByteFragments,
     true,
     kNoClose,
     seconds(0),
     seconds(2),
     "",
     {"fragment by fragment"}},
    {"SendsControlFramesBetweenFragments",
     When::kUp,
     SendControlFramesBetweenFragments,
     true,
     kNoClose,
     seconds(0),
     seconds(2),
     "",
     {"one two three"}},
    {"SendsExactlyTheLimit",
     When::kUp,
     Send(EncodeFrame(TextFrame(std::string(kMebibyte, 'x')))),
     true,
     kNoClose,
     seconds(0),
     seconds(5),
     "",
     {std::string(kMebibyte, 'x')}},
    {"SendsOverTheLimit", When::kUp, Send(EncodeFrame(TextFrame(std::string(kMebibyte + 1, 'x')))), false, 1009,
     seconds(0), seconds(5), "signalling: the signalling server sent a message over 1 MiB, the link is closed\n"},
    {"SendsOverTheLimitInFragments", When::kUp, SendTooMuchInFragments, false, 1009, seconds(0), seconds(5),
     "signalling: the signalling server sent a message over 1 MiB, the link is closed\n"},
    {"AnnouncesAHugeFrame", When::kUp,
     Send(EncodeHeader(TextFrame(""), 0x7fffffffffffffff) + std::string(kMebibyte + 5000, 'x')), false, 1009,
     seconds(0), seconds(5), "signalling: the signalling server sent a message over 1 MiB, the link is closed\n"},
    {"SendsInvalidUtf8", When::kUp, Send(EncodeFrame(TextFrame("\xc3\x28"))), false, 1007, seconds(0), seconds(2),
     "signalling: the signalling server sent a text that is not UTF-8, the link is closed\n"},
    {"SendsInvalidUtf8InALongFrame", When::kUp,
     Send(EncodeFrame(TextFrame("\xc3\x28" + std::string(kMebibyte / 2, 'x')))), false, 1007, seconds(0), seconds(2),
     "signalling: the signalling server sent a text that is not UTF-8, the link is closed\n"},
    {"SendsUtf8CutOff", When::kUp, Send(EncodeFrame(TextFrame("\xe2\x82"))), false, 1007, seconds(0), seconds(2),
     "signalling: the signalling server sent a text that is not UTF-8, the link is closed\n"},
    {"SendsAReservedOpcode", When::kUp, Send(EncodeFrame({0x3, true, 0, false, "x"})), false, kNoClose, seconds(0),
     seconds(2)},
    {"SendsAReservedControlOpcode", When::kUp, Send(EncodeFrame({0xb, true, 0, false, "x"})), false, kNoClose,
     seconds(0), seconds(2)},
    {"SendsAReservedBit", When::kUp, Send(EncodeFrame({support::kText, true, 4, false, "x"})), false, kNoClose,
     seconds(0), seconds(2)},
    {"SendsAMaskedFrame",
     When::kUp,
     Send(EncodeFrame({support::kText, true, 0, true, "x"})),
     true,
     kNoClose,
     seconds(0),
     seconds(2),
     "",
     {"x"}},
    {"SendsALongPing", When::kUp, Send(EncodeFrame({support::kPing, true, 0, false, std::string(126, 'p')})), false,
     kNoClose, seconds(0), seconds(2), "Control frame asking for extended length is illegal"},
    {"SendsAFragmentedPing", When::kUp, Send(EncodeFrame({support::kPing, false, 0, false, "p"})), false, kNoClose,
     seconds(0), seconds(2)},
    {"ContinuesNothing", When::kUp, Send(EncodeFrame(Continuation("x", true))), false, kNoClose, seconds(0),
     seconds(2)},
    {"BeginsInsideAMessage", When::kUp, Send(EncodeFrame(TextFrame("a", false)) + EncodeFrame(TextFrame("b"))), false,
     kNoClose, seconds(0), seconds(2)},
};

class NetworkFault : public ClientTest, public testing::WithParamInterface<Fault> {
 protected:
  // A link that has proved itself by a message, so that the next failure is a first one.
  void BringUp(Bed& bed) {
    bed.connection = ConnectTo(bed.server);
    ASSERT_NE(bed.connection, nullptr);
    bed.connection->SendText("proof");
    ASSERT_TRUE(observer_.WaitForMessages(1));
  }

  void Prepare(Bed& bed) {
    const When when = GetParam().when;
    if (when == When::kUp) return BringUp(bed);
    if (when == When::kRefused) bed.server.Refuse();
    if (when == When::kVanished) bed.server.Vanish();
    Connect(bed.server.Address(), bed.server.Port());
    StartService();
  }

  // The client ends the faulty connection: at the time that is told, and with the code.
  void ExpectOldLinkEnded(Bed& bed, Clock::time_point faultTime) {
    const Fault& fault = GetParam();
    if (bed.connection == nullptr || bed.connection->Ended()) return;
    const auto within = fault.givenUp + support::kPatience;
    ASSERT_TRUE(fault.closeCode != kNoClose ? bed.connection->WaitForEnd(within)
                                            : bed.connection->WaitForEndFrozen(within));
    const std::chrono::duration<double> ended = Clock::now() - faultTime;
    EXPECT_GE(ended.count(), static_cast<double>(fault.givenUp.count()) - 1);
    EXPECT_LE(ended.count(), static_cast<double>(fault.givenUp.count()) + kSlack);
  }

  static constexpr double kSlack = 4;  // seconds, for a busy machine

  CapturedOutput errors_{STDERR_FILENO};
};

TEST_P(NetworkFault, IsSurvived) {
  const Fault& fault = GetParam();
  Bed bed;
  Prepare(bed);
  const auto faultTime = Clock::now();
  if (bed.connection) bed.connection->AnswerPings(fault.sameLink);  // what a lost link has read, it has not confirmed
  fault.inflict(bed);
  EXPECT_EQ(client_.sendMessage("sent during the fault"), 0);
  Connection link;
  if (fault.sameLink) {
    link = std::move(bed.connection);
    if (fault.when != When::kUp) {
      EXPECT_EQ(link->ReceiveText(), "sign-in");
    }
  } else {
    ExpectOldLinkEnded(bed, faultTime);
    if (fault.closeCode != kNoClose) {
      EXPECT_EQ(bed.connection->CloseCodeReceived(), fault.closeCode);
    }
    link = SignedIn(bed.server);
  }
  ASSERT_NE(link, nullptr);
  const std::chrono::duration<double> took = Clock::now() - faultTime;
  EXPECT_LE(took.count(), static_cast<double>(fault.back.count()) + kSlack);
  EXPECT_EQ(link->ReceiveText(), "sent during the fault");

  link->SendText("after the fault");
  std::vector<std::string> heard = fault.heard;
  if (fault.when == When::kUp) heard.insert(heard.begin(), "proof");
  heard.push_back("after the fault");
  ASSERT_TRUE(observer_.WaitForMessages(heard.size()));
  EXPECT_EQ(observer_.Messages(), heard);
  if (*fault.said != '\0') {
    EXPECT_EQ(support::CountOf(fault.said, errors_.Text()), 1) << errors_.Text();
  } else {
    EXPECT_EQ(errors_.Text(), "");
  }
}

INSTANTIATE_TEST_SUITE_P(Table, NetworkFault, testing::ValuesIn(kFaults), FaultName);

class NetworkTrouble : public ClientTest {
 protected:
  CapturedOutput errors_{STDERR_FILENO};
};

TEST_F(NetworkTrouble, IsToldOnceHoweverOftenItComesAndAgainWhenItChanges) {
  ScriptedServer server;
  Connect(server.Address(), server.Port());
  StartService();
  for (int attempt = 0; attempt < 4; ++attempt) {
    const Connection connection = server.Accept();
    ASSERT_NE(connection, nullptr);
    ASSERT_TRUE(connection->ReadHandshake());
    connection->SendBytes(support::RefusingResponse(attempt < 3 ? "401 Unauthorized" : "503 Service Unavailable"));
  }
  EXPECT_TRUE(errors_.WaitFor("answered 503 instead"));
  EXPECT_EQ(support::CountOf("signalling: ", errors_.Text()), 2) << errors_.Text();
  EXPECT_EQ(support::CountOf("answered 401 instead", errors_.Text()), 1);
  const Connection link = SignedIn(server);
  link->SendText("proof");
  EXPECT_TRUE(errors_.WaitFor("signalling: the link is up again\n"));
}

TEST_F(NetworkTrouble, AServerThatAnswersPingsKeepsAnIdleLink) {
  ScriptedServer server;
  const Connection connection = ConnectTo(server);
  EXPECT_EQ(connection->ReceiveText(seconds(50)), std::nullopt);  // answers pings meanwhile
  EXPECT_FALSE(connection->Ended());
  EXPECT_GE(connection->Pings(), 2);
  EXPECT_LE(connection->Pings(), 4);
  EXPECT_TRUE(client_.isConnected());
}

TEST_F(NetworkTrouble, MessagesAreProofOfLifeToo) {
  ScriptedServer server;
  const Connection connection = ConnectTo(server);
  connection->AnswerPings(false);
  for (int second = 0; second < 40; ++second) {
    connection->SendText("still here");
    EXPECT_EQ(connection->ReceiveText(seconds(1)), std::nullopt);
    ASSERT_FALSE(connection->Ended());
  }
  EXPECT_TRUE(client_.isConnected());
}

TEST_F(NetworkTrouble, ConnectReturnsInThreeSecondsWhateverTheServerDoes) {
  ScriptedServer vanished;
  vanished.Vanish();
  const auto start = Clock::now();
  Connect(vanished.Address(), vanished.Port());
  EXPECT_LT(Clock::now() - start, seconds(3 + 2));
  StartService();
  const auto again = Clock::now();
  Connect(vanished.Address(), vanished.Port());  // now with the service thread at work
  EXPECT_LT(Clock::now() - again, seconds(3 + 2));
}

TEST_F(NetworkTrouble, AttemptsGrowApart) {
  ScriptedServer server;
  Connect(server.Address(), server.Port());
  StartService();
  int attempts = 0;
  const auto start = Clock::now();
  while (Clock::now() - start < seconds(20)) {
    const Connection connection = server.Accept(milliseconds(500));
    if (connection) {
      ++attempts;
      connection->Reset();
    }
  }
  EXPECT_GE(attempts, 2);
  EXPECT_LE(attempts, 15);  // without back-off they would be thousands
}

}  // namespace
