// The library's rpc-port proxy fed hostile callback parcels. One connection per process,
// to a port that this process serves by hand, with three delegates: one kept, one dropped
// after its first call, one that marks the end of each input. Each input is one parcel on
// the callback channel, followed by a marker invocation: the input must be dispatched or
// dropped before the marker, a one-shot delegate that ran must be gone, and a kept one
// must stay unless it disposed of itself (an invocation with the id "dispose").
#include <sys/un.h>

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
rpc_port_s main_port, cb_port;  // this process's ends of the two channels
std::string marker_seen;        // id of the marker delegate's last invocation

template <typename Done>
void RunUntil(Done done) {
  gint64 deadline = g_get_monotonic_time() + 10 * G_USEC_PER_SEC;
  while (!done()) {
    if (listener.lost || g_get_monotonic_time() > deadline) abort();  // proxy stopped reading
    g_main_context_iteration(nullptr, FALSE);
  }
}

// Sends a parcel of ints, then, when id is given, false and id: an invocation's shape.
void Send(rpc_port_s &port, std::initializer_list<int> ints, const char *id = nullptr) {
  rpc_port_parcel_h p = nullptr;
  if (rpc_port_parcel_create(&p) != 0) abort();
  for (int v : ints) rpc_port_parcel_write_int32(p, v);
  if (id) {
    rpc_port_parcel_write_bool(p, false);
    rpc_port_parcel_write_string(p, id);
  }
  if (rpc_port_parcel_send(p, &port) != 0) abort();
  rpc_port_parcel_destroy(p);
}

class Delegate : public message::ResponseCB {
 public:
  explicit Delegate(int seq) : ResponseCB(seq == kOnce), slot_(slots[seq - kKept]), seq_(seq) {
    rpc_port_parcel_h p = nullptr;  // the identity that inputs can name
    rpc_port_parcel_create(&p);
    rpc_port_parcel_write_int32(p, kDelegateId);
    rpc_port_parcel_write_int32(p, seq);
    rpc_port_parcel_write_bool(p, seq == kOnce);
    CallbackBase::Deserialize(p, *this);
    rpc_port_parcel_destroy(p);
    slot_.alive = true;
  }
  ~Delegate() override { slot_.alive = false; }

 protected:
  void OnReceived(std::string id, bundle *msg) override {
    if (msg) talvo_fuzz::CheckValues(msg);
    if (seq_ == kMarker) {
      marker_seen = id;
      return;
    }
    slot_.ran = true;
    if (id == "dispose") {
      slot_.disposed = true;
      proxy->DisposeCallback(GetTag());  // ends this object
    }
  }

 private:
  Slot &slot_;
  int seq_;
};

void Register(int seq) {
  std::unique_ptr<message::ResponseCB> cb(new Delegate(seq));
  Send(main_port, {kResultMethod, 0});  // the app's answer, ready before the call
  if (proxy->SetCB(cb) != 0) abort();
  unsigned char *request = nullptr;
  size_t len = 0;
  while (velna_channel_take_frame(main_port.channel, 0, &request, &len) == 0) free(request);
}

void Connect() {
  talvo_fuzz::FuzzRoot("org.fuzz.client");
  talvo_fuzz::WriteManifest(kAppId, std::string("[Application]\nPackage=") + kAppId + "\n");
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (velna_socket_path(RPC_PORT_SOCKET_KIND, kAppId, "message", addr.sun_path,
                        sizeof addr.sun_path) != 0 ||
      fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
      listen(fd, 4) != 0)
    abort();

  proxy = new message(&listener, kAppId);
  proxy->Connect();
  while (!main_port.channel || !cb_port.channel) {
    g_main_context_iteration(nullptr, FALSE);
    int conn = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (conn < 0) continue;
    velna_channel *ch = velna_channel_new(conn, RPC_PORT_MAX_PARCEL_SIZE);
    unsigned char *hello = nullptr;
    size_t len = 0;
    if (!ch || velna_channel_take_frame(ch, 10000, &hello, &len) != 0 || len < RPC_PORT_HELLO_MIN)
      abort();
    char kind = static_cast<char>(hello[RPC_PORT_HANDSHAKE_MAGIC_LEN]);
    free(hello);
    (kind == RPC_PORT_PORT_MAIN ? main_port : cb_port).channel = ch;
    std::string ack = std::string(RPC_PORT_HANDSHAKE_MAGIC) + kind;
    ack += static_cast<char>(RPC_PORT_ACK_OK);
    if (velna_channel_send(ch, ack.data(), ack.size()) != 0) abort();
  }
  close(fd);
  RunUntil([] { return listener.connected; });
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
  static const uint8_t kEmpty = 0;
  if (velna_channel_send(cb_port.channel, size ? data : &kEmpty, size) != 0) abort();
  Send(cb_port, {kCallbackMethod, kDelegateId, kMarker}, nonce.c_str());
  RunUntil([&nonce] { return marker_seen == nonce; });

  const Slot &kept = slots[0], &once = slots[1];
  if ((once.ran && once.alive) || (kept.ran && !kept.disposed && !kept.alive) || !slots[2].alive)
    abort();
  return 0;
}
