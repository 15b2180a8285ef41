// A sample alias app reached over rpc-port: its package id, as the package manager names
// it, does not begin with the package id of its app information, so the assistant's
// actions wait until its window has the focus. Like any app that comes to the front, it
// asks the window manager for the focus when it starts, then serves interface "message"
// as the rpc-port sample does (SampleCompanion.h).
//
// Environment, besides SampleCompanion.h:
//   TALVO_SAMPLE_NO_FOCUS=1   never ask for the focus
#include <dlog.h>
#include <gio/gio.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "SampleCompanion.h"

#define SAMPLE_TAG "SAMPLE_ALIAS_APP"

namespace {

// The window manager's control interface on the system bus (DBUS_SYSTEM_BUS_ADDRESS is
// honoured): Focus(i pid) opens this process's window on top with the focus.
void RequestFocus() {
  GError *error = nullptr;
  GDBusConnection *bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (!bus) {
    dlog_print(DLOG_ERROR, SAMPLE_TAG, "No system bus: %s", error->message);
    g_error_free(error);
    return;
  }
  // The app outlives a window manager that goes away; it just has no focus then.
  g_dbus_connection_set_exit_on_close(bus, FALSE);

  GVariant *reply = g_dbus_connection_call_sync(
      bus, "org.enlightenment.wm", "/org/velna/WmSim", "org.velna.WmSim", "Focus",
      g_variant_new("(i)", static_cast<gint32>(getpid())), nullptr, G_DBUS_CALL_FLAGS_NONE,
      5000, nullptr, &error);
  if (reply) {
    g_variant_unref(reply);
  } else {
    dlog_print(DLOG_ERROR, SAMPLE_TAG, "Focus request failed: %s", error->message);
    g_error_free(error);
  }
  g_object_unref(bus);
}

}  // namespace

int main() {
  const char *noFocus = getenv("TALVO_SAMPLE_NO_FOCUS");
  if (!noFocus || strcmp(noFocus, "1") != 0)
    RequestFocus();
  return sample::RunSampleCompanion(TALVO_COMPANION_MECHANISM_FROM_MANIFEST);
}
