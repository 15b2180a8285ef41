// talvo_proxy_is_action_registered: whether an installed app lists an action id in its
// action-id metadata, matched as a whole element of the comma-separated list. Stands
// apart from the proxy instance and needs no initialisation.
#include <app_info.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <new>

#include "common/Log.h"
#include "common/MetaDataKeys.h"
#include "common/PlatformPtr.h"
#include "talvo_proxy.h"

namespace {

// Set by the metadata callback; meaningful only within one check. Not locked: checks
// run on the main-loop thread and never overlap.
bool isActionRegistered = false;

// Per-entry callback of app_info_foreach_metadata with the queried action id as user
// data. Stops the iteration at the first action-id entry, whatever its outcome.
bool _talvo_metadata_cb(const char *metadata_key, const char *metadata_value,
                        void *user_data) {
  if (!metadata_key) {
    LOGE("metadata_key is null");
    return false;
  }
  if (!metadata_value) {
    LOGE("metadata_value is null");
    return false;
  }
  if (!user_data) {
    LOGE("actionId is null");
    return false;
  }
  const char *actionId = static_cast<const char *>(user_data);

  size_t valueSize = strlen(metadata_value);
  LOGD("metadata_key[%s] metadata_value[%s] metadataValueSize[%d]", metadata_key,
       metadata_value, static_cast<int>(valueSize));

  if (strcmp(metadata_key, talvo::kMetadataActionIdKey) != 0) return true;

  // Both sides wrapped in commas, so that only a whole element matches.
  size_t wrappedValueSize = valueSize + 3;
  std::unique_ptr<char[]> metadataValueSubActionId(new (std::nothrow) char[wrappedValueSize]);
  if (!metadataValueSubActionId) {
    LOGE("metadataValueSubActionId is null : out of memory");
    return false;
  }
  snprintf(metadataValueSubActionId.get(), wrappedValueSize, "%s%s%s", ",", metadata_value,
           ",");

  size_t wrappedIdSize = strlen(actionId) + 3;
  std::unique_ptr<char[]> actionIdValue(new (std::nothrow) char[wrappedIdSize]);
  if (!actionIdValue) {
    LOGE("actionIdValue is null : out of memory");
    return false;
  }
  snprintf(actionIdValue.get(), wrappedIdSize, "%s%s%s", ",", actionId, ",");

  isActionRegistered = strstr(metadataValueSubActionId.get(), actionIdValue.get()) != nullptr;
  return false;
}

}  // namespace

bool talvo_proxy_is_action_registered(const char *app_id, const char *action_id) {
  if (!app_id) {
    LOGE("app_id is null");
    return false;
  }
  if (!action_id) {
    LOGE("action_id is null");
    return false;
  }

  try {
    isActionRegistered = false;

    app_info_h rawHandle = nullptr;
    int ret = app_info_create(app_id, &rawHandle);
    if (ret != 0) {
      LOGE("app_info_create failed ERROR[%d]", ret);
      return false;
    }
    talvo::AppInfoPtr handle(rawHandle);

    ret = app_info_foreach_metadata(handle.get(), _talvo_metadata_cb,
                                    const_cast<char *>(action_id));
    if (ret != 0) {
      LOGE("app_info_foreach_metadata failed ERROR[%d]", ret);
      return false;
    }

    if (isActionRegistered) {
      LOGI("app[%s] has registered for Action[%s]", app_id, action_id);
      return true;
    }
    LOGI("app[%s] has not registered for Action[%s]", app_id, action_id);
    return false;
  } catch (const std::exception &e) {
    LOGE("Unexpected exception: %s", e.what());
  } catch (...) {
    LOGE("Unexpected exception: %s", "(unknown)");
  }
  return false;
}
