// The library's rpc-port proxy receiving callback parcels from a hostile app. A real
// connection is made once: the proxy connects to a port that this process serves itself
// on raw sockets (answering the handshake by hand), and registers two delegates, one
// kept and one dropped after its first invocation. Each input then arrives as one parcel
// on the callback channel, followed by a marker invocation; the input must be consumed,
// dispatched or dropped, before the marker, and a one-shot delegate that ran must be gone.
#include <bundle.h>
#include <rpc-port.h>

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <glib.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_env.h"
#include "message/message.h"

extern "C" {
#include "channel_internal.h"
#include "rpc_port_internal.h"
#include "runtime_internal.h"
}

namespace {

using rpc_port::message::proxy::message;

constexpr const char kClientId[] = "org.fuzz.client";
constexpr const char kAppId[] = "org.fuzz.companion";
constexpr int kResponseDelegate = static_cast<int>(message::DelegateId::ResponseCB);
constexpr int kKeptSeq = 1000;
constexpr int kOnceSeq = 1001;
constexpr int kMarkerSeq = 1002;
constexpr size_t kMaxInput = 1u << 20;

// ---- bytes as the app writes them ----

void PutLe32(std::string &out, uint32_t v) {
  for (int k = 0; k < 4; ++k) out.push_back(static_cast<char>(v >> (8 * k)));
}

std::string Frame(const std::string &payload) {
  std::string out;
  PutLe32(out, VELNA_FRAME_MAGIC);
  PutLe32(out, static_cast<uint32_t>(payload.size()));
  return out + payload;
}

std::string Int32Field(int v) {
  std::string out(1, '\x01');
  PutLe32(out, static_cast<uint32_t>(v));
  return out;
}

std::string BoolField(bool v) { return std::string(1, '\x02') + (v ? '\x01' : '\x00'); }

std::string StringField(const std::string &s) {
  std::string out(1, '\x03');
  PutLe32(out, static_cast<uint32_t>(s.size()));
  return out + s;
}

// Writes all of bytes to a non-blocking socket, running the loop while it is full.
void Pump(int fd, const std::string &bytes) {
  size_t off = 0;
  while (off < bytes.size()) {
    ssize_t w = send(fd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (w > 0) {
      off += static_cast<size_t>(w);
    } else if (w < 0 && (errno == EAGAIN || errno == EINTR)) {
      g_main_context_iteration(nullptr, FALSE);
    } else {
      abort();
    }
  }
}

// Reads one whole frame from a blocking socket.
std::string ReadFrame(int fd) {
  std::string out;
  auto read_n = [fd, &out](size_t n) {
    out.resize(out.size() + n);
    while (n > 0) {
      ssize_t r = read(fd, &out[out.size() - n], n);
      if (r <= 0) abort();
      n -= static_cast<size_t>(r);
    }
  };
  read_n(VELNA_FRAME_HEADER_SIZE);
  const auto *h = reinterpret_cast<const unsigned char *>(out.data());
  uint32_t len = h[4] | h[5] << 8 | h[6] << 16 | static_cast<uint32_t>(h[7]) << 24;
  if (len > RPC_PORT_HELLO_MAX) abort();
  read_n(len);
  return out.substr(VELNA_FRAME_HEADER_SIZE);
}

// ---- the library's side ----

struct Listener : message::IEventListener {
  bool connected = false;
  bool lost = false;
  void OnConnected() override { connected = true; }
  void OnDisconnected() override { lost = true; }
  void OnRejected() override { lost = true; }
};

struct Harness;

// A delegate whose invocations and end the harness watches.
class Delegate : public message::ResponseCB {
 public:
  Delegate(Harness *h, int seq, bool once);
  ~Delegate() override;

 protected:
  void OnReceived(std::string id, bundle *msg) override;

 private:
  Harness *harness_;
  int seq_;
};

struct Slot {
  int seq;
  bool once;
  bool alive = false;
  bool ran = false;       // invoked during the current input
  bool disposed = false;  // disposed of itself from inside its invocation
};

struct Harness {
  Listener listener;
  std::unique_ptr<message> proxy;
  int main_fd = -1;  // our ends of the two channels
  int cb_fd = -1;
  Slot kept{kKeptSeq, false};
  Slot once{kOnceSeq, true};
  Slot marker{kMarkerSeq, false};
  std::string marker_seen;

  Slot &SlotFor(int seq) { return seq == kKeptSeq ? kept : seq == kOnceSeq ? once : marker; }

  void RunUntil(const bool &flag) {
    gint64 deadline = g_get_monotonic_time() + 10 * G_USEC_PER_SEC;
    while (!flag && !listener.lost) {
      if (g_get_monotonic_time() > deadline) abort();  // the proxy stopped reading
      g_main_context_iteration(nullptr, FALSE);
    }
    if (listener.lost) abort();
  }

  // Registers a delegate for slot with the app, which answers at once.
  void Register(Slot &slot) {
    std::unique_ptr<message::ResponseCB> cb(new Delegate(this, slot.seq, slot.once));
    slot.alive = true;
    Pump(main_fd, Frame(Int32Field(static_cast<int>(message::MethodId::Result)) + Int32Field(0)));
    if (proxy->SetCB(cb) != 0) abort();
    char sink[4096];
    while (recv(main_fd, sink, sizeof sink, MSG_DONTWAIT) > 0) {
    }
  }

  void Connect() {
    const talvo_fuzz::FuzzEnv &env = talvo_fuzz::SetUpFuzzEnv(kClientId);
    std::string manifest = std::string("[Application]\nPackage=") + kAppId + "\n";
    talvo_fuzz::WriteManifest(env, kAppId, manifest.data(), manifest.size());

    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (velna_socket_path(RPC_PORT_SOCKET_KIND, kAppId, "message", addr.sun_path,
                          sizeof addr.sun_path) != 0)
      abort();
    int listen_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listen_fd < 0 || bind(listen_fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        listen(listen_fd, 4) != 0)
      abort();

    proxy.reset(new message(&listener, kAppId));
    proxy->Connect();
    // The first attempt opens both channels and sends both hellos in one loop turn.
    for (int i = 0; i < 2; ++i) {
      while (true) {
        g_main_context_iteration(nullptr, FALSE);
        int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0) {
          fcntl(fd, F_SETFL, 0);
          std::string hello = ReadFrame(fd);
          unsigned char kind = static_cast<unsigned char>(hello.at(RPC_PORT_HANDSHAKE_MAGIC_LEN));
          (kind == RPC_PORT_PORT_MAIN ? main_fd : cb_fd) = fd;
          std::string ack(RPC_PORT_HANDSHAKE_MAGIC, RPC_PORT_HANDSHAKE_MAGIC_LEN);
          ack += static_cast<char>(kind);
          ack += static_cast<char>(RPC_PORT_ACK_OK);
          std::string framed = Frame(ack);
          if (write(fd, framed.data(), framed.size()) != static_cast<ssize_t>(framed.size()))
            abort();
          break;
        }
      }
    }
    close(listen_fd);
    if (main_fd < 0 || cb_fd < 0) abort();
    fcntl(main_fd, F_SETFL, O_NONBLOCK);
    fcntl(cb_fd, F_SETFL, O_NONBLOCK);
    RunUntil(listener.connected);

    Register(kept);
    Register(once);
    Register(marker);
  }
};

Delegate::Delegate(Harness *h, int seq, bool once) : ResponseCB(once), harness_(h), seq_(seq) {
  // Gives the delegate the fixed identity that inputs can name.
  rpc_port_parcel_h p = nullptr;
  rpc_port_parcel_create(&p);
  rpc_port_parcel_write_int32(p, kResponseDelegate);
  rpc_port_parcel_write_int32(p, seq);
  rpc_port_parcel_write_bool(p, once);
  CallbackBase::Deserialize(p, *this);
  rpc_port_parcel_destroy(p);
}

Delegate::~Delegate() { harness_->SlotFor(seq_).alive = false; }

void Delegate::OnReceived(std::string id, bundle *msg) {
  Slot &slot = harness_->SlotFor(seq_);
  slot.ran = true;
  if (msg) {
    bundle_foreach(
        msg, [](const char *, const int, const bundle_keyval_t *kv, void *) {
          void *value = nullptr;
          size_t size = 0;
          if (bundle_keyval_get_basic_val(const_cast<bundle_keyval_t *>(kv), &value, &size) == 0 &&
              size > 0) {
            volatile unsigned char last = static_cast<unsigned char *>(value)[size - 1];
            (void)last;
          }
        },
        nullptr);
  }
  if (seq_ == kMarkerSeq) {
    harness_->marker_seen = id;
    return;
  }
  if (id == "dispose") {
    slot.disposed = true;
    harness_->proxy->DisposeCallback(GetTag());  // ends this object
  }
}

Harness &GetHarness() {
  static Harness *harness = [] {
    auto *h = new Harness();  // lives as long as the process, as the library's clients do
    h->Connect();
    return h;
  }();
  return *harness;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > kMaxInput) return 0;
  Harness &h = GetHarness();
  static unsigned long round = 0;
  std::string nonce = "marker-" + std::to_string(++round);

  for (Slot *slot : {&h.kept, &h.once}) {
    slot->ran = slot->disposed = false;
    if (!slot->alive) h.Register(*slot);
  }

  std::string input(reinterpret_cast<const char *>(data), size);
  std::string marker = Int32Field(static_cast<int>(message::MethodId::Callback)) +
                       Int32Field(kResponseDelegate) + Int32Field(kMarkerSeq) + BoolField(false) +
                       StringField(nonce);
  Pump(h.cb_fd, Frame(input) + Frame(marker));

  h.marker_seen.clear();
  bool seen = false;
  gint64 deadline = g_get_monotonic_time() + 10 * G_USEC_PER_SEC;
  while (!seen) {
    if (g_get_monotonic_time() > deadline || h.listener.lost) abort();
    g_main_context_iteration(nullptr, FALSE);
    seen = h.marker_seen == nonce;
  }

  if (h.once.ran && h.once.alive) abort();                      // one-shot ran, still kept
  if (h.kept.ran && !h.kept.disposed && !h.kept.alive) abort();  // kept delegate lost
  if (!h.marker.alive) abort();
  return 0;
}
