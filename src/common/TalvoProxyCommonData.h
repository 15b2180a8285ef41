// Process-wide holder of the system-bus connection (owner of "org.velna.talvo.sdk.proxy")
// and of the per-app metadata registry; answers the focused-application query.
#pragma once

#include <bundle.h>
#include <gio/gio.h>

#include <map>
#include <string>

#include "common/MetaDataInfo.h"

template <typename T>
class ProcessWide;

class TalvoProxyCommonData {
 public:
  // The process-wide instance, made on first use; null when it could not be allocated.
  static TalvoProxyCommonData *getInstance();

  int initialize();
  int deinitialize();

  // Registry. Returned records stay owned by the registry.
  MetaDataInfo *GetMetaDataInfo(const std::string &appId);
  MetaDataInfo *ExtractMetaData(const std::string &appId, bundle *data);
  void RemoveMetaDataMapEntry(const std::string &appId);

  // Newly allocated app id (free with free()), or null.
  char *GetFocusedAppId();

 private:
  TalvoProxyCommonData() = default;
  friend class ProcessWide<TalvoProxyCommonData>;

  static void _dbusAcquiredCb(GDBusConnection *connection, const gchar *name,
                              gpointer userData);
  static bool _talvo_metadata_cb(const char *key, const char *value, void *userData);

  std::map<std::string, MetaDataInfo *> metaDataMap;  // owns every record
  GDBusConnection *dbusConnection = nullptr;           // one reference held while kept
};
