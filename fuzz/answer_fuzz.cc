// What an app's answers meet in the library, this process being the app: the first byte
// picks the part below (modulo 3), the rest is that part's input.
#include <json-glib/json-glib.h>

#include <initializer_list>
#include <memory>

#include "common/TalvoProxyCommonData.h"
#include "fuzz_env.h"
#include "ipc/TalvoProxyIpc.h"
#include "ipc/TalvoProxyIpcInternal.h"
#include "message/message.h"
#include "requests/TalvoProxyStateRequest.h"

namespace {

constexpr const char kAppId[] = "org.fuzz.companion";

// 0: rpc-port callback parcels to the library's proxy of interface "message". One
// connection per process, to a stub of this process whose callback channel carries the
// inputs, with three delegates: one kept, one dropped after its first call, one that marks
// the end of each input. Each input is one parcel on the callback channel, followed by a
// marker invocation: the input must be dispatched or dropped before the marker, a one-shot
// delegate that ran must be gone, and a kept one must stay unless it disposed of itself
// (an invocation with the id "dispose").
namespace parcels {

using rpc_port::message::proxy::message;

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

void Run(const uint8_t *data, size_t size) {
  if (size > (1u << 20)) return;
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
}

}  // namespace parcels

// 1: answers on the message port, joined from their pieces. The input is a sequence of
// answers: a flag byte (bits 0-2: the app-state text, marker and piece keys; 3-5: the same
// for an action result; 6: the marker is "true"), a length, and that many bytes of piece.
// Bit 7 with length 0 and the byte 0xC4 make the piece 32 MiB, four of which fill a buffer
// to its cap; only the first 32 of a process get it (the seeds reaching the cap run first),
// as each costs most of a second under the sanitizers. A model of the joining rules runs
// beside the library: each answer handed on must carry the model's text, without the
// marker and piece keys, and the buffers must hold what the model holds.
namespace pieces {

using talvo::ipc::kChunkBufferCap;

constexpr uint8_t kText = 1, kMarker = 2, kPiece = 4, kLast = 64, kLarge = 128;

struct Kind {
  const char *text_key, *marker_key, *piece_key, *text;  // text: what a plain answer holds
  talvo::ipc::ChunkBuffer TalvoProxyIpc::*chunks;
  std::optional<std::string> TalvoProxyIpc::*droppedFrom;
};
const Kind kKinds[] = {
    {"appContext", "app_state_last_chunk", "app_state_chunk_result", "ctx",
     &TalvoProxyIpc::appStateChunks, &TalvoProxyIpc::appStateChunksDroppedFrom},
    {"result", "last_chunk", "chunk_result", "res", &TalvoProxyIpc::resultChunks,
     &TalvoProxyIpc::resultChunksDroppedFrom},
};

struct Model {
  std::string buffer;
  // The answer in flight passed the cap: dropped up to its last piece, or up to a plain
  // answer of its kind (there is one sender here).
  bool dropping = false;
};

TalvoProxyIpc *ipc;         // the library's, set up once
const Kind *expected_kind;  // set while an answer is expected to be handed on
std::string expected_text;
bool joined;

void OnResult(std::string app_id, bundle *result, void *) {
  char *text = nullptr;
  const Kind *kind = expected_kind;
  if (app_id != kAppId || !kind || bundle_get_str(result, kind->text_key, &text) ||
      expected_text != text ||
      (joined && (bundle_get_type(result, kind->marker_key) >= 0 ||
                  bundle_get_type(result, kind->piece_key) >= 0)))
    abort();
  expected_kind = nullptr;
}

// Whether an answer of kind with the given keys is handed on; sets the text it must carry.
bool Step(Model &m, const Kind &kind, unsigned keys, bool last, const std::string &piece) {
  if (keys & kMarker) {
    if (m.dropping || ((keys & kPiece) && piece.size() > kChunkBufferCap - m.buffer.size())) {
      if (!m.dropping) std::string().swap(m.buffer);
      m.dropping = !last;
      return false;
    }
    if (keys & kPiece) m.buffer += piece;
    if (!last) return false;
  }
  // A joined text ends at its first zero; a text the answer holds already is kept.
  m.dropping = false;
  expected_text = (keys & kText) ? kind.text : m.buffer.c_str();
  joined = keys & kMarker;
  std::string().swap(m.buffer);
  return true;
}

void Run(const uint8_t *data, size_t size) {
  static const std::string large(kChunkBufferCap / 4, 'L');
  static int large_left = 32;
  Model models[2];
  for (const Kind &kind : kKinds) {
    (ipc->*kind.chunks).Clear();
    (ipc->*kind.droppedFrom).reset();
  }

  for (size_t at = 0; at + 2 <= size;) {
    uint8_t flags = data[at];
    size_t len = data[at + 1];
    at += 2;
    bool is_large = (flags & kLarge) && len == 0 && at < size && data[at] == 0xC4;
    at += is_large;
    is_large = is_large && large_left-- > 0;
    len = std::min(len, size - at);
    const std::string small(data + at, data + at + len);
    const std::string &piece = is_large ? large : small;
    at += len;

    bundle *answer = bundle_create();
    const char *marker = (flags & kLast) ? "true" : "false";
    for (int k = 0; k < 2; ++k) {
      unsigned keys = (flags >> (3 * k)) & 7;
      if (keys & kText) bundle_add_str(answer, kKinds[k].text_key, kKinds[k].text);
      if (keys & kMarker) bundle_add_str(answer, kKinds[k].marker_key, marker);
      if (keys & kPiece) bundle_add_byte(answer, kKinds[k].piece_key, piece.data(), piece.size());
    }
    // Text or marker of the app-state kind wins; an answer of neither kind is dropped.
    int k = (flags & (kText | kMarker)) ? 0 : (flags & ((kText | kMarker) << 3)) ? 1 : -1;
    if (k >= 0 && Step(models[k], kKinds[k], (flags >> (3 * k)) & 7, flags & kLast, piece))
      expected_kind = &kKinds[k];  // else still null: the last answer was handed on
    ipc->_processAppResultPort(kAppId, answer);
    bundle_free(answer);
    if (expected_kind) abort();  // not handed on

    for (int j = 0; j < 2; ++j) {
      const talvo::ipc::ChunkBuffer &chunks = ipc->*kKinds[j].chunks;
      if (chunks.size() != models[j].buffer.size() ||
          (chunks.size() > 0 && chunks.size() < large.size() &&
           memcmp(chunks.data(), models[j].buffer.data(), chunks.size()) != 0))
        abort();
    }
  }
}

}  // namespace pieces

// 2: the envelope that an app's "appContext" text is rewritten into. The first byte picks
// the answer's status, whether it carries a text at all and which metadata the request
// carries; the rest is the text. Every recorded request must be answered exactly once,
// with the failure answer or with an envelope that parses as a JSON object naming the app
// and its version, whose "contextBlob", when present, is the app's text unchanged. Text
// nested past any depth (100,000 brackets in the corpus) must not exhaust the stack.
namespace envelope {

constexpr const char kFailureStatus[] = "ACTION_EXECUTION_FAILURE";

// What the request carries; the last carries nothing, and the manifest declares nothing.
struct Metadata {
  const char *capsule_id, *version, *sdk_version;
};
constexpr Metadata kMetadata[] = {{"cap.fuzz", "1.2.0", "2.0"}, {"cap.fuzz", "", "2.0"},
                                  {"cap.fuzz", "1.2.0", "1.0-alpha"}, {}};
constexpr const char *kStatus[] = {nullptr, "ACTION_EXECUTION_SUCCESS", kFailureStatus, "7"};

TalvoProxyStateRequest *requests;  // the library's, set up once
int calls;
std::string context, status;  // of the answer handed to the client

void OnAnswer(const char *app_id, bundle *result, void *) {
  if (!app_id || strcmp(app_id, kAppId) != 0 || !result) abort();
  calls++;
  char *text = nullptr;
  context = bundle_get_str(result, "appContext", &text) == 0 ? text : "<none>";
  status = bundle_get_str(result, "status_code", &text) == 0 ? text : "";
}

bool Is(JsonObject *object, const char *member, const char *want) {
  return g_strcmp0(json_object_get_string_member_with_default(object, member, ""), want) == 0;
}

void CheckEnvelope(const Metadata &meta, const char *text) {
  JsonParser *parser = json_parser_new();
  JsonNode *root = json_parser_load_from_data(parser, context.c_str(), -1, nullptr)
                       ? json_parser_get_root(parser) : nullptr;
  JsonObject *o = root && JSON_NODE_HOLDS_OBJECT(root) ? json_node_get_object(root) : nullptr;
  if (!o || !Is(o, "appId", kAppId) || !meta.version || !Is(o, "appVersion", meta.version) ||
      !json_object_has_member(o, "capsuleId") ||
      (json_object_has_member(o, "contextBlob") && !Is(o, "contextBlob", text)))
    abort();
  g_object_unref(parser);
}

void Run(const uint8_t *data, size_t size) {
  if (size < 1) return;
  const Metadata &meta = kMetadata[(data[0] >> 4) & 3];
  const std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
  const char *app_text = (data[0] & 4) ? nullptr : text.c_str();  // ends at its first zero

  TalvoProxyCommonData::getInstance()->RemoveMetaDataMapEntry(kAppId);
  bundle *request = bundle_create();
  if (meta.capsule_id) {
    bundle_add_str(request, "capsuleId", meta.capsule_id);
    bundle_add_str(request, "appVersion", meta.version);
    bundle_add_str(request, "appSdkVersion", meta.sdk_version);
  }
  int r = requests->requestAppState(kAppId, request, OnAnswer, nullptr);
  bundle_free(request);
  if (r != 0) abort();

  bundle *result = bundle_create();
  if (kStatus[data[0] & 3]) bundle_add_str(result, "status_code", kStatus[data[0] & 3]);
  bundle_add_str(result, "status_msg", "from the app");
  if (data[0] & 8) bundle_add_str(result, "appContext", text.c_str());
  calls = 0;
  requests->_processAppStateResult(kAppId, result, app_text);
  bundle_free(result);

  if (calls != 1) abort();
  if (status != kFailureStatus || !context.empty()) CheckEnvelope(meta, app_text ? app_text : "");
}

}  // namespace envelope

// The app is installed and runs (this process holds its id) before any part starts.
void SetUp() {
  talvo_fuzz::FuzzRoot(kAppId);
  talvo_fuzz::WriteManifest(kAppId, std::string("[Application]\nPackage=") + kAppId + "\n");
  if (velna_self_register() != 0) abort();
  envelope::requests = TalvoProxyStateRequest::getInstance();
  if (!envelope::requests || envelope::requests->initialize() != 0) abort();
  pieces::ipc = TalvoProxyIpc::getInstance();
  if (!pieces::ipc || pieces::ipc->setIPCMessageReceivedCallback(pieces::OnResult, nullptr) != 0)
    abort();
  parcels::Connect();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  [[maybe_unused]] static const bool ready = (SetUp(), true);
  if (size < 1) return 0;
  void (*const kParts[])(const uint8_t *, size_t) = {parcels::Run, pieces::Run, envelope::Run};
  kParts[data[0] % 3](data + 1, size - 1);
  return 0;
}
