// TalvoProxyIpc: the send decision, the alias and reachability tests, the two send paths
// and the entry-by-entry copy of a request.
#include <app_info.h>
#include <message_port.h>
#include <package_manager.h>

#include <cstring>

#include "common/Log.h"
#include "ipc/TalvoProxyIpc.h"
#include "ipc/TalvoProxyIpcInternal.h"
#include "message/message.h"

using namespace talvo::ipc;

int TalvoProxyIpc::sendData(std::string appId, bundle *data, bool isStateRequest) {
  if (!initialized) {
    LOGE("Talvo Proxy is not initialized");
    return kErrRefused;
  }

  MetaDataInfo *metaData = commonData ? commonData->GetMetaDataInfo(appId) : nullptr;
  if (!metaData) {
    LOGE("MetaDataInfo is null");
    return kErrNoMemory;
  }
  ipcMechanism = metaData->ipcMechanism;

  try {
    // An alias app is launched and waited for until its window has the focus, even when
    // a client for it is connected already.
    if (!isStateRequest && _isExistedAliasApp(appId)) {
      LOGD("Alias app is existed, appid:%s", appId.c_str());
      ipcMechanism = IPC_MECHANISM_VIDL;
      LOGD("Alias app is existed, ipc:%s", "IPC_MECHANISM_VIDL");
      int ret = _launchApp(appId);
      if (ret != 0)
        return ret;
      return _monitorAppFocused(appId, data);
    }

    if (_isConnectedToApp(appId))
      return _sendDataToApp(appId, data);

    // A state request to a message-port app whose port is not there is neither sent nor
    // retried.
    if (isStateRequest && ipcMechanism != IPC_MECHANISM_VIDL)
      return 0;

    int ret = _connectApp(appId);
    if (ret == kErrInProgress)
      return _updateAppLaunchInfo(appId, data);
    if (ret != 0)
      return ret;
    return _monitorAppLaunch(appId, data);
  } catch (...) {
    // Anything the proxy raises beyond its two named send errors (a failed lock, an
    // allocation) ends here, so that it never reaches the exported functions.
    LOGE("Unexpected exception while sending to app:%s", appId.c_str());
    return kErrSendRefused;
  }
}

bool TalvoProxyIpc::_isExistedAliasApp(const std::string &appId) {
  char *originPackageId = nullptr;
  if (package_manager_get_package_id_by_app_id(appId.c_str(), &originPackageId) != 0) {
    LOGE("Fail to get package id by the app:%s", appId.c_str());
    return false;
  }
  talvo::MallocTextPtr origin(originPackageId);

  app_info_h handle = nullptr;
  if (app_info_create(appId.c_str(), &handle) != 0) {
    LOGE("Fail to create app info handle for the app:%s", appId.c_str());
    return false;
  }

  char *aliasPackageId = nullptr;
  int ret = app_info_get_package(handle, &aliasPackageId);
  app_info_destroy(handle);
  if (ret != 0) {
    LOGE("Fail to get package id for the app:%s", appId.c_str());
    return false;
  }
  talvo::MallocTextPtr alias(aliasPackageId);

  LOGD("appId(%s), aliasPackageId(%s), originPackageId(%s)", appId.c_str(),
       talvo::NullSafe(alias.get()), talvo::NullSafe(origin.get()));

  // Alias: the package manager's id does not begin with the id that the app info names.
  if (alias && origin && strncmp(alias.get(), origin.get(), strlen(alias.get())) != 0) {
    LOGD("Alias app is existed, alias pkg id(%s)", alias.get());
    return true;
  }
  return false;
}

bool TalvoProxyIpc::_isConnectedToApp(const std::string &appId) {
  bool connected = false;

  if (ipcMechanism != IPC_MECHANISM_VIDL) {
    bool exist = false;
    int ret = message_port_check_remote_port(appId.c_str(), kPortName, &exist);
    if (ret != 0)
      LOGE("message_port_check_remote_port error: %d", ret);
    else
      connected = exist;
  } else {
    auto it = clientsMap.find(appId);
    if (it != clientsMap.end()) {
      if (!it->second) {
        LOGE("ClientsInfo is null");
        return false;
      }
      connected = it->second->connected;
    }
  }

  LOGD("%s's connection status:%d", appId.c_str(), connected ? 1 : 0);
  return connected;
}

int TalvoProxyIpc::_sendDataToApp(const std::string &appId, bundle *data) {
  if (ipcMechanism != IPC_MECHANISM_VIDL) {
    // The caller's bundle goes out itself, array entries included.
    LOGI("Send data Message Port %s", appId.c_str());
    int ret = message_port_send_message(appId.c_str(), kPortName, data);
    if (ret != 0) {
      LOGE("message_port_send_message error: %d", ret);
      return kErrSendRefused;
    }
    return 0;
  }

  auto it = clientsMap.find(appId);
  if (it == clientsMap.end()) {
    LOGE("Couldn't find corresponding map entry for the app: %s", appId.c_str());
    return kErrInvalid;
  }
  ClientInfo *client = it->second;
  if (!client) {
    LOGE("ClientsInfo is null");
    return kErrInvalid;
  }
  if (!client->connected) {
    LOGE("%s is not connected", appId.c_str());
    return kErrInvalid;
  }

  // Over rpc-port the app gets a copy without array entries; the copy is freed whatever
  // Send does.
  BundlePtr copy(bundle_create());
  if (!copy) {
    LOGE("CapsuleData is null");
    return kErrNoMemory;
  }
  bundle_foreach(data, _bundleDataCb, copy.get());

  LOGD("Send data start ");
  try {
    client->proxy->Send(copy.get());
  } catch (const rpc_port::message::proxy::NotConnectedSocketException &) {
    LOGE("Failed to NotConnectedSocketException");
    return kErrSendRefused;
  } catch (const rpc_port::message::proxy::InvalidProtocolException &) {
    LOGE("Failed to InvalidProtocolException");
    return kErrInvalid;
  }
  LOGI("Send data end");
  return 0;
}

void TalvoProxyIpc::_bundleDataCb(const char *key, const int type, const bundle_keyval_t *kv,
                                  void *userData) {
  (void)type;
  try {
    auto *dest = static_cast<bundle *>(userData);
    if (!dest) {
      LOGE("Bundle data is null");
      return;
    }

    auto *keyval = const_cast<bundle_keyval_t *>(kv);
    if (bundle_keyval_type_is_array(keyval)) {
      LOGE("Key value is array type");
      return;
    }

    void *value = nullptr;
    size_t size = 0;
    int valueType = bundle_keyval_get_type(keyval);
    bundle_keyval_get_basic_val(keyval, &value, &size);

    if (valueType == BUNDLE_TYPE_BYTE)
      bundle_add_byte(dest, key, value, size);
    else
      bundle_add_str(dest, key, static_cast<const char *>(value));
  } catch (...) {
    LOGE("Unexpected exception while copying a bundle entry");
  }
}
