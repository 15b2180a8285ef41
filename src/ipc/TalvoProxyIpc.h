// Process-wide object that reaches companion apps: the library's message port, the
// result handler, the launch, focus and client registries, the chunk buffers and the
// mechanism of the app being served.
#pragma once

#include <Ecore.h>
#include <bundle.h>
#include <glib.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "common/TalvoProxyCommonData.h"
#include "ipc/ChunkBuffer.h"

namespace rpc_port::message::proxy {
class message;
}
namespace talvo {
class Observer;
}

// Receives every complete answer: the app id by value, the answer bundle borrowed for the
// call, and the registered user data.
typedef void (*IPCMessageReceivedCallback)(std::string appId, bundle *result, void *userData);

// One rpc-port connection to an app. Owned by its clientsMap entry; released in the order
// observer, proxy, record.
struct ClientInfo {
  rpc_port::message::proxy::message *proxy = nullptr;  // owned; listens to observer
  talvo::Observer *observer = nullptr;                  // owned
  bool connected = false;                               // set by OnConnected
};

// A request waiting for its app, polled by a timer. Released (timer, data, record) as a
// whole by its own wait: see ReleaseWaitRecord.
struct AppWaitInfo {
  int32_t count = 0;
  std::string appId;
  bundle *data = nullptr;        // owned copy of the request
  Ecore_Timer *timer = nullptr;  // owned; its data pointer is this record
};

// A request waiting for its app to be launched or connected. Owned by appLaunchInfoMap.
struct AppLaunchInfo : AppWaitInfo {};

// A request waiting for its alias app to get the focus. Owned by appFocusedInfoMap.
struct AppFocusedInfo : AppWaitInfo {};

// Posted with g_idle_add when a connection is lost or refused; freed by _clientRemoveCb.
struct ClientRemoveData {
  class TalvoProxyIpc *ipc = nullptr;  // borrowed process-wide instance
  std::string appId;
};

template <typename T>
class ProcessWide;

class TalvoProxyIpc {
 public:
  static TalvoProxyIpc *getInstance();

  // Lifecycle and registry.
  int initialize();
  int deinitialize();
  int setIPCMessageReceivedCallback(IPCMessageReceivedCallback callback, void *userData);
  ClientInfo *GetClientInfo(const std::string &appId);
  AppLaunchInfo *GetAppLaunchInfo(const std::string &appId);
  void ClientRemove(const std::string &appId);
  static gboolean _clientRemoveCb(gpointer data);

  // Sending.
  int sendData(std::string appId, bundle *data, bool isStateRequest);
  bool _isExistedAliasApp(const std::string &appId);
  bool _isConnectedToApp(const std::string &appId);
  int _sendDataToApp(const std::string &appId, bundle *data);
  static void _bundleDataCb(const char *key, const int type, const bundle_keyval_t *kv,
                            void *userData);

  // Receiving.
  static void _appResultReceivedCb(int localPortId, const char *remoteAppId,
                                   const char *remotePort, bool trustedRemotePort,
                                   bundle *message, void *userData);
  void _processAppResultPort(std::string appId, bundle *message);
  void _processAppResult(std::string appId, bundle *answer);

  // Connecting and launching.
  int _connectApp(const std::string &appId);
  int _launchApp(const std::string &appId);

  // Launch and focus monitoring.
  int _monitorAppLaunch(const std::string &appId, bundle *request);
  int _updateAppLaunchInfo(const std::string &appId, bundle *request);
  static Eina_Bool _appLaunchMonitoringCb(void *record);
  int _monitorAppFocused(const std::string &appId, bundle *request);
  static Eina_Bool _appFocusedMonitoringCb(void *record);

  // State shared by the steps above; all touched only on the main-loop thread.
  int32_t localPortId = 0;
  bool initialized = false;
  talvo::ipc::ChunkBuffer appStateChunks;
  talvo::ipc::ChunkBuffer resultChunks;
  // The app whose chunked answer of that kind passed the buffer cap, while that answer's
  // remaining pieces are being dropped (see JoinPiece in the receive path); unset when
  // nothing is being dropped.
  std::optional<std::string> appStateChunksDroppedFrom;
  std::optional<std::string> resultChunksDroppedFrom;
  std::map<std::string, AppLaunchInfo *> appLaunchInfoMap;    // owns its records
  std::map<std::string, AppFocusedInfo *> appFocusedInfoMap;  // owns its records
  std::map<std::string, ClientInfo *> clientsMap;             // owns its records
  int32_t ipcMechanism = 0;                 // an IpcMechanism value, set by every send
  TalvoProxyCommonData *commonData = nullptr;  // borrowed process-wide instance
  IPCMessageReceivedCallback resultCallback = nullptr;
  void *resultCallbackUserData = nullptr;   // borrowed

 private:
  TalvoProxyIpc() = default;
  friend class ProcessWide<TalvoProxyIpc>;
};
