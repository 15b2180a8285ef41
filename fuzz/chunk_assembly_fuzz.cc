// Chunk assembly of answers on the library's message port. The input is a sequence of
// answers: a flag byte (bits 0-2: the app-state text, marker and piece keys; 3-5: the same
// for an action result; 6: the marker is "true"), a length, and that many bytes of piece.
// Bit 7 with length 0 and the byte 0xC4 make the piece 32 MiB, four of which fill a buffer
// to its cap; only the first 32 of a process get it (the seeds reaching the cap run first),
// as each costs most of a second under the sanitizers. A model of the joining rules runs
// beside the library: each answer handed on must carry the model's text, without the
// marker and piece keys, and the buffers must hold what the model holds.
#include "fuzz_env.h"
#include "ipc/TalvoProxyIpc.h"
#include "ipc/TalvoProxyIpcInternal.h"

namespace {

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

const Kind *expected_kind;  // set while an answer is expected to be handed on
std::string expected_text;
bool joined;

void OnResult(std::string app_id, bundle *result, void *) {
  char *text = nullptr;
  const Kind *kind = expected_kind;
  if (app_id != "org.fuzz.companion" || !kind || bundle_get_str(result, kind->text_key, &text) ||
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static TalvoProxyIpc *ipc = [] {
    talvo_fuzz::FuzzRoot();
    TalvoProxyIpc *instance = TalvoProxyIpc::getInstance();
    if (!instance || instance->setIPCMessageReceivedCallback(OnResult, nullptr) != 0) abort();
    return instance;
  }();
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
    ipc->_processAppResultPort("org.fuzz.companion", answer);
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
  return 0;
}
