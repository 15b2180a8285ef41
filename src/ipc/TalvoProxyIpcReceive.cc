// TalvoProxyIpc: answers arriving on the library's message port (with chunk assembly in
// the two process-wide buffers) and over rpc-port, handed to the registered handler.
#include <cstring>
#include <optional>
#include <string>

#include "common/Log.h"
#include "ipc/TalvoProxyIpc.h"
#include "ipc/TalvoProxyIpcInternal.h"

using namespace talvo::ipc;

namespace {

char *GetStr(bundle *b, const char *key) {
  char *value = nullptr;
  if (bundle_get_str(b, key, &value) != 0)
    return nullptr;
  return value;
}

// Adds one piece message to its kind's buffer. Returns true when the message ends the
// answer: the joined text (up to its first zero byte) has then been added under joinedKey,
// unless the message holds that key already, and the marker and piece keys are deleted.
//
// A piece that would take the buffer past its cap drops the half-joined answer, and the
// answer's later pieces are dropped too, so that its tail never reaches the handler as if
// it were whole. droppedFrom names the sender while that lasts. The drop ends at the first
// of: that sender's final piece of this kind (dropped as well); a piece of this kind from
// another app, which starts a new answer, so that an app that never finishes its oversized
// answer cannot swallow the answers of others; a plain answer of this kind, handed on as
// usual (_processAppResultPort). A chunked answer that the same sender starts before it
// has sent its oversized answer's final piece cannot be told from that answer's tail and
// is dropped with it.
bool JoinPiece(ChunkBuffer &buffer, std::optional<std::string> &droppedFrom, bundle *message,
               const char *marker, const char *markerKey, const char *pieceKey,
               const char *joinedKey, const std::string &appId) {
  const bool last = strcmp(marker, "true") == 0;
  if (droppedFrom) {
    if (*droppedFrom == appId) {
      if (last)
        droppedFrom.reset();
      return false;
    }
    droppedFrom.reset();
  }

  void *bytes = nullptr;
  size_t size = 0;
  if (bundle_get_byte(message, pieceKey, &bytes, &size) == 0 && bytes) {
    if (size > kChunkBufferCap - buffer.size()) {
      LOGE("Chunked answer from app:%s passes %zu bytes, dropped", appId.c_str(),
           kChunkBufferCap);
      buffer.Clear();
      if (!last)
        droppedFrom = appId;
      return false;
    }
    buffer.Append(bytes, size);
  }
  if (!last)
    return false;

  buffer.AddTo(message, joinedKey);
  bundle_del(message, markerKey);  // marker points into it: not read past here
  bundle_del(message, pieceKey);
  return true;
}

void HandOn(const TalvoProxyIpc &ipc, const std::string &appId, bundle *answer) {
  if (ipc.resultCallback)
    ipc.resultCallback(appId, answer, ipc.resultCallbackUserData);
  else
    LOGE("No result handler registered, answer from app:%s dropped", appId.c_str());
}

}  // namespace

void TalvoProxyIpc::_appResultReceivedCb(int localPortId, const char *remoteAppId,
                                         const char *remotePort, bool trustedRemotePort,
                                         bundle *message, void *userData) {
  (void)localPortId;
  (void)remotePort;
  (void)trustedRemotePort;
  try {
    auto *ipc = static_cast<TalvoProxyIpc *>(userData);
    if (!ipc) {
      LOGE("TalvoProxyIpc is null");
      return;
    }
    if (!remoteAppId) {
      LOGE("Message without a sender app id dropped");
      return;
    }
    ipc->_processAppResultPort(remoteAppId, message);
  } catch (...) {
    LOGE("Unexpected exception while receiving from app:%s", talvo::NullSafe(remoteAppId));
  }
}

void TalvoProxyIpc::_processAppResultPort(std::string appId, bundle *message) {
  // "appContext" or its marker makes an app-state answer, and wins over the result keys.
  const char *stateMarker = GetStr(message, kKeyAppStateLastChunk);
  const bool isState = stateMarker || GetStr(message, kKeyAppContext);
  const char *resultMarker = isState ? nullptr : GetStr(message, kKeyLastChunk);
  if (!isState && !resultMarker && !GetStr(message, kKeyResult)) {
    LOGE("Unknown message recieved from app:%s", appId.c_str());
    return;
  }

  LOGD("Request Execution Result Recieved from %s", appId.c_str());
  LOGD("Status Code:%s", talvo::NullSafe(GetStr(message, kKeyStatusCode)));
  LOGD("Status Message:%s", talvo::NullSafe(GetStr(message, kKeyStatusMsg)));

  if (isState) {
    if (!stateMarker)
      appStateChunksDroppedFrom.reset();
    else if (!JoinPiece(appStateChunks, appStateChunksDroppedFrom, message, stateMarker,
                        kKeyAppStateLastChunk, kKeyAppStateChunk, kKeyAppContext, appId))
      return;
    HandOn(*this, appId, message);
    appStateChunks.Clear();
    return;
  }

  if (!resultMarker)
    resultChunksDroppedFrom.reset();
  else if (!JoinPiece(resultChunks, resultChunksDroppedFrom, message, resultMarker,
                      kKeyLastChunk, kKeyChunk, kKeyResult, appId))
    return;
  LOGD("[App Result received] : Message from %s", appId.c_str());
  LOGD("[Received Data with len:%d]------------------------------------------",
       static_cast<int>(resultChunks.size()));
  HandOn(*this, appId, message);
  resultChunks.Clear();
}

void TalvoProxyIpc::_processAppResult(std::string appId, bundle *answer) {
  if (!GetStr(answer, kKeyAppContext) && !GetStr(answer, kKeyResult)) {
    LOGE("Unknown message recieved from app:%s", appId.c_str());
    return;
  }

  HandOn(*this, appId, answer);
  LOGD("Function _processAppResult End");
}
