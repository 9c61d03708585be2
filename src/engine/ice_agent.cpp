#include "ice_agent.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <utility>

#include "log.h"

namespace kovra {

namespace {

constexpr unsigned kComponent = NICE_COMPONENT_TYPE_RTP;  // RTCP shares it (RFC 5761)

// Checks follow one another this fast (RFC 8445, 14.2 allows 5 ms), and are repeated first after kCheckTimeout:
// the first picture waits for them.
constexpr unsigned kPacingMillis = 5;
constexpr unsigned kCheckTimeoutMillis = 150;
constexpr unsigned kCheckRetransmissions = 6;

// The request to free an allocation goes out at once, and once more after kCheckTimeout. Nobody hears the answer.
constexpr unsigned kRelayFarewellMillis = 200;

// Far more than a browser with several networks and relays has; what comes late matters most, since relays do.
constexpr unsigned kMaxRemoteCandidates = 64;
// Each NAT binding, interface and relay that was not told of makes one.
constexpr unsigned kMaxLearntAddresses = 64;

IceCandidateType ToType(NiceCandidateType type) {
  switch (type) {
    case NICE_CANDIDATE_TYPE_SERVER_REFLEXIVE:
      return IceCandidateType::kServerReflexive;
    case NICE_CANDIDATE_TYPE_PEER_REFLEXIVE:
      return IceCandidateType::kPeerReflexive;
    case NICE_CANDIDATE_TYPE_RELAYED:
      return IceCandidateType::kRelayed;
    default:
      return IceCandidateType::kHost;
  }
}

NiceCandidateType ToNice(IceCandidateType type) {
  switch (type) {
    case IceCandidateType::kServerReflexive:
      return NICE_CANDIDATE_TYPE_SERVER_REFLEXIVE;
    case IceCandidateType::kPeerReflexive:
      return NICE_CANDIDATE_TYPE_PEER_REFLEXIVE;
    case IceCandidateType::kRelayed:
      return NICE_CANDIDATE_TYPE_RELAYED;
    default:
      return NICE_CANDIDATE_TYPE_HOST;
  }
}

const char* TypeName(NiceCandidateType type) {
  constexpr std::array<const char*, 4> kNames{"host", "srflx", "prflx", "relay"};
  return kNames[static_cast<std::size_t>(type)];
}

std::string IpOf(const NiceAddress& address) {
  char text[NICE_ADDRESS_STRING_LEN];
  nice_address_to_string(&address, text);
  return text;
}

// The context that a task or a source made in this scope belongs to.
class ThreadDefaultContext {
 public:
  explicit ThreadDefaultContext(GMainContext* context) : context_(context) {
    g_main_context_push_thread_default(context);
  }
  ~ThreadDefaultContext() { g_main_context_pop_thread_default(context_); }
  ThreadDefaultContext(const ThreadDefaultContext&) = delete;
  ThreadDefaultContext& operator=(const ThreadDefaultContext&) = delete;

