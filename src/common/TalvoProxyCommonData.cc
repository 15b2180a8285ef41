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

// Called by GLib on the main loop of the thread that called initialize.
//
// A library must never end or crash its host, so two things go beyond keeping the
// pointer: GLib's shared bus connection raises SIGTERM in the process when the bus goes
// away, which is turned off here; and GLib drops its own references once the connection
// closes, so the kept pointer holds one of its own, released only when a later
// acquisition replaces it. A query on a closed connection then fails like any failed call.
void TalvoProxyCommonData::_dbusAcquiredCb(GDBusConnection *connection, const gchar *,
                                           gpointer userData) {
  auto *self = static_cast<TalvoProxyCommonData *>(userData);
  if (!self) {
    LOGE("talvoProxy is null");
    return;
  }

  LOGD("GDBUS connection is %p", static_cast<void *>(connection));
  if (connection) {
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    g_object_ref(connection);
  }
  if (self->dbusConnection) g_object_unref(self->dbusConnection);
  self->dbusConnection = connection;
}
