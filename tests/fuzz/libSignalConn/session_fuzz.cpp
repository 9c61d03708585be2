// Well-formed messages of the server and events of the engine, in any order, against a model of the session
// table. None of them may end the process.
#include <cjson/cJSON.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "exit_trap.h"
#include "kovra_main.h"
#include "strict_engine.h"

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

std::string PeerMessage(int peer, const char* type, const std::string& payload) {
  const std::unique_ptr<cJSON, void (*)(cJSON*)> json(cJSON_CreateObject(), cJSON_Delete);
  cJSON_AddNumberToObject(json.get(), "code", 0);
  cJSON_AddStringToObject(json.get(), "opcode", "message");
  cJSON_AddNumberToObject(json.get(), "sid", peer);
  cJSON_AddStringToObject(json.get(), "serialCode", "V");
  cJSON_AddStringToObject(json.get(), "messageType", type);
  cJSON_AddStringToObject(json.get(), "message", payload.c_str());
  const std::unique_ptr<char, void (*)(void*)> text(cJSON_PrintUnformatted(json.get()), cJSON_free);
  return text.get();
}

// What the table must hold.
class Model {
 public:
  void Add(KOVRA_SESSION_ID session, int peer) { records_.push_back({session, peer}); }
  void Remove(KOVRA_SESSION_ID session) {
    records_.erase(std::remove_if(records_.begin(), records_.end(),
                                  [session](const auto& record) { return record.sessionId == session; }),
                   records_.end());
  }
  KOVRA_SESSION_ID SessionOf(int peer) const {
    const auto found =
        std::find_if(records_.begin(), records_.end(), [peer](const auto& record) { return record.peerId == peer; });
    return found != records_.end() ? found->sessionId : 0;
  }
  void RequireSame(SignalConn* connection) const {
    for (const SignalConn::SessionRecord& record : records_) {
      Require(connection->getSessionId(record.peerId) == SessionOf(record.peerId));
      Require(connection->getPeerId(record.sessionId) == PeerOf(record.sessionId));
    }
  }
  int PeerOf(KOVRA_SESSION_ID session) const {
    const auto found = std::find_if(records_.begin(), records_.end(),
                                    [session](const auto& record) { return record.sessionId == session; });
    return found != records_.end() ? found->peerId : 0;
  }

 private:
  std::vector<SignalConn::SessionRecord> records_;
};

void Call(FuzzedDataProvider* input, SignalConn* connection, Model* model, int peer) {
  engineResults.nextSession = input->ConsumeIntegralInRange<KOVRA_SESSION_ID>(-2, 5);
  engineResults.setRemoteOffer = input->ConsumeBool() ? 0 : -1;
  if (engineResults.nextSession != 0) model->Add(engineResults.nextSession, peer);
  Require(connection->handleSignalMessage(PeerMessage(peer, "callRequest", input->ConsumeRandomLengthString(200))) ==
          0);
}

void HangUp(SignalConn* connection, Model* model, int peer) {
  const KOVRA_SESSION_ID session = model->SessionOf(peer);
  if (session != 0) model->Remove(session);
  Require(connection->handleSignalMessage(PeerMessage(peer, "hangup", "")) == 0);
}

void SwitchType(FuzzedDataProvider* input, SignalConn* connection, int peer) {
  engineResults.setAudioVideoType = input->ConsumeBool() ? 0 : -1;
  const std::string payload = R"({"type":)" + std::to_string(input->ConsumeIntegral<int>()) + "}";
  const char* type = input->ConsumeBool() ? "switchAudio" : "switchVideo";
  Require(connection->handleSignalMessage(PeerMessage(peer, type, payload)) == 0);
}

void SignIn(FuzzedDataProvider* input, SignalConn* connection) {
  std::string text = R"({"code":0,"opcode":"signin","sid":)" + std::to_string(input->ConsumeIntegral<int>());
  for (const char* key : {"stunAddr", "turnAddr", "turnUser", "turnPass"}) {
    text += std::string(",\"") + key + "\":[";
    for (int count = input->ConsumeIntegralInRange(0, 3); count > 0; --count) text += count > 1 ? "\"a\"," : "\"b\"";
    text += "]";
  }
  Require(connection->handleSignalMessage(text + "}") == 0);
}

void Step(FuzzedDataProvider* input, SignalConn* connection, Model* model) {
  const int peer = input->ConsumeIntegralInRange(-1, 4);
  const auto session = input->ConsumeIntegralInRange<KOVRA_SESSION_ID>(-2, 5);
  switch (input->ConsumeIntegralInRange(0, 7)) {
    case 0:
      return Call(input, connection, model, peer);
    case 1:
      engineResults.addRemoteCandidate = input->ConsumeBool() ? 0 : -1;
      Require(connection->handleSignalMessage(
                  PeerMessage(peer, "remoteCandidate", input->ConsumeRandomLengthString(100))) == 0);
      return;
    case 2:
      return HangUp(connection, model, peer);
    case 3:
      return SwitchType(input, connection, peer);
    case 4:
      return SignIn(input, connection);
    case 5: {
      const auto state = static_cast<KOVRA_STATE>(input->ConsumeIntegralInRange(0, 7));
      if (state >= KOVRA_STATE_DISCONNECTED && state <= KOVRA_STATE_CLOSED) model->Remove(session);
      return connection->onStateChange(session, state);
    }
    case 6:
      return connection->onAnswer(session, input->ConsumeRandomLengthString(300));
    default:
      return connection->onIceCandidate(session, input->ConsumeRandomLengthString(100));
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  return freopen("/dev/null", "w", stdout) != nullptr ? 0 : -1;  // the library logs every message
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  alignas(SignalConn) static unsigned char storage[sizeof(SignalConn)];
  Require(RunTrappingExit([data, size] {
    FuzzedDataProvider input(data, size);
    std::fill(storage, storage + sizeof storage, static_cast<unsigned char>(0));
    auto* connection = new (storage) SignalConn;
    Model model;
    while (input.remaining_bytes() > 0) {
      Step(&input, connection, &model);
      model.RequireSame(connection);
    }
    connection->~SignalConn();
  }));
  return 0;
}