 private:
  GMainContext* const context_;
};

// Nobody can be reached there.
bool IsUsableTarget(const NiceAddress& address) {
  if (nice_address_get_port(&address) == 0) return false;
  if (nice_address_ip_version(&address) == 4) {
    const std::uint32_t ip = ntohl(address.s.ip4.sin_addr.s_addr);
    return ip != INADDR_ANY && ip != INADDR_BROADCAST && !IN_MULTICAST(ip);
  }
  const in6_addr& ip = address.s.ip6.sin6_addr;
  return !IN6_IS_ADDR_UNSPECIFIED(&ip) && !IN6_IS_ADDR_MULTICAST(&ip);
}

// A peer-reflexive candidate may stand for a relay's socket too: only one whose base is the socket's own address is
// reached without anything in between.
bool IsBoundTo(GSocket* socket, const NiceAddress& base) {
  GSocketAddress* bound = g_socket_get_local_address(socket, nullptr);
  if (bound == nullptr) return false;
  sockaddr_storage native{};
  NiceAddress address;
  const bool known = g_socket_address_to_native(bound, &native, sizeof(native), nullptr) != FALSE;
  g_object_unref(bound);
  if (!known) return false;
  nice_address_set_from_sockaddr(&address, reinterpret_cast<const sockaddr*>(&native));
  return nice_address_equal(&address, &base) != FALSE;
}

struct FreeArray {
  void operator()(GPtrArray* array) const { g_ptr_array_unref(array); }
};

struct FreeCandidate {
  void operator()(NiceCandidate* candidate) const { nice_candidate_free(candidate); }
};

}  // namespace

std::unique_ptr<IceAgent> IceAgent::Create(IceContext& ice, const IceSettings& settings, Observer& observer) {
  const ThreadDefaultContext scope(ice.context);
  // Consent is asked for by ourselves: libnice gives up when two answers in a row come late, or one does not come.
  NiceAgent* agent = nice_agent_new_full(ice.context, NICE_COMPATIBILITY_RFC5245, NICE_AGENT_OPTION_ICE_TRICKLE);
  if (agent == nullptr) return nullptr;
  // Two things that need no help from outside the viewer's call, and that open sockets of their own.
  g_object_set(agent, "upnp", FALSE, "ice-tcp", FALSE, nullptr);
  const unsigned stream = nice_agent_add_stream(agent, 1);
  std::unique_ptr<IceAgent> made(new IceAgent(ice, agent, stream, settings, observer));
  if (stream == 0 || !made->configure(settings)) return nullptr;
  return made;
}

IceAgent::IceAgent(IceContext& ice, NiceAgent* agent, unsigned stream, const IceSettings& settings, Observer& observer)
    : ice_(ice),
      farewell_(std::make_unique<Farewell>(Farewell{ice, agent, settings.heldUntilClosed})),
      agent_(agent),
      stream_(stream),
      relayOnly_(settings.relayOnly),
      observer_(observer),
      stunServers_(settings.stunServers),
      discovery_(
          ice.context, [this](std::size_t host, const MappedAddress& mapped) { onMappedAddress(hosts_[host], mapped); },
          [this] { tellWhenGathered(); }) {}

bool IceAgent::configure(const IceSettings& settings) {
  g_object_set(agent_, "controlling-mode", static_cast<gboolean>(settings.controlling), "force-relay",
               static_cast<gboolean>(settings.relayOnly), "stun-pacing-timer", kPacingMillis, "stun-initial-timeout",
               kCheckTimeoutMillis, "stun-max-retransmissions", kCheckRetransmissions, nullptr);
  for (const std::string& text : settings.localAddresses) {
    NiceAddress address;
    nice_address_init(&address);
    if (nice_address_set_from_string(&address, text.c_str())) nice_agent_add_local_address(agent_, &address);
  }
  if (!nice_agent_set_local_credentials(agent_, stream_, settings.localUfrag.c_str(), settings.localPassword.c_str())) {
    return false;
  }
  for (const IceRelay& relay : settings.relays) addRelay(relay);

  g_signal_connect(agent_, "component-state-changed",
                   G_CALLBACK(+[](NiceAgent*, guint, guint, guint state, gpointer self) {
                     static_cast<IceAgent*>(self)->onComponentState(static_cast<NiceComponentState>(state));
                   }),
                   this);
  g_signal_connect(agent_, "new-candidate-full", G_CALLBACK(+[](NiceAgent*, NiceCandidate* candidate, gpointer self) {
                     static_cast<IceAgent*>(self)->onNewCandidate(*candidate);
                   }),
                   this);
  g_signal_connect(agent_, "new-remote-candidate-full", G_CALLBACK(+[](NiceAgent*, NiceCandidate*, gpointer self) {
                     static_cast<IceAgent*>(self)->onAddressLearnt();
                   }),
                   this);
  g_signal_connect(agent_, "candidate-gathering-done", G_CALLBACK(+[](NiceAgent*, guint, gpointer self) {
                     static_cast<IceAgent*>(self)->isGathering_ = false;
                     static_cast<IceAgent*>(self)->tellWhenGathered();
                   }),
                   this);
  g_signal_connect(agent_, "new-selected-pair-full",
                   G_CALLBACK(+[](NiceAgent*, guint, guint, NiceCandidate* local, NiceCandidate* remote,
                                  gpointer self) { static_cast<IceAgent*>(self)->onSelectedPair(*local, *remote); }),
                   this);
  return nice_agent_attach_recv(
             agent_, stream_, kComponent, ice_.context,
             [](NiceAgent*, guint, guint, guint size, gchar* data, gpointer self) {
               static_cast<IceAgent*>(self)->observer_.onDatagram(reinterpret_cast<std::uint8_t*>(data), size);
             },
             this) != FALSE;
}

// nice_agent_close_async would tell when the relays are done, but GLib makes a thread for good for whoever uses its
// tasks. Without a stream an agent must not live on before it has allocations: libnice would still look for the stream
// when it begins to ask the STUN server.
IceAgent::~IceAgent() {
  g_signal_handlers_disconnect_by_data(agent_, this);
  if (stream_ != 0) nice_agent_attach_recv(agent_, stream_, kComponent, nullptr, nullptr, nullptr);
  if (!hasAllocations_) {
    g_object_unref(agent_);
    return;
  }
  nice_agent_remove_stream(agent_, stream_);
  ++farewell_->ice.closing;
  GSource* timer = g_timeout_source_new(kRelayFarewellMillis);
  g_source_set_callback(
      timer,
      [](gpointer data) -> gboolean {
        const std::unique_ptr<const Farewell> farewell(static_cast<Farewell*>(data));
        --farewell->ice.closing;
        g_object_unref(farewell->agent);
        return G_SOURCE_REMOVE;
      },
      farewell_.release(), nullptr);
  g_source_attach(timer, ice_.context);
  g_source_unref(timer);
}

bool IceAgent::gather() {
  isStarting_ = isGathering_ = true;
  const bool gathers = nice_agent_gather_candidates(agent_, stream_) != FALSE;
  for (const IceServerAddress& server : stunServers_) addStunServer(server);
  isStarting_ = false;
  if (gathers) tellWhenGathered();
  return gathers;
}

void IceAgent::tellWhenGathered() {
  if (!isStarting_ && !isGathering_ && discovery_.isDone()) observer_.onGatheringDone();
}

bool IceAgent::addStunServer(const IceServerAddress& server) {
  NiceAddress address;
  nice_address_init(&address);
  if (relayOnly_ || !nice_address_set_from_string(&address, server.ip.c_str())) return false;
  nice_address_set_port(&address, server.port);
  sockaddr_storage to{};
  nice_address_copy_to_sockaddr(&address, reinterpret_cast<sockaddr*>(&to));
  const std::unique_ptr<GPtrArray, FreeArray> sockets(nice_agent_get_sockets(agent_, stream_, kComponent));
  if (!sockets) return false;
  for (std::size_t host = 0; host < hosts_.size(); ++host) {
    NiceAddress base;
    nice_address_init(&base);
    if (!nice_address_set_from_string(&base, hosts_[host].address.c_str())) continue;
    if (nice_address_ip_version(&base) != nice_address_ip_version(&address)) continue;
    nice_address_set_port(&base, hosts_[host].port);
    for (guint i = 0; i < sockets->len; ++i) {
      auto* socket = static_cast<GSocket*>(g_ptr_array_index(sockets.get(), i));
      if (g_socket_get_socket_type(socket) != G_SOCKET_TYPE_DATAGRAM || !IsBoundTo(socket, base)) continue;
      discovery_.ask(socket, host, to);
      break;
    }
  }
  return !discovery_.isDone();
}

// libnice need not know: checks to that address arrive at its base, and from there ours go out.
void IceAgent::onMappedAddress(const IceCandidate& host, const MappedAddress& mapped) {
  constexpr std::uint32_t kTypePreference = 100;  // RFC 8445, 5.1.2.2
  constexpr std::uint32_t kBelowType = 0xFFFFFF;
  const bool isHost = std::any_of(hosts_.begin(), hosts_.end(), [&](const IceCandidate& one) {
    return one.address == mapped.ip && one.port == mapped.port;
  });
  if (isHost || std::find(mapped_.begin(), mapped_.end(), mapped) != mapped_.end()) return;
  mapped_.push_back(mapped);
  IceCandidate found;
  found.foundation = "s" + host.foundation;
  found.priority = kTypePreference << 24 | (host.priority & kBelowType);
  found.address = mapped.ip;
  found.port = mapped.port;
  found.type = IceCandidateType::kServerReflexive;
  found.relatedAddress = host.address;
  found.relatedPort = host.port;
  observer_.onLocalCandidate(found);
}

// libnice gathers again for it, unless no address of ours can reach it: then it tells nothing.
bool IceAgent::addRelay(const IceRelay& relay) {
  const bool added =
      nice_agent_set_relay_info(
          agent_, stream_, kComponent, relay.address.ip.c_str(), relay.address.port, relay.username.c_str(),
          relay.credential.c_str(),
          relay.transport == IceTransport::kTcp ? NICE_RELAY_TYPE_TURN_TCP : NICE_RELAY_TYPE_TURN_UDP) != FALSE;
  if (added) isGathering_ = true;
  return added;
}

bool IceAgent::setRemoteCredentials(const std::string& ufrag, const std::string& password) {
  return nice_agent_set_remote_credentials(agent_, stream_, ufrag.c_str(), password.c_str()) != FALSE;
}

bool IceAgent::addRemoteCandidate(const IceCandidate& candidate) {
  if (candidate.transport != IceTransport::kUdp || candidate.component != kComponent) return false;
  if (remoteCandidates_ >= kMaxRemoteCandidates) return false;
  const std::unique_ptr<NiceCandidate, FreeCandidate> added(nice_candidate_new(ToNice(candidate.type)));
  if (!nice_address_set_from_string(&added->addr, candidate.address.c_str())) return false;
  nice_address_set_port(&added->addr, candidate.port);
  if (!IsUsableTarget(added->addr)) return false;
  added->base_addr = added->addr;
  added->transport = NICE_CANDIDATE_TRANSPORT_UDP;
  added->stream_id = stream_;
  added->component_id = kComponent;
  added->priority = candidate.priority;
  g_strlcpy(added->foundation, candidate.foundation.c_str(), sizeof(added->foundation));

  GSList item{added.get(), nullptr};
  if (nice_agent_set_remote_candidates(agent_, stream_, kComponent, &item) <= 0) return false;
  ++remoteCandidates_;
  return true;
}

std::size_t IceAgent::send(const PacketBatch& batch, std::size_t first) {
  if (!isConnected()) return batch.count();
  return path_ ? path_->send(g_socket_get_fd(socket_.get()), batch, first) : sendThroughAgent(batch, first);
}

std::size_t IceAgent::sendThroughAgent(const PacketBatch& batch, std::size_t first) {
  std::array<GOutputVector, PacketBatch::kMaxPackets> buffers;
  std::array<NiceOutputMessage, PacketBatch::kMaxPackets> messages;
  const std::size_t count = batch.count() - first;
  for (std::size_t i = 0; i < count; ++i) {
    const ByteView packet = batch.packet(first + i);
    buffers[i] = {packet.data, packet.size};
    messages[i] = {&buffers[i], 1};
  }
  GError* error = nullptr;
  const int sent = nice_agent_send_messages_nonblocking(agent_, stream_, kComponent, messages.data(),
                                                        static_cast<guint>(count), nullptr, &error);
  if (sent >= 0) return first + static_cast<std::size_t>(sent);
  const bool later = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK) != FALSE;
  g_clear_error(&error);
  return later ? first : batch.count();
}

