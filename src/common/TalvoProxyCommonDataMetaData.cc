// The per-app metadata registry: what each app declares (version, capsule id, SDK
// version) and the mechanism that its SDK version implies.
#include <app_info.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "common/Log.h"
#include "common/MetaDataKeys.h"
#include "common/PlatformPtr.h"
#include "common/TalvoProxyCommonData.h"

namespace {

// An SDK version holding this text anywhere is served over the message port.
constexpr const char kMessagePortSdkMarker[] = "1.0-alpha";

// Replaces *slot with a copy of value.
void storeCopy(char **slot, const char *value) {
  free(*slot);
  *slot = strdup(value);
}

}  // namespace

MetaDataInfo *TalvoProxyCommonData::GetMetaDataInfo(const std::string &appId) {
  auto it = metaDataMap.find(appId);
  if (it == metaDataMap.end()) {
    LOGE("MetaDataMap entry not found for :%s", appId.c_str());
    return nullptr;
  }

  if (!it->second) {
    LOGE("MetaDataInfo is null");
    return nullptr;
  }
  return it->second;
}

// Returns the app's record, made from the request bundle when it carries all three
// values, else from the package metadata. rpc-port records are kept as they are;
// message-port records are rebuilt on every call. The bundle (may be null) is only read.
MetaDataInfo *TalvoProxyCommonData::ExtractMetaData(const std::string &appId, bundle *data) {
  LOGD("remoteAppId = %s", appId.c_str());

  if (MetaDataInfo *existing = GetMetaDataInfo(appId)) {
    if (existing->ipcMechanism == IPC_MECHANISM_VIDL) return existing;
    delete existing;
    metaDataMap.erase(appId);
  }

  char *capsuleId = nullptr;
  char *appVersion = nullptr;
  char *appSdkVersion = nullptr;
  bool fromBundle = data && bundle_get_str(data, "capsuleId", &capsuleId) == 0 &&
                    bundle_get_str(data, "appVersion", &appVersion) == 0 &&
                    bundle_get_str(data, "appSdkVersion", &appSdkVersion) == 0;

  std::unique_ptr<MetaDataInfo> info(new (std::nothrow) MetaDataInfo());
  if (!info) {
    LOGE("MetaDataInfo is null");
    return nullptr;
  }

  info->metadataValue.reset(new (std::nothrow) MetaDataValue());
  if (!info->metadataValue) return nullptr;

  info->ipcMechanism = IPC_MECHANISM_VIDL;
  MetaDataValue *value = info->metadataValue.get();

  if (fromBundle) {
    value->capsuleIdValue = strdup(capsuleId);
    value->versionValue = strdup(appVersion);
    value->sdkVersionValue = strdup(appSdkVersion);
  } else {
    app_info_h rawHandle = nullptr;
    int ret = app_info_create(appId.c_str(), &rawHandle);
    if (ret != 0) {
      LOGE("app_info_create failed ERROR[%d]", ret);
      return nullptr;
    }
    talvo::AppInfoPtr handle(rawHandle);

    ret = app_info_foreach_metadata(handle.get(), _talvo_metadata_cb, value);
    if (ret != 0) {
      LOGE("app_info_foreach_metadata failed ERROR[%d]", ret);
      return nullptr;
    }
  }

  LOGD("AppSdkVersion %s", talvo::NullSafe(value->sdkVersionValue));

  if (!value->sdkVersionValue || strstr(value->sdkVersionValue, kMessagePortSdkMarker))
    info->ipcMechanism = IPC_MECHANISM_MESSAGE_PORT;

  MetaDataInfo *stored = info.get();
  try {
    metaDataMap.insert_or_assign(appId, stored);
  } catch (...) {
    LOGE("MetaDataInfo is null");
    return nullptr;
  }
  info.release();  // the registry owns it now

  LOGD("metadataValue->capsuleIdValue -> %s metadataValue->versionValue- %s",
       talvo::NullSafe(value->capsuleIdValue), talvo::NullSafe(value->versionValue));
  return stored;
}

void TalvoProxyCommonData::RemoveMetaDataMapEntry(const std::string &appId) {
  MetaDataInfo *info = GetMetaDataInfo(appId);
  if (!info) {
    LOGE("MetaDataInfo is null");
    return;
  }

  delete info;
  metaDataMap.erase(appId);
  LOGD("Remove metaDataMap size(%d)", static_cast<int>(metaDataMap.size()));
}

// Fills the MetaDataValue given as user data; a key met again replaces the earlier value.
// Always asks for the next entry.
bool TalvoProxyCommonData::_talvo_metadata_cb(const char *key, const char *value,
                                              void *userData) {
  LOGD("metadata_key[%s] metadata_value[%s]", talvo::NullSafe(key), talvo::NullSafe(value));

  auto *target = static_cast<MetaDataValue *>(userData);
  if (!key || !value || !target) return true;

  if (strcmp(key, talvo::kMetadataVersionKey) == 0)
    storeCopy(&target->versionValue, value);
  else if (strcmp(key, talvo::kMetadataCapsuleIdKey) == 0)
    storeCopy(&target->capsuleIdValue, value);
  else if (strcmp(key, talvo::kMetadataSdkVersionKey) == 0)
    storeCopy(&target->sdkVersionValue, value);
  else
    LOGD("Unknown metadata key.");
  return true;
}
