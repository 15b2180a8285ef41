#include "requests/TalvoProxyActionRequest.h"


#include <cstring>
#include <memory>
#include <new>

#include "common/Log.h"
#include "common/ProcessWide.h"
#include "common/TalvoProxyCommonData.h"

TalvoProxyActionRequest *TalvoProxyActionRequest::getInstance() {
  return ProcessWide<TalvoProxyActionRequest>::get();
}

int TalvoProxyActionRequest::initialize() {
  if (initialized) {
    LOGE("TalvoProxyActionRequest has been already initialized");
    return 0;
  }

  initialized = true;
  LOGD("TalvoProxyActionRequest is initialized");
  return 0;
}

int TalvoProxyActionRequest::deinitialize() {
  if (!initialized) {
    LOGE("TalvoProxyActionRequest is not initialized. Please initialize it first.");
    return 0;
  }

  initialized = false;
  for (auto &entry : actionResultInfoMap) delete entry.second;
  actionResultInfoMap.clear();
  LOGD("TalvoProxyActionRequest is deinitialized");
  return 0;
}

int TalvoProxyActionRequest::executeAction(std::string appId, bundle *data,
                                           talvo_proxy_result_cb callback, void *userData) {
  if (!initialized) {
    LOGE("Talvo Proxy is not initialized");
    return -1073741825;
  }

  std::unique_ptr<ActionExecutionResultInfo> info(new (std::nothrow)
                                                      ActionExecutionResultInfo());
  if (!info) {
    LOGE("ActionExecutionResultInfo is null");
    return -12;
  }
  info->callback = callback;
  info->userData = userData;

  // A pending request of the same app is replaced; its callback is never called.
  ActionExecutionResultInfo *&slot = actionResultInfoMap[appId];
  delete slot;
  slot = info.release();  // the map owns it now

  char *actionId = nullptr;
  if (data) bundle_get_str(data, "actionId", &actionId);

  MetaDataInfo *metaData = nullptr;
  if (TalvoProxyCommonData *commonData = TalvoProxyCommonData::getInstance())
    metaData = commonData->ExtractMetaData(appId, data);

  LOGD("In executeAction function for app:%s, action:%s", appId.c_str(),
       talvo::NullSafe(actionId));
  return metaData ? 0 : -12;
}

void TalvoProxyActionRequest::_processActionResult(std::string appId, bundle *result,
                                                   const char *resultText) {
  char *statusCode = nullptr;
  char *statusMsg = nullptr;
  if (result) {
    bundle_get_str(result, "status_code", &statusCode);
    bundle_get_str(result, "status_msg", &statusMsg);
  }

  LOGD("Status Code:%s", talvo::NullSafe(statusCode));
  LOGD("Status Message:%s", talvo::NullSafe(statusMsg));
  LOGD("[App Result received] : Message from %s", appId.c_str());
  // An answer without "result" (not sent by the receiving side in practice) logs 0.
  LOGD("[Received Data Length: %d]-----------------------------------------",
       resultText ? static_cast<int>(strlen(resultText)) : 0);

  auto it = actionResultInfoMap.find(appId);
  if (it == actionResultInfoMap.end()) {
    LOGE("No action execute callback registered by talvo client for app:%s", appId.c_str());
    LOGD("Function _processAppResult End");
    return;
  }

  if (!it->second) {
    LOGE("ActionExecutionResultInfo is null");
    return;
  }

  // The entry leaves the map before the client is called: a callback that starts a new
  // request for the same app records it in a fresh entry, which stays pending, and this
  // dispatch touches only the record it holds.
  std::unique_ptr<ActionExecutionResultInfo> info(it->second);
  actionResultInfoMap.erase(it);

  if (info->callback) info->callback(appId.c_str(), result, info->userData);

  LOGD("Function _processAppResult End");
}
