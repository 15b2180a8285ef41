// The six exported functions. Each catches everything: no exception reaches the client.
#include "talvo_proxy.h"

#include <exception>
#include <string>

#include "common/Log.h"
#include "core/TalvoProxy.h"

namespace {

constexpr int kOutOfMemory = -12;
constexpr int kInvalidArgument = -22;

}  // namespace

// Closes a try block: logs what escaped under the exported function's own name and
// returns failure.
#define TALVO_CATCH_ALL(failure)                        \
  catch (const std::exception &e) {                     \
    LOGE("Unexpected exception: %s", e.what());         \
    return failure;                                     \
  }                                                     \
  catch (...) {                                         \
    LOGE("Unexpected exception: %s", "(unknown)");      \
    return failure;                                     \
  }

// Forwards to the process-wide TalvoProxy inside a catch-all; an absent instance is
// logged and answered with failure. A macro, so that every line carries the exported
// function's own name.
#define TALVO_FORWARD(failure, call)          \
  try {                                       \
    TalvoProxy *proxy = TalvoProxy::getInstance(); \
    if (!proxy) {                             \
      LOGE("TalvoProxy instance is null");    \
      return failure;                         \
    }                                         \
    return proxy->call;                       \
  }                                           \
  TALVO_CATCH_ALL(failure)

int talvo_proxy_initialize(void) { TALVO_FORWARD(kOutOfMemory, initialize()) }

int talvo_proxy_deinitialize(void) { TALVO_FORWARD(kOutOfMemory, deinitialize()) }

char *talvo_proxy_get_focused_app_id(void) { TALVO_FORWARD(nullptr, getFocusedAppId()) }

// A null app id cannot become the owned string that the request paths key on.
int talvo_proxy_app_state_request(const char *app_id, bundle *data,
                                  talvo_proxy_result_cb callback, void *user_data) {
  if (!app_id) {
    LOGE("app_id is null");
    return kInvalidArgument;
  }
  TALVO_FORWARD(kOutOfMemory, requestAppState(std::string(app_id), data, callback, user_data))
}

int talvo_proxy_app_action_execution(const char *app_id, bundle *data,
                                     talvo_proxy_result_cb callback, void *user_data) {
  if (!app_id) {
    LOGE("app_id is null");
    return kInvalidArgument;
  }
  TALVO_FORWARD(kOutOfMemory, executeAction(std::string(app_id), data, callback, user_data))
}
