// The library's rpc-port proxy fed hostile callback parcels. One connection per process,
// to a stub of this process whose callback channel carries the inputs, with three
// delegates: one kept, one dropped after its first call, one that marks the end of each
// input. Each input is one parcel on the callback channel, followed by a marker
// invocation: the input must be dispatched or dropped before the marker, a one-shot
// delegate that ran must be gone, and a kept one must stay unless it disposed of itself
// (an invocation with the id "dispose").
#include <initializer_list>
#include <memory>

#include "fuzz_env.h"
#include "message/message.h"

namespace {

using rpc_port::message::proxy::message;

constexpr const char kAppId[] = "org.fuzz.companion";
constexpr int kDelegateId = static_cast<int>(message::DelegateId::ResponseCB);
constexpr int kResultMethod = static_cast<int>(message::MethodId::Result);
constexpr int kCallbackMethod = static_cast<int>(message::MethodId::Callback);
enum Seq { kKept = 1000, kOnce, kMarker };  // the delegates' fixed identities

struct Slot {
  bool alive, ran, disposed;  // ran and disposed: during the current input
} slots[3];                   // by Seq - kKept

struct Listener : message::IEventListener {
  bool connected = false, lost = false;
  void OnConnected() override { connected = true; }
  void OnDisconnected() override { lost = true; }
  void OnRejected() override { lost = true; }
} listener;

message *proxy;                 // lives as long as the process, as the library's clients do
rpc_port_stub_h stub;           // the same
rpc_port_h main_port, cb_port;  // the stub's ends of the two channels, owned by the stub
std::string marker_seen;        // id of the marker delegate's last invocation

template <typename Done>
void RunUntil(Done done) {
  gint64 deadline = g_get_monotonic_time() + 10 * G_USEC_PER_SEC;
  while (!done()) {
    if (listener.lost || g_get_monotonic_time() > deadline) abort();  // proxy stopped reading
    g_main_context_iteration(nullptr, FALSE);
  }
}

// A parcel of ints, then, when given, a bool and a string: a delegate's or an invocation's
// shape.
rpc_port_parcel_h Parcel(std::initializer_list<int> ints, int flag = -1, const char *id = nullptr) {
  rpc_port_parcel_h p = nullptr;
  if (rpc_port_parcel_create(&p) != 0) abort();
  for (int v : ints) rpc_port_parcel_write_int32(p, v);
  if (flag >= 0) rpc_port_parcel_write_bool(p, flag);
  if (id) rpc_port_parcel_write_string(p, id);
  return p;
}

void Send(rpc_port_h port, rpc_port_parcel_h p) {
  if (rpc_port_parcel_send(p, port) != 0) abort();
  rpc_port_parcel_destroy(p);
}

struct Delegate : message::ResponseCB {
  explicit Delegate(int id) : ResponseCB(id == kOnce), seq(id), slot(slots[id - kKept]) {
    rpc_port_parcel_h p = Parcel({kDelegateId, seq}, seq == kOnce);  // what inputs can name
    CallbackBase::Deserialize(p, *this);
    rpc_port_parcel_destroy(p);
    slot.alive = true;
  }
  ~Delegate() override { slot.alive = false; }

  void OnReceived(std::string id, bundle *msg) override {
    if (msg) talvo_fuzz::CheckValues(msg);
    slot.ran = true;
    if (seq == kMarker) {
      marker_seen = id;
    } else if (id == "dispose") {
      slot.disposed = true;
      proxy->DisposeCallback(GetTag());  // ends this object
    }
  }

  const int seq;
  Slot &slot;
};

void Register(int seq) {
  std::unique_ptr<message::ResponseCB> cb(new Delegate(seq));
  Send(main_port, Parcel({kResultMethod, 0}));  // the app's answer, ready before the call
  if (proxy->SetCB(cb) != 0) abort();
}

void Connect() {
  talvo_fuzz::FuzzRoot(kAppId);  // the proxy connects to this process's own stub
  talvo_fuzz::WriteManifest(kAppId, std::string("[Application]\nPackage=") + kAppId + "\n");
  auto on_connected = [](const char *, const char *instance, void *) {
    if (rpc_port_stub_get_port(stub, RPC_PORT_PORT_MAIN, instance, &main_port) != 0 ||
        rpc_port_stub_get_port(stub, RPC_PORT_PORT_CALLBACK, instance, &cb_port) != 0)
      abort();
  };
  auto on_received = [](const char *, const char *, rpc_port_h port, void *) {
    rpc_port_parcel_h request = nullptr;  // a SetCB, whose answer was sent ahead
    if (rpc_port_parcel_create_from_port(&request, port) != 0) abort();
    rpc_port_parcel_destroy(request);
    return 0;
  };
  if (rpc_port_stub_create(&stub, "message") != 0 ||
      rpc_port_stub_add_connected_event_cb(stub, on_connected, nullptr) != 0 ||
      rpc_port_stub_add_received_event_cb(stub, on_received, nullptr) != 0 ||
      rpc_port_stub_listen(stub) != 0)
    abort();
  proxy = new message(&listener, kAppId);
  proxy->Connect();
  RunUntil([] { return listener.connected && cb_port; });
  for (int seq : {kKept, kOnce, kMarker}) Register(seq);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  [[maybe_unused]] static const bool connected = (Connect(), true);
  if (size > (1u << 20)) return 0;
  for (int seq : {kKept, kOnce}) {
    Slot &slot = slots[seq - kKept];
    slot.ran = slot.disposed = false;
    if (!slot.alive) Register(seq);
  }

  static unsigned long round = 0;
  std::string nonce = "marker-" + std::to_string(++round);
  if (velna_channel_send(static_cast<rpc_port_s *>(cb_port)->channel, data, size) != 0) abort();
  Send(cb_port, Parcel({kCallbackMethod, kDelegateId, kMarker}, false, nonce.c_str()));
  RunUntil([&nonce] { return marker_seen == nonce; });

  const Slot &kept = slots[0], &once = slots[1];
  if ((once.ran && once.alive) || (kept.ran && !kept.disposed && !kept.alive) || !slots[2].alive)
    abort();
  return 0;
}