bool IceAgent::send(ByteView datagram) {
  return nice_agent_send(agent_, stream_, kComponent, static_cast<guint>(datagram.size),
                         reinterpret_cast<const gchar*>(datagram.data)) == static_cast<gint>(datagram.size);
}

bool IceAgent::isControlling() const {
  gboolean controlling = FALSE;
  g_object_get(agent_, "controlling-mode", &controlling, nullptr);
  return controlling != FALSE;
}

IceAgent::SelectedPair IceAgent::selectedPair() const {
  NiceCandidate* local = nullptr;
  NiceCandidate* remote = nullptr;
  if (!nice_agent_get_selected_pair(agent_, stream_, kComponent, &local, &remote)) return {"none", "none"};
  return {TypeName(local->type), TypeName(remote->type)};
}

void IceAgent::onComponentState(NiceComponentState state) {
  const IceTransportState before = state_;
  switch (state) {
    case NICE_COMPONENT_STATE_CONNECTING:
      // Also while other pairs are still being tried after one worked.
      if (state_ == IceTransportState::kNew) state_ = IceTransportState::kChecking;
      break;
    case NICE_COMPONENT_STATE_CONNECTED:
    case NICE_COMPONENT_STATE_READY:
      state_ = IceTransportState::kConnected;
      break;
    case NICE_COMPONENT_STATE_FAILED:
      state_ = IceTransportState::kFailed;
      break;
    default:
      break;
  }
  if (state_ != before) observer_.onIceState(state_);
}

