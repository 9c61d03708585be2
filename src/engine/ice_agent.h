// The path to one viewer: ICE (RFC 8445, 8838) by libnice, one component.
#ifndef SIGNALCONN_ENGINE_ICE_AGENT_H
#define SIGNALCONN_ENGINE_ICE_AGENT_H

#include <nice/agent.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "connection_state.h"
#include "ice_candidate.h"
#include "packet_batch.h"
#include "stun_discovery.h"
#include "udp_inlet.h"
#include "udp_path.h"

namespace kovra {

// Where a STUN or TURN server is.
struct IceServerAddress {
  std::string ip;
  std::uint16_t port = 0;
};

struct IceRelay {
  IceServerAddress address;
  IceTransport transport = IceTransport::kUdp;
  std::string username;
  std::string credential;
};

struct IceSettings {
  bool controlling = false;
  bool relayOnly = false;
  std::string localUfrag;
  std::string localPassword;
  std::vector<std::string> localAddresses;  // IP literals to gather on
  std::vector<IceServerAddress> stunServers;
  std::vector<IceRelay> relays;
  std::shared_ptr<void> heldUntilClosed;  // let go of when the agent's sockets are closed, too
};

// Where the agents of an engine run.
struct IceContext {
  GMainContext* context = nullptr;
  unsigned closing = 0;  // agents that are gone for their sessions but still give back their relays
};

// Everything happens on the thread that runs the context: calls come from there, and the observer is called there,
// also from inside a call. The observer must not destroy the object from inside a callback.
class IceAgent {
 public:
  class Observer {
   public:
    virtual void onIceState(IceTransportState state) = 0;
    virtual void onLocalCandidate(const IceCandidate& candidate) = 0;
    // Nothing is under way any more; again after each server that was added later.
    virtual void onGatheringDone() = 0;
    // A datagram of the viewer's that is not STUN; its bytes may be changed during the call.
    virtual void onDatagram(std::uint8_t* data, std::size_t size) = 0;
    // A STUN message on the selected pair while isDirect. Whether it was for the observer, so that libnice is not to
    // see it.
    virtual bool onStun(ByteView message) = 0;
    // The viewer's checks come from more addresses than any honest viewer has; once. libnice keeps every one of them
    // and knows no limit, so that the object is to be destroyed soon.
    virtual void onTooManyAddresses() = 0;

   protected:
    ~Observer() = default;
  };

  // What was selected, for the log: "host", "srflx", "prflx" or "relay".
  struct SelectedPair {
    std::string local;
    std::string remote;
  };

  // Null when libnice refuses the settings. observer outlives the object, ice every agent that it counts.
  static std::unique_ptr<IceAgent> Create(IceContext& ice, const IceSettings& settings, Observer& observer);
  // Lets relays free their allocations: that goes on in the context for a moment, unobserved.
  ~IceAgent();
  IceAgent(const IceAgent&) = delete;
  IceAgent& operator=(const IceAgent&) = delete;

  // False when not even one address could be used. By its return the host candidates are known.
  bool gather();
  // Asks one more STUN server after gather. False when there is nothing to ask it for.
  bool addStunServer(const IceServerAddress& server);
  // One more relay, also while gathering; at most 8.
  bool addRelay(const IceRelay& relay);

  bool setRemoteCredentials(const std::string& ufrag, const std::string& password);
  // Pairs a candidate of the viewer's, whose address is a literal, with ours. False when it is of no use to us.
  bool addRemoteCandidate(const IceCandidate& candidate);

  // Whether a pair works, so that send does.
  bool isConnected() const { return state_ == IceTransportState::kConnected; }
  // Sends the batch's packets from first on. Returns how many of the batch are done with, as UdpPath does.
  std::size_t send(const PacketBatch& batch, std::size_t first);
  bool send(ByteView datagram);

  // Whether the selected pair is plain UDP, and the observer sees the viewer's STUN. Otherwise libnice asks for the
  // viewer's consent, and fails when there is none for 50 s.
  bool isDirect() const { return inlet_.has_value(); }
  // May change until a pair is selected.
  bool isControlling() const;
  SelectedPair selectedPair() const;

 private:
  // What is left of the object until libnice has closed.
  struct Farewell {
    IceContext& ice;
    NiceAgent* agent;
    std::shared_ptr<void> held;
  };

  IceAgent(IceContext& ice, NiceAgent* agent, unsigned stream, const IceSettings& settings, Observer& observer);

  bool configure(const IceSettings& settings);
  void onComponentState(NiceComponentState state);
  void onNewCandidate(const NiceCandidate& candidate);
  void onMappedAddress(const IceCandidate& host, const MappedAddress& mapped);
  void tellWhenGathered();
  void onAddressLearnt();
  void onSelectedPair(const NiceCandidate& local, const NiceCandidate& remote);
  void useDirectPath(const NiceCandidate& local, const NiceCandidate& remote);
  bool take(std::uint8_t* data, std::size_t size);
  std::size_t sendThroughAgent(const PacketBatch& batch, std::size_t first);

  struct Unref {
    void operator()(GSocket* socket) const { g_object_unref(socket); }
  };

  IceContext& ice_;
  std::unique_ptr<Farewell> farewell_;
  NiceAgent* const agent_;
  const unsigned stream_;
  const bool relayOnly_;
  bool hasAllocations_ = false;
  bool isStarting_ = false;   // inside gather
  bool isGathering_ = false;  // libnice is; what else is asked, discovery_ knows
  Observer& observer_;
  IceTransportState state_ = IceTransportState::kNew;
  unsigned remoteCandidates_ = 0;           // told by the viewer
  unsigned learntAddresses_ = 0;            // known from its checks only
  std::unique_ptr<GSocket, Unref> socket_;  // of path_; libnice may close it
  std::optional<UdpPath> path_;             // while the selected pair is plain UDP
  std::optional<UdpInlet> inlet_;           // together with path_
  const std::vector<IceServerAddress> stunServers_;
  std::vector<IceCandidate> hosts_;
  std::vector<MappedAddress> mapped_;  // told to the observer
  StunDiscovery discovery_;
};

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_ICE_AGENT_H
