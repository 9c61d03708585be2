#include "viewer_session.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "dtls_identity.h"
#include "sdp_samples.h"

namespace kovra {
namespace {

class Answers final : public KovraStreamerCallback {
 public:
  void onAnswer(KOVRA_SESSION_ID, const std::string&) override { note("answer"); }
  void onIceCandidate(KOVRA_SESSION_ID, const std::string&) override {}
  void onStateChange(KOVRA_SESSION_ID, KOVRA_STATE state) override {
    if (state == KOVRA_STATE_FAILED) note("failed");
    if (state == KOVRA_STATE_NONE) note("mark");
  }
  void onAudioFrame(KOVRA_SESSION_ID, void*, unsigned int) override {}

  std::vector<std::string> all() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return all_;
  }

 private:
  void note(const char* what) {
    const std::lock_guard<std::mutex> lock(mutex_);
    all_.emplace_back(what);
  }

  std::mutex mutex_;
  std::vector<std::string> all_;
};

// A session whose look-ups of names take until the test lets them fail.
class ViewerSessionTest : public testing::Test {
 protected:
  ViewerSessionTest() {
    ice_.context = network_.context();
    callbacks_->setReceiver(&answers_);
    CallbackThread::Start(callbacks_);
    network_.start();
  }
  ~ViewerSessionTest() override {
    network_.stop([this] {
      session_.reset();
      hosts_.reset();
    });
    callbacks_->stop();
  }

  void begin(const KovraSessionConfig& config) {
    shared_ = table_.add(config);
    std::string reason;
    const auto offer = ReadSdpOffer(kBrowserOffer, reason);
    ASSERT_TRUE(offer) << reason;
    const auto negotiation = Negotiate(*offer, SdpSetup::kPassive, reason);
    ASSERT_TRUE(negotiation) << reason;
    run([&] {
      session_ = std::make_unique<ViewerSession>(shared_, services_);
      session_->acceptOffer(*offer, *negotiation);
    });
  }
  void run(const std::function<void()>& task) {
    std::promise<void> done;
    network_.post([&] {
      task();
      done.set_value();
    });
    done.get_future().wait();
  }
  // Lets the look-up that is under way fail, and waits until the session knows.
  void failLookup() {
    std::promise<void> told;
    run([&] { hosts_->resolve("slow.example", [&](const HostResolver::Addresses&) { told.set_value(); }); });
    nameService_->go.set_value();
    told.get_future().wait();
  }

  // All that was called back until now.
  std::vector<std::string> answersSoFar() {
    run([&] { callbacks_->postState(shared_, KOVRA_STATE_NONE); });
    while (answers_.all().empty() || answers_.all().back() != "mark") std::this_thread::yield();
    auto all = answers_.all();
    all.pop_back();
    return all;
  }

  struct NameService {
    std::promise<void> go;
    std::shared_future<void> gone{go.get_future()};
  };
  const std::shared_ptr<NameService> nameService_ = std::make_shared<NameService>();
  Answers answers_;
  NetworkThread network_{[] {}};
  std::optional<HostResolver> hosts_{std::in_place, network_, [service = nameService_](const std::string&) {
                                       service->gone.wait();
                                       return HostResolver::Addresses();
                                     }};
  IceContext ice_;
  const std::shared_ptr<CallbackThread> callbacks_ = std::make_shared<CallbackThread>();
  SessionTable table_;
  const std::shared_ptr<FramePool> pool_ = FramePool::Create(0);
  FrameQueue frames_;
  VideoInput video_{pool_, frames_};
  PacketBatch batch_;
  const SessionServices services_{*DtlsIdentity::Get(),   ice_, *hosts_, *callbacks_, table_, video_, batch_,
                                  [](KOVRA_SESSION_ID) {}};
  SessionHandle shared_;
  std::unique_ptr<ViewerSession> session_;
};

TEST_F(ViewerSessionTest, AnswersOnceTheLastRelayIsNotFoundAndAllElseIsGathered) {
  KovraSessionConfig config;
  config.trickleIce = false;
  config.iceServers = {{"turn:slow.example:3478?transport=udp", "user", "password"}};
  begin(config);
  // Gathering of the machine's own addresses is done long before the time for an answer without relays.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  failLookup();
  EXPECT_EQ(answersSoFar(), std::vector<std::string>{"answer"});
}

TEST_F(ViewerSessionTest, GivesNoAnswerAfterItFailed) {
  KovraSessionConfig config;
  config.trickleIce = false;
  config.iceServers = {{"stun:slow.example:3478", "", ""}};
  rlimit usual{};
  getrlimit(RLIMIT_NOFILE, &usual);
  const rlimit few{20, usual.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  begin(config);
  while (answers_.all().empty()) std::this_thread::yield();
  setrlimit(RLIMIT_NOFILE, &usual);
  failLookup();
  // The time for the answer passes, too.
  run([] { std::this_thread::sleep_for(std::chrono::milliseconds(2300)); });
  EXPECT_EQ(answersSoFar(), std::vector<std::string>{"failed"});
}

}  // namespace
}  // namespace kovra
