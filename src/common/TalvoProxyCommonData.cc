// Lifecycle of the common data: the process-wide instance, the ownership of the bus name
// and the connection that comes with it.
#include "common/TalvoProxyCommonData.h"

#include <new>

#include "common/Log.h"
#include "common/ProcessWide.h"

namespace {

constexpr const char kBusName[] = "org.velna.talvo.sdk.proxy";

}  // namespace

TalvoProxyCommonData *TalvoProxyCommonData::getInstance() {
  return ProcessWide<TalvoProxyCommonData>::get();
}

// Asks for the bus name on every call. The owner id is not kept and the name is never
// released: a later call's acquisition replaces the connection.
int TalvoProxyCommonData::initialize() {
  LOGD("TalvoProxyCommonData is initialized");

  guint dbusOwnId = g_bus_own_name(G_BUS_TYPE_SYSTEM, kBusName, G_BUS_NAME_OWNER_FLAGS_NONE,
                                   _dbusAcquiredCb, nullptr, nullptr, this, nullptr);
  LOGD("dbusOwnId : %d", static_cast<int>(dbusOwnId));
  return 0;
}

// Empties the metadata registry. The connection and the bus name stay.
int TalvoProxyCommonData::deinitialize() {
  for (auto &entry : metaDataMap) delete entry.second;
  metaDataMap.clear();
  return 0;
}

// Called by GLib on the main loop of the thread that called initialize. The connection
// stays GLib's: no reference is taken.
void TalvoProxyCommonData::_dbusAcquiredCb(GDBusConnection *connection, const gchar *,
                                           gpointer userData) {
  auto *self = static_cast<TalvoProxyCommonData *>(userData);
  if (!self) {
    LOGE("talvoProxy is null");
    return;
  }

  LOGD("GDBUS connection is %p", static_cast<void *>(connection));
  self->dbusConnection = connection;
}
