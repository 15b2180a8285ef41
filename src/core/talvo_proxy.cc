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

int talvo_proxy_initialize(void) {
  try {
    TalvoProxy *proxy = TalvoProxy::getInstance();
    if (!proxy) {
      LOGE("TalvoProxy instance is null");
      return kOutOfMemory;
    }
    return proxy->initialize();
  }
  TALVO_CATCH_ALL(kOutOfMemory)
}

int talvo_proxy_deinitialize(void) {
  try {
    TalvoProxy *proxy = TalvoProxy::getInstance();
    if (!proxy) {
      LOGE("TalvoProxy instance is null");
      return kOutOfMemory;
    }
    return proxy->deinitialize();
  }
  TALVO_CATCH_ALL(kOutOfMemory)
}

char *talvo_proxy_get_focused_app_id(void) {
  try {
    TalvoProxy *proxy = TalvoProxy::getInstance();
    if (!proxy) {
      LOGE("TalvoProxy instance is null");
      return nullptr;
    }
    return proxy->getFocusedAppId();
  }
  TALVO_CATCH_ALL(nullptr)
}

int talvo_proxy_app_state_request(const char *app_id, bundle *data,
                                  talvo_proxy_result_cb callback, void *user_data) {
  if (!app_id) {
    LOGE("app_id is null");
    return kInvalidArgument;
  }

  try {
    TalvoProxy *proxy = TalvoProxy::getInstance();
    if (!proxy) {
      LOGE("TalvoProxy instance is null");
      return kOutOfMemory;
    }
    return proxy->requestAppState(std::string(app_id), data, callback, user_data);
  }
  TALVO_CATCH_ALL(kOutOfMemory)
}

int talvo_proxy_app_action_execution(const char *app_id, bundle *data,
                                     talvo_proxy_result_cb callback, void *user_data) {
  if (!app_id) {
    LOGE("app_id is null");
    return kInvalidArgument;
  }

  try {
    TalvoProxy *proxy = TalvoProxy::getInstance();
    if (!proxy) {
      LOGE("TalvoProxy instance is null");
      return kOutOfMemory;
    }
    return proxy->executeAction(std::string(app_id), data, callback, user_data);
  }
  TALVO_CATCH_ALL(kOutOfMemory)
}
