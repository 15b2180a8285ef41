// Chunk assembly of answers that arrive on the library's message port. The input is a
// sequence of answers, each a flag byte (which keys the answer holds, whether its marker
// says "true"), a length and that many bytes of piece. The large flag with length 0 and
// the byte 0xC4 makes the piece 32 MiB instead, so that four fill a buffer to its cap.
// Such an answer costs a good part of a second under the sanitizers, so only the first
// kLargeBudget of a process get their large piece (the seeds that reach the cap run
// first, in the replay and when a campaign loads its corpus); later ones get none.
// A model of the documented joining rules runs beside the library: every answer handed
// to the result handler must carry the joined text the model expects, without the
// marker and piece keys, and neither buffer may ever pass its cap.
#include <bundle.h>

#include <stdlib.h>
#include <string.h>

#include <cstdint>
#include <string>

#include "ipc/TalvoProxyIpc.h"
#include "ipc/TalvoProxyIpcInternal.h"

namespace {

using talvo::ipc::kChunkBufferCap;

constexpr const char kAppId[] = "org.fuzz.companion";
constexpr size_t kLargePiece = 32u * 1024u * 1024u;  // four of them fill a buffer exactly
constexpr int kLargeBudget = 32;

enum Flag : uint8_t {
  kContext = 1, kStateMarker = 2, kStatePiece = 4, kResult = 8, kResultMarker = 16,
  kResultPiece = 32, kMarkerTrue = 64, kLarge = 128,
};

struct Delivery {
  int count = 0;
  std::string key_value;   // the joined key's value in the last delivered answer
  bool leftovers = false;  // its marker or piece key survived
};

// What the handler looks at: the joined key of the answer's kind and the two keys that
// joining removes.
struct Kind {
  const char *joined;
  const char *marker;
  const char *piece;
};
constexpr Kind kState = {"appContext", "app_state_last_chunk", "app_state_chunk_result"};
constexpr Kind kResultKind = {"result", "last_chunk", "chunk_result"};

Delivery delivered;
const Kind *watched = nullptr;

void OnResult(std::string appId, bundle *result, void *userData) {
  (void)userData;
  if (appId != kAppId || !result) abort();
  delivered.count++;
  char *value = nullptr;
  delivered.key_value = bundle_get_str(result, watched->joined, &value) == 0 ? value : "<none>";
  delivered.leftovers =
      bundle_get_type(result, watched->marker) >= 0 || bundle_get_type(result, watched->piece) >= 0;
}

// The documented rules for one kind of answer: true when the answer is delivered, with
// the expected value of the joined key in *expected.
bool ModelStep(std::string &buffer, bool has_text, const char *text, bool has_marker,
               bool marker_true, const std::string *piece, std::string *expected) {
  if (has_marker) {
    if (piece) {
      if (piece->size() > kChunkBufferCap - buffer.size()) {
        buffer.clear();
        return false;
      }
      buffer += *piece;
    }
    if (!marker_true) return false;
    // The joined text ends at its first zero; a key already present keeps its value.
    *expected = has_text ? text : std::string(buffer.c_str());
  } else {
    *expected = text;
  }
  buffer.clear();
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static TalvoProxyIpc *ipc = [] {
    TalvoProxyIpc *instance = TalvoProxyIpc::getInstance();
    if (!instance || instance->setIPCMessageReceivedCallback(OnResult, nullptr) != 0) abort();
    return instance;
  }();
  static const std::string large(kLargePiece, 'L');
  std::string state_model, result_model;
  std::string().swap(ipc->appStateChunks);
  std::string().swap(ipc->resultChunks);

  size_t at = 0;
  while (at + 2 <= size) {
    uint8_t flags = data[at];
    size_t len = data[at + 1];
    at += 2;
    static int large_left = kLargeBudget;
    bool is_large = (flags & kLarge) && len == 0 && at < size && data[at] == 0xC4;
    if (is_large) at++;
    is_large = is_large && large_left-- > 0;
    if (len > size - at) len = size - at;
    std::string small(reinterpret_cast<const char *>(data + at), len);
    at += len;
    const std::string &piece = is_large ? large : small;
    const char *marker = (flags & kMarkerTrue) ? "true" : "false";

    bundle *answer = bundle_create();
    if (flags & kContext) bundle_add_str(answer, "appContext", "ctx");
    if (flags & kStateMarker) bundle_add_str(answer, "app_state_last_chunk", marker);
    if (flags & kStatePiece) bundle_add_byte(answer, "app_state_chunk_result", piece.data(), piece.size());
    if (flags & kResult) bundle_add_str(answer, "result", "res");
    if (flags & kResultMarker) bundle_add_str(answer, "last_chunk", marker);
    if (flags & kResultPiece) bundle_add_byte(answer, "chunk_result", piece.data(), piece.size());

    std::string expected;
    bool deliver = false;
    bool joined = false;  // delivered after joining, so marker and piece must be gone
    if (flags & (kContext | kStateMarker)) {
      watched = &kState;
      joined = flags & kStateMarker;
      deliver = ModelStep(state_model, flags & kContext, "ctx", flags & kStateMarker,
                          flags & kMarkerTrue, (flags & kStatePiece) ? &piece : nullptr, &expected);
    } else if (flags & (kResult | kResultMarker)) {
      watched = &kResultKind;
      joined = flags & kResultMarker;
      deliver = ModelStep(result_model, flags & kResult, "res", flags & kResultMarker,
                          flags & kMarkerTrue, (flags & kResultPiece) ? &piece : nullptr, &expected);
    }

    int before = delivered.count;
    ipc->_processAppResultPort(kAppId, answer);
    bundle_free(answer);

    if (delivered.count != before + (deliver ? 1 : 0)) abort();
    if (deliver && (delivered.key_value != expected || (joined && delivered.leftovers))) abort();
    if (ipc->appStateChunks.size() > kChunkBufferCap || ipc->resultChunks.size() > kChunkBufferCap)
      abort();
    if (ipc->appStateChunks.size() != state_model.size() ||
        ipc->resultChunks.size() != result_model.size())
      abort();
    if (state_model.size() < kLargePiece && ipc->appStateChunks != state_model) abort();
    if (result_model.size() < kLargePiece && ipc->resultChunks != result_model) abort();
  }
  return 0;
}