void IceAgent::onNewCandidate(const NiceCandidate& candidate) {
  if (candidate.type == NICE_CANDIDATE_TYPE_RELAYED) hasAllocations_ = true;
  if (candidate.transport != NICE_CANDIDATE_TRANSPORT_UDP) return;
  if (relayOnly_ && candidate.type != NICE_CANDIDATE_TYPE_RELAYED) return;
  IceCandidate found;
  found.foundation = candidate.foundation;
  found.priority = candidate.priority;
  found.address = IpOf(candidate.addr);
  found.port = static_cast<std::uint16_t>(nice_address_get_port(&candidate.addr));
  found.type = ToType(candidate.type);
  if (found.type != IceCandidateType::kHost) {
    // Behind a relay the viewer has no use for our own address, and relayOnly hides it.
    const bool hidden = found.type == IceCandidateType::kRelayed;
    found.relatedAddress = hidden ? "0.0.0.0" : IpOf(candidate.base_addr);
    found.relatedPort =
        hidden ? std::uint16_t{0} : static_cast<std::uint16_t>(nice_address_get_port(&candidate.base_addr));
  }
  if (found.type == IceCandidateType::kHost) hosts_.push_back(found);
  observer_.onLocalCandidate(found);
}

// libnice walks its lists of them for every datagram: thousands would keep the thread from all other viewers.
void IceAgent::onAddressLearnt() {
  if (learntAddresses_ > kMaxLearntAddresses) return;
  if (++learntAddresses_ > kMaxLearntAddresses) observer_.onTooManyAddresses();
}

