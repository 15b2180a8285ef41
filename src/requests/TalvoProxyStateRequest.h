// Pending app-state requests, at most one per app, and the rewriting of each app's
// context into the JSON envelope that the client receives.
#pragma once

#include <bundle.h>

#include <map>
#include <string>

#include "common/TalvoProxyCommonData.h"
#include "talvo_proxy.h"

// One pending state request. Owned by its stateResultInfoMap entry.
struct StateRequestResultInfo {
  talvo_proxy_result_cb callback = nullptr;
  void *userData = nullptr;  // the client's, handed back unchanged
};

template <typename T>
class ProcessWide;

class TalvoProxyStateRequest {
 public:
  // The process-wide instance, made on first use; null when it could not be allocated.
  static TalvoProxyStateRequest *getInstance();

  // 0, or -12 when the common data instance is absent.
  int initialize();
  // Drops every pending request without calling its callback.
  int deinitialize();

  // Accepts the request only for a running app, records it (replacing any pending one of
  // the app), adds "actionId" = "getAppContext" and "type" = "PunchIn" to data (keys
  // already there keep their values) and makes sure the app's metadata record exists.
  // 0, -1073741825 (not initialised, app not running), -1073741826 (running state
  // unreadable), -12 (no record, or no metadata: the request then stays recorded).
  int requestAppState(std::string appId, bundle *data, talvo_proxy_result_cb callback,
                      void *userData);
  // Rewrites "appContext" of the answer (borrowed, changed in place) into the envelope,
  // or the answer into the failure answer, and hands it to the app's pending callback.
  void _processAppStateResult(std::string appId, bundle *result, const char *appContextText);

 private:
  TalvoProxyStateRequest() = default;
  friend class ProcessWide<TalvoProxyStateRequest>;

  bool initialized = false;
  std::map<std::string, StateRequestResultInfo *> stateResultInfoMap;  // owns records
  TalvoProxyCommonData *commonData = nullptr;  // borrowed process-wide instance
};
