// TalvoProxyIpc: answers arriving on the library's message port (with chunk assembly in
// the two process-wide buffers) and over rpc-port, handed to the registered handler.
#include <cstring>

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

void LogStatus(const std::string &appId, bundle *message) {
  LOGD("Request Execution Result Recieved from %s", appId.c_str());
  LOGD("Status Code:%s", talvo::NullSafe(GetStr(message, kKeyStatusCode)));
  LOGD("Status Message:%s", talvo::NullSafe(GetStr(message, kKeyStatusMsg)));
}

// Appends the piece under pieceKey (if any) to buffer. A piece that would pass the cap
// drops the half-joined answer and this piece: returns false then.
bool AppendPiece(std::string &buffer, bundle *message, const char *pieceKey,
                 const std::string &appId) {
  void *bytes = nullptr;
  size_t size = 0;
  if (bundle_get_byte(message, pieceKey, &bytes, &size) != 0 || !bytes)
    return true;
  if (size > kChunkBufferCap - buffer.size()) {
    LOGE("Chunked answer from app:%s passes %zu bytes, dropped", appId.c_str(),
         kChunkBufferCap);
    std::string().swap(buffer);
    return false;
  }
  buffer.append(static_cast<const char *>(bytes), size);
  return true;
}

// Puts the joined text in place of the piece and marker keys. The text ends at its first
// zero byte; a key that the message already holds keeps the message's value.
void FinishChunks(bundle *message, const std::string &buffer, const char *joinedKey,
                  const char *markerKey, const char *pieceKey) {
  bundle_add_str(message, joinedKey, buffer.c_str());
  bundle_del(message, markerKey);
  bundle_del(message, pieceKey);
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
  const char *appContext = GetStr(message, kKeyAppContext);
  const char *stateMarker = GetStr(message, kKeyAppStateLastChunk);

  if (appContext || stateMarker) {
    LogStatus(appId, message);
    if (stateMarker) {
      if (!AppendPiece(appStateChunks, message, kKeyAppStateChunk, appId))
        return;
      if (strcmp(stateMarker, "true") != 0)
        return;
      FinishChunks(message, appStateChunks, kKeyAppContext, kKeyAppStateLastChunk,
                   kKeyAppStateChunk);
    }
    if (resultCallback)
      resultCallback(appId, message, resultCallbackUserData);
    else
      LOGE("No result handler registered, answer from app:%s dropped", appId.c_str());
    std::string().swap(appStateChunks);  // also gives back a large buffer's memory
    return;
  }

  const char *result = GetStr(message, kKeyResult);
  const char *resultMarker = GetStr(message, kKeyLastChunk);
  if (!result && !resultMarker) {
    LOGE("Unknown message recieved from app:%s", appId.c_str());
    return;
  }

  LogStatus(appId, message);
  if (resultMarker) {
    if (!AppendPiece(resultChunks, message, kKeyChunk, appId))
      return;
    if (strcmp(resultMarker, "true") != 0)
      return;
    FinishChunks(message, resultChunks, kKeyResult, kKeyLastChunk, kKeyChunk);
  }

  LOGD("[App Result received] : Message from %s", appId.c_str());
  LOGD("[Received Data with len:%d]------------------------------------------",
       static_cast<int>(resultChunks.size()));
  if (resultCallback)
    resultCallback(appId, message, resultCallbackUserData);
  else
    LOGE("No result handler registered, answer from app:%s dropped", appId.c_str());
  std::string().swap(resultChunks);
}

void TalvoProxyIpc::_processAppResult(std::string appId, bundle *answer) {
  if (!GetStr(answer, kKeyAppContext) && !GetStr(answer, kKeyResult)) {
    LOGE("Unknown message recieved from app:%s", appId.c_str());
    return;
  }

  if (resultCallback)
    resultCallback(appId, answer, resultCallbackUserData);
  else
    LOGE("No result handler registered, answer from app:%s dropped", appId.c_str());
  LOGD("Function _processAppResult End");
}
