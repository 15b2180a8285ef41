// TalvoProxyIpc: requests that wait for their app, polled by ecore timers. The launch wait
// ends when the app can be reached (the request is sent) or after its limit (the handler
// gets the library's failure answer); the focus wait ends when an alias app has the focus
// (the request is sent or handed to the launch wait) or after its limit (dropped).
//
// A tick's record is in its map while its timer runs. A tick clears the record's timer
// field on entry and puts it back only when it renews the timer: ecore ends a timer whose
// callback returns ECORE_CALLBACK_CANCEL, so on every other path (an exception included)
// the record no longer names it. Every path that ends the timer takes the record out of
// the map and releases it.
#include <cstring>
#include <memory>
#include <new>

#include "common/Log.h"
#include "ipc/TalvoProxyIpc.h"
#include "ipc/TalvoProxyIpcInternal.h"

using namespace talvo::ipc;

namespace {

template <typename Record>
void TakeOut(std::map<std::string, Record *> &map, Record *record) {
  auto it = map.find(record->appId);
  if (it != map.end() && it->second == record)
    map.erase(it);
}

// Ends a wait: takes record out of its map (when it is still the entry) and releases it.
template <typename Record>
void EndWait(std::map<std::string, Record *> &map, Record *record) {
  TakeOut(map, record);
  ReleaseWaitRecord(record);
}

// Gives a new record its app id and its own copy of request; false when the copy bundle
// cannot be created.
bool FillWaitRecord(AppWaitInfo *record, const std::string &appId, bundle *request) {
  record->appId = appId;
  record->data = bundle_create();
  if (!record->data)
    return false;
  bundle_foreach(request, TalvoProxyIpc::_bundleDataCb, record->data);
  return true;
}

}  // namespace

int TalvoProxyIpc::_updateAppLaunchInfo(const std::string &appId, bundle *request) {
  LOGD("Function _updateAppLaunchInfo %s", appId.c_str());

  auto *record = new (std::nothrow) AppLaunchInfo();
  if (!record) {
    LOGE("appLaunchInfo is null");
    return kErrNoMemory;
  }
  if (!FillWaitRecord(record, appId, request)) {
    LOGE("bundle_create is failed");
    ReleaseWaitRecord(record);
    return kErrNoMemory;
  }

  // A record that waits already keeps its count and its running timer; only the request
  // is replaced by the newer one.
  auto it = appLaunchInfoMap.find(appId);
  if (it != appLaunchInfoMap.end() && it->second) {
    AppLaunchInfo *existing = it->second;
    if (existing->data)
      bundle_free(existing->data);
    existing->data = record->data;
    record->data = nullptr;
    ReleaseWaitRecord(record);
    record = existing;
  } else {
    appLaunchInfoMap[appId] = record;
  }

  LOGD("appLaunchInfo %p appId: %s", static_cast<void *>(record), appId.c_str());
  return 0;
}

int TalvoProxyIpc::_monitorAppLaunch(const std::string &appId, bundle *request) {
  LOGD("_monitorAppLaunch");

  int ret = _updateAppLaunchInfo(appId, request);
  if (ret != 0)
    return ret;

  auto it = appLaunchInfoMap.find(appId);
  if (it == appLaunchInfoMap.end() || !it->second) {
    LOGE("couldn't find corresponding map entry for the app:%s", appId.c_str());
    return kErrInvalid;
  }
  AppLaunchInfo *record = it->second;

  if (record->timer) {
    ecore_timer_del(record->timer);
    record->timer = nullptr;
  }

  if (ipcMechanism == IPC_MECHANISM_VIDL) {
    // One tick after 10 s decides: OnConnected serves the request before that.
    record->timer = ecore_timer_add(kLaunchIntervalVidl, _appLaunchMonitoringCb, record);
    record->count = kLaunchCountLimit;
  } else {
    record->timer = ecore_timer_add(kLaunchIntervalPort, _appLaunchMonitoringCb, record);
  }

  if (!record->timer) {
    // Released at once rather than left without a timer: the caller is told -12, so the
    // request must not be sent later, and nothing would end a message-port wait.
    LOGE("Monitoring timer is null");
    EndWait(appLaunchInfoMap, record);
    return kErrNoMemory;
  }
  return 0;
}

Eina_Bool TalvoProxyIpc::_appLaunchMonitoringCb(void *data) {
  try {
    LOGI("_appLaunchMonitoringCb");

    TalvoProxyIpc *ipc = getInstance();
    if (!ipc) {
      LOGE("talvoProxyIpc is null");
      return ECORE_CALLBACK_CANCEL;
    }
    auto *record = static_cast<AppLaunchInfo *>(data);
    if (!record) {
      LOGE("AppLaunchInfo is null");
      return ECORE_CALLBACK_CANCEL;
    }
    Ecore_Timer *self = record->timer;  // null when run by OnConnected
    record->timer = nullptr;
    const std::string appId = record->appId;

    bool ready = false;
    if (ipc->ipcMechanism == IPC_MECHANISM_VIDL) {
      ClientInfo *client = ipc->GetClientInfo(appId);
      if (!client) {
        LOGE("ClientsInfo is null");
        EndWait(ipc->appLaunchInfoMap, record);
        return ECORE_CALLBACK_CANCEL;
      }
      LOGD("%s : %d %p", appId.c_str(), record->count, static_cast<void *>(client));
      ready = client->connected;
    } else {
      ready = ipc->_isConnectedToApp(appId);
    }

    if (ready) {
      LOGD("%s is launched successfully..", appId.c_str());
      // Out of the map before sending, so that nothing the send triggers finds it; released
      // on leaving this scope, also when the send throws.
      TakeOut(ipc->appLaunchInfoMap, record);
      WaitRecordPtr<AppLaunchInfo> owned(record);
      ipc->_sendDataToApp(appId, record->data);
      return ECORE_CALLBACK_CANCEL;
    }

    if (record->count < kLaunchCountLimit) {
      record->count++;
      record->timer = self;
      return ECORE_CALLBACK_RENEW;
    }

    LOGD("%s fail to launch..", appId.c_str());
    bundle_free(record->data);
    record->data = nullptr;

    BundlePtr answer(bundle_create());
    if (!answer) {
      LOGE("bundle_create is failed");
      EndWait(ipc->appLaunchInfoMap, record);
      ipc->ClientRemove(appId);
      return ECORE_CALLBACK_CANCEL;
    }
    bundle_add_str(answer.get(), kKeyResult, kFailureResult);

    // The record is gone before the handler runs, so the handler may start a new request
    // for the same app.
    TakeOut(ipc->appLaunchInfoMap, record);
    ipc->ClientRemove(appId);
    ReleaseWaitRecord(record);

    if (ipc->resultCallback)
      ipc->resultCallback(appId, answer.get(), ipc->resultCallbackUserData);
    else
      LOGE("No result handler registered, failure answer for app:%s dropped", appId.c_str());
  } catch (...) {
    LOGE("Unexpected exception in the launch wait");
  }
  return ECORE_CALLBACK_CANCEL;
}

