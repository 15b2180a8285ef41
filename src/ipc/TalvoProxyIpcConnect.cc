// TalvoProxyIpc: making an app reachable. Rpc-port apps get a client record (proxy plus
// observer) whose connection completes later in talvo::Observer; message-port apps are
// only launched when they do not run.
#include <app_control.h>
#include <app_manager.h>

#include <new>
#include <utility>

#include "common/Log.h"
#include "ipc/Observer.h"
#include "ipc/TalvoProxyIpc.h"
#include "ipc/TalvoProxyIpcInternal.h"
#include "message/message.h"

using namespace talvo::ipc;
namespace proxy = rpc_port::message::proxy;

namespace {

// A new T, or null when the allocation fails or T's constructor raises.
template <typename T, typename... Args>
T *NewOrNull(Args &&...args) noexcept {
  try {
    return new (std::nothrow) T(std::forward<Args>(args)...);
  } catch (...) {
    return nullptr;
  }
}

}  // namespace

int TalvoProxyIpc::_connectApp(const std::string &appId) {
  LOGD("AppID : %s", appId.c_str());

  if (ipcMechanism != IPC_MECHANISM_VIDL) {
    // No record for a message-port app: _isConnectedToApp probes its port every time.
    bool running = false;
    if (app_manager_is_running(appId.c_str(), &running) != 0 || running)
      return 0;

    LOGE("App state request recieved for app:%s, but app is not running", appId.c_str());
    int ret = _launchApp(appId);
    if (ret != 0) {
      LOGE("Fail to launch app:%s, ret(%d)", appId.c_str(), ret);
      return ret;
    }
    return 0;
  }

  if (clientsMap.count(appId)) {
    if (appLaunchInfoMap.count(appId)) {
      LOGD("app launch for app:%s already in progress", appId.c_str());
      return kErrInProgress;
    }
    ClientRemove(appId);
  }

  auto *client = new (std::nothrow) ClientInfo();
  if (!client) {
    LOGE("Failed to create new clientInfo");
    return kErrNoMemory;
  }

  // The observer copies the app id; the proxy raises when the platform cannot make its
  // handle. Either counts as a failed allocation.
  auto *observer = NewOrNull<talvo::Observer>(appId);
  if (!observer) {
    LOGE("Failed to create new Observer");
    delete client;
    return kErrNoMemory;
  }
  client->observer = observer;

  auto *messageProxy = NewOrNull<proxy::message>(observer, appId);
  if (!messageProxy) {
    LOGE("Failed to create new message");
    ReleaseClientInfo(client);
    return kErrNoMemory;
  }
  client->proxy = messageProxy;

  bool inserted = false;
  try {
    inserted = clientsMap.emplace(appId, client).second;
  } catch (...) {
    inserted = false;  // no room for the entry: released below like a refused insertion
  }
  if (!inserted) {
    LOGE("Failed to clientMap insert");
    ReleaseClientInfo(client);
    return kErrNoMemory;
  }
  LOGD("Insert size(%d), mapInsertBool(%d)", static_cast<int>(clientsMap.size()), 1);

  // Connect only starts the connection; the outcome arrives through the observer.
  try {
    messageProxy->Connect();
  } catch (const proxy::InvalidIDException &) {
    LOGE("Failed to InvalidIDException");
    ClientRemove(appId);
    return kErrInvalid;
  } catch (const proxy::InvalidIOException &) {
    LOGE("Failed to InvalidIOException");
    ClientRemove(appId);
    return kErrInvalid;
  } catch (const proxy::PermissionDeniedException &) {
    LOGE("Failed to PermissionDeniedException");
    ClientRemove(appId);
    return kErrPermission;
  }
  return 0;
}

int TalvoProxyIpc::_launchApp(const std::string &appId) {
  LOGD("launch app %s", appId.c_str());

  app_control_h appControl = nullptr;
  app_control_create(&appControl);
  app_control_set_operation(appControl, kLaunchOperation);
  app_control_set_app_id(appControl, appId.c_str());

  int ret = app_control_send_launch_request(appControl, nullptr, nullptr);
  if (ret != 0) {
    LOGE("Failed to launch app:%s", appId.c_str());
    app_control_destroy(appControl);
    return kErrRefused;
  }

  LOGD("Sent app launch request for app:%s", appId.c_str());
  app_control_destroy(appControl);
  return 0;
}
