// The focused-application query: asks the window manager for its visible windows and
// names the app that owns the first focused one.
#include <app_manager.h>

#include <cstdlib>

#include "common/Log.h"
#include "common/TalvoProxyCommonData.h"

namespace {

constexpr const char kWmBusName[] = "org.enlightenment.wm";
constexpr const char kWmObjectPath[] = "/org/enlightenment/wm";
constexpr const char kWmInterface[] = "org.enlightenment.wm.proc";
constexpr const char kWmMethod[] = "GetVisibleWinInfo";

constexpr const char kReplyType12[] = "(a(uiiiibibiiii))";
constexpr const char kRecordType12[] = "(uiiiibibiiii)";
constexpr const char kReplyType13[] = "(a(uiiiibibiiiib))";
constexpr const char kRecordType13[] = "(uiiiibibiiiib)";

enum WinInfoLayout { kLayoutUnknown = 0, kLayoutTwelve = 1, kLayoutThirteen = 2 };

// The layout the window manager last answered with. Process-wide, set only by a call
// that worked and never reset: once one layout has worked only that one is tried.
int winInfoLayout = kLayoutUnknown;

GVariant *callGetVisibleWinInfo(GDBusConnection *connection, const char *replyType,
                                GError **error) {
  return g_dbus_connection_call_sync(connection, kWmBusName, kWmObjectPath, kWmInterface,
                                     kWmMethod, nullptr, G_VARIANT_TYPE(replyType),
                                     G_DBUS_CALL_FLAGS_NONE, -1, nullptr, error);
}

}  // namespace

// Blocks the loop for the synchronous call. Returns the app id of the first focused
// window, or of the last window whose pid the application manager knows when none is
// focused; null otherwise. The result is newly allocated (free with free()).
char *TalvoProxyCommonData::GetFocusedAppId() {
  if (!dbusConnection) {
    LOGE("Dbus Connection pointer is null");
    return nullptr;
  }

  LOGD("In _getFocusedAppId call");

  GError *error = nullptr;
  GVariant *reply = nullptr;
  bool thirteen = false;

  if (winInfoLayout == kLayoutUnknown || winInfoLayout == kLayoutTwelve) {
    LOGD("Trying with 12 parameters");
    reply = callGetVisibleWinInfo(dbusConnection, kReplyType12, &error);
    if (reply) winInfoLayout = kLayoutTwelve;
  }

  if (!reply && (winInfoLayout == kLayoutUnknown || winInfoLayout == kLayoutThirteen)) {
    g_clear_error(&error);
    LOGD("Trying with 13 parameters");
    reply = callGetVisibleWinInfo(dbusConnection, kReplyType13, &error);
    if (reply) {
      winInfoLayout = kLayoutThirteen;
      thirteen = true;
    }
  }

  if (!reply) {
    LOGE("g_dbus_connection_call_sync() failed");
    if (error) {
      LOGE("dbus error message: %s", error->message);
      g_error_free(error);
    }
    LOGD("FOCUS APPID %s", talvo::NullSafe(nullptr));
    return nullptr;
  }

  GVariantIter *iter = nullptr;
  g_variant_get(reply, thirteen ? kReplyType13 : kReplyType12, &iter);

  char *focusedAppId = nullptr;
  while (GVariant *record = g_variant_iter_next_value(iter)) {
    guint32 windowId = 0;
    gint32 x = 0, y = 0, width = 0, height = 0, visibility = 0, pid = 0;
    gint32 layer = 0, opaque = 0, iconic = 0;
    gboolean alpha = FALSE, focused = FALSE, extra = FALSE;
    if (thirteen)
      g_variant_get(record, kRecordType13, &windowId, &x, &y, &width, &height, &alpha,
                    &visibility, &focused, &pid, &layer, &opaque, &iconic, &extra);
    else
      g_variant_get(record, kRecordType12, &windowId, &x, &y, &width, &height, &alpha,
                    &visibility, &focused, &pid, &layer, &opaque, &iconic);

    char *appId = nullptr;
    if (app_manager_get_app_id(pid, &appId) == 0) {
      free(focusedAppId);
      focusedAppId = appId;
    }

    g_variant_unref(record);
    if (focused) break;
  }

  g_variant_iter_free(iter);
  g_variant_unref(reply);

  LOGD("FOCUS APPID %s", talvo::NullSafe(focusedAppId));
  return focusedAppId;
}