int TalvoProxyIpc::_monitorAppFocused(const std::string &appId, bundle *request) {
  LOGD("_monitorAppFocused %s", appId.c_str());

  auto *record = new (std::nothrow) AppFocusedInfo();
  if (!record) {
    LOGE("appFocusedInfo is null");
    return kErrNoMemory;
  }
  if (!FillWaitRecord(record, appId, request)) {
    LOGE("bundle_create is failed");
    ReleaseWaitRecord(record);
    return kErrNoMemory;
  }

  // A newer request ends the wait of the older one; the new wait starts from count 0.
  AppFocusedInfo *&slot = appFocusedInfoMap[appId];
  ReleaseWaitRecord(slot);
  slot = record;
  LOGD("appFocusedInfo %p appId: %s", static_cast<void *>(record), appId.c_str());

  record->timer = ecore_timer_add(kFocusInterval, _appFocusedMonitoringCb, record);
  if (!record->timer) {
    // Released at once, as for the launch wait: the caller is told -12.
    LOGE("Monitoring timer is null");
    EndWait(appFocusedInfoMap, record);
    return kErrNoMemory;
  }
  return 0;
}

Eina_Bool TalvoProxyIpc::_appFocusedMonitoringCb(void *data) {
  try {
    LOGI("_appFocusedMonitoringCb");

    TalvoProxyIpc *ipc = getInstance();
    if (!ipc) {
      LOGE("stalvoProxy is null");
      return ECORE_CALLBACK_CANCEL;
    }
    auto *record = static_cast<AppFocusedInfo *>(data);
    if (!record) {
      LOGE("AppFocusedInfo is null");
      return ECORE_CALLBACK_CANCEL;
    }
    Ecore_Timer *self = record->timer;
    record->timer = nullptr;
    const std::string appId = record->appId;

    // Every path below that ends the timer releases the record.
    auto finish = [ipc, record]() {
      EndWait(ipc->appFocusedInfoMap, record);
      return ECORE_CALLBACK_CANCEL;
    };

    if (record->count >= kFocusCountLimit) {
      LOGD("%s fail to connect after focused, cnt(%d)..", appId.c_str(), record->count);
      return finish();
    }

    char *focusedAppId = ipc->commonData ? ipc->commonData->GetFocusedAppId() : nullptr;
    if (!focusedAppId) {
      LOGE("FocusedAppId is null");
      return finish();
    }
    talvo::MallocTextPtr focused(focusedAppId);

    // The app counts as focused when its id begins with the focused id.
    if (strncmp(appId.c_str(), focused.get(), strlen(focused.get())) != 0) {
      if (record->count % 4 == 0)
        LOGI("[%d] app:%s, focused App:%s", record->count, appId.c_str(), focused.get());
      record->count++;
      record->timer = self;
      return ECORE_CALLBACK_RENEW;
    }
    focused.reset();

    bool reachable = false;
    if (ipc->ipcMechanism == IPC_MECHANISM_VIDL) {
      ClientInfo *client = ipc->GetClientInfo(appId);
      if (!client) {
        LOGE("ClientsInfo is null");
        return finish();
      }
      LOGD("%s : %d %p", appId.c_str(), record->count, static_cast<void *>(client));
      reachable = client->connected;
    } else {
      reachable = ipc->_isConnectedToApp(appId);
    }
    LOGD("%s is connected(%d), count(%d)", appId.c_str(), reachable ? 1 : 0, record->count);

    // The record leaves the map before anything is sent or connected, so that a request
    // for the same app started meanwhile finds no stale focus wait.
    TakeOut(ipc->appFocusedInfoMap, record);
    WaitRecordPtr<AppFocusedInfo> owned(record);

    if (reachable) {
      LOGD("%s is focused successfully.. Send data to app", appId.c_str());
      ipc->_sendDataToApp(appId, record->data);
      return ECORE_CALLBACK_CANCEL;
    }

    LOGD("%s is focused successfully.. try to connect app", appId.c_str());
    if (ipc->_connectApp(appId) == 0) {
      LOGD("monitoring app:%s", appId.c_str());
      int ret = ipc->_monitorAppLaunch(appId, record->data);
      if (ret != 0)
        LOGE("Fail to monitor app launch, ret(%d)", ret);
    }
  } catch (...) {
    LOGE("Unexpected exception in the focus wait");
  }
  return ECORE_CALLBACK_CANCEL;
}
