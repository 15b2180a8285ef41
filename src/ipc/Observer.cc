// talvo::Observer: connection events of one app's rpc-port proxy.
#include "ipc/Observer.h"

#include <glib.h>

#include <memory>
#include <new>

#include "common/Log.h"
#include "ipc/ReceivedEvent.h"
#include "ipc/TalvoProxyIpc.h"

namespace talvo {

namespace proxy = rpc_port::message::proxy;

void Observer::OnConnected() {
  try {
    LOGI("(%s) is OnConnected", appId.c_str());

    TalvoProxyIpc *ipc = TalvoProxyIpc::getInstance();
    ClientInfo *client = ipc ? ipc->GetClientInfo(appId) : nullptr;
    if (!client) {
      LOGE("ClientsInfo is null");
      return;
    }

    // SetCB takes the delegate over; if it does not, the unique_ptr deletes it here.
    int ret = 0;
    try {
      std::unique_ptr<proxy::message::ResponseCB> event(new ReceivedEvent());
      ret = client->proxy->SetCB(event);
    } catch (const proxy::NotConnectedSocketException &) {
      LOGE("Failed to NotConnectedSocketException (%s)", appId.c_str());
      return;
    } catch (const proxy::InvalidProtocolException &) {
      LOGE("Failed to InvalidProtocolException (%s)", appId.c_str());
      return;
    } catch (const std::bad_alloc &) {
      // The client stays unconnected; the launch wait's time-out answers the request.
      LOGE("Failed to create ReceivedEvent (%s)", appId.c_str());
      return;
    }
    if (ret != 0) {
      LOGE("Fail to SetCB for (%s)", appId.c_str());
      return;
    }
    client->connected = true;

    AppLaunchInfo *launchInfo = ipc->GetAppLaunchInfo(appId);
    if (!launchInfo) {
      LOGE("appLaunchInfo is null");
      return;
    }

    // Serve the waiting request now, not from its timer: delete the timer first so that
    // the record is never served twice. The tick releases the record; this object may be
    // released by it too (a give-up removes the client), so nothing here touches a
    // member afterwards.
    if (launchInfo->timer) {
      ecore_timer_del(launchInfo->timer);
      launchInfo->timer = nullptr;
    }
    TalvoProxyIpc::_appLaunchMonitoringCb(launchInfo);
  } catch (...) {
    LOGE("Unexpected exception in OnConnected");
  }
}

void Observer::OnDisconnected() {
  try {
    LOGI("(%s) is OnDisconnected", appId.c_str());
    if (!postClientRemove())
      LOGE("clientRemoveData is null");
  } catch (...) {
    LOGE("Unexpected exception in OnDisconnected");
  }
}

void Observer::OnRejected() {
  try {
    LOGI("(%s) is OnRejected", appId.c_str());
    if (!postClientRemove())
      LOGE("clientRemoveData is null");
  } catch (...) {
    LOGE("Unexpected exception in OnRejected");
  }
}

bool Observer::postClientRemove() {
  std::unique_ptr<ClientRemoveData> data(new (std::nothrow) ClientRemoveData());
  if (!data)
    return false;
  data->ipc = TalvoProxyIpc::getInstance();
  data->appId = appId;
  // Ownership passes to the idle callback, which frees it.
  g_idle_add(TalvoProxyIpc::_clientRemoveCb, data.release());
  return true;
}

}  // namespace talvo
