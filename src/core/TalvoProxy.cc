#include "core/TalvoProxy.h"

#include <new>

#include "common/Log.h"
#include "common/ProcessWide.h"
#include "common/TalvoProxyCommonData.h"
#include "ipc/TalvoProxyIpc.h"
#include "requests/TalvoProxyActionRequest.h"
#include "requests/TalvoProxyStateRequest.h"

namespace {

constexpr int kNotInitialized = -1073741825;  // 0xBFFFFFFF

}  // namespace

TalvoProxy *TalvoProxy::getInstance() { return ProcessWide<TalvoProxy>::get(); }

// Start-up order: IPC, action request, state request, common data; their own results
// are not examined. When a component instance is absent the proxy goes back to not
// initialised, so that no later call, deinitialize included, reaches a null component
// and a later initialize tries again (and fails the same way: instances are made once).
int TalvoProxy::initialize() {
  if (initialized) {
    LOGE("TalvoProxy has been already initialized");
    return 0;
  }
  initialized = true;

  ipc = TalvoProxyIpc::getInstance();
  if (!ipc) {
    LOGE("TalvoProxyIpc instance is null");
    initialized = false;
    return -12;
  }
  actionRequest = TalvoProxyActionRequest::getInstance();
  if (!actionRequest) {
    LOGE("TalvoProxyActionRequest instance is null");
    initialized = false;
    return -12;
  }
  stateRequest = TalvoProxyStateRequest::getInstance();
  if (!stateRequest) {
    LOGE("TalvoProxyStateRequest instance is null");
    initialized = false;
    return -12;
  }
  commonData = TalvoProxyCommonData::getInstance();
  if (!commonData) {
    LOGE("TalvoProxyCommonData instance is null");
    initialized = false;
    return -12;
  }

  ipc->initialize();
  actionRequest->initialize();
  stateRequest->initialize();
  commonData->initialize();

  LOGD("TalvoProxy is initialized");
  return ipc->setIPCMessageReceivedCallback(_processResult, this);
}

// Both request components drop their pending requests before the IPC component and the
// metadata registry are emptied. The handler registration, the message port and the bus
// name stay.
int TalvoProxy::deinitialize() {
  if (!initialized) {
    LOGE("TalvoProxy is not initialized. Please initialize it first.");
    return 0;
  }
  initialized = false;

  actionRequest->deinitialize();
  stateRequest->deinitialize();
  ipc->deinitialize();
  commonData->deinitialize();

  LOGD("TalvoProxy is deinitialized");
  return 0;
}

int TalvoProxy::requestAppState(std::string appId, bundle *data,
                                talvo_proxy_result_cb callback, void *userData) {
  if (!initialized) {
    LOGE("Talvo Proxy is not initialized");
    return kNotInitialized;
  }

  int ret = stateRequest->requestAppState(appId, data, callback, userData);
  if (ret != 0) return ret;
  return ipc->sendData(appId, data, true);
}

// The request is recorded before it is sent, so an answer never arrives before its
// callback is known.
int TalvoProxy::executeAction(std::string appId, bundle *data, talvo_proxy_result_cb callback,
                              void *userData) {
  if (!initialized) {
    LOGE("Talvo Proxy is not initialized");
    return kNotInitialized;
  }

  int ret = actionRequest->executeAction(appId, data, callback, userData);
  if (ret != 0) return ret;
  return ipc->sendData(appId, data, false);
}

char *TalvoProxy::getFocusedAppId() {
  if (!initialized) {
    LOGE("Talvo Proxy is not initialized");
    return nullptr;
  }
  return commonData->GetFocusedAppId();
}

// Routes by the presence of "appContext" alone: it wins over "result", whatever kind of
// request is pending for the app.
void TalvoProxy::_processResult(std::string appId, bundle *result, void *userData) {
  auto *self = static_cast<TalvoProxy *>(userData);
  if (!self) {
    LOGE("TalvoProxy Pointer is null");
    return;
  }

  char *appContext = nullptr;
  if (bundle_get_str(result, "appContext", &appContext) == 0 && appContext) {
    if (self->stateRequest) self->stateRequest->_processAppStateResult(appId, result, appContext);
    return;
  }

  char *resultText = nullptr;
  bundle_get_str(result, "result", &resultText);
  if (self->actionRequest) self->actionRequest->_processActionResult(appId, result, resultText);
}
