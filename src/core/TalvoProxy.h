// The process-wide object behind the exported functions: brings the components up and
// down, hands each request to its request component and then to sending, and routes
// every app answer to the request kind that it answers.
#pragma once

#include <bundle.h>

#include <string>

#include "talvo_proxy.h"

class TalvoProxyIpc;
class TalvoProxyActionRequest;
class TalvoProxyStateRequest;
class TalvoProxyCommonData;

template <typename T>
class ProcessWide;

class TalvoProxy {
 public:
  // The process-wide instance, made on first use; null when it could not be allocated.
  static TalvoProxy *getInstance();

  // 0 (also when already initialised), -12 when a component instance is absent.
  int initialize();
  // Always 0.
  int deinitialize();
  int requestAppState(std::string appId, bundle *data, talvo_proxy_result_cb callback,
                      void *userData);
  int executeAction(std::string appId, bundle *data, talvo_proxy_result_cb callback,
                    void *userData);
  // Newly allocated app id (free with free()), or null.
  char *getFocusedAppId();

  // The result handler registered with TalvoProxyIpc; userData is this instance. The
  // answer bundle is borrowed for the call.
  static void _processResult(std::string appId, bundle *result, void *userData);

 private:
  TalvoProxy() = default;
  friend class ProcessWide<TalvoProxy>;

  bool initialized = false;
  // The components' own process-wide instances: borrowed, never freed, never cleared.
  TalvoProxyIpc *ipc = nullptr;
  TalvoProxyActionRequest *actionRequest = nullptr;
  TalvoProxyStateRequest *stateRequest = nullptr;
  TalvoProxyCommonData *commonData = nullptr;
};