void IceAgent::onSelectedPair(const NiceCandidate& local, const NiceCandidate& remote) {
  inlet_.reset();
  path_.reset();
  useDirectPath(local, remote);
  g_object_set(agent_, "keepalive-conncheck", static_cast<gboolean>(!isDirect()), nullptr);
}

void IceAgent::useDirectPath(const NiceCandidate& local, const NiceCandidate& remote) {
  socket_.reset(local.type == NICE_CANDIDATE_TYPE_RELAYED
                    ? nullptr
                    : nice_agent_get_selected_socket(agent_, stream_, kComponent));
  if (!socket_ || g_socket_get_socket_type(socket_.get()) != G_SOCKET_TYPE_DATAGRAM) return;
  if (!IsBoundTo(socket_.get(), local.base_addr)) return;
  sockaddr_storage to{};
  nice_address_copy_to_sockaddr(&remote.addr, reinterpret_cast<sockaddr*>(&to));
  path_.emplace(g_socket_get_fd(socket_.get()), to);
  inlet_.emplace(ice_.context, socket_.get(), to,
                 [this](std::uint8_t* data, std::size_t size) { return take(data, size); });
}

// What shares the port tells itself apart by the first byte (RFC 7983).
bool IceAgent::take(std::uint8_t* data, std::size_t size) {
  if (data[0] < 4) return observer_.onStun({data, size});
  const bool isDtls = data[0] >= 20 && data[0] <= 63;
  const bool isMedia = data[0] >= 128 && data[0] <= 191;
  if (isDtls || isMedia) observer_.onDatagram(data, size);
  return isDtls || isMedia;
}

}  // namespace kovra
