/* A companion app that opens a window: asks the window-manager simulator for a window
 * of its own (focused with --focused), then runs its main loop until it is ended. */
#include <gio/gio.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <velna_main_loop.h>

int main(int argc, char **argv)
{
        gboolean focused = argc > 1 && strcmp(argv[1], "--focused") == 0;

        GError *error = NULL;
        GDBusConnection *bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, NULL, &error);
        if (!bus) {
                fprintf(stderr, "window app: no bus: %s\n", error->message);
                g_error_free(error);
                return 1;
        }

        GVariant *reply = g_dbus_connection_call_sync(
                bus, "org.enlightenment.wm", "/org/velna/WmSim", "org.velna.WmSim", "AddWindow",
                g_variant_new("(ib)", (gint32)getpid(), focused), NULL, G_DBUS_CALL_FLAGS_NONE,
                10000, NULL, &error);
        if (!reply) {
                fprintf(stderr, "window app: AddWindow failed: %s\n", error->message);
                g_error_free(error);
                return 1;
        }
        g_variant_unref(reply);

        return velna_main_loop_run();
}
