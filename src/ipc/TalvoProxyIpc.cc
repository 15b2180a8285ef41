// TalvoProxyIpc: the process-wide instance, start and stop, the result handler, the
// registry lookups and the removal of rpc-port clients.
#include "ipc/TalvoProxyIpc.h"

#include <Ecore.h>
#include <message_port.h>

#include <new>

#include "common/Log.h"
#include "common/ProcessWide.h"
#include "ipc/Observer.h"
#include "ipc/TalvoProxyIpcInternal.h"
#include "message/message.h"

namespace talvo::ipc {

void ReleaseClientInfo(ClientInfo *client) {
  if (!client)
    return;
  delete client->observer;
  client->observer = nullptr;
  delete client->proxy;
  client->proxy = nullptr;
  delete client;
}

}  // namespace talvo::ipc

using namespace talvo::ipc;

TalvoProxyIpc *TalvoProxyIpc::getInstance() { return ProcessWide<TalvoProxyIpc>::get(); }

int TalvoProxyIpc::initialize() {
  if (initialized) {
    LOGE("TalvoProxyIpc has been already initialized");
    return 0;
  }

  // The waits run on ecore timers, which need ecore to be up even when a request comes
  // before the client runs its loop. Once per process: the client's loop and ecore stay
  // the client's, so nothing here ever shuts ecore down. ecore's system modules would
  // probe the system bus on their own, so they stay off unless the client started ecore.
  static const bool ecoreUp = [] {
    ecore_app_no_system_modules();
    return ecore_init() > 0;
  }();
  if (!ecoreUp)
    LOGE("ecore_init failed: launch and focus waits cannot run");

  localPortId = message_port_register_local_port(kPortName, _appResultReceivedCb, this);
  if (localPortId < 0) {
    LOGE("message_port_register_local_port error: %d", localPortId);
    return kErrPortRegister;
  }

  // The port stays registered when this fails; registering again later returns the same id.
  commonData = TalvoProxyCommonData::getInstance();
  if (!commonData) {
    LOGE("TalvoProxyCommonData instance is null");
    return kErrNoMemory;
  }

  initialized = true;
  LOGD("TalvoProxyIpc is initialized");
  return 0;
}

int TalvoProxyIpc::deinitialize() {
  if (!initialized) {
    LOGE("TalvoProxyIpc is not initialized. Please initialize at first.");
    return 0;
  }

  // The local port is not unregistered; the focus waits, the chunk buffers and the
  // handler are left as they are.
  initialized = false;
  localPortId = 0;

  for (auto &entry : appLaunchInfoMap)
    ReleaseWaitRecord(entry.second);
  appLaunchInfoMap.clear();

  for (auto &entry : clientsMap) {
    if (entry.second)
      entry.second->connected = false;
    ReleaseClientInfo(entry.second);
  }
  clientsMap.clear();

  LOGD("TalvoProxyIpc is deinitialized");
  return 0;
}

int TalvoProxyIpc::setIPCMessageReceivedCallback(IPCMessageReceivedCallback callback,
                                                 void *userData) {
  if (!callback) {
    LOGE("Callback null.");
    return kErrInvalid;
  }
  resultCallback = callback;
  resultCallbackUserData = userData;
  return 0;
}

ClientInfo *TalvoProxyIpc::GetClientInfo(const std::string &appId) {
  if (appId.empty()) {
    LOGE("AppId is null.");
    return nullptr;
  }

  auto it = clientsMap.find(appId);
  if (it == clientsMap.end()) {
    LOGE("Couldn't find corresponding map entry for the app:%s", appId.c_str());
    return nullptr;
  }
  if (!it->second) {
    LOGE("ClientsInfo is null");
    return nullptr;
  }
  return it->second;
}

AppLaunchInfo *TalvoProxyIpc::GetAppLaunchInfo(const std::string &appId) {
  auto it = appLaunchInfoMap.find(appId);
  if (it == appLaunchInfoMap.end()) {
    LOGE("couldn't find corresponding map entry for the app:%s", appId.c_str());
    return nullptr;
  }
  if (!it->second) {
    LOGE("AppLaunchInfo is null");
    return nullptr;
  }
  return it->second;
}

void TalvoProxyIpc::ClientRemove(const std::string &appId) {
  ClientInfo *client = GetClientInfo(appId);
  if (!client) {
    LOGE("ClientsInfo is null");
    return;
  }

  // appId may refer to a string inside the record being released (an observer's copy):
  // keep our own.
  const std::string id = appId;
  ReleaseClientInfo(client);
  clientsMap.erase(id);

  LOGD("Remove clientMap size(%d)", static_cast<int>(clientsMap.size()));
  for (const auto &entry : clientsMap)
    LOGD("Remove clientsMap list (%s)", entry.first.c_str());

  // The app's metadata is read afresh by the next request.
  if (commonData)
    commonData->RemoveMetaDataMapEntry(id);
}

gboolean TalvoProxyIpc::_clientRemoveCb(gpointer data) {
  auto *removeData = static_cast<ClientRemoveData *>(data);
  try {
    if (!removeData) {
      LOGE("ClientData to be removed is null");
      return G_SOURCE_REMOVE;
    }
    TalvoProxyIpc *ipc = removeData->ipc;
    if (!ipc) {
      LOGE("TalvoProxyIpc is null");
      delete removeData;
      return G_SOURCE_REMOVE;
    }

    const std::string appId = removeData->appId;
    LOGD("Callback _clientRemoveCb - (%s)", appId.c_str());

    ClientInfo *client = ipc->GetClientInfo(appId);
    if (!client) {
      LOGE("ClientsInfo is null");
      delete removeData;
      return G_SOURCE_REMOVE;
    }

    ReleaseClientInfo(client);
    ipc->clientsMap.erase(appId);
    delete removeData;
    removeData = nullptr;

    LOGD("RemoveCb clientMap size(%d)", static_cast<int>(ipc->clientsMap.size()));
    for (const auto &entry : ipc->clientsMap)
      LOGD("RemoveCb clientsMap list (%s)", entry.first.c_str());

    if (ipc->commonData)
      ipc->commonData->RemoveMetaDataMapEntry(appId);
  } catch (...) {
    LOGE("Unexpected exception while removing a client");
    delete removeData;
  }
  return G_SOURCE_REMOVE;
}
