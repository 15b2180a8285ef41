// Pending action executions, at most one per app, and the delivery of each app's answer
// to the client's callback.
#pragma once

#include <bundle.h>

#include <map>
#include <string>

#include "talvo_proxy.h"

// One pending action request. Owned by its actionResultInfoMap entry.
struct ActionExecutionResultInfo {
  talvo_proxy_result_cb callback = nullptr;
  void *userData = nullptr;  // the client's, handed back unchanged
};

template <typename T>
class ProcessWide;

class TalvoProxyActionRequest {
 public:
  // The process-wide instance, made on first use; null when it could not be allocated.
  static TalvoProxyActionRequest *getInstance();

  int initialize();
  // Drops every pending request without calling its callback.
  int deinitialize();

  // Records the request (replacing any pending one of the app) and makes sure the app's
  // metadata record exists. 0, -1073741825 when not initialised, -12 when the record or
  // the metadata cannot be had (the request stays recorded in the latter case).
  int executeAction(std::string appId, bundle *data, talvo_proxy_result_cb callback,
                    void *userData);
  // Hands the answer (borrowed) to the app's pending callback, then forgets the request.
  void _processActionResult(std::string appId, bundle *result, const char *resultText);

 private:
  TalvoProxyActionRequest() = default;
  friend class ProcessWide<TalvoProxyActionRequest>;

  bool initialized = false;
  std::map<std::string, ActionExecutionResultInfo *> actionResultInfoMap;  // owns records
};
